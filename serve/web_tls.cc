// The TLS side of the web configuration: an OpenSSL context as
// tls_server_config says, for the listener.
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <array>
#include <memory>
#include <string>

#include "serve/http_server.h"
#include "serve/web_config.h"

namespace fetchlet::serve {
namespace {

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

// The intermediate list of the Mozilla guidelines: forward secrecy and
// AEAD only, for TLS 1.2 (TLS 1.3 has nothing else).
constexpr const char* kForwardSecretSuites =
    "ECDHE-ECDSA-AES128-GCM-SHA256:ECDHE-RSA-AES128-GCM-SHA256:"
    "ECDHE-ECDSA-AES256-GCM-SHA384:ECDHE-RSA-AES256-GCM-SHA384:"
    "ECDHE-ECDSA-CHACHA20-POLY1305:ECDHE-RSA-CHACHA20-POLY1305:"
    "DHE-RSA-AES128-GCM-SHA256:DHE-RSA-AES256-GCM-SHA384:"
    "DHE-RSA-CHACHA20-POLY1305";

// Any bytes, the same for every connection of this server: OpenSSL refuses
// to resume a session with a client certificate without them.
constexpr unsigned char kSessionContext[] = "fetchlet serve";

std::string SetUpSuites(const TlsServerConfig& tls, SSL_CTX* ctx) {
  std::string suites;
  for (const std::string& suite : tls.cipher_suites) {
    suites += (suites.empty() ? "" : ":") + suite;
  }
  if (suites.empty()) suites = kForwardSecretSuites;
  if (SSL_CTX_set_cipher_list(ctx, suites.c_str()) != 1) {
    return OpenSslError("cannot use the cipher suites " + suites);
  }
  SSL_CTX_set_dh_auto(ctx, 1);
  SSL_CTX_set_session_id_context(ctx, kSessionContext,
                                 sizeof kSessionContext - 1);
  return "";
}

// Sets up ctx as tls says; "" on success, else why not.
std::string SetUpContext(const TlsServerConfig& tls, SSL_CTX* ctx) {
  SSL_CTX_set_options(ctx, SSL_OP_NO_COMPRESSION | SSL_OP_NO_RENEGOTIATION |
                               SSL_OP_CIPHER_SERVER_PREFERENCE);
  SSL_CTX_set_mode(ctx, SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  if (std::string why = SetUpSuites(tls, ctx); !why.empty()) return why;
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

}  // namespace

std::unique_ptr<HttpServer> MakeHttpServer(const WebConfig& web,
                                           std::string* error) {
  if (!web.tls) return std::make_unique<HttpServer>();
  SSL_CTX* ctx = SSL_CTX_new(TLS_server_method());
  if (ctx == nullptr) {
    *error = OpenSslError("cannot make a TLS context");
    return nullptr;
  }
  std::string why = SetUpContext(*web.tls, ctx);
  if (!why.empty()) {
    SSL_CTX_free(ctx);
    *error = why;
    return nullptr;
  }
  return std::make_unique<HttpServer>(ctx);
}

}  // namespace fetchlet::serve
