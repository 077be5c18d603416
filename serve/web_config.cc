#include "serve/web_config.h"

#include <crypt.h>
#include <httplib.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <unistd.h>
#include <yaml-cpp/yaml.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <utility>

namespace fetchlet::serve {
namespace {

// Keys of the exporters' format that this server does not implement: named
// as such rather than as unknown, since they are not typos.
constexpr std::array<std::string_view, 9> kUnsupportedKeys = {
    "http_server_config",
    "rate_limit",
    "cert",
    "key",
    "client_ca",
    "cipher_suites",
    "curve_preferences",
    "max_version",
    "client_allowed_sans"};

constexpr std::array<std::pair<std::string_view, ClientAuth>, 5>
    kClientAuthNames = {{
        {"NoClientCert", ClientAuth::kNoClientCert},
        {"RequestClientCert", ClientAuth::kRequestClientCert},
        {"RequireAnyClientCert", ClientAuth::kRequireAnyClientCert},
        {"VerifyClientCertIfGiven", ClientAuth::kVerifyClientCertIfGiven},
        {"RequireAndVerifyClientCert", ClientAuth::kRequireAndVerifyClientCert},
    }};

class Loader {
 public:
  Loader(std::string path, std::vector<ConfigProblem>* problems)
      : path_(std::move(path)),
        dir_(std::filesystem::path(path_).parent_path()),
        problems_(problems) {}

  void Root(const YAML::Node& root, WebConfig* web) {
    if (root.IsNull()) return;  // an empty file: no TLS, no users
    for (const Entry& entry : Entries(root)) {
      if (entry.key == "tls_server_config") {
        Tls(entry.value, &web->tls.emplace());
      } else if (entry.key == "basic_auth_users") {
        Users(entry.value, &web->basic_auth_users);
      } else {
        Unknown(entry);
      }
    }
  }

  void Problem(const YAML::Mark& mark, std::string message) {
    problems_->push_back(
        {{path_, mark.line + 1, mark.column + 1}, std::move(message)});
  }

 private:
  struct Entry {
    std::string key;
    YAML::Mark key_mark;
    YAML::Node value;
  };

  // A mapping's entries, each key once, in file order.
  std::vector<Entry> Entries(const YAML::Node& node) {
    std::vector<Entry> entries;
    if (!node.IsMap()) {
      Problem(node.Mark(), "expected a mapping");
      return entries;
    }
    std::set<std::string> seen;
    for (const auto& item : node) {
      const std::string key = item.first.Scalar();
      if (!seen.insert(key).second) {
        Problem(item.first.Mark(), "duplicate key \"" + key + "\"");
        continue;
      }
      entries.push_back({key, item.first.Mark(), item.second});
    }
    return entries;
  }

  void Unknown(const Entry& entry) {
    for (std::string_view unsupported : kUnsupportedKeys) {
      if (entry.key == unsupported) {
        Problem(entry.key_mark, "\"" + entry.key + "\" is not supported");
        return;
      }
    }
    Problem(entry.key_mark, "unknown key \"" + entry.key + "\"");
  }

  std::optional<std::string> String(const YAML::Node& node) {
    if (!node.IsScalar() || node.Scalar().empty()) {
      Problem(node.Mark(), "expected a non-empty string");
      return std::nullopt;
    }
    return node.Scalar();
  }

  // The file named by node, relative to the configuration's directory,
  // which the serving user must be able to read.
  std::string File(const YAML::Node& node) {
    std::optional<std::string> name = String(node);
    if (!name) return "";
    std::filesystem::path path = dir_ / *name;  // an absolute name wins
    if (access(path.c_str(), R_OK) != 0) {
      Problem(node.Mark(),
              "cannot read \"" + path.string() + "\": " + std::strerror(errno));
    }
    return path.string();
  }

  void Tls(const YAML::Node& node, TlsServerConfig* tls) {
    for (const auto& [key, key_mark, value] : Entries(node)) {
      if (key == "cert_file") {
        tls->cert_file = File(value);
      } else if (key == "key_file") {
        tls->key_file = File(value);
      } else if (key == "client_ca_file") {
        tls->client_ca_file = File(value);
      } else if (key == "client_auth_type") {
        ClientAuthType(value, &tls->client_auth);
      } else if (key == "min_version") {
        MinVersion(value, &tls->min_version);
      } else {
        Unknown({key, key_mark, value});
      }
    }
    CheckTls(node, *tls);
  }

