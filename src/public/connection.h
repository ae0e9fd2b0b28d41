#pragma once

#include <openssl/types.h>
#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string_view>

// One accepted connection of the public site, for one request and its answer. Every wait has a limit: the request has
// to be whole within 10 seconds, and the answer must not rest for 60. An object belongs to one thread.
class Connection {
  public:
    // Takes over client_socket, which is non-blocking, and closes it at the end.
    explicit Connection(int client_socket);
    virtual ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // True when the client has sent something. Waits a moment: the kernel holds connections back until they have data,
    // but not when a flood makes it use SYN cookies.
    bool has_data() const;

    // Returns as recv does: the number of bytes, 0 at the client's end, -1 when the connection failed or the request
    // took too long.
    virtual ssize_t read(char* buffer, std::size_t size);

    // Sends bytes. Gives up when the connection fails or the client takes nothing for too long.
    virtual void write(std::string_view bytes);

    // Sends head and the first size bytes of file, in constant memory. Gives up like write. Throws std::runtime_error
    // when the file ends early.
    virtual void send_file(std::string_view head, int file, std::uint64_t size);

    // Says that bytes of the request may still come. The destructor then reads and drops them, as long as the time for
    // the request lasts: bytes that nobody has read would reset the connection before the client has read the answer.
    void expect_more() { is_more_expected = true; }

  protected:
    // Each waits for an event of poll. Returns false when the time is over.
    bool wait_for_request(short event) const;
    bool wait_for_progress(short event) const;

    const int client_socket;

  private:
    bool send_all(std::string_view bytes, int flags);

    const std::chrono::steady_clock::time_point request_deadline;
    bool is_more_expected = false;
};

// The same over TLS.
class TlsConnection : public Connection {
  public:
    // client_socket may still be blocking. Throws std::bad_alloc when no session can be made from context.
    TlsConnection(int client_socket, SSL_CTX* context);
    ~TlsConnection() override;

    // Makes the handshake. Returns false when it fails or takes too long; OpenSSL's error queue then has the reason.
    bool handshake();

    ssize_t read(char* buffer, std::size_t size) override;
    void write(std::string_view bytes) override;
    void send_file(std::string_view head, int file, std::uint64_t size) override;

  private:
    template <class Operation>
    int retry(Operation operation, bool (Connection::*wait)(short) const);
    bool write_piece(const char* bytes, std::size_t size);

    SSL* const session;
    bool is_broken = false;  // nothing more may be said on the session
};
