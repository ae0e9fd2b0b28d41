#include "daemon/signal_handler.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <thread>

#include "daemon/daemonize.h"
#include "log/log.h"
#include "log/signal_hold.h"
#include "net/run_state.h"
#include "net/tls_context.h"

// Only the numbers are used.
const std::map<std::int32_t, std::string> signal_names = {
    {1, "SIGHUP"},   {2, "SIGINT"},     {3, "SIGQUIT"},  {4, "SIGILL"},     {5, "SIGTRAP"},  {6, "SIGABRT"},
    {7, "SIGBUS"},   {8, "SIGFPE"},     {9, "SIGKILL"},  {10, "SIGUSR1"},   {11, "SIGSEGV"}, {12, "SIGUSR2"},
    {13, "SIGPIPE"}, {14, "SIGALRM"},   {15, "SIGTERM"}, {16, "SIGSTKFLT"}, {17, "SIGCHLD"}, {18, "SIGCONT"},
    {19, "SIGSTOP"}, {20, "SIGTSTP"},   {21, "SIGTTIN"}, {22, "SIGTTOU"},   {23, "SIGURG"},  {24, "SIGXCPU"},
    {25, "SIGXFSZ"}, {26, "SIGVTALRM"}, {27, "SIGPROF"}, {28, "SIGWINCH"},  {29, "SIGIO"},   {30, "SIGPWR"},
    {31, "SIGSYS"},
};

namespace {

// How long the log writers may take for the lines that are queued; lines that they do not write by then are lost.
constexpr std::chrono::milliseconds writing_time{300};
// An end that hangs, for instance because a fault struck in the middle of an allocation, is cut short after this.
constexpr unsigned ending_seconds = 1;

std::atomic<pid_t> ending_thread{0};  // the thread that ends the process; 0 while the daemon runs
std::atomic<std::int32_t> ending_status{0};

// Once only: after the first time the file may be a new daemon's.
void remove_pid_file() {
    static std::atomic_flag is_removed;
    if (!is_removed.test_and_set()) unlink(pid_file_path);
}

// For an end that hangs or faults: does nothing but finish the log and remove the pid file.
[[noreturn]] void end_at_once() {
    wait_for_log_writers(writing_time);
    remove_pid_file();
    _exit(ending_status);
}

// Returns in the first thread that calls it, which then ends the process. Any other thread waits here until the process
// is gone: if its handler returned, its fault would strike again.
void claim_ending(std::int32_t status) {
    hold_signals();
    pid_t claimant = 0;
    if (!ending_thread.compare_exchange_strong(claimant, gettid())) {
        if (claimant == gettid()) end_at_once();  // a fault in the middle of the end
        for (;;) pause();
    }
    ending_status = status;
    // From now on only faults, also one of the kind that is being handled, and the alarm interrupt this thread.
    sigset_t admitted;
    sigemptyset(&admitted);
    for (const int number : {SIGALRM, SIGBUS, SIGFPE, SIGSEGV}) sigaddset(&admitted, number);
    pthread_sigmask(SIG_UNBLOCK, &admitted, nullptr);
    alarm(ending_seconds);
}

// Intended: the process exits while the other threads go on; nothing stops them first.
[[noreturn]] void end_process() {
    remove_pid_file();
    std::exit(ending_status);
}

void stop_serving() {
    server_running.exchange(false);
    wait_for_log_writers(writing_time);
}

// The numbers of descriptors that are closed below must not be given to a file that is being sent.
void wait_for_descriptor_openers(std::chrono::steady_clock::time_point deadline) {
    while (descriptor_openers > 0 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

[[noreturn]] void full_release() {
    const auto deadline = std::chrono::steady_clock::now() + writing_time;
    stop_serving();
    wait_for_descriptor_openers(deadline);
    close(http_server_socket);
    const int packet_socket = raw_socket.exchange(-1);
    if (packet_socket != -1) close(packet_socket);
    close(https_server_socket.exchange(0));  // Intended: if it was never set, this is descriptor 0 again.
    free_ssl_context();
    end_process();
}

// Intended: SIGSEGV, SIGBUS and SIGABRT leave the sockets and the TLS context to the kernel, SIGFPE does not.
[[noreturn]] void short_release() {
    stop_serving();
    end_process();
}

void reap_children() {
    const int error = errno;  // the interrupted code may be about to read it
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
    errno = error;
}

}  // namespace

void signal_handler(std::int32_t number) {
    constexpr char memory_text[] = "ERROR: Memory access error. Shutting down server.";
    if (number == SIGSEGV || number == SIGABRT) {
        claim_ending(1);
        active_servers.fetch_sub(1);
        log_shutdown_message(number == SIGSEGV ? memory_text : "ERROR: Abort signal. Shutting down server.", "");
        short_release();
    } else if (number == SIGBUS) {
        // Intended: unlike SIGSEGV this does not lower active_servers.
        claim_ending(1);
        log_shutdown_message(memory_text, "");
        short_release();
    } else if (number == SIGINT || number == SIGQUIT || number == SIGTERM) {
        claim_ending(0);
        log_shutdown_message("Shutting down server...", "");
        full_release();
    } else if (number == SIGCHLD) {
        reap_children();
    } else if (number == SIGFPE) {
        claim_ending(1);
        log_shutdown_message("ERROR: Arithmetic error occurred. Shutting down server.", "");
        full_release();
    } else if (number == SIGALRM && ending_thread != 0) {
        end_at_once();  // the alarm that claim_ending has set
    }
}
