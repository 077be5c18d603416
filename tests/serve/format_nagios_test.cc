// format: nagios: state, performance data in base units and thresholds as
// series; and fetchlet-exit-status, which carries the exit status.
#include <gtest/gtest.h>

#include "format_test_support.h"
#include "serve/format_nagios.h"
#include "serve_test_support.h"

namespace qvetest {
namespace {

using fetchlet::serve::NagiosOptions;
using fetchlet::serve::ParseNagios;
using fetchlet::serve::ParseRange;
using fetchlet::serve::Parsed;
using Lines = std::vector<std::string>;

struct Case {
  std::string name;
  std::string output;  // with the status line
  Lines samples;       // after the four state lines and the exit status
  std::string message;
  uint64_t parse = 0;
  uint64_t duplicate = 0;
};

Lines State(int state, int status) {
  const char* names[] = {"ok", "warning", "critical", "unknown"};
  Lines lines;
  for (int i = 0; i < 4; ++i) {
    lines.push_back(std::string("p_state{p_state=\"") + names[i] + "\"} " +
                    (i == state ? "1" : "0"));
  }
  lines.push_back("p_exit_status " + std::to_string(status));
  return lines;
}

const std::vector<Case> kCases = {
    {"units_in_base_units",
     "OK - fine | time=5ms;100;200;0; used=50%;80;90 size=2KB n=10c 'x y'=3ops\n"
     "fetchlet-exit-status 0\n",
     {"p_time_seconds 0.005",
      "p_time_threshold_seconds{threshold=\"warning\",bound=\"lower\",range=\"outside\"} 0",
      "p_time_threshold_seconds{threshold=\"warning\",bound=\"upper\",range=\"outside\"} 0.1",
      "p_time_threshold_seconds{threshold=\"critical\",bound=\"lower\",range=\"outside\"} 0",
      "p_time_threshold_seconds{threshold=\"critical\",bound=\"upper\",range=\"outside\"} 0.2",
      "p_time_threshold_seconds{threshold=\"min\"} 0",
      "p_used_ratio 0.5",
      "p_used_threshold_ratio{threshold=\"warning\",bound=\"lower\",range=\"outside\"} 0",
      "p_used_threshold_ratio{threshold=\"warning\",bound=\"upper\",range=\"outside\"} 0.8",
      "p_used_threshold_ratio{threshold=\"critical\",bound=\"lower\",range=\"outside\"} 0",
      "p_used_threshold_ratio{threshold=\"critical\",bound=\"upper\",range=\"outside\"} 0.9",
      "p_size_bytes 2048", "p_n_total 10", "p_x_y_ops 3"},
     "OK - fine"},
    {"ranges",
     "WARNING - x|a=1;10:;~:10 b=2;@10:20;:5\nfetchlet-exit-status 1\n",
     {"p_a 1",
      "p_a_threshold{threshold=\"warning\",bound=\"lower\",range=\"outside\"} 10",
      "p_a_threshold{threshold=\"warning\",bound=\"upper\",range=\"outside\"} +Inf",
      "p_a_threshold{threshold=\"critical\",bound=\"lower\",range=\"outside\"} -Inf",
      "p_a_threshold{threshold=\"critical\",bound=\"upper\",range=\"outside\"} 10",
      "p_b 2",
      "p_b_threshold{threshold=\"warning\",bound=\"lower\",range=\"inside\"} 10",
      "p_b_threshold{threshold=\"warning\",bound=\"upper\",range=\"inside\"} 20",
      "p_b_threshold{threshold=\"critical\",bound=\"lower\",range=\"outside\"} 0",
      "p_b_threshold{threshold=\"critical\",bound=\"upper\",range=\"outside\"} 5"},
     "WARNING - x"},
    {"names_never_collide",
     "OK|'a b'=1 a_b=2 'it''s'=3 state=4 a_threshold=5 a=6;1 1x=7\n"
     "fetchlet-exit-status 0\n",
     {"p_a_b 1", "p_a_b_2 2", "p_it_s 3", "p_state_2 4", "p_a_threshold 5",
      "p_a_2 6",
      "p_a_2_threshold{threshold=\"warning\",bound=\"lower\",range=\"outside\"} 0",
      "p_a_2_threshold{threshold=\"warning\",bound=\"upper\",range=\"outside\"} 1",
      "p__1x 7"},
     "OK"},
    {"long_text_perfdata_and_bad_items",
     "CRITICAL - down | a=1\nline two\nline three | b=2;x c=U;1\nd=1;2;3;4;5;6 "
     "a=9 e f=1.2.3\nfetchlet-exit-status 2\n",
     {"p_a 1", "p_c_threshold{threshold=\"warning\",bound=\"lower\",range=\"outside\"} 0",
      "p_c_threshold{threshold=\"warning\",bound=\"upper\",range=\"outside\"} 1"},
     "CRITICAL - down", 4, 1},
    {"stderr_after_the_status",
     "OK | a=1\nfetchlet-exit-status 0\nwarning: x | b=2\nfetchlet-exit-status 2x\n",
     {"p_a 1"}, "OK"},
    {"signal_is_unknown", "killed\nfetchlet-exit-status 137", {}, "killed"},
};

class NagiosFormat : public testing::TestWithParam<Case> {};

TEST_P(NagiosFormat, SamplesAndCounts) {
  const Case& c = GetParam();
  const Parsed parsed = ParseNagios(c.output, NagiosOptions{"p"});
  const size_t at = c.output.find("fetchlet-exit-status ");
  const int status = std::stoi(c.output.substr(at + 21));
  Lines expected = State(status <= 3 ? status : 3, status);
  expected.insert(expected.end(), c.samples.begin(), c.samples.end());
  EXPECT_EQ(RenderedSamples(parsed.families), expected);
  EXPECT_EQ(parsed.message, c.message);
  EXPECT_EQ(parsed.parse, c.parse) << testing::PrintToString(parsed.notes);
  EXPECT_EQ(parsed.duplicate, c.duplicate);
  EXPECT_EQ(parsed.failure, "");
}

INSTANTIATE_TEST_SUITE_P(Outputs, NagiosFormat, testing::ValuesIn(kCases),
                         [](const auto& p) { return p.param.name; });

TEST(NagiosFormatStatus, WithoutTheStatusLineTheOutputFails) {
  for (const char* output : {"OK - x | a=1\n", "", "OK\nfetchlet-exit-status x\n",
                             "OK\nfetchlet-exit-status -1\n"}) {
    const Parsed parsed = ParseNagios(output, NagiosOptions{"p"});
    EXPECT_EQ(parsed.failure, "parse") << output;
    EXPECT_TRUE(parsed.families.empty());
    EXPECT_EQ(parsed.notes, (Lines{"no exit status on the last line: run the "
                                   "plug-in through fetchlet-exit-status"}));
  }
}

TEST(NagiosFormatRange, Bounds) {
  struct Range {
    const char* text;
    bool valid;
    double lower, upper;
    bool inside;
  };
  // "10", "10:", "~:10" and "@10:20" as thresholds: NagiosFormat.
  for (const Range& r : std::vector<Range>{{"10:20", true, 10, 20, false},
                                           {"-5:-1", true, -5, -1, false},
                                           {"20:10", false, 0, 0, false},
                                           {"", false, 0, 0, false},
                                           {"1:2:3", false, 0, 0, false},
                                           {"@", false, 0, 0, false}}) {
    const auto range = ParseRange(r.text);
    ASSERT_EQ(range.has_value(), r.valid) << r.text;
    if (!range) continue;
    EXPECT_EQ(range->lower, r.lower) << r.text;
    EXPECT_EQ(range->upper, r.upper) << r.text;
    EXPECT_EQ(range->inside, r.inside) << r.text;
  }
}

// A plug-in with 10,000 perfdata labels, half of them twice: each kept or
// counted, no name given out twice.
TEST(NagiosFormatHostile, TenThousandLabels) {
  std::string output = "OK |";
  for (int i = 0; i < 10000; ++i) output += " 'l" + std::to_string(i % 5000) + "'=1;2";
  output += "\nfetchlet-exit-status 0\n";
  const Parsed parsed = ParseNagios(output, NagiosOptions{"p"});
  EXPECT_EQ(parsed.families.size(), 2u + 2 * 5000);
  EXPECT_EQ(parsed.duplicate, 5000u);
  std::set<std::string> names;
  for (const auto& family : parsed.families) names.insert(family.name);
  EXPECT_EQ(names.size(), parsed.families.size());
}

struct HelperRun {
  std::string name;
  std::vector<std::string> argv;
  std::string out;
  int status;
};

// The helper passes the output on whole and appends the status, also when
// the plug-in ends without a line feed, dies of a signal or cannot start.
TEST(ExitStatusHelper, AppendsTheStatus) {
  const std::vector<HelperRun> runs = {
      {"status", {"/bin/sh", "-c", "echo 'OK | a=1'; exit 2"},
       "OK | a=1\nfetchlet-exit-status 2\n", 0},
      {"no_line_feed", {"/bin/printf", "x"}, "x\nfetchlet-exit-status 0\n", 0},
      {"no_output", {"/bin/true"}, "fetchlet-exit-status 0\n", 0},
      {"signal", {"/bin/sh", "-c", "kill -9 $$"}, "fetchlet-exit-status 137\n", 0},
      {"missing", {"/nonexistent/check"}, "fetchlet-exit-status 127\n", 0},
      {"not_a_path", {"sh", "-c", "true"}, "", 2},
      {"none", {}, "", 2},
  };
  for (const HelperRun& run : runs) {
    std::vector<std::string> argv = run.argv;
    argv.insert(argv.begin(), QVE_EXIT_STATUS_BIN);
    const Ran ran = RunProgram(argv);
    EXPECT_EQ(ran.status, run.status) << run.name;
    EXPECT_EQ(ran.out, run.out) << run.name;
  }
}

}  // namespace
}  // namespace qvetest
