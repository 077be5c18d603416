// Reading the web configuration file, with each problem's line and column.
#include "serve/web_config.h"

#include <unistd.h>
#include <yaml-cpp/yaml.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <set>
#include <utility>

#include "serve/duration.h"

namespace fetchlet::serve {
namespace {

// Keys of the exporters' format that this server does not implement: named
// as such rather than as unknown, since they are not typos.
constexpr std::array<std::string_view, 7> kUnsupportedKeys = {
    "http_server_config",
    "cert",
    "key",
    "client_ca",
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

// The exporters' (Go's) names of the TLS 1.2 suites they offer, with
// OpenSSL's. TLS 1.3 suites are not chosen by this key there either.
constexpr std::array<std::pair<std::string_view, std::string_view>, 17>
    kCipherSuites = {{
        {"TLS_RSA_WITH_AES_128_CBC_SHA", "AES128-SHA"},
        {"TLS_RSA_WITH_AES_256_CBC_SHA", "AES256-SHA"},
        {"TLS_RSA_WITH_AES_128_GCM_SHA256", "AES128-GCM-SHA256"},
        {"TLS_RSA_WITH_AES_256_GCM_SHA384", "AES256-GCM-SHA384"},
        {"TLS_AES_128_GCM_SHA256", ""},
        {"TLS_AES_256_GCM_SHA384", ""},
        {"TLS_CHACHA20_POLY1305_SHA256", ""},
        {"TLS_ECDHE_ECDSA_WITH_AES_128_CBC_SHA", "ECDHE-ECDSA-AES128-SHA"},
        {"TLS_ECDHE_ECDSA_WITH_AES_256_CBC_SHA", "ECDHE-ECDSA-AES256-SHA"},
        {"TLS_ECDHE_RSA_WITH_AES_128_CBC_SHA", "ECDHE-RSA-AES128-SHA"},
        {"TLS_ECDHE_RSA_WITH_AES_256_CBC_SHA", "ECDHE-RSA-AES256-SHA"},
        {"TLS_ECDHE_ECDSA_WITH_AES_128_GCM_SHA256",
         "ECDHE-ECDSA-AES128-GCM-SHA256"},
        {"TLS_ECDHE_RSA_WITH_AES_128_GCM_SHA256", "ECDHE-RSA-AES128-GCM-SHA256"},
        {"TLS_ECDHE_ECDSA_WITH_AES_256_GCM_SHA384",
         "ECDHE-ECDSA-AES256-GCM-SHA384"},
        {"TLS_ECDHE_RSA_WITH_AES_256_GCM_SHA384", "ECDHE-RSA-AES256-GCM-SHA384"},
        {"TLS_ECDHE_ECDSA_WITH_CHACHA20_POLY1305_SHA256",
         "ECDHE-ECDSA-CHACHA20-POLY1305"},
        {"TLS_ECDHE_RSA_WITH_CHACHA20_POLY1305_SHA256",
         "ECDHE-RSA-CHACHA20-POLY1305"},
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
      } else if (entry.key == "rate_limit") {
        Rate(entry.value, &web->rate_limit);
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
      } else if (key == "cipher_suites") {
        CipherSuites(value, &tls->cipher_suites);
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

  void CipherSuites(const YAML::Node& node, std::vector<std::string>* out) {
    if (!node.IsSequence()) {
      Problem(node.Mark(), "expected a list of cipher suites");
      return;
    }
    for (const YAML::Node& item : node) {
      std::optional<std::string> name = String(item);
      if (!name) continue;
      const auto* known = std::find_if(
          kCipherSuites.begin(), kCipherSuites.end(),
          [&](const auto& suite) { return suite.first == *name; });
      if (known == kCipherSuites.end()) {
        Problem(item.Mark(), "unknown cipher suite \"" + *name + "\"");
      } else if (!known->second.empty()) {
        out->emplace_back(known->second);
      }
    }
  }

  void Rate(const YAML::Node& node, RateLimit* limit) {
    for (const auto& [key, key_mark, value] : Entries(node)) {
      if (key == "interval") {
        std::optional<std::string> text = String(value);
        std::optional<Duration> interval =
            text ? ParseDuration(*text) : std::nullopt;
        if (text && !interval) {
          Problem(value.Mark(), "invalid interval \"" + *text + "\"");
        }
        if (interval) limit->interval = *interval;
      } else if (key == "burst") {
        long long burst = -1;
        if (value.IsScalar()) YAML::convert<long long>::decode(value, burst);
        if (burst < 1) Problem(value.Mark(), "burst must be a whole number >= 1");
        limit->burst = burst;
      } else {
        Unknown({key, key_mark, value});
      }
    }
    if (node.IsMap() && limit->interval.count() > 0 && !node["burst"]) {
      Problem(node.Mark(), "burst is missing");
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

}  // namespace fetchlet::serve
