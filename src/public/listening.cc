#include "public/listening.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <chrono>
#include <thread>

void prepare_public_socket(int listening_socket) {
    const int on = 1;
    setsockopt(listening_socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const int seconds = 10;  // then the kernel hands over even a silent connection, which a worker soon drops
    setsockopt(listening_socket, IPPROTO_TCP, TCP_DEFER_ACCEPT, &seconds, sizeof seconds);
}

void wait_for_connection(int listening_socket) {
    constexpr int milliseconds = 100;  // so that the listener sees soon that it is to end
    pollfd entry{listening_socket, POLLIN, 0};
    poll(&entry, 1, milliseconds);
}

void pause_after_failed_accept() {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
}
