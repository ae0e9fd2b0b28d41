#include "public/tls_contexts.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <sys/stat.h>

#include <exception>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "base/openssl.h"
#include "config/server_config.h"
#include "net/tls_context.h"

namespace {

constexpr unsigned char protocols[] = "\x08http/1.1";

// Takes the one protocol that there is. A client that wants only others is refused.
int choose_protocol(SSL*, const unsigned char** chosen, unsigned char* size, const unsigned char* offered,
                    unsigned offered_size, void*) {
    unsigned char* found = nullptr;
    const int result = SSL_select_next_proto(&found, size, protocols, sizeof protocols - 1, offered, offered_size);
    *chosen = found;
    return result == OPENSSL_NPN_NEGOTIATED ? SSL_TLSEXT_ERR_OK : SSL_TLSEXT_ERR_ALERT_FATAL;
}

void add_chain_file(SSL_CTX* context) {
    const Bio file(BIO_new_file(server_config.chain_file.c_str(), "r"));
    if (!file) throw std::runtime_error("Failed to load certificate bundle (CA chain)");
    while (X509* const certificate = PEM_read_bio_X509(file.get(), nullptr, nullptr, nullptr)) {
        SSL_CTX_add0_chain_cert(context, certificate);
    }
    ERR_clear_error();  // the end of the file
}

// What the files are that the context is made of: each change of one changes the text.
std::string stamp_of_files() {
    std::string stamp;
    for (const std::string* const name :
         {&server_config.pem_file, &server_config.crt_file, &server_config.key_file, &server_config.chain_file}) {
        struct stat status {};
        if (!name->empty()) stat(name->c_str(), &status);
        for (const auto number :
             {status.st_ctim.tv_sec, status.st_ctim.tv_nsec, static_cast<long>(status.st_ino), status.st_size}) {
            stamp += std::to_string(number) + " ";
        }
    }
    return stamp;
}

}  // namespace

SslContext make_public_context() {
    SslContext owner = make_ssl_context();
    SSL_CTX* const context = owner.get();
    // Unlike the exact server's: all certificates of the file, and those of chain_file, are sent.
    const std::string& file = server_config.use_pem_file ? server_config.pem_file : server_config.crt_file;
    if (SSL_CTX_use_certificate_chain_file(context, file.c_str()) != 1) {
        throw std::runtime_error("Failed to load certificate or private key");
    }
    if (!server_config.chain_file.empty()) add_chain_file(context);
    if (SSL_CTX_check_private_key(context) != 1) throw std::runtime_error("Private Key does not match the Certificate");
    SSL_CTX_set_options(context, SSL_OP_CIPHER_SERVER_PREFERENCE | SSL_OP_NO_RENEGOTIATION);
    SSL_CTX_set_mode(context, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER |
                                  SSL_MODE_RELEASE_BUFFERS | SSL_MODE_NO_AUTO_CHAIN);
    // Otherwise one read would go on for as long as records without content come.
    SSL_CTX_clear_mode(context, SSL_MODE_AUTO_RETRY);
    SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);  // tickets resume sessions and take no memory here
    SSL_CTX_set_alpn_select_cb(context, choose_protocol, nullptr);
    return owner;
}

TlsContexts::TlsContexts() : stamp(stamp_of_files()), context(make_public_context()) {}

std::shared_ptr<SSL_CTX> TlsContexts::current() const {
    const std::lock_guard guard(lock);
    return context;
}

bool TlsContexts::renew() {
    std::string present = stamp_of_files();
    const bool is_changed = present != stamp;
    if (!is_changed && !has_failed_before) return false;
    stamp = std::move(present);
    try {
        std::shared_ptr<SSL_CTX> renewed = make_public_context();
        const std::lock_guard guard(lock);
        context.swap(renewed);
    } catch (const std::exception&) {
        has_failed_before = true;  // the next attempt may have more luck, for instance with descriptors or memory
        if (is_changed) throw;
        return false;
    }
    has_failed_before = false;
    return true;
}
