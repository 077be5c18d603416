// Reading the web configuration file strictly, with each problem's line
// and column, through the same reader as the serving configuration.
#include "serve/web_config.h"

#include <unistd.h>
#include <yaml-cpp/yaml.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <utility>

#include "serve/duration.h"
#include "serve/yaml_reader.h"

namespace fetchlet::serve {
namespace {

// Keys of the exporters' format that this server does not implement: named
// as such rather than as unknown, since they are not typos.
const std::vector<std::string> kUnsupportedKeys = {
    "http_server_config", "cert",        "key",
    "client_ca",          "curve_preferences", "max_version",
    "client_allowed_sans", "prefer_server_cipher_suites"};

const std::vector<std::string> kTopKeys = {
    "tls_server_config", "basic_auth_users", "rate_limit"};
const std::vector<std::string> kTlsKeys = {
    "cert_file",   "key_file",    "client_ca_file", "client_auth_type",
    "min_version", "cipher_suites"};
const std::vector<std::string> kRateKeys = {"interval", "burst"};

constexpr std::array<std::pair<std::string_view, ClientAuth>, 5>
    kClientAuthNames = {{
        {"NoClientCert", ClientAuth::kNoClientCert},
        {"RequestClientCert", ClientAuth::kRequestClientCert},
        {"RequireAnyClientCert", ClientAuth::kRequireAnyClientCert},
        {"VerifyClientCertIfGiven", ClientAuth::kVerifyClientCertIfGiven},
        {"RequireAndVerifyClientCert", ClientAuth::kRequireAndVerifyClientCert},
    }};

// The exporters' (Go's) names of the TLS 1.2 suites they offer, with the
// GnuTLS names of their key exchange, cipher and MAC. TLS 1.3 suites are
// not chosen by this key there either.
constexpr std::array<std::pair<std::string_view, std::string_view>, 17>
    kCipherSuites = {{
        {"TLS_RSA_WITH_AES_128_CBC_SHA", "RSA AES-128-CBC SHA1"},
        {"TLS_RSA_WITH_AES_256_CBC_SHA", "RSA AES-256-CBC SHA1"},
        {"TLS_RSA_WITH_AES_128_GCM_SHA256", "RSA AES-128-GCM AEAD"},
        {"TLS_RSA_WITH_AES_256_GCM_SHA384", "RSA AES-256-GCM AEAD"},
        {"TLS_AES_128_GCM_SHA256", ""},
        {"TLS_AES_256_GCM_SHA384", ""},
        {"TLS_CHACHA20_POLY1305_SHA256", ""},
        {"TLS_ECDHE_ECDSA_WITH_AES_128_CBC_SHA",
         "ECDHE-ECDSA AES-128-CBC SHA1"},
        {"TLS_ECDHE_ECDSA_WITH_AES_256_CBC_SHA",
         "ECDHE-ECDSA AES-256-CBC SHA1"},
        {"TLS_ECDHE_RSA_WITH_AES_128_CBC_SHA", "ECDHE-RSA AES-128-CBC SHA1"},
        {"TLS_ECDHE_RSA_WITH_AES_256_CBC_SHA", "ECDHE-RSA AES-256-CBC SHA1"},
        {"TLS_ECDHE_ECDSA_WITH_AES_128_GCM_SHA256",
         "ECDHE-ECDSA AES-128-GCM AEAD"},
        {"TLS_ECDHE_RSA_WITH_AES_128_GCM_SHA256",
         "ECDHE-RSA AES-128-GCM AEAD"},
        {"TLS_ECDHE_ECDSA_WITH_AES_256_GCM_SHA384",
         "ECDHE-ECDSA AES-256-GCM AEAD"},
        {"TLS_ECDHE_RSA_WITH_AES_256_GCM_SHA384",
         "ECDHE-RSA AES-256-GCM AEAD"},
        {"TLS_ECDHE_ECDSA_WITH_CHACHA20_POLY1305_SHA256",
         "ECDHE-ECDSA CHACHA20-POLY1305 AEAD"},
        {"TLS_ECDHE_RSA_WITH_CHACHA20_POLY1305_SHA256",
         "ECDHE-RSA CHACHA20-POLY1305 AEAD"},
    }};

bool Contains(const std::vector<std::string>& keys, const std::string& key) {
  return std::find(keys.begin(), keys.end(), key) != keys.end();
}

class Loader {
 public:
  Loader(const std::string& path, std::vector<ConfigProblem>* problems)
      : reader_(path, problems, &warnings_),
        dir_(std::filesystem::path(path).parent_path()) {}