  void CheckTls(const YAML::Node& node, const TlsServerConfig& tls) {
    if (!node.IsMap()) return;
    if (!node["cert_file"]) Problem(node.Mark(), "cert_file is missing");
    if (!node["key_file"]) Problem(node.Mark(), "key_file is missing");
    const bool verifies =
        tls.client_auth == ClientAuth::kVerifyClientCertIfGiven ||
        tls.client_auth == ClientAuth::kRequireAndVerifyClientCert;
    if (verifies && !node["client_ca_file"]) {
      Problem(node.Mark(),
              "client_auth_type verifies client certificates "
              "but client_ca_file is missing");
    }
    if (!verifies && node["client_ca_file"]) {
      Problem(node["client_ca_file"].Mark(),
              "client_ca_file needs a client_auth_type that verifies "
              "(VerifyClientCertIfGiven or RequireAndVerifyClientCert)");
    }
  }

  void ClientAuthType(const YAML::Node& node, ClientAuth* auth) {
    std::optional<std::string> name = String(node);
    if (!name) return;
    for (const auto& [text, value] : kClientAuthNames) {
      if (*name == text) {
        *auth = value;
        return;
      }
    }
    Problem(node.Mark(), "invalid client_auth_type \"" + *name + "\"");
  }

  void MinVersion(const YAML::Node& node, TlsVersion* version) {
    std::optional<std::string> name = String(node);
    if (!name) return;
    if (*name == "TLS12") {
      *version = TlsVersion::kTls12;
    } else if (*name == "TLS13") {
      *version = TlsVersion::kTls13;
    } else {
      Problem(node.Mark(),
              "invalid min_version \"" + *name + "\" (TLS12 or TLS13)");
    }
  }

  void Users(const YAML::Node& node,
             std::map<std::string, std::string>* users) {
    if (node.IsNull()) return;
    for (const auto& [name, name_mark, hash] : Entries(node)) {
      if (name.empty() || name.find(':') != std::string::npos) {
        Problem(name_mark, "invalid user name \"" + name + "\"");
      } else if (!hash.IsScalar() || !IsBcryptHash(hash.Scalar())) {
        Problem(hash.Mark(), "the hash of \"" + name +
                                 "\" is not a bcrypt hash ($2y$ or $2b$)");
      } else {
        (*users)[name] = hash.Scalar();
      }
    }
  }

  static bool IsBcryptHash(std::string_view hash) {
    constexpr std::string_view kAlphabet =
        "./ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    if (hash.size() != 60 || !hash.starts_with("$2") || hash[3] != '$' ||
        hash[6] != '$' || (hash[2] != 'y' && hash[2] != 'b')) {
      return false;
    }
    const int cost = (hash[4] - '0') * 10 + (hash[5] - '0');
    return std::isdigit(static_cast<unsigned char>(hash[4])) &&
           std::isdigit(static_cast<unsigned char>(hash[5])) && cost >= 4 &&
           cost <= 31 &&
           hash.find_first_not_of(kAlphabet, 7) == std::string_view::npos;
  }

