#include "public/connection.h"

#include <fcntl.h>
#include <linux/sockios.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <stdexcept>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds first_bytes_time{200};
constexpr std::chrono::seconds request_time{10};
constexpr std::chrono::seconds progress_time{60};
constexpr std::chrono::seconds progress_check_time{1};
constexpr std::size_t piece_size = 64 << 10;

// Returns false when nothing has happened by the deadline.
bool wait_until(int client_socket, short event, Clock::time_point deadline) {
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) return false;
        pollfd entry{client_socket, event, 0};
        if (poll(&entry, 1, static_cast<int>(left)) > 0) return true;
    }
}

// Bytes that the client has not received yet.
int count_unsent(int client_socket) {
    int count = 0;
    ioctl(client_socket, SIOCOUTQ, &count);
    return count;
}

std::runtime_error early_end() {
    return std::runtime_error("The file ended before its size");
}

}  // namespace

Connection::Connection(int accepted_socket)
    : client_socket(accepted_socket), request_deadline(Clock::now() + request_time) {}

Connection::~Connection() {
    if (is_more_expected) {
        shutdown(client_socket, SHUT_WR);
        char dropped[4096];
        while (Clock::now() < request_deadline && Connection::read(dropped, sizeof dropped) > 0) {
        }
    }
    close(client_socket);
}

bool Connection::has_data() const {
    char byte;
    const auto peek = [&] { return recv(client_socket, &byte, 1, MSG_PEEK); };
    const ssize_t count = peek();
    if (count != -1 || errno != EAGAIN) return count == 1;
    return wait_until(client_socket, POLLIN, Clock::now() + first_bytes_time) && peek() == 1;
}

ssize_t Connection::read(char* buffer, std::size_t size) {
    for (;;) {
        const ssize_t count = recv(client_socket, buffer, size, 0);
        if (count >= 0) return count;
        if (errno != EAGAIN || !wait_for_request(POLLIN)) return -1;
    }
}

void Connection::write(std::string_view bytes) {
    send_all(bytes, 0);
}

void Connection::send_file(std::string_view head, int file, std::uint64_t size) {
    if (!send_all(head, size > 0 ? MSG_MORE : 0)) return;
    while (size > 0) {
        const ssize_t count = sendfile(client_socket, file, nullptr, size);
        if (count == 0) throw early_end();
        if (count > 0) {
            size -= static_cast<std::uint64_t>(count);
        } else if (errno != EAGAIN || !wait_for_progress(POLLOUT)) {
            return;
        }
    }
}

bool Connection::wait_for_request(short event) const {
    return wait_until(client_socket, event, request_deadline);
}

bool Connection::wait_for_progress(short event) const {
    int unsent = count_unsent(client_socket);
    Clock::time_point deadline = Clock::now() + progress_time;
    while (!wait_until(client_socket, event, Clock::now() + progress_check_time)) {
        // A slow client may have taken something without making room for a whole piece.
        const int still_unsent = count_unsent(client_socket);
        if (still_unsent < unsent) {
            unsent = still_unsent;
            deadline = Clock::now() + progress_time;
        } else if (Clock::now() >= deadline) {
            return false;
        }
    }
    return true;
}

bool Connection::send_all(std::string_view bytes, int flags) {
    while (!bytes.empty()) {
        const ssize_t count = send(client_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL | flags);
        if (count >= 0) {
            bytes.remove_prefix(static_cast<std::size_t>(count));
        } else if (errno != EAGAIN || !wait_for_progress(POLLOUT)) {
            return false;
        }
    }
    return true;
}

TlsConnection::TlsConnection(int accepted_socket, SSL_CTX* context)
    : Connection(accepted_socket), session(SSL_new(context)) {
    fcntl(client_socket, F_SETFL, O_NONBLOCK);
    if (session == nullptr || SSL_set_fd(session, client_socket) == 0) {
        SSL_free(session);
        throw std::bad_alloc();
    }
}

TlsConnection::~TlsConnection() {
    const auto notify = [this] { return SSL_shutdown(session) == -1 ? -1 : 1; };  // the client need not answer
    if (!is_broken) retry(notify, &TlsConnection::wait_for_progress);
    SSL_free(session);
}

bool TlsConnection::handshake() {
    return retry([this] { return SSL_accept(session); }, &TlsConnection::wait_for_request) == 1;
}

ssize_t TlsConnection::read(char* buffer, std::size_t size) {
    const auto read_once = [&] { return SSL_read(session, buffer, static_cast<int>(size)); };
    const int count = retry(read_once, &TlsConnection::wait_for_request);
    if (count > 0) return count;
    return SSL_get_error(session, count) == SSL_ERROR_ZERO_RETURN ? 0 : -1;
}

void TlsConnection::write(std::string_view bytes) {
    write_piece(bytes.data(), bytes.size());
}

void TlsConnection::send_file(std::string_view head, int file, std::uint64_t size) {
    char piece[piece_size];
    std::size_t filled = head.copy(piece, sizeof piece);  // a head is far shorter than a piece
    for (;;) {
        const std::size_t wanted = std::min<std::uint64_t>(size, sizeof piece - filled);
        const ssize_t count = ::read(file, piece + filled, wanted);
        if (count < 0 || (count == 0 && wanted > 0)) throw early_end();
        size -= static_cast<std::uint64_t>(count);
        if (!write_piece(piece, filled + static_cast<std::size_t>(count)) || size == 0) return;
        filled = 0;
    }
}

// Repeats a call of OpenSSL as long as it wants to wait and wait allows that.
template <class Operation>
int TlsConnection::retry(Operation operation, bool (Connection::*wait)(short) const) {
    for (;;) {
        ERR_clear_error();
        const int result = operation();
        if (result > 0) return result;
        const int error = SSL_get_error(session, result);
        const bool is_waiting = error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE;
        if (is_waiting && (this->*wait)(error == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT)) continue;
        is_broken = error != SSL_ERROR_ZERO_RETURN;
        return result;
    }
}

bool TlsConnection::write_piece(const char* bytes, std::size_t size) {
    const auto write_once = [&] { return SSL_write(session, bytes, static_cast<int>(size)); };
    return retry(write_once, &TlsConnection::wait_for_progress) > 0;
}
