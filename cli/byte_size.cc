#include "byte_size.h"

#include <limits>

namespace fetchlet {
namespace {

struct Unit {
  std::string_view suffix;
  int shift;
};
constexpr Unit kUnits[] = {{"", 0},     {"B", 0},     {"KiB", 10},
                           {"MiB", 20}, {"GiB", 30}, {"TiB", 40}};

}  // namespace

bool ParseByteSize(std::string_view text, uint64_t* bytes) {
  constexpr uint64_t kMax = std::numeric_limits<uint64_t>::max();
  size_t digits = 0;
  uint64_t value = 0;
  for (; digits < text.size() && text[digits] >= '0' && text[digits] <= '9';
       ++digits) {
    const auto digit = static_cast<uint64_t>(text[digits] - '0');
    if (value > (kMax - digit) / 10) return false;
    value = value * 10 + digit;
  }
  if (digits == 0) return false;
  const std::string_view suffix = text.substr(digits);
  for (const Unit& unit : kUnits) {
    if (suffix != unit.suffix) continue;
    if (value > (kMax >> unit.shift)) return false;
    *bytes = value << unit.shift;
    return true;
  }
  return false;
}

}  // namespace fetchlet
