// The vector: an ordered list of pointers it does not own.
#include <vector>

#include "guard.h"
#include "host_internal.h"
#include "qve/host.h"

struct qveuv_Vector {
  std::vector<void*> elements;
};

using qvehost::internal::Guarded;

extern "C" {

qveuv_Vector* qveuv_Vector_new(void) {
  return Guarded<qveuv_Vector*>(__func__, nullptr, [&]() -> qveuv_Vector* {
    return qvehost::internal::NewObject<qveuv_Vector>();
  });
}

void qveuv_Vector_addElement(qveuv_Vector* vector, void* element) {
  Guarded(__func__, [&] {
    if (vector == nullptr) return;
    try {
      vector->elements.push_back(element);
    } catch (...) {
    }
  });
}

int32_t qveuv_Vector_size(qveuv_Vector* vector) {
  return Guarded<int32_t>(__func__, 0, [&]() -> int32_t {
    return vector != nullptr ? static_cast<int32_t>(vector->elements.size()) : 0;
  });
}

void* qveuv_Vector_elementAt(qveuv_Vector* vector, int32_t index) {
  return Guarded<void*>(__func__, nullptr, [&]() -> void* {
    if (vector == nullptr || index < 0) return nullptr;
    auto at = static_cast<size_t>(index);
    return at < vector->elements.size() ? vector->elements[at] : nullptr;
  });
}

int32_t qveuv_Vector_findIndex(qveuv_Vector* vector, const void* key,
                               qveuv_MatchFn match) {
  return Guarded<int32_t>(__func__, -1, [&]() -> int32_t {
    if (vector == nullptr || match == nullptr) return -1;
    for (size_t i = 0; i < vector->elements.size(); ++i) {
      if (match(vector->elements[i], key) != 0) return static_cast<int32_t>(i);
    }
    return -1;
  });
}

void qveuv_Vector_delete(qveuv_Vector* vector) {
  Guarded(__func__, [&] {
    qvehost::internal::DeleteObject(vector);
  });
}

void qveuv_Vector_deleteAll(qveuv_Vector* vector, qveuv_ReleaseFn release) {
  Guarded(__func__, [&] {
    if (vector == nullptr) return;
    if (release != nullptr) {
      for (void* element : vector->elements) release(element);
    }
    qvehost::internal::DeleteObject(vector);
  });
}

}  // extern "C"
