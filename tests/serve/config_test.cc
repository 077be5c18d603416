// Loading the serving configuration: every broken file names its problems
// with their places; good files load to the values they say.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <regex>

#include "qve/embedded.h"
#include "serve/duration.h"
#include "serve_test_support.h"

namespace qvetest {
namespace {

using fetchlet::serve::Config;
using Lines = std::vector<std::string>;

// One collector that loads; cases append to it or replace parts of it.
constexpr const char* kGood = R"(collectors:
  - name: c
    kind: osline
    properties: {command: echo 1}
    interval: 1s
    metrics:
      - {name: v, help: h, value: {column: 0}}
)";

std::string WithCollector(const std::string& more) {
  return std::string(kGood) + more;
}

std::string PasswordFile(const std::string& name, mode_t mode, uid_t owner) {
  const std::string path = WriteServeFile(name, "s3cret\n");
  chmod(path.c_str(), mode);
  if (chown(path.c_str(), owner, static_cast<gid_t>(-1)) != 0) return "";
  return path;
}

TEST(ServeConfigTest, BrokenFilesNameEachProblemWithItsPlace) {
  const std::string group = PasswordFile("group-pw", 0640, geteuid());
  const std::string other = PasswordFile("other-pw", 0600, 65534);
  const struct {
    std::string text;
    Lines expected;
  } cases[] = {
      {"colectors: []\n",
       {"F:1:1: unknown key 'colectors' in the configuration",
        "F:1:1: missing key 'collectors'"}},
      {"collectors: [\n", {"F:2:1: end of sequence flow not found"}},
      {"- a\n", {"F:1:1: the configuration must be a mapping"}},
      {std::string("max_concurrent: two\n") + kGood,
       {"F:1:17: 'max_concurrent' must be an integer"}},
      {std::string("jitter: 1.5\noutput_limit: 64MB\nlisten: localhost\n") +
           kGood,
       {"F:1:9: 'jitter' must lie between 0 and 1",
        "F:2:15: 'output_limit' must be a size (1048576, 64MiB, 1GiB)",
        "F:3:9: 'listen' must be ADDRESS:PORT"}},
      {WithCollector("    interval: 2s\n"), {"F:8:5: duplicate key 'interval'"}},
      {WithCollector("    timeout: 10\n"),
       {"F:8:14: 'timeout' must be a duration above zero (500ms, 10s, 5m, "
        "1h)"}},
      {WithCollector("    on_scrape: {cache_for: 1s}\n"),
       {"F:2:5: a collector needs exactly one of 'interval' and 'on_scrape'"}},
      {WithCollector("    regex: '(a'\n"),
       {"F:8:5: 'regex' is not used by an osline collector",
        "F:8:12: regex does not compile: missing ): (a"}},
      {WithCollector("  - {name: d, kind: os, interval: 1s, regex: '(a)',\n"
                     "     properties: {command: x, password: pw},\n"
                     "     metrics: [{name: w, help: h, value: {column: 2}}]}"
                     "\n"),
       {"F:9:31: a password is never written in the configuration: use "
        "password_file or password_credential",
        "F:10:16: column 2 of family 'w' is beyond the regex's 1 groups"}},
      {WithCollector("  - {name: d, kind: osline, interval: 1s, metrics: "
                     "[{name: v, help: h2, value: {column: 0}}]}\n"),
       {"F:8:5: a collector needs the property 'command'",
        "F:8:53: family 'v' is already defined at line 7"}},
      {WithCollector("  - {name: c, kind: osline, interval: 1s, metrics: "
                     "[{name: w, help: h, value: {column: 0}}]}\n"),
       {"F:8:5: a collector needs the property 'command'",
        "F:8:5: collector 'c' is already defined at line 2"}},
      {WithCollector(
           "  - name: d\n    kind: osline\n    interval: 1s\n    metrics:\n"
           "      - {name: x_total, help: h, type: counter, value: {column: 0}}\n"
           "      - {name: x, help: h, value: {column: 0}}\n"
           "      - {name: foo, help: h, type: info, labels: {a: 0}}\n"
           "      - {name: foo_info, help: h, value: {column: 0}}\n"
           "      - {name: fetchlet_up, help: h, value: {column: 0}}\n"
           "      - {name: bar, help: h, type: info, labels: {a: 0}}\n"
           "      - {name: bar, help: h, value: {column: 0}}\n"
           "      - {name: x_created, help: h, value: {column: 0}}\n"),
       {"F:8:5: a collector needs the property 'command'",
        "F:13:9: family 'x' clashes with 'x_total' of line 12 over the name "
        "'x'",
        "F:15:9: family 'foo_info' clashes with 'foo' of line 14 over the "
        "name 'foo_info'",
        "F:16:9: family name 'fetchlet_up' is reserved for the program's own "
        "metrics",
        "F:18:9: family 'bar' is already defined at line 17",
        "F:19:9: family 'x_created' clashes with 'x_total' of line 12 over "
        "the name 'x_created'"}},
      {WithCollector(
           "  - name: d\n    kind: osline\n    interval: 1s\n    metrics:\n"
           "      - {name: size, help: h, unit: bytes, value: {column: 0}}\n"
           "      - {name: reads_bytes, help: h, unit: bytes, type: counter, "
           "value: {column: 0}}\n"
           "      - {name: reads, help: h, type: counter, value: {column: 0}}\n"
           "      - {name: 9lives, help: '', value: {column: 0}}\n"
           "      - {name: s, help: h, type: stateset, value: {column: 0}}\n"
           "      - {name: i_info, help: h, type: info, value: {column: 0}}\n"
           "      - {name: g, help: h, type: histogram, labels: {__a: 0}}\n"),
       {"F:8:5: a collector needs the property 'command'",
        "F:12:9: unit 'bytes' must be the suffix of 'size'",
        "F:13:9: counter 'reads_bytes' must end in _total",
        "F:13:9: unit 'bytes' must be the suffix of 'reads_bytes' before "
        "_total",
        "F:14:9: counter 'reads' must end in _total",
        "F:15:9: invalid family name '9lives'",
        "F:16:9: a stateset needs states",
        "F:17:9: an info family takes no value",
        "F:18:9: missing value column",
        "F:18:34: unknown type 'histogram' (gauge, counter, info, stateset)",
        "F:18:54: invalid label name '__a'"}},
      {WithCollector("  - name: u\n    kind: udm\n    interval: 1s\n"
                     "    password_file: " + group + "\n"
                     "    value: {name: u, help: h, map: {on: one}}\n"
                     "  - name: o\n    kind: udm\n    interval: 1s\n"
                     "    password_file: " + other + "\n"
                     "    properties: {valuetype: NUMBER, KT_METRIC_TIMEOUT: 5}"
                     "\n    value: {name: n, help: h, type: stateset, "
                     "states: [a, a]}\n"),
       {"F:8:5: a collector needs the property 'command'",
        "F:11:20: password file " + group +
            " must not be readable or writable by group or others "
            "(chmod 600)",
        "F:12:41: 'on' must be a number",
        "F:13:5: a collector needs the property 'command'",
        "F:16:20: password file " + other +
            " is not owned by the user running fetchlet",
        "F:18:59: duplicate state 'a'"}},
      {WithCollector("  - {name: u, kind: udm, interval: 1s, "
                     "value: {name: u, help: h}}\n"),
       {"F:8:5: a collector needs the property 'command'",
        "F:8:5: a STRING value needs type stateset, type info or a map"}},
      {"{\"collectors\": [{\"name\": \"j\", \"name\": \"k\"}]}\n",
       {"F:1:17: missing key 'kind'",
        "F:1:17: a collector needs exactly one of 'interval' and "
        "'on_scrape'",
        "F:1:31: duplicate key 'name'"}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(ConfigProblems(c.text), c.expected) << c.text;
  }
}

// The README's examples: the configuration, with a password file of this
// test's own, and a collector of each format.
TEST(ServeConfigTest, ReadmeExamplesLoad) {
  const std::string readme = FileBytes(QVE_SOURCE_DIR "/README.md");
  const std::regex block("```yaml\n([^`]*collectors:[^`]*)```");
  std::smatch example;
  ASSERT_TRUE(std::regex_search(readme, example, block))
      << "README.md has no yaml block with collectors";
  const std::string password = PasswordFile("readme-pw", 0600, geteuid());
  const std::string text = std::regex_replace(
      example[1].str(), std::regex("password_file: *[^ \n]+"),
      "password_file: " + password);
  EXPECT_FALSE(LoadServeConfig(text).collectors.empty());
  const std::regex format("```yaml\n(  - name:[^`]*format: (\\w+)[^`]*)```");
  Lines formats;
  for (std::sregex_iterator it(readme.begin(), readme.end(), format), end;
       it != end; ++it) {
    formats.push_back((*it)[2]);
    const Config config = LoadServeConfig("collectors:\n" + (*it)[1].str());
    EXPECT_EQ(config.collectors.size(), 1u) << (*it)[1];
  }
  EXPECT_EQ(formats, (Lines{"prometheus", "nagios", "json"}));
}

TEST(ServeConfigTest, ValuesLoadAsWrittenAndJsonMatchesYaml) {
  const std::string password = PasswordFile("good-pw", 0600, geteuid());
  const std::string yaml =
      "evaluation_timeout: 3s\noutput_limit: 1GiB\nmax_concurrent: 2\n"
      "collectors:\n"
      "  - name: u\n    kind: udm\n    on_scrape: {cache_for: 15s}\n"
      "    properties: {command: /x, ID: u, username: a, args: 80}\n"
      "    password_file: " + password + "\n"
      "    value: {name: u, help: h, type: stateset, states: [ok, bad]}\n";
  const Config config = LoadServeConfig(yaml);
  ASSERT_EQ(config.collectors.size(), 1u);
  const auto& u = config.collectors[0];
  EXPECT_EQ(config.output_limit, 1ull << 30);
  EXPECT_EQ(config.max_concurrent, 2);
  EXPECT_EQ(u.timeout, std::chrono::seconds(3));
  EXPECT_EQ(u.cache_for, std::chrono::seconds(15));
  EXPECT_FALSE(u.interval.has_value());
  EXPECT_EQ(u.password, "s3cret");
  const std::vector<std::pair<std::string, std::string>> properties = {
      {"command", "/x"}, {"ID", "u"}, {"username", "a"}, {"args", "80"}};
  EXPECT_EQ(u.properties, properties);
  const std::string json =
      R"({"evaluation_timeout": "3s", "collectors": [{"name": "u",
      "kind": "udm", "on_scrape": {"cache_for": "15s"},
      "properties": {"command": "/x", "ID": "u", "username": "a", "args": "80"},
      "password_file": ")" + password + R"(",
      "value": {"name": "u", "help": "h", "type": "stateset",
                "states": ["ok", "bad"]}}]})";
  const Config from_json = LoadServeConfig(json);
  ASSERT_EQ(from_json.collectors.size(), 1u);
  EXPECT_TRUE(SameDefinition(u, from_json.collectors[0]));
  auto changed = u;
  changed.udm_value->states = {"ok", "worse"};
  EXPECT_FALSE(SameDefinition(u, changed));
}

