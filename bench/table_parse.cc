// The OSLineToken fetchlet on `cat` of a file of a million lines (or as many
// as the first argument says) of eight comma-separated fields, whole (start, capture, parse, result built),
// beside a plain C++ program doing the same: posix_spawn, read everything,
// split, copy every field into a heap-allocated row. Repetitions of the two
// are interleaved and the median ratio reported; each side's peak memory is
// measured in a fresh process of its own. A second figure compares the
// parser alone on the same text in memory with the same split-and-copy loop.
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "foslt/qvefoslt_os_line_token.h"
#include "foslt/qvefoslt_parse.h"
#include "qve/embedded.h"
#include "qve/host.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

// A million unless the command line asks for another count.
int lines_wanted = 1000000;
constexpr int kRounds = 5;
constexpr int kParserRounds = 5;

// ---- The text -----------------------------------------------------------

// Lines of about 60 bytes, as a listing of interfaces or disks would give.
std::string MakeText() {
  const char* states[] = {"up", "down", "dormant", "testing"};
  std::string text;
  text.reserve(static_cast<size_t>(lines_wanted) * 64);
  char line[128];
  for (int i = 0; i < lines_wanted; ++i) {
    int length = std::snprintf(
        line, sizeof line, "host%05d.dc1,eth%d,%d,%s,%u,%u,%d.%02d,online\n",
        i % 50000, i % 8, 1500 + (i % 3) * 7500, states[i % 4],
        static_cast<unsigned>(i) * 7919U % 100000000U,
        static_cast<unsigned>(i) * 104729U % 10000000U, i % 100, i % 97);
    text.append(line, static_cast<size_t>(length));
  }
  return text;
}

std::string WriteTextFile(const std::string& text) {
  char path[] = "/tmp/qve-table-parse-XXXXXX";
  int fd = mkstemp(path);
  if (fd < 0 || write(fd, text.data(), text.size()) !=
                    static_cast<ssize_t>(text.size())) {
    std::perror("writing the text file");
    std::exit(1);
  }
  close(fd);
  return path;
}

// ---- The baseline ---------------------------------------------------------

using Row = std::vector<char*>;

// Every field copied into a block of its own, as a plain program would.
void SplitAndCopy(const char* text, size_t size, std::vector<Row>& rows) {
  const char* end = text + size;
  while (text < end) {
    const char* lineEnd =
        static_cast<const char*>(std::memchr(text, '\n', size_t(end - text)));
    if (lineEnd == nullptr) lineEnd = end;
    Row& row = rows.emplace_back();
    for (const char* field = text;;) {
      const char* stop = std::find(field, lineEnd, ',');
      auto length = static_cast<size_t>(stop - field);
      auto* copy = static_cast<char*>(std::malloc(length + 1));
      std::memcpy(copy, field, length);
      copy[length] = '\0';
      row.push_back(copy);
      if (stop == lineEnd) break;
      field = stop + 1;
    }
    text = lineEnd + 1;
  }
}

void FreeRows(std::vector<Row>& rows) {
  for (Row& row : rows) {
    for (char* field : row) std::free(field);
  }
  rows.clear();
  rows.shrink_to_fit();
}

// Spawns argv with its standard output on a pipe and reads it all.
std::string ReadCommand(char* const argv[]) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) std::exit(1);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
  pid_t pid = 0;
  if (posix_spawnp(&pid, argv[0], &actions, nullptr, argv, environ) != 0) {
    std::exit(1);
  }
  posix_spawn_file_actions_destroy(&actions);
  close(fds[1]);
  std::string out;
  char buffer[65536];
  for (ssize_t n; (n = read(fds[0], buffer, sizeof buffer)) != 0;) {
    if (n > 0) {
      out.append(buffer, static_cast<size_t>(n));
    } else if (errno != EINTR) {
      break;
    }
  }
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  return out;
}

size_t RunBaseline(const std::string& path) {
  std::string file = path;
  char cat[] = "cat";
  char* argv[] = {cat, file.data(), nullptr};
  std::vector<Row> rows;
  std::string out = ReadCommand(argv);
  SplitAndCopy(out.data(), out.size(), rows);
  size_t count = rows.size();
  FreeRows(rows);
  return count;
}

// ---- The fetchlet ---------------------------------------------------------

class Fetchlet {
 public:
  Fetchlet() {
    if (qvefoslt_getFetchlet(context_, &fetchlet_) != 0) std::exit(1);
  }
  ~Fetchlet() {
    qvefoslt_freeFetchlet(fetchlet_);
    qvehost::DeleteContext(context_);
  }

  // Seconds until the result is built; the result is released afterwards.
  double Evaluate(const std::string& path) {
    qvlnv_NVList* list = qvehost::NewPropertyList();
    qvehost::SetProperty(list, "command", "cat " + path);
    qvehost::SetProperty(list, "delimiter", ",");
    qvedrmr_MetricResult* result = nullptr;
    auto start = Clock::now();
    int32_t status = qvefoslt_getMetric(context_, list, &result, nullptr);
    double seconds =
        std::chrono::duration<double>(Clock::now() - start).count();
    qvehost::DeletePropertyList(list);
    if (status != 0 || result == nullptr) {
      std::fprintf(stderr, "the fetchlet failed\n");
      std::exit(1);
    }
    qvedrmr_MetricResult_delete(result);
    return seconds;
  }

 private:
  qvefet_Context* context_ = qvehost::NewContext();
  qvefet_Fetchlet* fetchlet_ = nullptr;
};

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  size_t mid = values.size() / 2;
  return values.size() % 2 ? values[mid] : (values[mid - 1] + values[mid]) / 2;
}

