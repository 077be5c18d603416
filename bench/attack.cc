// The listener under attack: scrapes on a kept-alive connection, quiet and
// then beside 64 drip clients and 1,000 idle connections; serve's peak
// memory while clients flood it with bodies and request lines; and the
// password guesses an unprivileged caller gets through the launcher.
#include <arpa/inet.h>
#include <fcntl.h>
#include <httplib.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "bench/attack_guesses.h"
#include "bench/cached_collector.h"
#include "serve/http.h"
#include "serve/http_server.h"

namespace {

using namespace fetchlet::serve;
using namespace std::chrono_literals;

// serve's listener in a child process of its own, so that its memory is
// its own; its port comes back through a pipe.
pid_t StartServe(int* port) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) std::abort();
  const pid_t pid = fork();
  if (pid == 0) {
    Scheduler scheduler(1, 0);
    scheduler.SetCollectors({CachedCollector(1000)});
    std::atomic<bool> reload_ok{true};
    std::string error;
    auto server = MakeListener(WebConfig{}, ConnectionBudget(1), &error);
    AddRoutes(*server, scheduler, reload_ok);
    if (!server->Bind("127.0.0.1", 0, &error)) _exit(1);
    const int bound = server->port();
    if (write(fds[1], &bound, sizeof bound) != sizeof bound) _exit(1);
    server->Run();
    _exit(0);
  }
  close(fds[1]);
  if (read(fds[0], port, sizeof *port) != sizeof *port) std::abort();
  close(fds[0]);
  return pid;
}

int Connect(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  return fd;
}

void Scrape(int port, int scrapes, std::vector<double>* times) {
  httplib::Client client("127.0.0.1", port);
  client.set_keep_alive(true);
  for (int i = 0; i < scrapes; ++i) {
    const auto start = std::chrono::steady_clock::now();
    const auto response = client.Get("/metrics");
    if (!response || response->status != 200) std::abort();
    times->push_back(std::chrono::duration<double, std::milli>(
                         std::chrono::steady_clock::now() - start)
                         .count());
  }
}

double P99(std::vector<double> times) {
  std::sort(times.begin(), times.end());
  return times[times.size() * 99 / 100];
}

void ScrapeUnderAttack(int port, int scrapes, std::vector<double>* times) {
  std::vector<int> idle, drips;
  for (int i = 0; i < 1000; ++i) idle.push_back(Connect(port));
  for (int i = 0; i < 64; ++i) drips.push_back(Connect(port));
  std::atomic<bool> done{false};
  std::thread dripper([&] {
    for (int n = 0; !done; ++n) {
      for (int fd : drips) {
        send(fd, n == 0 ? "GET /metrics HTTP/1.1\r\n" : "X", n == 0 ? 23 : 1,
             MSG_NOSIGNAL);
      }
      std::this_thread::sleep_for(100ms);
    }
  });
  std::this_thread::sleep_for(500ms);  // all accepted by now
  Scrape(port, scrapes, times);
  done = true;
  dripper.join();
  for (int fd : idle) close(fd);
  for (int fd : drips) close(fd);
}

// Eight clients announcing 1 GiB bodies and eight sending 200 MiB request
// lines, each sending until refused.
void Flood(int port) {
  std::vector<std::thread> clients;
  const std::string chunk(1 << 20, 'a');
  for (int i = 0; i < 16; ++i) {
    clients.emplace_back([&, i] {
      const int fd = Connect(port);
      const std::string head =
          i < 8 ? "POST /metrics HTTP/1.1\r\nContent-Length: 1073741824\r\n\r\n"
                : "GET /";
      send(fd, head.data(), head.size(), MSG_NOSIGNAL);
      const int chunks = i < 8 ? 1024 : 200;
      for (int c = 0; c < chunks; ++c) {
        if (send(fd, chunk.data(), chunk.size(), MSG_NOSIGNAL) <= 0) break;
      }
      close(fd);
    });
  }
  for (std::thread& client : clients) client.join();
}

double PeakRssMib(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.starts_with("VmHWM:")) return std::stod(line.substr(6)) / 1024;
  }
  return -1;
}

}  // namespace

int main() {
  rlimit files{};
  getrlimit(RLIMIT_NOFILE, &files);
  files.rlim_cur = files.rlim_max;
  setrlimit(RLIMIT_NOFILE, &files);
  int port = 0;
  const pid_t serve = StartServe(&port);
  // Rounds interleaved, so that the machine's other load falls on both.
  std::vector<double> quiet_times, attacked_times;
  for (int round = 0; round < 5; ++round) {
    Scrape(port, 100, &quiet_times);
    ScrapeUnderAttack(port, 100, &attacked_times);
  }
  const double quiet = P99(quiet_times);
  const double attacked = P99(attacked_times);
  Flood(port);
  const double rss = PeakRssMib(serve);
  kill(serve, SIGKILL);
  waitpid(serve, nullptr, 0);
  const double guesses = MeasureGuessesPerMinute();
  std::printf("scrape p99 %.3f ms quiet, %.3f ms under attack; serve peak "
              "%.1f MiB after floods; %.1f guesses a minute\n",
              quiet, attacked, rss, guesses);
  // JSON has no NaN: a figure that could not be measured is null.
  const std::string guessed =
      std::isnan(guesses) ? "null" : std::to_string(guesses);
  std::printf("{\"bench\":\"attack\",\"p99_ms_quiet\":%.3f,"
              "\"p99_ms_under_attack\":%.3f,\"ratio_p99\":%.3f,"
              "\"peak_rss_mib_flood\":%.1f,\"guesses_per_min\":%s}\n",
              quiet, attacked, attacked / quiet, rss, guessed.c_str());
}
