#pragma once

#include <openssl/types.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "base/descriptor.h"

// What read, write and send_file return instead of a number of bytes.
inline constexpr ssize_t would_wait = -1;  // nothing can be done before the event that wanted_event names
inline constexpr ssize_t has_failed = -2;  // nothing more can be done

// One accepted connection, plain or over TLS. Never waits. An object belongs to one thread.
class Connection {
  public:
    // Takes over a socket that does not wait. With a context the connection speaks TLS; its handshake is made by the
    // first calls of read. Throws std::bad_alloc.
    Connection(Descriptor accepted_socket, SSL_CTX* context);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // Returns the number of bytes read, 0 at the client's end.
    ssize_t read(char* buffer, std::size_t size);

    // Returns how many bytes were taken. After would_wait the next call has to begin with the same bytes, if any. more
    // says that bytes follow at once.
    ssize_t write(std::string_view bytes, bool more);

    // Sends from size bytes of file at offset; returns like write. has_failed also when the file ends there.
    ssize_t send_file(int file, std::uint64_t offset, std::uint64_t size);

    // Tells the client over TLS that the connection ends here; the client's own notification is not awaited.
    void say_goodbye();

    // Says goodbye and sends nothing more. The client may still be sending.
    void end_sending();

    // Reads and drops what the client still sends, past TLS. Returns like read.
    ssize_t drop();

    // True when bytes lie in the session, of which no event tells.
    bool has_more() const;
    // EPOLLIN or EPOLLOUT, for the call that returned would_wait.
    std::uint32_t wanted_event() const { return wanted; }
    // True when TLS is still being agreed on.
    bool is_in_handshake() const;
    int socket() const { return client_socket.get(); }
    // Bytes that the client's side has not acknowledged yet.
    int count_unacknowledged() const;

    // The reason why TLS failed, "" when the client just went away.
    static std::string tls_failure();

  private:
    ssize_t plain_result(ssize_t result, std::uint32_t event);
    ssize_t tls_result(int result);

    const Descriptor client_socket;
    SSL* const session;  // null for a plain connection
    std::uint32_t wanted;
    int empty_reads = 0;     // since the last byte that was for us
    bool is_broken = false;  // the session must not be used any more
};
