#pragma once

#include <array>
#include <chrono>
#include <list>
#include <vector>

#include "public/conversation.h"
#include "public/event_log.h"
#include "public/tls_contexts.h"

// One thread of a public server: accepts connections, drives those that can go on, and closes those whose time is over.
// Apart from the constructor every function belongs to that thread.
class EventLoop {
  public:
    // listening_socket must not wait; it belongs to the caller, like site, and both stay open. For TLS contexts gives
    // the present context. Throws std::system_error when the system lacks something.
    EventLoop(int listening_socket, const Site& site, LogTarget target, TlsContexts* contexts);

    ~EventLoop();

    // Serves until server_running is cleared. What was answered by then is in the access log.
    void run();

  private:
    // A connection and its place in this loop.
    struct Guest;
    using Guests = std::list<Guest>;

    void go_round();
    void accept_connections();
    void receive(Descriptor socket, const Address& address);
    void refuse_without_descriptors();
    void give_turn(Guest& guest);
    void arrange(Guest& guest);
    void drop(Guest& guest);
    void drop_longest_resting();
    void make_room();
    void drop_overdue();
    void note_time();

    const int listening_socket;
    TlsContexts* const contexts;  // null for plain connections
    const Descriptor epoll;
    Descriptor reserve;  // given up when there is no other, so that a connection can be taken and closed
    EventLog events;
    Workspace work;
    std::chrono::steady_clock::time_point now;
    std::array<Guests, 3> guests;  // by their Rest, each since longest first
    Guests dropped;                // freed at the end of the round: its events may still name them, ready does not
    std::vector<Guest*> ready;     // for another turn in the next round
};
