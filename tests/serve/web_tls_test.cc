// A real TLS server set up from a web configuration, asked by curl with and
// without client certificates and credentials.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>

#include "common/processes.h"
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

  std::string Curl(const std::string& options, int* exit_status) {
    return qvetest::CurlStatus(dir_, options, exit_status);
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

std::string Tls(const std::string& auth_type, const std::string& more = "") {
  return qvetest::TlsWebConfig(auth_type, more);
}

// RequireAndVerifyClientCert, the sample's policy, and plain HTTP to a TLS
// port are tried on fetchlet serve itself (serve_command_test.cc).
TEST_F(WebTlsTest, EachClientPolicyAdmitsTheClientsItShould) {
  const std::string verified = "  client_ca_file: ca.crt\n";
  const struct {
    std::string config;
    std::string options;
    const char* status;
  } cases[] = {
      {Tls("VerifyClientCertIfGiven", verified), kUser, "200"},
      {Tls("VerifyClientCertIfGiven", verified), kStranger + kUser, "000"},
      {Tls("RequireAnyClientCert"), kStranger + kUser, "200"},
      {Tls("RequireAnyClientCert"), kUser, "000"},
      {Tls("RequestClientCert"), kUser, "200"},
      {Tls("NoClientCert"), kStranger + kUser, "200"},
      {Tls("NoClientCert", "  min_version: TLS13\n"), "--tls-max 1.2 " + kUser,
       "000"},
      {Tls("NoClientCert", "  min_version: TLS13\n"), kUser, "200"},
      // TLS 1.2 offers no CBC suite unless the configuration names one.
      {Tls("NoClientCert"), kCbc + kUser, "000"},
      {Tls("NoClientCert"), "--tls-max 1.2 " + kUser, "200"},
      {Tls("NoClientCert",
           "  cipher_suites: [TLS_ECDHE_ECDSA_WITH_AES_128_CBC_SHA]\n"),
       kCbc + kUser, "200"},
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

// A TLS 1.2 session with a client certificate, resumed by a second
// connection.
TEST_F(WebTlsTest, ATls12SessionWithAClientCertificateResumes) {
  Start(Tls("RequireAndVerifyClientCert", "  client_ca_file: ca.crt\n"));
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

// Debian's Prometheus, started on a free port with its own data folder,
// scraping the server with each configured job; stopped by its process id.
class Prometheus {
 public:
  Prometheus(const std::string& dir, const std::string& jobs) {
    const std::string config = dir + "/prometheus.yml";
    std::ofstream(config) << "global: {scrape_interval: 1s}\n"
                          << "scrape_configs:\n"
                          << jobs;
    port_ = qvetest::FreePort();
    std::vector<std::string> args = {
        "/usr/bin/prometheus", "--config.file=" + config,
        "--storage.tsdb.path=" + dir + "/data",
        "--web.listen-address=127.0.0.1:" + std::to_string(port_)};
    pid_ = qvetest::SpawnWithOutput(args, "/dev/null", "/dev/null");
  }
  ~Prometheus() {
    if (pid_ <= 0) return;
    kill(pid_, SIGTERM);
    while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
  }

  bool Started() const { return pid_ > 0; }

  // Each job's health and last error, once every job has been scraped;
  // empty when that did not happen within a minute.
  std::map<std::string, std::string> Targets() {
    for (int attempt = 0; attempt < 120; ++attempt) {
      std::map<std::string, std::string> health;
      nlohmann::json targets = Get("/api/v1/targets")["data"]["activeTargets"];
      for (const auto& t : targets) {
        if (t["health"] == "unknown") break;
        health[t["labels"]["job"]] = t["health"].get<std::string>() + " " +
                                     t["lastError"].get<std::string>();
      }
      if (!health.empty() && health.size() == targets.size()) return health;
      usleep(500000);
    }
    return {};
  }

 private:
  nlohmann::json Get(const std::string& path) {
    httplib::Client client("127.0.0.1", port_);
    client.set_connection_timeout(2);
    client.set_read_timeout(10);
    httplib::Result result = client.Get(path);
    if (!result || result->status != 200) return nlohmann::json::object();
    return nlohmann::json::parse(result->body, nullptr, false);
  }

  pid_t pid_ = -1;
  int port_ = 0;
};

TEST_F(WebTlsTest, PrometheusScrapesWithItsCertificateAndPassword) {
  if (access("/usr/bin/prometheus", X_OK) != 0) GTEST_SKIP() << "no prometheus";
  Start(Tls("RequireAndVerifyClientCert", "  client_ca_file: ca.crt\n"));
  std::ofstream(dir_ + "/password") << "s3cret pass";
  const std::string target =
      "    static_configs: [{targets: ['localhost:" + std::to_string(port_) +
      "']}]\n";
  const std::string tls =
      "    scheme: https\n    tls_config:\n"
      "      ca_file: " +
      dir_ + "/ca.crt\n";
  const std::string cert = "      cert_file: " + dir_ + "/client.crt\n" +
                           "      key_file: " + dir_ + "/client.key\n";
  const std::string auth =
      "    basic_auth: {username: alice, password_file: " + dir_ +
      "/password}\n";
  Prometheus prometheus(
      dir_, "  - job_name: full\n" + tls + cert + auth + target +
                "  - job_name: no_password\n" + tls + cert + target +
                "  - job_name: no_certificate\n" + tls + auth + target);
  ASSERT_TRUE(prometheus.Started());
  const std::map<std::string, std::string> targets = prometheus.Targets();
  ASSERT_EQ(targets.size(), 3u);
  EXPECT_EQ(targets.at("full"), "up ");
  EXPECT_EQ(targets.at("no_password"),
            "down server returned HTTP status 401 Unauthorized");
  EXPECT_TRUE(targets.at("no_certificate").starts_with("down "))
      << targets.at("no_certificate");
}

}  // namespace
}  // namespace fetchlet::serve
