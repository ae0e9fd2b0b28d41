#pragma once

#include <gtest/gtest.h>
#include <openssl/ssl.h>
#include <unistd.h>

#include <string>

// One TLS connection of exactly one version, over a connected socket, which it closes without telling the other side.
struct TlsClient {
    explicit TlsClient(int connected_socket, int version = TLS1_3_VERSION) : client_socket(connected_socket) {
        SSL_set_min_proto_version(session, version);
        SSL_set_max_proto_version(session, version);
        SSL_set_cipher_list(session, "ALL:@SECLEVEL=0");  // otherwise nothing older than TLS 1.2 is even offered
        SSL_set_fd(session, client_socket);
    }
    ~TlsClient() {
        SSL_free(session);
        close(client_socket);
    }
    TlsClient(const TlsClient&) = delete;
    TlsClient& operator=(const TlsClient&) = delete;

    bool shake_hands() { return SSL_connect(session) == 1; }

    // Sends request; true once the answer begins.
    bool ask(const std::string& request) {
        char byte;
        SSL_write(session, request.data(), int(request.size()));
        return SSL_peek(session, &byte, 1) == 1;
    }

    // Returns all that comes until the server announces the end.
    std::string rest() {
        std::string text, buffer(65536, ' ');
        int count;
        while ((count = SSL_read(session, buffer.data(), int(buffer.size()))) > 0)
            text.append(buffer, 0, std::size_t(count));
        EXPECT_EQ(SSL_get_error(session, count), SSL_ERROR_ZERO_RETURN) << text;
        return text;
    }

    std::string answer(const std::string& request) {
        EXPECT_TRUE(shake_hands());
        ask(request);
        return rest();
    }

    static inline SSL_CTX* const context = SSL_CTX_new(TLS_client_method());
    const int client_socket;
    SSL* const session = SSL_new(context);
};
