#include "http/request_history.h"

namespace {

constexpr std::size_t most_kept = 1000;
constexpr std::size_t busy_above = 800;

}  // namespace

void RequestHistory::append(const std::string& request_text) {
    const std::lock_guard guard(lock);
    queue.push_back(request_text);
    if (queue.size() > most_kept) queue.pop_front();
    if (queue.size() > busy_above) busy = true;
}
