#include "fennick/Runtime/Coding/Internal/XMLPropertyListScan.h"

#include <cstdint>
#include <cstring>
#include <vector>

namespace fennick::detail {

namespace {

constexpr const char* kTooDeep = "containers nested too deeply";
constexpr const char* kHoldsNUL = "the text holds a NUL character";

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

bool isScalar(std::string_view name) {
  for (std::string_view scalar : {"integer", "real", "true", "false", "string", "key", "data", "date"})
    if (name == scalar) return true;
  return false;
}

// What libplist keeps open: <plist> elements (which make no node) and
// non-empty containers.
enum class Open : std::uint8_t { PropertyList, Dictionary, Array };

// The cursor moves exactly as libplist's reader moves over the same text;
// each step says where that reader would go on, stop, or run too deep.
class XMLPropertyListScan {
 public:
  XMLPropertyListScan(std::string_view text, std::size_t maxDepth) : text_(text), maxDepth_(maxDepth) {}

  const char* run() {
    if (std::memchr(text_.data(), 0, text_.size())) return kHoldsNUL;
    while (pos_ < text_.size()) {
      skipSpace();
      if (atEnd() || text_[pos_] != '<') break;
      ++pos_;
      if (atEnd()) break;
      const Step step = text_[pos_] == '?' ? processingInstruction()
                        : text_[pos_] == '!' ? declaration()
                                             : element();
      if (step == Step::TooDeep) return kTooDeep;
      if (step == Step::Stop) break;
    }
    return nullptr;
  }

 private:
  enum class Step : std::uint8_t { Continue, Stop, TooDeep };

  Step processingInstruction() {
    findString("?>", true);
    if (!startsWith("?>")) return Step::Stop;
    pos_ += 2;
    return Step::Continue;
  }

  // A comment or a DOCTYPE; libplist refuses any other "<!".
  Step declaration() {
    if (remaining() > 3 && startsWith("!--")) {
      pos_ += 3;
      findString("-->", false);
      if (!startsWith("-->")) return Step::Stop;
      pos_ += 3;
      return Step::Continue;
    }
    if (remaining() <= 8 || !startsWith("!DOCTYPE")) return Step::Stop;
    pos_ += 8;
    bool internalSubset = false;
    while (!atEnd()) {
      findNext(" \t\r\n[>", true);
      if (atEnd()) return Step::Stop;
      if (text_[pos_] == '[') {
        internalSubset = true;
        break;
      }
      if (text_[pos_] == '>') {
        ++pos_;
        break;
      }
      skipSpace();
    }
    if (internalSubset) {
      findString("]>", true);
      if (!startsWith("]>")) return Step::Stop;
      pos_ += 2;
    }
    return Step::Continue;
  }

  Step element() {
    const std::size_t start = pos_;
    findNext(" \r\n\t<>", false);
    if (atEnd()) return Step::Stop;
    const std::size_t nameLength = pos_ - start;
    std::string_view name = text_.substr(start, nameLength);
    if (text_[pos_] != '>') findNext("<>", true);  // attributes
    if (atEnd() || text_[pos_] != '>') return Step::Stop;
    const bool empty = text_[pos_ - 1] == '/';
    if (empty && pos_ - start - 1 < nameLength) name = name.substr(0, pos_ - start - 1);
    ++pos_;

    if (name == "plist") {
      if ((open_.empty() && rootMade_) || empty) return Step::Stop;
      open_.push_back(Open::PropertyList);
      return Step::Continue;
    }
    if (name == "/plist") {
      if (open_.empty() || open_.back() != Open::PropertyList) return Step::Stop;
      open_.pop_back();
      return Step::Continue;
    }
    if (name == "dict" || name == "array") return openContainer(name == "dict" ? Open::Dictionary : Open::Array, empty);
    if (isScalar(name)) {
      if (!empty && !scalarText(name)) return Step::Stop;
      // A scalar at the top is the whole list.
      return rootMade_ ? Step::Continue : Step::Stop;
    }
    if (name.starts_with('/')) return closeContainer(name.substr(1));
    return Step::Stop;
  }

