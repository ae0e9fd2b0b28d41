#include "daemon/signal_handler.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>

#include "daemon/daemonize.h"
#include "log/log.h"
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

constexpr char shutdown_text[] = "Shutting down server...";
constexpr char arithmetic_text[] = "ERROR: Arithmetic error occurred. Shutting down server.";
constexpr char memory_text[] = "ERROR: Memory access error. Shutting down server.";
constexpr char abort_text[] = "ERROR: Abort signal. Shutting down server.";

// How long the log writers may take for what is queued; what they do not write by then is lost.
constexpr std::chrono::milliseconds writing_time{300};
// When the end itself hangs, for instance because a fault struck in the middle of an allocation, it is cut short.
constexpr unsigned ending_seconds = 1;

// The thread that ends the process and the status it ends with.
struct alignas(8) Ending {  // aligned so that it is read and changed in one piece
    pid_t thread;           // 0 while the daemon runs
    std::int32_t status;
};
std::atomic<Ending> ending{Ending{0, 0}};
static_assert(std::atomic<Ending>::is_always_lock_free);

[[noreturn]] void end_at_once(std::int32_t status) {
    unlink(pid_file_path);
    _exit(status);
}

// Returns true in the one thread that is to end the process. From then on only faults interrupt it, also one in the
// handling of its like, and the alarm.
bool claim_ending(std::int32_t status) {
    Ending none{0, 0};
    if (!ending.compare_exchange_strong(none, Ending{gettid(), status})) return false;
    hold_signals();
    sigset_t admitted;
    sigemptyset(&admitted);
    for (const int number : {SIGALRM, SIGBUS, SIGFPE, SIGSEGV}) sigaddset(&admitted, number);
    pthread_sigmask(SIG_UNBLOCK, &admitted, nullptr);
    alarm(ending_seconds);
    return true;
}

bool is_fault(std::int32_t number) {
    return number == SIGSEGV || number == SIGBUS || number == SIGFPE;
}

// A fault that a thread causes strikes again as soon as the handler returns, one that somebody sent does not: so the first
// few are taken for sent ones, which is true of as many as anybody would send.
bool is_sent_fault(std::int32_t number) {
    constexpr int most_sent = 64;
    static thread_local int strikes = 0;
    return is_fault(number) && ++strikes <= most_sent;
}

// True when this handler has interrupted that of a request to end, before that one could claim the end: a thread blocks
// the signal whose handler it runs, and where signals are held it also blocks SIGRTMAX, which has no handler.
bool is_request_underway() {
    sigset_t blocked;
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    const auto is_blocked = [&blocked](int number) { return sigismember(&blocked, number) == 1; };
    return !is_blocked(SIGRTMAX) && (is_blocked(SIGINT) || is_blocked(SIGQUIT) || is_blocked(SIGTERM));
}

// What a signal comes to when the process is ending already: the status stays that of the first one.
void come_second(std::int32_t number) {
    if (is_sent_fault(number)) return;
    const Ending claimed = ending.load();
    // Any other thread waits for the end here, so that nothing it was doing can disturb it.
    while (claimed.thread != gettid()) pause();
    if (is_fault(number) || number == SIGABRT) end_at_once(claimed.status);
}

void stop_serving() {
    server_running.exchange(false);
    wait_for_log_writers(writing_time);
}

// Intended: the process exits under threads that go on; none of them is stopped first.
[[noreturn]] void end_process(std::int32_t status) {
    unlink(pid_file_path);
    std::exit(status);
}

[[noreturn]] void full_release(std::int32_t status) {
    stop_serving();
    close(http_server_socket);
    const int packet_socket = raw_socket.exchange(-1);
    if (packet_socket != -1) close(packet_socket);
    close(https_server_socket.exchange(0));  // Intended: when it was never set, this is descriptor 0 again.
    free_ssl_context();
    end_process(status);
}

// Intended: after these the sockets and the TLS context are left to the kernel, but not after an arithmetic error.
[[noreturn]] void short_release() {
    stop_serving();
    end_process(1);
}

void reap_children() {
    const int error = errno;  // the interrupted code may be about to read it
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
    errno = error;
}

// The signals that are held back: all but the faults, which strike the thread that caused them. An abort of its own
// reaches a thread nevertheless.
sigset_t held_signals() {
    sigset_t set;
    sigfillset(&set);
    for (const int fault : {SIGILL, SIGTRAP, SIGBUS, SIGFPE, SIGSEGV, SIGSYS}) sigdelset(&set, fault);
    return set;
}

}  // namespace

void signal_handler(std::int32_t number) {
    if (gettid() != getpid() && ending.load().thread == 0 && is_sent_fault(number)) {
        // It came here because the main thread has another signal to take first: it is to queue up there.
        tgkill(getpid(), getpid(), number);
        return;
    }
    if ((is_fault(number) || number == SIGABRT) && is_request_underway()) return;  // the request came first

    if (number == SIGSEGV || number == SIGABRT) {
        if (!claim_ending(1)) return come_second(number);
        active_servers.fetch_sub(1);
        log_shutdown_message(number == SIGSEGV ? memory_text : abort_text, "");
        short_release();
    } else if (number == SIGBUS) {
        // Intended: unlike SIGSEGV this does not lower active_servers.
        if (!claim_ending(1)) return come_second(number);
        log_shutdown_message(memory_text, "");
        short_release();
    } else if (number == SIGINT || number == SIGQUIT || number == SIGTERM) {
        if (!claim_ending(0)) return come_second(number);
        log_shutdown_message(shutdown_text, "");
        full_release(0);
    } else if (number == SIGCHLD) {
        reap_children();
    } else if (number == SIGFPE) {
        if (!claim_ending(1)) return come_second(number);
        log_shutdown_message(arithmetic_text, "");
        full_release(1);
    } else if (number == SIGALRM && ending.load().thread != 0) {
        if (alarm(0) != 0) {  // it was not due: somebody sent this one
            alarm(ending_seconds);
            return;
        }
        end_at_once(ending.load().status);
    }
}

void hold_signals() {
    const sigset_t set = held_signals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

void admit_signals() {
    const sigset_t set = held_signals();
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}
