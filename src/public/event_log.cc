#include "public/event_log.h"

#include <new>

void EventLog::tell(Kind kind, std::string_view text, std::string_view detail) noexcept {
    const auto now = std::chrono::steady_clock::now();
    if (now - told_at[kind] < std::chrono::seconds(1)) return;
    told_at[kind] = now;
    try {
        log_to_targets(target, std::string(text).append(detail), context);
    } catch (const std::bad_alloc&) {
        // The next one may find memory again.
    }
}