  std::string path_;
  std::filesystem::path dir_;
  std::vector<ConfigProblem>* problems_;
};

// Requests a certificate without judging it: the exporters' Request and
// RequireAny policies take whatever the client sends.
int AcceptAnyCertificate(int, X509_STORE_CTX*) { return 1; }

int VerifyMode(ClientAuth auth) {
  switch (auth) {
    case ClientAuth::kNoClientCert:
      return SSL_VERIFY_NONE;
    case ClientAuth::kRequestClientCert:
    case ClientAuth::kVerifyClientCertIfGiven:
      return SSL_VERIFY_PEER;
    case ClientAuth::kRequireAnyClientCert:
    case ClientAuth::kRequireAndVerifyClientCert:
      return SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT;
  }
  return SSL_VERIFY_NONE;
}

std::string OpenSslError(const std::string& what) {
  std::string text = what;
  const unsigned long code = ERR_get_error();
  if (code != 0) {
    std::array<char, 256> buffer{};
    ERR_error_string_n(code, buffer.data(), buffer.size());
    text += ": ";
    text += buffer.data();
  }
  ERR_clear_error();
  return text;
}

// Sets up ctx as tls says; "" on success, else why not.
std::string SetUpContext(const TlsServerConfig& tls, SSL_CTX* ctx) {
  SSL_CTX_set_options(ctx, SSL_OP_NO_COMPRESSION | SSL_OP_NO_RENEGOTIATION);
  const int version =
      tls.min_version == TlsVersion::kTls13 ? TLS1_3_VERSION : TLS1_2_VERSION;
  if (SSL_CTX_set_min_proto_version(ctx, version) != 1) {
    return OpenSslError("cannot set the minimum TLS version");
  }
  if (SSL_CTX_use_certificate_chain_file(ctx, tls.cert_file.c_str()) != 1) {
    return OpenSslError("cannot load " + tls.cert_file);
  }
  if (SSL_CTX_use_PrivateKey_file(ctx, tls.key_file.c_str(),
                                  SSL_FILETYPE_PEM) != 1 ||
      SSL_CTX_check_private_key(ctx) != 1) {
    return OpenSslError("cannot use " + tls.key_file + " with " +
                        tls.cert_file);
  }
  if (!tls.client_ca_file.empty()) {
    STACK_OF(X509_NAME)* names =
        SSL_load_client_CA_file(tls.client_ca_file.c_str());
    if (names == nullptr ||
        SSL_CTX_load_verify_locations(ctx, tls.client_ca_file.c_str(),
                                      nullptr) != 1) {
      if (names != nullptr) sk_X509_NAME_pop_free(names, X509_NAME_free);
      return OpenSslError("cannot load " + tls.client_ca_file);
    }
    SSL_CTX_set_client_CA_list(ctx, names);  // ctx owns names now
  }
  const bool judges =
      tls.client_auth == ClientAuth::kVerifyClientCertIfGiven ||
      tls.client_auth == ClientAuth::kRequireAndVerifyClientCert;
  SSL_CTX_set_verify(ctx, VerifyMode(tls.client_auth),
                     judges ? nullptr : AcceptAnyCertificate);
  return "";
}

std::string Digest(std::string_view text) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int size = 0;
  EVP_Digest(text.data(), text.size(), digest.data(), &size, EVP_sha256(),
             nullptr);
  return std::string(reinterpret_cast<const char*>(digest.data()), size);
}

// Strict base64 with padding, as browsers and Prometheus send it.
std::optional<std::string> DecodeBase64(std::string_view text) {
  constexpr std::string_view kAlphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  if (text.size() % 4 != 0) return std::nullopt;
  for (int i = 0; i < 2 && text.ends_with('='); ++i) text.remove_suffix(1);
  std::string out;
  uint32_t bits = 0;
  int held = 0;  // bits held, fewer than 8 after each character
  for (char c : text) {
    const size_t value = kAlphabet.find(c);
    if (value == std::string_view::npos) return std::nullopt;
    bits = (bits << 6) | static_cast<uint32_t>(value);
    held += 6;
    if (held >= 8) {
      held -= 8;
      out.push_back(static_cast<char>((bits >> held) & 0xff));
    }
  }
  return out;
}

// A real hash of cost 10, whatever it matches,
// checked for unknown users so that timing does not tell which users exist.
constexpr const char* kDecoyHash =
    "$2b$10$gIak9ZR32dBurhP0VZUk2eZV9EJtDgozyPP6QNbpHXziEfwZ9uEIS";

}  // namespace

