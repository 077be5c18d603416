// Scanners for conversions within one set: where the first byte lies that
// is not valid in the set. They run at memory speed on ASCII, which is most
// of what commands print.
#ifndef QVE_HOST_SRC_NLS_UTF8_H_
#define QVE_HOST_SRC_NLS_UTF8_H_

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace qvehost::internal {

inline constexpr uint64_t kHighBits = 0x8080808080808080ULL;

inline uint64_t LoadWord(const unsigned char* p) {
  uint64_t word;
  std::memcpy(&word, p, sizeof word);
  return word;
}

// Length of the run of ASCII bytes at the start of p[0, n).
inline size_t AsciiPrefix(const unsigned char* p, size_t n) {
  size_t i = 0;
  while (i + 32 <= n && ((LoadWord(p + i) | LoadWord(p + i + 8) |
                          LoadWord(p + i + 16) | LoadWord(p + i + 24)) &
                         kHighBits) == 0) {
    i += 32;
  }
  while (i + 8 <= n && (LoadWord(p + i) & kHighBits) == 0) i += 8;
  while (i < n && p[i] < 0x80) ++i;
  return i;
}

inline bool InRange(unsigned char b, unsigned char lo, unsigned char hi) {
  return b >= lo && b <= hi;
}

// Length of the well-formed UTF-8 sequence that starts p[0, n) with a
// non-ASCII byte, or 0 when there is none: overlong forms, surrogates and
// code points above U+10FFFF are not well-formed.
inline size_t MultibyteLength(const unsigned char* p, size_t n) {
  unsigned char lead = p[0];
  if (lead < 0xC2 || lead > 0xF4) return 0;
  if (lead < 0xE0) return n >= 2 && InRange(p[1], 0x80, 0xBF) ? 2 : 0;
  if (lead < 0xF0) {
    unsigned char lo = lead == 0xE0 ? 0xA0 : 0x80;
    unsigned char hi = lead == 0xED ? 0x9F : 0xBF;
    return n >= 3 && InRange(p[1], lo, hi) && InRange(p[2], 0x80, 0xBF) ? 3 : 0;
  }
  unsigned char lo = lead == 0xF0 ? 0x90 : 0x80;
  unsigned char hi = lead == 0xF4 ? 0x8F : 0xBF;
  return n >= 4 && InRange(p[1], lo, hi) && InRange(p[2], 0x80, 0xBF) &&
                 InRange(p[3], 0x80, 0xBF)
             ? 4
             : 0;
}

// Offset of the first byte of p[0, n) that does not start a well-formed
// UTF-8 sequence; n when the whole text is well-formed.
inline size_t FirstInvalidUtf8(const unsigned char* p, size_t n) {
  size_t i = 0;
  while (i < n) {
    i += AsciiPrefix(p + i, n - i);
    if (i == n) break;
    size_t length = MultibyteLength(p + i, n - i);
    if (length == 0) return i;
    i += length;
  }
  return n;
}

inline size_t FirstNonAscii(const unsigned char* p, size_t n) {
  return AsciiPrefix(p, n);
}

inline size_t NoInvalidByte(const unsigned char*, size_t n) { return n; }

}  // namespace qvehost::internal

#endif  // QVE_HOST_SRC_NLS_UTF8_H_
