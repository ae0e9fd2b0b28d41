// The command line, and what it leaves running.
#include <sys/stat.h>
#include <sys/wait.h>

#include "daemon.h"

TEST(command, refuses_what_it_does_not_know) {
    EXPECT_EQ(run(MARLUSERVER), "|Usage: " MARLUSERVER " start|stop\n|1");
    EXPECT_EQ(run(MARLUSERVER " stop"), "|Daemon is not running\n|1");
    for (const std::string word : {"START", "startx", "-v", "''"}) {
        EXPECT_EQ(run(MARLUSERVER " " + word), "|Invalid command\n|1") << word;
    }
}

TEST(command, prints_the_version_also_at_the_start) {
    const std::string version = run(MARLUSERVER " --version");
    EXPECT_NE(version.find(" " PROJECT_VERSION " "), std::string::npos) << version;
    EXPECT_EQ(version.find("\n||0"), version.size() - 4) << version;
    EXPECT_EQ(run(MARLUSERVER " --v start"), version);
    EXPECT_EQ(Daemon().start, version);
}

TEST(command, starts_once_and_with_its_own_configuration_only) {
    const Daemon daemon("", "./marluserver start --config /none.cfg");
    const std::string line = " is used: " + daemon.config_file + "\n";
    EXPECT_TRUE(wait_until([&] { return daemon.log().find(line) != std::string::npos; })) << daemon.log();
    EXPECT_EQ(run(MARLUSERVER " start --conf"), "|Daemon is already running\n|1");
}

TEST(command, signals_nobody_when_the_pid_file_holds_no_process) {
    const pid_t bystander = fork();
    while (bystander == 0) pause();
    for (const std::string text : {"", "garbage", "0", "-1", "99999999999999999999"}) {
        write_file(pid_file_path, text);
        EXPECT_EQ(run(MARLUSERVER " stop"), "||0") << text;
        EXPECT_EQ(waitpid(bystander, nullptr, WNOHANG), 0) << text;
    }
    std::filesystem::remove(pid_file_path);
    kill(bystander, SIGKILL);
    waitpid(bystander, nullptr, 0);
}

TEST(start, detaches_the_daemon) {
    const Daemon daemon;
    const std::string process = "/proc/" + std::to_string(daemon.pid);
    EXPECT_EQ(std::filesystem::read_symlink(process + "/cwd"), "/");
    for (const char* const name : {"/fd/0", "/fd/1", "/fd/2"}) {
        EXPECT_EQ(std::filesystem::read_symlink(process + name), "/dev/null") << name;
    }
    EXPECT_NE(getsid(daemon.pid), getsid(0));
    EXPECT_NE(getsid(daemon.pid), daemon.pid) << "a session leader could get a terminal";
    EXPECT_EQ(read_file(pid_file_path), std::to_string(daemon.pid) + "\n");
    EXPECT_EQ(int(std::filesystem::status(pid_file_path).permissions()), 0666);
}

TEST(start, goes_on_without_a_pid_file) {
    std::filesystem::create_symlink("/none/none", pid_file_path);  // can be neither read nor made
    Daemon daemon;
    EXPECT_NE(daemon.answer("GET /"), "");
    EXPECT_EQ(daemon.end_with(SIGTERM), 0);
}

TEST(start, ends_by_itself_when_the_configuration_is_wrong) {
    // A log takes the reason when it is open and its server is known to start.
    const std::string cases[][2] = {
        {"nonsense", ""},
        {"website_path=", ""},
        {"start_http=no", ""},
        {"log_file=/none/http.log", ""},
        {"port_https=99999999999", "stoi"},
        {"port=x", "Value is not a number. [port]"},
    };
    for (const auto& [settings, reason] : cases) {
        Daemon daemon(settings);
        EXPECT_EQ(daemon.status(), 0) << settings;
        const std::string log = "The configuration file located at the following path is used: " + daemon.config_file +
                                "\n\nError reading configuration: \n" + reason + " \nShutting down server...\n";
        EXPECT_EQ(daemon.messages(), reason.empty() ? "" : log) << settings;
    }
}
