#include "net/tls_context.h"

#include <openssl/crypto.h>
#include <openssl/ssl.h>

#include "config/server_config.h"
#include "net/run_state.h"

namespace {

// One file with the key and the certificates. Intended: the key comes first here.
std::string load_pem_file(SSL_CTX* context) {
    const char* const file = server_config.pem_file.c_str();
    if (SSL_CTX_use_PrivateKey_file(context, file, SSL_FILETYPE_PEM) != 1) {
        return "Failed to load Private Key from PEM";
    }
    if (server_config.has_chain) {
        if (SSL_CTX_use_certificate_chain_file(context, file) <= 0) {
            return "Failed to load Certificate from PEM (CA chain)";
        }
    } else if (SSL_CTX_use_certificate_file(context, file, SSL_FILETYPE_PEM) != 1) {
        return "Failed to load Certificate from PEM";
    }
    if (SSL_CTX_check_private_key(context) == 0) return "Private Key does not match the Certificate";
    return "";
}

std::string load_separate_files(SSL_CTX* context) {
    if (SSL_CTX_use_certificate_file(context, server_config.crt_file.c_str(), SSL_FILETYPE_PEM) <= 0 ||
        SSL_CTX_use_PrivateKey_file(context, server_config.key_file.c_str(), SSL_FILETYPE_PEM) <= 0) {
        return "Failed to load certificate or private key";
    }
    // Intended: chain_file is loaded as trusted certificates, of which OpenSSL may send those that issued the
    // certificate. Nothing compares the key with the certificate here; OpenSSL itself refuses a key of the
    // certificate's type that does not match it.
    if (server_config.has_chain &&
        SSL_CTX_load_verify_locations(context, server_config.chain_file.c_str(), nullptr) <= 0) {
        return "Failed to load certificate bundle (CA chain)";
    }
    return "";
}

std::string configure(SSL_CTX* context) {
    const std::string failure = server_config.use_pem_file ? load_pem_file(context) : load_separate_files(context);
    if (!failure.empty()) return failure;
    if (SSL_CTX_set_cipher_list(context, server_config.cipher_list.c_str()) == 0) {
        return "Error installing cipher list: " + server_config.cipher_list;
    }
    SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
    SSL_CTX_set_max_proto_version(context, TLS1_3_VERSION);
    return "";
}

}  // namespace

std::string create_ssl_context() {
    OPENSSL_init_ssl(0, nullptr);
    OPENSSL_init_crypto(OPENSSL_INIT_ADD_ALL_CIPHERS | OPENSSL_INIT_ADD_ALL_DIGESTS, nullptr);
    OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);

    SSL_CTX* const context = SSL_CTX_new(TLS_server_method());
    if (context == nullptr) return "Failed to create SSL context";
    if (server_config.public_site && SSL_CTX_up_ref(context) == 1) public_ssl_context = context;
    ssl_context = context;
    const std::string failure = configure(context);
    if (!failure.empty()) free_ssl_context();
    return failure;
}

void free_ssl_context() {
    SSL_CTX_free(ssl_context.exchange(nullptr));
}
