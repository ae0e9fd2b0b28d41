// How the daemon ends. That no pid file is left is looked at whenever a Daemon goes out of scope.
#include <fcntl.h>
#include <sys/stat.h>

#include "daemon.h"

namespace {

const std::string shutdown_line = "\nShutting down server...\n";
const std::string abort_line = "\nERROR: Abort signal. Shutting down server.\n";
const std::string memory_line = "\nERROR: Memory access error. Shutting down server.\n";
const std::string arithmetic_line = "\nERROR: Arithmetic error occurred. Shutting down server.\n";

}  // namespace

TEST(signals, end_the_daemon_with_their_status_and_text) {
    const struct {
        int number, status;
        std::string line;
    } cases[] = {
        {SIGINT, 0, shutdown_line}, {SIGQUIT, 0, shutdown_line},  {SIGTERM, 0, shutdown_line},
        {SIGABRT, 1, abort_line},   {SIGFPE, 1, arithmetic_line}, {SIGSEGV, 1, memory_line},
        {SIGBUS, 1, memory_line},
    };
    for (const auto& c : cases) {
        Daemon daemon;
        daemon.answer("GET /");
        EXPECT_EQ(daemon.end_with(c.number), c.status) << c.number;
        EXPECT_TRUE(daemon.messages().ends_with(c.line)) << daemon.messages();
    }
}

TEST(signals, of_every_other_kind_change_nothing) {
    const Daemon daemon;
    for (const int number : {1, 4, 5, 10, 12, 13, 14, 16, 17, 18, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31}) {
        kill(daemon.pid, number);
        ASSERT_TRUE(daemon.answer("GET /").ends_with("hello")) << number;
    }
}

TEST(signals, that_come_second_do_not_change_the_end) {
    const int cases[][3] = {
        {SIGTERM, SIGABRT, 0},
        {SIGINT, SIGSEGV, 0},
        {SIGABRT, SIGTERM, 1},
        {SIGFPE, SIGQUIT, 1},
    };
    for (const auto& [first, second, status] : cases) {
        // The log is a full pipe that nobody reads: the end waits for its writer, in vain and not for long.
        const std::string pipe_name = "/run/pipe" + std::to_string(second);
        mkfifo(pipe_name.c_str(), 0600);
        const int pipe_end = open(pipe_name.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        Daemon daemon("log_file=" + pipe_name + "\n");
        while (write(pipe_end, "x", 1) == 1) continue;
        kill(daemon.pid, first);
        EXPECT_TRUE(wait_until([&] { return !daemon.is_listening() || daemon.has_ended(); }));
        kill(daemon.pid, second);
        EXPECT_EQ(daemon.end_with(first), status) << first << " " << second;
        close(pipe_end);
    }
}

TEST(stop, works_as_soon_as_there_is_a_pid_file) {
    // The shell's own commands are quicker than the daemon's next steps.
    const std::string stop = "until read pid </run/marluserver.pid && kill $pid; do :; done 2>/dev/null";
    for (int round = 0; round < 30; ++round) {
        Daemon daemon("", "./marluserver start && " + stop);
        // Under tsan, and only there, one such signal in some thousands never reaches the handler.
        if (ENDING_SECONDS > 2) kill(daemon.pid, SIGTERM);
        EXPECT_EQ(daemon.status(), 0);
    }
}

TEST(stop, works_twice_and_while_all_workers_are_busy) {
    Daemon daemon;
    write_file(daemon.site + "/index.html", large);
    for (int held = 0; held < 4; ++held) daemon.hold_worker("GET /");
    for (int queued = 0; queued < 4; ++queued) daemon.send_request("GET /");
    EXPECT_EQ(run(MARLUSERVER " stop"), "||0");
    run(MARLUSERVER " stop");  // may already be too late
    EXPECT_EQ(daemon.end_with(SIGTERM), 0);
    EXPECT_TRUE(daemon.messages().ends_with(shutdown_line));
}

TEST(requests, that_cannot_be_answered_abort_the_daemon) {
    for (const std::string& request : {std::string("GET\r\n"), "GET /" + std::string(256, 'n')}) {
        Daemon daemon;
        EXPECT_TRUE(wait_until([&] { return daemon.exchange(request) == "" && daemon.has_ended(); }));
        EXPECT_EQ(daemon.status(), 1) << request;
        EXPECT_TRUE(daemon.messages().ends_with("\n\n" + abort_line)) << daemon.messages();
    }
}

TEST(server, that_cannot_have_its_port_ends_the_daemon) {
    Daemon daemon("port=80\n", "setpriv --bounding-set -net_bind_service ./marluserver start");
    EXPECT_EQ(daemon.status(), 0);
    EXPECT_TRUE(daemon.messages().ends_with("\nBind failed" + shutdown_line)) << daemon.messages();
}

TEST(server, that_cannot_have_a_thread_aborts_the_daemon) {
    if (ENDING_SECONDS > 2) GTEST_SKIP() << "this leaves no room for a sanitizer";
    // The stack that a thread gets by default would not fit into the address space.
    const std::string command = "ulimit -s 70000000000 && ./marluserver start";
    EXPECT_EQ(Daemon("use_log=n\n", command).status(), 1);
    EXPECT_EQ(Daemon("", command).status(), 0) << "a log without its writer is a refused configuration";
}
