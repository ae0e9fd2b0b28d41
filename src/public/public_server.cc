#include "public/public_server.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <thread>
#include <vector>

#include "config/server_config.h"
#include "log/access_log.h"
#include "net/run_state.h"
#include "public/event_loop.h"

namespace {

using std::chrono::milliseconds;

constexpr int backlog = 4096;
constexpr int most_unsent = 16 << 10;  // bytes of a connection that wait in the system for the client
constexpr milliseconds pause_length{100};
constexpr int pauses_until_files = 10;          // a second between looks at the website and the access log
constexpr int pauses_until_certificates = 600;  // a minute
constexpr int pauses_for_loops = 5;             // half a second for the loops to leave

[[noreturn]] void fail(const std::string& text) {
    throw std::runtime_error(text + ": " + std::strerror(errno));
}

// Binds to every address of one family. Returns an empty descriptor when the system does not have that family.
Descriptor open_socket(int family, std::uint16_t port) {
    Descriptor server(socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!server && errno == EAFNOSUPPORT) return Descriptor();
    if (!server) fail("Socket creation failed");
    const int on = 1;
    const int off = 0;
    setsockopt(server.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    // Taken over by the connections. Otherwise the second answer of one would wait for the client's acknowledgement.
    setsockopt(server.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    // Taken over, too: what the system holds for clients that do not read is memory that all others lack.
    setsockopt(server.get(), IPPROTO_TCP, TCP_NOTSENT_LOWAT, &most_unsent, sizeof most_unsent);
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(port);
    sockaddr_in old_address{};
    old_address.sin_family = AF_INET;
    old_address.sin_port = address.sin6_port;
    const bool is_old = family == AF_INET;
    if (!is_old) setsockopt(server.get(), IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
    const auto* const any =
        is_old ? reinterpret_cast<const sockaddr*>(&old_address) : reinterpret_cast<const sockaddr*>(&address);
    if (bind(server.get(), any, is_old ? sizeof old_address : sizeof address) != 0) {
        if (!is_old && errno == EADDRNOTAVAIL) return Descriptor();
        fail("Bind failed");
    }
    if (listen(server.get(), backlog) != 0) fail("Listen failed");
    return server;
}

// One socket for IPv6 and IPv4, or for IPv4 alone where IPv6 is switched off.
Descriptor open_listening_socket(std::uint16_t port) {
    Descriptor server = open_socket(AF_INET6, port);
    return server ? std::move(server) : open_socket(AF_INET, port);
}

const char* website_name() {
    return server_config.website_path.empty() ? "/" : server_config.website_path.c_str();
}

std::size_t count_processors() {
    cpu_set_t processors;
    return sched_getaffinity(0, sizeof processors, &processors) == 0 ? static_cast<std::size_t>(CPU_COUNT(&processors))
                                                                     : 1;
}

// One server. To be destroyed after its loops have left.
class PublicServer {
  public:
    PublicServer(LogTarget server_log, const std::string& log_context)
        : log_target(server_log),
          context(log_context),
          website(open_website()),
          site{website.get(), server_log == log_target_https} {
        if (site.is_secure) contexts.emplace();
        listening_socket = open_listening_socket(static_cast<std::uint16_t>(port()));  // the low 16 bits
        for (std::size_t count = count_processors(); count > 0; --count) {
            loops.push_back(
                std::make_unique<EventLoop>(listening_socket.get(), site, log_target, contexts ? &*contexts : nullptr));
        }
    }

    void serve() {
        log("Server started on port " + std::to_string(port()));
        log("Serving files from: " + server_config.website_path);
        for (const auto& loop : loops) start(*loop);
        for (unsigned pauses = 1; server_running; ++pauses) {
            std::this_thread::sleep_for(pause_length);
            try {
                if (pauses % pauses_until_files == 0) look_at_files();
                if (pauses % pauses_until_certificates == 0) look_at_certificates();
            } catch (const std::bad_alloc&) {
                // The next look may find memory.
            }
        }
    }

  private:
    void log(const std::string& message) const { log_to_targets(log_target, message, context); }

    std::int32_t port() const { return site.is_secure ? server_config.port_https : server_config.port_http; }

    void start(EventLoop& loop) {
        const auto run = [this, &loop] {
            try {
                loop.run();
            } catch (const std::exception& error) {
                log(std::string("Failed marlu server: ") + error.what());
                server_running = false;
            }
            --descriptor_openers;
        };
        ++descriptor_openers;  // before the thread: it counts even if it begins late
        try {
            std::thread(run).detach();
        } catch (...) {
            --descriptor_openers;
            throw;
        }
    }

    // The website may be exchanged as a whole, by a link or by renaming.
    void look_at_files() {
        if (access_log != nullptr) access_log->follow_name();
        struct stat named;
        struct stat opened;
        if (stat(website_name(), &named) != 0 || fstat(website.get(), &opened) != 0) return;
        if (named.st_dev == opened.st_dev && named.st_ino == opened.st_ino) return;
        try {
            // The loops go on with the same number, which leads to the new directory from now on.
            dup3(open_website().get(), website.get(), O_CLOEXEC);
        } catch (const std::runtime_error&) {
            // The next look may find it.
        }
    }

    void look_at_certificates() {
        try {
            if (contexts && contexts->renew()) log("The certificate was renewed");
        } catch (const std::exception& error) {
            log(std::string("Failed to renew the certificate: ") + error.what());
        }
    }

    const LogTarget log_target;
    const std::string context;
    const Descriptor website;
    const Site site;
    std::optional<TlsContexts> contexts;
    Descriptor listening_socket;
    std::vector<std::unique_ptr<EventLoop>> loops;
};

void serve(LogTarget target, const std::string& context) {
    if (!server_running) return;  // the other server has failed, and the daemon ends
    auto server = std::make_unique<PublicServer>(target, context);
    std::exception_ptr failure;
    ++descriptor_openers;
    try {
        server->serve();
    } catch (...) {
        failure = std::current_exception();
        server_running = false;
    }
    --descriptor_openers;
    for (int pauses = 0; pauses < pauses_for_loops && descriptor_openers > 0; ++pauses) {
        std::this_thread::sleep_for(pause_length);
    }
    // A loop that is stuck may come back to its server. Nobody but the process then frees that.
    if (descriptor_openers > 0) static_cast<void>(server.release());
    if (failure) std::rethrow_exception(failure);
}

}  // namespace

Descriptor open_website() {
    Descriptor directory(open(website_name(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!directory) fail("Failed to open the website");
    return directory;
}

void serve_public_http(const std::string& context) {
    serve(log_target_http, context);
}

void serve_public_https(const std::string& context) {
    serve(log_target_https, context);
}
