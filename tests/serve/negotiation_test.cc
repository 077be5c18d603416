#include "serve/negotiation.h"

#include <gtest/gtest.h>
#include <zlib.h>

namespace fetchlet::serve {
namespace {

constexpr auto kText = Format::kText;
constexpr auto kOpen = Format::kOpenMetrics;

TEST(NegotiationTest, NegotiatesByQValue) {
  const struct {
    const char* accept;
    Format format;
  } cases[] = {
      {"", kText},
      {"application/openmetrics-text; version=1.0.0", kOpen},
      {"application/openmetrics-text", kOpen},
      {"application/openmetrics-text;version=1.0.0,application/"
       "openmetrics-text;version=0.0.1;q=0.75,text/plain;version=0.0.4;q=0.5,"
       "*/*;q=0.1",
       kOpen},
      {"text/plain;q=0.9, application/openmetrics-text;q=0.5", kText},
      {"application/openmetrics-text;q=0.6, text/plain;q=0.5", kOpen},
      {"application/openmetrics-text;q=0", kText},
      {"application/openmetrics-text;version=2.0.0", kText},
      {"application/OpenMetrics-Text", kOpen},
      {"application/json", kText},
      {"*/*", kText},
      {"application/openmetrics-text;q=abc, text/plain;q=0.1", kText},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(NegotiateFormat(c.accept), c.format) << c.accept;
  }
  EXPECT_STREQ(ContentType(kOpen),
               "application/openmetrics-text; version=1.0.0; charset=utf-8");
  EXPECT_STREQ(ContentType(kText), "text/plain; version=0.0.4; charset=utf-8");
}

TEST(NegotiationTest, GzipOnlyWhenAccepted) {
  const struct {
    const char* header;
    bool gzip;
  } cases[] = {{"", false},         {"gzip", true},
               {"br, gzip", true},  {"gzip;q=0", false},
               {"*", true},         {"gzip;q=0, *", false},
               {"identity", false}, {"GZIP;q=0.5", true}};
  for (const auto& c : cases) EXPECT_EQ(AcceptsGzip(c.header), c.gzip) << c.header;
}

std::string Gunzip(const std::string& data) {
  z_stream stream{};
  inflateInit2(&stream, 15 + 16);
  std::string out(1 << 22, '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
  stream.avail_in = static_cast<uInt>(data.size());
  stream.next_out = reinterpret_cast<Bytef*>(out.data());
  stream.avail_out = static_cast<uInt>(out.size());
  const int result = inflate(&stream, Z_FINISH);
  out.resize(result == Z_STREAM_END ? stream.total_out : 0);
  inflateEnd(&stream);
  return out;
}

TEST(NegotiationTest, GzipRoundTrip) {
  std::string body;
  for (int i = 0; i < 20000; ++i) body += "m{i=\"" + std::to_string(i) + "\"} 1\n";
  for (const std::string& data : {std::string(), std::string("# EOF\n"), body}) {
    const std::string packed = Gzip(data);
    ASSERT_GE(packed.size(), 18u);  // a gzip header and trailer at least
    EXPECT_EQ(Gunzip(packed), data);
  }
}

}  // namespace
}  // namespace fetchlet::serve
