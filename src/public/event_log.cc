#include "public/event_log.h"

void EventLog::tell(Kind kind, const std::string& text) noexcept {
    const auto now = std::chrono::steady_clock::now();
    if (now - told_at[kind] < std::chrono::seconds(1)) return;
    told_at[kind] = now;
    log_to_targets(target, text, context);
}
