#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

// Turns one log of the daemon, of either server, into lines of the Combined Log Format: one for each request, in the
// order of the log. What a client sent can neither end a line nor leave its quotes, and no line is longer than 4095
// bytes. Takes constant memory. To be used by one thread.
//
// A client can write lines into its request that look like entries, but it cannot know the numbers of the daemon's
// threads. So a new number is trusted only once it is seen where no request can have put it. The requests of its thread
// wait for that, and are dropped if it does not happen.
class LogReader {
  public:
    // A file that was sent has status 200 and size "-" or, with a canonical website_path, those that a request would
    // have now.
    explicit LogReader(std::string website_path = "") : site(std::move(website_path)) {}

    // Takes the log's next bytes, cut anywhere, and appends to lines what has become certain.
    void read(std::string_view bytes, std::string& lines);

    // To be called every few seconds while the log is still written: what was not certain at the call before is waited
    // for no longer.
    void tick(std::string& lines);

    // The log has ended: appends what is left. Half a line at the end counts for nothing.
    void finish(std::string& lines);

  private:
    using Answer = std::pair<int, std::uintmax_t>;  // its status, and the size of its body
    struct Entry {
        std::string_view time, context, message;
        std::uint64_t thread;
        std::uint64_t position;  // in the log
    };
    struct Request {
        std::uint64_t thread;
        std::uint64_t position;
        std::string front, back;            // of the line: what stands before and after status and size
        std::optional<std::string> target;  // as in its "PATH = " entry
        int status = 0;                     // 0 while nothing says that it was refused
        std::size_t size = 0;               // of the answer, if it was refused
        bool is_complete = false;           // no further entry can belong to it
        bool is_trusted = false;            // its thread was trusted when it began
    };
    struct Thread {
        bool is_trusted = false;
        std::uint64_t last_position = 0;
        // Of its last request:
        std::uint64_t number = 0;    // the log's first request is 0
        std::uint64_t text_end = 0;  // its text ends before this position
        std::string context, address;
        enum { nothing, path, refusal } expected = nothing;  // the next entry that may belong to it
    };

    static bool split(std::string_view text, Entry& entry);
    void take_entry(std::string_view text);
    void take_rest();
    Thread& thread_of(const Entry& entry);
    bool can_be_forged(const Entry& entry) const;
    bool is_trusted_now(std::uint64_t number) const;
    bool adds_to_request(Thread& thread, const Entry& entry);
    void begin_request(Thread& thread, const Entry& entry);
    void append_time(std::string& line, std::string_view time);
    void write_certain(std::string& lines);
    void write(const Request& request, std::string& lines);
    Answer answer_now(const std::string& target);
    Answer look_up(const std::string& target) const;

    const std::string site;
    std::string rest;  // of the log, from the last entry on
    std::uint64_t rest_position = 0;
    std::size_t searched = 0;  // in these first bytes of rest no other entry begins
    bool is_at_line = true;    // rest begins where a line does
    bool is_growing = false;   // since the last tick
    std::deque<Request> waiting;
    std::uint64_t written = 0;  // requests that are no longer waiting
    std::uint64_t old = 0;      // requests that had begun at the last tick
    std::uint64_t overdue = 0;  // and at the one before
    std::unordered_map<std::uint64_t, Thread> threads;
    std::unordered_map<std::string, Answer> known;  // what was looked up since the last tick
    std::size_t known_size = 0;
    std::string minute, minute_text, zone_text;  // the last one converted, and what it is in a line
};
