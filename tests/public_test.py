# A public site: what its clients get and the logs say, alike over both servers, and what no client can do to it.
import contextlib
import os
import re
import shutil
import socket
import time
import unittest
from concurrent import futures

from harness import FORBIDDEN, NOT_ALLOWED, NOT_FOUND, PROGRAMS, SHUTDOWN_LINE, WORK, Daemon, connect, handshake
from harness import is_listening, ok, read, receive_all, run, wait_until, write
from https_test import TlsDaemon, setUpModule, without

SERVERS = ("http", "https")
# Runs the command behind it with openat2 forbidden, as in some containers.
NO_OPENAT2 = """python3 -c 'import ctypes, os, struct, sys
rules = struct.pack("HBBIHBBIHBBIHBBI", 32, 0, 0, 0, 21, 0, 1, 437, 6, 0, 0, 0x50001, 6, 0, 0, 0x7fff0000)
ctypes.CDLL(None).prctl(22, 2, struct.pack("HP", 4, ctypes.cast(rules, ctypes.c_void_p).value))
os.execvp(sys.argv[1], sys.argv[1:])' """
GET = "GET / HTTP/1.1\r\n\r\n"
HELLO = ok("text/html", "hello")


class PublicDaemon(TlsDaemon):
    def __init__(self, settings="", command="./marluserver start"):
        super().__init__(f"start_http=y\npublic_site=yes\n{settings}", command)
        wait_until(lambda: is_listening(self.port) and is_listening(self.https_port))

    def connect(self, server):
        return connect(self.port) if server == "http" else handshake(self.clients, connect(self.https_port))

    def ask(self, server, request, client=None):
        client = client or self.connect(server)
        client.sendall(request.encode("latin-1"))
        return client

    def answer(self, server, request=GET):
        return receive_all(self.ask(server, request))

    # Has a large file sent to a client that takes only the first byte.
    def hold(self, server):
        client = self.ask(server, "GET /large\n\n")
        client.recv(1)
        return client

    def has_read_everything(self):
        unread = rf":({self.port:04X}|{self.https_port:04X}) [0-9A-F:]{{13}} 01 [0-9A-F]{{8}}:(?!0{{8}})"
        return not re.search(unread, read("/proc/net/tcp"))

    def replace(self, name, text, size):
        write(f"{self.directory}/new", text)
        os.truncate(f"{self.directory}/new", size)
        os.rename(f"{self.directory}/new", f"{self.site}/{name}")


# Returns the number of bytes that come until the connection ends.
def count_bytes(client):
    buffer, size = bytearray(1 << 20), 0
    with client:
        while count := client.recv_into(buffer):
            size += count
    return size


# Sends some bytes, then one more ten times a second. Returns after how many seconds the daemon closes the connection.
def dribble(client, beginning, byte):
    begin = time.monotonic()
    client.settimeout(0.1)
    with client, contextlib.suppress(OSError):
        client.sendall(beginning)
        while time.monotonic() < begin + 40:
            with contextlib.suppress(TimeoutError):
                if client.recv(1) == b"":
                    break
            client.sendall(byte)
    return time.monotonic() - begin


