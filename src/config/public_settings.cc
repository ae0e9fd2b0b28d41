#include "config/public_settings.h"

#include <arpa/inet.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>

#include "config/server_config.h"

namespace {

constexpr const char* made_by_server[] = {
    "accept-ranges", "allow", "connection", "content-encoding", "content-length", "content-range",     "content-type",
    "date",          "etag",  "keep-alive", "last-modified",    "location",       "transfer-encoding", "vary",
};

bool is_printable(char character) {
    return character >= ' ' && character <= '~';
}

// Takes a line apart: PATTERN Name: value. Throws std::runtime_error.
HeaderRule parse_rule(const std::string& line) {
    constexpr char token_characters[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz!#$%&'*+-.^_`|~";
    const std::size_t pattern_end = std::min(line.find_first_of(" \t"), line.size());
    const std::size_t colon = line.find(':', pattern_end);
    if (colon == line.npos) throw std::runtime_error("it is not PATTERN Name: value");
    const std::size_t name_begin = line.find_first_not_of(" \t", pattern_end);
    HeaderRule rule{line.substr(0, pattern_end), line.substr(name_begin, colon - name_begin),
                    trim(line.substr(colon + 1))};
    if (rule.name.empty() || rule.name.find_first_not_of(token_characters) != rule.name.npos) {
        throw std::runtime_error("no header has the name \"" + rule.name + "\"");
    }
    if (std::find(std::begin(made_by_server), std::end(made_by_server), lower_case(rule.name)) !=
        std::end(made_by_server)) {
        throw std::runtime_error("the server itself makes the header " + rule.name);
    }
    if (rule.value.empty() || !std::all_of(rule.value.begin(), rule.value.end(), is_printable)) {
        throw std::runtime_error("the value is not printable ASCII");
    }
    return rule;
}

void read_headers_file(const std::string& path) {
    if (!file_exists(path)) throw std::runtime_error("The path to the file is incorrect. File missing. [headers_file]");
    std::ifstream file(path);
    if (!file) throw std::runtime_error("Failed to open file. [headers_file]");
    std::string line;
    for (int number = 1; std::getline(file, line); ++number) {
        const std::string text = trim(line);
        if (text.empty() || text.front() == '#') continue;
        try {
            server_config.header_rules.push_back(parse_rule(text));
        } catch (const std::runtime_error& error) {
            throw std::runtime_error("Line " + std::to_string(number) + " of the headers file: " + error.what() +
                                     ". [headers_file]");
        }
    }
}

// Writes an address as logs write those of clients.
std::string canonical_address(std::string text) {
    constexpr std::string_view mapped = "::ffff:";  // before an IPv4 address
    in6_addr address;
    if (lower_case(text).starts_with(mapped) && text.find('.') != text.npos) text.erase(0, mapped.size());
    for (const int family : {AF_INET, AF_INET6}) {
        char canonical[INET6_ADDRSTRLEN];
        if (inet_pton(family, text.c_str(), &address) == 1) {
            return inet_ntop(family, &address, canonical, sizeof canonical);
        }
    }
    throw std::runtime_error("Not an IP address: " + text + " [trusted_proxy]");
}

void read_trusted_proxies(const std::string& list) {
    std::istringstream addresses(list);
    std::string address;
    while (std::getline(addresses, address, ','))
        server_config.trusted_proxies.push_back(canonical_address(trim(address)));
}

}  // namespace

void read_public_settings(const Settings& settings) {
    server_config.access_log = value_or_empty(settings, "access_log");
    server_config.https_only = is_yes(settings, "https_only");
    const std::string headers_file = value_or_empty(settings, "headers_file");
    if (!headers_file.empty()) read_headers_file(headers_file);
    read_trusted_proxies(value_or_empty(settings, "trusted_proxy"));
}
