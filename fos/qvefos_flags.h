// A property is on when its value is "TRUE": exactly, letter case counting,
// for most flags; ignoring case for the two the core runtime compares that
// way (a secure command, a charset conversion).
#ifndef QVE_FOS_QVEFOS_FLAGS_H_
#define QVE_FOS_QVEFOS_FLAGS_H_

#include "qve/host.h"

namespace qvefos {

inline constexpr const char* kTrue = "TRUE";

inline bool IsTrue(const char* value) { return qve_equals(value, kTrue) != 0; }

inline bool IsTrueIgnoringCase(const char* value) {
  return value != nullptr && strcaseeq(value, kTrue) == 0;
}

inline bool PropertyIsTrue(qvlnv_NVList* properties, const char* name) {
  return IsTrue(qvlnvlgv_getValue(properties, name));
}

}  // namespace qvefos

#endif  // QVE_FOS_QVEFOS_FLAGS_H_
