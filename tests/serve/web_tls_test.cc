// A real TLS server set up from a web configuration, asked by curl with and
// without client certificates and credentials. Debian's Prometheus scraping
// with its certificate and password is the package check's (production.sh),
// on the service as the README sets it up.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

#include "serve/http_server.h"
#include "serve/web_config.h"
#include "tests/serve/serve_wire_support.h"

namespace fetchlet::serve {
namespace {

using qvetest::kAlice;

class WebTlsTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = qvetest::MakeTestCerts();
    ASSERT_FALSE(dir_.empty());
  }
  static void TearDownTestSuite() { std::filesystem::remove_all(dir_); }

  void TearDown() override {
    if (server_) server_->Stop();
    if (thread_.joinable()) thread_.join();
  }

  // Serves one sample on /metrics, behind the configuration's TLS and users.
  void Start(const std::string& config) {
    const std::string path = dir_ + "/web.yml";
    std::ofstream(path) << config;
    std::vector<ConfigProblem> problems;
    std::optional<WebConfig> web = LoadWebConfig(path, &problems);
    ASSERT_TRUE(web) << problems.front().message;
    std::string error;
    server_ = MakeHttpServer(*web, &error);
    ASSERT_NE(server_, nullptr) << error;
    auto auth = std::make_shared<const BasicAuth>(web->basic_auth_users);
    RequireBasicAuth(*server_, [auth] { return auth; });
    server_->Get("/metrics", [](const HttpRequest&, HttpResponse& r) {
      r.Set("fetchlet_test_value 1\n", "text/plain; version=0.0.4");
    });
    ASSERT_TRUE(server_->Bind("127.0.0.1", 0, &error)) << error;
    port_ = server_->port();
    // Bound already: connections wait in the backlog until listening starts.
    thread_ = std::thread([this] { server_->Run(); });
  }

  std::string Url() {
    return "https://localhost:" + std::to_string(port_) + "/metrics";
  }

  static inline std::string dir_;
  std::unique_ptr<HttpServer> server_;
  std::thread thread_;
  int port_ = 0;
};

const std::string& kUser = qvetest::kAliceCurl;

const std::string kStranger = "--cert intruder.crt --key intruder.key ";
const std::string kCbc = "--tls-max 1.2 --ciphers ECDHE-ECDSA-AES128-SHA ";

using qvetest::TlsWebConfig;

// RequireAndVerifyClientCert, the sample's policy, and plain HTTP to a TLS
// port are tried on fetchlet serve itself (serve_command_test.cc).
TEST_F(WebTlsTest, EachClientPolicyAdmitsTheClientsItShould) {
  const std::string verified = "  client_ca_file: ca.crt\n";
  const struct {
    std::string config;
    std::string options;
    const char* status;
  } cases[] = {
      {TlsWebConfig("VerifyClientCertIfGiven", verified), kUser, "200"},
      {TlsWebConfig("VerifyClientCertIfGiven", verified), kStranger + kUser, "000"},
      {TlsWebConfig("RequireAnyClientCert"), kStranger + kUser, "200"},
      {TlsWebConfig("RequireAnyClientCert"), kUser, "000"},
      {TlsWebConfig("RequestClientCert"), kUser, "200"},
      {TlsWebConfig("NoClientCert"), kStranger + kUser, "200"},
      {TlsWebConfig("NoClientCert", "  min_version: TLS13\n"), "--tls-max 1.2 " + kUser,
       "000"},
      {TlsWebConfig("NoClientCert", "  min_version: TLS13\n"), kUser, "200"},
      // TLS 1.2 offers no CBC suite unless the configuration names one.
      {TlsWebConfig("NoClientCert"), kCbc + kUser, "000"},
      {TlsWebConfig("NoClientCert"), "--tls-max 1.2 " + kUser, "200"},
      {TlsWebConfig("NoClientCert",
           "  cipher_suites: [TLS_ECDHE_ECDSA_WITH_AES_128_CBC_SHA]\n"),
       kCbc + kUser, "200"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.config + c.options);
    Start(c.config);
    int exit_status = -1;
    EXPECT_EQ(qvetest::CurlStatus(dir_, c.options + " " + Url(), &exit_status),
              c.status);
    EXPECT_EQ(exit_status == 0, std::string(c.status) != "000");
    TearDown();
  }
}

// A TLS 1.2 session with a client certificate, resumed by a second
// connection.
TEST_F(WebTlsTest, ATls12SessionWithAClientCertificateResumes) {
  Start(TlsWebConfig("RequireAndVerifyClientCert", "  client_ca_file: ca.crt\n"));
  const std::string client =
      "cd " + dir_ + " && openssl s_client -connect 127.0.0.1:" +
      std::to_string(port_) +
      " -tls1_2 -CAfile ca.crt -cert client.crt -key client.key ";
  const std::string first = client + "-sess_out session.pem </dev/null";
  const std::string second =
      client + "-sess_in session.pem </dev/null 2>&1 | grep -q '^Reused'";
  ASSERT_EQ(std::system((first + " >/dev/null 2>&1").c_str()), 0);
  EXPECT_EQ(std::system(second.c_str()), 0);
}

}  // namespace
}  // namespace fetchlet::serve
