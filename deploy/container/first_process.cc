// The first process of a container: starts the daemon, copies its logs to standard output, hands SIGTERM on and ends as
// the daemon did.
//
//     first_process PROGRAM CONFIGURATION [LOG...]
//
// PROGRAM is marluserver with marlu-check beside it, CONFIGURATION what it reads, and each LOG a path that the
// configuration names as log file. Pipes take the place of the logs, so that nothing grows. Status: 0 after a stop, 128
// and the signal's number when one killed the daemon, otherwise the daemon's own, and 1 for an end that nobody asked for.
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

namespace {

constexpr const char* pid_file = "/var/run/marluserver.pid";
constexpr int retry_milliseconds = 50;

[[noreturn]] void fail(const std::string& what) {
    std::perror(what.c_str());
    std::exit(1);
}

// Both ends in one descriptor: the daemon's opening does not wait, and its end does not end the reading.
int make_pipe(const char* path) {
    unlink(path);
    if (mkfifo(path, 0600) != 0) fail(path);
    const int pipe = open(path, O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (pipe < 0) fail(path);
    return pipe;
}

void copy_to_output(int pipe) {
    char piece[65536];
    for (ssize_t size; (size = read(pipe, piece, sizeof piece)) > 0;) {
        for (ssize_t written = 0; written < size;) {
            const ssize_t result = write(STDOUT_FILENO, piece + written, static_cast<size_t>(size - written));
            if (result <= 0) return;  // nobody reads: serving goes on
            written += result;
        }
    }
}

pid_t start(const char* program, const char* argument, const char* second_argument = nullptr) {
    const pid_t child = fork();
    if (child < 0) fail("fork");
    if (child > 0) return child;
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execl(program, program, argument, second_argument, nullptr);
    fail(program);
}

int status_of(int wait_status) {
    return WIFSIGNALED(wait_status) ? 128 + WTERMSIG(wait_status) : WEXITSTATUS(wait_status);
}

// False while the daemon has not written its pid file.
bool ask_daemon_to_end() {
    pid_t daemon = 0;
    return std::ifstream(pid_file) >> daemon && daemon > 1 && kill(daemon, SIGTERM) == 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "Usage: first_process PROGRAM CONFIGURATION [LOG...]\n");
        return 2;
    }
    const std::string program = argv[1];

    // The daemon leaves its parents: this process becomes the parent of what they leave behind.
    if (prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) fail("prctl");
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGCHLD, SIGTERM, SIGINT}) sigaddset(&signals, number);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    // Before the check, which tries the logs.
    std::vector<pollfd> sources{{signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC), POLLIN, 0}};
    for (int i = 3; i < argc; ++i) sources.push_back({make_pipe(argv[i]), POLLIN, 0});

    // The daemon says to nobody why it refuses a configuration.
    const pid_t check = start((program.substr(0, program.rfind('/') + 1) + "marlu-check").c_str(), "config", argv[2]);
    int check_status = 0;
    waitpid(check, &check_status, 0);
    if (status_of(check_status) != 0) return 1;

    unlink(pid_file);  // of a daemon that was killed
    start(program.c_str(), "start");

    bool stopping = false;  // SIGTERM came
    bool told = false;      // and the daemon has it
    int status = 0;
    while (true) {
        poll(sources.data(), sources.size(), stopping && !told ? retry_milliseconds : -1);
        for (size_t i = 1; i < sources.size(); ++i) copy_to_output(sources[i].fd);
        signalfd_siginfo information;
        while (read(sources[0].fd, &information, sizeof information) > 0) {
            if (information.ssi_signo != SIGCHLD) stopping = true;
        }
        if (stopping && !told) told = ask_daemon_to_end();
        // The start command and its child end before the daemon, so the status that stays is the daemon's.
        pid_t ended;
        for (int wait_status; (ended = waitpid(-1, &wait_status, WNOHANG)) > 0;) status = status_of(wait_status);
        if (ended < 0) break;  // no child is left
    }
    for (size_t i = 1; i < sources.size(); ++i) copy_to_output(sources[i].fd);
    return stopping || status != 0 ? status : 1;
}
