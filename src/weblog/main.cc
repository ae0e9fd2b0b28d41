#include <fcntl.h>
#include <getopt.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <iostream>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

#include "weblog/log_reader.h"

namespace {

constexpr char help_text[] =
    R"(marlu-log turns logs of marluserver into the Combined Log Format, one line for each request.

  marlu-log [--site WEBSITE_PATH] [--follow] FILE...
      FILE is the log of either server, or "-" for standard input.
      --site    Status and size of a file that was sent are those of the file as it is now, 404 and 0 if it is missing.
                Without it they are 200 and "-", also where the HTTP server closed the connection without an answer.
      --follow  Goes on with what is added to the logs, also when one is emptied or replaced. Not for standard input.
      Exit status: 0, or 1 when a log cannot be read or the lines cannot be written.

  marlu-log --help
)";

constexpr std::chrono::milliseconds tick_time{1000};
constexpr std::chrono::milliseconds pause_time{20};

[[noreturn]] void fail(const std::string& name) {
    throw std::system_error(errno, std::generic_category(), name);
}

// A log and what has been read of it. The lines go to standard output at once.
class Log {
  public:
    Log(const std::string& path, const std::string& website_path) : name(path), reader(website_path) { open_file(); }
    ~Log() { close(file); }
    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;

    // Reads to the end, which for a pipe comes when nobody can write to it any more.
    void read_all() {
        pollfd readable{file, POLLIN, 0};
        while (poll(&readable, 1, static_cast<int>(tick_time.count())) == 0 || read_some()) tick();
        finish();
    }

    // Reads what the file has now. Returns false when nothing was new.
    bool follow() {
        struct stat opened, named;
        if (fstat(file, &opened) != 0) fail(name);
        const bool is_emptied = opened.st_size < place;
        // A new file counts once something is in it: until its restart the daemon writes to the one that was moved.
        const bool is_replaced = stat(name.c_str(), &named) == 0 && named.st_ino != opened.st_ino && named.st_size > 0;
        const bool is_read = !is_emptied && read_some();
        if (!is_read && (is_emptied || is_replaced)) {
            finish();
            close(file);
            open_file();
            return true;
        }
        tick();
        return is_read;
    }

  private:
    void open_file() {
        file = name == "-" ? dup(STDIN_FILENO) : open(name.c_str(), O_RDONLY | O_CLOEXEC);
        if (file == -1) fail(name);
        place = 0;
    }

    bool read_some() {
        static char buffer[1 << 18];
        const ssize_t count = ::read(file, buffer, sizeof buffer);
        if (count < 0) fail(name);
        place += count;
        reader.read({buffer, static_cast<std::size_t>(count)}, lines);
        print();
        return count > 0;
    }

    void tick() {
        const auto now = std::chrono::steady_clock::now();
        if (now - last_tick < tick_time) return;
        last_tick = now;
        reader.tick(lines);
        print();
    }

    void finish() {
        reader.finish(lines);
        print();
    }

    // Writes pieces that a pipe takes whole, so that its reader never finds half a line, which GoAccess would count as
    // a line of its own. No line is longer than such a piece.
    void print() {
        for (std::string_view left = lines; !left.empty();) {
            const std::size_t size = left.size() <= PIPE_BUF ? left.size() : left.rfind('\n', PIPE_BUF - 1) + 1;
            const ssize_t count = write(STDOUT_FILENO, left.data(), size);
            if (count < 0) fail("standard output");
            left.remove_prefix(static_cast<std::size_t>(count));
        }
        lines.clear();
    }

    const std::string name;
    int file = -1;
    off_t place = 0;
    LogReader reader;
    std::string lines;
    std::chrono::steady_clock::time_point last_tick = std::chrono::steady_clock::now();
};

void follow_all(const std::vector<std::string>& names, const std::string& site) {
    std::deque<Log> logs;
    for (const std::string& name : names) logs.emplace_back(name, site);
    for (;;) {
        bool is_any_new = false;
        for (Log& log : logs) is_any_new |= log.follow();
        if (!is_any_new) std::this_thread::sleep_for(pause_time);
    }
}

int refuse(const std::string& message) {
    std::cerr << message << std::endl;
    return 1;
}

}  // namespace

int main(int argument_count, char** arguments) {
    const option options[] = {{"site", required_argument, nullptr, 's'},
                              {"follow", no_argument, nullptr, 'f'},
                              {"help", no_argument, nullptr, 'h'},
                              {nullptr, 0, nullptr, 0}};
    bool is_followed = false;
    std::string site;
    try {
        for (int choice; (choice = getopt_long(argument_count, arguments, "", options, nullptr)) != -1;) {
            if (choice == 's') {
                site = std::filesystem::canonical(optarg).string();
                if (!std::filesystem::is_directory(optarg)) return refuse("Not a directory: " + std::string(optarg));
            } else if (choice == 'f') {
                is_followed = true;
            } else if (choice == 'h') {
                std::cout << help_text << std::flush;
                return 0;
            } else {
                return 1;  // getopt_long has said why
            }
        }
        const std::vector<std::string> names(arguments + optind, arguments + argument_count);
        if (names.empty()) return refuse("Usage: marlu-log [--site WEBSITE_PATH] [--follow] FILE...");
        for (const std::string& name : names) {
            if (is_followed && name == "-") return refuse("marlu-log: --follow takes files only");
        }
        if (is_followed) follow_all(names, site);
        for (const std::string& name : names) Log(name, site).read_all();
        return 0;
    } catch (const std::exception& error) {
        return refuse(std::string("marlu-log: ") + error.what());
    }
}
