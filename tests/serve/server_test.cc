#include "serve/server.h"

#include <httplib.h>
#include <gtest/gtest.h>

#include <atomic>

#include "tests/serve/serve_runtime_support.h"

namespace fetchlet::serve {
namespace {

using namespace std::chrono_literals;
using qvetest::WaitFor;

std::string Collector(const std::string& name, const std::string& command,
                      const std::string& interval) {
  return qvetest::OsCollector(name, command, "interval: " + interval, "1h");
}

class ServerTest : public testing::Test {
 protected:
  void Write(const std::string& text) {
    path_ = qvetest::WriteServeFile("serve.yaml", "max_concurrent: 2\njitter: 0\n" + text);
  }
  void Start() {
    server_ = std::make_unique<Server>(path_, "127.0.0.1:0",
                                       qvetest::EntryPoints);
    std::string error;
    ASSERT_TRUE(server_->Start(&error)) << error;
    client_ = std::make_unique<httplib::Client>("127.0.0.1", server_->port());
  }
  CollectorPtr Named(const std::string& name) {
    for (const CollectorPtr& c : server_->scheduler().collectors()) {
      if (c->config().name == name) return c;
    }
    return nullptr;
  }
  std::string Scrape() {
    const auto response = client_->Get("/metrics");
    return response && response->status == 200 ? response->body : "FAILED";
  }

  std::string path_;
  std::unique_ptr<Server> server_;
  std::unique_ptr<httplib::Client> client_;
};

TEST_F(ServerTest, ReloadKeepsUnchangedCollectorsAndEndsRemovedOnes) {
  const std::string marker = qvetest::UniqueSleep(20);
  const std::string keep = Collector("keep", "/bin/echo 4", "1h");
  Write("collectors:\n" + keep +
        Collector("gone", "/bin/sleep " + marker, "1h"));
  Start();
  ASSERT_TRUE(WaitFor([&] {
    return Named("keep")->snapshot()->generation == 1 &&
           qvetest::ProcessesWith(marker) == 1;
  }, 5s));
  const CollectorPtr kept = Named("keep");
  const struct {
    const char* name;
    std::string file;
    bool applied;
    const char* reload_line;
  } steps[] = {
      {"broken", "collectors: [", false,
       "fetchlet_config_last_reload_successful 0\n"},
      {"unknown key", "collectors:\n" + keep + "    colour: red\n", false,
       "fetchlet_config_last_reload_successful 0\n"},
      {"valid", "collectors:\n" + keep + Collector("fresh", "/bin/echo 5", "1h"),
       true, "fetchlet_config_last_reload_successful 1\n"},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(step.name);
    Write(step.file);
    EXPECT_EQ(server_->Reload(), step.applied);
    EXPECT_NE(Scrape().find(step.reload_line), std::string::npos);
  }
  EXPECT_EQ(Named("keep"), kept);
  EXPECT_EQ(kept->snapshot()->generation, 1u);
  EXPECT_EQ(Named("gone"), nullptr);
  EXPECT_TRUE(WaitFor([&] { return qvetest::ProcessesWith(marker) == 0; }, 4s));
  ASSERT_TRUE(WaitFor([&] { return Scrape().find("fresh_value 5\n") !=
                                   std::string::npos; }, 5s));
  const std::string body = Scrape();
  EXPECT_NE(body.find("keep_value 4\n"), std::string::npos);
  EXPECT_EQ(body.find("gone"), std::string::npos);
  server_->Stop();
}

TEST_F(ServerTest, TwentyReloadsUnderScrapesFailNone) {
  const std::string a = "collectors:\n" + Collector("a", "/bin/echo 1", "100ms");
  const std::string b = a + Collector("b", "/bin/echo 2", "200ms");
  Write(a);
  Start();
  // Until its first run a collector has no up sample.
  ASSERT_TRUE(qvetest::WaitFor(
      [&] { return Named("a")->snapshot()->generation > 0; }, 10s));
  std::atomic<bool> done{false};
  std::atomic<int> scrapes{0};
  std::atomic<int> failed{0};
  std::thread scraper([&] {
    httplib::Client client("127.0.0.1", server_->port());
    client.set_keep_alive(true);
    while (!done) {
      const auto response = client.Get("/metrics");
      const bool good = response && response->status == 200 &&
                        response->body.find("fetchlet_collector_up{collector=\"a\"}") !=
                            std::string::npos;
      failed += good ? 0 : 1;
      ++scrapes;
      std::this_thread::sleep_for(100ms);
    }
  });
  for (int i = 0; i < 20; ++i) {
    Write(i % 2 == 0 ? b : a);
    EXPECT_TRUE(server_->Reload());
    std::this_thread::sleep_for(100ms);
  }
  done = true;
  scraper.join();
  server_->Stop();
  EXPECT_GE(scrapes.load(), 10);
  EXPECT_EQ(failed.load(), 0);
}

TEST_F(ServerTest, RoutesAnswerInTheNegotiatedFormatAndEncoding) {
  Write("collectors:\n" + Collector("c", "/bin/echo 3", "1h"));
  Start();
  ASSERT_TRUE(WaitFor([&] { return Named("c")->snapshot()->generation == 1; }, 5s));
  const struct {
    const char* name;
    httplib::Headers headers;
    const char* type;
    bool gzip;
    const char* ending;
  } cases[] = {
      {"plain", {}, "text/plain; version=0.0.4; charset=utf-8", false,
       "process_open_fds"},
      {"OpenMetrics gzip",
       {{"Accept", "application/openmetrics-text;version=1.0.0"},
        {"Accept-Encoding", "gzip"}},
       "application/openmetrics-text; version=1.0.0; charset=utf-8", true,
       "# EOF\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto response = client_->Get("/metrics", c.headers);
    ASSERT_TRUE(response);
    EXPECT_EQ(response->get_header_value("Content-Type"), c.type);
    EXPECT_EQ(response->get_header_value("Content-Encoding"),
              c.gzip ? "gzip" : "");
    // The client inflates the body: it fails on a broken one.
    EXPECT_NE(response->body.find("c_value 3\n"), std::string::npos);
    EXPECT_NE(response->body.find(c.ending), std::string::npos);
  }
  const auto health = client_->Get("/healthz");
  ASSERT_TRUE(health);
  EXPECT_EQ(health->body, "ok\n");
  const auto page = client_->Get("/");
  ASSERT_TRUE(page);
  EXPECT_NE(page->body.find("<tr><td>c</td><td>every 3600s</td><td>up</td>"),
            std::string::npos);
  server_->Stop();
}

}  // namespace
}  // namespace fetchlet::serve
