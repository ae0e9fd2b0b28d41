#include "daemon/supervisor.h"

#include <chrono>
#include <csignal>
#include <functional>
#include <thread>

#include "config/load_configuration.h"
#include "config/server_config.h"
#include "daemon/signal_handler.h"
#include "log/signal_hold.h"
#include "net/http_listener.h"
#include "net/https_listener.h"
#include "net/run_state.h"

namespace {

void sleep_with_signals_admitted(std::chrono::seconds time) {
    admit_signals();
    std::this_thread::sleep_for(time);  // goes on after an interruption, for the time that remains
    hold_signals();
}

void end_daemon() {
    admit_signals();
    std::raise(SIGQUIT);
}

}  // namespace

void run_servers() {
    for (const auto& [number, name] : signal_names) std::signal(number, signal_handler);
    std::signal(SIGPIPE, SIG_IGN);  // after the loop: a write to a closed connection must fail, not signal

    // Until the logs are open: a stop must not wait for a loader that waits for a pipe.
    admit_signals();
    if (!load_configuration()) end_daemon();  // Intended: no return. If raise came back, the daemon would go on.

    const std::function<void()> http_server = start_server_http;
    const std::function<void()> https_server = start_server_https;
    std::thread http_thread;
    std::thread https_thread;
    if (server_config.start_http) {
        http_thread = std::thread(http_server);
        sleep_with_signals_admitted(std::chrono::seconds(2));
    }
    if (server_config.start_https) {
        https_thread = std::thread(https_server);
        sleep_with_signals_admitted(std::chrono::seconds(2));
    }
    while (active_servers >= 1) sleep_with_signals_admitted(std::chrono::seconds(3));
    end_daemon();
    // Intended: never reached. The threads are neither joined nor detached, the process ends under them.
}
