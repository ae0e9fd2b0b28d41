#include "net/tls_context.h"

#include <openssl/crypto.h>

#include "config/server_config.h"
#include "net/run_state.h"
#include "net/server.h"

namespace {

// One file with the key and the certificates. Intended: the key comes first here.
void load_pem_file(SSL_CTX* context) {
    const char* const file = server_config.pem_file.c_str();
    if (SSL_CTX_use_PrivateKey_file(context, file, SSL_FILETYPE_PEM) != 1) {
        throw SetUpError("Failed to load Private Key from PEM");
    }
    if (server_config.has_chain) {
        if (SSL_CTX_use_certificate_chain_file(context, file) <= 0) {
            throw SetUpError("Failed to load Certificate from PEM (CA chain)");
        }
    } else if (SSL_CTX_use_certificate_file(context, file, SSL_FILETYPE_PEM) != 1) {
        throw SetUpError("Failed to load Certificate from PEM");
    }
    if (SSL_CTX_check_private_key(context) == 0) throw SetUpError("Private Key does not match the Certificate");
}

void load_separate_files(SSL_CTX* context) {
    if (SSL_CTX_use_certificate_file(context, server_config.crt_file.c_str(), SSL_FILETYPE_PEM) <= 0 ||
        SSL_CTX_use_PrivateKey_file(context, server_config.key_file.c_str(), SSL_FILETYPE_PEM) <= 0) {
        throw SetUpError("Failed to load certificate or private key");
    }
    // Intended: chain_file is loaded as trusted certificates, of which OpenSSL may send those that issued the
    // certificate. Nothing compares the key with the certificate here; OpenSSL itself refuses a key of the
    // certificate's type that does not match it.
    if (server_config.has_chain &&
        SSL_CTX_load_verify_locations(context, server_config.chain_file.c_str(), nullptr) <= 0) {
        throw SetUpError("Failed to load certificate bundle (CA chain)");
    }
}

}  // namespace

SslContext make_ssl_context() {
    OPENSSL_init_ssl(0, nullptr);
    OPENSSL_init_crypto(OPENSSL_INIT_ADD_ALL_CIPHERS | OPENSSL_INIT_ADD_ALL_DIGESTS, nullptr);
    OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);

    SslContext context(SSL_CTX_new(TLS_server_method()));
    if (!context) throw SetUpError("Failed to create SSL context");
    if (server_config.use_pem_file) {
        load_pem_file(context.get());
    } else {
        load_separate_files(context.get());
    }
    if (SSL_CTX_set_cipher_list(context.get(), server_config.cipher_list.c_str()) == 0) {
        throw SetUpError("Error installing cipher list: " + server_config.cipher_list);
    }
    SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION);
    SSL_CTX_set_max_proto_version(context.get(), TLS1_3_VERSION);
    return context;
}

void free_ssl_context() {
    SSL_CTX_free(ssl_context.exchange(nullptr));
}
