#include "host/process_support.h"

#include <dirent.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace qvetest {
namespace {

std::vector<char*> CStrings(const std::vector<std::string>& strings) {
  std::vector<char*> pointers;
  pointers.reserve(strings.size() + 1);
  for (const std::string& s : strings) {
    pointers.push_back(const_cast<char*>(s.c_str()));
  }
  pointers.push_back(nullptr);
  return pointers;
}

// The children of this process that are alive; zombies are reaped on the
// way.
std::vector<pid_t> LiveChildrenNow() {
  std::vector<pid_t> alive;
  const pid_t self = getpid();
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::ifstream stat(entry.path() / "stat");
    std::string line;
    if (!std::getline(stat, line)) continue;
    const size_t close = line.rfind(')');
    if (close == std::string::npos) continue;
    std::istringstream fields(line.substr(close + 2));
    char state = 0;
    pid_t parent = 0;
    fields >> state >> parent;
    if (parent != self) continue;
    const pid_t pid = std::stoi(name);
    if (state == 'Z') {
      waitpid(pid, nullptr, WNOHANG);
    } else {
      alive.push_back(pid);
    }
  }
  return alive;
}

// Killed processes take a moment to exit; give them that, not more.
std::vector<pid_t> LiveChildren() {
  const auto give_up =
      std::chrono::steady_clock::now() + std::chrono::seconds(10);
  std::vector<pid_t> alive = LiveChildrenNow();
  while (!alive.empty() && std::chrono::steady_clock::now() < give_up) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    alive = LiveChildrenNow();
  }
  return alive;
}

}  // namespace

ProcessPtr NewProcess(const std::vector<std::string>& argv,
                      const std::vector<std::string>* env) {
  std::vector<char*> args = CStrings(argv);
  std::vector<char*> envs =
      env != nullptr ? CStrings(*env) : std::vector<char*>{};
  return ProcessPtr(sqvejcp_Process_new_argv_envp(
      nullptr, args.data(), static_cast<int32_t>(argv.size()),
      env != nullptr ? envs.data() : nullptr,
      env != nullptr ? static_cast<int32_t>(env->size()) : 0));
}

int32_t WriteAll(sqvejcp_Process* process, std::string_view input) {
  int32_t n = 0;
  while (!input.empty()) {
    n = sqvejcp_Process_stdin_write(process, input.data(),
                                    static_cast<uint32_t>(input.size()));
    if (n <= 0) break;
    input.remove_prefix(static_cast<size_t>(n));
  }
  return n;
}

void Collect(sqvejcp_Process* process, std::string* out, std::string* err) {
  MuxPtr mux(sqvejcx_IOMuxor_new(nullptr));
  ASSERT_EQ(sqvejcx_IOMuxor_addProcess(mux.get(), process, QVE_STREAM_OUTPUTS),
            0);
  int open = 2;
  int idle = 0;
  char buffer[8207];
  while (open > 0) {
    uint32_t count = 0;
    sqvejcx_Channel* channels = nullptr;
    ASSERT_EQ(sqvejcx_IOMuxor_select(mux.get(), 1000, &count, &channels), 0);
    if (count == 0 && ++idle == 120) FAIL() << "the streams never ended";
    for (uint32_t i = 0; i < count; ++i) {
      const uint32_t kind = channels[i].streamKind;
      const bool is_out = kind == QVE_STREAM_STDOUT;
      const int32_t n =
          is_out ? sqvejcp_Process_stdout_read(process, buffer, sizeof buffer)
                 : sqvejcp_Process_stderr_read(process, buffer, sizeof buffer);
      if (n > 0) {
        (is_out ? out : err)->append(buffer, static_cast<size_t>(n));
        continue;
      }
      EXPECT_EQ(n, QVE_END_OF_STREAM);
      sqvejcx_IOMuxor_removeProcess(mux.get(), process,
                                    static_cast<int32_t>(kind));
      is_out ? sqvejcp_Process_stdout_close(process)
             : sqvejcp_Process_stderr_close(process);
      --open;
    }
    sqvejcx_IOMuxor_freeChannels(channels);
  }
}

Outcome RunCommand(const std::vector<std::string>& argv,
                   const std::vector<std::string>* env,
                   std::string_view input) {
  Outcome outcome;
  ProcessPtr process = NewProcess(argv, env);
  EXPECT_NE(process, nullptr);
  if (process == nullptr) return outcome;
  outcome.start = sqvejcp_Process_run_need_pipes(process.get(), QVE_STREAM_ALL);
  WriteAll(process.get(), input);
  sqvejcp_Process_stdin_close(process.get());
  if (outcome.start == 0) Collect(process.get(), &outcome.out, &outcome.err);
  sqvejcp_Process_blocking_wait(process.get());
  sqvejcp_Process_getExitValue(process.get(), &outcome.exit);
  return outcome;
}

std::vector<std::string> OpenDescriptors() {
  std::vector<std::string> names;
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) return names;
  const std::string own = std::to_string(dirfd(dir));
  while (const dirent* entry = readdir(dir)) {
    const std::string name = entry->d_name;
    if (name != "." && name != ".." && name != own) names.push_back(name);
  }
  closedir(dir);
  return names;
}

void ChildWatchTest::SetUp() {
  ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
  descriptors_ = OpenDescriptors();
}

void ChildWatchTest::TearDown() {
  EXPECT_EQ(LiveChildren(), std::vector<pid_t>{}) << "children left alive";
  EXPECT_EQ(OpenDescriptors(), descriptors_) << "descriptors left open";
  prctl(PR_SET_CHILD_SUBREAPER, 0);
}

ScratchDir::ScratchDir() {
  char name[] = "/tmp/qve-process-XXXXXX";
  if (mkdtemp(name) != nullptr) path_ = name;
}

ScratchDir::~ScratchDir() {
  std::error_code ignored;
  if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
}

std::string ScratchDir::Write(const std::string& name, std::string_view text,
                              int mode) {
  std::string file = path_ + "/" + name;
  std::ofstream(file) << text;
  chmod(file.c_str(), static_cast<mode_t>(mode));
  return file;
}

}  // namespace qvetest
