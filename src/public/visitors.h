#pragma once

#include <netinet/in.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <deque>
#include <mutex>
#include <string>
#include <unordered_map>

// The address of a client.
struct Address {
    std::string text;  // how logs write it; dotted decimal for IPv4
    std::string key;   // what counts as one visitor: an IPv4 address, or the first 64 bits of an IPv6 address
    bool is_trusted;   // one of the trusted proxies: not limited
};

// Callable from any thread. Throws std::bad_alloc.
Address address_of(const sockaddr_in6& peer);
Address address_of(const sockaddr_in& peer);

// Counts the connections of all visitors, over both servers. Every function may be called from any thread.
class Visitors {
  public:
    using Clock = std::chrono::steady_clock;

    // Raises the limit of descriptors as far as it goes and derives the room from it: two for each connection.
    Visitors();

    // Counts a new connection. Returns false when it is to be refused, and is then not counted: the address has opened
    // 1000 in the current period of 11 seconds, or holds a quarter of the room. Throws std::bad_alloc.
    bool admit(const Address& address, Clock::time_point now);

    // To be called once for each admitted connection, when it is closed.
    void leave(const Address& address);

    // To be called once for each loop.
    void add_loop() { ++loops; }

    // True when there are more connections than there is room for: others have to go.
    bool is_over_room() const { return total > room; }

    // How many connections a loop may keep when there is no room.
    std::size_t share_of_loop() const { return room / loops; }

  private:
    struct Visitor {
        int opened;  // in the current period
        std::size_t held;
        Clock::time_point period_start;
    };

    void forget_before(Clock::time_point now);

    const std::size_t room;  // connections
    std::atomic<std::size_t> total{0};
    std::atomic<std::size_t> loops{0};
    std::mutex lock;                                    // guards all below
    std::unordered_map<std::string, Visitor> visitors;  // by key; forgotten when nothing is held and the period is over
    std::deque<std::pair<Clock::time_point, std::string>> periods;  // that were begun, oldest first
};

// Of the process. Never destroyed, see config/server_config.h.
Visitors& all_visitors();
