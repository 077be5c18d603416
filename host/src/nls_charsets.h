// The character sets the national-language family knows: IANA MIBenum
// numbers, names and aliases, and the name glibc's iconv knows each by.
#ifndef QVE_HOST_SRC_NLS_CHARSETS_H_
#define QVE_HOST_SRC_NLS_CHARSETS_H_

#include <array>
#include <cstdint>
#include <string_view>

namespace qvehost::internal {

inline constexpr int32_t kMibUsAscii = 3;
inline constexpr int32_t kMibIso88591 = 4;
inline constexpr int32_t kMibUtf8 = 106;

struct Charset {
  int32_t mib;
  const char* iconv_name;
  // Bytes per code unit: what a tolerant conversion skips past a bad unit,
  // and how many zero bytes end a text in this set.
  uint32_t unit;
  // Every byte is a character of its own, so any text is valid in the set.
  bool every_byte_valid;
  // The IANA name first, then aliases; unused slots are null.
  std::array<const char*, 9> names;
};

// The set with this identifier, or null when it is not known.
const Charset* FindCharset(int32_t mib);
// The identifier of a name or alias, letter case ignored; 0 when unknown.
int32_t LookupCharset(std::string_view name);

}  // namespace qvehost::internal

#endif  // QVE_HOST_SRC_NLS_CHARSETS_H_
