#include "daemon/daemonize.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace {

[[noreturn]] void fail(const char* text) {
    std::perror(text);
    std::exit(1);
}

// Returns in the child; the parent exits.
void fork_away(const char* failure) {
    const pid_t pid = fork();
    if (pid < 0) fail(failure);
    if (pid > 0) std::exit(0);
}

}  // namespace

void daemonize() {
    fork_away("Fork failed");
    if (setsid() < 0) fail("Setsid failed");
    fork_away("Second fork failed");
    if (chdir("/") < 0) fail("Chdir failed");
    umask(0);
    std::signal(SIGHUP, SIG_IGN);

    for (const int descriptor : {0, 1, 2}) close(descriptor);
    for (const int mode : {O_RDONLY, O_WRONLY, O_WRONLY}) open("/dev/null", mode);  // the lowest free ones: 0, 1, 2

    std::ofstream file(pid_file_path);
    if (file) file << getpid() << std::endl;
}

bool is_daemon_running() {
    // Intended: the file alone counts, the process that it names is not looked at.
    return std::ifstream(pid_file_path).good();
}
