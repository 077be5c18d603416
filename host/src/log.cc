// The host log on spdlog: one logger per log name for the life of the
// program, all writing to one output (standard error or a file) that the
// program can switch, plus a capture that tests read.
#include <spdlog/logger.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/dist_sink.h>
#include <spdlog/sinks/stdout_sinks.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "guard.h"
#include "host_internal.h"
#include "qve/embedded.h"
#include "qve/host.h"

struct qveulm_LogSource {
  int32_t reserved = 0;
};

struct qveulm_LogCtx {
  std::string name;
  std::shared_ptr<spdlog::logger> logger;
};

namespace {

using qvehost::LogLevel;
using qvehost::LogRecord;

constexpr const char* kPattern = "[%Y-%m-%d %H:%M:%S.%e] [%n] [%l] %v";

// Read on every log call before any formatting, so a line nobody wants costs
// two relaxed loads.
std::atomic<int> g_threshold{static_cast<int>(LogLevel::kWarn)};
std::atomic<bool> g_capturing{false};

bool Wanted(LogLevel level) {
  return g_capturing.load(std::memory_order_relaxed) ||
         static_cast<int>(level) >=
             g_threshold.load(std::memory_order_relaxed);
}

spdlog::level::level_enum ToSpdlog(LogLevel level) {
  switch (level) {
    case LogLevel::kTrace: return spdlog::level::trace;
    case LogLevel::kDebug: return spdlog::level::debug;
    case LogLevel::kWarn: return spdlog::level::warn;
    case LogLevel::kError: return spdlog::level::err;
    case LogLevel::kOff: break;
  }
  return spdlog::level::off;
}

std::shared_ptr<spdlog::sinks::sink> StderrSink() {
  auto sink = std::make_shared<spdlog::sinks::stderr_sink_mt>();
  sink->set_pattern(kPattern);
  return sink;
}

// Loggers live as long as the program: the registry is never destroyed, so
// a log line written during static destruction still finds its logger.
class Registry {
 public:
  static Registry& Get() {
    static Registry* registry = new Registry;
    return *registry;
  }

  qveulm_LogCtx* Context(std::string_view name) {
    std::lock_guard lock(mutex_);
    auto found = contexts_.find(std::string(name));
    if (found != contexts_.end()) return found->second.get();
    auto context = std::make_unique<qveulm_LogCtx>();
    context->name = std::string(name);
    context->logger = std::make_shared<spdlog::logger>(context->name, output_);
    context->logger->set_level(spdlog::level::trace);
    context->logger->flush_on(spdlog::level::trace);
    qveulm_LogCtx* result = context.get();
    contexts_.emplace(context->name, std::move(context));
    return result;
  }

  void SetOutput(std::shared_ptr<spdlog::sinks::sink> sink) {
    output_->set_sinks({std::move(sink)});
  }

 private:
  Registry() : output_(std::make_shared<spdlog::sinks::dist_sink_mt>()) {
    output_->set_sinks({StderrSink()});
  }

  std::mutex mutex_;
  std::unordered_map<std::string, std::unique_ptr<qveulm_LogCtx>> contexts_;
  std::shared_ptr<spdlog::sinks::dist_sink_mt> output_;
};

struct CaptureStore {
  std::mutex mutex;
  std::vector<LogRecord> records;

