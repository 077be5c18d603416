// A host-allocated, null-terminated argument vector, as the runners take it,
// for tests and benchmarks.
#ifndef QVE_TESTS_COMMON_HOST_ARGV_H_
#define QVE_TESTS_COMMON_HOST_ARGV_H_

#include <string>
#include <vector>

#include "qve/host.h"

namespace qvetest {

// Every string and the array are made under module. The plain runner
// replaces argv[0] with a block of its own, which FreeHostArgv frees too.
inline char** NewHostArgv(const std::vector<std::string>& words,
                          const char* module) {
  auto** argv = static_cast<char**>(
      qve_alloc0((words.size() + 1) * sizeof(char*), module, __LINE__));
  if (argv == nullptr) return nullptr;
  for (size_t i = 0; i < words.size(); ++i) {
    argv[i] = qve_allocpy0(words[i].c_str(), module, __LINE__);
  }
  return argv;
}

// Null is allowed.
inline void FreeHostArgv(char** argv, const char* module) {
  if (argv == nullptr) return;
  for (char** arg = argv; *arg != nullptr; ++arg) qve_free0(*arg, module, 0);
  qve_free0(argv, module, 0);
}

}  // namespace qvetest

#endif  // QVE_TESTS_COMMON_HOST_ARGV_H_
