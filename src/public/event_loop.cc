#include "public/event_loop.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "http/responses.h"
#include "log/access_log.h"
#include "net/run_state.h"
#include "public/http_date.h"

namespace {

using std::chrono::seconds;

constexpr int most_events = 256;  // a round
constexpr int accepts_per_round = 64;
constexpr int drops_per_round = 256;
constexpr int longest_wait = 100;  // milliseconds, so that the loop sees soon that it is to end
constexpr seconds longest_rest[] = {seconds(10), seconds(60), seconds(2)};  // by Rest

Descriptor make_epoll(int listening_socket) {
    Descriptor epoll(epoll_create1(EPOLL_CLOEXEC));
    epoll_event event{};
    event.events = EPOLLIN | EPOLLEXCLUSIVE;  // a connection wakes one of the loops
    if (!epoll || epoll_ctl(epoll.get(), EPOLL_CTL_ADD, listening_socket, &event) != 0) {
        throw std::system_error(errno, std::generic_category());
    }
    return epoll;
}

Descriptor open_reserve() {
    return Descriptor(open("/dev/null", O_RDONLY | O_CLOEXEC));
}

Address address_of_peer(const sockaddr_storage& peer) {
    return peer.ss_family == AF_INET6 ? address_of(reinterpret_cast<const sockaddr_in6&>(peer))
                                      : address_of(reinterpret_cast<const sockaddr_in&>(peer));
}

}  // namespace

struct EventLoop::Guest {
    Guest(Descriptor socket, SSL_CTX* context, const Address& address)
        : conversation(std::move(socket), context, address) {}
    ~Guest() { all_visitors().leave(conversation.address); }
    Guest(const Guest&) = delete;
    Guest& operator=(const Guest&) = delete;

    Conversation conversation;
    Guests::iterator place;
    Rest rest = Rest::beginning;
    std::chrono::steady_clock::time_point since;  // the rest began, or was last interrupted
    std::uint32_t events = 0;                     // that epoll watches for
    bool is_ready = false;
    bool is_dropped = false;
};

EventLoop::EventLoop(int server_socket, const Site& site, LogTarget target, TlsContexts* tls_contexts)
    : listening_socket(server_socket),
      contexts(tls_contexts),
      epoll(make_epoll(server_socket)),
      reserve(open_reserve()),
      events(target),
      work(site, events) {
    all_visitors().add_loop();
}

EventLoop::~EventLoop() = default;

void EventLoop::run() {
    while (server_running) {
        try {
            go_round();
        } catch (const std::bad_alloc& error) {
            events.tell(EventLog::fault, "Error: ", error.what());
        }
    }
}

void EventLoop::go_round() {
    epoll_event happened[most_events];
    const int count = epoll_wait(epoll.get(), happened, most_events, ready.empty() ? longest_wait : 0);
    note_time();
    const std::vector<Guest*> waiting = std::move(ready);
    ready.clear();
    for (Guest* const guest : waiting) {
        guest->is_ready = false;
        if (server_running && !guest->is_dropped) give_turn(*guest);
    }
    for (int index = 0; index < count && server_running; ++index) {
        Guest* const guest = static_cast<Guest*>(happened[index].data.ptr);
        if (guest == nullptr) {
            accept_connections();
        } else if (!guest->is_dropped) {
            give_turn(*guest);
        }
    }
    drop_overdue();
    // Before the next wait: what was answered is never in memory alone.
    if (!work.log_lines.empty()) access_log->append(work.log_lines);
    work.log_lines.clear();
    dropped.clear();
    make_room();
}

void EventLoop::accept_connections() {
    for (int count = 0; count < accepts_per_round; ++count) {
        sockaddr_storage peer{};
        socklen_t length = sizeof peer;
        Descriptor socket(
            accept4(listening_socket, reinterpret_cast<sockaddr*>(&peer), &length, SOCK_NONBLOCK | SOCK_CLOEXEC));
        try {
            if (socket) {
                receive(std::move(socket), address_of_peer(peer));
            } else if (errno == EMFILE || errno == ENFILE) {
                return refuse_without_descriptors();
            } else if (errno == EAGAIN) {
                return;
            } else if (errno == ENOMEM || errno == ENOBUFS) {
                return events.tell(EventLog::fault, "Error accept: ", std::strerror(errno));
            }
        } catch (const std::exception& error) {
            events.tell(EventLog::fault, "Error accept: ", error.what());
        }
    }
}