TEST(ServeConfigTest, CredentialsComeFromTheServiceDirectoryOnly) {
  const std::string directory = ServeTempPath("credentials");
  mkdir(directory.c_str(), 0700);
  WriteServeFile("credentials/pw", "from-manager\n\n");
  const std::string text =
      "collectors:\n  - name: c\n    kind: os\n    interval: 1s\n"
      "    properties: {command: uptime}\n    password_credential: NAME\n"
      "    regex: 'x'\n    metrics: [{name: v, help: h, value: {column: 0}}]\n";
  unsetenv("CREDENTIALS_DIRECTORY");
  EXPECT_EQ(ConfigProblems(std::regex_replace(text, std::regex("NAME"), "pw")),
            Lines{"F:6:26: password_credential needs $CREDENTIALS_DIRECTORY, "
                  "which systemd's LoadCredential= sets; started by hand, "
                  "use password_file"});
  setenv("CREDENTIALS_DIRECTORY", directory.c_str(), 1);
  EXPECT_EQ(ConfigProblems(std::regex_replace(text, std::regex("NAME"), "../pw")),
            Lines{"F:6:26: invalid credential name '../pw'"});
  const Config config =
      LoadServeConfig(std::regex_replace(text, std::regex("NAME"), "pw"));
  unsetenv("CREDENTIALS_DIRECTORY");
  ASSERT_EQ(config.collectors.size(), 1u);
  EXPECT_EQ(config.collectors[0].password, "from-manager\n");
}

