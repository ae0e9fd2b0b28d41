#include "check/tls_check.h"

#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <memory>
#include <stdexcept>

#include "check/warning.h"
#include "config/server_config.h"
#include "net/tls_context.h"

namespace {

using File = std::unique_ptr<BIO, decltype(&BIO_free)>;
using Certificate = std::unique_ptr<X509, decltype(&X509_free)>;
using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;

File open_file(const std::string& path) {
    return {BIO_new_file(path.c_str(), "r"), BIO_free};
}

// Null when the file holds no certificate.
Certificate read_certificate() {
    const File file = open_file(server_config.use_pem_file ? server_config.pem_file : server_config.crt_file);
    return {file ? PEM_read_bio_X509(file.get(), nullptr, nullptr, nullptr) : nullptr, X509_free};
}

Key read_key() {
    const File file = open_file(server_config.use_pem_file ? server_config.pem_file : server_config.key_file);
    return {file ? PEM_read_bio_PrivateKey(file.get(), nullptr, nullptr, nullptr) : nullptr, EVP_PKEY_free};
}

std::string subject_of(const X509* certificate) {
    const File text(BIO_new(BIO_s_mem()), BIO_free);
    X509_NAME_print_ex(text.get(), X509_get_subject_name(certificate), 0, XN_FLAG_ONELINE & ~ASN1_STRFLGS_ESC_MSB);
    char* begin = nullptr;
    const long length = BIO_get_mem_data(text.get(), &begin);
    return {begin, static_cast<std::size_t>(length)};
}

int check_days_left(const X509* certificate) {
    int days = 0;
    int seconds = 0;
    ASN1_TIME_diff(&days, &seconds, nullptr, X509_get0_notAfter(certificate));
    if (days < 0 || seconds < 0) warn("the certificate has expired");
    if (X509_cmp_current_time(X509_get0_notBefore(certificate)) > 0) warn("the certificate is not valid yet");
    return days;
}

}  // namespace

std::string check_tls() {
    const Certificate certificate = read_certificate();
    const Key key = read_key();
    if (certificate && key && X509_check_private_key(certificate.get(), key.get()) != 1) {
        warn("the private key does not match the certificate: HTTPS will not work");
    } else {
        const std::string failure = create_ssl_context();
        free_ssl_context();
        if (!failure.empty()) throw std::runtime_error(failure);
    }
    if (!certificate) return "";
    const int days = check_days_left(certificate.get());
    return subject_of(certificate.get()) + ", " + std::to_string(days) + " days left";
}
