// The built program's serve command, as a service manager runs it: the
// readiness messages around bind, reload and stop, and TLS with basic auth
// in front of the routes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "common/processes.h"
#include "tests/serve/serve_runtime_support.h"
#include "tests/serve/serve_wire_support.h"

namespace {

using qvetest::kAliceCurl;

// fetchlet serve with args, its output in log; killed if still running
// when the test ends.
class ServeProcess {
 public:
  ServeProcess(std::vector<std::string> args, const std::string& log) {
    args.insert(args.begin(), {QVE_FETCHLET_BIN, "serve"});
    pid_ = qvetest::SpawnWithOutput(std::move(args), log, log);
  }
  ~ServeProcess() {
    if (pid_ > 0) kill(pid_, SIGKILL);
    Wait();
  }

  void Signal(int signal) { kill(pid_, signal); }

  // The exit status, or -1 when it did not exit.
  int Wait() {
    if (pid_ <= 0) return -1;
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  pid_t pid_ = -1;
};

class ServeCommandTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = qvetest::MakeTestCerts();
    ASSERT_FALSE(dir_.empty());
  }
  static void TearDownTestSuite() { std::filesystem::remove_all(dir_); }

  void SetUp() override {
    ASSERT_TRUE(socket_.Open());
    port_ = qvetest::FreePort();
    ASSERT_GT(port_, 0);
  }

  // A configuration of count collectors, each echoing 1, then extra.
  void WriteConfig(int count, const std::string& extra = "") {
    std::ofstream out(dir_ + "/serve.yaml");
    out << "listen: 127.0.0.1:" << port_ << "\njitter: 0\ncollectors:\n";
    for (int i = 0; i < count; ++i) {
      out << "  - name: c" << i << "\n    kind: os\n"
          << "    properties: {command: /bin/echo 1}\n    interval: 1h\n"
          << "    regex: '(.*)'\n    metrics:\n"
          << "      - {name: c" << i << "_value, help: One., value: {column: 1}}\n";
    }
    out << extra;
  }

  std::vector<std::string> Args(const std::string& web_config = "") {
    std::vector<std::string> args = {"--config", dir_ + "/serve.yaml",
                                     "--log-level", "info"};
    if (!web_config.empty()) {
      std::ofstream(dir_ + "/web.yml") << web_config;
      args.insert(args.end(), {"--web-config", dir_ + "/web.yml"});
    }
    return args;
  }

  std::string Status(int count, const std::string& more = "") {
    return "STATUS=serving " + std::to_string(count) +
           (count == 1 ? " collector" : " collectors") + " on 127.0.0.1:" +
           std::to_string(port_) + more;
  }

  std::string Log() { return qvetest::FileBytes(dir_ + "/serve.log"); }

  static inline std::string dir_;
  qvetest::NotifySocket socket_;
  int port_ = 0;
};

TEST_F(ServeCommandTest, ToldReadyWhenBoundReloadingAroundHupStoppingAtTerm) {
  WriteConfig(1);
  ServeProcess serve(Args(), dir_ + "/serve.log");
  EXPECT_EQ(socket_.Receive(), Status(1));
  ASSERT_EQ(socket_.Receive(), "READY=1") << Log();
  httplib::Client client("127.0.0.1", port_);
  const httplib::Result healthz = client.Get("/healthz");
  ASSERT_TRUE(healthz);
  EXPECT_EQ(healthz->status, 200);
  {  // a second serve on the held address, which it names, and no sharing
    ServeProcess second(Args(), dir_ + "/second.log");
    EXPECT_EQ(second.Wait(), 1);
    EXPECT_NE(qvetest::FileBytes(dir_ + "/second.log")
                  .find("fetchlet: cannot listen on 127.0.0.1:" +
                        std::to_string(port_) + ": Address already in use"),
              std::string::npos);
  }

  const struct {
    int collectors;
    std::string extra;
    std::string status;
  } reloads[] = {
      {2, "", Status(2)},
      {1, "colour: red\n", Status(2, "; last reload failed")},
      {1, "", Status(1)},
  };
  for (const auto& r : reloads) {
    WriteConfig(r.collectors, r.extra);
    serve.Signal(SIGHUP);
    EXPECT_TRUE(socket_.Receive().starts_with("RELOADING=1\nMONOTONIC_USEC="))
        << r.status;
    EXPECT_EQ(socket_.Receive(), r.status) << Log();
    EXPECT_EQ(socket_.Receive(), "READY=1") << r.status;
  }

  serve.Signal(SIGTERM);
  EXPECT_EQ(socket_.Receive(), "STOPPING=1");
  EXPECT_EQ(serve.Wait(), 0) << Log();
  EXPECT_FALSE(socket_.Pending());
}

