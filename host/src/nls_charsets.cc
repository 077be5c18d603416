#include "nls_charsets.h"

#include <cstddef>
#include <cstring>

namespace qvehost::internal {
namespace {

// The sets an agent meets in command output, with the aliases that locales,
// iconv and users write for them.
constexpr Charset kCharsets[] = {
    {106, "UTF-8", 1, false, {"UTF-8", "UTF8", "csUTF8"}},
    {3,
     "ASCII",
     1,
     false,
     {"US-ASCII", "ANSI_X3.4-1968", "ASCII", "ISO646-US", "us", "IBM367",
      "cp367", "csASCII", "iso-ir-6"}},
    {4,
     "ISO-8859-1",
     1,
     true,
     {"ISO-8859-1", "ISO_8859-1:1987", "ISO_8859-1", "ISO8859-1", "latin1",
      "l1", "IBM819", "CP819", "csISOLatin1"}},
    {5,
     "ISO-8859-2",
     1,
     false,
     {"ISO-8859-2", "ISO_8859-2:1987", "ISO_8859-2", "ISO8859-2", "latin2",
      "l2", "csISOLatin2", "iso-ir-101"}},
    {6,
     "ISO-8859-3",
     1,
     false,
     {"ISO-8859-3", "ISO_8859-3:1988", "ISO_8859-3", "ISO8859-3", "latin3",
      "l3", "csISOLatin3", "iso-ir-109"}},
    {7,
     "ISO-8859-4",
     1,
     false,
     {"ISO-8859-4", "ISO_8859-4:1988", "ISO_8859-4", "ISO8859-4", "latin4",
      "l4", "csISOLatin4", "iso-ir-110"}},
    {8,
     "ISO-8859-5",
     1,
     false,
     {"ISO-8859-5", "ISO_8859-5:1988", "ISO_8859-5", "ISO8859-5", "cyrillic",
      "csISOLatinCyrillic", "iso-ir-144"}},
    {9,
     "ISO-8859-6",
     1,
     false,
     {"ISO-8859-6", "ISO_8859-6:1987", "ISO_8859-6", "ISO8859-6", "arabic",
      "ECMA-114", "ASMO-708", "csISOLatinArabic", "iso-ir-127"}},
    {10,
     "ISO-8859-7",
     1,
     false,
     {"ISO-8859-7", "ISO_8859-7:1987", "ISO_8859-7", "ISO8859-7", "greek",
      "greek8", "ELOT_928", "ECMA-118", "csISOLatinGreek"}},
    {11,
     "ISO-8859-8",
     1,
     false,
     {"ISO-8859-8", "ISO_8859-8:1988", "ISO_8859-8", "ISO8859-8", "hebrew",
      "csISOLatinHebrew", "iso-ir-138"}},
    {12,
     "ISO-8859-9",
     1,
     false,
     {"ISO-8859-9", "ISO_8859-9:1989", "ISO_8859-9", "ISO8859-9", "latin5",
      "l5", "csISOLatin5", "iso-ir-148"}},
    {13,
     "ISO-8859-10",
     1,
     false,
     {"ISO-8859-10", "ISO_8859-10:1992", "ISO8859-10", "latin6", "l6",
      "csISOLatin6", "iso-ir-157"}},
    {109,
     "ISO-8859-13",
     1,
     false,
     {"ISO-8859-13", "ISO8859-13", "csISO885913", "latin7"}},
    {110,
     "ISO-8859-14",
     1,
     false,
     {"ISO-8859-14", "ISO_8859-14", "ISO8859-14", "latin8", "l8", "iso-celtic",
      "csISO885914"}},
    {111,
     "ISO-8859-15",
     1,
     false,
     {"ISO-8859-15", "ISO_8859-15", "ISO8859-15", "Latin-9", "latin9",
      "csISO885915"}},
    {112,
     "ISO-8859-16",
     1,
     false,
     {"ISO-8859-16", "ISO_8859-16", "ISO8859-16", "latin10", "l10",
      "csISO885916"}},
    {17,
     "SHIFT_JIS",
     1,
     false,
     {"Shift_JIS", "MS_Kanji", "csShiftJIS", "SJIS", "SHIFT-JIS"}},
    {2024,
     "CP932",
     1,
     false,
     {"Windows-31J", "csWindows31J", "CP932", "MS932", "windows-932"}},
    {18,
     "EUC-JP",
     1,
     false,
     {"EUC-JP", "Extended_UNIX_Code_Packed_Format_for_Japanese",
      "csEUCPkdFmtJapanese", "eucJP", "ujis"}},
    {39, "ISO-2022-JP", 1, false, {"ISO-2022-JP", "csISO2022JP"}},
    {38, "EUC-KR", 1, false, {"EUC-KR", "csEUCKR", "eucKR"}},
    {37, "ISO-2022-KR", 1, false, {"ISO-2022-KR", "csISO2022KR"}},
    {2025, "GB2312", 1, false, {"GB2312", "csGB2312", "EUC-CN", "eucCN"}},
    {113, "GBK", 1, false, {"GBK", "CP936", "MS936", "windows-936", "csGBK"}},
    {114, "GB18030", 1, false, {"GB18030", "csGB18030"}},
    {2026,
     "BIG5",
     1,
     false,
     {"Big5", "csBig5", "BIG-5", "CN-BIG5", "BIG-FIVE", "CP950"}},
    {2101, "BIG5-HKSCS", 1, false, {"Big5-HKSCS", "csBig5HKSCS"}},
    {2084, "KOI8-R", 1, true, {"KOI8-R", "csKOI8R"}},
    {2088, "KOI8-U", 1, true, {"KOI8-U", "csKOI8U"}},
    {2086, "IBM866", 1, false, {"IBM866", "cp866", "866", "csIBM866"}},
    {2011, "IBM437", 1, false, {"IBM437", "cp437", "437", "csPC8CodePage437"}},
    {2009,
     "IBM850",
     1,
     false,
     {"IBM850", "cp850", "850", "csPC850Multilingual"}},
    {2028,
     "IBM037",
     1,
     false,
     {"IBM037", "cp037", "ebcdic-cp-us", "ebcdic-cp-ca", "csIBM037"}},
    {2027, "MACINTOSH", 1, false, {"macintosh", "mac", "csMacintosh"}},
    {2259, "TIS-620", 1, false, {"TIS-620", "TIS620", "csTIS620"}},
    {2109, "CP874", 1, false, {"windows-874", "CP874", "cswindows874"}},
    {2250, "CP1250", 1, false, {"windows-1250", "CP1250", "cswindows1250"}},
    {2251, "CP1251", 1, false, {"windows-1251", "CP1251", "cswindows1251"}},
    {2252, "CP1252", 1, false, {"windows-1252", "CP1252", "cswindows1252"}},
    {2253, "CP1253", 1, false, {"windows-1253", "CP1253", "cswindows1253"}},
    {2254, "CP1254", 1, false, {"windows-1254", "CP1254", "cswindows1254"}},
    {2255, "CP1255", 1, false, {"windows-1255", "CP1255", "cswindows1255"}},
    {2256, "CP1256", 1, false, {"windows-1256", "CP1256", "cswindows1256"}},
    {2257, "CP1257", 1, false, {"windows-1257", "CP1257", "cswindows1257"}},
    {2258, "CP1258", 1, false, {"windows-1258", "CP1258", "cswindows1258"}},
    {1015, "UTF-16", 2, false, {"UTF-16", "csUTF16", "UTF16"}},
    {1013, "UTF-16BE", 2, false, {"UTF-16BE", "csUTF16BE", "UTF16BE"}},
    {1014, "UTF-16LE", 2, false, {"UTF-16LE", "csUTF16LE", "UTF16LE"}},
    {1017, "UTF-32", 4, false, {"UTF-32", "csUTF32", "UTF32"}},
    {1018, "UTF-32BE", 4, false, {"UTF-32BE", "csUTF32BE", "UTF32BE"}},
    {1019, "UTF-32LE", 4, false, {"UTF-32LE", "csUTF32LE", "UTF32LE"}},
    {1000, "UCS-2", 2, false, {"ISO-10646-UCS-2", "csUnicode", "UCS-2"}},
    {1001, "UCS-4", 4, false, {"ISO-10646-UCS-4", "csUCS4", "UCS-4"}},
};

bool EqualIgnoringCase(std::string_view a, const char* b) {
  size_t n = std::strlen(b);
  if (n != a.size()) return false;
  for (size_t i = 0; i < n; ++i) {
    auto x = static_cast<unsigned char>(a[i]);
    auto y = static_cast<unsigned char>(b[i]);
    if (x >= 'A' && x <= 'Z') x = static_cast<unsigned char>(x + 32);
    if (y >= 'A' && y <= 'Z') y = static_cast<unsigned char>(y + 32);
    if (x != y) return false;
  }
  return true;
}

}  // namespace

const Charset* FindCharset(int32_t mib) {
  for (const Charset& charset : kCharsets) {
    if (charset.mib == mib) return &charset;
  }
  return nullptr;
}

int32_t LookupCharset(std::string_view name) {
  if (name.empty()) return 0;
  for (const Charset& charset : kCharsets) {
    for (const char* alias : charset.names) {
      if (alias == nullptr) break;
      if (EqualIgnoringCase(name, alias)) return charset.mib;
    }
  }
  return 0;
}

}  // namespace qvehost::internal
