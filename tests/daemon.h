#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <functional>
#include <string>

#include "daemon/daemonize.h"
#include "files.h"

// What the daemon answers.
inline const std::string forbidden = "HTTP/1.1 403 Forbidden\r\nContent-Length: 0\r\n\r\n";
inline const std::string not_allowed = "HTTP/1.1 405 Method Not Allowed\r\n\r\n";
inline std::string ok(const std::string& type, const std::string& body) {
    return "HTTP/1.1 200 OK\r\nContent-Type: " + type + "\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\n\r\n" + body;
}

inline const std::string large(15 << 20, 'x');  // more than the sockets hold

// Returns a shell command's standard output, standard error and status (128 and its number for a signal), "|" between.
std::string run(const std::string& command);

// Returns true once condition does, false when it does not in half a minute.
bool wait_until(const std::function<bool()>& condition);

// Returns all that comes on a connection until it ends, and closes it. A connection that does not end is a failure.
std::string receive_all(int client_socket);

// One run of the program, with a directory, a port and a log of its own; one at a time, for there is one pid file.
// Going out of scope it ends, and the test fails if it did before, leaves its pid file, or a sanitizer complained.
class Daemon {
  public:
    // Adds settings to a configuration that works (a later line counts), runs command beside the program, and returns
    // when the daemon listens or has ended.
    explicit Daemon(const std::string& settings = "", const std::string& command = "./marluserver start");
    ~Daemon();
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    // Returns a connected socket whose own address is source.
    int connect_to(int to_port, const std::string& source = "127.0.0.1") const;
    // The same over plain HTTP, after request has been sent on it.
    int send_request(const std::string& request, const std::string& source = "127.0.0.1") const;
    // Returns all that comes back for request. May be nothing by design: the daemon closes a connection whose request
    // was not there yet when it looked.
    std::string exchange(const std::string& request, const std::string& source = "127.0.0.1") const {
        return receive_all(send_request(request, source));
    }
    // Repeats the exchange until there is an answer.
    std::string answer(const std::string& request, const std::string& source = "127.0.0.1") const;
    // Repeats request until an answer begins; while the rest of it is not read, a worker is held.
    int hold_worker(const std::string& request) const;

    bool is_listening() const;  // on either port
    std::ptrdiff_t descriptor_count() const;
    std::size_t resident_memory() const;  // bytes
    std::string log(const std::string& name = "http.log") const { return read_file(directory + "/" + name); }
    std::string messages(const std::string& name = "http.log") const;  // without what well-formed lines begin with

    bool has_ended();
    int status();  // waits for the end
    int end_with(int signal_number);

    const int port;
    const int https_port = port + 10000;
    const std::string directory = "/run/" + std::to_string(port);
    const std::string site = directory + "/site";
    const std::string config_file = directory + "/marlu/marluserver.cfg";
    std::string start;  // what the command did
    pid_t pid = 0;

  private:
    int exit_status = -1;
    bool status_was_read = false;
};
