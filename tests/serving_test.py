# What clients get over plain HTTP, and what the log says about it.
import datetime
import fcntl
import json
import os
import re
import select
import time
import unittest
from concurrent import futures

from harness import FORBIDDEN, LARGE, LOG_PREFIX, NOT_ALLOWED, ROOT, SHUTDOWN_LINE, WORK, Daemon, fill
from harness import listening_options, logged, ok, read, receive_all, wait_until, write


class Http(unittest.TestCase):
    def test_answers_and_logs_byte_for_byte(self):
        begin = int(time.time())
        daemon = self.enterContext(Daemon("use_log_https=y\n", "echo old >http.log && ./marluserver start"))
        descriptors = daemon.count("fd")
        for name, text in (("docs/.Css", ""), ("page.html?x=1", LARGE), ("report.pdf", "report"), ("%2e%2e/x", "x"),
                           ("../site-old/secret", "secret")):
            write(f"{daemon.site}/{name}", text)
        for target, link in (("report.pdf", "latest.css"), ("/etc/passwd", "out"), ("../site-old/secret", "beside")):
            os.symlink(target, f"{daemon.site}/{link}")
        cases = [
            ("GET / HTTP/1.1\r\nHost: a\r\n\r\n", "/index.html", ok("text/html", "hello")),
            ("\r\nGET \t /docs/.Css\v HTTP/1.1", "/docs/.Css", ok("text/css", "")),
            ("GET /page.html?x=1\n", "/page.html?x=1", ok("application/octet-stream", LARGE)),
            ("GET /latest.css", "/latest.css", ok("application/pdf", "report")),
            ("GET /index.html\0.txt", "/index.html\0.txt", ok("text/html", "hello")),
            ("GET /docs/", "/docs/", ok("application/octet-stream", "")),
            ("GET /none/../docs//./.Css", "/none/../docs//./.Css", ok("text/css", "")),
            ("GET /%2e%2e/x", "/%2e%2e/x", ok("application/octet-stream", "x")),
            ("GET /beside", "/beside", ok("application/octet-stream", "secret")),
            ("GET /../site-old/secret", "/../site-old/secret", ok("application/octet-stream", "secret")),
            ("GET / " + 4090 * "a" + "bcd", "/index.html", ok("text/html", "hello")),
            ("GET /../http.log", "/../http.log", FORBIDDEN),
            ("GET /none/../../x", "/none/../../x", FORBIDDEN),
            ("GET //etc/passwd", "//etc/passwd", FORBIDDEN),
            ("GET /out", "/out", FORBIDDEN),
            ("POST / HTTP/1.1", "", NOT_ALLOWED),
            ("get / HTTP/1.1", "", NOT_ALLOWED),
            ("\t", "", NOT_ALLOWED),
        ]
        expected = "old\n" + daemon.first_messages(daemon.port)
        for request, target, answer in cases:
            expected += logged(request[:4096], target, answer)
            self.assertTrue(daemon.answer(request) == answer, request)
        # That a request for a missing file, which gets no answer, was there in time, only the log can tell.
        expected += logged("GET /none", "/none", "")
        wait_until(lambda: receive_all(daemon.send("GET /none")) or daemon.messages().startswith(expected))
        wait_until(lambda: daemon.count("fd") == descriptors)
        self.assertEqual(daemon.end(), 0)
        self.assertTrue(daemon.messages().endswith("PATH = /none\n\n\n" + SHUTDOWN_LINE))
        self.assertEqual(daemon.log("https.log"), "", "its server was not to be started")

        zone = datetime.timezone(datetime.timedelta(hours=5, minutes=30))  # the daemon's
        times = [datetime.datetime.strptime(text, "%d.%m.%Y %H:%M:%S.%f").replace(tzinfo=zone).timestamp()
                 for text in re.findall(r"\[(.*)\] \(\d*\) \[", daemon.log())]
        times = [begin, *times, time.time()]
        self.assertEqual(times, sorted(times))

    def test_refuses_everything_where_the_website_path_is_not_canonical(self):
        os.symlink(ROOT, f"{WORK}/link")
        for path in (f"{WORK}/link/site", f"{ROOT}/./site"):
            with Daemon(f"website_path={path}\n") as daemon:
                self.assertEqual(daemon.answer("GET /"), FORBIDDEN, path)

    def test_serves_or_closes_many_connections_at_once(self):
        daemon = self.enterContext(Daemon())
        descriptors = daemon.count("fd")
        numbers = range(1, 65)
        for number in numbers:
            write(f"{daemon.site}/{number}", str(number))
        with futures.ThreadPoolExecutor(64) as clients:
            answers = clients.map(lambda number: receive_all(daemon.send(f"GET /{number}", f"127.0.1.{number}")), numbers)
        wait_until(lambda: daemon.count("fd") == descriptors)
        self.assertEqual(daemon.end(), 0)

        messages = daemon.messages()
        pair = r"127\.0\.1\.(\d+) (GET /\1\n\n|PATH = /\1\n\n\n)"
        self.assertEqual(re.sub(pair, "", messages), daemon.first_messages(daemon.port) + SHUTDOWN_LINE)
        for number, answer in zip(numbers, answers):
            is_logged = f"\n127.0.1.{number} PATH" in messages
            self.assertEqual(answer, ok("application/octet-stream", str(number)) if is_logged else "")
        loader, *connections, end = re.findall(LOG_PREFIX, daemon.log())
        self.assertEqual((loader, len(set(connections)), end), (str(daemon.pid), 1, ""), "all have the listener's context")

    def test_has_four_workers_and_waits_for_slow_clients(self):
        daemon = self.enterContext(Daemon())
        if not daemon.is_sanitized:  # a sanitizer has threads and memory of its own
            self.assertEqual(daemon.count("task"), 7, "main thread, log writer, listener and workers")
        self.assertEqual([listening_options(server) for server in daemon.sockets()], [(1, 4096, False)])
        write(f"{daemon.site}/large", LARGE)
        clients = [daemon.hold_worker("GET /large") for _ in range(3)]
        self.assertEqual(daemon.answer("GET /"), ok("text/html", "hello"))
        for client in clients:
            self.assertTrue(receive_all(client) == ok("application/octet-stream", LARGE))
        if not daemon.is_sanitized:
            wait_until(lambda: daemon.memory("VmRSS") < len(LARGE) >> 10)

    def test_writes_every_line_of_the_log_by_itself(self):
        # The log is a pipe of one page, full until all requests are answered: what they log waits for the writer.
        os.mkfifo(f"{WORK}/pipe")
        pipe = os.open(f"{WORK}/pipe", os.O_RDWR | os.O_NONBLOCK)
        self.assertEqual(fcntl.fcntl(pipe, fcntl.F_SETPIPE_SZ, 4096), 4096)
        daemon = self.enterContext(Daemon(f"log_file={WORK}/pipe\n"))
        fill(pipe)
        with futures.ThreadPoolExecutor() as clients:
            clients.map(daemon.answer, 16 * ["GET / " + 900 * "a"])
        os.read(pipe, 4096)
        count = 0
        while count < 32:
            self.assertTrue(select.select([pipe], [], [], 30)[0], f"{count} lines came")
            lines = os.read(pipe, 4096).decode()
            self.assertRegex(lines, rf"\A({LOG_PREFIX}.*\n+)+\Z")
            count += lines.count("127.0.0.1")

    def test_serves_the_bundled_site(self):
        site = f"{ROOT}/site"
        daemon = self.enterContext(Daemon(f"website_path={site}\n"))
        types = {file["path"]: file["type"] for file in json.loads(read(f"{site}/manifest.json"))}
        types["manifest.json"] = "application/json"
        paths = [os.path.relpath(f"{directory}/{name}", site) for directory, _, names in os.walk(site) for name in names]
        with futures.ThreadPoolExecutor(8) as clients:
            answers = clients.map(lambda path: daemon.answer(f"GET /{path}"), paths)
        for path, answer in zip(paths, answers):
            self.assertTrue(answer == ok(types[path], read(f"{site}/{path}")), path)
