#pragma once

#include <string>
#include <string_view>

// The version text is stored encrypted, beside the key that decrypts it. Nothing here may be used once a second thread
// exists.

// The third character of the stored key text. It is stored three steps too high; the key can be read once the entry
// point has lowered this character three times.
extern char* const key_fix_pointer;

// Prints the version text and a line end on standard output and flushes. If the text cannot be decrypted, prints
// nothing and raises SIGQUIT in this process.
void print_version();

// Decodes text, which is base64 on one line. Invalid base64 gives fewer bytes or none. Throws std::length_error when
// OpenSSL reports an error.
std::string base64_decode(std::string_view text);

// Decrypts ciphertext (OAEP padding) with the RSA private key in key_pem. Throws std::runtime_error with an empty text
// when that fails.
std::string rsa_decrypt_private(std::string_view ciphertext, std::string_view key_pem);