  void Root(const YAML::Node& root, WebConfig* web) {
    if (root.IsNull()) return;  // an empty file: no TLS, no users
    for (const auto& [key, key_node, value] :
         Entries(root, "the web configuration", kTopKeys)) {
      if (key == "tls_server_config") {
        Tls(value, &web->tls.emplace());
      } else if (key == "basic_auth_users") {
        Users(value, &web->basic_auth_users);
      } else {
        Rate(value, &web->rate_limit);
      }
    }
  }

 private:
  using Entry = YamlReader::Entry;

  // The entries of node with a known key; unknown and unsupported keys are
  // reported.
  std::vector<Entry> Entries(const YAML::Node& node, const std::string& what,
                             const std::vector<std::string>& known) {
    std::vector<std::string> allowed = known;
    allowed.insert(allowed.end(), kUnsupportedKeys.begin(),
                   kUnsupportedKeys.end());
    std::vector<Entry> entries;
    for (Entry& entry : reader_.Entries(node, what, allowed)) {
      if (Contains(known, entry.key)) {
        entries.push_back(std::move(entry));
      } else {
        reader_.Problem(entry.key_node,
                        "'" + entry.key + "' is not supported");
      }
    }
    return entries;
  }

  std::optional<std::string> String(const YAML::Node& node,
                                    const std::string& key) {
    std::optional<std::string> text = reader_.String(node, key);
    if (text && text->empty()) {
      reader_.Problem(node, "'" + key + "' must not be empty");
      return std::nullopt;
    }
    return text;
  }

  // The file named by node, relative to the configuration's directory,
  // which the serving user must be able to read.
  std::string File(const YAML::Node& node, const std::string& key) {
    std::optional<std::string> name = String(node, key);
    if (!name) return "";
    std::filesystem::path path = dir_ / *name;  // an absolute name wins
    if (access(path.c_str(), R_OK) != 0) {
      reader_.Problem(node, "cannot read '" + path.string() +
                                "': " + std::strerror(errno));
    }
    return path.string();
  }

  void Tls(const YAML::Node& node, TlsServerConfig* tls) {
    const auto entries = Entries(node, "tls_server_config", kTlsKeys);
    for (const auto& [key, key_node, value] : entries) {
      if (key == "cert_file") {
        tls->cert_file = File(value, key);
      } else if (key == "key_file") {
        tls->key_file = File(value, key);
      } else if (key == "client_ca_file") {
        tls->client_ca_file = File(value, key);
      } else if (key == "client_auth_type") {
        ClientAuthType(value, &tls->client_auth);
      } else if (key == "min_version") {
        MinVersion(value, &tls->min_version);
      } else {
        CipherSuites(value, &tls->cipher_suites);
      }
    }
    if (node.IsMap()) CheckTls(node, entries, *tls);
  }

  void CheckTls(const YAML::Node& node, const std::vector<Entry>& entries,
                const TlsServerConfig& tls) {
    for (const char* key : {"cert_file", "key_file"}) {
      if (!YamlReader::Find(entries, key).IsDefined()) {
        reader_.Problem(node, std::string("missing key '") + key + "'");
      }
    }
    const bool verifies =
        tls.client_auth == ClientAuth::kVerifyClientCertIfGiven ||
        tls.client_auth == ClientAuth::kRequireAndVerifyClientCert;
    const YAML::Node ca = YamlReader::Find(entries, "client_ca_file");
    if (verifies && !ca.IsDefined()) {
      reader_.Problem(node,
                      "client_auth_type verifies client certificates "
                      "but client_ca_file is missing");
    }
    if (!verifies && ca.IsDefined()) {
      reader_.Problem(
          ca,
          "client_ca_file needs a client_auth_type that verifies "
          "(VerifyClientCertIfGiven or RequireAndVerifyClientCert)");
    }
  }

