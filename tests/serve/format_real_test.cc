// Real Nagios plug-ins and Prometheus textfile scripts, as Debian ships
// them, through fetchlet test --json: what each gives Prometheus.
#include <gtest/gtest.h>
#include <httplib.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <filesystem>
#include <thread>

#include <nlohmann/json.hpp>

#include "../common/processes.h"
#include "serve_test_support.h"

namespace qvetest {
namespace {

using Json = nlohmann::json;

constexpr const char* kPlugins = "/usr/lib/nagios/plugins/";
constexpr const char* kScripts = "/usr/share/prometheus-node-exporter-collectors/";

// fetchlet test --json on one os collector c of format running command.
Json Evaluate(const std::string& format, const std::string& command) {
  const std::string config =
      "collectors:\n  - name: c\n    kind: os\n    interval: 1m\n    format: " +
      format + "\n    properties: {command: \"" + command + "\"}\n";
  const std::string out = ServeTempPath("real-out");
  const pid_t pid = SpawnWithOutput(
      {QVE_FETCHLET_BIN, "test", "--config", WriteServeFile("real.yaml", config),
       "--json"},
      out, ServeTempPath("real-err"));
  int status = 0;
  if (pid > 0) waitpid(pid, &status, 0);
  const Json parsed = Json::parse(ReadServeFile(out), nullptr, false);
  return parsed.is_discarded() ? Json() : parsed;
}

bool HasSample(const Json& outcome, const std::string& name) {
  for (const Json& sample : outcome["samples"]) {
    if (sample["name"] == name) return true;
  }
  return false;
}

double StateValue(const Json& outcome, const std::string& state) {
  for (const Json& sample : outcome["samples"]) {
    if (sample["labels"].value("nagios_c_state", "") == state) return sample["value"];
  }
  return -1;
}

// A loopback HTTP server: / answers 200, /fail 500.
class Loopback {
 public:
  Loopback() {
    server_.Get("/", [](const auto&, auto& response) {
      response.set_content("fine", "text/plain");
    });
    server_.Get("/fail", [](const auto&, auto& response) { response.status = 500; });
    port_ = server_.bind_to_any_port("127.0.0.1");
    // Bound and listening: a connection waits for the accept loop.
    thread_ = std::thread([this] { server_.listen_after_bind(); });
  }
  ~Loopback() {
    server_.stop();
    thread_.join();
  }
  std::string port() const { return std::to_string(port_); }

 private:
  httplib::Server server_;
  int port_ = 0;
  std::thread thread_;
};

// A loopback port nothing listens on: bound without listening, released.
std::string ClosedPort() {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  bind(fd, reinterpret_cast<sockaddr*>(&address), size);
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
  close(fd);
  return std::to_string(ntohs(address.sin_port));
}

TEST(RealPluginsTest, StatesAndPerformanceData) {
  if (!std::filesystem::exists(std::string(kPlugins) + "check_tcp")) {
    GTEST_SKIP() << "monitoring-plugins-basic is not installed";
  }
  Loopback web;
  struct Case {
    std::string plugin;
    std::string state;
    std::string perfdata;  // a family the plug-in's perfdata gives, or ""
  };
  const std::vector<Case> cases = {
      {"check_dummy 0 fine", "ok", ""},
      {"check_dummy 1 so-so", "warning", ""},
      {"check_dummy 3 what", "unknown", ""},
      {"check_tcp -H 127.0.0.1 -p " + web.port(), "ok", "nagios_c_time_seconds"},
      {"check_tcp -H 127.0.0.1 -p " + ClosedPort(), "critical", ""},
      {"check_http -H 127.0.0.1 -p " + web.port(), "ok", "nagios_c_size_bytes"},
      {"check_http -H 127.0.0.1 -u /fail -p " + web.port(), "critical",
       "nagios_c_time_seconds"},
      {"check_load -w 1000,1000,1000 -c 2000,2000,2000", "ok", "nagios_c_load1"},
      {"check_procs -w 1000000", "ok", "nagios_c_procs"},
      {"check_users -w 100000 -c 100000", "ok", "nagios_c_users"},
  };
  for (const Case& c : cases) {
    const Json outcome =
        Evaluate("nagios", std::string(QVE_EXIT_STATUS_BIN) + " " + kPlugins + c.plugin);
    EXPECT_EQ(outcome["failure"], "") << c.plugin << outcome;
    EXPECT_EQ(outcome["dropped_rows"], 0) << c.plugin << outcome;
    EXPECT_EQ(StateValue(outcome, c.state), 1) << c.plugin << outcome;
    if (!c.perfdata.empty()) {
      EXPECT_TRUE(HasSample(outcome, c.perfdata)) << c.plugin << outcome;
    }
  }
}

TEST(RealScriptsTest, TextfileCollectorsAsTheyShip) {
  if (!std::filesystem::exists(std::string(kScripts) + "directory-size.sh")) {
    GTEST_SKIP() << "prometheus-node-exporter-collectors is not installed";
  }
  const std::string dir = ServeTempPath("sized");
  std::filesystem::create_directories(dir);
  WriteServeFile("sized/file", "some bytes\n");
  struct Case {
    std::string script;
    std::string family;  // "" when the machine may have none
  };
  const std::vector<Case> cases = {
      {"directory-size.sh " + dir, "node_directory_size_bytes"},
      {"fstab-check.sh", ""},
      {"inotify-instances", ""},
  };
  for (const Case& c : cases) {
    const Json outcome = Evaluate("prometheus", std::string(kScripts) + c.script);
    EXPECT_EQ(outcome["failure"], "") << c.script << outcome;
    EXPECT_EQ(outcome["dropped_rows"], 0) << c.script << outcome;
    EXPECT_EQ(outcome["notes"], Json::array()) << c.script << outcome;
    if (!c.family.empty()) {
      EXPECT_TRUE(HasSample(outcome, c.family)) << c.script << outcome;
    }
  }
}

}  // namespace
}  // namespace qvetest
