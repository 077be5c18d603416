// Sizes as people write them: "65536", "64KiB", "64MiB", "1GiB".
#ifndef QVE_CLI_BYTE_SIZE_H_
#define QVE_CLI_BYTE_SIZE_H_

#include <cstdint>
#include <string_view>

namespace fetchlet {

// Digits, then optionally B, KiB, MiB, GiB or TiB (powers of 1024). False
// for anything else and for sizes past 2^64 - 1.
bool ParseByteSize(std::string_view text, uint64_t* bytes);

}  // namespace fetchlet

#endif  // QVE_CLI_BYTE_SIZE_H_
