#pragma once

#include <openssl/bio.h>
#include <openssl/ssl.h>

#include <memory>
#include <string>

// Owners of OpenSSL's objects.
template <auto free>
struct OpensslFree {
    template <class Object>
    void operator()(Object* object) const {
        free(object);
    }
};
using Bio = std::unique_ptr<BIO, OpensslFree<BIO_free_all>>;  // with those that it was pushed onto
using SslContext = std::unique_ptr<SSL_CTX, OpensslFree<SSL_CTX_free>>;
using SslSession = std::unique_ptr<SSL, OpensslFree<SSL_free>>;

// Returns what was written to memory, a BIO of the kind BIO_s_mem.
std::string text_of(const Bio& memory);

// Returns the errors in the calling thread's queue of OpenSSL, as text, and empties the queue. Throws std::bad_alloc.
std::string openssl_error_text();
