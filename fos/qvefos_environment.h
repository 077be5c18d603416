// The environment of a run, built from a metric's property list.
//
// The array and its strings come from the host allocator under the module
// "qvefos"; the caller releases them with qvefos_freeEnvironment.
#ifndef QVE_FOS_QVEFOS_ENVIRONMENT_H_
#define QVE_FOS_QVEFOS_ENVIRONMENT_H_

#include <cstdint>

#include "qve/host.h"

// The environment for a run: NAME=VALUE entries from the properties named
// "ENV..." and "KTAgentConditionContext..." in list order, then from the
// ENV_ARRAY block those names no entry holds yet. A null-terminated array
// owned by the caller (qvefos_freeEnvironment), or null when there is no
// entry or building failed; failures are written to standard error only.
char** qvefos_buildEnvironment(qvlnv_NVList* properties);

// 1 when the string entry begins with the string name followed by "=", else
// 0. Shaped for qveuv_Vector_findIndex.
int32_t qvefos_envEntryMatches(const void* entry, const void* name);

// Releases every string of *envp up to the first null slot, then the array,
// and sets *envp to null. A null *envp is ignored.
void qvefos_freeEnvironment(char*** envp);

#endif  // QVE_FOS_QVEFOS_ENVIRONMENT_H_
