// A real TLS server set up from a web configuration, asked by curl with and
// without client certificates and credentials.
#include <gtest/gtest.h>
#include <httplib.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

#include "serve/web_config.h"

namespace fetchlet::serve {
namespace {

// bcrypt of "s3cret pass", cost 4.
constexpr const char* kAlice =
    "$2b$04$gNk1iq8F3/B.v6zkGEfIU.ODRqLVjp0VnWRZm8KqFixfGLJBYp67.";

class WebTlsTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    char dir[] = "/tmp/web_tls_test.XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    dir_ = dir;
    ASSERT_EQ(std::system((std::string(QVE_MAKE_CERTS) + " " + dir_).c_str()),
              0);
  }
  static void TearDownTestSuite() { std::filesystem::remove_all(dir_); }

  void TearDown() override {
    if (server_) server_->stop();
    if (thread_.joinable()) thread_.join();
  }

  // Serves "ok" on /metrics, behind the configuration's TLS and users.
  void Start(const std::string& config) {
    const std::string path = dir_ + "/web.yml";
    std::ofstream(path) << config;
    std::vector<ConfigProblem> problems;
    std::optional<WebConfig> web = LoadWebConfig(path, &problems);
    ASSERT_TRUE(web) << problems.front().message;
    std::string error;
    server_ = MakeHttpServer(*web, &error);
    ASSERT_NE(server_, nullptr) << error;
    RequireBasicAuth(*server_,
                     std::make_shared<BasicAuth>(web->basic_auth_users));
    server_->Get("/metrics", [](const httplib::Request&, httplib::Response& r) {
      r.set_content("ok\n", "text/plain");
    });
    port_ = server_->bind_to_any_port("127.0.0.1");
    ASSERT_GT(port_, 0);
    // Bound already: connections wait in the backlog until listening starts.
    thread_ = std::thread([this] { server_->listen_after_bind(); });
  }

  // The HTTP status curl saw, "000" when there was no answer; curl's own
  // failure shows as a non-zero exit status in *exit_status.
  std::string Curl(const std::string& options, int* exit_status) {
    const std::string command =
        "cd " + dir_ + " && curl -s -o /dev/null -w '%{http_code}' " +
        "--max-time 20 --cacert ca.crt " + options + " 2>/dev/null";
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return "popen failed";
    char code[16] = {};
    const size_t n = fread(code, 1, sizeof code - 1, pipe);
    *exit_status = WEXITSTATUS(pclose(pipe));
    return std::string(code, n);
  }

  std::string Url() {
    return "https://localhost:" + std::to_string(port_) + "/metrics";
  }

  static inline std::string dir_;
  std::unique_ptr<httplib::Server> server_;
  std::thread thread_;
  int port_ = 0;
};

const std::string kUser = "--user 'alice:s3cret pass'";

const std::string kMine = "--cert client.crt --key client.key ";
const std::string kStranger = "--cert intruder.crt --key intruder.key ";

std::string Tls(const std::string& auth_type, const std::string& more = "") {
  return "tls_server_config:\n  cert_file: server.crt\n  key_file: "
         "server.key\n  client_auth_type: " +
         auth_type + "\n" + more + "basic_auth_users:\n  alice: " + kAlice +
         "\n";
}

TEST_F(WebTlsTest, EachClientPolicyAdmitsTheClientsItShould) {
  const std::string verified = "  client_ca_file: ca.crt\n";
  const struct {
    std::string config;
    std::string options;
    const char* status;
  } cases[] = {
      {Tls("RequireAndVerifyClientCert", verified), kMine + kUser, "200"},
      {Tls("RequireAndVerifyClientCert", verified), kMine, "401"},
      {Tls("RequireAndVerifyClientCert", verified),
       kMine + "--user alice:wrong", "401"},
      {Tls("RequireAndVerifyClientCert", verified), kUser, "000"},
      {Tls("RequireAndVerifyClientCert", verified), kStranger + kUser, "000"},
      {Tls("VerifyClientCertIfGiven", verified), kUser, "200"},
      {Tls("VerifyClientCertIfGiven", verified), kStranger + kUser, "000"},
      {Tls("RequireAnyClientCert"), kStranger + kUser, "200"},
      {Tls("RequireAnyClientCert"), kUser, "000"},
      {Tls("RequestClientCert"), kUser, "200"},
      {Tls("NoClientCert"), kStranger + kUser, "200"},
      {Tls("NoClientCert", "  min_version: TLS13\n"), "--tls-max 1.2 " + kUser,
       "000"},
      {Tls("NoClientCert", "  min_version: TLS13\n"), kUser, "200"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.config + c.options);
    Start(c.config);
    int exit_status = -1;
    EXPECT_EQ(Curl(c.options + " " + Url(), &exit_status), c.status);
    EXPECT_EQ(exit_status == 0, std::string(c.status) != "000");
    TearDown();
  }
}

TEST_F(WebTlsTest, PlainHttpToTheTlsPortFailsAndTheServerStaysUp) {
  Start(Tls("NoClientCert"));
  const std::string plain = "http://127.0.0.1:" + std::to_string(port_);
  int exit_status = 0;
  EXPECT_EQ(Curl(kUser + " " + plain + "/metrics", &exit_status),
            "000");
  EXPECT_NE(exit_status, 0);
  EXPECT_EQ(Curl(kUser + " " + Url(), &exit_status), "200");
  EXPECT_EQ(exit_status, 0);
}

}  // namespace
}  // namespace fetchlet::serve
