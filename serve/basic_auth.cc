// Basic auth and the rate limit of the web configuration: bcrypt hashes
// checked with libcrypt, one at a time, each pair remembered by a keyed
// digest.
#include <crypt.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "serve/http_server.h"
#include "serve/web_config.h"

namespace fetchlet::serve {
namespace {

// Pairs allowed, and pairs refused, are each remembered up to this many,
// then forgotten at once: guesses never push out a scraper's pair.
constexpr std::size_t kRemembered = 1024;

// bcrypt is costly by design: one at a time in the whole process, so that
// a flood of guesses takes one core, never all of them; and at most two
// more requests wait for it, so that guesses hold no more of the workers.
std::mutex bcrypt_mutex;
std::atomic<int> bcrypt_callers{0};
constexpr int kMostBcryptCallers = 3;

// A key of this process only: a digest in memory tells nothing about a
// password to whoever reads it without the key.
const std::array<unsigned char, 32>& DigestKey() {
  static const std::array<unsigned char, 32> key = [] {
    std::array<unsigned char, 32> bytes{};
    RAND_bytes(bytes.data(), static_cast<int>(bytes.size()));
    return bytes;
  }();
  return key;
}

std::string Digest(std::string_view text) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int size = 0;
  HMAC(EVP_sha256(), DigestKey().data(), static_cast<int>(DigestKey().size()),
       reinterpret_cast<const unsigned char*>(text.data()), text.size(),
       digest.data(), &size);
  return std::string(reinterpret_cast<const char*>(digest.data()), size);
}

// crypt_rn's answer for password under hash; "" when it fails.
std::string CryptInTurn(const std::string& password, const std::string& hash) {
  auto data = std::make_unique<crypt_data>();
  std::lock_guard lock(bcrypt_mutex);
  const char* computed = crypt_rn(password.c_str(), hash.c_str(), data.get(),
                                  static_cast<int>(sizeof(crypt_data)));
  std::string result = computed != nullptr && *computed != '*' ? computed : "";
  OPENSSL_cleanse(data.get(), sizeof(crypt_data));
  return result;
}

int Cost(const std::string& hash) {
  return (hash[4] - '0') * 10 + (hash[5] - '0');
}

// A hash of a random password at cost: nothing matches it, and checking it
// costs what checking a real user's hash costs.
std::string DecoyHash(int cost) {
  std::array<unsigned char, 16> random{};
  RAND_bytes(random.data(), static_cast<int>(random.size()));
  std::array<char, CRYPT_GENSALT_OUTPUT_SIZE> salt{};
  if (crypt_gensalt_rn("$2b$", static_cast<unsigned long>(cost),
                       reinterpret_cast<const char*>(random.data()),
                       static_cast<int>(random.size()), salt.data(),
                       static_cast<int>(salt.size())) == nullptr) {
    return "";
  }
  std::string password(reinterpret_cast<const char*>(random.data()), 8);
  for (char& c : password) c = static_cast<char>('a' + (c & 15));
  return CryptInTurn(password, salt.data());
}

// CryptInTurn's answer, or nullopt at once when enough callers wait.
std::optional<std::string> Crypt(const std::string& password,
                                 const std::string& hash) {
  if (bcrypt_callers.fetch_add(1) >= kMostBcryptCallers) {
    bcrypt_callers.fetch_sub(1);
    return std::nullopt;
  }
  std::string computed = CryptInTurn(password, hash);
  bcrypt_callers.fetch_sub(1);
  return computed;
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

}  // namespace

BasicAuth::BasicAuth(std::map<std::string, std::string> users)
    : users_(std::move(users)) {
  int cost = 0;
  for (const auto& [name, hash] : users_) cost = std::max(cost, Cost(hash));
  if (cost > 0) decoy_ = DecoyHash(cost);
}

int BasicAuth::DecoyCost() const { return decoy_.empty() ? 0 : Cost(decoy_); }

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
  if (!pair) return false;
  const size_t colon = pair->find(':');
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
  const std::string& hash = found == users_.end() ? decoy_ : found->second;
  // Zero bytes keep user, password and hash apart in the digest.
  std::string key = Digest(user + '\0' + password + '\0' + hash);
  {
    std::lock_guard lock(mutex_);
    if (allowed_.contains(key)) return true;
    if (refused_.contains(key)) return false;
  }
  const std::optional<std::string> computed = Crypt(password, hash);
  if (!computed) return false;  // too busy to check: refused, not remembered
  const bool match = found != users_.end() && !computed->empty() &&
                     hash.size() == computed->size() &&
                     CRYPTO_memcmp(computed->data(), hash.data(),
                                   hash.size()) == 0;
  std::lock_guard lock(mutex_);
  ++hashes_computed_;
  // Passwords past bcrypt's 72 bytes all match: bound what they can fill.
  std::set<std::string>& remembered = match ? allowed_ : refused_;
  if (remembered.size() >= kRemembered) remembered.clear();
  remembered.insert(std::move(key));
  return match;
}

void RequireBasicAuth(HttpServer& server, BasicAuthSource source) {
  server.AddGate([source = std::move(source)](const HttpRequest& request,
                                              HttpResponse& response) {
    if (source()->Allows(request.Header("Authorization"))) return false;
    response.status = 401;
    response.headers.emplace_back(
        "WWW-Authenticate", "Basic realm=\"fetchlet\", charset=\"UTF-8\"");
    response.Set("Unauthorized\n", "text/plain");
    return true;
  });
}

void LimitRate(HttpServer& server, const RateLimit& limit) {
  if (limit.interval.count() <= 0) return;
  struct Bucket {
    std::mutex mutex;
    double tokens;
    std::chrono::steady_clock::time_point filled;
  };
  auto bucket = std::make_shared<Bucket>();
  bucket->tokens = static_cast<double>(limit.burst);
  bucket->filled = std::chrono::steady_clock::now();
  server.AddGate([bucket, limit](const HttpRequest&, HttpResponse& response) {
    std::lock_guard lock(bucket->mutex);
    const auto now = std::chrono::steady_clock::now();
    const double earned =
        std::chrono::duration<double>(now - bucket->filled) /
        std::chrono::duration<double>(limit.interval);
    bucket->tokens =
        std::min(bucket->tokens + earned, static_cast<double>(limit.burst));
    bucket->filled = now;
    if (bucket->tokens >= 1) {
      bucket->tokens -= 1;
      return false;
    }
    response.status = 429;
    response.Set("Too Many Requests\n", "text/plain");
    return true;
  });
}

}  // namespace fetchlet::serve
