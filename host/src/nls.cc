// The national-language family: character-set identifiers (IANA MIBenum
// numbers), the operating system's set, and conversions on glibc iconv.
// Conversions within one set skip iconv where a scanner can tell valid text
// at memory speed.
#include <errno.h>
#include <iconv.h>
#include <langinfo.h>
#include <locale.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "guard.h"
#include "host_internal.h"
#include "nls_charsets.h"
#include "nls_utf8.h"
#include "qve/embedded.h"
#include "qve/host.h"

// csidlookup needs no state; the global only has to exist.
struct qveulx_LanguageGlobal {
  int32_t reserved = 0;
};

namespace {

using qvehost::internal::Charset;
using qvehost::internal::FindCharset;
using qvehost::internal::kMibUsAscii;
using qvehost::internal::kMibUtf8;
using qvehost::internal::LookupCharset;

constexpr const char* kHostModule = "host";

// Results of a failed conversion; the caller only tells 0 from the rest.
enum : int32_t {
  kInvalidText = -1,  // a byte is invalid in its set or has no equivalent
  kUnknownSet = -2,
  kNoMemory = -3,
  kForcedFailure = -4,
  kNoResultSlot = -5,
};

enum class Mode { kStrict, kTolerant };

qveulx_LanguageGlobal g_language_global;

// ---- The operating system's set ----

// The set a locale's codeset names; the C and POSIX locales report ASCII,
// and their commands' output is taken as UTF-8, of which ASCII is a part.
int32_t CodesetId(std::string_view codeset) {
  int32_t id = LookupCharset(codeset);
  return id == 0 || id == kMibUsAscii ? kMibUtf8 : id;
}

int32_t LocaleCharsetId(const std::string& name) {
  locale_t locale = newlocale(LC_CTYPE_MASK, name.c_str(), locale_t{});
  if (locale != locale_t{}) {
    int32_t id = CodesetId(nl_langinfo_l(CODESET, locale));
    freelocale(locale);
    return id;
  }
  // A locale that is not installed still names its set ("ja_JP.eucJP@x").
  size_t dot = name.find('.');
  if (dot == std::string::npos) return kMibUtf8;
  std::string_view codeset = std::string_view(name).substr(dot + 1);
  return CodesetId(codeset.substr(0, codeset.find('@')));
}

const char* LocaleName() {
  for (const char* variable : {"LC_ALL", "LC_CTYPE", "LANG"}) {
    const char* value = std::getenv(variable);
    if (value != nullptr && *value != '\0') return value;
  }
  return "C";
}

// The setting wins; else the locale, resolved again only when the
// variables name another one, since newlocale reads locale files.
class OsCharset {
 public:
  static OsCharset& Get() {
    static auto* os_charset = new OsCharset;
    return *os_charset;
  }

  void Set(const std::string& name) {
    std::lock_guard lock(mutex_);
    has_setting_ = !name.empty();
    setting_id_ = LookupCharset(name);
  }

  int32_t Id() {
    std::lock_guard lock(mutex_);
    if (has_setting_) return setting_id_;
    const char* name = LocaleName();
    if (!resolved_ || locale_name_ != name) {
      locale_name_ = name;
      locale_id_ = LocaleCharsetId(locale_name_);
      resolved_ = true;
    }
    return locale_id_;
  }

 private:
  std::mutex mutex_;
  bool has_setting_ = false;
  int32_t setting_id_ = 0;
  bool resolved_ = false;
  std::string locale_name_;
  int32_t locale_id_ = 0;
};

// ---- Host blocks for converted texts ----

// Blocks this large get a mapping of their own from glibc (its threshold
// stops growing at 32 MiB), where huge pages spare most of the page faults
// that writing fresh memory costs.
constexpr size_t kHugePageBlock = size_t{32} << 20;
constexpr uintptr_t kHugePage = uintptr_t{2} << 20;

void AdviseHugePages(char* block, size_t size) {
  auto start = reinterpret_cast<uintptr_t>(block);
  uintptr_t begin = (start + kHugePage - 1) & ~(kHugePage - 1);
  uintptr_t end = (start + size) & ~(kHugePage - 1);
  if (end > begin) {
    // NOLINTNEXTLINE(performance-no-int-to-ptr): a page-aligned address
    madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
  }
}

// A converted text under construction: capacity bytes of text plus the
// target set's terminator, zero-filled, freed unless released.
class HostText {
 public:
  HostText(size_t capacity, uint32_t terminator)
      : capacity_(capacity),
        terminator_(terminator),
        data_(static_cast<char*>(
            qve_alloc0(capacity + terminator, kHostModule, __LINE__))) {
    if (data_ != nullptr && capacity >= kHugePageBlock) {
      AdviseHugePages(data_, capacity);
    }
  }
  ~HostText() {
    if (data_ != nullptr) qve_free0(data_, kHostModule, __LINE__);
  }
  HostText(const HostText&) = delete;
  HostText& operator=(const HostText&) = delete;