void EventLoop::receive(Descriptor socket, const Address& address) {
    if (!all_visitors().admit(address, now)) {
        return events.tell(EventLog::refusal, address.text, std::string(" ") + too_many_requests_text);
    }
    Guests& beginning = guests[static_cast<std::size_t>(Rest::beginning)];
    try {
        beginning.emplace_back(std::move(socket), contexts != nullptr ? contexts->current().get() : nullptr, address);
    } catch (...) {
        all_visitors().leave(address);
        throw;
    }
    Guest& guest = beginning.back();
    guest.place = std::prev(beginning.end());
    guest.since = now;
    give_turn(guest);
}

// Otherwise the connection that waits would wake this loop again and again.
void EventLoop::refuse_without_descriptors() {
    events.tell(EventLog::fault, "Error accept: ", std::strerror(errno));
    drop_longest_resting();
    reserve = Descriptor();
    const Descriptor refused(accept4(listening_socket, nullptr, nullptr, SOCK_CLOEXEC));
    reserve = open_reserve();
}

void EventLoop::give_turn(Guest& guest) {
    try {
        const Next next = guest.conversation.go_on(work);
        if (next == Next::close) return drop(guest);
        arrange(guest);
        if (next == Next::turn && !guest.is_ready) {
            ready.push_back(&guest);
            guest.is_ready = true;
        }
    } catch (const std::exception& error) {
        drop(guest);
        events.tell(EventLog::fault, "Error handling client: ", error.what());
    }
}

void EventLoop::arrange(Guest& guest) {
    const Rest rest = guest.conversation.rest();
    if (rest != guest.rest || guest.conversation.has_progressed()) {
        Guests& target = guests[static_cast<std::size_t>(rest)];
        target.splice(target.end(), guests[static_cast<std::size_t>(guest.rest)], guest.place);
        guest.rest = rest;
        guest.since = now;
    }
    const std::uint32_t wanted = guest.conversation.wanted_event();
    if (wanted == guest.events) return;
    epoll_event event{};
    event.events = wanted;
    event.data.ptr = &guest;
    const int operation = guest.events == 0 ? EPOLL_CTL_ADD : EPOLL_CTL_MOD;
    if (epoll_ctl(epoll.get(), operation, guest.conversation.socket(), &event) != 0) {
        throw std::system_error(errno, std::generic_category());
    }
    guest.events = wanted;
}

void EventLoop::drop(Guest& guest) {
    guest.is_dropped = true;
    if (guest.is_ready) std::erase(ready, &guest);
    dropped.splice(dropped.end(), guests[static_cast<std::size_t>(guest.rest)], guest.place);
    try {
        guest.conversation.end(work);
    } catch (const std::bad_alloc&) {
        // The line of an answer that was cut short is lost.
    }
}

void EventLoop::drop_longest_resting() {
    Guest* longest = nullptr;
    for (Guests& resting : guests) {
        if (!resting.empty() && (longest == nullptr || resting.front().since < longest->since))
            longest = &resting.front();
    }
    if (longest != nullptr) drop(*longest);
}

// When there are too many connections, at least one loop has more than its share, and drops those above it.
void EventLoop::make_room() {
    const auto count = [this] { return guests[0].size() + guests[1].size() + guests[2].size(); };
    for (int drops = 0; drops < drops_per_round; ++drops) {
        if (!all_visitors().is_over_room() || count() <= all_visitors().share_of_loop()) return;
        drop_longest_resting();
        dropped.clear();
    }
}

void EventLoop::drop_overdue() {
    int drops = 0;
    for (Guests& resting : guests) {
        const auto limit = longest_rest[&resting - guests.data()];
        for (; drops < drops_per_round && !resting.empty() && now - resting.front().since >= limit; ++drops) {
            Guest& guest = resting.front();
            if (guest.conversation.has_client_taken()) {
                guest.since = now;
                resting.splice(resting.end(), resting, guest.place);
            } else {
                drop(guest);
            }
        }
    }
}

void EventLoop::note_time() {
    now = std::chrono::steady_clock::now();
    const std::time_t second = std::time(nullptr);
    if (second == work.moment.now) return;
    work.moment.date = http_date(second);
    std::tm local{};
    localtime_r(&second, &local);
    char text[64];
    work.log_time.assign(text, std::strftime(text, sizeof text, "%d/%b/%Y:%H:%M:%S %z", &local));
    work.moment.now = second;  // last: without memory the next round tries again
}
