#include "weblog/log_reader.h"

#include <arpa/inet.h>
#include <strings.h>
#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <utility>

#include "http/responses.h"
#include "http/site_path.h"

namespace {

// What an entry begins with, up to its two numbers: here 0 is any digit.
constexpr std::string_view time_form = "[00.00.0000 00:00:00.000] (";
constexpr std::size_t most_digits = 20;
constexpr std::size_t longest_head = time_form.size() + most_digits + 3 + most_digits + 2;

constexpr std::size_t longest_address = 15;
constexpr std::size_t longest_request = 4096;  // what the daemon reads of one
constexpr std::size_t longest_entry = longest_head + longest_address + longest_request + 3;
constexpr std::size_t longest_rest = 1 << 16;
constexpr std::uint64_t patience = 1 << 20;  // bytes of the log, within which all entries of a request lie
constexpr std::size_t most_threads = 128;    // more than the daemon has
// How far the log may go on before the thread of a request logs again: meanwhile each other thread can log a request of
// its own, as long as the daemon reads one. A new number that is seen in this stretch is not trusted.
constexpr std::uint64_t longest_text = most_threads * longest_entry;

constexpr std::size_t most_known = 8 << 20;  // bytes for names that were looked up
constexpr std::size_t least_known = 128;     // what each takes beside its text

// In a line. GoAccess takes what comes after 4095 bytes for a line of its own.
constexpr std::size_t longest_request_line = 2000;
constexpr std::size_t longest_header = 1000;

constexpr std::pair<int, std::string_view> refusals[] = {
    {403, forbidden_response},
    {404, not_found_response},
    {405, method_not_allowed_response},
};

bool is_digit(char byte) {
    return byte >= '0' && byte <= '9';
}

// Removes beginning from the front of text. Returns false when text does not begin with it.
bool take(std::string_view& text, std::string_view beginning) {
    if (!text.starts_with(beginning)) return false;
    text.remove_prefix(beginning.size());
    return true;
}

// Takes digits, and the end that has to follow them, from the front of text.
bool take_number(std::string_view& text, std::string_view& number, std::string_view end) {
    std::size_t count = 0;
    while (count < std::min(text.size(), most_digits) && is_digit(text[count])) ++count;
    number = text.substr(0, count);
    text.remove_prefix(count);
    return take(text, end);
}

// Takes the first line, without its end, from the front of text.
std::string_view take_line(std::string_view& text) {
    std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    if (line.ends_with('\r')) line.remove_suffix(1);
    return line;
}

// The value of line if it is the header that is called name, otherwise "".
std::string_view header_value(std::string_view line, std::string_view name) {
    if (line.size() < name.size() || strncasecmp(line.data(), name.data(), name.size()) != 0) return "";
    line.remove_prefix(name.size());
    return line.substr(std::min(line.find_first_not_of(" \t"), line.size()));
}

// Appends text in quotes, cut to length. Intended: quotes and backslashes become hexadecimal too, so that a reader
// which looks for the next quote is right.
void append_quoted(std::string& line, std::string_view text, std::size_t length) {
    constexpr char digits[] = "0123456789ABCDEF";
    const auto is_plain = [](char byte) { return byte >= ' ' && byte <= '~' && byte != '"' && byte != '\\'; };
    if (text.empty()) text = "-";
    line += '"';
    while (!text.empty()) {
        const char* const special = std::find_if_not(text.begin(), text.end(), is_plain);
        const auto count = std::min(static_cast<std::size_t>(special - text.begin()), length);
        line += text.substr(0, count);
        length -= count;
        if (special == text.end() || length < 4) break;
        text.remove_prefix(count + 1);
        const auto byte = static_cast<unsigned char>(*special);
        line += {'\\', 'x', digits[byte >> 4], digits[byte & 15]};
        length -= 4;
    }
    line += '"';
}

}  // namespace

// Returns false when text does not begin as an entry does.
bool LogReader::split(std::string_view text, Entry& entry) {
    if (text.size() < time_form.size()) return false;
    for (std::size_t place = 0; place < time_form.size(); ++place) {
        if (is_digit(time_form[place]) ? !is_digit(text[place]) : text[place] != time_form[place]) return false;
    }
    entry.time = text.substr(1, 23);
    text.remove_prefix(time_form.size());
    std::string_view thread;
    if (!take_number(text, entry.context, ") [") || !take_number(text, thread, "] ")) return false;
    entry.message = text;
    return std::from_chars(thread.begin(), thread.end(), entry.thread).ec == std::errc();
}

