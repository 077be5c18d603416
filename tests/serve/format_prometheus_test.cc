// format: prometheus: what a script's text gives Prometheus, and what is
// dropped and counted when the text breaks the rules.
#include <gtest/gtest.h>

#include "format_test_support.h"
#include "serve/format_prometheus.h"

namespace qvetest {
namespace {

using fetchlet::serve::ParsePrometheus;
using fetchlet::serve::Parsed;
using fetchlet::serve::PrometheusOptions;
using Lines = std::vector<std::string>;

// Help of a family that the text gives none; a macro, so that it joins
// the literals around it.
#define NO_HELP "Read from the command's output."

struct Case {
  std::string name;
  std::string input;
  std::string exposition;  // 0.0.4, as rendered
  uint64_t parse = 0;
  uint64_t duplicate = 0;
  Lines notes;
};

const std::vector<Case> kCases = {
    {"text_gauge_counter_timestamp",
     "# HELP jobs_total Jobs run.\n# TYPE jobs_total counter\n"
     "jobs_total{queue=\"a\"} 3 1700000000000\n"
     "# TYPE temp_celsius gauge\ntemp_celsius 21.5\n",
     "# HELP jobs_total Jobs run.\n# TYPE jobs_total counter\n"
     "jobs_total{queue=\"a\"} 3\n"
     "# HELP temp_celsius Read from the command's output.\n# TYPE temp_celsius gauge\ntemp_celsius 21.5\n",
     0, 0, {"1 timestamps dropped: a sample's time is the scrape's"}},
    {"openmetrics_types",
     "# TYPE jobs counter\n# HELP jobs Jobs \\\"run\\\".\n"
     "jobs_total 3 # {trace=\"x\"} 1 1.5\njobs_created 1.7e9\n"
     "# TYPE build info\nbuild_info{version=\"1\"} 1\n"
     "# TYPE mode stateset\nmode{mode=\"a\"} 1\nmode{mode=\"b\"} 0\n"
     "# TYPE size_bytes gauge\n# UNIT size_bytes bytes\nsize_bytes 7\n"
     "# EOF\n",
     "# HELP jobs_total Jobs \"run\".\n# TYPE jobs_total counter\n"
     "jobs_total 3\n"
     "# HELP build_info " NO_HELP "\n# TYPE build_info gauge\n"
     "build_info{version=\"1\"} 1\n"
     "# HELP mode " NO_HELP "\n# TYPE mode gauge\nmode{mode=\"a\"} 1\nmode{mode=\"b\"} 0\n"
     "# HELP size_bytes " NO_HELP "\n# TYPE size_bytes gauge\nsize_bytes 7\n",
     0, 0, {"1 _created samples dropped"}},
    {"histogram_and_summary_whole",
     "# TYPE rt histogram\nrt_bucket{le=\"0.5\"} 1\nrt_bucket{le=\"+Inf\"} 2\n"
     "rt_sum 0.7\nrt_count 2\n"
     "# TYPE q summary\nq{quantile=\"0.9\"} 4\nq_sum 9\nq_count 3\n",
     "# HELP rt " NO_HELP "\n# TYPE rt histogram\nrt_bucket{le=\"0.5\"} 1\n"
     "rt_bucket{le=\"+Inf\"} 2\nrt_sum 0.7\nrt_count 2\n"
     "# HELP q " NO_HELP "\n# TYPE q summary\nq{quantile=\"0.9\"} 4\nq_sum 9\nq_count 3\n",
     0, 0, {}},
    {"untyped", "a{x=\"1\",} 1\na{x=\"2\"} NaN\n",
     "# HELP a " NO_HELP "\n# TYPE a untyped\na{x=\"1\"} 1\na{x=\"2\"} NaN\n", 0, 0, {}},
    {"family_printed_twice", "a 1\nb 2\n# TYPE a gauge\na{x=\"1\"} 3\n",
     "# HELP a " NO_HELP "\n# TYPE a untyped\na 1\n# HELP b " NO_HELP "\n# TYPE b untyped\nb 2\n", 0,
     1, {"family a printed twice: family dropped"}},
    {"bad_type_line", "# TYPE a gaugy\na 1\nb 2\n",
     "# HELP b " NO_HELP "\n# TYPE b untyped\nb 2\n", 1, 0,
     {"unknown type 'gaugy' of a: family dropped"}},
    {"type_of_the_other_format", "# TYPE a untyped\na 1\n# EOF\n", "", 1, 0,
     {"unknown type 'untyped' of a: family dropped"}},
    {"duplicate_series", "a{x=\"1\"} 1\na{x=\"1\"} 2\n",
     "# HELP a " NO_HELP "\n# TYPE a untyped\na{x=\"1\"} 1\n", 0, 1,
     {"line 2 dropped: series a seen before"}},
    {"duplicate_series_labels_in_another_order",
     "a{x=\"1\",y=\"2\"} 1\na{y=\"2\",x=\"1\"} 2\na{y=\"1\",x=\"2\"} 3\n",
     "# HELP a " NO_HELP "\n# TYPE a untyped\na{x=\"1\",y=\"2\"} 1\na{y=\"1\",x=\"2\"} 3\n",
     0, 1, {"line 2 dropped: series a seen before"}},
    {"invalid_utf8", "a{x=\"\xC3\x28\"} 1\nb 1\n",
     "# HELP b " NO_HELP "\n# TYPE b untyped\nb 1\n", 1, 0,
     {"line 1 dropped: invalid UTF-8"}},
    {"help_after_samples", "a 1\n# HELP a late\n",
     "# HELP a " NO_HELP "\n# TYPE a untyped\na 1\n", 1, 0,
     {"line 2 dropped: # HELP a after its samples"}},
    {"counter_without_total", "# TYPE a counter\na 1\n", "", 1, 0,
     {"line 2 dropped: sample a does not fit its type"}},
    {"bad_lines",
     "a:b 1\nc{d=1} 1\nc{__x=\"1\"} 1\nc{d=\"\\q\"} 1\nc 1 2 3\nc one\n"
     "c{d=\"1\",d=\"2\"} 1\nc 1 # {} 1\n",
     "", 8, 0,
     {"line 1 dropped: no value", "line 2 dropped: unquoted label value",
      "line 3 dropped: label name '__x' is reserved",
      "line 4 dropped: invalid escape \\q in a label value",
      "line 5 dropped: text after the timestamp",
      "line 6 dropped: invalid value 'one'",
      "line 7 dropped: label d given twice",
      "line 8 dropped: an exemplar outside OpenMetrics"}},
    {"bucket_without_le", "# TYPE h histogram\nh_bucket 1\nh_count 1\n",
     "# HELP h " NO_HELP "\n# TYPE h histogram\nh_count 1\n", 1, 0,
     {"line 2 dropped: a bucket without a valid le"}},
    {"sample_names_clash", "# TYPE s summary\ns_count 1\ns_sum 1\ns_count{a=\"1\"} 2\n"
     "# EOF\n",
     "# HELP s " NO_HELP "\n# TYPE s summary\ns_count 1\ns_sum 1\ns_count{a=\"1\"} 2\n", 0,
     0, {}},
    {"later_family_claims_a_name", "x_count 1\n# TYPE x summary\nx_sum 2\n",
     "# HELP x_count " NO_HELP "\n# TYPE x_count untyped\nx_count 1\n", 0, 1,
     {"family x clashes with another's x_count: family dropped"}},
    {"program_names", "fetchlet_collector_up 1\nprocess_open_fds 3\n", "", 0, 2,
     {"family fetchlet_collector_up is the program's own: family dropped",
      "family process_open_fds is the program's own: family dropped"}},
    {"after_eof", "a 1\n# EOF\nb 2\n", "# HELP a " NO_HELP "\n# TYPE a untyped\na 1\n", 1,
     0, {"line 3 dropped: after # EOF"}},
};

class PrometheusFormat : public testing::TestWithParam<Case> {};

TEST_P(PrometheusFormat, RendersAndCounts) {
  const Case& c = GetParam();
  const Parsed parsed = ParsePrometheus(c.input, PrometheusOptions{});
  EXPECT_EQ(Rendered(parsed.families), c.exposition);
  EXPECT_EQ(parsed.parse, c.parse);
  EXPECT_EQ(parsed.duplicate, c.duplicate);
  EXPECT_EQ(parsed.notes, c.notes);
  EXPECT_EQ(parsed.failure, "");
}

INSTANTIATE_TEST_SUITE_P(Texts, PrometheusFormat, testing::ValuesIn(kCases),
                         [](const auto& p) { return p.param.name; });

TEST(PrometheusFormatOptions, PrefixAndLabels) {
  PrometheusOptions options{"app_", {{"site", "b"}}};
  const Parsed parsed = ParsePrometheus(
      "# TYPE jobs_total counter\njobs_total{q=\"1\"} 2\n"
      "used_bytes 3\nfree{site=\"a\"} 1\n# TYPE m stateset\nm{m=\"on\"} 1\n# EOF\n",
      options);
  EXPECT_EQ(RenderedSamples(parsed.families),
            (Lines{"app_jobs_total{q=\"1\",site=\"b\"} 2", "app_used_bytes{site=\"b\"} 3",
                   "app_m{app_m=\"on\",site=\"b\"} 1"}));
  EXPECT_EQ(parsed.parse, 1u);
  EXPECT_EQ(parsed.duplicate, 0u);
  EXPECT_EQ(parsed.notes, (Lines{"line 4 dropped: label site is the collector's"}));
}

// Many series, then families printed 10,000 times (one with a bad type):
// each later block counted once, the notes capped.
TEST(PrometheusFormatHostile, CountsWithoutGrowingTheNotes) {
  std::string text = "# TYPE big gauge\n";
  for (int i = 0; i < 10000; ++i) {
    text += "big{i=\"" + std::to_string(i) + "\"} " + std::to_string(i) + "\n";
  }
  for (int i = 0; i < 10000; ++i) text += "again 1\nbig 1\n# TYPE x bad\n";
  const Parsed parsed = ParsePrometheus(text, PrometheusOptions{});
  ASSERT_EQ(parsed.families.size(), 2u);
  EXPECT_EQ(parsed.families[0].samples.size(), 10000u);
  EXPECT_EQ(parsed.duplicate, 3u * 10000 - 2);
  EXPECT_EQ(parsed.parse, 1u);
  ASSERT_EQ(parsed.notes.size(), fetchlet::serve::kMaxNotes + 1);
  EXPECT_EQ(parsed.notes.back(), "29979 more notes left off");
}

}  // namespace
}  // namespace qvetest
