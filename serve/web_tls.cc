// The TLS side of the web configuration, as the listener's GnuTLS takes
// it: PEM texts checked here, so that a wrong file is reported at start,
// and one priority string for the versions and suites.
#include <gnutls/gnutls.h>
#include <gnutls/x509.h>

#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <string>

#include "serve/http_server.h"
#include "serve/web_config.h"

namespace fetchlet::serve {
namespace {

// TLS 1.3's suites, and for TLS 1.2 forward secrecy and AEAD only.
constexpr const char* kAeadCiphers =
    "+AES-128-GCM:+AES-256-GCM:+CHACHA20-POLY1305";
constexpr const char* kForwardSecretKx = "+ECDHE-ECDSA:+ECDHE-RSA";

bool ReadFile(const std::string& path, std::string* text) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  *text = out.str();
  return in.good() || in.eof();
}

gnutls_datum_t Datum(const std::string& text) {
  return {reinterpret_cast<unsigned char*>(const_cast<char*>(text.data())),
          static_cast<unsigned>(text.size())};
}

std::string Why(const std::string& what, int code) {
  return what + ": " + gnutls_strerror(code);
}

// The number of certificates in pem, or a GnuTLS error.
int CountCertificates(const std::string& pem) {
  gnutls_x509_crt_t* list = nullptr;
  unsigned count = 0;
  const gnutls_datum_t data = Datum(pem);
  const int result =
      gnutls_x509_crt_list_import2(&list, &count, &data, GNUTLS_X509_FMT_PEM, 0);
  if (result < 0) return result;
  for (unsigned i = 0; i < count; ++i) gnutls_x509_crt_deinit(list[i]);
  gnutls_free(list);
  return count == 0 ? GNUTLS_E_NO_CERTIFICATE_FOUND : static_cast<int>(count);
}

// "" when cert and key are a pair, else why not.
std::string CheckPair(const std::string& cert, const std::string& key) {
  gnutls_certificate_credentials_t credentials = nullptr;
  if (gnutls_certificate_allocate_credentials(&credentials) < 0) {
    return "cannot allocate TLS credentials";
  }
  const gnutls_datum_t cert_data = Datum(cert);
  const gnutls_datum_t key_data = Datum(key);
  const int result = gnutls_certificate_set_x509_key_mem2(
      credentials, &cert_data, &key_data, GNUTLS_X509_FMT_PEM, nullptr, 0);
  gnutls_certificate_free_credentials(credentials);
  return result < 0 ? gnutls_strerror(result) : "";
}

// Each named suite allows its key exchange, cipher and MAC; GnuTLS combines
// what it is allowed, so a suite's AEAD siblings with TLS 1.3's ciphers
// stay allowed too.
std::string Suites(const std::vector<std::string>& suites) {
  if (suites.empty()) {
    return std::string(":-CIPHER-ALL:") + kAeadCiphers +
           ":-MAC-ALL:+AEAD:-KX-ALL:" + kForwardSecretKx;
  }
  std::string kx, ciphers = kAeadCiphers, macs = "+AEAD";
  std::set<std::string> seen;
  for (const std::string& suite : suites) {
    std::istringstream parts(suite);
    std::string part;
    for (std::string* list : {&kx, &ciphers, &macs}) {
      if (parts >> part && seen.insert(part).second) {
        *list += (list->empty() ? "+" : ":+") + part;
      }
    }
  }
  return ":-CIPHER-ALL:" + ciphers + ":-MAC-ALL:" + macs + ":-KX-ALL:" + kx;
}

std::string Priorities(const TlsServerConfig& tls) {
  std::string versions = "-VERS-ALL:+VERS-TLS1.3";
  if (tls.min_version == TlsVersion::kTls12) versions += ":+VERS-TLS1.2";
  return "SECURE128:" + versions + Suites(tls.cipher_suites) +
         ":%SERVER_PRECEDENCE";
}

// The server's TLS from the files tls names, or why not in *error.
std::optional<ServerTls> LoadTls(const TlsServerConfig& tls,
                                 std::string* error) {
  ServerTls out;
  if (!ReadFile(tls.cert_file, &out.cert_pem) ||
      CountCertificates(out.cert_pem) < 0) {
    *error = Why("cannot load " + tls.cert_file,
                 CountCertificates(out.cert_pem));
    return std::nullopt;
  }
  if (!ReadFile(tls.key_file, &out.key_pem)) {
    *error = "cannot load " + tls.key_file;
    return std::nullopt;
  }
  if (std::string why = CheckPair(out.cert_pem, out.key_pem); !why.empty()) {
    *error = "cannot use " + tls.key_file + " with " + tls.cert_file + ": " + why;
    return std::nullopt;
  }
  if (!tls.client_ca_file.empty() &&
      (!ReadFile(tls.client_ca_file, &out.trust_pem) ||
       CountCertificates(out.trust_pem) < 0)) {
    *error = Why("cannot load " + tls.client_ca_file,
                 CountCertificates(out.trust_pem));
    return std::nullopt;
  }
  out.priorities = Priorities(tls);
  const char* where = nullptr;
  gnutls_priority_t priority = nullptr;
  const int result = gnutls_priority_init(&priority, out.priorities.c_str(), &where);
  if (result < 0) {
    *error = Why("cannot use the TLS priorities at '" + std::string(where) + "'",
                 result);
    return std::nullopt;
  }
  gnutls_priority_deinit(priority);
  const ClientAuth auth = tls.client_auth;
  out.request_cert = auth != ClientAuth::kNoClientCert;
  out.require_cert = auth == ClientAuth::kRequireAnyClientCert ||
                     auth == ClientAuth::kRequireAndVerifyClientCert;
  out.verify_cert = auth == ClientAuth::kVerifyClientCertIfGiven ||
                    auth == ClientAuth::kRequireAndVerifyClientCert;
  return out;
}

}  // namespace

std::unique_ptr<HttpServer> MakeHttpServer(const WebConfig& web,
                                           std::string* error) {
  if (!web.tls) return std::make_unique<HttpServer>();
  std::optional<ServerTls> tls = LoadTls(*web.tls, error);
  if (!tls) return nullptr;
  return std::make_unique<HttpServer>(std::move(tls));
}

}  // namespace fetchlet::serve
