#include "http/TlsContext.h"

#include <openssl/err.h>

#include <array>
#include <stdexcept>

namespace calvane_web {
namespace {

void Require(bool done, const std::string& what) {
    if (!done) {
        std::array<char, 256> reason{};
        ERR_error_string_n(ERR_get_error(), reason.data(), reason.size());
        throw std::runtime_error(what + ": " + reason.data());
    }
}

} // namespace

TlsContext::TlsContext(const std::string& certificateFile, const std::string& keyFile)
    : context_(SSL_CTX_new(TLS_server_method())) {
    Require(context_ != nullptr, "Cannot set TLS up");
    SSL_CTX* const context = context_.get();
    SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
    SSL_CTX_set_options(context, SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION);
    // Buffers of connections that wait for a request are given back.
    SSL_CTX_set_mode(context, SSL_MODE_RELEASE_BUFFERS | SSL_MODE_ENABLE_PARTIAL_WRITE |
                                  SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    Require(SSL_CTX_use_certificate_chain_file(context, certificateFile.c_str()) == 1,
            "Cannot use the certificate of " + certificateFile);
    Require(SSL_CTX_use_PrivateKey_file(context, keyFile.c_str(), SSL_FILETYPE_PEM) == 1,
            "Cannot use the key of " + keyFile);
    Require(SSL_CTX_check_private_key(context) == 1,
            "The key of " + keyFile + " is not that of the certificate of " + certificateFile);
}

TlsContext::Session TlsContext::New(int descriptor) const {
    Session session(SSL_new(context_.get()));
    Require(session != nullptr && SSL_set_fd(session.get(), descriptor) == 1, "Cannot begin TLS");
    SSL_set_accept_state(session.get());
    return session;
}

} // namespace calvane_web