  bool ok() const { return data_ != nullptr; }
  char* data() const { return data_; }
  size_t capacity() const { return capacity_; }
  char* Release() { return std::exchange(data_, nullptr); }

  // Doubles the capacity; the bytes past the old text stay zero.
  bool Grow() {
    size_t capacity = capacity_ * 2;
    void* grown =
        qve_realloc0(data_, capacity + terminator_, kHostModule, __LINE__);
    if (grown == nullptr) return false;
    data_ = static_cast<char*>(grown);
    capacity_ = capacity;
    return true;
  }

 private:
  size_t capacity_;
  uint32_t terminator_;
  char* data_;
};

// ---- Within one set ----

using Scanner = size_t (*)(const unsigned char*, size_t);

// The scanner that finds invalid bytes of the set, or null when only iconv
// knows the set's rules.
Scanner ScannerOf(const Charset& set) {
  if (set.mib == kMibUtf8) return qvehost::internal::FirstInvalidUtf8;
  if (set.mib == kMibUsAscii) return qvehost::internal::FirstNonAscii;
  if (set.every_byte_valid) return qvehost::internal::NoInvalidByte;
  return nullptr;
}

// Bytes scanned and copied at a time, so that the copy reads from cache.
constexpr size_t kScanBlock = size_t{16} * 1024;
// Longest sequence a block end can cut: the next block scans it whole.
constexpr size_t kLongestSequence = 4;

// Copies the valid bytes of in[0, length) to out; at an invalid byte it
// stops (strict) or drops the byte and goes on (tolerant). Returns the
// bytes written; *invalid tells whether any byte was invalid.
size_t CopyValid(Scanner scan, const unsigned char* in, size_t length,
                 Mode mode, char* out, bool* invalid) {
  size_t written = 0;
  for (size_t i = 0; i < length;) {
    size_t end = std::min(length, i + kScanBlock);
    size_t valid = i + scan(in + i, end - i);
    std::memcpy(out + written, in + i, valid - i);
    written += valid - i;
    i = valid;
    if (valid == end) continue;
    if (end < length && end - valid < kLongestSequence) continue;
    *invalid = true;
    if (mode == Mode::kStrict) break;
    ++i;
  }
  return written;
}

int32_t ConvertWithinSet(Scanner scan, const Charset& set, const char* text,
                         size_t length, Mode mode, char** result) {
  HostText out(length, set.unit);
  if (!out.ok()) return kNoMemory;
  bool invalid = false;
  CopyValid(scan, reinterpret_cast<const unsigned char*>(text), length, mode,
            out.data(), &invalid);
  if (invalid && mode == Mode::kStrict) return kInvalidText;
  *result = out.Release();
  return 0;
}

// ---- Through iconv ----

// iconv_open's failure value. NOLINTNEXTLINE(performance-no-int-to-ptr)
const iconv_t kNoDescriptor = reinterpret_cast<iconv_t>(intptr_t{-1});
constexpr size_t kIconvError = static_cast<size_t>(-1);

// Open descriptors kept per pair of sets, since iconv_open searches the
// module configuration. A descriptor serves one conversion at a time.
class IconvPool {
 public:
  static IconvPool& Get() {
    static auto* pool = new IconvPool;
    return *pool;
  }

  iconv_t Take(const Charset& from, const Charset& to) {
    {
      std::lock_guard lock(mutex_);
      auto found = idle_.find({from.mib, to.mib});
      if (found != idle_.end() && !found->second.empty()) {
        iconv_t descriptor = found->second.back();
        found->second.pop_back();
        return descriptor;
      }
    }
    return iconv_open(to.iconv_name, from.iconv_name);
  }

  void Give(const Charset& from, const Charset& to, iconv_t descriptor) {
    iconv(descriptor, nullptr, nullptr, nullptr, nullptr);  // initial state
    try {
      std::lock_guard lock(mutex_);
      std::vector<iconv_t>& idle = idle_[{from.mib, to.mib}];
      if (idle.size() < kIdlePerPair) {
        idle.push_back(descriptor);
        return;
      }
    } catch (...) {
    }
    iconv_close(descriptor);
  }

 private:
  static constexpr size_t kIdlePerPair = 4;
  std::mutex mutex_;
  std::map<std::pair<int32_t, int32_t>, std::vector<iconv_t>> idle_;
};

class IconvLease {
 public:
  IconvLease(const Charset& from, const Charset& to)
      : from_(from), to_(to), descriptor_(IconvPool::Get().Take(from, to)) {}
  ~IconvLease() {
    if (ok()) IconvPool::Get().Give(from_, to_, descriptor_);
  }
  IconvLease(const IconvLease&) = delete;
  IconvLease& operator=(const IconvLease&) = delete;

  bool ok() const { return descriptor_ != kNoDescriptor; }
  iconv_t get() const { return descriptor_; }

