#include "config/pem.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include "base/openssl.h"

namespace {

int count_certificates(BIO* file) {
    int count = 0;
    for (;;) {
        X509* const certificate = PEM_read_bio_X509(file, nullptr, nullptr, nullptr);
        if (certificate != nullptr) {
            X509_free(certificate);
            ++count;
        } else if (BIO_ctrl(file, BIO_CTRL_EOF, 0, nullptr) != 0) {
            return count;
        } else {
            // Not a certificate: discard a piece and try again, until the file ends or cannot be read.
            char discarded[1024];
            if (BIO_read(file, discarded, sizeof discarded) <= 0) return count;
        }
    }
}

}  // namespace

PemContents inspect_pem(const std::string& path) {
    PemContents contents;
    Bio file(BIO_new_file(path.c_str(), "r"));
    if (!file) return contents;
    const int certificates = count_certificates(file.get());
    contents.has_certificate = certificates >= 1;
    contents.has_chain = certificates > 1;

    file.reset(BIO_new_file(path.c_str(), "r"));
    EVP_PKEY* const key = PEM_read_bio_PrivateKey(file.get(), nullptr, nullptr, nullptr);
    contents.has_key = key != nullptr;
    EVP_PKEY_free(key);
    return contents;
}
