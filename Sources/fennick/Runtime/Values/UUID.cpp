#include "fennick/Runtime/Values/UUID.h"

#include "fennick/Runtime/ObjectModel/ClassBuilder.h"
#include "fennick/Runtime/Coding/Coder.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <pthread.h>
#include <sys/random.h>
#include <unistd.h>

namespace fennick {

namespace {

// Identifiers name temporary folders and subscriptions, so they must not be
// guessable: every byte comes from the kernel's random source. One getrandom
// call fills a per-thread buffer that serves sixteen identifiers.
class KernelRandomBytes {
 public:
  void take(std::uint8_t* out, std::size_t count) {
    if (generation_ != forkGeneration() || used_ + count > buffer_.size()) refill();
    std::memcpy(out, buffer_.data() + used_, count);
    // Bytes handed out never stay behind in memory.
    std::memset(buffer_.data() + used_, 0, count);
    used_ += count;
  }

 private:
  // A forked child starts with a copy of its parent's buffer; bytes from it
  // would repeat the parent's identifiers, so a fork discards every buffer.
  static std::uint64_t forkGeneration() {
    static std::once_flag registered;
    std::call_once(registered, [] { ::pthread_atfork(nullptr, nullptr, [] { ++generationCounter(); }); });
    return generationCounter();
  }
  static std::uint64_t& generationCounter() {
    static std::uint64_t counter = 0;  // changed only in a fork's child, which has one thread
    return counter;
  }

  void refill() {
    fill(buffer_.data(), buffer_.size());
    used_ = 0;
    generation_ = forkGeneration();
  }

  static void fill(std::uint8_t* bytes, std::size_t count) {
    std::size_t done = 0;
    while (done < count) {
      const ssize_t got = ::getrandom(bytes + done, count - done, 0);
      if (got > 0) {
        done += static_cast<std::size_t>(got);
      } else if (got < 0 && errno != EINTR) {
        fillFromDevice(bytes + done, count - done);
        return;
      }
    }
  }

  // Kernels without getrandom still have the device; without either there is
  // no way to make an identifier nobody can predict, and none is made.
  static void fillFromDevice(std::uint8_t* bytes, std::size_t count) {
    const int fd = ::open("/dev/urandom", O_RDONLY | O_CLOEXEC);
    std::size_t done = 0;
    while (fd >= 0 && done < count) {
      const ssize_t got = ::read(fd, bytes + done, count - done);
      if (got > 0)
        done += static_cast<std::size_t>(got);
      else if (got == 0 || errno != EINTR)
        break;
    }
    if (fd >= 0) ::close(fd);
    if (done < count) std::abort();
  }

  std::array<std::uint8_t, 256> buffer_{};
  std::size_t used_ = buffer_.size();
  std::uint64_t generation_ = 0;
};

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

FENNICK_DEFINE_CLASS(UUID) {
  builder.archiveNames({"NSUUID"});
  builder.coding();
  builder.property("UUIDString", &UUID::UUIDString);
}

Ref<UUID> UUID::init() {
  thread_local KernelRandomBytes source;
  Bytes bytes;
  source.take(bytes.data(), bytes.size());
  bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);  // version 4
  bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
  return make<UUID>(bytes);
}

Ref<UUID> UUID::UUIDWithString(std::string_view text) {
  if (text.size() != 36) return nullptr;
  Bytes bytes{};
  std::size_t byte = 0;
  for (std::size_t i = 0; i < text.size();) {
    if (i == 8 || i == 13 || i == 18 || i == 23) {
      if (text[i++] != '-') return nullptr;
      continue;
    }
    const int high = hexValue(text[i]), low = hexValue(text[i + 1]);
    if (high < 0 || low < 0) return nullptr;
    bytes[byte++] = static_cast<std::uint8_t>(high * 16 + low);
    i += 2;
  }
  return make<UUID>(bytes);
}

Ref<UUID> UUID::UUIDWithBytes(const Bytes& bytes) { return make<UUID>(bytes); }

std::string UUID::UUIDString() const {
  std::string text;
  text.reserve(36);
  for (std::size_t i = 0; i < bytes_.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    text += fmt::format("{:02X}", bytes_[i]);
  }
  return text;
}

bool UUID::isEqual(const Object* other) const {
  if (other == this) return true;
  auto* uuid = UUID::dynamicCastObject(other);
  return uuid && uuid->bytes_ == bytes_;
}

std::size_t UUID::hash() const {
  std::uint64_t high, low;
  std::memcpy(&high, bytes_.data(), 8);
  std::memcpy(&low, bytes_.data() + 8, 8);
  return std::hash<std::uint64_t>()(high ^ (low * 0x9E3779B97F4A7C15ull));
}

Id UUID::copy() const { return std::const_pointer_cast<Object>(self()); }

void UUID::encodeWithCoder(Coder& coder) const { coder.encodeBytes_forKey(bytes_, "NS.uuidbytes"); }

void UUID::initWithCoder(Coder& coder) {
  const std::vector<std::uint8_t> bytes = coder.decodeBytesForKey("NS.uuidbytes");
  if (bytes.size() == bytes_.size()) std::memcpy(bytes_.data(), bytes.data(), bytes_.size());
}

}  // namespace fennick
