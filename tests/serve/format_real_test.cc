// Real Nagios plug-ins, Prometheus textfile scripts and programs that print
// JSON, as Debian ships them, through fetchlet test --json: what each gives
// Prometheus.
#include <gtest/gtest.h>
#include <httplib.h>

#include <filesystem>
#include <functional>
#include <map>
#include <thread>

#include <nlohmann/json.hpp>

#include "format_test_support.h"
#include "serve_wire_support.h"

namespace qvetest {
namespace {

using Json = nlohmann::json;

constexpr const char* kPlugins = "/usr/lib/nagios/plugins/";
constexpr const char* kScripts = "/usr/share/prometheus-node-exporter-collectors/";

// What argv printed on standard output, once it ended.
std::string Output(const std::vector<std::string>& argv) {
  const Ran ran = RunProgram(argv);
  return ran.status == 0 ? ran.out : "";
}

Json Evaluate(const std::string& format, const std::string& command,
              const std::string& extra = "") {
  return TestJson(FormatCollector(format, command, extra));
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
      {"check_tcp -H 127.0.0.1 -p " + std::to_string(FreePort()), "critical", ""},
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

using Values = std::map<std::string, double>;

// lsblk's devices and their children: name -> size in bytes.
void DeviceSizes(const Json& devices, Values* sizes) {
  for (const Json& device : devices) {
    (*sizes)["disk_size_bytes,device=" + device.value("name", "") +
             ",type=" + device.value("type", "")] = device["size"];
    if (device.contains("children")) DeviceSizes(device["children"], sizes);
  }
}

Values LinkValues(const Json& links) {
  Values values;
  for (const Json& link : links) {
    const std::string name = link["ifname"];
    values["link_mtu_bytes,link=" + name] = link["mtu"];
    values["link_info,link=" + name + ",state=" + link["operstate"].get<std::string>()] = 1;
  }
  return values;
}

// A mount table in the kernel's format, so that the test never depends on
// what the machine mounts: / holds /proc and /srv, which holds /srv/cache.
constexpr const char* kMountInfo =
    "21 1 254:0 / / rw,relatime - ext4 /dev/vdz1 rw\n"
    "22 21 0:5 / /proc rw - proc proc rw\n"
    "23 21 254:16 / /srv rw - xfs /dev/vdz2 rw\n"
    "24 23 0:30 / /srv/cache rw - tmpfs tmpfs rw,size=1024k\n";

TEST(RealJsonTest, ProgramsThatPrintJson) {
  const std::string mounts = WriteServeFile("mountinfo", kMountInfo);
  struct Case {
    std::string command;
    std::string keys;                      // rows, children and metrics
    std::function<Values(const Json&)> expected;  // from the program's own output
  };
  const std::vector<Case> cases = {
      {"/usr/sbin/ip -j -s link",
       "    metrics:\n"
       "      - {name: link_mtu_bytes, help: MTU., unit: bytes,"
       " value: {pointer: /mtu}, labels: {link: /ifname}}\n"
       "      - {name: link, help: Links., type: info,"
       " labels: {link: /ifname, state: /operstate}}\n"
       "      - {name: link_received_bytes_total, help: Received., type: counter,"
       " value: {pointer: /stats64/rx/bytes}, labels: {link: /ifname}}\n",
       LinkValues},
      {"/usr/bin/lsblk -J -b -o NAME,TYPE,SIZE",
       "    rows: /blockdevices\n    children: /children\n    metrics:\n"
       "      - {name: disk_size_bytes, help: Size., unit: bytes,"
       " value: {pointer: /size}, labels: {device: /name, type: /type}}\n",
       [](const Json& doc) {
         Values sizes;
         DeviceSizes(doc.value("blockdevices", Json::array()), &sizes);
         return sizes;
       }},
      {"/usr/bin/findmnt -J -b -F " + mounts + " -o TARGET,FSTYPE,ID,PARENT",
       "    rows: /filesystems\n    children: /children\n    metrics:\n"
       "      - {name: mount_parent_id, help: Parent., value: {pointer: /parent},"
       " labels: {target: /target, fstype: /fstype}}\n",
       [](const Json&) {
         return Values{{"mount_parent_id,fstype=ext4,target=/", 1},
                       {"mount_parent_id,fstype=proc,target=/proc", 21},
                       {"mount_parent_id,fstype=xfs,target=/srv", 21},
                       {"mount_parent_id,fstype=tmpfs,target=/srv/cache", 23}};
       }},
  };
  for (const Case& c : cases) {
    const Json own = Json::parse(Output({"/bin/sh", "-c", c.command}), nullptr, false);
    ASSERT_FALSE(own.is_discarded()) << c.command;
    const Json outcome = Evaluate("json", c.command, c.keys);
    EXPECT_EQ(outcome["failure"], "") << c.command << outcome;
    EXPECT_EQ(outcome["dropped_rows"], 0) << c.command << outcome;
    Values values = SampleValues(outcome);
    std::erase_if(values, [](const auto& each) {  // it grows between runs
      return each.first.starts_with("link_received_bytes_total");
    });
    EXPECT_EQ(values, c.expected(own)) << c.command << outcome;
  }
  // The loopback link is always there.
  const Json links = Evaluate("json", cases[0].command, cases[0].keys);
  EXPECT_EQ(SampleValues(links).at("link_mtu_bytes,link=lo"), 65536) << links;
  EXPECT_TRUE(HasSample(links, "link_received_bytes_total")) << links;
}

}  // namespace
}  // namespace qvetest
