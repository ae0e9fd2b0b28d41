# What clients get from the two servers, and what the logs say about it.
import json
import os
import re
import select
import socket
import ssl
import time
import unittest
from concurrent import futures

from harness import FORBIDDEN, HELLO, LARGE, LOG_PREFIX, NOT_ALLOWED, NOT_FOUND, ROOT, SHUTDOWN_LINE, TLS, WORK, Daemon
from harness import TlsDaemon, connect, handshake, hold_back, is_listening, listening_options, make_full_pipe, ok, plain
from harness import read, receive_all, reset_when_closed, setUpModule, tls_clients, wait_until, without, write


# What the log holds of a request; path is empty when the request was not taken apart.
def logged(request, path, answer):
    path_line = f"127.0.0.1 PATH = {path}\n\n\n" if path else ""
    error = f"127.0.0.1 ERROR: {answer}\n\n" if answer in (FORBIDDEN, NOT_ALLOWED, NOT_FOUND) else ""
    return f"127.0.0.1 {request}\n\n{path_line}{error}"


class Serving(unittest.TestCase):
    def test_both_servers_answer_and_log_byte_for_byte(self):
        begin = int(time.time())
        # What TLS clients get but for the index file is listed or empty, so no file meets another one's cache slot.
        write(f"{TLS}/list", "\n  /report.pdf/ \r\n../x\n")
        daemon = self.enterContext(TlsDaemon(f"start_http=y\ncache_ignore={TLS}/list\npem_file={TLS}/chain.pem\n",
                                             "echo old >http.log && ./marluserver start"))
        daemon.clients = tls_clients(f"{TLS}/root.crt")  # there is an answer only if the whole chain is sent
        wait_until(lambda: is_listening(daemon.https_port))
        descriptors = daemon.count("fd")
        for name, text in (("docs/.Css", "css"), ("report.pdf", "report"), ("index.html?v=3&a?b", LARGE),
                           ("v1.css/html", ""), ("%2e%2e/x", ""), ("../site-old/x", "")):
            write(f"{daemon.site}/{name}", text)
        for target, link in (("report.pdf", "latest.css"), ("/etc/passwd", "out"), ("../site-old/x", "beside")):
            os.symlink(target, f"{daemon.site}/{link}")
        report = ok("application/pdf", "report")
        cases = [  # the request, the path in the log, and the answer; the latter two over TLS, where they differ
            ("GET / HTTP/1.1\r\nHost: a\r\n\r\n", "/index.html", HELLO),
            ("GET / " + 4090 * "a" + "bcd", "/index.html", HELLO),
            ("GET  / HTTP/1.1", "/index.html", HELLO, "", NOT_ALLOWED),
            ("\r\nGET \t /docs/.Css\v HTTP/1.1", "/docs/.Css", ok("text/css", "css"), "", NOT_ALLOWED),
            ("GET /index.html\r\nHost: a", "/index.html", HELLO, "/index.html\r\nHost:", NOT_FOUND),
            ("GET /index.html\0.txt", "/index.html\0.txt", HELLO, "/index.html", HELLO),
            ("GET /index.html?v=3&a?b HTTP/1.1", "/index.html?v=3&a?b", plain(LARGE), "/index.html", HELLO),
            ("GET /latest.css", "/latest.css", report, "/latest.css", ok("text/css", "report")),
            ("GET /no/..//./report.pdf", "/no/..//./report.pdf", report, "/no/..//./report.pdf", NOT_FOUND),
            ("GET /v1.css/html", "/v1.css/html", plain(""), "/v1.css/html", NOT_FOUND),
            ("GET /%2e%2e/x " + 4090 * "a", "/%2e%2e/x", plain(""), "/%2e%2e/x", NOT_FOUND),
            ("GET /beside", "/beside", plain(""), "/beside", NOT_FOUND),
            ("GET /docs/", "/docs/", plain(""), "/docs/", NOT_FOUND),
            ("GET /out", "/out", FORBIDDEN),
            ("GET /../http.log", "/../http.log", FORBIDDEN),
            ("GET //report.pdf", "//report.pdf", FORBIDDEN),
            ("GETS / HTTP/1.1", "", NOT_ALLOWED),
            ("get / HTTP/1.1", "", NOT_ALLOWED),
            ("\0GET / HTTP/1.1", "", NOT_ALLOWED),
        ]
        of_list = (f"PATH CACHE IGNORE: {TLS}/list\nADD: path to non-cached file: {daemon.site}/report.pdf\nERROR:\n"
                   f"path to non-cached file: ../x\nsite path: {daemon.site}\nresult path: {daemon.directory}/x\n"
                   f"{39 * '_'}\n")
        http_log = "old\n" + daemon.first_messages(daemon.port, of_list)
        https_log = daemon.first_messages(daemon.https_port, of_list)
        for request, path, answer, *over_tls in cases:
            self.assertTrue(receive_all(daemon.hold_worker(request)) == answer, request)
            http_log += logged(request[:4096], path, answer)
            path, answer = over_tls or (path, answer)
            self.assertEqual(daemon.answer(request), answer, request)
            https_log += logged(request[:4095].split("\0")[0], path, answer)
        too_long = "/" + 256 * "n"
        self.assertEqual(daemon.answer(f"GET {too_long}"), "")
        https_log += logged(f"GET {too_long}", too_long, "")
        https_log += f"Error handling client: filesystem error: status: File name too long [{daemon.site}{too_long}]\n"
        for _ in range(1000):
            daemon.send("", "127.0.0.9").close()
        # Connections are accepted in order: when the silent one has been closed, all have been counted.
        self.assertEqual(receive_all(connect(daemon.port)), "")
        for port in (daemon.port, daemon.https_port):
            self.assertEqual(receive_all(connect(port, "127.0.0.9")), "")
        refused = "127.0.0.9 HTTP/1.1 429 Too Many Requests\n\n"
        # HTTP does not answer for a missing file: that the request was there in time, only the log can tell.
        http_log += refused + logged("GET /none", "/none", "")
        wait_until(lambda: self.assertEqual(receive_all(daemon.send("GET /none")), "") or
                   daemon.messages("http.log").startswith(http_log))
        wait_until(lambda: daemon.count("fd") == descriptors)
        if not daemon.is_sanitized:  # a sanitizer has memory of its own
            wait_until(lambda: daemon.memory("VmRSS") < len(LARGE) >> 10)
        self.assertEqual(daemon.end(), 0)
        self.assertTrue(daemon.messages("http.log").endswith("PATH = /none\n\n\n" + SHUTDOWN_LINE))
        self.assertEqual(daemon.messages(), https_log + refused + SHUTDOWN_LINE)

        for name, threads in (("http.log", 1), ("https.log", 1 + len(cases) + 2)):
            contexts = set(re.findall(LOG_PREFIX, daemon.log(name)))
            self.assertEqual(len(contexts - {str(daemon.pid), ""}), threads, "the listener, and each TLS connection")
        times = re.findall(r"\[(.*)(\.\d{3})\] \(\d*\) \[", daemon.log())
        times = [time.mktime(time.strptime(text, "%d.%m.%Y %H:%M:%S")) + float(rest) for text, rest in times]
        times = [begin, *times, time.time()]
        self.assertEqual(times, sorted(times))

    def test_http_refuses_everything_where_the_website_path_is_a_link(self):
        os.symlink(ROOT, f"{WORK}/link")
        daemon = self.enterContext(Daemon(f"website_path={WORK}/link/site\n"))
        self.assertEqual(daemon.answer("GET /"), FORBIDDEN)

    def test_http_answers_many_at_once_while_the_log_waits_and_logs_whole_lines(self):
        pipe = make_full_pipe(f"{WORK}/pipe")
        daemon = self.enterContext(Daemon(f"log_file={WORK}/pipe\nuse_log_https=y\n"))
        numbers = list(map(str, range(64)))
        for number in numbers:
            write(f"{daemon.site}/{number}", number)
        with futures.ThreadPoolExecutor(64) as clients:
            answers = clients.map(lambda number: daemon.answer(f"GET /{number} {900 * 'a'}"), numbers)
        self.assertEqual(list(answers), list(map(plain, numbers)))
        os.read(pipe, 4096)
        lines = ""
        while lines.count("127.0.0.1") < 2 * len(numbers):
            self.assertTrue(select.select([pipe], [], [], 30)[0], lines)
            piece = os.read(pipe, 4096).decode()
            self.assertRegex(piece, rf"\A({LOG_PREFIX}.*\n+)+\Z")
            lines += piece
        self.assertEqual(sorted(re.findall(r"127.0.0.1 GET /(\d+) a+\n\n", lines)), sorted(numbers))
        self.assertEqual(daemon.log("https.log"), "", "its server was not to be started")

    def test_http_serves_the_bundled_site(self):
        site = f"{ROOT}/site"
        daemon = self.enterContext(Daemon(f"website_path={site}\n"))
        for file in json.loads(read(f"{site}/manifest.json")):
            body = read(f"{site}/{file['path']}")
            self.assertTrue(daemon.answer(f"GET /{file['path']}") == ok(file["type"], body), file)

    def test_four_http_workers_serve_what_is_queued_when_https_ends(self):
        # The HTTPS server waits for its certificate until HTTP has work to do, and then cannot have its port.
        write(f"{TLS}/held.crt", read(f"{TLS}/good.crt"))
        certificate = hold_back(f"{TLS}/held.crt")
        daemon = self.enterContext(TlsDaemon(f"start_http=y\nport_https=443\ncrt_file={TLS}/held.crt\n",
                                             without("net_bind_service")))
        self.assertEqual([listening_options(server) for server in daemon.sockets()], [(1, 4096, False)])
        write(f"{daemon.site}/large", LARGE)
        held = [daemon.hold_worker("GET /large") for _ in range(4)]
        descriptors = daemon.count("fd")
        queued = [daemon.send(f"GET / {number}") for number in range(8)]
        wait_until(lambda: daemon.count("fd") == descriptors + 8)
        os.close(certificate)
        wait_until(lambda: not is_listening(daemon.port))
        # The first worker that is free serves the queue, in its order.
        self.assertTrue(receive_all(held[0]) == plain(LARGE))
        self.assertEqual([receive_all(client) for client in queued], 8 * [HELLO])
        self.assertEqual(re.findall(r"GET / (\d)\n", daemon.messages("http.log")), list("01234567"))
        self.assertEqual(len(daemon.sockets()), 3, "of the held connections")
        for client in held[1:]:
            receive_all(client)
        self.assertEqual(daemon.wait(), 0)

    def test_https_serves_on_after_connections_that_break_off(self):
        daemon = self.enterContext(TlsDaemon())
        write(f"{daemon.site}/large", LARGE)
        descriptors = daemon.count("fd")
        in_clear = connect(daemon.https_port)
        in_clear.sendall(b"GET / HTTP/1.1\r\n\r\n")
        self.assertEqual(receive_all(in_clear), "")
        old, middle, new = (tls_clients(f"{TLS}/good.crt", version) for version in
                            (ssl.TLSVersion.TLSv1_1, ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3))
        self.assertRaises(ssl.SSLError, handshake, old, connect(daemon.https_port))
        handshake(middle, connect(daemon.https_port)).close()
        for clients in (middle, new):
            client = handshake(clients, connect(daemon.https_port))
            reset_when_closed(client)
            if clients == new:
                client.sendall(b"GET /large ")
                client.recv(1)
            client.close()
        self.assertEqual(daemon.answer("GET / "), HELLO)
        wait_until(lambda: daemon.count("fd") == descriptors)
        self.assertEqual(daemon.end(), 0)
        expected = daemon.first_messages(daemon.https_port)
        for line, error in (("SSL_accept <= 0", "http request"), ("SSL_accept <= 0", "unsupported protocol"),
                            ("SSL error: 1\n \n", "unexpected eof")):
            expected += f"{line}\n\\S*:error:.*{error}.*\n\n"
        expected += logged("GET /large ", "/large", "") + logged("GET / ", "/index.html", "") + SHUTDOWN_LINE
        self.assertRegex(daemon.messages(), rf"\A{expected}\Z")
        self.assertEqual(daemon.log("http.log"), "", "its server was not to be started")

    def test_https_serves_one_connection_at_a_time_and_waits_ten_seconds(self):
        daemon = self.enterContext(TlsDaemon())
        write(f"{daemon.site}/large", LARGE)
        first = daemon.ask("GET /large ")
        beginning = first.recv(1).decode()
        second = daemon.clients.wrap_socket(connect(daemon.https_port), do_handshake_on_connect=False)
        second.settimeout(0.3)  # waits for nothing: where all is right, nothing comes however long it is
        self.assertRaises(TimeoutError, second.do_handshake)
        self.assertTrue(beginning + receive_all(first) == plain(LARGE))
        second.settimeout(60)
        second.do_handshake()
        packet, listening, client = sorted(daemon.sockets(), key=lambda each: (-each.family, each.fileno()))
        self.assertEqual(packet.family, socket.AF_PACKET)
        self.assertEqual(listening_options(listening), (0, 128, True))
        self.assertEqual(client.getsockopt(socket.SOL_SOCKET, socket.SO_RCVTIMEO, 16)[:8], (10).to_bytes(8, "little"))
        second.sendall(b"GET / ")
        self.assertEqual(receive_all(second), HELLO)

    def test_https_keeps_what_it_served_unless_it_is_listed(self):
        write(f"{TLS}/list", "fresh")
        daemon = self.enterContext(TlsDaemon(f"cache_ignore={TLS}/list\n"))
        os.symlink(".", f"{daemon.site}/link")  # what counts is the canonical name
        for name, text, served in (("kept", "1", "1"), ("fresh", "2", "2"), ("kept", "3", "1"), ("fresh", "4", "4")):
            write(f"{daemon.site}/new", text)
            os.rename(f"{daemon.site}/new", f"{daemon.site}/{name}")
            self.assertEqual(daemon.answer(f"GET /link/{name} "), plain(served), name + text)