  void ClientAuthType(const YAML::Node& node, ClientAuth* auth) {
    std::optional<std::string> name = String(node, "client_auth_type");
    if (!name) return;
    for (const auto& [text, value] : kClientAuthNames) {
      if (*name == text) {
        *auth = value;
        return;
      }
    }
    reader_.Problem(node, "invalid client_auth_type '" + *name + "'");
  }

  void MinVersion(const YAML::Node& node, TlsVersion* version) {
    std::optional<std::string> name = String(node, "min_version");
    if (!name) return;
    if (*name == "TLS12") {
      *version = TlsVersion::kTls12;
    } else if (*name == "TLS13") {
      *version = TlsVersion::kTls13;
    } else {
      reader_.Problem(node,
                      "invalid min_version '" + *name + "' (TLS12 or TLS13)");
    }
  }

  void CipherSuites(const YAML::Node& node, std::vector<std::string>* out) {
    if (!node.IsSequence()) {
      reader_.Problem(node, "'cipher_suites' must be a list");
      return;
    }
    for (const YAML::Node& item : node) {
      std::optional<std::string> name = String(item, "cipher_suites");
      if (!name) continue;
      const auto* known = std::find_if(
          kCipherSuites.begin(), kCipherSuites.end(),
          [&](const auto& suite) { return suite.first == *name; });
      if (known == kCipherSuites.end()) {
        reader_.Problem(item, "unknown cipher suite '" + *name + "'");
      } else if (!known->second.empty()) {
        out->emplace_back(known->second);
      }
    }
  }

  void Rate(const YAML::Node& node, RateLimit* limit) {
    const auto entries = Entries(node, "rate_limit", kRateKeys);
    for (const auto& [key, key_node, value] : entries) {
      if (key == "interval") {
        const std::optional<Duration> interval =
            value.IsScalar() ? ParseDuration(value.Scalar()) : std::nullopt;
        if (!interval) {
          reader_.Problem(value,
                          "'interval' must be a duration (0s, 500ms, 1s)");
        }
        limit->interval = interval.value_or(Duration{0});
      } else {
        limit->burst = reader_.Integer(value, "burst", 1).value_or(0);
      }
    }
    if (limit->interval.count() > 0 &&
        !YamlReader::Find(entries, "burst").IsDefined()) {
      reader_.Problem(node, "missing key 'burst'");
    }
  }

  void Users(const YAML::Node& node,
             std::map<std::string, std::string>* users) {
    if (node.IsNull()) return;
    for (const auto& [name, name_node, hash] :
         reader_.Entries(node, "basic_auth_users", {})) {
      if (name.empty() || name.find(':') != std::string::npos) {
        reader_.Problem(name_node, "invalid user name '" + name + "'");
      } else if (!hash.IsScalar() || !IsBcryptHash(hash.Scalar())) {
        reader_.Problem(hash, "the hash of '" + name +
                                  "' is not a bcrypt hash ($2y$ or $2b$)");
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

  std::vector<ConfigProblem> warnings_;  // the format has none
  YamlReader reader_;
  std::filesystem::path dir_;
};

}  // namespace

std::optional<WebConfig> LoadWebConfig(const std::string& path,
                                       std::vector<ConfigProblem>* problems) {
  const size_t before = problems->size();
  const std::optional<YAML::Node> root = YamlReader::Parse(path, problems);
  if (!root) return std::nullopt;
  WebConfig web;
  Loader(path, problems).Root(*root, &web);
  YamlReader::SortByPlace(problems, before);
  if (problems->size() != before) return std::nullopt;
  return web;
}

}  // namespace fetchlet::serve
