#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "base/openssl.h"

// The TLS context of a public server, which follows its certificate. Callable from any thread.
class TlsContexts {
  public:
    // Throws std::runtime_error with the text to log when the configured files or ciphers cannot be used.
    TlsContexts();

    // The context for a new connection. Never null.
    std::shared_ptr<SSL_CTX> current() const;

    // Makes a new context when the files have changed, or could not be used the last time. Returns true when there is
    // one. Throws std::runtime_error, once for each change, when the files cannot be used; the context then stays as it
    // is. To be called by one thread.
    bool renew();

  private:
    std::string stamp;               // of the files that were tried last; for the thread that renews
    bool has_failed_before = false;  // likewise
    mutable std::mutex lock;         // guards the context
    std::shared_ptr<SSL_CTX> context;
};

// Makes the context of a public server from the settings. Throws std::runtime_error with the text to log.
SslContext make_public_context();