  static CaptureStore& Get() {
    static CaptureStore* store = new CaptureStore;
    return *store;
  }
};

void Capture(const qveulm_LogCtx& log, LogLevel level, std::string_view text) {
  CaptureStore& store = CaptureStore::Get();
  std::lock_guard lock(store.mutex);
  if (!g_capturing.load()) return;
  store.records.push_back(LogRecord{log.name, level, std::string(text)});
}

void Emit(qveulm_LogCtx* log, LogLevel level, std::string_view text) {
  if (g_capturing.load(std::memory_order_relaxed)) Capture(*log, level, text);
  if (static_cast<int>(level) < g_threshold.load(std::memory_order_relaxed)) {
    return;
  }
  // The sink ends every line itself; one trailing line feed of the text
  // would otherwise show as a blank line.
  if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
  log->logger->log(ToSpdlog(level), text);
}

// A line longer than this (a failed run logs the whole captured text) is cut,
// with a note of how much was left out.
constexpr size_t kMaxLine = size_t{64} * 1024;

void EmitFormatted(qveulm_LogCtx* log, LogLevel level, const char* format,
                   va_list args) {
  if (log == nullptr || format == nullptr || !Wanted(level)) return;
  char small[512];
  va_list again;
  va_copy(again, args);
  int length = std::vsnprintf(small, sizeof small, format, args);
  if (length >= 0 && static_cast<size_t>(length) < sizeof small) {
    Emit(log, level, std::string_view(small, static_cast<size_t>(length)));
  } else if (length >= 0) {
    const auto full = static_cast<size_t>(length);
    const size_t kept = std::min(full, kMaxLine);
    std::string large(kept + 1, '\0');
    std::vsnprintf(large.data(), large.size(), format, again);
    large.resize(kept);
    if (kept < full) {
      large += " [" + std::to_string(full - kept) + " bytes left out]";
    }
    Emit(log, level, large);
  }
  va_end(again);
}

}  // namespace

using qvehost::internal::Guarded;

extern "C" {

qveulm_LogCtx* qveulm_getLogCtx(qveulm_LogSource* /*logSource*/,
                                const char* logName) {
  return Guarded<qveulm_LogCtx*>(__func__, nullptr, [&]() -> qveulm_LogCtx* {
    return Registry::Get().Context(logName != nullptr ? logName : "");
  });
}

void qve_devtrc(qveulm_LogCtx* log, const char* text) {
  Guarded(__func__, [&] {
    if (log == nullptr || text == nullptr || !Wanted(LogLevel::kTrace)) return;
    Emit(log, LogLevel::kTrace, text);
  });
}

void qve_debug(qveulm_LogCtx* log, const char* format, ...) {
  va_list args;
  va_start(args, format);
  Guarded(__func__,
          [&] { EmitFormatted(log, LogLevel::kDebug, format, args); });
  va_end(args);
}

void qve_warn(qveulm_LogCtx* log, const char* format, ...) {
  va_list args;
  va_start(args, format);
  Guarded(__func__,
          [&] { EmitFormatted(log, LogLevel::kWarn, format, args); });
  va_end(args);
}

void qve_error(qveulm_LogCtx* log, const char* format, ...) {
  va_list args;
  va_start(args, format);
  Guarded(__func__,
          [&] { EmitFormatted(log, LogLevel::kError, format, args); });
  va_end(args);
}

}  // extern "C"

namespace qvehost {

namespace internal {

qveulm_LogSource* HostLogSource() {
  static qveulm_LogSource source;
  return &source;
}

}  // namespace internal

void SetLogLevel(LogLevel level) {
  g_threshold.store(static_cast<int>(level));
}

bool SetLogFile(const std::string& path) {
  try {
    if (path.empty()) {
      Registry::Get().SetOutput(StderrSink());
      return true;
    }
    auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(path);
    sink->set_pattern(kPattern);
    Registry::Get().SetOutput(std::move(sink));
    return true;
  } catch (...) {
    return false;
  }
}

LogCapture::LogCapture() {
  CaptureStore& store = CaptureStore::Get();
  std::lock_guard lock(store.mutex);
  store.records.clear();
  g_capturing.store(true);
}

LogCapture::~LogCapture() {
  CaptureStore& store = CaptureStore::Get();
  std::lock_guard lock(store.mutex);
  g_capturing.store(false);
  store.records.clear();
}

std::vector<LogRecord> LogCapture::Records() const {
  CaptureStore& store = CaptureStore::Get();
  std::lock_guard lock(store.mutex);
  return store.records;
}

std::vector<std::string> LogCapture::Texts(LogLevel level,
                                           std::string_view logger) const {
  std::vector<std::string> texts;
  for (const LogRecord& record : Records()) {
    if (record.level != level) continue;
    if (!logger.empty() && record.logger != logger) continue;
    texts.push_back(record.text);
  }
  return texts;
}

void LogCapture::Clear() {
  CaptureStore& store = CaptureStore::Get();
  std::lock_guard lock(store.mutex);
  store.records.clear();
}

}  // namespace qvehost
