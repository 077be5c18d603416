// Where the host finds fetchlet-launch. Not part of any API.
#ifndef QVE_HOST_SRC_LAUNCHER_PATH_H_
#define QVE_HOST_SRC_LAUNCHER_PATH_H_

#include <string>

namespace qvehost::internal {

// The launcher the next authenticated start uses: the path set through
// SetLauncherPath, or else the first executable found beside the host
// library (see embedded.h); empty when there is none.
std::string ResolveLauncherPath();
// The settings file set through SetLauncherConfig; empty when none is.
std::string LauncherConfig();

}  // namespace qvehost::internal

#endif  // QVE_HOST_SRC_LAUNCHER_PATH_H_
