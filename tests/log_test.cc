#include <gtest/gtest.h>

#include <regex>
#include <thread>

#include "config/server_config.h"
#include "files.h"
#include "log/log.h"

namespace {

const TemporaryDirectory directory;

std::string written(const Logger& logger, const std::string& name) {
    logger.wait_until_written(std::chrono::steady_clock::now() + std::chrono::seconds(30));
    return read_file(directory.path + name);
}

std::string minute_now() {
    char text[32];
    const std::time_t now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
    return std::string(text, std::strftime(text, sizeof text, R"(\[%d\.%m\.%Y %H:%M:)", std::localtime(&now)));
}

}  // namespace

TEST(log, adds_lines_of_one_form_to_what_is_there) {
    using namespace std::chrono;
    setenv("TZ", "TST-5:30", 1);
    write_file(directory.path + "/form", "old\n");
    Logger& logger = *new Logger(directory.path + "/form", log_warn);  // loggers are never destroyed
    // Early in a second the milliseconds need their leading zeros.
    while (system_clock::now().time_since_epoch() % seconds(1) > milliseconds(50)) std::this_thread::yield();
    const std::string before = minute_now();
    for (const int level : {3, 1, 2, 99}) logger.log(level, std::to_string(level), level > 3 ? "" : "7");
    const std::string time = "(" + before + "|" + minute_now() + R"()\d\d\.\d{3}\] )";
    const std::regex form("old\n" + time + R"(\(7\) \[\d+\] 3\n)" + time + R"(\(7\) \[\d+\] 2\n)" + time +
                          R"(\(\) \[\d+\] 99\n)");
    EXPECT_TRUE(std::regex_match(written(logger, "/form"), form)) << read_file(directory.path + "/form");
}

TEST(log, writes_where_the_log_is_on_and_its_server_starts) {
    const struct {
        bool http_log, http_start, https_log, https_start;
        std::string http_lines, https_lines;
    } cases[] = {
        {true, true, true, true, " 0\n\n 2\n\nend\n", " 1\n\n 2\n\nend\n"},
        {true, false, true, true, "", " 1\n\n 2\n\nend\n"},
        {true, true, true, false, " 0\n\n 2\n\nend\n", ""},
        {false, true, true, true, "", " 1\n\n 2\n\nend\n"},
        {true, true, false, true, " 0\n\n 2\n\nend\n", ""},
    };
    for (const auto& c : cases) {
        server_config.http_log_enabled = c.http_log;
        server_config.start_http = c.http_start;
        server_config.https_log_enabled = c.https_log;
        server_config.start_https = c.https_start;
        http_logger = https_logger = nullptr;
        log_shutdown_message("not open yet", "");
        http_logger = new Logger(directory.path + "/http", log_debug);
        https_logger = new Logger(directory.path + "/https", log_debug);
        for (const int target : {0, 1, 2, 3}) log_event(LogTarget(target), "", std::to_string(target), "");
        log_shutdown_message("end", "");
        const std::pair<const Logger&, std::string> logs[] = {
            {*http_logger, "/http"},
            {*https_logger, "/https"},
        };
        for (const auto& [logger, name] : logs) {
            const std::string lines = std::regex_replace(written(logger, name), std::regex(R"(\[.*\] )"), "");
            EXPECT_EQ(lines, name == "/http" ? c.http_lines : c.https_lines);
            std::filesystem::remove(directory.path + name);
        }
    }
}