TEST(ServeConfigTest, DurationsAndSizes) {
  using fetchlet::serve::ParseDuration;
  using fetchlet::serve::ParseSize;
  const struct {
    const char* text;
    int64_t ms;  // -1: not a duration
  } durations[] = {{"500ms", 500}, {"10s", 10000}, {"5m", 300000},
                   {"1h", 3600000}, {"0s", 0},      {"10", -1},
                   {"1.5s", -1},    {"-1s", -1},    {"10 s", -1},
                   {"s", -1},       {"1d", -1},     {"99999999999h", -1}};
  for (const auto& d : durations) {
    const auto parsed = ParseDuration(d.text);
    EXPECT_EQ(parsed ? parsed->count() : -1, d.ms) << d.text;
  }
  const struct {
    const char* text;
    std::optional<uint64_t> bytes;
  } sizes[] = {{"0", 0},
               {"4096", 4096},
               {"64MiB", 64ull << 20},
               {"1GiB", 1ull << 30},
               {"2KiB", 2048},
               {"64MB", std::nullopt},
               {"MiB", std::nullopt},
               {"17179869184GiB", std::nullopt}};
  for (const auto& s : sizes) EXPECT_EQ(ParseSize(s.text), s.bytes) << s.text;
}

// Limits: the file's defaults, a collector's own in their place, and a
// configuration error where this host cannot hold them (no writable cgroup
// v2 with the controllers), never a limit silently dropped.
TEST(ServeConfigTest, LimitsInheritFromTheTopOrFailTheLoad) {
  const std::string mine = "    limits: {pids: 64, cpu: 0.5}\n";
  const struct {
    std::string text;
    qvehost::RunLimits limits;  // of collector c, when the file loads
    std::string where;          // of the limits that apply
  } cases[] = {
      {"limits: {memory: 256MiB}\n" + std::string(kGood),
       {256u << 20, 0, 0}, "F:1:9"},
      {"limits: {memory: 256MiB, pids: 8}\n" + WithCollector(mine),
       {256u << 20, 64, 0.5}, "F:9:13"},
      {WithCollector(mine), {0, 64, 0.5}, "F:8:13"},
      {kGood, {}, ""},
  };
  for (const auto& c : cases) {
    const std::string why = qvehost::RunLimitsError(c.limits);
    const Lines problems = ConfigProblems(c.text);
    if (why.empty()) {
      EXPECT_TRUE(problems.empty()) << c.text;
      continue;
    }
    ASSERT_EQ(problems.size(), 1u) << c.text;
    EXPECT_EQ(problems[0].substr(0, problems[0].find(": ")), c.where)
        << problems[0];
    EXPECT_NE(problems[0].find("limits: " + why), std::string::npos)
        << problems[0];
  }
  const std::pair<std::string, std::string> broken[] = {
      {"    limits: {cpu: 0}\n",
       "F:8:19: 'cpu' must be above 0 (a share of a core)"},
      {"    limits: {memory: lots}\n", "F:8:22: 'memory' must be a size"},
      {"    limits: {disk: 1}\n", "F:8:14: unknown key 'disk' in limits"},
  };
  for (const auto& [more, expected] : broken) {
    const Lines problems = ConfigProblems(WithCollector(more));
    ASSERT_FALSE(problems.empty()) << more;
    EXPECT_EQ(problems[0].substr(0, expected.size()), expected) << problems[0];
  }
}

}  // namespace
}  // namespace qvetest
