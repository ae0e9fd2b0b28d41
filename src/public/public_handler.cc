#include "public/public_handler.h"

#include <sys/stat.h>

#include <exception>
#include <filesystem>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <string_view>

#include "base/descriptor.h"
#include "base/openssl.h"
#include "config/server_config.h"
#include "http/mime_types.h"
#include "http/request.h"
#include "http/responses.h"
#include "http/site_path.h"
#include "log/log.h"
#include "net/rate_limiter.h"
#include "net/run_state.h"
#include "public/connection.h"

namespace {

bool has_whole_head(std::string_view text) {
    return text.find("\r\n\r\n") != text.npos || text.find("\n\n") != text.npos;
}

bool ends_with_head(std::string_view text) {
    return text.ends_with("\r\n\r\n") || text.ends_with("\n\n");
}

// One request and its answer.
class Exchange {
  public:
    Exchange(Connection& served_connection, LogTarget target, const ClientTask& task, const std::string& context)
        : connection(served_connection),
          log_target(target),
          client_address(task.client_address),
          log_context(context) {}

    void serve() {
        try {
            const std::string text = read_request();
            if (!text.empty()) answer(text);
        } catch (const std::exception& error) {
            log_error("Error handling client: ", error);
        }
    }

  private:
    void log(std::initializer_list<std::string_view> message) {
        log_event(log_target, client_address, message, log_context);
    }
    void log_error(const char* text, const std::exception& error) {
        log_to_targets(log_target, std::string(text) + error.what(), log_context);
    }

    // Reads until the head of the request is whole, request_limit is reached or the client ends. Returns "" when the
    // client sends nothing or takes too long.
    std::string read_request() {
        char buffer[request_limit];
        std::size_t size = 0;
        while (size < sizeof buffer && !has_whole_head({buffer, size})) {
            const ssize_t count = connection.read(buffer + size, sizeof buffer - size);
            if (count < 0) return "";
            if (count == 0) break;
            size += static_cast<std::size_t>(count);
        }
        return {buffer, size};
    }

    void answer(const std::string& text) {
        log({text});
        const RequestLine request = split_request_line(text);
        const bool is_get = request.method == "GET";
        if (!is_get || !ends_with_head(text)) connection.expect_more();
        if (!is_get) return refuse(method_not_allowed_response);

        const std::string path = with_index_file(request.target.substr(0, request.target.find('?')));
        log({"PATH = ", path, "\n"});
        if (path.empty()) throw std::runtime_error("The request has no target");
        const OpenedFile file = open_file(path.substr(1));
        if (!file.is_allowed) return refuse(forbidden_response);
        struct stat status;
        const int descriptor = file.descriptor.get();
        if (!file.descriptor || fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) {
            return refuse(not_found_response);
        }
        send_file(descriptor, static_cast<std::uint64_t>(status.st_size), type_of(path, file.canonical_name));
    }

    // A name that no file can have counts as that of a missing file; the reason is logged.
    OpenedFile open_file(const std::string& relative_path) {
        try {
            return open_public_file(relative_path);
        } catch (const std::filesystem::filesystem_error& error) {
            log_error("Error handling client: ", error);
            return {true, "", Descriptor()};
        }
    }

    // Intended: the type follows the name that was asked for over HTTPS, and the file's own name over HTTP.
    std::string type_of(const std::string& path, const std::string& canonical_name) const {
        return MimeTypes(log_target == log_target_https ? server_config.website_path + path : canonical_name);
    }

    void send_file(int file, std::uint64_t size, const std::string& type) {
        try {
            connection.send_file(ok_header(type, size), file, size);
        } catch (const std::exception& error) {
            log_error("Error handling client send: ", error);
        }
    }

    void refuse(std::string_view response) {
        log({"ERROR: ", response});
        connection.write(response);
    }

    Connection& connection;
    const LogTarget log_target;
    const std::string& client_address;
    const std::string& log_context;
};

void serve_tls(const ClientTask& task) {
    TlsConnection connection(task.client_socket, public_ssl_context);
    const std::string context = thread_context();
    if (is_rate_limited(task.client_address)) {
        log_event(log_target_https, task.client_address, too_many_requests_text, context);
    } else if (!connection.has_data()) {
        return;
    } else if (connection.handshake()) {
        Exchange(connection, log_target_https, task, context).serve();
    } else {
        log_to_targets(log_target_https, "SSL_accept <= 0", context);
        log_to_targets(log_target_https, openssl_error_text(), context);
    }
}

}  // namespace

void handle_public_http(const ClientTask& task) {
    try {
        Connection connection(task.client_socket);
        if (connection.has_data()) Exchange(connection, log_target_http, task, task.log_context).serve();
    } catch (...) {
        // No memory even to log the reason. The connection is closed, the others go on.
    }
}

void handle_public_https(const ClientTask& task) {
    try {
        serve_tls(task);
    } catch (...) {
        // As over HTTP.
    }
}
