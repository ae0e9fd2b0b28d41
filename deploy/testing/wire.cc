// A cable of some length between two machines: holds each packet back, in both directions, for a time. Stands for netem,
// which not every kernel has.
//
//     wire PID NAME PID NAME MILLISECONDS
//
// Makes an interface NAME in the network namespace of process PID, at each end, and goes on until it is killed.
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>

namespace {

using Clock = std::chrono::steady_clock;

struct Packet {
    Clock::time_point due;
    std::string bytes;
};

struct End {
    int interface;
    std::deque<Packet> arrived;  // on their way to the other end
};

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::exit(1);
}

int make_interface(const char* process, const char* name) {
    const int network = open(("/proc/" + std::string(process) + "/ns/net").c_str(), O_RDONLY);
    if (network < 0 || setns(network, CLONE_NEWNET) != 0) fail("network namespace");
    close(network);
    const int interface = open("/dev/net/tun", O_RDWR | O_NONBLOCK);
    ifreq request{};
    request.ifr_flags = IFF_TAP | IFF_NO_PI;
    std::strncpy(request.ifr_name, name, IFNAMSIZ - 1);
    if (interface < 0 || ioctl(interface, TUNSETIFF, &request) != 0) fail(name);
    return interface;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 6) return 2;
    const std::chrono::milliseconds delay(std::atoi(argv[5]));
    End ends[2] = {{make_interface(argv[1], argv[2]), {}}, {make_interface(argv[3], argv[4]), {}}};
    char bytes[65536];
    while (true) {
        timespec wait{1, 0};
        for (const End& end : ends) {
            if (end.arrived.empty()) continue;
            const auto left = std::max(end.arrived.front().due - Clock::now(), Clock::duration(0));
            if (left < std::chrono::seconds(wait.tv_sec) + std::chrono::nanoseconds(wait.tv_nsec)) wait = {0, left.count()};
        }
        pollfd sources[2] = {{ends[0].interface, POLLIN, 0}, {ends[1].interface, POLLIN, 0}};
        ppoll(sources, 2, &wait, nullptr);
        const auto now = Clock::now();
        for (int i = 0; i < 2; ++i) {
            for (ssize_t size; (size = read(ends[i].interface, bytes, sizeof bytes)) > 0;) {
                ends[i].arrived.push_back({now + delay, std::string(bytes, static_cast<size_t>(size))});
            }
            // What does not fit is lost, as on any cable.
            for (auto& waiting = ends[i].arrived; !waiting.empty() && waiting.front().due <= now; waiting.pop_front()) {
                [[maybe_unused]] const auto written =
                    write(ends[1 - i].interface, waiting.front().bytes.data(), waiting.front().bytes.size());
            }
        }
    }
}
