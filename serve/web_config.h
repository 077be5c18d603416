// The web configuration shared by Prometheus exporters (--web-config FILE),
// the part of it that fetchlet serve honours: TLS with optional client
// certificates and cipher suites, basic auth with bcrypt hashes, and a rate
// limit. Loaded strictly: every problem names file:line:column.
#ifndef FETCHLET_SERVE_WEB_CONFIG_H_
#define FETCHLET_SERVE_WEB_CONFIG_H_

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "serve/config.h"

namespace fetchlet::serve {

class HttpServer;

// The exporters' names, in order of growing demands on the client.
enum class ClientAuth {
  kNoClientCert,
  kRequestClientCert,
  kRequireAnyClientCert,
  kVerifyClientCertIfGiven,
  kRequireAndVerifyClientCert,
};

enum class TlsVersion { kTls12, kTls13 };

// Paths are absolute: relative ones in the file are resolved against the
// file's directory.
struct TlsServerConfig {
  std::string cert_file;
  std::string key_file;
  std::string client_ca_file;  // "" when no client is verified
  ClientAuth client_auth = ClientAuth::kNoClientCert;
  TlsVersion min_version = TlsVersion::kTls12;
  // The TLS 1.2 suites allowed, each as GnuTLS names its key exchange,
  // cipher and MAC ("ECDHE-RSA AES-128-GCM AEAD"), in the server's order of
  // preference; empty: forward-secret AEAD suites only.
  std::vector<std::string> cipher_suites;

  bool operator==(const TlsServerConfig&) const = default;
};

// A token bucket over every request: one more allowed each interval, at
// most burst at once. interval 0 allows all.
struct RateLimit {
  Duration interval{0};
  long long burst = 0;

  bool operator==(const RateLimit&) const = default;
};

struct WebConfig {
  std::optional<TlsServerConfig> tls;
  std::map<std::string, std::string> basic_auth_users;  // name, bcrypt hash
  RateLimit rate_limit;
};

// The configuration in path, or nullopt with every problem found (at least
// one) in *problems. Certificate and key files must be readable; whether
// they hold a matching pair is checked by MakeHttpServer.
std::optional<WebConfig> LoadWebConfig(const std::string& path,
                                       std::vector<ConfigProblem>* problems);

// A plain server when web has no TLS, else a TLS server set up with its
// certificate, key, client CA, verification, minimum version and cipher
// suites; nullptr with a reason in *error when the files do not hold a
// certificate and its key.
std::unique_ptr<HttpServer> MakeHttpServer(const WebConfig& web,
                                           std::string* error);

// Answers 429 to every request past the limit (none when interval is 0).
void LimitRate(HttpServer& server, const RateLimit& limit);

// Checks "Authorization: Basic ..." values against bcrypt hashes, one hash
// at a time in the whole process, so that guessing costs one core at most;
// when two more checks wait for it already, a pair not remembered is
// refused at once. Each pair checked, allowed or refused, is remembered
// (a bounded number of each) by a keyed digest of user, password and hash,
// never the password: a scraper does not pay the hash on every scrape, nor
// a repeated wrong guess on every try. An unknown user is checked against a
// decoy hash of the highest cost among the users, so that timing does not
// tell which users exist. Safe to call from many threads.
class BasicAuth {
 public:
  explicit BasicAuth(std::map<std::string, std::string> users);
  BasicAuth(const BasicAuth&) = delete;
  BasicAuth& operator=(const BasicAuth&) = delete;

  // True when no user is configured: every request passes.
  bool Open() const { return users_.empty(); }

  // True when the header value names a user and its password.
  bool Allows(std::string_view authorization) const;

  // How many times a bcrypt hash was computed, for tests and status.
  std::size_t HashesComputed() const;
  // The cost of the hash that unknown users are checked against.
  int DecoyCost() const;

 private:
  bool Verify(const std::string& user, const std::string& password) const;

  std::map<std::string, std::string> users_;
  std::string decoy_;
  mutable std::mutex mutex_;
  mutable std::set<std::string> allowed_;  // keyed digests
  mutable std::set<std::string> refused_;
  mutable std::size_t hashes_computed_ = 0;
};

// The users in force for each request, so that a reload can change them
// while the server runs.
using BasicAuthSource = std::function<std::shared_ptr<const BasicAuth>()>;

// Answers 401 with a Basic challenge, before routing, to every request that
// the users source gives do not allow (an open set allows all).
void RequireBasicAuth(HttpServer& server, BasicAuthSource source);

}  // namespace fetchlet::serve

#endif  // FETCHLET_SERVE_WEB_CONFIG_H_
