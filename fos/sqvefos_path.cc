#include "fos/qvefos_memory.h"
#include "fos/qvefos_runner.h"

// On this platform the path is taken as given; the process family searches
// PATH itself.
char* sqvefos_getCommandPath(qvefet_Context* /*fetchletContext*/,
                             const char* path) {
  return qvefos::kPlatformMemory.Copy(path);
}
