#include "serve/http_server.h"
#include "serve/web_config.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "tests/serve/serve_wire_support.h"

namespace fetchlet::serve {
namespace {

namespace fs = std::filesystem;

using qvetest::kAlice;
// bcrypt hashes of cost 4: bob "other" (written as htpasswd -B writes it),
// carol "pa:ss".
constexpr const char* kBob =
    "$2y$04$Uzy/zPO6KLXHQ1yZbmiMFuhL6H.xbhaVHH3.6YzeBU5QuHDqM/BoG";
constexpr const char* kCarol =
    "$2b$04$LigvZ0COPeJLk3vpJuFlm.o.IsMtThi8XLoBp1T5HYrwux6Ccpg7S";

class WebConfigTest : public testing::Test {
 protected:
  // One CA, server and client certificates for the whole suite.
  static void SetUpTestSuite() {
    dir_ = qvetest::MakeTestCerts();
    ASSERT_FALSE(dir_.empty());
  }
  static void TearDownTestSuite() { fs::remove_all(dir_); }

  static std::string Write(const std::string& name, const std::string& text) {
    const std::string path = dir_ + "/" + name;
    std::ofstream(path) << text;
    return path;
  }

  // Problems as "line:column: message", the file name left out.
  static std::string Load(const std::string& text, WebConfig* web) {
    const std::string path = Write("web.yml", text);
    std::vector<ConfigProblem> problems;
    std::optional<WebConfig> loaded = LoadWebConfig(path, &problems);
    EXPECT_EQ(loaded.has_value(), problems.empty());
    std::string out;
    for (const ConfigProblem& p : problems) {
      EXPECT_EQ(p.where.file, path);
      out += std::to_string(p.where.line) + ":" +
             std::to_string(p.where.column) + ": " + p.message + "\n";
    }
    if (loaded) *web = *loaded;
    return out;
  }

