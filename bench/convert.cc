// Strict UTF-8 to UTF-8 conversion of 256 MiB of mostly-ASCII text through
// the host, beside glibc iconv doing the same and memcpy of the same bytes.
// Each side makes a fresh output block per repetition, as a conversion has
// to, with the huge-page hint the host gives large outputs, so that the
// sides differ only in their work on the bytes. Repetitions are interleaved
// and medians reported. A second figure
// compares a short conversion through the host (which keeps iconv
// descriptors open) with iconv_open, iconv and iconv_close per call.
#include <iconv.h>
#include <sys/mman.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "qve/host.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kTextBytes = size_t{256} << 20;
constexpr int kRounds = 5;
constexpr int kSmallCalls = 20000;
constexpr int32_t kUtf8 = 106;
constexpr int32_t kLatin1 = 4;

// Lines of a listing with an accented name now and then, as commands print.
std::string MakeText() {
  const std::string lines[] = {
      "drwxr-xr-x  2 root root     4096 Jan 12 10:31 bin\n",
      "-rw-r--r--  1 jo   staff   18234 Feb  3 09:02 "
      "r\xC3\xA9sum\xC3\xA9.txt\n",
      "/dev/sda1        98304000  4523412  88739128   5% /\n",
      "tmpfs             8192000        0   8192000   0% /dev/shm\n",
      "-rw-r--r--  1 ken  users    2048 Mar  9 23:59 "
      "\xE6\x97\xA5\xE6\x9C\xAC.log\n",
      "PID TTY          TIME CMD 4711 pts/0    00:00:01 bash\n",
      "eth0: flags=4163<UP,BROADCAST,RUNNING,MULTICAST>  mtu 1500\n",
      "Filesystem      Size  Used Avail Use% Mounted on\n",
  };
  std::string text;
  text.reserve(kTextBytes + 128);
  for (size_t i = 0; text.size() < kTextBytes; ++i) {
    text += lines[i % std::size(lines)];
  }
  text.resize(kTextBytes);
  text.back() = '\n';
  return text;
}

// A fresh block as the host makes one for a large output.
char* FreshBlock(size_t size) {
  auto* block = static_cast<char*>(std::calloc(1, size));
  if (block == nullptr) std::exit(1);
  constexpr uintptr_t kHugePage = uintptr_t{2} << 20;
  auto start = reinterpret_cast<uintptr_t>(block);
  uintptr_t begin = (start + kHugePage - 1) & ~(kHugePage - 1);
  uintptr_t end = (start + size) & ~(kHugePage - 1);
  if (end > begin) {
    madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
  }
  return block;
}

double Seconds(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

double RunHost(const std::string& text) {
  auto start = Clock::now();
  char* out = nullptr;
  if (qveulx_Convert_CharsetID(nullptr, kUtf8, text.c_str(), kUtf8, &out) !=
          0 ||
      out == nullptr) {
    std::fprintf(stderr, "host conversion failed\n");
    std::exit(1);
  }
  qve_free0(out, "bench", __LINE__);
  return Seconds(start);
}

double RunIconv(iconv_t descriptor, const std::string& text) {
  auto start = Clock::now();
  char* out = FreshBlock(text.size() + 1);
  char* in = const_cast<char*>(text.data());
  size_t in_left = text.size();
  char* cursor = out;
  size_t room = text.size();
  if (iconv(descriptor, &in, &in_left, &cursor, &room) == size_t(-1)) {
    std::fprintf(stderr, "iconv failed\n");
    std::exit(1);
  }
  *cursor = '\0';
  std::free(out);
  iconv(descriptor, nullptr, nullptr, nullptr, nullptr);
  return Seconds(start);
}

double RunMemcpy(const std::string& text) {
  auto start = Clock::now();
  char* out = FreshBlock(text.size() + 1);
  std::memcpy(out, text.c_str(), text.size() + 1);
  // Keeps the copy from being optimised away.
  if (out[text.size() / 2] == '\x01') std::puts("");
  std::free(out);
  return Seconds(start);
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  size_t mid = values.size() / 2;
  return values.size() % 2 ? values[mid] : (values[mid - 1] + values[mid]) / 2;
}

// Nanoseconds per short Latin-1 conversion: through the host, and with a
// descriptor opened and closed per call.
std::pair<double, double> SmallConversions() {
  const char* line =
      "caf\xE9 cr\xE8me br\xFBl\xE9\x65 na\xEFve fa\xE7"
      "ade";
  auto start = Clock::now();
  for (int i = 0; i < kSmallCalls; ++i) {
    char* out = nullptr;
    qveulx_Convert_CharsetID(nullptr, kLatin1, line, kUtf8, &out);
    qve_free0(out, "bench", __LINE__);
  }
  double host = Seconds(start);
  start = Clock::now();
  for (int i = 0; i < kSmallCalls; ++i) {
    iconv_t descriptor = iconv_open("UTF-8", "ISO-8859-1");
    char buffer[128];
    char* in = const_cast<char*>(line);
    size_t in_left = std::strlen(line);
    char* cursor = buffer;
    size_t room = sizeof buffer;
    iconv(descriptor, &in, &in_left, &cursor, &room);
    iconv_close(descriptor);
  }
  double open_each = Seconds(start);
  return {host * 1e9 / kSmallCalls, open_each * 1e9 / kSmallCalls};
}

}  // namespace

int main() {
  std::string text = MakeText();
  iconv_t descriptor = iconv_open("UTF-8", "UTF-8");
  if (descriptor == reinterpret_cast<iconv_t>(intptr_t{-1})) return 1;

  std::vector<double> host, glibc, copy, vs_iconv, vs_memcpy;
  for (int round = 0; round < kRounds; ++round) {
    // The order rotates so that no side always runs on a warm cache.
    double times[3] = {};
    for (int k = 0; k < 3; ++k) {
      int side = (round + k) % 3;
      times[side] = side == 0   ? RunHost(text)
                    : side == 1 ? RunIconv(descriptor, text)
                                : RunMemcpy(text);
    }
    host.push_back(times[0]);
    glibc.push_back(times[1]);
    copy.push_back(times[2]);
    vs_iconv.push_back(times[1] / times[0]);
    vs_memcpy.push_back(times[2] / times[0]);
  }
  iconv_close(descriptor);
  auto [small_host_ns, small_open_ns] = SmallConversions();

  double mib = static_cast<double>(kTextBytes >> 20);
  double host_rate = mib / Median(host);
  std::printf("text: %.0f MiB mostly ASCII UTF-8, %d interleaved rounds\n", mib,
              kRounds);
  std::printf("host strict UTF-8 -> UTF-8: %8.1f MiB/s\n", host_rate);
  std::printf("glibc iconv UTF-8 -> UTF-8: %8.1f MiB/s\n", mib / Median(glibc));
  std::printf("memcpy:                     %8.1f MiB/s\n", mib / Median(copy));
  std::printf("median ratio host/iconv %.2f, host/memcpy %.2f\n",
              Median(vs_iconv), Median(vs_memcpy));
  std::printf("short Latin-1 line: host %.0f ns, iconv_open per call %.0f ns\n",
              small_host_ns, small_open_ns);
  std::printf(
      "{\"bench\":\"convert\",\"vs_iconv\":%.2f,\"vs_memcpy\":%.2f,"
      "\"mib_per_s\":%.1f,\"small_ns\":%.0f,\"small_open_each_ns\":%.0f}\n",
      Median(vs_iconv), Median(vs_memcpy), host_rate, small_host_ns,
      small_open_ns);
  return 0;
}
