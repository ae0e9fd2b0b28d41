#pragma once

#include <string>

// What a PEM file holds. All false when it cannot be opened.
struct PemContents {
    bool has_chain = false;  // more than one certificate
    bool has_key = false;    // a private key that needs no pass phrase
    bool has_certificate = false;
};

// Looks through the PEM file at path. Callable from any thread; leaves its errors in OpenSSL's error queue.
PemContents inspect_pem(const std::string& path);
