// Privilege-delegation runtimes: a handle that records the properties it was
// made from. Nothing reads it yet; it exists so a run holds a real object.
#include <string>
#include <utility>
#include <vector>

#include "guard.h"
#include "host_internal.h"
#include "qve/host.h"

struct qvedcpdpr_PDPRuntime {
  std::vector<std::pair<std::string, std::string>> properties;
};

namespace {

// Throws std::bad_alloc.
void Record(qvedcpdpr_PDPRuntime& runtime, qvlnv_NVList* properties) {
  qvlsl_Iterator* names = qvlslci_createIterator(properties);
  if (names == nullptr) throw std::bad_alloc();
  try {
    while (const char* name = qvlnvinn_iteratorNextName(names)) {
      const char* value = qvlnvlgv_getValue(properties, name);
      runtime.properties.emplace_back(name, value != nullptr ? value : "");
    }
  } catch (...) {
    qvlsldi_destroyIterator(names);
    throw;
  }
  qvlsldi_destroyIterator(names);
}

}  // namespace

using qvehost::internal::Guarded;

extern "C" {

qvedcpdpr_PDPRuntime* qvedcpdpr_getPDPRuntimeFromNVPairs(
    qvefet_Context* /*fetchletContext*/, qvlnv_NVList* properties) {
  return Guarded<qvedcpdpr_PDPRuntime*>(
      __func__, nullptr, [&]() -> qvedcpdpr_PDPRuntime* {
    auto* runtime = qvehost::internal::NewObject<qvedcpdpr_PDPRuntime>();
    if (runtime == nullptr) return nullptr;
    try {
      Record(*runtime, properties);
    } catch (...) {
      qvehost::internal::DeleteObject(runtime);
      return nullptr;
    }
    return runtime;
  });
}

void qvedcpdpr_PDPRuntime_delete(qvedcpdpr_PDPRuntime* runtime) {
  Guarded(__func__, [&] {
    qvehost::internal::DeleteObject(runtime);
  });
}

}  // extern "C"
