#pragma once
// A direct writer of binary property lists ("bplist00"), used by the keyed
// archiver. Objects are added one by one and referred to by index; containers
// take the indexes of their members, and may be reserved first and filled
// later (an archive names an object before its contents are known). Nothing is
// uniqued here: callers decide what to share.
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace fennick::detail {

class BinaryPropertyListWriter {
 public:
  using Index = std::uint32_t;

  Index addString(std::string_view utf8);
  Index addInteger(std::int64_t value);
  Index addUnsignedInteger(std::uint64_t value);
  Index addReal(double value);
  Index addBoolean(bool value);
  Index addData(std::span<const std::uint8_t> bytes);
  Index addUID(std::uint64_t value);
  Index addArray(std::span<const Index> members);
  Index addDictionary(std::span<const Index> keys, std::span<const Index> values);
  /// A slot for a container whose members come later (setArray/setDictionary).
  Index reserve();
  void setArray(Index slot, std::span<const Index> members);
  void setDictionary(Index slot, std::span<const Index> keys, std::span<const Index> values);
  /// Changes the value of a UID added earlier.
  void setUID(Index uid, std::uint64_t value);
  void reserveObjects(std::size_t count);

  std::size_t objectCount() const noexcept { return objects_.size(); }
  /// The encoded list with `top` as its root object.
  std::vector<std::uint8_t> finish(Index top) const;

 private:
  enum class Kind : std::uint8_t { String, Integer, Unsigned, Real, Boolean, Data, UID, Array, Dictionary, Reserved };
  struct Record {
    Kind kind;
    std::uint32_t start = 0;   // into bytes_ (strings, data) or refs_ (containers)
    std::uint32_t length = 0;  // bytes, or members
    std::uint64_t value = 0;   // scalars
  };

  Index add(Record record);
  Record bytesRecord(Kind kind, std::span<const std::uint8_t> bytes);
  Record containerRecord(Kind kind, std::span<const Index> first, std::span<const Index> second);

  std::vector<Record> objects_;
  std::vector<std::uint8_t> bytes_;
  std::vector<Index> refs_;
};

}  // namespace fennick::detail
