#include <gtest/gtest.h>

#include <utility>

#include "config/config_file.h"
#include "config/load_configuration.h"
#include "config/server_config.h"
#include "files.h"

namespace {

// Loads text in a directory of its own, which relative names refer to, and returns what is put on standard error.
std::string load(const std::string& text, const std::string& config_path = "test.cfg") {
    static const TemporaryDirectory directory;
    std::filesystem::current_path(directory.path);
    write_file(directory.path + "/test.cfg", text);
    server_config = ServerConfig();
    server_config.config_path = config_path;
    testing::internal::CaptureStderr();
    const bool loaded = load_configuration();
    const std::string errors = testing::internal::GetCapturedStderr();
    EXPECT_EQ(loaded, errors.empty()) << text;
    return errors;
}

const std::string good = "website_path=/w\nstart_http=y\n";

}  // namespace

TEST(config, takes_keys_in_any_case_and_the_last_line_of_a_key) {
    load("# note\n\n \tWebsite_Path = /srv/My Site \ncipher_list=A=B\nPORT=81\nport=82\r\n=x\nempty=\n#port=83");
    const Settings expected = {
        {"website_path", "/srv/My Site"}, {"cipher_list", "A=B"}, {"port", "82"}, {"", "x"}, {"empty", ""}};
    EXPECT_EQ(read_config_file("test.cfg"), expected);
}

TEST(config, names_the_first_thing_that_is_wrong) {
    const std::pair<std::string, std::string> cases[] = {
        {good + "port_http\n", "Invalid configuration line: port_http"},
        {good + " # not in column one\n", "Invalid configuration line:  # not in column one"},
        {good + "port=81\r\n\r\n", "Invalid configuration line: \r"},
        {"start_http=y\n", "Unable to open configuration file: not found [website_path]"},
        {"website_path= \nport=x", "Unable to open configuration file: [website_path] is empty"},
        {"website_path=/w\nstart_http=Yes\nport=x", "No permission to start any server: start_http and/or start_https"},
        {good + "port=8o80\nport_http=x", "Value is not a number. [port]"},
        {good + "port_http=-1\nport_https=x", "Value is not a number. [port_http]"},
        {good + "port_https=", "Value is not a number. [port_https]"},
        {good + "port=2147483648", "stoi"},
        {"use_log=y\nlog_file=none/a", "Failed to open log file: none/a - No such file or directory"},
    };
    for (const auto& [text, error] : cases) EXPECT_EQ(load(text), "\nError reading configuration: \n" + error + " ");
    EXPECT_EQ(load("", "none"), "\nError reading configuration: \nUnable to open configuration file: none ");
}

TEST(config, names_what_https_lacks) {
    const Certificates certificates;
    const std::string pem = "pem_file=" + certificates.path, missing = "The path to the file is incorrect. ";
    const std::pair<std::string, std::string> cases[] = {
        {"pem_file=.", missing + "File missing. [pem_file]"},
        {pem + "/good.key", "PEM is missing certificate [pem_file]"},
        {pem + "/good.crt", "PEM is missing a key [pem_file]"},
        {"pem_file=\ncrt_file=none", "One of the items is missing: crt_file and/or key_file"},
        {"crt_file=none\nkey_file=", "File path not specified: crt_file and/or key_file"},
        {"crt_file=none\nkey_file=none", missing + "File missing. [crt_file]"},
        {"crt_file=test.cfg\nkey_file=none", missing + "File missing. [key_file]"},
        {"crt_file=test.cfg\nkey_file=test.cfg\nchain_file=none", missing + "File missing. [chain_file]"},
        {pem + "/chain.pem\nkey_file=none\nport=x", "The list of ciphers is incorrect. [cipher_list]"},
        {pem + "/chain.pem\ncipher_list=any\ncache_ignore=.", missing + "[cache_ignore]"},
    };
    for (const auto& [lines, error] : cases)
        EXPECT_EQ(load(good + "start_https=y\n" + lines), "\nError reading configuration: \n" + error + " ") << lines;
}

TEST(config, combines_keys_that_mean_the_same_setting) {
    const std::pair<std::string, std::string> cases[] = {
        {"", "off  80 /w"},
        {"use_log=yes\nlog_file=a", "on a 80 /w"},
        {"use_log=yes", "off  80 /w"},
        {"log_file=a", "off  80 /w"},
        {"use_log=1\nlog_file=a", "off a 80 /w"},
        {"use_log=n\nuse_log_http=y\nlog_file_http=b", "on b 80 /w"},
        {"use_log_http=no\nuse_log=y\nlog_file=a\nlog_file_http=b", "off b 80 /w"},
        {"use_log=y\nlog_file=a\nuse_log_http=y", "off a 80 /w"},
        {"use_log=y\nlog_file=a\nlog_file_http=b", "on a 80 /w"},
        {"port=81", "off  81 /w"},
        {"port_http=090\nport=81", "off  90 /w"},
        {"port=81\nport_http=70000", "off  70000 /w"},
        {"website_path=/srv/site//", "off  80 /srv/site/"},
        {"website_path=C:\\", "off  80 C:"},
        {"website_path=/", "off  80 "},
    };
    for (const auto& [lines, result] : cases) {
        EXPECT_EQ(load(good + lines), "");
        EXPECT_EQ((server_config.http_log_enabled ? "on " : "off ") + server_config.http_log_file + " " +
                      std::to_string(server_config.port_http) + " " + server_config.website_path,
                  result)
            << lines;
    }
}
