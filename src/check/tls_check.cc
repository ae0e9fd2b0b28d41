#include "check/tls_check.h"

#include <openssl/x509.h>

#include "base/openssl.h"
#include "check/warning.h"
#include "config/server_config.h"
#include "net/tls_context.h"
#include "public/tls_contexts.h"

namespace {

std::string subject_of(const X509* certificate) {
    const Bio text(BIO_new(BIO_s_mem()));
    X509_NAME_print_ex(text.get(), X509_get_subject_name(certificate), 0, XN_FLAG_ONELINE & ~ASN1_STRFLGS_ESC_MSB);
    return text_of(text);
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
    const SslContext context = server_config.public_site ? make_public_context() : make_ssl_context();
    if (SSL_CTX_check_private_key(context.get()) != 1) {
        warn("the private key is not of the certificate's type: HTTPS will not work");
        return "";
    }
    const X509* const certificate = SSL_CTX_get0_certificate(context.get());
    const int days = check_days_left(certificate);
    return subject_of(certificate) + ", " + std::to_string(days) + " days left";
}
