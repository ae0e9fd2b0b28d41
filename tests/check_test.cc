// The companion program: what it lists, refuses and warns of.
#include <algorithm>
#include <iterator>
#include <map>
#include <regex>
#include <set>

#include "daemon.h"
#include "http/file_cache.h"

namespace {

const Certificates certificates;
const std::string http = "website_path=/run/site\nstart_http=y\n";
const std::string https =
    "website_path=/run/site/docs\nstart_https=y\nport_https=8443\ncipher_list=ALL\nkey_file=" + certificates.path +
    "/good.key\ncrt_file=" + certificates.path + "/good.crt\n";

void make_site() {
    std::filesystem::remove_all("/run/site");
    write_file("/run/site/docs/index.html", "hello");
    for (std::size_t number = 0; number < 100; ++number)  // more than the cache has slots
        write_file("/run/site/" + std::to_string(number), std::string(number * 37 % 101 + 1, 'x'));
}

// What the program says of a configuration: "standard output|standard error|status".
std::string check(const std::string& settings, const std::string& prefix = "") {
    write_file("/run/check.cfg", settings);
    return run(prefix + MARLU_CHECK " config /run/check.cfg");
}

}  // namespace

TEST(list, leaves_the_largest_file_of_each_slot_in_the_cache) {
    make_site();
    write_file("/run/site/empty", "");
    write_file("/run/site/a b", "blank");
    const std::pair<std::string, std::string> links[] = {
        {"/etc/passwd", "out"}, {"none", "broken"}, {"..", "docs/up"}, {"0", "link"}};
    for (const auto& [target, link] : links) std::filesystem::create_symlink(target, "/run/site/" + link);
    const std::string result = run(MARLU_CHECK " list /run/site/docs/.."), list = result.substr(0, result.find('|'));
    EXPECT_EQ(run(MARLU_CHECK " list /run/site"), result);
    EXPECT_EQ(std::regex_replace(result, std::regex(": .+"), ""), list + "|a b\nbroken\nempty\nout\n|0") << result;

    std::istringstream words(list);
    const std::vector<std::string> lines(std::istream_iterator<std::string>(words), {});
    EXPECT_TRUE(std::ranges::is_sorted(lines));
    const std::set<std::string> listed(lines.begin(), lines.end());
    std::map<std::size_t, std::uintmax_t> kept, largest;  // bytes in each slot
    for (const auto& entry : std::filesystem::recursive_directory_iterator("/run/site")) {
        const std::string name = std::filesystem::relative(entry.path(), "/run/site");
        if (entry.is_symlink() || !entry.is_regular_file() || name == "empty" || name == "a b") continue;
        const std::size_t slot = cache_slot(entry.path());
        largest[slot] = std::max(largest[slot], entry.file_size());
        EXPECT_TRUE(listed.contains(name) || kept.emplace(slot, entry.file_size()).second) << name;
    }
    EXPECT_EQ(kept, largest);
}

TEST(check, says_why_the_daemon_would_not_start) {
    const std::pair<std::string, std::string> cases[] = {
        {"nonsense", "Invalid configuration line: nonsense"},
        {http + "port=x", "Value is not a number. [port]"},
        {http + "use_log=y\nlog_file=/run/no/log", "Failed to open log file: /run/no/log - No such file or directory"},
        {http + "use_log=y\nlog_file=/run", "Failed to open log file: /run - Is a directory"},
        {https + "cache_ignore=/run", "The path to the file is incorrect. [cache_ignore]"},
        {https + "cipher_list=none", "Error installing cipher list: none"},
    };
    for (const auto& [settings, error] : cases) EXPECT_EQ(check(settings), "|" + error + "\n|1");
}

TEST(check, warns_of_what_the_daemon_takes_and_nobody_wants) {
    make_site();
    std::filesystem::create_directory_symlink("/run/site", "/run/other");
    const struct {
        std::string settings, warning, prefix = "";
    } cases[] = {
        {http + "use_log=y\nlog_file=/run/new.log", ""},
        {https, ""},
        {http + "prot=81", "unknown key [prot]; the keys are"},
        {http + "use_log=Yes", "[use_log] is neither yes"},
        {http + "port=0", "[port_http] 0 is no port"},
        {https + "port_https=70000", "[port_https] 70000 is no port"},
        {http + "website_path=/run/other", "[website_path] is not canonical"},
        {https + "website_path=/run/site", "[cache_ignore] "},
        {https + "crt_file=" + certificates.path + "/expired.crt", "the certificate has expired"},
        {https + "key_file=" + certificates.path + "/other.key", "the private key does not match the certificate"},
        {https, "no permission here for the packet socket", "setpriv --bounding-set -net_raw "},
        {https + "port_https=443", "[port_https] no permission", "setpriv --bounding-set -net_bind_service "},
    };
    for (const auto& c : cases) {
        const std::string result = check(c.settings, c.prefix), errors = result.substr(result.find('|') + 1);
        EXPECT_TRUE(result.starts_with("OK\nwebsite ") && result.ends_with("|0")) << c.settings << result;
        EXPECT_TRUE(errors.starts_with(c.warning.empty() ? "|" : "warning: " + c.warning)) << c.settings << errors;
        EXPECT_LE(std::ranges::count(errors, '\n'), 1) << errors;
    }
    EXPECT_FALSE(std::filesystem::exists("/run/new.log"));
}
