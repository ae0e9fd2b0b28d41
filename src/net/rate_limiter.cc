#include "net/rate_limiter.h"

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::nanoseconds period_length{10'999'999'999};  // the period is over after more than this
constexpr std::int32_t allowance = 1000;

struct RequestPeriod {
    std::int32_t count;  // connections admitted in this period
    Clock::time_point period_start;
};

class RateLimiter {
  public:
    bool refuses(const std::string& client_address) {
        const std::lock_guard lock(rate_mutex);
        const Clock::time_point now = Clock::now();
        const auto [found, is_new] = request_periods.try_emplace(client_address, RequestPeriod{1, now});
        if (is_new) return false;
        RequestPeriod& period = found->second;
        if (now - period.period_start > period_length) {
            period = RequestPeriod{1, now};
            return false;
        }
        // Intended: a refusal neither counts nor prolongs the period.
        if (period.count >= allowance) {
            refused_at[client_address] = now;
            return true;
        }
        ++period.count;
        return false;
    }

  private:
    std::mutex rate_mutex;  // guards both maps
    // Intended: an address is never removed from either, and nothing reads the second.
    std::map<std::string, RequestPeriod> request_periods;
    std::map<std::string, Clock::time_point> refused_at;
};

RateLimiter& rate_limiter = *new RateLimiter;  // never destroyed, see config/server_config.h

}  // namespace

bool is_rate_limited(const std::string& client_address) {
    return rate_limiter.refuses(client_address);
}
