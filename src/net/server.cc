#include "net/server.h"

#include <csignal>
#include <exception>

#include "net/run_state.h"

sockaddr_in any_address(std::int32_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    return address;
}

void run_server(LogTarget target, void (*serve)(const std::string& context)) {
    const ActiveServer active;
    const std::string context = thread_context();
    std::signal(SIGPIPE, SIG_IGN);
    try {
        serve(context);
    } catch (const SetUpError& error) {
        log_to_targets(target, error.text, context);
    } catch (const std::exception& error) {
        log_to_targets(target, std::string("Failed marlu server: ") + error.what(), context);
    } catch (...) {
        log_to_targets(target, "Failed marlu server: Unknown error", context);
    }
    // Intended: the end of this server ends the other one too, and with it the daemon.
    server_running.exchange(false);
}
