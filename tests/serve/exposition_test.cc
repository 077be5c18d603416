#include "serve/exposition.h"

#include <gtest/gtest.h>

#include <charconv>
#include <cmath>
#include <limits>

namespace fetchlet::serve {
namespace {

constexpr auto kText = Format::kText;
constexpr auto kOpen = Format::kOpenMetrics;

FamiliesPtr Of(Families families) {
  return std::make_shared<const Families>(std::move(families));
}

Family Make(std::string name, MetricType type, std::vector<Sample> samples,
            std::string unit = "") {
  return {std::move(name), type, std::move(unit), "Help.", std::move(samples)};
}

TEST(ExpositionTest, RendersEachTypeAsEachFormatWants) {
  const Family counter = Make("jobs_total", MetricType::kCounter, {{{}, 3}});
  const Family info = Make("os", MetricType::kInfo, {{{{"name", "Linux"}}, 1}});
  const Family stateset =
      Make("mode", MetricType::kStateset,
           {{{{"mode", "a"}}, 1}, {{{"mode", "b"}}, 0}});
  const Family unit = Make("fs_size_bytes", MetricType::kGauge, {{{}, 2}},
                           "bytes");
  const Family unknown = Make("thing", MetricType::kUnknown, {{{}, 1}});
  const Family empty = Make("nothing", MetricType::kGauge, {});
  const struct {
    const char* name;
    Family family;
    Format format;
    std::string expected;
  } cases[] = {
      {"counter 0.0.4 keeps _total", counter, kText,
       "# HELP jobs_total Help.\n# TYPE jobs_total counter\njobs_total 3\n"},
      {"counter OpenMetrics drops it from metadata", counter, kOpen,
       "# HELP jobs Help.\n# TYPE jobs counter\njobs_total 3\n# EOF\n"},
      {"info 0.0.4 is a gauge", info, kText,
       "# HELP os_info Help.\n# TYPE os_info gauge\n"
       "os_info{name=\"Linux\"} 1\n"},
      {"info OpenMetrics", info, kOpen,
       "# HELP os Help.\n# TYPE os info\nos_info{name=\"Linux\"} 1\n# EOF\n"},
      {"stateset 0.0.4 is a gauge", stateset, kText,
       "# HELP mode Help.\n# TYPE mode gauge\nmode{mode=\"a\"} 1\n"
       "mode{mode=\"b\"} 0\n"},
      {"stateset OpenMetrics", stateset, kOpen,
       "# HELP mode Help.\n# TYPE mode stateset\nmode{mode=\"a\"} 1\n"
       "mode{mode=\"b\"} 0\n# EOF\n"},
      {"unit only in OpenMetrics", unit, kOpen,
       "# HELP fs_size_bytes Help.\n# TYPE fs_size_bytes gauge\n"
       "# UNIT fs_size_bytes bytes\nfs_size_bytes 2\n# EOF\n"},
      {"no unit line in 0.0.4", unit, kText,
       "# HELP fs_size_bytes Help.\n# TYPE fs_size_bytes gauge\n"
       "fs_size_bytes 2\n"},
      {"unknown 0.0.4", unknown, kText,
       "# HELP thing Help.\n# TYPE thing untyped\nthing 1\n"},
      {"unknown OpenMetrics", unknown, kOpen,
       "# HELP thing Help.\n# TYPE thing unknown\nthing 1\n# EOF\n"},
      {"a family without samples is left out", empty, kOpen, "# EOF\n"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(RenderExposition({Of({c.family})}, c.format), c.expected)
        << c.name;
  }
}

TEST(ExpositionTest, HostileValuesNeverBreakTheLine) {
  const struct {
    const char* name;
    std::string value;
    std::string rendered;
  } cases[] = {
      {"quotes, backslashes, line feeds", "a\"b\\c\nd", "a\\\"b\\\\c\\nd"},
      {"carriage return kept", "a\rb", "a\rb"},
      {"stray continuation byte", "a\x80z", "a\xEF\xBF\xBDz"},
      {"0xFF", "\xFF", "\xEF\xBF\xBD"},
      {"truncated sequence", "\xE2\x82", "\xEF\xBF\xBD\xEF\xBF\xBD"},
      {"overlong slash", "\xC0\xAF", "\xEF\xBF\xBD\xEF\xBF\xBD"},
      {"surrogate", "\xED\xA0\x80",
       "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},
      {"beyond U+10FFFF", "\xF4\x90\x80\x80",
       "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},
      {"valid four bytes kept", "\xF0\x9F\x98\x80", "\xF0\x9F\x98\x80"},
  };
  for (const auto& c : cases) {
    std::string out;
    AppendLabelValue(c.value, &out);
    EXPECT_EQ(out, c.rendered) << c.name;
  }
}

TEST(ExpositionTest, LongLabelValuesAreCutAtACharacterBoundary) {
  // "é" is two bytes; an odd prefix puts the cap inside one.
  const std::string value = "x" + [] {
    std::string s;
    for (int i = 0; i < 600000; ++i) s += "\xC3\xA9";
    return s;
  }();
  std::string out;
  AppendLabelValue(value, &out);
  EXPECT_EQ(out.size(), kMaxLabelValueBytes - 1);
  EXPECT_EQ(out, value.substr(0, kMaxLabelValueBytes - 1));
  out.clear();
  AppendLabelValue(std::string(1 << 20, '"'), &out);
  EXPECT_EQ(out, [] {
    std::string s;
    for (size_t i = 0; i < kMaxLabelValueBytes; ++i) s += "\\\"";
    return s;
  }());
}

TEST(ExpositionTest, DuplicatesAreDroppedAndFamiliesMerged) {
  const Labels a = {{"collector", "a"}};
  const Labels b = {{"collector", "b"}};
  const Families first = {Make("up", MetricType::kGauge, {{a, 1}, {a, 2}}),
                          Make("other", MetricType::kGauge, {{{}, 5}})};
  const Families second = {Make("up", MetricType::kGauge, {{b, 0}, {a, 3}})};
  std::string out;
  EXPECT_EQ(AppendFamilies({&first, &second}, kText, &out), 2u);
  EXPECT_EQ(out,
            "# HELP up Help.\n# TYPE up gauge\nup{collector=\"a\"} 1\n"
            "up{collector=\"b\"} 0\n# HELP other Help.\n# TYPE other gauge\n"
            "other 5\n");
}

TEST(ExpositionTest, HelpIsEscapedAsEachFormatWants) {
  Family family = Make("g", MetricType::kGauge, {{{}, 1}});
  family.help = "a \"b\" c\\d\ne\xFF";
  EXPECT_EQ(RenderExposition({Of({family})}, kText),
            "# HELP g a \"b\" c\\\\d\\ne\xEF\xBF\xBD\n# TYPE g gauge\ng 1\n");
  EXPECT_EQ(RenderExposition({Of({family})}, kOpen),
            "# HELP g a \\\"b\\\" c\\\\d\\ne\xEF\xBF\xBD\n# TYPE g gauge\n"
            "g 1\n# EOF\n");
}

TEST(ExpositionTest, NumbersAreShortestAndReadBackTheSame) {
  const struct {
    double value;
    const char* text;
  } cases[] = {
      {1, "1"},
      {0.1, "0.1"},
      {-0.0, "-0"},
      {1e21, "1e+21"},
      {270553174016, "270553174016"},
      {1.0 / 3, "0.3333333333333333"},
      {std::numeric_limits<double>::infinity(), "+Inf"},
      {-std::numeric_limits<double>::infinity(), "-Inf"},
      {std::numeric_limits<double>::quiet_NaN(), "NaN"},
      {std::numeric_limits<double>::denorm_min(), "5e-324"},
  };
  for (const auto& c : cases) {
    std::string out;
    AppendNumber(c.value, &out);
    EXPECT_EQ(out, c.text);
    if (!std::isfinite(c.value)) continue;
    double back = 0;
    std::from_chars(out.data(), out.data() + out.size(), back);
    EXPECT_EQ(back, c.value) << out;
  }
}

}  // namespace
}  // namespace fetchlet::serve
