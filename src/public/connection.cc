#include "public/connection.h"

#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <new>

namespace {

constexpr std::size_t record_size = 16 << 10;  // the most that one record of TLS carries
// A client can send records without content for ever, and each costs us work.
constexpr int most_empty_reads = 1000;

SSL* make_session(SSL_CTX* context, int socket) {
    if (context == nullptr) return nullptr;
    SSL* const session = SSL_new(context);
    if (session == nullptr || SSL_set_fd(session, socket) == 0) {
        SSL_free(session);
        throw std::bad_alloc();
    }
    SSL_set_accept_state(session);
    return session;
}

// While an object lives the system sends only full segments, so that the records of a file need fewer of them.
class FullSegments {
  public:
    explicit FullSegments(int connected_socket) : socket(connected_socket) { set(1); }
    ~FullSegments() { set(0); }
    FullSegments(const FullSegments&) = delete;
    FullSegments& operator=(const FullSegments&) = delete;

  private:
    void set(int value) const { setsockopt(socket, IPPROTO_TCP, TCP_CORK, &value, sizeof value); }

    const int socket;
};

}  // namespace

Connection::Connection(Descriptor accepted_socket, SSL_CTX* context)
    : client_socket(std::move(accepted_socket)), session(make_session(context, client_socket.get())), wanted(EPOLLIN) {}

Connection::~Connection() {
    SSL_free(session);
}

ssize_t Connection::read(char* buffer, std::size_t size) {
    if (session == nullptr) return plain_result(recv(client_socket.get(), buffer, size, 0), EPOLLIN);
    ERR_clear_error();
    const int count = SSL_read(session, buffer, static_cast<int>(size));
    if (count > 0) empty_reads = 0;
    if (count <= 0 && ++empty_reads > most_empty_reads) return has_failed;
    return tls_result(count);
}

ssize_t Connection::write(std::string_view bytes, bool more) {
    if (session == nullptr) {
        const int flags = MSG_NOSIGNAL | (more ? MSG_MORE : 0);
        return plain_result(send(client_socket.get(), bytes.data(), bytes.size(), flags), EPOLLOUT);
    }
    ERR_clear_error();
    const ssize_t count = tls_result(SSL_write(session, bytes.data(), static_cast<int>(bytes.size())));
    return count == 0 ? has_failed : count;
}

ssize_t Connection::send_file(int file, std::uint64_t offset, std::uint64_t size) {
    auto position = static_cast<off_t>(offset);
    if (session == nullptr) {
        const ssize_t count = plain_result(sendfile(client_socket.get(), file, &position, size), EPOLLOUT);
        return count == 0 ? has_failed : count;
    }
    const FullSegments full_segments(client_socket.get());
    char piece[record_size];
    std::uint64_t sent = 0;
    while (sent < size) {
        // After would_wait the same piece is read again: OpenSSL has it already and asks only for the same size.
        const ssize_t count = pread(file, piece, std::min<std::uint64_t>(size - sent, sizeof piece), position);
        const ssize_t taken = count > 0 ? write({piece, static_cast<std::size_t>(count)}, false) : has_failed;
        if (taken < 0) return sent > 0 ? static_cast<ssize_t>(sent) : taken;
        position += taken;
        sent += static_cast<std::uint64_t>(taken);
    }
    return static_cast<ssize_t>(sent);
}

void Connection::say_goodbye() {
    if (session != nullptr && !is_broken && !is_in_handshake()) SSL_shutdown(session);
}

void Connection::end_sending() {
    say_goodbye();
    shutdown(client_socket.get(), SHUT_WR);
}

ssize_t Connection::drop() {
    char dropped[record_size];
    return plain_result(recv(client_socket.get(), dropped, sizeof dropped, 0), EPOLLIN);
}

bool Connection::has_more() const {
    return session != nullptr && SSL_pending(session) > 0;
}

bool Connection::is_in_handshake() const {
    return session != nullptr && !SSL_is_init_finished(session);
}

int Connection::count_unacknowledged() const {
    int count = 0;
    ioctl(client_socket.get(), SIOCOUTQ, &count);
    return count;
}

std::string Connection::tls_failure() {
    const unsigned long error = ERR_peek_last_error();
    const char* const reason = ERR_reason_error_string(error);
    return reason != nullptr && ERR_GET_REASON(error) != SSL_R_UNEXPECTED_EOF_WHILE_READING ? reason : "";
}

ssize_t Connection::plain_result(ssize_t result, std::uint32_t event) {
    if (result >= 0) return result;
    if (errno != EAGAIN && errno != EINTR) return has_failed;
    wanted = event;
    return would_wait;
}

ssize_t Connection::tls_result(int result) {
    if (result > 0) return result;
    switch (SSL_get_error(session, result)) {
        case SSL_ERROR_WANT_READ:
            wanted = EPOLLIN;
            return would_wait;
        case SSL_ERROR_WANT_WRITE:
            wanted = EPOLLOUT;
            return would_wait;
        case SSL_ERROR_ZERO_RETURN:
            return 0;
        default:
            is_broken = true;
            return has_failed;
    }
}