std::optional<WebConfig> LoadWebConfig(const std::string& path,
                                       std::vector<ConfigProblem>* problems) {
  const size_t before = problems->size();
  Loader loader(path, problems);
  WebConfig web;
  try {
    loader.Root(YAML::LoadFile(path), &web);
  } catch (const YAML::BadFile&) {
    problems->push_back(
        {{path, 0, 0},
         std::string("cannot read the file: ") + std::strerror(errno)});
  } catch (const YAML::Exception& e) {
    loader.Problem(e.mark, e.msg);
  }
  // In file order, though keys are checked before what they hold.
  std::stable_sort(problems->begin() + static_cast<std::ptrdiff_t>(before),
                   problems->end(), [](const auto& a, const auto& b) {
                     return std::pair(a.where.line, a.where.column) <
                            std::pair(b.where.line, b.where.column);
                   });
  if (problems->size() != before) return std::nullopt;
  return web;
}

std::unique_ptr<httplib::Server> MakeHttpServer(const WebConfig& web,
                                                std::string* error) {
  if (!web.tls) return std::make_unique<httplib::Server>();
  std::string why;
  auto server = std::make_unique<httplib::SSLServer>([&](SSL_CTX& ctx) {
    why = SetUpContext(*web.tls, &ctx);
    return why.empty();
  });
  if (!server->is_valid()) {
    *error = why.empty() ? OpenSslError("cannot make a TLS context") : why;
    return nullptr;
  }
  return server;
}

BasicAuth::BasicAuth(std::map<std::string, std::string> users)
    : users_(std::move(users)) {}

bool BasicAuth::Allows(std::string_view authorization) const {
  if (Open()) return true;
  constexpr std::string_view kScheme = "basic ";
  if (authorization.size() < kScheme.size() ||
      !std::equal(kScheme.begin(), kScheme.end(), authorization.begin(),
                  [](char a, char b) { return a == std::tolower(b); })) {
    return false;
  }
  std::optional<std::string> pair =
      DecodeBase64(authorization.substr(kScheme.size()));
  const size_t colon = pair ? pair->find(':') : std::string::npos;
  // crypt reads a C string: a zero byte would cut the password short.
  if (colon == std::string::npos || pair->find('\0') != std::string::npos) {
    return false;
  }
  return Verify(pair->substr(0, colon), pair->substr(colon + 1));
}

std::size_t BasicAuth::HashesComputed() const {
  std::lock_guard lock(mutex_);
  return hashes_computed_;
}

bool BasicAuth::Verify(const std::string& user,
                       const std::string& password) const {
  const auto found = users_.find(user);
  const std::string hash = found == users_.end() ? kDecoyHash : found->second;
  // Zero bytes keep user, password and hash apart in the digest.
  std::string key = Digest(user + '\0' + password + '\0' + hash);
  {
    std::lock_guard lock(mutex_);
    if (found != users_.end() && verified_.contains(key)) return true;
    ++hashes_computed_;
  }
  auto data = std::make_unique<crypt_data>();
  const char* computed = crypt_rn(password.c_str(), hash.c_str(), data.get(),
                                  static_cast<int>(sizeof(crypt_data)));
  const bool match = computed != nullptr && found != users_.end() &&
                     hash.size() == std::strlen(computed) &&
                     CRYPTO_memcmp(computed, hash.data(), hash.size()) == 0;
  OPENSSL_cleanse(data.get(), sizeof(crypt_data));
  if (match) {
    std::lock_guard lock(mutex_);
    // Passwords past bcrypt's 72 bytes all match: bound what they can fill.
    if (verified_.size() >= 1024) verified_.clear();
    verified_.insert(std::move(key));
  }
  return match;
}

void RequireBasicAuth(httplib::Server& server,
                      std::shared_ptr<const BasicAuth> auth) {
  if (auth->Open()) return;
  RequireBasicAuth(server, [auth] { return auth; });
}

void RequireBasicAuth(httplib::Server& server, BasicAuthSource source) {
  server.set_pre_routing_handler(
      [source = std::move(source)](const httplib::Request& request,
                                   httplib::Response& response) {
        if (source()->Allows(request.get_header_value("Authorization"))) {
          return httplib::Server::HandlerResponse::Unhandled;
        }
        response.status = 401;
        response.set_header("WWW-Authenticate",
                            "Basic realm=\"fetchlet\", charset=\"UTF-8\"");
        response.set_content("Unauthorized\n", "text/plain");
        return httplib::Server::HandlerResponse::Handled;
      });
}

}  // namespace fetchlet::serve
