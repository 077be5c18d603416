// The fetchlet program, driven as a user drives it.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "common/processes.h"
#include "common/run_support.h"
#include "host/launcher_support.h"

namespace qvetest {
namespace {

// Files of this test process's own: tests run in parallel processes.
std::string TempPath(const std::string& name) {
  return testing::TempDir() + "fetchlet-" + std::to_string(getpid()) + "-" +
         name;
}
std::string WriteFile(const std::string& name, const std::string& text) {
  const std::string path = TempPath(name);
  std::ofstream(path, std::ios::binary) << text;
  return path;
}
const std::string kOut = TempPath("out"), kErr = TempPath("err");

// Starts the program with its standard output and error in the two files.
pid_t Start(Strings args) {
  args.insert(args.begin(), QVE_FETCHLET_BIN);
  return qvetest::SpawnWithOutput(std::move(args), kOut, kErr);
}

// The exit status (1000 + the signal for a death by signal).
int Finish(pid_t pid) {
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

// Ctrl-C once the program's command runs. The host tracks a command only
// once its start has returned, so the signal waits a little past the exec.
void InterruptOnceRunning(pid_t program) {
  const std::string children = "/proc/" + std::to_string(program) + "/task/" +
                               std::to_string(program) + "/children";
  for (int i = 0; i < 500; ++i) {
    const std::string child =
        std::to_string(std::atoi(FileBytes(children).c_str()));
    if (FileBytes("/proc/" + child + "/cmdline").starts_with("sleep")) break;
    usleep(10000);
  }
  usleep(300000);
  kill(program, SIGINT);
}

// JSON output less its "resources" object (figures differ run to run),
// which must be there.
std::string WithoutResources(std::string out) {
  const size_t at = out.find(",\"resources\":{\"");
  if (out.empty() || out.front() != '{') return out;
  const size_t end = out.find('}', at);
  if (at == std::string::npos || end == std::string::npos) return "missing";
  return out.erase(at, end + 1 - at);
}

// Files that are no properties file and no password file are usage errors:
// the program says why and never aborts or hangs (a FIFO with no writer). A
// password file's mode and owner are checked where serve loads one
// (ServeConfigTest), by the same reader.
TEST(FetchletProgramTest, ExitStatusesAndOutputFormats) {
  const std::string pairs = WriteFile(
      "pairs.json", R"([["STDINa","1"],["STDINb","2"],["command","cat"]])");
  const std::string object = WriteFile(
      "object.json", R"({"STDINz":"1","STDINy":"2","command":"cat"})");
  const std::string notPairs = WriteFile("not_pairs.json", "[[\"a\", 1]]");
  const std::string dir = TempPath("dir"), fifo = TempPath("fifo");
  std::filesystem::create_directory(dir);
  mkfifo(fifo.c_str(), 0600);
  const std::string pwFile = "fetchlet: password file ";
  // clang-format off
  const std::tuple<Strings, int, Text, std::string> cases[] = {
      // The arguments, the exit status, standard output when it is checked,
      // and a text of standard error, which holds the host log too.
      {{"os", "--json", "command=printf 'a\\377b'", "args="}, 0,
       "{\"status\":0,\"result\":{\"rows\":[[\"a\xEF\xBF\xBD" "b\"]],"
       "\"warning\":null},\"exception\":null}\n", ""},
      {{"oslinetoken", "command=sh -c 'echo a,1; echo W:low; echo --; echo b,'",
        "delimiter=,", "tableSeparator=--", "warningStartsWith=W:"}, 0,
       "(table) | (table)\n  [column 0]\n    a | 1\n  [column 1]\n    b | \n"
       "warning: low\n", ""},
      // Properties from a file first; a later one replaces in place.
      {{"os", "--properties", pairs, "STDINc=3", "STDINa=9=x"}, 0,
       "a=9=x\nb=2\nc=3\n", ""},
      {{"os", "--properties", object}, 0, "z=1\ny=2\n", ""},
      {{"os", "command=sh -c 'echo oops >&2; exit 1'"}, 1, "",
       "error (kind 12): oops\n"},
      {{"nosuchkind", "command=true"}, 2, "",
       "fetchlet: unknown kind 'nosuchkind'\n"},
      {{"os", "command"}, 2, "",
       "fetchlet: property 'command' is not NAME=VALUE\n"},
      {{"os", "--properties", notPairs}, 2, "",
       "fetchlet: properties file " + notPairs + " is not a JSON array"},
      {{"os", "--properties", "/no/such/file"}, 2, "",
       "fetchlet: cannot read properties file /no/such/file: No such file "
       "or directory\n"},
      {{"os", "--output-limit", "1GiB", "command=true"}, 0, "\n", ""},
      {{"os", "--output-limit", "12XB", "command=true"}, 2, "",
       "fetchlet: bad output limit '12XB'\n"},
      {{"os", "--output-limit", "16777216TiB", "command=true"}, 2, "",
       "fetchlet: bad output limit '16777216TiB'\n"},
      {{"os", "--log-level", "loud", "command=true"}, 2, "",
       "fetchlet: unknown log level 'loud'\n"},
      {{"os", "--server-version", "0x4g", "command=true"}, 2, "",
       "fetchlet: bad server version '0x4g'\n"},
      {{"os", "--memory-limit", "64MB", "command=true"}, 2, "",
       "fetchlet: bad memory limit '64MB'\n"},
      {{"os", "--pids-limit", "0", "command=true"}, 2, "",
       "fetchlet: bad process limit '0'\n"},
      {{"os", "--cpu-limit", "-1", "command=true"}, 2, "",
       "fetchlet: bad CPU limit '-1'\n"},
      {{"os", "--properties", dir}, 2, "",
       "fetchlet: cannot read properties file " + dir +
           ": it is a directory\n"},
      {{"os", "--properties", fifo}, 2, "", "fetchlet: cannot read properties "
       "file " + fifo + ": it is not a regular file\n"},
      {{"os", "command=true", "password_file=" + dir}, 2, "",
       pwFile + dir + " is not a regular file\n"},
      {{"os", "command=true", "password_file=" + fifo}, 2, "",
       pwFile + fifo + " is not a regular file\n"},
      {{"os", "command=true", "password_file=/no/such"}, 2, "",
       "fetchlet: cannot open password file /no/such: No such file or "
       "directory\n"},
  };
  // clang-format on
  for (const auto& [args, exitStatus, out, errText] : cases) {
    Strings all = {"run"};
    all.insert(all.end(), args.begin(), args.end());
    EXPECT_EQ(Finish(Start(all)), exitStatus) << args[1];
    EXPECT_EQ(WithoutResources(FileBytes(kOut)), out) << args[1];
    EXPECT_NE(FileBytes(kErr).find(errText), std::string::npos)
        << FileBytes(kErr);
  }
  std::filesystem::remove_all(dir);
  unlink(fifo.c_str());
}

TEST(FetchletProgramTest, CtrlCAbortsARunOrEndsEverything) {
  BecomeSubreaper();
  // A run with a request identifier takes the abort and reports it.
  pid_t program = Start({"run", "os", "--json", "command=sleep 30",
                         "KTDCLIENT_REQUEST_ID=ctrl-c"});
  InterruptOnceRunning(program);
  EXPECT_EQ(Finish(program), 1);
  EXPECT_EQ(WithoutResources(FileBytes(kOut)),
            "{\"status\":-1,\"result\":null,\"exception\":{\"kind\":7,"
            "\"message\":\"Metric execution aborted\"}}\n");
  // Without one, the command's group is killed and the program ends.
  program = Start({"run", "os", "command=sleep 30"});
  InterruptOnceRunning(program);
  EXPECT_EQ(Finish(program), 130);
  EXPECT_EQ(SurvivingChildren(), std::vector<int>{});
}

// A password given on the command line is gone from /proc/PID/cmdline while
// the program runs, and the program warns about it.
TEST(FetchletProgramTest, PasswordArgumentIsWipedAndWarnedAbout) {
  BecomeSubreaper();
  const pid_t program =
      Start({"run", "os", "command=sleep 1", "password=Secret-Word"});
  const std::string children = "/proc/" + std::to_string(program) + "/task/" +
                               std::to_string(program) + "/children";
  for (int i = 0; i < 500 && FileBytes(children).empty(); ++i) usleep(10000);
  const std::string cmdline =
      FileBytes("/proc/" + std::to_string(program) + "/cmdline");
  EXPECT_EQ(Finish(program), 0);
  EXPECT_NE(cmdline.find("password="), std::string::npos);
  EXPECT_EQ(cmdline.find("Secret"), std::string::npos);
  EXPECT_EQ(FileBytes(kErr),
            "fetchlet: warning: a password given as password= on the command "
            "line can be read by other local users; use password_file=PATH "
            "or --ask-password\n");
}

// Every way of giving the password reaches the launcher as the same
// password: only one trailing line feed of a file is dropped, and the
// prompt does not echo.
TEST(FetchletProgramTest, PasswordFromFileArgumentOrTerminal) {
  std::string reason;
  const TestAccount* account = LauncherAccount(&reason);
  if (account == nullptr) GTEST_SKIP() << reason;
  const std::string right = account->password;
  const std::string ran = account->name + "\n";
  const std::string file = TempPath("password");
  const Strings run = {"run", "osline", "isSecureCommand=TRUE",
                       "username=" + account->name, "command=id -un"};
  const struct {
    std::string file_text;  // "": the password on the command line
    std::string out;
  } cases[] = {
      {right + "\n", ran},
      {right, ran},
      {right + "\n\n", ""},
      {"", ran},
  };
  for (const auto& c : cases) {
    std::ofstream(file, std::ios::binary | std::ios::trunc) << c.file_text;
    chmod(file.c_str(), 0600);
    Strings args = run;
    args.push_back(c.file_text.empty() ? "password=" + right
                                       : "password_file=" + file);
    EXPECT_EQ(Finish(Start(args)), c.out.empty() ? 1 : 0) << c.file_text;
    EXPECT_EQ(FileBytes(kOut), c.out) << FileBytes(kErr);
  }
  unlink(file.c_str());
  // On a terminal that script provides; the password is typed once the
  // prompt is there (a terminal drops what was typed before echo went off).
  std::string command = "(sleep 0.5; printf '%s\\n' '" + right +
                        "') | script -qec \"" QVE_FETCHLET_BIN;
  for (const std::string& arg : run) command += " '" + arg + "'";
  command += " --ask-password\" /dev/null";
  FILE* terminal = popen(command.c_str(), "r");
  ASSERT_NE(terminal, nullptr);
  std::string shown;
  char chunk[256];
  for (size_t n; (n = fread(chunk, 1, sizeof chunk, terminal)) > 0;) {
    shown.append(chunk, n);
  }
  EXPECT_EQ(pclose(terminal), 0) << shown;
  EXPECT_NE(shown.find("Password: "), std::string::npos) << shown;
  EXPECT_NE(shown.find(account->name), std::string::npos) << shown;
  EXPECT_EQ(shown.find(right), std::string::npos) << shown;
}

}  // namespace
}  // namespace qvetest
