// The TLS side of the web configuration: an OpenSSL context as
// tls_server_config says, inside cpp-httplib's TLS server.
#include <httplib.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <array>
#include <memory>
#include <string>

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

}  // namespace

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

}  // namespace fetchlet::serve
