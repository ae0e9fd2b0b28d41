// What clients get over TLS, what the HTTPS log says about it, and how its server begins and ends.
#include <openssl/ssl.h>
#include <sys/socket.h>

#include <regex>
#include <set>
#include <thread>

#include "daemon.h"
#include "http/file_cache.h"

namespace {

const Certificates certificates;
const std::string not_found =
    "HTTP/1.1 404 Not Found\r\nContent-Type: text/html\r\n\r\n"
    "<html><body><h1>404 Not Found</h1><p>The requested file was not found.</p></body></html>";
const std::string shutdown_line = "Shutting down server...\n";

// One connection of exactly one version; it is closed without a word.
struct TlsClient {
    explicit TlsClient(int connected_socket, int version = TLS1_3_VERSION) : client_socket(connected_socket) {
        SSL_set_min_proto_version(session, version);
        SSL_set_max_proto_version(session, version);
        SSL_set_cipher_list(session, "ALL:@SECLEVEL=0");  // otherwise nothing older than TLS 1.2 is even offered
        SSL_set_fd(session, client_socket);
    }
    ~TlsClient() {
        SSL_free(session);
        close(client_socket);
    }
    // Sends request, after the handshake if that is still to be made. True once the answer begins.
    bool ask(const std::string& request) const {
        char byte;
        return SSL_connect(session) == 1 && SSL_write(session, request.data(), int(request.size())) > 0 &&
               SSL_peek(session, &byte, 1) == 1;
    }
    // All that comes until the server announces the end.
    std::string rest() const {
        std::string text, buffer(65536, ' ');
        int count;
        while ((count = SSL_read(session, buffer.data(), 65536)) > 0) text.append(buffer, 0, std::size_t(count));
        EXPECT_EQ(SSL_get_error(session, count), SSL_ERROR_ZERO_RETURN);
        return text;
    }
    static inline SSL_CTX* const context = SSL_CTX_new(TLS_client_method());
    const int client_socket;
    SSL* const session = SSL_new(context);
};

struct TlsDaemon : Daemon {
    explicit TlsDaemon(const std::string& settings = "", const std::string& command = "./marluserver start")
        : Daemon("start_http=n\nstart_https=y\nuse_log_https=y\ncipher_list=ALL:@SECLEVEL=0\ncrt_file=" +
                     certificates.path + "/good.crt\nkey_file=" + certificates.path + "/good.key\n" + settings,
                 command) {}
    int connect(const std::string& source = "127.0.0.1") const { return connect_to(https_port, source); }
    std::string answer(const std::string& request) const {
        const TlsClient client(connect());
        client.ask(request);
        return client.rest();
    }
    std::string first_messages(const std::string& of_loader = "") const {
        return "The configuration file located at the following path is used: " + config_file + "\n" + of_loader +
               "Server started on port " + std::to_string(https_port) + "\nServing files from: " + site + "\n";
    }
    // Without what follows when the end closes the socket just as the listener is about to accept.
    std::string messages() const {
        return std::regex_replace(Daemon::messages("https.log"), std::regex("0.0.0.0 Failed to accept.*\n\n$"), "");
    }
};

}  // namespace

