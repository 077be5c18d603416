// The fetchlet program, driven as a user drives it.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "fos/run_support.h"

extern char** environ;

namespace {

using Json = nlohmann::ordered_json;

struct Outcome {
  int exitStatus = -1;
  std::string out;
  std::string err;
};

std::string Slurp(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// Starts the program with its output in files; the caller waits for pid.
pid_t Start(const std::vector<std::string>& args, const std::string& outPath,
            const std::string& errPath) {
  std::vector<std::string> all = {QVE_FETCHLET_BIN};
  all.insert(all.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& a : all) argv.push_back(a.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0600);
  pid_t pid = -1;
  posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  return pid;
}

Outcome Finish(pid_t pid, const std::string& outPath,
               const std::string& errPath) {
  int status = 0;
  waitpid(pid, &status, 0);
  // A death by signal is told apart from an exit status.
  return {WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status),
          Slurp(outPath), Slurp(errPath)};
}

// A file of this test process's own: tests run in parallel processes.
std::string TempPath(const std::string& name) {
  return testing::TempDir() + "fetchlet-" + std::to_string(getpid()) + "-" +
         name;
}

Outcome RunProgram(const std::vector<std::string>& args) {
  const std::string out = TempPath("out");
  const std::string err = TempPath("err");
  return Finish(Start(args, out, err), out, err);
}

std::string WriteFile(const std::string& name, const std::string& text) {
  const std::string path = TempPath(name);
  std::ofstream(path, std::ios::binary) << text;
  return path;
}

TEST(FetchletProgramTest, JsonShapeKeepsItsKeyOrderAndReplacesBadBytes) {
  Outcome o = RunProgram(
      {"run", "os", "--json", "command=printf 'a\\377b'", "args="});
  EXPECT_EQ(o.exitStatus, 0) << o.err;
  EXPECT_EQ(o.out,
            "{\"status\":0,\"result\":{\"rows\":[[\"a\xEF\xBF\xBD" "b\"]],"
            "\"warning\":null},\"exception\":null}\n");
  Outcome failed = RunProgram({"run", "os", "--json", "command=/x/y"});
  EXPECT_EQ(failed.exitStatus, 1);
  EXPECT_EQ(Json::parse(failed.out),
            Json::parse(R"({"status":-1,"result":null,)"
                        R"("exception":{"kind":12,"message":"/x/y: not found"}})"));
}

TEST(FetchletProgramTest, ExitStatuses) {
  const std::string malformed = WriteFile("malformed.json", "[[\"a\"]");
  const std::string notPairs = WriteFile("not_pairs.json", "[[\"a\", 1]]");
  struct Case {
    std::vector<std::string> args;
    int exitStatus;
    std::string errLine;  // standard error holds the host log too
  } cases[] = {
      {{"run", "os", "command=true"}, 0, ""},
      {{"run", "os", "command=sh -c 'echo oops >&2; exit 1'"}, 1,
       "error (kind 12): oops\n"},
      {{"run", "os", "args=x"}, 1,
       "error (kind 11): Command for fetchlet is NULL\n"},
      {{"run", "nosuchkind", "command=true"}, 2, "fetchlet: unknown kind"},
      {{"run", "os", "--no-such-option", "command=true"}, 2, ""},
      {{"run", "os", "command"}, 2, "fetchlet: property 'command' is not"},
      {{"run", "os", "--properties", malformed}, 2, "fetchlet: properties"},
      {{"run", "os", "--properties", notPairs}, 2, "fetchlet: properties"},
      {{"run", "os", "--properties", "/no/such/file"}, 2,
       "fetchlet: cannot read properties file"},
      {{"run", "os", "--log-level", "loud", "command=true"}, 2,
       "fetchlet: unknown log level"},
  };
  for (const Case& c : cases) {
    Outcome o = RunProgram(c.args);
    EXPECT_EQ(o.exitStatus, c.exitStatus) << c.args.back() << "\n" << o.err;
    EXPECT_NE(o.err.find(c.errLine), std::string::npos) << o.err;
  }
}

TEST(FetchletProgramTest, FilePropertiesComeFirstAndLaterOnesReplaceInPlace) {
  const std::string pairs = WriteFile(
      "pairs.json", R"([["STDINa","1"],["STDINb","2"],["command","cat"]])");
  const std::string object =
      WriteFile("object.json", R"({"STDINz":"1","STDINy":"2","command":"cat"})");
  Outcome o = RunProgram({"run", "os", "--properties", pairs, "STDINc=3",
                          "STDINa=9=x"});
  EXPECT_EQ(o.out, "a=9=x\nb=2\nc=3\n") << o.err;
  o = RunProgram({"run", "os", "--properties", object});
  EXPECT_EQ(o.out, "z=1\ny=2\n") << o.err;
}

// The command the program started, once it runs.
pid_t AwaitGrandchild(pid_t program) {
  const std::string path = "/proc/" + std::to_string(program) + "/task/" +
                           std::to_string(program) + "/children";
  for (int attempt = 0; attempt < 500; ++attempt) {
    std::ifstream children(path);
    pid_t child = 0;
    if (children >> child) return child;
    usleep(10000);
  }
  return -1;
}

TEST(FetchletProgramTest, CtrlCAbortsARunWithARequestIdentifier) {
  const std::string out = TempPath("abort.out");
  const std::string err = TempPath("abort.err");
  pid_t program = Start({"run", "os", "--json", "command=sleep 30",
                         "KTDCLIENT_REQUEST_ID=ctrl-c"},
                        out, err);
  ASSERT_GT(AwaitGrandchild(program), 0);
  kill(program, SIGINT);
  Outcome o = Finish(program, out, err);
  EXPECT_EQ(o.exitStatus, 1) << o.err;
  EXPECT_EQ(Json::parse(o.out)["exception"],
            Json::parse(R"({"kind":7,"message":"Metric execution aborted"})"));
}

TEST(FetchletProgramTest, CtrlCWithoutRequestIdentifierEndsEverything) {
  qvetest::BecomeSubreaper();
  const std::string out = TempPath("kill.out");
  const std::string err = TempPath("kill.err");
  pid_t program = Start({"run", "os", "command=sleep 30"}, out, err);
  ASSERT_GT(AwaitGrandchild(program), 0);
  kill(program, SIGINT);
  EXPECT_EQ(Finish(program, out, err).exitStatus, 130);
  EXPECT_EQ(qvetest::SurvivingChildren(), std::vector<int>{});
}

}  // namespace
