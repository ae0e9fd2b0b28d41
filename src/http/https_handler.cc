#include "http/https_handler.h"

#include <exception>
#include <initializer_list>
#include <memory>
#include <string_view>

#include "base/descriptor.h"
#include "base/openssl.h"
#include "config/server_config.h"
#include "http/file_cache.h"
#include "http/mime_types.h"
#include "http/request.h"
#include "http/request_history.h"
#include "http/responses.h"
#include "http/site_path.h"
#include "log/log.h"
#include "net/rate_limiter.h"
#include "net/run_state.h"

namespace {

RequestHistory& request_history = *new RequestHistory;  // never destroyed, see config/server_config.h

// What happens on one connection, from the handshake to the answer.
class Exchange {
  public:
    Exchange(SSL* tls_session, const std::string& address, const std::string& context)
        : session(tls_session), client_address(address), log_context(context) {}

    // Returns true when SSL_shutdown is due.
    bool serve() {
        if (is_rate_limited(client_address)) {
            log_request({too_many_requests_text});
            return true;
        }
        if (SSL_accept(session) < 1) {
            log("SSL_accept <= 0");
            log(openssl_error_text());
            return true;
        }
        char buffer[request_limit] = {};
        const int count = SSL_read(session, buffer, sizeof buffer - 1);
        if (count < 1) return is_shutdown_due(SSL_get_error(session, count));
        answer(buffer);  // up to the first NUL
        return true;
    }

  private:
    void log(const std::string& message) { log_to_targets(log_target_https, message, log_context); }
    void log_request(std::initializer_list<std::string_view> message) {
        log_event(log_target_https, client_address, message, log_context);
    }

    bool is_shutdown_due(int error) {
        if (error == SSL_ERROR_SYSCALL) return false;
        if (error != SSL_ERROR_ZERO_RETURN && error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE) {
            // Intended: the text stands where the client's address would, and the message is empty.
            log_event(log_target_https, "SSL error: " + std::to_string(error) + "\n", "", log_context);
            log(openssl_error_text());
        }
        return true;
    }

    // Intended: one write for each piece, whose result nobody checks: a connection that fails is over anyway.
    void write(std::string_view bytes) { SSL_write(session, bytes.data(), static_cast<int>(bytes.size())); }

    void refuse(const char* response) {
        log_request({"ERROR: ", response});
        write(response);
    }

    void answer(const std::string& request_text) {
        log_request({request_text});
        request_history.append(request_text);
        if (!request_text.starts_with("GET /")) return refuse(method_not_allowed_response);

        const TargetParts target = split_target(request_text);
        log_request({"PATH = ", target.path, "\n"});
        const std::string relative_path = target.path.substr(1);
        if (!is_path_allowed(relative_path)) return refuse(forbidden_response);
        if (target.query) parse_query(*target.query);  // Intended: nothing asks for the result.
        send_file(canonical_name(relative_path), server_config.website_path + target.path);
    }

    // Intended: the cache and its ignore list know a file by its canonical name; the content type follows direct_name,
    // under which a listed file is also opened.
    void send_file(const std::string& cached_name, const std::string& direct_name) {
        std::unique_ptr<MappedFile> uncached;
        const MappedFile* file = nullptr;
        try {
            if (cache_ignore_paths.contains(cached_name)) {
                uncached = std::make_unique<MappedFile>(direct_name);
                file = uncached.get();
            } else {
                file = file_cache.get(cached_name);
            }
        } catch (...) {
            return refuse(not_found_response);
        }
        try {
            write(ok_header(MimeTypes(direct_name), file->size));
            write({file->data, file->size});
        } catch (const std::exception& error) {
            log(std::string("Error handling client send: ") + error.what());
        }
    }

    SSL* session;
    const std::string& client_address;
    const std::string& log_context;
};

}  // namespace

void handle_https_client(SSL* session, int client_socket, const std::string& client_address) {
    const ActiveServer active;
    const Descriptor closed_last(client_socket);
    const SslSession freed(session);
    const std::string context = thread_context();
    bool is_shutdown_due = true;
    try {
        is_shutdown_due = Exchange(session, client_address, context).serve();
    } catch (const std::exception& error) {
        log_to_targets(log_target_https, std::string("Error handling client: ") + error.what(), context);
    } catch (...) {
        log_to_targets(log_target_https, "Error handling client: Unknown", context);
    }
    if (is_shutdown_due) SSL_shutdown(session);  // once: the client's own notification is not awaited
}

void run_https_client(SSL* session, int client_socket, const std::string& client_address) {
    try {
        handle_https_client(session, client_socket, client_address);
    } catch (...) {
        log_to_targets(log_target_https, "Exception in thread for client " + client_address, "");
    }
}