TEST(https, answers_and_logs_byte_for_byte) {
    using namespace std::string_literals;
    write_file("/run/list", "\n  /fresh.txt/ \r\n../x\n");
    TlsDaemon daemon("cache_ignore=/run/list\npem_file=" + certificates.path + "/chain.pem\n");
    write_file(daemon.site + "/report.pdf", "report");
    write_file(daemon.site + "/docs/empty.css", "");
    write_file(daemon.site + "/fresh.txt", "fresh");
    std::filesystem::create_symlink("report.pdf", daemon.site + "/latest");
    std::filesystem::create_symlink("fresh.txt", daemon.site + "/fresh.css");
    const std::string too_long(256, 'n');
    const struct {
        std::string request, target, answer;
    } cases[] = {
        {"GET / HTTP/1.1\r\nHost: a\r\n\r\n", "/index.html", ok("text/html", "hello")},
        {"GET /index.html?v=3&v HTTP/1.1", "/index.html", ok("text/html", "hello")},
        {"GET /?" + std::string(5000, 'a'), "/index.html", ok("text/html", "hello")},
        {"GET /latest ", "/latest", ok("application/octet-stream", "report")},
        {"GET /fresh.css ", "/fresh.css", ok("text/css", "fresh")},
        {"GET /index.html\r\nHost: a", "/index.html\r\nHost:", not_found},
        {"GET /docs/empty.css ", "/docs/empty.css", not_found},
        {"GET /docs/ ", "/docs/", not_found},
        {"GET /../https.log ", "/../https.log", forbidden},
        {"HEAD / HTTP/1.1", "", not_allowed},
        {"GET  / HTTP/1.1", "", not_allowed},
        {"\0GET / HTTP/1.1"s, "", not_allowed},
        {"GET /" + too_long, "/" + too_long, ""},
    };
    std::string expected =
        daemon.first_messages("PATH CACHE IGNORE: /run/list\nADD: path to non-cached file: " + daemon.site +
                              "/fresh.txt\nERROR:\npath to non-cached file: ../x\nsite path: " + daemon.site +
                              "\nresult path: " + daemon.directory + "/x\n" + std::string(39, '_') + "\n");
    for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        for (const auto& c : cases) {
            const TlsClient client(daemon.connect(), version);
            client.ask(c.request);
            EXPECT_EQ(client.rest(), c.answer) << c.request;
            EXPECT_EQ(sk_X509_num(SSL_get_peer_cert_chain(client.session)), 2) << "all that the file holds is sent";
            expected += "127.0.0.1 " + std::string(c.request.substr(0, 4095).c_str()) + "\n\n";
            if (!c.target.empty()) expected += "127.0.0.1 PATH = " + c.target + "\n\n\n";
            if (c.answer.empty())
                expected += "Error handling client: filesystem error: status: File name too long [" + daemon.site +
                            c.target + "]\n";
            else if (!c.answer.starts_with("HTTP/1.1 200"))
                expected += "127.0.0.1 ERROR: " + c.answer + "\n\n";
        }
    }
    EXPECT_EQ(daemon.end_with(SIGTERM), 0);
    EXPECT_EQ(daemon.messages(), expected + shutdown_line);

    const std::string log = daemon.log("https.log");
    const std::regex form(R"(\] \((\d*)\) \[)");
    const std::set<std::string> contexts(std::sregex_token_iterator(log.begin(), log.end(), form, 1), {});
    EXPECT_EQ(contexts.size(), 3 + 2 * std::size(cases)) << "of the loader, the listener, the end and each connection";
}