  Step openContainer(Open kind, bool empty) {
    if (!rootMade_) {
      rootMade_ = true;
      // An empty top-level container still receives what follows it.
      if (empty) containers_ = 1;
    }
    if (empty) return Step::Continue;
    open_.push_back(kind);
    return ++containers_ > maxDepth_ ? Step::TooDeep : Step::Continue;
  }

  Step closeContainer(std::string_view name) {
    if (open_.empty()) return Step::Stop;
    const Open top = open_.back();
    if (!((top == Open::Dictionary && name == "dict") || (top == Open::Array && name == "array")))
      return Step::Stop;
    open_.pop_back();
    // Closing the top-level container ends the reading.
    return --containers_ == 0 ? Step::Stop : Step::Continue;
  }

  // The text of a scalar element up to its closing tag, with the comments and
  // CDATA sections libplist accepts inside it.
  bool scalarText(std::string_view tag) {
    for (;;) {
      findChar('<');
      if (atEnd()) return false;
      ++pos_;
      if (atEnd()) return false;
      if (text_[pos_] == '/') break;
      if (text_[pos_] != '!') return false;
      ++pos_;
      if (remaining() <= 1) return false;
      if (startsWith("--")) {
        pos_ += 2;
        findString("-->", false);
        if (!startsWith("-->")) return false;
        pos_ += 3;
      } else if (text_[pos_] == '[') {
        ++pos_;
        if (remaining() <= 8 || !startsWith("CDATA[")) return false;
        pos_ += 6;
        findString("]]>", false);
        if (!startsWith("]]>")) return false;
        pos_ += 3;
      } else {
        return false;
      }
    }
    ++pos_;
    if (remaining() <= tag.size() || !startsWith(tag)) return false;
    pos_ += tag.size();
    skipSpace();
    if (atEnd() || text_[pos_] != '>') return false;
    ++pos_;
    return true;
  }

  // libplist's cursor moves. Quoted text is passed over where libplist
  // passes over it.
  void skipSpace() {
    while (!atEnd() && isSpace(text_[pos_])) ++pos_;
  }
  void findChar(char c) {
    const void* found = std::memchr(text_.data() + pos_, c, remaining());
    pos_ = found ? static_cast<std::size_t>(static_cast<const char*>(found) - text_.data()) : text_.size();
  }
  // Stops on the first place the text begins, looking no further than where
  // the whole of it would still fit before the end (as libplist does).
  void findString(std::string_view wanted, bool skipQuotes) {
    while (pos_ + wanted.size() < text_.size()) {
      if (startsWith(wanted)) return;
      if (skipQuotes && text_[pos_] == '"' && !skipQuoted()) return;
      ++pos_;
    }
  }
  void findNext(std::string_view stops, bool skipQuotes) {
    while (!atEnd()) {
      if (skipQuotes && text_[pos_] == '"' && !skipQuoted()) return;
      if (stops.find(text_[pos_]) != std::string_view::npos) return;
      ++pos_;
    }
  }
  // From an opening quote to its closing quote; false at the end of the text.
  bool skipQuoted() {
    ++pos_;
    findChar('"');
    return !atEnd();
  }

  bool atEnd() const { return pos_ >= text_.size(); }
  std::size_t remaining() const { return text_.size() - pos_; }
  bool startsWith(std::string_view prefix) const { return text_.substr(pos_).starts_with(prefix); }

  std::string_view text_;
  std::size_t maxDepth_;
  std::size_t pos_ = 0;
  std::vector<Open> open_;
  std::size_t containers_ = 0;  // open containers, the empty top-level one included
  bool rootMade_ = false;
};

}  // namespace

const char* xmlPropertyListHazard(std::string_view text, std::size_t maxDepth) {
  return XMLPropertyListScan(text, maxDepth).run();
}

}  // namespace fennick::detail
