#include "public/visitors.h"

#include <arpa/inet.h>
#include <sys/resource.h>

#include <algorithm>

#include "config/server_config.h"

namespace {

constexpr std::chrono::seconds period_length{11};
constexpr int allowance = 1000;
constexpr std::size_t share_of_one = 4;  // an address may hold one fourth of the room
constexpr rlim_t usual_limit = 1024;
// For logs, listening sockets and loops, and for the connections that these accept before they make room.
constexpr std::size_t least_reserve = 64;
constexpr std::size_t share_of_reserve = 16;       // a sixteenth of all descriptors
constexpr std::size_t most_connections = 1 << 20;  // where descriptors are not limited

// Raises the limit of descriptors as far as it goes. Returns how many connections it has room for.
std::size_t find_room() {
    rlimit limit{usual_limit, usual_limit};  // where the system does not tell
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit raised{limit.rlim_max, limit.rlim_max};
    if (setrlimit(RLIMIT_NOFILE, &raised) == 0) limit = raised;
    const std::size_t reserve = std::max<std::size_t>(limit.rlim_cur / share_of_reserve, least_reserve);
    const std::size_t descriptors = std::max<std::size_t>(limit.rlim_cur, reserve + 8) - reserve;
    return std::min(descriptors / 2, most_connections);
}

Address with_trust(std::string text, std::string key) {
    const auto& trusted = server_config.trusted_proxies;
    const bool is_trusted = std::find(trusted.begin(), trusted.end(), text) != trusted.end();
    return {std::move(text), std::move(key), is_trusted};
}

}  // namespace

Address address_of(const sockaddr_in& peer) {
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &peer.sin_addr, text, sizeof text);
    return with_trust(text, std::string(reinterpret_cast<const char*>(&peer.sin_addr), sizeof peer.sin_addr));
}

Address address_of(const sockaddr_in6& peer) {
    if (IN6_IS_ADDR_V4MAPPED(&peer.sin6_addr)) {
        sockaddr_in old{};
        std::copy_n(peer.sin6_addr.s6_addr + 12, 4, reinterpret_cast<unsigned char*>(&old.sin_addr));
        return address_of(old);
    }
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(AF_INET6, &peer.sin6_addr, text, sizeof text);
    return with_trust(text, std::string(reinterpret_cast<const char*>(&peer.sin6_addr), 8));
}

Visitors::Visitors() : room(find_room()) {}

bool Visitors::admit(const Address& address, Clock::time_point now) {
    if (!address.is_trusted) {
        const std::lock_guard guard(lock);
        forget_before(now);
        const auto [found, is_new] = visitors.try_emplace(address.key, Visitor{0, 0, now});
        Visitor& visitor = found->second;
        const bool is_period_new = is_new || now - visitor.period_start >= period_length;
        if (is_period_new) {
            periods.emplace_back(now, address.key);
            visitor.opened = 0;
            visitor.period_start = now;
        }
        if (visitor.opened >= allowance || visitor.held >= std::max<std::size_t>(room / share_of_one, 1)) return false;
        ++visitor.opened;
        ++visitor.held;
    }
    ++total;
    return true;
}

void Visitors::leave(const Address& address) {
    --total;
    if (address.is_trusted) return;
    const std::lock_guard guard(lock);
    const auto found = visitors.find(address.key);
    Visitor& visitor = found->second;
    if (--visitor.held == 0 && Clock::now() - visitor.period_start >= period_length) visitors.erase(found);
}

void Visitors::forget_before(Clock::time_point now) {
    while (!periods.empty() && now - periods.front().first >= period_length) {
        const auto found = visitors.find(periods.front().second);
        if (found != visitors.end() && found->second.held == 0 && now - found->second.period_start >= period_length) {
            visitors.erase(found);
        }
        periods.pop_front();
    }
}

Visitors& all_visitors() {
    static Visitors& visitors = *new Visitors;
    return visitors;
}
