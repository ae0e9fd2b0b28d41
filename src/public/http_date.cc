#include "public/http_date.h"

#include <time.h>

std::string http_date(std::time_t time) {
    std::tm parts{};
    gmtime_r(&time, &parts);
    char text[64];
    return {text, std::strftime(text, sizeof text, "%a, %d %b %Y %H:%M:%S GMT", &parts)};
}

std::optional<std::time_t> parse_http_date(const std::string& text) {
    if (text.empty()) return std::nullopt;  // the usual case, which strptime would take its time for
    for (const char* const form : {"%a, %d %b %Y %H:%M:%S GMT", "%A, %d-%b-%y %H:%M:%S GMT", "%a %b %e %H:%M:%S %Y"}) {
        std::tm parts{};
        const char* const end = strptime(text.c_str(), form, &parts);
        if (end != nullptr && *end == '\0') return timegm(&parts);
    }
    return std::nullopt;
}
