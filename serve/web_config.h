// The web configuration shared by Prometheus exporters (--web-config FILE),
// the part of it that fetchlet serve honours: TLS with optional client
// certificates, and basic auth with bcrypt hashes. Loaded strictly: every
// problem names file:line:column.
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

namespace httplib {
class Server;
}

namespace fetchlet::serve {

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

  bool operator==(const TlsServerConfig&) const = default;
};

struct WebConfig {
  std::optional<TlsServerConfig> tls;
  std::map<std::string, std::string> basic_auth_users;  // name, bcrypt hash
};

// The configuration in path, or nullopt with every problem found (at least
// one) in *problems. Certificate and key files must be readable; whether
// they hold a matching pair is checked by MakeHttpServer.
std::optional<WebConfig> LoadWebConfig(const std::string& path,
                                       std::vector<ConfigProblem>* problems);

// A plain server when web has no TLS, else a TLS server set up with its
// certificate, key, client CA, verification and minimum version; nullptr
// with a reason in *error when the files do not make a TLS context.
std::unique_ptr<httplib::Server> MakeHttpServer(const WebConfig& web,
                                                std::string* error);

// Checks "Authorization: Basic ..." values against bcrypt hashes. A pair
// that verified once is remembered by a digest of user, password and hash,
// so that a scraper does not pay the hash on every scrape; a pair that
// failed is never remembered. Safe to call from many threads.
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

 private:
  bool Verify(const std::string& user, const std::string& password) const;

  std::map<std::string, std::string> users_;
  mutable std::mutex mutex_;
  mutable std::set<std::string> verified_;  // digests of verified pairs
  mutable std::size_t hashes_computed_ = 0;
};

// The users in force for each request, so that a reload can change them
// while the server runs.
using BasicAuthSource = std::function<std::shared_ptr<const BasicAuth>()>;

// Answers 401 with a Basic challenge, before routing, to every request that
// the users source gives do not allow (an open set allows all).
void RequireBasicAuth(httplib::Server& server, BasicAuthSource source);

}  // namespace fetchlet::serve

#endif  // FETCHLET_SERVE_WEB_CONFIG_H_
