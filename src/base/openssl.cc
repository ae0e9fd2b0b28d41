#include "base/openssl.h"

#include <openssl/err.h>

std::string text_of(const Bio& memory) {
    char* begin = nullptr;
    const long length = BIO_get_mem_data(memory.get(), &begin);
    return {begin, static_cast<std::size_t>(length)};
}

std::string openssl_error_text() {
    const Bio memory(BIO_new(BIO_s_mem()));
    if (!memory) return "Failed to allocate BIO";
    ERR_print_errors(memory.get());
    return text_of(memory);
}
