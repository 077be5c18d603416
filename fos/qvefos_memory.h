// Allocation through the host allocator, told the asking module and the
// source line of the call.
#ifndef QVE_FOS_QVEFOS_MEMORY_H_
#define QVE_FOS_QVEFOS_MEMORY_H_

#include <cstddef>
#include <source_location>

#include "qve/host.h"

namespace qvefos {

// One per module; every allocating call passes the caller's line to the host.
class ModuleMemory {
 public:
  explicit constexpr ModuleMemory(const char* module) : module_(module) {}

  // Zero-filled block of size bytes, or null.
  void* Alloc(size_t size, std::source_location site =
                               std::source_location::current()) const {
    return qve_alloc0(size, module_, Line(site));
  }
  // Zero-filled array of count T, or null.
  template <typename T>
  T* AllocArray(size_t count, std::source_location site =
                                  std::source_location::current()) const {
    return static_cast<T*>(qve_alloc0(count * sizeof(T), module_, Line(site)));
  }
  // A copy of text (null gives null), or null.
  char* Copy(const char* text, std::source_location site =
                                   std::source_location::current()) const {
    return qve_allocpy0(text, module_, Line(site));
  }
  void* Realloc(void* block, size_t size,
                std::source_location site =
                    std::source_location::current()) const {
    return qve_realloc0(block, size, module_, Line(site));
  }
  void Free(void* block, std::source_location site =
                             std::source_location::current()) const {
    qve_free0(block, module_, Line(site));
  }

  const char* module() const { return module_; }

 private:
  static int Line(const std::source_location& site) {
    return static_cast<int>(site.line());
  }
  const char* module_;
};

inline constexpr ModuleMemory kFosMemory{"qvefos"};
inline constexpr ModuleMemory kFoslMemory{"qvefosl"};
inline constexpr ModuleMemory kFosltMemory{"qvefoslt"};
inline constexpr ModuleMemory kFosudMemory{"qvefosud"};
inline constexpr ModuleMemory kPlatformMemory{"sqvefos"};

}  // namespace qvefos

#endif  // QVE_FOS_QVEFOS_MEMORY_H_
