// The listener as a hostile client meets it: malformed and oversized heads,
// bodies, drips, pipelines and guessed passwords.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <string>
#include <thread>

#include "serve/http_server.h"
#include "serve/web_config.h"
#include "tests/serve/serve_wire_support.h"

namespace fetchlet::serve {
namespace {

using namespace std::chrono_literals;

// A raw connection to the listener, for what no polite client sends.
class Raw {
 public:
  // receive_buffer > 0 keeps what the kernel takes for us small.
  explicit Raw(int port, int receive_buffer = 0) {
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (receive_buffer > 0) {
      setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &receive_buffer,
                 sizeof receive_buffer);
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connected_ = connect(fd_, reinterpret_cast<sockaddr*>(&address),
                         sizeof address) == 0;
  }
  Raw(const Raw&) = delete;
  Raw& operator=(const Raw&) = delete;
  ~Raw() { close(fd_); }

  bool connected() const { return connected_; }
  // Whether the last ReadAll ended with the peer's close.
  bool closed() const { return closed_; }

  // True when the peer closed without a word within a generous bound.
  bool Closed() {
    pollfd p{fd_, POLLIN, 0};
    char byte;
    return poll(&p, 1, 20000) == 1 && recv(fd_, &byte, 1, 0) <= 0;
  }

  // Bytes sent before the peer stopped taking them.
  size_t Send(const std::string& data) {
    size_t sent = 0;
    while (sent < data.size()) {
      const ssize_t n =
          send(fd_, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
      if (n <= 0) break;
      sent += static_cast<size_t>(n);
    }
    return sent;
  }

  // Everything until the peer closes, or until nothing came for a while.
  std::string ReadAll(int quiet_ms = 20000) {
    std::string out;
    char buffer[65536];
    for (;;) {
      pollfd p{fd_, POLLIN, 0};
      if (poll(&p, 1, quiet_ms) != 1) return out;
      const ssize_t n = recv(fd_, buffer, sizeof buffer, 0);
      closed_ = n <= 0;
      if (n <= 0) return out;
      out.append(buffer, static_cast<size_t>(n));
    }
  }

 private:
  int fd_ = -1;
  bool connected_ = false;
  bool closed_ = false;
};

class ListenerTest : public testing::Test {
 protected:
  void Start(ListenerLimits limits, const WebConfig& web = {}) {
    std::string error;
    server_ = MakeHttpServer(web, &error);
    ASSERT_NE(server_, nullptr) << error;
    server_->SetLimits(limits);
    LimitRate(*server_, web.rate_limit);
    auto auth = std::make_shared<const BasicAuth>(web.basic_auth_users);
    RequireBasicAuth(*server_, [auth] { return auth; });
    server_->Get("/echo", [](const HttpRequest& request, HttpResponse& r) {
      r.Set(request.target + "\n", "text/plain");
    });
    server_->Get("/slow", [this](const HttpRequest&, HttpResponse& r) {
      released_.wait();
      r.Set("slow\n", "text/plain");
    });
    server_->Get("/big", [](const HttpRequest&, HttpResponse& r) {
      r.Set(std::string(16 << 20, 'b'), "text/plain");
    });
    ASSERT_TRUE(server_->Bind("127.0.0.1", 0, &error)) << error;
    thread_ = std::thread([this] { server_->Run(); });
  }
  void TearDown() override {
    Release();
    if (server_) server_->Stop();
    if (thread_.joinable()) thread_.join();
  }
  // Lets every request to /slow be answered.
  void Release() {
    if (!released_.valid() || release_set_) return;
    release_.set_value();
    release_set_ = true;
  }

