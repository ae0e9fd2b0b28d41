#pragma once

#include <string>
#include <string_view>

// The version text is stored encrypted, with the key that opens it beside it. Single-threaded: used before any thread
// exists.

// The third character of the stored key text, which is stored three steps too high. The key is of use once the entry
// point has lowered it three times.
extern char* const key_fix_pointer;

// Prints the version text and a line end on standard output and flushes. If it cannot be read, nothing is printed and
// SIGQUIT is raised in this process.
void print_version();

// Returns the bytes that text, base64 on one line, stands for. What is no base64 gives fewer
// bytes or none; throws std::length_error when OpenSSL reports an error.
std::string base64_decode(std::string_view text);

// Opens ciphertext (OAEP padding) with the RSA private key in key_pem. Throws std::runtime_error with an empty text.
std::string rsa_decrypt_private(std::string_view ciphertext, std::string_view key_pem);
