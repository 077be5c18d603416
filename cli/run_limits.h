// The limits options of `fetchlet run` and `fetchlet test`, and how the
// figures of what a run cost are shown.
#ifndef QVE_CLI_RUN_LIMITS_H_
#define QVE_CLI_RUN_LIMITS_H_

#include <ostream>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "qve/embedded.h"

namespace fetchlet {

// A share of one core: a decimal number above 0 ("0.5", "2").
bool ParseCpuShare(std::string_view text, double* cpu);

struct LimitOptions {
  std::string memory;  // a size, as --output-limit takes
  std::string pids;
  std::string cpu;
};

// Reads the options into limits; the message of the first bad one, or "".
std::string ParseLimitOptions(const LimitOptions& options,
                              qvehost::RunLimits* limits);

// The figures as `fetchlet run --json` and `fetchlet test --json` show them.
nlohmann::json ResourcesJson(const qvehost::RunResources& r);

// The figures as one line of text, and a line for each limit a run reached.
void PrintResources(std::ostream& err, const qvehost::RunResources& r);

}  // namespace fetchlet

#endif  // QVE_CLI_RUN_LIMITS_H_
