#pragma once
// Orders version strings such as 2.10.1, 1.0b3 or 3.* the way a person reads
// them (numbers by value, words alphabetically, a missing trailing part as
// ".0", a pre-release word below a further dotted number, "*" above
// everything). The rules are those of fennick/Runtime/VersionOrder.h, which
// String::compareVersion uses too; this class offers them on runtime strings.
//
//   OVVersionComparator::compareVersion_toVersion("1.0b2"_s, "1.0"_s)  // -1
//
// Class operations only; thread-safe. A nil version counts as empty.
#include "fennick/Runtime/Values/String.h"
#include "fennick/Runtime/Values/VersionOrder.h"

namespace fennick {

class Array;

class OVVersionComparator {
 public:
  OVVersionComparator() = delete;

  /// The class of a character or a whole token: 2 for ".", 3 for "*", 0 when
  /// it holds a decimal digit, 2 when it holds punctuation, else 1.
  static int typeOfCharacter(const Ref<String>& token);
  /// The tokens of a version (trimmed first) as a mutable array of strings.
  static Ref<Array> splitVersionString(const Ref<String>& version);
  /// -1 when `a` is lower than `b`, 0 when they are the same version, 1 when
  /// `a` is higher; case-blind.
  static int compareVersion_toVersion(const Ref<String>& a, const Ref<String>& b);
  static int compareVersion_toVersion(std::string_view a, std::string_view b) {
    return VersionOrder::compareVersions(a, b);
  }
};

}  // namespace fennick
