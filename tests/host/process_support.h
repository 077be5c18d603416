// Support for tests that start real commands through the plain process
// family and the multiplexer.
#ifndef QVE_TESTS_HOST_PROCESS_SUPPORT_H_
#define QVE_TESTS_HOST_PROCESS_SUPPORT_H_

#include <gtest/gtest.h>
#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "qve/host.h"

namespace qvetest {

struct ProcessDeleter {
  void operator()(sqvejcp_Process* p) const { sqvejcp_Process_delete(p); }
};
struct MuxDeleter {
  void operator()(sqvejcx_IOMuxor* m) const { sqvejcx_IOMuxor_delete(m); }
};
using ProcessPtr = std::unique_ptr<sqvejcp_Process, ProcessDeleter>;
using MuxPtr = std::unique_ptr<sqvejcx_IOMuxor, MuxDeleter>;

// A process object for argv, with env as its environment (null: the host's).
ProcessPtr NewProcess(const std::vector<std::string>& argv,
                      const std::vector<std::string>* env = nullptr);

// Writes all of input to standard input; the last write result (the byte
// count of the last write, or the failure code).
int32_t WriteAll(sqvejcp_Process* process, std::string_view input);

// Reads both output streams through a multiplexer until both have ended.
void Collect(sqvejcp_Process* process, std::string* out, std::string* err);

struct Outcome {
  int32_t start = 0;
  int32_t exit = 0;
  std::string out;
  std::string err;
};
// Starts argv with all three pipes, feeds input, collects both streams,
// waits and reads the exit value.
Outcome RunCommand(const std::vector<std::string>& argv,
                   const std::vector<std::string>* env = nullptr,
                   std::string_view input = {});

// The names in /proc/self/fd.
std::vector<std::string> OpenDescriptors();

// Makes the test process a child subreaper for each test, so that what the
// commands leave behind becomes its own child; after the test, checks that
// no child is left alive (zombies are reaped) and no descriptor left open.
class ChildWatchTest : public testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

 private:
  std::vector<std::string> descriptors_;
};

// A directory of files for one test suite, removed with it.
class ScratchDir {
 public:
  ScratchDir();
  ~ScratchDir();
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  // Writes a file with mode and returns its path.
  std::string Write(const std::string& name, std::string_view text, int mode);

 private:
  std::string path_;
};

}  // namespace qvetest

#endif  // QVE_TESTS_HOST_PROCESS_SUPPORT_H_