void LogReader::read(std::string_view bytes, std::string& lines) {
    is_growing = true;
    rest += bytes;
    const std::string_view text = rest;
    std::size_t begin = 0;
    Entry entry;
    for (std::size_t place = searched; (place = text.find('[', place)) != text.npos; ++place) {
        if (place == 0 || text[place - 1] != '\n' || !split(text.substr(place), entry)) continue;
        take_entry(text.substr(begin, place - begin));
        rest_position += place - begin;
        begin = place;
        is_at_line = true;
        write_certain(lines);
    }
    if (text.size() - begin > longest_rest) {  // all that matters of it is there; the rest of the entry is passed over
        take_entry(text.substr(begin));
        is_at_line = false;
        rest_position += text.size() - begin - longest_head;
        begin = text.size() - longest_head;
    }
    rest.erase(0, begin);
    searched = rest.size() - std::min(rest.size(), longest_head);  // a head that is not whole yet may be behind it
}

void LogReader::tick(std::string& lines) {
    if (!is_growing && rest.ends_with('\n')) take_rest();
    is_growing = false;
    overdue = std::exchange(old, written + waiting.size());
    known.clear();
    write_certain(lines);
}

void LogReader::finish(std::string& lines) {
    if (!rest.ends_with('\n')) is_at_line = false;
    take_rest();
    overdue = written + waiting.size();
    write_certain(lines);
}

// Takes the rest as an entry, although no other one follows it yet. Bytes that still come before the next entry are
// passed over.
void LogReader::take_rest() {
    take_entry(rest);
    rest_position += rest.size();
    rest.clear();
    searched = 0;
    is_at_line = true;
}

void LogReader::take_entry(std::string_view text) {
    Entry entry;
    if (!is_at_line || !split(text.substr(0, longest_entry), entry)) return;
    entry.position = rest_position;
    if (entry.message.ends_with('\n')) entry.message.remove_suffix(1);
    Thread& thread = thread_of(entry);
    if (!adds_to_request(thread, entry)) begin_request(thread, entry);
}

LogReader::Thread& LogReader::thread_of(const Entry& entry) {
    if (threads.size() >= most_threads && !threads.contains(entry.thread)) {
        threads.erase(std::min_element(threads.begin(), threads.end(), [](const auto& one, const auto& other) {
            return std::pair(one.second.is_trusted, one.second.last_position) <
                   std::pair(other.second.is_trusted, other.second.last_position);
        }));
    }
    Thread& thread = threads[entry.thread];
    thread.is_trusted = thread.is_trusted || !can_be_forged(entry);
    thread.last_position = entry.position;
    return thread;
}

// True when the entry may be part of a request of another thread; such a request ends before that thread's next entry.
// Only trusted threads are asked: what lies in the request of another thread lies in one of theirs too.
bool LogReader::can_be_forged(const Entry& entry) const {
    return std::any_of(threads.begin(), threads.end(), [&](const auto& item) {
        const auto& [number, thread] = item;
        return number != entry.thread && thread.is_trusted && thread.expected == Thread::path &&
               entry.position < thread.text_end && thread.number >= overdue;
    });
}

// Returns false when the entry has nothing to do with the last request of its thread; that one is complete then.
bool LogReader::adds_to_request(Thread& thread, const Entry& entry) {
    if (thread.expected == Thread::nothing) return false;
    Request already_written;
    Request& request = thread.number < written ? already_written : waiting[thread.number - written];
    const bool is_same = entry.context == thread.context;
    std::string_view text = entry.message;
    if (is_same && text.starts_with("Error handling client")) {
        if (text.starts_with("Error handling client: ")) request.status = 500;  // unless an answer is logged, too
        return true;
    }
    const bool is_path_expected = std::exchange(thread.expected, Thread::nothing) == Thread::path;
    if (is_same && take(text, thread.address) && text.ends_with('\n')) {
        text.remove_suffix(1);
        if (is_path_expected && text.ends_with('\n') && take(text, "PATH = ")) {
            request.target = text.substr(0, text.size() - 1);
            thread.expected = Thread::refusal;
            return true;
        }
        const bool is_refusal = take(text, "ERROR: ");
        for (const auto& [status, response] : refusals) {
            // A refusal is this text and no more: behind a "PATH = " the next request can begin like it.
            if (!is_refusal || text != response || (status == 405) != is_path_expected) continue;
            request.status = status;
            request.size = response.size() - (response.find("\r\n\r\n") + 4);
            request.is_complete = true;
            return true;
        }
    }
    request.is_complete = true;
    return false;
}