 private:
  const Charset& from_;
  const Charset& to_;
  iconv_t descriptor_;
};

int32_t ConvertWithIconv(const Charset& from, const Charset& to,
                         const char* text, size_t length, Mode mode,
                         char** result) {
  IconvLease descriptor(from, to);
  if (!descriptor.ok()) return kUnknownSet;
  HostText out(length * to.unit + length / 2 + 16, to.unit);
  if (!out.ok()) return kNoMemory;
  char* in = const_cast<char*>(text);  // iconv's signature; it only reads
  size_t in_left = length;
  size_t used = 0;
  bool flushing = false;  // the input is done; end the shift state
  for (;;) {
    char* cursor = out.data() + used;
    size_t room = out.capacity() - used;
    size_t converted =
        flushing ? iconv(descriptor.get(), nullptr, nullptr, &cursor, &room)
                 : iconv(descriptor.get(), &in, &in_left, &cursor, &room);
    int error = errno;
    used = static_cast<size_t>(cursor - out.data());
    if (converted != kIconvError) {
      if (flushing) break;
      flushing = true;
    } else if (error == E2BIG) {
      if (!out.Grow()) return kNoMemory;
      // Strict ends at the first error, before the tolerant cases below.
      // NOLINTNEXTLINE(bugprone-branch-clone)
    } else if (mode == Mode::kStrict) {
      return kInvalidText;
    } else if (error == EILSEQ && (flushing || in_left == 0)) {
      // The decoder itself holds back a character the target lacks (it
      // waits for a combining mark): only a reset drops it, and the text
      // ends there.
      iconv(descriptor.get(), nullptr, nullptr, nullptr, nullptr);
      break;
    } else if (error == EILSEQ) {
      size_t skip = std::min<size_t>(from.unit, in_left);
      in += skip;
      in_left -= skip;
    } else if (error == EINVAL) {
      in += in_left;  // an incomplete character ends the text
      in_left = 0;
    } else {
      return kInvalidText;
    }
  }
  *result = out.Release();
  return 0;
}

int32_t Convert(int32_t from_id, const char* text, int32_t to_id, char** result,
                Mode mode) {
  if (result == nullptr) return kNoResultSlot;
  *result = nullptr;
  // A null text is no conversion, so it leaves the fault switch armed.
  if (text == nullptr) return 0;
  if (qvehost::internal::ConversionFailureArmed()) {
    qvehost::internal::DisarmConversionFailure();
    return kForcedFailure;
  }
  const Charset* from = FindCharset(from_id);
  const Charset* to = FindCharset(to_id);
  if (from == nullptr || to == nullptr) return kUnknownSet;
  size_t length = std::strlen(text);
  if (from == to) {
    if (Scanner scan = ScannerOf(*from)) {
      return ConvertWithinSet(scan, *from, text, length, mode, result);
    }
  }
  return ConvertWithIconv(*from, *to, text, length, mode, result);
}

}  // namespace

namespace qvehost {

void SetOsCharset(const std::string& name) { OsCharset::Get().Set(name); }

}  // namespace qvehost

using qvehost::internal::Guarded;

extern "C" {

int32_t qveulx_get_OS_LangID(qveulx_LangHandle*) {
  return Guarded<int32_t>(__func__, 0, [&]() -> int32_t {
    return OsCharset::Get().Id();
  });
}

int32_t qveulx_get_UTF8_LangID(qveulx_LangHandle*) {
  return Guarded<int32_t>(__func__, 0, [&]() -> int32_t {
    return kMibUtf8;
  });
}

qveulx_LanguageGlobal* qveulx_getLanguageGlobal(qveulx_LangHandle*) {
  return Guarded<qveulx_LanguageGlobal*>(
      __func__, nullptr, [&]() -> qveulx_LanguageGlobal* {
    return &g_language_global;
  });
}

int32_t csidlookup(const char* name, int32_t length, qveulx_LanguageGlobal*) {
  return Guarded<int32_t>(__func__, 0, [&]() -> int32_t {
    if (name == nullptr || length <= 0) return 0;
    return LookupCharset(std::string_view(name, static_cast<size_t>(length)));
  });
}

int32_t qveulx_Convert_CharsetID(qveulx_LangHandle*, int32_t fromId,
                                 const char* text, int32_t toId,
                                 char** result) {
  return Guarded<int32_t>(__func__, -1, [&]() -> int32_t {
    return Convert(fromId, text, toId, result, Mode::kStrict);
  });
}

int32_t qveulx_Convert_CharsetID_ignrerr(qveulx_LangHandle*, int32_t fromId,
                                         const char* text, int32_t toId,
                                         char** result) {
  return Guarded<int32_t>(__func__, -1, [&]() -> int32_t {
    return Convert(fromId, text, toId, result, Mode::kTolerant);
  });
}

}  // extern "C"