TEST(https, serves_on_after_connections_that_break_off) {
    TlsDaemon daemon;
    write_file(daemon.site + "/large", large);
    daemon.answer("GET / ");
    const std::ptrdiff_t descriptors = daemon.descriptor_count();
    const std::string served = "127.0.0.1 GET / \n\n.*PATH = /index.html\n\n\n";
    const std::string refused = "SSL_accept <= 0\n(\\S*:error:.*\n)?\n", asked = ".*GET /large \n\n.*PATH.*\n\n\n";
    const struct {
        std::string sent;  // in clear
        int version;       // of the handshake that is made
        bool is_asked, is_reset;
        std::string lines;
    } cases[] = {
        {"", 0, false, false, refused},
        {"", 0, false, true, refused},
        {"\x16\x03\x01\x02", 0, false, true, refused},
        {"GET / HTTP/1.1\r\n\r\n", 0, false, false, "SSL_accept <= 0\n\\S*:error:.*http request.*\n\n"},
        {"", TLS1_1_VERSION, false, false, "SSL_accept <= 0\n\\S*:error:.*unsupported protocol.*\n\n"},
        {"", TLS1_2_VERSION, false, false, "SSL error: 1\n \n\n\\S*:error:.*unexpected eof.*\n\n"},
        {"", TLS1_2_VERSION, false, true, ""},
        {"", TLS1_2_VERSION, true, false, asked},
        {"", TLS1_3_VERSION, true, true, asked},
    };
    std::string expected = daemon.first_messages() + served;
    for (const auto& c : cases) {
        {
            const TlsClient client(daemon.connect(), c.version);
            send(client.client_socket, c.sent.data(), c.sent.size(), 0);
            EXPECT_EQ(c.version != 0 && SSL_connect(client.session) == 1, c.version > TLS1_1_VERSION) << c.version;
            EXPECT_EQ(c.is_asked && client.ask("GET /large "), c.is_asked);
            const linger reset{1, 0};
            if (c.is_reset) setsockopt(client.client_socket, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
        }
        EXPECT_EQ(daemon.answer("GET / "), ok("text/html", "hello"));
        expected += c.lines + served;
    }
    EXPECT_TRUE(wait_until([&] { return daemon.descriptor_count() == descriptors; }));
    EXPECT_EQ(daemon.end_with(SIGTERM), 0);
    EXPECT_TRUE(std::regex_match(daemon.messages(), std::regex(expected + shutdown_line))) << daemon.messages();
}

TEST(https, serves_one_connection_at_a_time) {
    TlsDaemon daemon;
    write_file(daemon.site + "/large", large);
    const TlsClient first(daemon.connect()), second(daemon.connect());
    EXPECT_TRUE(first.ask("GET /large "));
    timeval limit{0, 300'000};  // waits for nothing: where all is right, nothing comes however long it is
    setsockopt(second.client_socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    EXPECT_EQ(SSL_connect(second.session), -1) << "served beside the first";
    EXPECT_TRUE(first.rest() == ok("application/octet-stream", large));
    limit.tv_sec = 30;
    setsockopt(second.client_socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    EXPECT_TRUE(second.ask("GET / "));
    EXPECT_EQ(second.rest(), ok("text/html", "hello"));
}

TEST(https, shares_the_allowance_with_http) {
    TlsDaemon daemon("start_http=y\n");
    EXPECT_TRUE(wait_until([&] { return daemon.messages() == daemon.first_messages(); }));
    for (int count = 0; count < 1000; ++count) close(daemon.send_request("", "127.0.0.9"));
    EXPECT_EQ(daemon.exchange("", "127.0.0.9"), "");  // accepted in order: now all of them have been counted
    EXPECT_EQ(receive_all(daemon.connect("127.0.0.9")), "");
    EXPECT_EQ(daemon.end_with(SIGTERM), 0);
    EXPECT_EQ(daemon.messages(),
              daemon.first_messages() + "127.0.0.9 HTTP/1.1 429 Too Many Requests\n\n" + shutdown_line);
}

TEST(https, keeps_what_it_served_unless_it_is_listed) {
    write_file("/run/list", "fresh");
    const TlsDaemon daemon("cache_ignore=/run/list\n");
    std::filesystem::create_directory_symlink(".", daemon.site + "/link");  // what counts is the canonical name
    std::string neighbour = "0";                                            // a file of the same slot
    while (cache_slot(daemon.site + "/" + neighbour) != cache_slot(daemon.site + "/kept"))
        neighbour = std::to_string(std::stoi(neighbour) + 1);
    const std::string cases[][3] = {
        // what the file is replaced with, and what is served for it
        {"kept", "1", "1"}, {"fresh", "2", "2"}, {"kept", "3", "1"}, {"fresh", "4", "4"}, {neighbour, "5", "1"},
    };
    for (const auto& [name, text, served] : cases) {
        write_file(daemon.site + "/new", text);
        std::filesystem::rename(daemon.site + "/new", daemon.site + "/" + name);
        EXPECT_EQ(daemon.answer("GET /link/" + name + " "), ok("application/octet-stream", served)) << name << text;
    }
}

TEST(https, ends_in_the_middle_of_an_answer) {
    for (const bool is_read : {false, true, false, true, false, true}) {
        TlsDaemon daemon;
        std::filesystem::resize_file(daemon.site + "/index.html", 1 << 30);  // more than is read in time
        const TlsClient client(daemon.connect());
        EXPECT_TRUE(client.ask("GET / "));
        std::thread reader([&client, is_read] {
            char buffer[65536];
            while (is_read && SSL_read(client.session, buffer, sizeof buffer) > 0) continue;
        });
        EXPECT_EQ(daemon.end_with(SIGTERM), 0);
        EXPECT_TRUE(daemon.messages().ends_with("PATH = /index.html\n\n\n" + shutdown_line)) << daemon.messages();
        reader.join();
    }
}

TEST(https, that_cannot_be_set_up_ends_the_daemon) {
    const std::string pem = "pem_file=" + certificates.path, without = "setpriv --bounding-set -";
    const struct {
        std::string settings, message, command = "./marluserver start";
    } cases[] = {
        {pem + "/odd.pem", "Failed to load Private Key from PEM"},
        {pem + "/weak.pem", "Failed to load Certificate from PEM"},
        {pem + "/weak_chain.pem", "Failed to load Certificate from PEM (CA chain)"},
        {pem + "/mismatch.pem", "Private Key does not match the Certificate"},
        {"key_file=" + certificates.path + "/other.key", "Failed to load certificate or private key"},
        {"chain_file=" + certificates.path + "/good.key", "Failed to load certificate bundle (CA chain)"},
        {"cipher_list=none", "Error installing cipher list: none"},
        {"", "Failed to create RAW socket", without + "net_raw ./marluserver start"},
        {"port_https=443", "Failed to bind HTTPS socket", without + "net_bind_service ./marluserver start"},
    };
    for (const auto& c : cases) {
        TlsDaemon daemon(c.settings, c.command);
        EXPECT_EQ(daemon.status(), 0) << c.message;
        EXPECT_TRUE(daemon.messages().ends_with("\n" + c.message + "\n" + shutdown_line)) << daemon.messages();
    }
}