void LogReader::begin_request(Thread& thread, const Entry& entry) {
    std::string_view text = entry.message;
    const std::string address(text.substr(0, text.find(' ')));
    in_addr number;
    const bool is_address = address.find('\0') == address.npos && inet_pton(AF_INET, address.c_str(), &number) == 1;
    // "0.0.0.0 Failed to accept HTTPS connection" is no request.
    if (!is_address || number.s_addr == 0) return;
    text.remove_prefix(std::min(address.size() + 1, text.size()));

    thread.number = written + waiting.size();
    thread.context = entry.context;
    thread.address = address + ' ';
    thread.expected = Thread::path;
    thread.text_end = entry.position + longest_text;
    Request& request = waiting.emplace_back();
    request.thread = entry.thread;
    request.position = entry.position;
    request.is_trusted = thread.is_trusted;
    if (text == std::string(too_many_requests_text) + '\n') {
        request.status = 429;
        thread.text_end = entry.position + longest_entry;  // a client can send the same text, and more
        text = "";
    }
    text.remove_prefix(std::min(text.find_first_not_of("\r\n"), text.size()));
    request.front = address + " - - [";
    append_time(request.front, entry.time);
    request.front += "] ";
    append_quoted(request.front, take_line(text), longest_request_line);
    std::string_view referrer, agent;
    for (std::string_view line; !(line = take_line(text)).empty();) {
        if (referrer.empty()) referrer = header_value(line, "Referer:");
        if (agent.empty()) agent = header_value(line, "User-Agent:");
    }
    request.back += ' ';
    append_quoted(request.back, referrer, longest_header);
    request.back += ' ';
    append_quoted(request.back, agent, longest_header);
    request.back += '\n';
}

// Appends "22.11.2026 22:27:31.895", a local time, as "22/Nov/2026:22:27:31 +0000".
void LogReader::append_time(std::string& line, std::string_view time) {
    constexpr std::size_t minute_size = 16;
    if (!time.starts_with(minute) || minute.empty()) {
        minute = time.substr(0, minute_size);
        std::tm local{};
        std::sscanf(minute.c_str(), "%d.%d.%d %d:%d", &local.tm_mday, &local.tm_mon, &local.tm_year, &local.tm_hour,
                    &local.tm_min);
        local.tm_mon -= 1;
        local.tm_year -= 1900;
        local.tm_isdst = -1;
        std::mktime(&local);
        char text[32];
        minute_text.assign(text, std::strftime(text, sizeof text, "%d/%b/%Y:%H:%M:", &local));
        zone_text.assign(text, std::strftime(text, sizeof text, " %z", &local));
    }
    line += minute_text;
    line += time.substr(minute_size + 1, 2);
    line += zone_text;
}

bool LogReader::is_trusted_now(std::uint64_t number) const {
    const auto thread = threads.find(number);
    return thread != threads.end() && thread->second.is_trusted;
}

// Writes requests, in their order, as far as they are complete, overdue, or far behind.
void LogReader::write_certain(std::string& lines) {
    for (; !waiting.empty(); waiting.pop_front(), ++written) {
        const Request& request = waiting.front();
        const bool is_overdue = written < overdue || request.position + patience < rest_position;
        if (!request.is_complete && !is_overdue) return;
        const bool is_trusted = request.is_trusted || is_trusted_now(request.thread);
        if (!is_trusted && !is_overdue) return;
        if (is_trusted) write(request, lines);
    }
}

void LogReader::write(const Request& request, std::string& lines) {
    lines += request.front;
    if (request.status == 0 && (!request.target || site.empty())) {
        lines += " 200 -";
    } else {
        const auto [status, size] =
            request.status == 0 ? answer_now(*request.target) : Answer(request.status, request.size);
        lines += ' ' + std::to_string(status) + ' ' + std::to_string(size);
    }
    lines += request.back;
}

// What the daemon would answer now. The file system is asked for a name at most once between ticks.
LogReader::Answer LogReader::answer_now(const std::string& target) {
    const auto found = known.find(target);
    if (found != known.end()) return found->second;
    if (known.empty() || known_size > most_known) {
        known.clear();
        known_size = 0;
    }
    known_size += target.size() + least_known;
    return known[target] = look_up(target);
}

LogReader::Answer LogReader::look_up(const std::string& target) const {
    constexpr Answer missing{404, 0};
    try {
        std::string name;
        struct stat file;
        if (target.empty() || !is_path_allowed(site, target.substr(1), &name)) return missing;
        if (stat(name.c_str(), &file) != 0) return missing;
        return {200, S_ISREG(file.st_mode) ? static_cast<std::uintmax_t>(file.st_size) : 0};
    } catch (const std::filesystem::filesystem_error&) {
        return missing;
    }
}