  static inline std::string dir_;
};

TEST_F(WebConfigTest, LoadReportsEachProblemWhereItStands) {
  const struct {
    const char* text;
    std::string problems;
  } cases[] = {
      {"", ""},
      {"basic_auth_users:\n", ""},
      {"tls_server_config:\n  cert_file: server.crt\n  key_file: server.key\n",
       ""},
      {"tls_server_confg:\n  cert_file: server.crt\n",
       "1:1: unknown key 'tls_server_confg' in the web configuration\n"},
      {"tls_server_config:\n  cert_file: server.crt\n  key_file: server.key\n"
       "  cipher_suites: [TLS_AES_128_GCM_SHA256, TLS_RSA_WITH_RC4_128_SHA]\n"
       "  curve_preferences: [X25519]\n",
       "4:43: unknown cipher suite 'TLS_RSA_WITH_RC4_128_SHA'\n"
       "5:3: 'curve_preferences' is not supported\n"},
      {"tls_server_config:\n  cert_file: server.crt\n  key_file: server.key\n"
       "  cipher_suites: TLS_AES_128_GCM_SHA256\n",
       "4:18: 'cipher_suites' must be a list\n"},
      {"rate_limit: {interval: 1s, burst: 0}\n",
       "1:35: 'burst' must be at least 1\n"},
      {"rate_limit: {interval: soon, burst: 2, rate: 1}\n",
       "1:24: 'interval' must be a duration (0s, 500ms, 1s)\n"
       "1:40: unknown key 'rate' in rate_limit\n"},
      {"rate_limit: {interval: 1s}\n", "1:13: missing key 'burst'\n"},
      {"rate_limit: {interval: 0s}\n", ""},
      {"basic_auth_users:\n  alice: x\nbasic_auth_users: {}\n",
       "2:10: the hash of 'alice' is not a bcrypt hash ($2y$ or $2b$)\n"
       "3:1: duplicate key 'basic_auth_users'\n"},
      {"basic_auth_users:\n  alice: "
       "$1$abcdefgh$0123456789012345678901\n",
       "2:10: the hash of 'alice' is not a bcrypt hash ($2y$ or $2b$)\n"},
      {"basic_auth_users:\n  alice: "
       "$2b$99$gNk1iq8F3/B.v6zkGEfIU.ODRqLVjp0VnWRZm8KqFixfGLJBYp67.\n",
       "2:10: the hash of 'alice' is not a bcrypt hash ($2y$ or $2b$)\n"},
      {"basic_auth_users:\n  \"a:b\": "
       "$2b$04$gNk1iq8F3/B.v6zkGEfIU.ODRqLVjp0VnWRZm8KqFixfGLJBYp67.\n",
       "2:3: invalid user name 'a:b'\n"},
      {"tls_server_config:\n  cert_file: missing.crt\n  key_file: server.key\n",
       "2:14: cannot read '" + dir_ + "/missing.crt': No such file or "
       "directory\n"},
      {"tls_server_config:\n  key_file: server.key\n",
       "2:3: missing key 'cert_file'\n"},
      {"tls_server_config:\n  cert_file: server.crt\n  key_file: server.key\n"
       "  client_auth_type: RequireAndVerifyClientCert\n",
       "2:3: client_auth_type verifies client certificates but client_ca_file "
       "is missing\n"},
      {"tls_server_config:\n  cert_file: server.crt\n  key_file: server.key\n"
       "  client_ca_file: ca.crt\n",
       "4:19: client_ca_file needs a client_auth_type that verifies "
       "(VerifyClientCertIfGiven or RequireAndVerifyClientCert)\n"},
      {"tls_server_config:\n  cert_file: server.crt\n  key_file: server.key\n"
       "  client_auth_type: requireandverifyclientcert\n  min_version: TLS11\n",
       "4:21: invalid client_auth_type 'requireandverifyclientcert'\n"
       "5:16: invalid min_version 'TLS11' (TLS12 or TLS13)\n"},
      {"tls_server_config: yes\n", "1:20: tls_server_config must be a mapping\n"},
      {"tls_server_config:\n  cert_file: [a]\n  key_file: server.key\n",
       "2:14: 'cert_file' must be a string\n"},
      {"basic_auth_users: {alice: \n", "2:1: end of map flow not found\n"},
      {"- tls_server_config\n", "1:1: the web configuration must be a mapping\n"},
      {"tls_server_config:\n  cert_file: ''\n  key_file: server.key\n",
       "2:14: 'cert_file' must not be empty\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    WebConfig web;
    EXPECT_EQ(Load(c.text, &web), c.problems);
  }
}

// Paths against the file's directory, and the exporter's names of suites.
TEST_F(WebConfigTest, LoadResolvesPathsAndTakesTheExportersNames) {
  WebConfig web;
  ASSERT_EQ(Load("tls_server_config:\n  cert_file: server.crt\n  key_file: " +
                     dir_ + "/server.key\n  client_ca_file: ./ca.crt\n"
                     "  client_auth_type: VerifyClientCertIfGiven\n"
                     "  min_version: TLS13\n  cipher_suites:\n"
                     "    - TLS_ECDHE_RSA_WITH_AES_256_GCM_SHA384\n"
                     "    - TLS_AES_256_GCM_SHA384\n"
                     "    - TLS_RSA_WITH_AES_128_CBC_SHA\n"
                     "rate_limit: {interval: 500ms, burst: 3}\n"
                     "basic_auth_users:\n  alice: " + std::string(kAlice) + "\n",
                 &web),
            "");
  ASSERT_TRUE(web.tls);
  EXPECT_EQ(web.tls->cert_file, dir_ + "/server.crt");
  EXPECT_EQ(web.tls->key_file, dir_ + "/server.key");
  EXPECT_EQ(web.tls->client_ca_file, dir_ + "/./ca.crt");
  EXPECT_EQ(web.tls->client_auth, ClientAuth::kVerifyClientCertIfGiven);
  EXPECT_EQ(web.tls->min_version, TlsVersion::kTls13);
  EXPECT_EQ(web.tls->cipher_suites,
            (std::vector<std::string>{"ECDHE-RSA AES-256-GCM AEAD",
                                      "RSA AES-128-CBC SHA1"}));
  EXPECT_EQ(web.rate_limit, (RateLimit{std::chrono::milliseconds(500), 3}));
  EXPECT_EQ(web.basic_auth_users,
            (std::map<std::string, std::string>{{"alice", kAlice}}));
  std::string error;
  EXPECT_NE(MakeHttpServer(web, &error), nullptr) << error;
}

TEST_F(WebConfigTest, MakeHttpServerNeedsAMatchingPairOfFiles) {
  const std::string junk = Write("junk.pem", "not a certificate\n");
  const struct {
    std::string cert, key, ca;
    const char* error;  // what the error starts with; "" for a server
  } cases[] = {
      {"server.crt", "server.key", "", ""},
      {"server.crt", "server.key", "ca.crt", ""},
      {"server.crt", "client.key", "", "cannot use "},
      {"junk.pem", "server.key", "", "cannot load "},
      {"server.crt", "server.key", "junk.pem", "cannot load "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.cert + " " + c.key + " " + c.ca);
    WebConfig web;
    web.tls = TlsServerConfig{dir_ + "/" + c.cert, dir_ + "/" + c.key,
                              c.ca.empty() ? "" : dir_ + "/" + c.ca,
                              ClientAuth::kRequireAndVerifyClientCert,
                              TlsVersion::kTls12, {}};
    std::string error;
    std::unique_ptr<HttpServer> server = MakeHttpServer(web, &error);
    EXPECT_EQ(server != nullptr, *c.error == '\0');
    EXPECT_TRUE(error.starts_with(c.error)) << error;
  }
  std::string error;
  EXPECT_NE(MakeHttpServer(WebConfig{}, &error), nullptr);
}

// The sample that the package ships and the README shows, beside the files
// it names: this loader, the TLS set-up and promtool all accept it, and its
// user's password is the one the comment gives.
TEST_F(WebConfigTest, TheShippedSampleIsAcceptedByUsAndByPromtool) {
  std::ifstream sample(QVE_SAMPLE_WEB_CONFIG);
  ASSERT_TRUE(sample);
  const std::string text((std::istreambuf_iterator<char>(sample)), {});
  WebConfig web;
  ASSERT_EQ(Load(text, &web), "");
  std::string error;
  EXPECT_NE(MakeHttpServer(web, &error), nullptr) << error;
  const BasicAuth auth(web.basic_auth_users);
  // "prometheus:change me"
  EXPECT_TRUE(auth.Allows("Basic cHJvbWV0aGV1czpjaGFuZ2UgbWU="));
  if (access("/usr/bin/promtool", X_OK) != 0) GTEST_SKIP() << "no promtool";
  const std::string check =
      "/usr/bin/promtool check web-config " + dir_ + "/web.yml >/dev/null 2>&1";
  EXPECT_EQ(std::system(check.c_str()), 0);
}

std::string Basic(const std::string& pair) {
  std::string encoded(4 * ((pair.size() + 2) / 3) + 1, '\0');
  const int n =
      EVP_EncodeBlock(reinterpret_cast<unsigned char*>(encoded.data()),
                      reinterpret_cast<const unsigned char*>(pair.data()),
                      static_cast<int>(pair.size()));
  encoded.resize(static_cast<size_t>(n));
  return "Basic " + encoded;
}

// Only a user with its password is allowed; a repeated pair, right or wrong,
// for a user or not, costs no second hash, and a malformed header none.
TEST(BasicAuthTest, AllowsOnlyAUserWithItsPasswordAndRemembersEachPair) {
  const BasicAuth auth({{"alice", kAlice}, {"bob", kBob}, {"carol", kCarol}});
  const struct {
    std::string header;
    bool allowed;
    size_t hashes;  // computed so far
  } steps[] = {
      {Basic("alice:s3cret pass"), true, 1},
      {"basic " + Basic("alice:s3cret pass").substr(6), true, 1},
      {Basic("bob:other"), true, 2},
      {Basic("carol:pa:ss"), true, 3},
      {Basic("alice:s3cret pas"), false, 4},
      {Basic("alice:s3cret pass "), false, 5},
      {Basic("alice:"), false, 6},
      {Basic(std::string("alice:s3cret pass\0tail", 22)), false, 6},
      {Basic("bob:s3cret pass"), false, 7},
      {Basic("mallory:s3cret pass"), false, 8},
      {Basic("alice"), false, 8},
      {Basic(":s3cret pass"), false, 9},
      {"Bearer " + Basic("alice:s3cret pass").substr(6), false, 9},
      {Basic("alice:s3cret pass").substr(0, 10), false, 9},
      {Basic("alice:s3cret pass") + "=", false, 9},
      {"Basic YWxp*2U6czNjcmV0IHBhc3M=", false, 9},
      {"", false, 9},
      {Basic("alice:wrong"), false, 10},
      {Basic("alice:wrong"), false, 10},
      {Basic("bob:s3cret pass"), false, 10},
      {Basic("bob:other"), true, 10},
      {Basic("mallory:other"), false, 11},
      {Basic("mallory:other"), false, 11},
  };
  for (const auto& step : steps) {
    EXPECT_EQ(auth.Allows(step.header), step.allowed) << step.header;
    EXPECT_EQ(auth.HashesComputed(), step.hashes) << step.header;
  }
  EXPECT_TRUE(BasicAuth({}).Allows(""));
}

// More wrong guesses than are remembered do not push out a scraper's pair.
TEST(BasicAuthTest, AFloodOfGuessesKeepsTheVerifiedPair) {
  const BasicAuth auth(std::map<std::string, std::string>{{"alice", kAlice}});
  ASSERT_TRUE(auth.Allows(Basic("alice:s3cret pass")));
  for (int i = 0; i < 1100; ++i) {
    auth.Allows(Basic("alice:guess" + std::to_string(i)));
  }
  const size_t hashes = auth.HashesComputed();
  EXPECT_EQ(hashes, 1101u);
  EXPECT_TRUE(auth.Allows(Basic("alice:s3cret pass")));
  EXPECT_FALSE(auth.Allows(Basic("alice:guess1099")));
  EXPECT_EQ(auth.HashesComputed(), hashes);
}

// Unknown users cost what the dearest known one costs.
TEST(BasicAuthTest, TheDecoyCostsAsMuchAsTheDearestUser) {
  constexpr const char* kCost5 =
      "$2b$05$abcdefghijklmnopqrstuu5s2v8.7Ij9X0dMqjpL8Og6CD2MgnQ5S";
  const struct {
    std::map<std::string, std::string> users;
    int cost;
  } cases[] = {
      {{}, 0},
      {{{"alice", kAlice}}, 4},
      {{{"alice", kAlice}, {"dave", kCost5}, {"bob", kBob}}, 5},
  };
  for (const auto& c : cases) {
    const BasicAuth auth(c.users);
    EXPECT_EQ(auth.DecoyCost(), c.cost);
    EXPECT_EQ(auth.Allows(Basic("mallory:x")), c.users.empty());
  }
}

}  // namespace
}  // namespace fetchlet::serve