  std::unique_ptr<HttpServer> server_;
  std::thread thread_;
  std::promise<void> release_;
  std::shared_future<void> released_ = release_.get_future().share();
  bool release_set_ = false;
};

// Each head on a connection of its own, some followed by a flood: the
// status line answering it, and the flood cut off long before it is all
// sent (the server reads a bounded head and drops a bounded tail).
TEST_F(ListenerTest, HeadsABoundedServerMustNotReadAreRefusedUnread) {
  Start({});
  std::string many = "GET /echo HTTP/1.1\r\n";
  for (int i = 0; i < 65; ++i) many += "X-" + std::to_string(i) + ": 1\r\n";
  const std::string mib(1 << 20, 'a');
  const struct {
    std::string head;
    const char* status_line;
    size_t flood_mib = 0;
  } cases[] = {
      {"GET /echo?x=1 HTTP/1.1\r\nHost: a\r\nConnection: close\r\n\r\n",
       "HTTP/1.1 200"},
      {"GET /echo HTTP/1.0\r\n\r\n", "HTTP/1.1 200"},
      {"GET /echo HTTP/1.1\r\nContent-Length: 0\r\nConnection: close\r\n\r\n",
       "HTTP/1.1 200"},
      {many + "\r\n", "HTTP/1.1 431"},
      {"GET /echo HTTP/1.1\r\nX: " + std::string(40000, 'v') + "\r\n\r\n",
       "HTTP/1.1 431"},
      {"POST /echo HTTP/1.1\r\n\r\n", "HTTP/1.1 405"},
      {"PUT /echo HTTP/1.1\r\n\r\n", "HTTP/1.1 405 Method Not Allowed\r\n"},
      {"GET /echo HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n", "HTTP/1.1 413"},
      {"POST /echo HTTP/1.1\r\nContent-Length: 1073741824\r\n\r\n",
       "HTTP/1.1 413 Content Too Large\r\n", 1024},
      {"GET /echo HTTP/1.1\r\nContent-Length: 9\r\n\r\n",
       "HTTP/1.1 413 Content Too Large\r\n", 1},
      {"GET /", "HTTP/1.1 414 URI Too Long\r\n", 200},
      {"GET /echo HTTP/2.0\r\n\r\n", "HTTP/1.1 505"},
      {"GET /echo HTTP/1.1\r\nNo colon\r\n\r\n", "HTTP/1.1 400"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.head.substr(0, 60));
    Raw raw(server_->port());
    std::string answer;
    std::thread reader([&] { answer = raw.ReadAll(2000); });
    raw.Send(c.head);
    size_t sent = 0;
    for (size_t i = 0; i < c.flood_mib; ++i) {
      const size_t n = raw.Send(mib);
      sent += n;
      if (n < mib.size()) break;
    }
    reader.join();
    EXPECT_TRUE(answer.starts_with(c.status_line)) << answer.substr(0, 200);
    EXPECT_LE(sent, std::min<size_t>(c.flood_mib, 64) << 20);
  }
}

TEST_F(ListenerTest, PipelinedRequestsAreEachAnsweredInOrder) {
  Start({});
  Raw raw(server_->port());
  raw.Send(
      "GET /echo?1 HTTP/1.1\r\n\r\nHEAD /echo?2 HTTP/1.1\r\n\r\n"
      "GET /none HTTP/1.1\r\n\r\nGET /echo?4 HTTP/1.1\r\nConnection: close\r\n"
      "\r\nGET /echo?5 HTTP/1.1\r\n\r\n");
  // Status lines and bodies in order; nothing after the one that closes.
  const std::string answers = raw.ReadAll();
  std::string seen;
  for (size_t at = 0; (at = answers.find("HTTP/1.1 ", at)) != std::string::npos;
       at += 9) {
    seen += answers.substr(at + 9, 3) + " ";
  }
  EXPECT_EQ(seen, "200 200 404 200 ") << answers;
  EXPECT_NE(answers.find("\r\n\r\n/echo?1\nHTTP/1.1 200"), std::string::npos);
  EXPECT_NE(answers.find("\r\n\r\nHTTP/1.1 404"), std::string::npos)
      << "HEAD has no body";
  EXPECT_NE(answers.find("\r\n\r\nNot Found\nHTTP/1.1 200"), std::string::npos);
  EXPECT_TRUE(answers.ends_with("\r\n\r\n/echo?4\n")) << answers;
  EXPECT_NE(answers.find("Connection: close\r\n"), std::string::npos);
}

// On a new connection and on a kept-alive one, whose head is due from its
// request line.
TEST_F(ListenerTest, ADripEndsAtTheHeadDeadlineNotPerByte) {
  ListenerLimits limits;
  limits.head_deadline = 1s;
  Start(limits);
  for (const bool kept_alive : {false, true}) {
    SCOPED_TRACE(kept_alive);
    Raw raw(server_->port());
    if (kept_alive) {
      raw.Send("GET /echo HTTP/1.1\r\n\r\n");
      ASSERT_TRUE(raw.ReadAll(500).ends_with("\r\n\r\n/echo\n"));
    }
    raw.Send("GET /echo HTTP/1.1\r\n");
    const auto start = std::chrono::steady_clock::now();
    size_t dripped = 0;
    while (raw.Send("X") == 1 &&
           std::chrono::steady_clock::now() - start < 30s) {
      ++dripped;
      std::this_thread::sleep_for(50ms);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, 30s) << dripped;
  }
}

// Handlers run beside the listener's thread: one waiting holds up no other
// client.
TEST_F(ListenerTest, ASlowAnswerHoldsUpNoOtherClient) {
  ListenerLimits limits;
  limits.workers = 2;
  Start(limits);
  Raw slow(server_->port());
  slow.Send("GET /slow HTTP/1.1\r\nConnection: close\r\n\r\n");
  Raw quick(server_->port());
  quick.Send("GET /echo HTTP/1.1\r\nConnection: close\r\n\r\n");
  EXPECT_TRUE(quick.ReadAll(5000).ends_with("\r\n\r\n/echo\n"));
  Release();
  EXPECT_TRUE(slow.ReadAll().ends_with("\r\n\r\nslow\n"));
}

TEST_F(ListenerTest, WrongPasswordsPastTheBurstAre429) {
  WebConfig web;
  web.basic_auth_users = {{"alice", qvetest::kAlice}};
  web.rate_limit = {std::chrono::minutes(1), 3};
  Start({}, web);
  const char* expected[] = {"401", "401", "401", "429", "429"};
  for (const char* status : expected) {
    Raw raw(server_->port());
    raw.Send("GET /echo HTTP/1.1\r\nAuthorization: Basic YWxpY2U6eA==\r\n"
             "Connection: close\r\n\r\n");
    EXPECT_EQ(raw.ReadAll(2000).substr(9, 3), status);
  }
}

// Past the cap, the connection idle longest makes room: a new client is
// still answered.
TEST_F(ListenerTest, TheConnectionIdleLongestMakesRoomAtTheCap) {
  ListenerLimits limits;
  limits.max_connections = 8;
  Start(limits);
  std::vector<std::unique_ptr<Raw>> idle;
  for (int i = 0; i < 20; ++i) {
    idle.push_back(std::make_unique<Raw>(server_->port()));
  }
  Raw raw(server_->port());
  raw.Send("GET /echo HTTP/1.1\r\nConnection: close\r\n\r\n");
  EXPECT_TRUE(raw.ReadAll().ends_with("\r\n\r\n/echo\n"));
  EXPECT_TRUE(idle.front()->Closed());
  EXPECT_TRUE(idle.back()->connected());
}

// Fifty clients connecting at once, before the server accepts any, all
// find room in the listen backlog rather than waiting for a retry.
TEST(ListenerBacklogTest, FiftyConnectionsAtOnceAreAllQueued) {
  std::string error;
  HttpServer server;
  ASSERT_TRUE(server.Bind("127.0.0.1", 0, &error)) << error;
  std::vector<pollfd> clients;
  for (int i = 0; i < 50; ++i) {
    const int fd =
        socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(server.port()));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    clients.push_back({fd, POLLOUT, 0});
  }
  size_t connected = 0;
  const auto give_up = std::chrono::steady_clock::now() + 20s;
  while (connected < clients.size() &&
         std::chrono::steady_clock::now() < give_up) {
    std::this_thread::sleep_for(10ms);
    poll(clients.data(), clients.size(), 0);
    connected = 0;
    for (const pollfd& client : clients) {
      connected += (client.revents & POLLOUT) != 0 ? 1 : 0;
    }
  }
  EXPECT_EQ(connected, clients.size());
  for (const pollfd& client : clients) close(client.fd);
}

// Clients that ask for large answers and never read them hold memory only
// up to a bound: the one waiting longest is dropped, a reader is served.
TEST_F(ListenerTest, ClientsThatDoNotTakeTheirAnswersAreDroppedPastABound) {
  ListenerLimits limits;
  limits.max_unsent = 40 << 20;
  Start(limits);
  std::vector<std::unique_ptr<Raw>> stalled;
  for (int i = 0; i < 3; ++i) {
    stalled.push_back(std::make_unique<Raw>(server_->port(), 4096));
    stalled.back()->Send("GET /big HTTP/1.1\r\n\r\n");
    std::this_thread::sleep_for(200ms);  // an order of arrival, not timing
  }
  Raw reader(server_->port());
  reader.Send("GET /big HTTP/1.1\r\nConnection: close\r\n\r\n");
  EXPECT_GT(reader.ReadAll().size(), 16u << 20);
  EXPECT_LT(stalled.front()->ReadAll().size(), 16u << 20);
  EXPECT_TRUE(stalled.front()->closed());
}

}  // namespace
}  // namespace fetchlet::serve