double TimeBaseline(const std::string& path) {
  auto start = Clock::now();
  size_t rows = RunBaseline(path);
  double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  if (rows != static_cast<size_t>(lines_wanted)) std::exit(1);
  return seconds;
}

// ---- Peak memory, each side in a fresh process ------------------------------

int PeakChild(const char* side, const char* path) {
  qvehost::SetLogLevel(qvehost::LogLevel::kOff);
  if (std::strcmp(side, "fetchlet") == 0) {
    Fetchlet().Evaluate(path);
  } else {
    RunBaseline(path);
  }
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  std::printf("%ld\n", usage.ru_maxrss);
  return 0;
}

// Peak resident bytes of this program run as "--peak SIDE PATH".
double PeakBytes(const char* side, const std::string& path) {
  std::string self(4096, '\0');
  ssize_t n = readlink("/proc/self/exe", self.data(), self.size() - 1);
  if (n <= 0) std::exit(1);
  self.resize(static_cast<size_t>(n));
  std::string file = path, mode = "--peak", which = side;
  char* argv[] = {self.data(), mode.data(), which.data(), file.data(), nullptr};
  std::string out = ReadCommand(argv);
  return std::strtod(out.c_str(), nullptr) * 1024.0;
}

// ---- The parser alone -----------------------------------------------------

struct ParserFigures {
  double parserLinesPerSecond;
  double loopLinesPerSecond;
  double ratio;
};

ParserFigures CompareParser(const std::string& text) {
  qvefet_Context* context = qvehost::NewContext();
  qveulm_LogCtx* log =
      qveulm_getLogCtx(context->logSource, "fetchlets.oslinetok");
  qvlnv_NVList* list = qvehost::NewPropertyList();
  qvehost::SetProperty(list, "delimiter", ",");
  std::string scratch;
  std::vector<double> parser, loop, ratio;
  for (int round = 0; round < kParserRounds; ++round) {
    scratch = text;  // the parser splits in place
    auto start = Clock::now();
    qvedrmr_MetricResult* result =
        qvefoslt_getFromString(scratch.data(), nullptr, list, log, 1);
    double parse = std::chrono::duration<double>(Clock::now() - start).count();
    qvedrmr_MetricResult_delete(result);

    std::vector<Row> rows;
    start = Clock::now();
    SplitAndCopy(text.data(), text.size(), rows);
    double copy = std::chrono::duration<double>(Clock::now() - start).count();
    FreeRows(rows);
    parser.push_back(lines_wanted / parse);
    loop.push_back(lines_wanted / copy);
    ratio.push_back(copy / parse);
  }
  qvehost::DeletePropertyList(list);
  qvehost::DeleteContext(context);
  return {Median(parser), Median(loop), Median(ratio)};
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 4 && std::strcmp(argv[1], "--peak") == 0) {
    return PeakChild(argv[2], argv[3]);
  }
  if (argc == 2) lines_wanted = std::max(1, std::atoi(argv[1]));
  qvehost::SetLogLevel(qvehost::LogLevel::kOff);
  std::string path;
  double size = 0;
  {
    const std::string text = MakeText();
    path = WriteTextFile(text);
    size = static_cast<double>(text.size());
  }
  const double fetchletPeak = PeakBytes("fetchlet", path);
  const double baselinePeak = PeakBytes("baseline", path);

  std::vector<double> fetchletTimes, baselineTimes, ratios;
  {
    Fetchlet fetchlet;
    for (int round = 0; round < kRounds; ++round) {
      // The order alternates so that neither side always meets a warm cache.
      double f = 0, b = 0;
      if (round % 2 == 0) {
        f = fetchlet.Evaluate(path);
        b = TimeBaseline(path);
      } else {
        b = TimeBaseline(path);
        f = fetchlet.Evaluate(path);
      }
      fetchletTimes.push_back(f);
      baselineTimes.push_back(b);
      ratios.push_back(f / b);
    }
  }
  const ParserFigures parser = CompareParser(MakeText());
  std::remove(path.c_str());

  const double mib = size / (1 << 20);
  std::printf("text: %d lines, %.1f MiB, %d interleaved rounds\n", lines_wanted, mib,
              kRounds);
  std::printf("fetchlet evaluation: %7.3f s   baseline: %7.3f s   ratio %.2f\n",
              Median(fetchletTimes), Median(baselineTimes), Median(ratios));
  std::printf("peak memory / output: fetchlet %.2f, baseline %.2f\n",
              fetchletPeak / size, baselinePeak / size);
  std::printf("parser %.0f lines/s, split-and-copy loop %.0f lines/s (%.2f)\n",
              parser.parserLinesPerSecond, parser.loopLinesPerSecond,
              parser.ratio);
  std::printf(
      "{\"bench\":\"table_parse\",\"ratio\":%.2f,\"peak_rss_ratio\":%.2f,"
      "\"parser_vs_loop\":%.2f,\"baseline_peak_rss_ratio\":%.2f,"
      "\"fetchlet_s\":%.3f,\"baseline_s\":%.3f,\"parser_lines_per_s\":%.0f,"
      "\"loop_lines_per_s\":%.0f,\"output_mib\":%.1f}\n",
      Median(ratios), fetchletPeak / size, parser.ratio, baselinePeak / size,
      Median(fetchletTimes), Median(baselineTimes), parser.parserLinesPerSecond,
      parser.loopLinesPerSecond, mib);
  return 0;
}
