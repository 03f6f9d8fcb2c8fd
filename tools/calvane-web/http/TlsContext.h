#pragma once

#include <openssl/ssl.h>

#include <memory>
#include <string>

namespace calvane_web {

/// The certificate and the key of the server, and TLS 1.2 or 1.3.
///
/// Threads: New from any.
/// Errors:  std::runtime_error that names the file and OpenSSL's reason.
class TlsContext {
public:
    /// PEM files; the certificate's with those that lead to the root.
    TlsContext(const std::string& certificateFile, const std::string& keyFile);

    struct FreeSession {
        void operator()(SSL* session) const { SSL_free(session); }
    };
    using Session = std::unique_ptr<SSL, FreeSession>;
    /// The server's side of a connection.
    Session New(int descriptor) const;

private:
    struct Free {
        void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
    };
    std::unique_ptr<SSL_CTX, Free> context_;
};

} // namespace calvane_web