TEST_F(ServeCommandTest, TlsAndBasicAuthGuardTheRoutes) {
  WriteConfig(1);
  ServeProcess serve(Args(qvetest::TlsWebConfig("RequireAndVerifyClientCert",
                                                "  client_ca_file: ca.crt\n")),
                     dir_ + "/serve.log");
  socket_.Receive();
  ASSERT_EQ(socket_.Receive(), "READY=1") << Log();
  const std::string cert = "--cert client.crt --key client.key ";
  // Which credentials pass is the web configuration's tests'; here, that
  // the program puts both guards in front of its routes (gates that no route
  // passes by: one route is tried).
  const struct {
    std::string options;
    std::string status;
    bool curl_fails;
  } cases[] = {
      {cert + kAliceCurl, "200", false},
      {cert, "401", false},
      {kAliceCurl, "000", true},
  };
  const std::string url = " https://localhost:" + std::to_string(port_) + "/";
  for (const auto& c : cases) {
    int exit_status = 0;
    EXPECT_EQ(qvetest::CurlStatus(dir_, c.options + url, &exit_status), c.status)
        << c.options;
    EXPECT_EQ(exit_status != 0, c.curl_fails) << c.options;
  }
  int headers_status = 0;
  qvetest::CurlStatus(dir_, cert + "-D headers" + url, &headers_status);
  EXPECT_NE(qvetest::FileBytes(dir_ + "/headers")
                .find("WWW-Authenticate: Basic realm=\"fetchlet\""),
            std::string::npos);
  int exit_status = 0;
  const std::string plain = "http://127.0.0.1:" + std::to_string(port_);
  EXPECT_EQ(qvetest::CurlStatus(dir_, kAliceCurl + " " + plain, &exit_status),
            "000");
}

// The users change on SIGHUP; a broken web configuration keeps the last one
// and the reload counts as failed.
TEST_F(ServeCommandTest, AReloadReadsTheUsersAgain) {
  WriteConfig(1);
  const std::string users = "basic_auth_users:\n  alice: ";
  ServeProcess serve(Args(users + qvetest::kAlice + "\n"), dir_ + "/serve.log");
  socket_.Receive();
  ASSERT_EQ(socket_.Receive(), "READY=1") << Log();
  const auto status_of = [&](const std::string& user) {
    httplib::Client client("127.0.0.1", port_);
    client.set_basic_auth(user, "s3cret pass");
    const httplib::Result result = client.Get("/healthz");
    return result ? result->status : 0;
  };
  EXPECT_EQ(status_of("alice"), 200);
  EXPECT_EQ(status_of("bob"), 401);

  const struct {
    std::string web;
    std::string status;
  } reloads[] = {
      {"basic_auth_users:\n  bob: " + std::string(qvetest::kAlice) + "\n",
       Status(1)},
      {"basic_auth_users:\n  bob: not a hash\n",
       Status(1, "; last reload failed")},
  };
  for (const auto& r : reloads) {
    std::ofstream(dir_ + "/web.yml") << r.web;
    serve.Signal(SIGHUP);
    socket_.Receive();
    EXPECT_EQ(socket_.Receive(), r.status) << Log();
    EXPECT_EQ(socket_.Receive(), "READY=1");
    EXPECT_EQ(status_of("alice"), 401) << r.web;
    EXPECT_EQ(status_of("bob"), 200) << r.web;
  }
  serve.Signal(SIGTERM);
  EXPECT_EQ(serve.Wait(), 0) << Log();
}

// A wrong web configuration stops the start, as a wrong configuration does.
TEST_F(ServeCommandTest, RefusesToStartWithABadWebConfig) {
  WriteConfig(1);
  ServeProcess serve(Args("tls_server_confg:\n  cert_file: server.crt\n"),
                     dir_ + "/serve.log");
  EXPECT_EQ(serve.Wait(), 1);
  EXPECT_NE(Log().find("/web.yml:1:1: unknown key 'tls_server_confg' in the "
                       "web configuration"),
            std::string::npos)
      << Log();
  EXPECT_FALSE(socket_.Pending());
}

}  // namespace
