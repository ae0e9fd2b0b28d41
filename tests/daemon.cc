#include "daemon.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <iterator>
#include <regex>
#include <thread>
#include <vector>

namespace {

class Namespaces : public testing::Environment {
    void SetUp() override {
        ASSERT_EQ(getpid(), 1) << "to be started by ctest: elsewhere this would hide the machine's /run";
        ASSERT_EQ(mount("tmpfs", "/run", "tmpfs", 0, nullptr), 0);
        ifreq interface {
            .ifr_ifrn = {"lo"}, .ifr_ifru = {}
        };
        interface.ifr_flags = IFF_UP;
        ASSERT_EQ(ioctl(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0), SIOCSIFFLAGS, &interface), 0);
    }
};
const testing::Environment* const namespaces = testing::AddGlobalTestEnvironment(new Namespaces);

int next_port = 20000;

int exit_status_of(int state) {
    return WIFEXITED(state) ? WEXITSTATUS(state) : 128 + WTERMSIG(state);
}

// The processes that have lost their parent to us, ended ones included.
std::vector<pid_t> orphans() {
    std::istringstream text(read_file("/proc/1/task/1/children"));
    return {std::istream_iterator<pid_t>(text), {}};
}

}  // namespace

std::string run(const std::string& command) {
    const int state = std::system(("{ " + command + "; } >/run/output 2>/run/errors").c_str());
    return read_file("/run/output") + "|" + read_file("/run/errors") + "|" + std::to_string(exit_status_of(state));
}

bool wait_until(const std::function<bool()>& condition) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > limit) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

std::string receive_all(int client_socket) {
    std::string text;
    char buffer[65536];
    ssize_t count = 0;
    while ((count = recv(client_socket, buffer, sizeof buffer, 0)) > 0) text.append(buffer, std::size_t(count));
    EXPECT_FALSE(count < 0 && errno == EAGAIN) << "a connection was neither served nor closed";
    close(client_socket);
    return text;
}

Daemon::Daemon(const std::string& settings, const std::string& command) : port(next_port++) {
    write_file(site + "/index.html", "hello");
    write_file(config_file, "use_log=y\nlog_file=" + directory + "/http.log\nwebsite_path=" + site +
                                "\nstart_http=y\nport=" + std::to_string(port) + "\nlog_file_https=" + directory +
                                "/https.log\nport_https=" + std::to_string(https_port) + "\n" + settings);
    std::filesystem::copy_file(MARLUSERVER, directory + "/marluserver");

    // The daemon's standard error is /dev/null. By design its signal handler ends the process, which no handler may do
    // in tsan's eyes, and the servers' threads are never joined.
    const std::string report =
        "log_path=" + directory + "/report:report_signal_unsafe=0:report_thread_leaks=0:atexit_sleep_ms=0";
    for (const char* const name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS"}) setenv(name, report.c_str(), 1);
    setenv("TSAN_OPTIONS", (report + ":suppressions='" TSAN_SUPPRESSIONS "'").c_str(), 1);
    start = run("cd " + directory + " && " + command);

    // Two processes are left, the one between and the daemon, which is younger.
    std::vector<pid_t> left;
    if (!wait_until([&] { return (left = orphans()).size() == 2; })) throw std::runtime_error("no daemon: " + start);
    pid = std::max(left[0], left[1]);
    waitpid(std::min(left[0], left[1]), nullptr, 0);
    EXPECT_TRUE(wait_until([&] { return is_listening() || has_ended(); }));
}

Daemon::~Daemon() {
    EXPECT_EQ(status_was_read ? 0 : end_with(SIGTERM), 0);
    for (const pid_t process : orphans()) {  // what printed a sanitizer's report
        kill(process, SIGKILL);
        waitpid(process, nullptr, 0);
    }
    EXPECT_FALSE(std::filesystem::remove(pid_file_path)) << "the pid file was left";
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        if (entry.path().stem() == "report") ADD_FAILURE() << read_file(entry.path());
    }
    std::filesystem::remove_all(directory);
}

int Daemon::connect_to(int to_port, const std::string& source) const {
    const int client_socket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const timeval limit{30, 0};
    setsockopt(client_socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = inet_addr(source.c_str());
    bind(client_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    address.sin_port = htons(static_cast<std::uint16_t>(to_port));
    connect(client_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    return client_socket;
}

int Daemon::send_request(const std::string& request, const std::string& source) const {
    const int client_socket = connect_to(port, source);
    send(client_socket, request.data(), request.size(), MSG_NOSIGNAL);
    return client_socket;
}

std::string Daemon::answer(const std::string& request, const std::string& source) const {
    std::string text;
    EXPECT_TRUE(wait_until([&] { return !(text = exchange(request, source)).empty(); })) << request;
    return text;
}

int Daemon::hold_worker(const std::string& request) const {
    int client_socket = -1;
    EXPECT_TRUE(wait_until([&] {
        if (client_socket != -1) close(client_socket);
        client_socket = send_request(request);
        char byte;
        return recv(client_socket, &byte, 1, MSG_PEEK) == 1;
    })) << request;
    return client_socket;
}

bool Daemon::is_listening() const {
    const std::string table = read_file("/proc/net/tcp");
    return std::ranges::any_of(std::array{port, https_port}, [&table](int number) {
        char entry[32];
        std::snprintf(entry, sizeof entry, ":%04X 00000000:0000 0A", static_cast<unsigned>(number));
        return table.find(entry) != std::string::npos;
    });
}

std::ptrdiff_t Daemon::descriptor_count() const {
    return std::distance(std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd"), {});
}

std::size_t Daemon::resident_memory() const {
    std::istringstream pages(read_file("/proc/" + std::to_string(pid) + "/statm"));
    std::size_t all = 0, resident = 0;
    pages >> all >> resident;
    return resident * static_cast<std::size_t>(getpagesize());
}

std::string Daemon::messages(const std::string& name) const {
    static const std::regex beginning(R"(\[\d\d\.\d\d\.\d{4} \d\d:\d\d:\d\d\.\d{3}\] \(\d*\) \[\d+\] )");
    return std::regex_replace(log(name), beginning, "");
}

bool Daemon::has_ended() {
    int state;
    if (exit_status == -1 && waitpid(pid, &state, WNOHANG) == pid) exit_status = exit_status_of(state);
    return exit_status != -1;
}

int Daemon::status() {
    if (!wait_until([this] { return has_ended(); })) {
        ADD_FAILURE() << "the daemon does not end";
        kill(pid, SIGKILL);
        wait_until([this] { return has_ended(); });
    }
    status_was_read = true;
    return exit_status;
}

int Daemon::end_with(int signal_number) {
    const auto begin = std::chrono::steady_clock::now();
    kill(pid, signal_number);
    const int result = status();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(ENDING_SECONDS));
    return result;
}