class Public(unittest.TestCase):
    def start(self, *arguments):
        return self.enterContext(PublicDaemon(*arguments))

    def test_answers_and_logs_byte_for_byte(self):
        for prefix in ("", NO_OPENAT2):
            self.answers_and_logs(prefix + without("dac_override,-dac_read_search"))

    def answers_and_logs(self, command):
        os.symlink(f"{WORK}/{Daemon.next_port}/site", f"{WORK}/{Daemon.next_port}.public")
        daemon = self.start(f"website_path={WORK}/./{Daemon.next_port}.public/../site/.\n", command)
        for name, text in (("docs/.page", "page"), ("report.pdf", "report"), ("empty.css", ""), ("closed/x", "x"),
                           ("../site-old/secret", "secret")):
            write(f"{daemon.site}/{name}", text)
        for target, link in (("report.pdf", "inside.css"), (f"{daemon.site}/docs", "absolute"), ("/etc/passwd", "out"),
                             ("../site-old/secret", "beside"), ("circle", "circle")):
            os.symlink(target, f"{daemon.site}/{link}")
        os.chmod(f"{daemon.site}/closed", 0)
        os.mkfifo(f"{daemon.site}/pipe")
        long_name = 256 * "n"
        page = ok("application/octet-stream", "page")
        cases = [  # a request up to its end, the logged path, the answer, the reason in the log
            ("GET / HTTP/1.1\r\nHost: a", "/index.html", HELLO),
            ("\r\nGET \t /empty.css?v=3&/.. HTTP/1.1", "/empty.css", ok("text/css", "")),
            ("GET /none/../docs//./.page", "/none/../docs//./.page", page),
            ("GET /absolute/.page", "/absolute/.page", page),
            ("GET / " + 5000 * "a", "/index.html", HELLO),
            ("GET /../site-old/secret", "/../site-old/secret", FORBIDDEN),
            ("GET /beside", "/beside", FORBIDDEN),
            ("GET /out", "/out", FORBIDDEN),
            ("GET //etc/passwd", "//etc/passwd", FORBIDDEN),
            ("GET /docs", "/docs", NOT_FOUND),
            ("GET /none", "/none", NOT_FOUND),
            ("GET /pipe", "/pipe", NOT_FOUND),
            ("GET /index.html\0.txt", "/index.html\0.txt", NOT_FOUND),
            ("GET /circle", "/circle", NOT_FOUND, "Too many levels of symbolic links"),
            ("GET /closed/x", "/closed/x", NOT_FOUND, "Permission denied"),
            ("GET /" + long_name, "/" + long_name, NOT_FOUND, "File name too long"),
            ("GET", "", "", "The request has no target"),
            ("get / HTTP/1.1", None, NOT_ALLOWED),
        ]
        for server, port, kind in zip(SERVERS, (daemon.port, daemon.https_port), ("application/pdf", "text/css")):
            expected = re.escape(daemon.first_messages(port))
            for request, path, answer, *reason in [*cases, ("GET /inside.css", "/inside.css", ok(kind, "report"))]:
                self.assertEqual(daemon.answer(server, request + "\r\n\r\n"), answer, request)
                expected += re.escape(f"127.0.0.1 {request}\r\n\r\n"[:4106] + "\n\n")
                if path is not None:
                    expected += re.escape(f"127.0.0.1 PATH = {path}\n\n\n")
                if reason:
                    expected += f"Error handling client: .*{reason[0]}.*\n"
                if answer and not answer.startswith("HTTP/1.1 200"):
                    expected += re.escape(f"127.0.0.1 ERROR: {answer}\n\n")
            wait_until(lambda: daemon.messages(f"{server}.log").endswith("PATH = /inside.css\n\n\n"))
            self.assertRegex(daemon.messages(f"{server}.log"), rf"\A{expected}\Z")

    def test_takes_a_request_in_pieces_and_lets_a_long_one_come_to_its_end(self):
        daemon = self.start()
        for server in SERVERS:
            client = daemon.connect(server)
            client.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            for byte in b"GET /?a \n\n":
                client.sendall(bytes([byte]))
                wait_until(daemon.has_read_everything)
            self.assertEqual(receive_all(client), HELLO)
            for method, answer in (("GET", HELLO), ("POST", NOT_ALLOWED)):
                self.assertEqual(daemon.answer(server, f"{method} / " + (4 << 20) * "a"), answer)

    def test_drops_who_takes_more_than_ten_seconds_with_a_request(self):
        daemon = self.start()
        clients = [  # what is sent at first, and then again and again
            (connect(daemon.port), b"GET ", b"/"), (connect(daemon.https_port), b"\x16\x03\x01\x40\0", b"\0"),
            (daemon.connect("https"), b"GET ", b"/"), (daemon.connect("https"), b"", b""),
        ]
        with futures.ThreadPoolExecutor() as threads:
            for seconds in threads.map(lambda client: dribble(*client), clients):
                self.assertTrue(9 < seconds < 30, seconds)
        self.assertEqual(daemon.end(), 0)
        self.assertEqual(daemon.messages(), f"{daemon.first_messages(daemon.https_port)}SSL_accept <= 0\n\n{SHUTDOWN_LINE}")

    def test_serves_64_clients_at_once_beside_silent_ones_and_ends_in_the_middle(self):
        daemon = self.start()
        daemon.replace("large", "", 1 << 40)
        silent = [connect(port) for port in (daemon.port, daemon.https_port) for _ in range(100)]
        held = {server: [daemon.hold(server) for _ in range(63)] for server in SERVERS}
        threads = self.enterContext(futures.ThreadPoolExecutor(256))
        for server in SERVERS:
            self.assertEqual(daemon.answer(server), HELLO)
            last = daemon.hold(server)
            descriptors = daemon.count("fd")
            queued = [threads.submit(daemon.answer, server) for _ in range(30)]
            wait_until(lambda: daemon.count("fd") >= descriptors + 29)  # descriptors may include that of the answer
            # Waits for nothing: where all is right, nothing comes however long it is.
            self.assertFalse(futures.wait(queued, 0.3, futures.FIRST_COMPLETED).done)
            last.close()
            self.assertEqual([answer.result() for answer in queued], 30 * [HELLO])
            held[server].append(daemon.hold(server))
        for client in [*held["http"][::2], *held["https"][::2]]:
            threads.submit(count_bytes, client)
        self.assertEqual(daemon.end(), 0)

    def test_sends_files_of_any_size_as_they_are_now(self):
        daemon = self.start()
        descriptors = daemon.count("fd")
        for size in (5, (4 << 30) + 5, 0):
            daemon.replace("file", "", size)
            head = len(ok("application/octet-stream", "")) + len(str(size)) - 1
            with futures.ThreadPoolExecutor() as threads:
                sizes = threads.map(lambda server: count_bytes(daemon.ask(server, "GET /file\n\n")), SERVERS)
            self.assertEqual(list(sizes), 2 * [head + size])
        if not daemon.is_sanitized:
            self.assertLess(daemon.memory("VmHWM"), 32 << 10)
        daemon.replace("large", "", 64 << 20)
        held = [daemon.hold(server) for server in SERVERS]
        os.truncate(f"{daemon.site}/large", 0)
        for server, client in zip(SERVERS, held):
            self.assertLess(count_bytes(client), 64 << 20)
            self.assertEqual(daemon.answer(server), HELLO)
            wait_until(lambda: "\nError handling client send: The file ended before its size\n127.0.0.1 GET" in
                       daemon.messages(f"{server}.log"))
        wait_until(lambda: daemon.count("fd") == descriptors)

    def test_binds_while_connections_linger(self):
        for _ in range(2):
            with PublicDaemon() as daemon:
                Daemon.next_port -= 2  # the next run has the same ports
                write(f"{WORK}/copy.cfg", read(daemon.config_file))
                for server in SERVERS:
                    self.assertEqual(daemon.answer(server), HELLO)
            for port in (daemon.port, daemon.https_port):
                self.assertRegex(read("/proc/net/tcp"), f":{port:04X} [0-9A-F:]{{13}} 06 ")  # TIME_WAIT
            os.makedirs(daemon.site)
            self.assertEqual(run(f"{PROGRAMS}/marlu-check wait {WORK}/copy.cfg"), ("", "", 0))
            shutil.rmtree(daemon.directory)

    def test_refuses_who_is_over_the_allowance_and_tells_failed_handshakes(self):
        daemon = self.start()
        descriptors = daemon.count("fd")
        for port in 500 * (daemon.port, daemon.https_port):
            connect(port, "127.0.0.9").close()
        for server in SERVERS:
            self.assertEqual(daemon.answer(server), HELLO)
        wait_until(lambda: daemon.count("fd") == descriptors)  # now all of them have been counted
        for server, port in zip(SERVERS, (daemon.port, daemon.https_port)):
            self.assertEqual(receive_all(daemon.ask(server, GET, connect(port, "127.0.0.9"))), "")
            wait_until(lambda: daemon.messages(f"{server}.log").endswith(
                "127.0.0.9 HTTP/1.1 429 Too Many Requests\n\n"))
        receive_all(daemon.ask("https", GET, connect(daemon.https_port)))
        self.assertEqual(daemon.end(), 0)
        self.assertRegex(daemon.messages(), f"\nSSL_accept <= 0\n\\S*:error:.*http request.*\n\n{SHUTDOWN_LINE}\\Z")
