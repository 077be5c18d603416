// Basic auth of the web configuration: bcrypt hashes checked with
// libcrypt, verified pairs remembered by their digest.
#include <crypt.h>
#include <httplib.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "serve/web_config.h"

namespace fetchlet::serve {
namespace {

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
