// Time per property of building a property list and looking every name up,
// at 10,000 and 100,000 properties: constant per name, so the two figures
// stay close while the totals grow tenfold.
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "qve/embedded.h"
#include "qve/host.h"

namespace {

using Clock = std::chrono::steady_clock;

// Nanoseconds per property, best of three.
double PerProperty(int count) {
  std::vector<std::string> names;
  names.reserve(static_cast<size_t>(count));
  for (int i = 0; i < count; ++i) names.push_back("property." + std::to_string(i));
  double best = 0;
  for (int round = 0; round < 3; ++round) {
    const auto start = Clock::now();
    qvlnv_NVList* list = qvehost::NewPropertyList();
    for (const std::string& name : names) qvehost::SetProperty(list, name, "v");
    size_t found = 0;
    for (const std::string& name : names) {
      found += qvlnvlgv_getValue(list, name.c_str()) != nullptr ? 1 : 0;
    }
    qvehost::DeletePropertyList(list);
    const double ns =
        std::chrono::duration<double, std::nano>(Clock::now() - start).count() /
        count;
    if (found != names.size()) std::fprintf(stderr, "lookup missed\n");
    if (round == 0 || ns < best) best = ns;
  }
  return best;
}

}  // namespace

int main() {
  const double small = PerProperty(10000);
  const double large = PerProperty(100000);
  std::printf("10000 properties:  %.1f ns per property\n", small);
  std::printf("100000 properties: %.1f ns per property\n", large);
  std::printf("{\"ns_per_property_10000\":%.1f,\"ns_per_property_100000\":%.1f}\n",
              small, large);
  return 0;
}
