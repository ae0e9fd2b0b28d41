#include "http/http_handler.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "http/mime_types.h"
#include "http/request.h"
#include "http/responses.h"
#include "http/site_path.h"
#include "log/log.h"

namespace {

constexpr std::size_t small_file = 128 << 10;
constexpr std::chrono::milliseconds send_pause{10};

// A file's content. The memory beyond size is uninitialised.
struct Body {
    std::unique_ptr<char[]> bytes;
    std::size_t size;
};

// How much room to make: one byte more than the file's size, so that the last read finds the end, and at least twice
// least.
std::size_t room_for(int file, std::size_t least) {
    struct stat status;
    const bool is_known = fstat(file, &status) == 0;
    return std::max(is_known ? static_cast<std::size_t>(status.st_size) + 1 : 0, 2 * least);
}

// Reads every byte until the file ends or fails; none from a directory.
Body read_whole(int file) {
    std::size_t room = small_file;  // up to here a file is read without asking for its size
    Body body{std::make_unique_for_overwrite<char[]>(room), 0};
    for (;;) {
        const ssize_t count = read(file, body.bytes.get() + body.size, room - body.size);
        if (count == 0 || (count < 0 && errno != EINTR)) return body;
        if (count > 0) body.size += static_cast<std::size_t>(count);
        if (body.size < room) continue;
        room = room_for(file, room);
        auto larger = std::make_unique_for_overwrite<char[]>(room);
        std::copy_n(body.bytes.get(), body.size, larger.get());
        body.bytes = std::move(larger);
    }
}

// Sends bytes, waiting for a slow client as long as it takes. Returns false when the connection fails.
bool send_all(int client_socket, std::string_view bytes, int flags) {
    while (!bytes.empty()) {
        const ssize_t count = send(client_socket, bytes.data(), bytes.size(), flags);
        if (count >= 0) {
            bytes.remove_prefix(static_cast<std::size_t>(count));
        } else if (errno == EAGAIN) {
            std::this_thread::sleep_for(send_pause);
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

void answer(const ClientTask& task) {
    char buffer[request_limit];
    const ssize_t count = read(task.client_socket, buffer, sizeof buffer);
    if (count < 1) return;  // Intended: a request that is not there yet is not waited for.
    const std::string_view text(buffer, static_cast<std::size_t>(count));
    const auto log = [&task](std::initializer_list<std::string_view> message) {
        log_event(log_target_http, task.client_address, message, task.log_context);
    };
    log({text});

    const RequestLine request = split_request_line(text);
    if (request.method != "GET") {
        constexpr std::string_view response = method_not_allowed_response;
        log({"ERROR: ", response});
        send(task.client_socket, response.data(), response.size(), MSG_NOSIGNAL);
        return;
    }
    const std::string target = with_index_file(request.target);
    log({"PATH = ", target, "\n"});
    // Intended: an empty target throws here, which ends the process.
    const OpenedFile file = open_site_file(target.substr(1));
    if (!file.is_allowed) {
        constexpr std::string_view response = forbidden_response;
        log({"ERROR: ", response});
        send(task.client_socket, response.data(), response.size(), 0);  // Intended: no MSG_NOSIGNAL in this one.
        return;
    }
    if (!file.descriptor) return;  // Intended: there is no 404 over plain HTTP.
    const Body body = read_whole(file.descriptor.get());
    // A small answer leaves in one packet. A header that no body follows must not be held back: a close with unread
    // bytes of the request would drop it.
    const int more = body.size > 0 ? MSG_MORE : 0;
    const std::string header = ok_header(MimeTypes(file.canonical_name), body.size);
    if (send_all(task.client_socket, header, MSG_NOSIGNAL | more)) {
        send_all(task.client_socket, {body.bytes.get(), body.size}, MSG_NOSIGNAL);
    }
}

}  // namespace

void handle_http_client(const ClientTask& task) {
    answer(task);  // Intended: what it throws ends the process, with the socket still open.
    close(task.client_socket);
}
