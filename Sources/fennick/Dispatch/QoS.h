#pragma once
// Quality-of-service classes. The values are the ones every Fennick caller and
// archive uses, so they are fixed: unspecified 0, background 9, utility 17,
// default 21, user-initiated 25, user-interactive 33.
#include <cstdint>

namespace fennick {

using qos_class_t = std::uint32_t;

inline constexpr qos_class_t QOS_CLASS_UNSPECIFIED = 0x00;
inline constexpr qos_class_t QOS_CLASS_BACKGROUND = 0x09;
inline constexpr qos_class_t QOS_CLASS_UTILITY = 0x11;
inline constexpr qos_class_t QOS_CLASS_DEFAULT = 0x15;
inline constexpr qos_class_t QOS_CLASS_USER_INITIATED = 0x19;
inline constexpr qos_class_t QOS_CLASS_USER_INTERACTIVE = 0x21;

/// True for the six classes above.
constexpr bool isValidQoSClass(qos_class_t qos) {
  return qos == QOS_CLASS_UNSPECIFIED || qos == QOS_CLASS_BACKGROUND ||
         qos == QOS_CLASS_UTILITY || qos == QOS_CLASS_DEFAULT ||
         qos == QOS_CLASS_USER_INITIATED || qos == QOS_CLASS_USER_INTERACTIVE;
}

}  // namespace fennick
