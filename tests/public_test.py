# A public site: what its clients get and the access log says, alike over both servers, and what no client can do to it.
import collections
import contextlib
import datetime
import email.utils
import itertools
import os
import re
import shutil
import socket
import ssl
import time
import unittest
from concurrent import futures

from harness import TLS, WORK, Daemon, handshake, hold_back, is_listening, make_certificates, read, run
from harness import tls_clients, wait_until, write

SERVERS = ("http", "https")
# Runs the command behind it with openat2 and IPv6 forbidden, as in some containers.
CONTAINED = """python3 -c 'import ctypes, os, struct, sys
rules = [(32, 0, 0, 0), (21, 0, 1, 437), (6, 0, 0, 0x50001), (21, 0, 3, 41), (32, 0, 0, 16), (21, 0, 1, 10),
         (6, 0, 0, 0x50061), (6, 0, 0, 0x7fff0000)]
program = ctypes.create_string_buffer(b"".join(struct.pack("HBBI", *rule) for rule in rules))
ctypes.CDLL(None).prctl(22, 2, struct.pack("HP", len(rules), ctypes.addressof(program)))
os.execvp(sys.argv[1], sys.argv[1:])' """
UNPRIVILEGED = "setpriv --bounding-set -net_raw,-dac_override,-dac_read_search ./marluserver start"
LOST = "<html>our own page"
MODIFIED = 1577934245  # /a.txt
SAME, EARLIER, LATER = (email.utils.formatdate(MODIFIED + days * 86400, usegmt=True) for days in (0, -1, 1))


def get(target="/", *lines, method="GET"):
    return f"{method} {target} HTTP/1.1\r\nHost: a\r\n" + "".join(f"{line}\r\n" for line in lines) + "\r\n"


# Requests that all have the same answer. One that begins with a slash is a target, then lines of the head. ETAG stands
# for the one of /a.txt, ZIPPED for that of /future.css with gzip. There may be several statuses. closes tells
# whether the connection ends behind the answer (None: as the answer says); headers that are None must be missing.
def rows(status, requests, body=None, closes=False, **headers):
    headers = {name.replace("_", "-"): value for name, value in headers.items()}
    return [(get(*request.split("\n")) if request[0] == "/" else request, status, body, closes, headers)
            for request in requests]


ROWS = [
    *rows(200, ["/", "\r\n" + get(), get("http://b"), "GET / HTTP/1.2\r\nhost:a:80\r\n\r\n", "/\nContent-Length: 0",
                "/?" + 8190 * "a", "/\nCookie: " + (16384 - len(get("/", "Cookie: "))) * "a",
                "GET / HTTP/1.1\r\nX:\r\nHost: \t[::1]:80 \t\r\n\r\n", '/\nReferer: "\\\nUser-Agent: \xfc\t~'],
          "hello", content_type="text/html; charset=utf-8", accept_ranges="bytes", x_page="1", x_text=None),
    *rows(200, [get(method="HEAD"), get("/", "Range: bytes=0-1", method="HEAD")], "", content_length="5"),
    # Connections
    *rows(200, ["/\nConnection: close", "/\nConnection: x, Close", "GET / HTTP/1.0\r\n\r\n"], "hello", closes=True),
    *rows((200, 404), [f"{line} HTTP/1.0\r\nConnection: Keep-Alive\r\n\r\n" for line in ("GET /", "HEAD /none")],
          connection="keep-alive"),
    # Malformed heads
    *rows(400, [f"{line}\r\nHost: a\r\n\r\n" for line in (
        "GET  / HTTP/1.1", " GET / HTTP/1.1", "GET /  HTTP/1.1", "GET\t/ HTTP/1.1", "GET / HTTP/1.1 ", "GET /",
        "GET / http/1.1", "GET / HTTP/1", "GET / HTTP/01.1", "G(T / HTTP/1.1", "GET a.txt HTTP/1.1")], closes=None),
    *rows(400, [f"GET / HTTP/1.1\r\n{lines}\r\n\r\n" for lines in (
        "Host : a", "Host: a\r\nX: b\r\n c", "Host: a\r\nX", "Host: a\r\nX: \0", "Host: a\r\nX: b\rc", "Host: a\r\n: b",
        "Host: a\r\nX y: b", "Host: a\r\nX(: b", " Host: a\r\nHost: a", "X: b", "Host: a\r\nhost: a", "Host: a, b",
        "Host: a/b", "Host: b@a", "Host: a:x", "Host: [::1")], closes=None),
    *rows(505, [f"GET / HTTP/{version}\r\nHost: a\r\n\r\n" for version in ("2.0", "3.0")], closes=None),
    *rows(414, ["/" + 8192 * "a"], closes=None),
    *rows(431, ["/\nCookie: " + 16384 * "a", "/" + (1 << 18) * "\na: b"], closes=True),
    # Bodies are never taken for a request
    *rows(405, [get("/", line, method="POST") + get() for line in ("Content-Length: 9", "Transfer-Encoding: chunked")] +
          [get("/", "Content-Length: 9", "Expect: 100-continue", method="PUT"),
           get("/", f"Content-Length: {4 << 20}", method="POST") + (4 << 20) * "a"], closes=True),
    *rows((200, 400, 501), [get("/", line) + get() for line in (
        "Content-Length: 9", "Content-Length: 00", "Transfer-Encoding: chunked", "Transfer-Encoding: x")], closes=True),
    *rows(400, [get("/", *lines) + get() for lines in (
        ["Content-Length: 9", "Content-Length: 8"], ["Content-Length: +9"], ["Content-Length: 9x"],
        ["Content-Length: 9", "Transfer-Encoding: chunked"])], closes=True),
    # Methods
    *rows(405, [get(method=method) for method in ("DELETE", "OPTIONS", "POST", "get", "GE")], allow="GET, HEAD"),
    # Names
    *rows(200, ["/a.txt", "//a.txt", "/%61.txt?%", get("http://b/a.txt"), get("HTTP://b:80/a.txt?a"), "/docs/up.txt"],
          "0123456789", last_modified=SAME, content_type="text/plain; charset=utf-8", x_text="1", x_page=None),
    *rows(200, ["/p%2541", "/%70%2541", "/docs%2F%2f.well-known/once", "/d" + 253 * "/d" + "/once"], "once"),
    *rows(200, ["/docs/", "/docs//", "/absolute/"], "docs", x_page="1", vary="Accept-Encoding"),
    *rows(400, ["/%", "/%4", "/%zz", "/a.txt%00", "/%00/a.txt"]),
    *rows(404, ["/none", "/none.txt", "/a.txt/", "/.git/config", "/%2egit/config", "/docs/.page", "/..", "/out",
                "/./a.txt", "/docs/../a.txt", "/docs/%2e%2e/a.txt", "/../site-old/index.html",
                "/..%2Fsite-old/index.html", "/beside/index.html", "//etc/passwd", "/circle", "/pipe", "/closed/x",
                "/empty/", "/" + 256 * "n", "/" + 8191 * "a", "/d" + 254 * "/d" + "/once", "/a.txt%2541",
                "/" + 2030 * "/.", "/none\nIf-None-Match: *\nIf-Match: *\nRange: bytes=0-1"], LOST,
          x_text=None, content_range=None),
    # Directories
    *[case for target, location in (
        ("/docs?a=%2F", "/docs/?a=%2F"), ("/%64ocs", "/%64ocs/"), ("///docs", "/docs/"), ("/absolute", "/absolute/"),
        ("//docs//deep?x", "/docs//deep/?x")) for case in rows(301, [target], location=location)],
    # Validators
    *rows(304, [f"/a.txt\n{lines}" for lines in (
        "If-None-Match: W/ETAG", 'If-None-Match: "x,", ETAG', "If-None-Match: *", f"If-Modified-Since: {SAME}",
        f"If-Modified-Since: {LATER}", "If-Modified-Since: Thu Jan  2 03:04:05 2020",
        "If-Modified-Since: Thursday, 02-Jan-20 03:04:05 GMT", "If-None-Match: ETAG\nRange: bytes=0-1",
        f"If-None-Match: ETAG\nIf-Modified-Since: {EARLIER}")], "", etag="ETAG", x_text="1", vary="Accept-Encoding"),
    *rows(200, [f"/a.txt\n{lines}" for lines in (
        f'If-None-Match: "x"\nIf-Modified-Since: {LATER}', f"If-Modified-Since: {EARLIER}", "If-Modified-Since: now",
        'If-Match: "x", ETAG', "If-Match: *", f"If-Unmodified-Since: {SAME}", f"If-Unmodified-Since: {LATER}",
        f"If-Match: ETAG\nIf-Unmodified-Since: {EARLIER}")], "0123456789"),
    *rows(412, [f"/a.txt\n{lines}" for lines in (
        "If-Match: W/ETAG", f"If-Unmodified-Since: {EARLIER}", 'If-Match: "x"\nIf-None-Match: ETAG',
        f'If-Match: "x"\nIf-Unmodified-Since: {LATER}')]),
    # Ranges
    *[case for asked, body, sent in (
        ("0-3", "0123", "0-3"), ("4-", "456789", "4-9"), ("-3", "789", "7-9"), ("-20", "0123456789", "0-9"),
        ("9-9", "9", "9-9"), ("5-99999999999999999999", "56789", "5-9"), ("0-1\nIf-Range: ETAG", "01", "0-1"),
        (f"0-1\nIf-Range: {SAME}", "01", "0-1"), ('0-1\nIf-None-Match: "x"', "01", "0-1"))
      for case in rows(206, [f"/a.txt\nRange: bytes={asked}"], body, content_range=f"bytes {sent}/10", x_text="1")],
    *rows(416, [f"/a.txt\nRange: bytes={asked}" for asked in ("10-", "-0", "99999999999999999999-")],
          content_range="bytes */10"),
    *rows(200, [f"/a.txt\nRange: {asked}" for asked in (
        "bytes=5-3", "bytes=x", "bytes=-", "lines=0-1", "bytes=0-1x", "bytes=0-1,4-5", 'bytes=0-1\nIf-Range: "x"',
        "bytes=0-1\nIf-Range: W/ETAG", f"bytes=0-1\nIf-Range: {EARLIER}", f"bytes=0-1\nIf-Range: {LATER}")],
          "0123456789", content_range=None),
    # Types
    *[case for target, value in (
        ("/picture.PNG\nAccept-Encoding: gzip", "image/png"), ("/latest.css", "text/css; charset=utf-8"),
        ("/x.mjs", "application/javascript"), ("/x.avif", "image/avif"),
        ("/x.webmanifest", "application/manifest+json"), ("/v1.css/x", "application/octet-stream"),
        ("/future.css.gz", "application/gzip"))
      for case in rows(200, [target], content_type=value, content_encoding=None)],
    # Compressed files
    *[case for accepted, body, encoding in (
        ("gzip, deflate, br", "as br", "br"), ("gzip;q=0.5", "as gz", "gzip"), ("br;q=0, GZIP;q=1.0", "as gz", "gzip"),
        ("br; q=0.000, gzip ; q=0", "plain", None), ("x-br", "plain", None),
        ("br\nIf-None-Match: ZIPPED", "as br", "br"))
      for case in rows(200, [f"/future.css\nAccept-Encoding: {accepted}"], body, content_encoding=encoding,
                       vary="Accept-Encoding", content_type="text/css; charset=utf-8")],
    *rows(304, ["/future.css\nAccept-Encoding: gzip\nIf-None-Match: ZIPPED"], vary="Accept-Encoding", etag="ZIPPED"),
    *rows(206, ["/future.css\nAccept-Encoding: gzip\nRange: bytes=1-2"], "s ", content_encoding="gzip"),
    *rows(200, ["/older.css\nAccept-Encoding: br"], "plain", content_encoding=None, vary="Accept-Encoding"),
]
HTTPS_ONLY_ROWS = [
    *rows(301, ["/docs?a=%2F&b"], location="https://aPORT/docs?a=%2F&b"),
    *rows(301, ["GET //b/ HTTP/1.1\r\nHost: [::1]:80\r\n\r\n"], location="https://[::1]PORT//b/"),
    *rows(200, ["/.well-known/acme-challenge/token"], "token"),
    *rows((301, 404), ["/.well-known/acme-challenge/../../a.txt", "/.well-known/acme-challenge/%2e%2e/%2e%2e/a.txt"]),
    *rows(400, ["GET / HTTP/1.1\r\nHost: a/b\r\n\r\n"], closes=None),
]


def setUpModule():
    make_certificates()
    run(f"cat {TLS}/leaf.crt {TLS}/middle.crt >{TLS}/full.crt")


# Sends some bytes, then some more ten times a second. Returns after how many seconds the daemon ends the connection.
def dribble(client, beginning, piece):
    begin = time.monotonic()
    client.settimeout(0.1)
    with contextlib.suppress(OSError):
        client.sendall(beginning)
        while time.monotonic() < begin + 40:
            with contextlib.suppress(TimeoutError):
                if client.recv(1) == b"":
                    break
            client.sendall(piece)
    return time.monotonic() - begin


# What is certain of a line of the access log: if the request could not be read, not its text.
def log_entry(address, status, size, *texts):
    if status in (400, 414, 431, 505):
        texts = ()
    return address, status, size, *(re.sub(r"\\x..", lambda found: found[0].lower(), text[:1000]) for text in texts)


def escaped(text):
    return re.sub(r"[^ !#-\[\]-~]", lambda found: rf"\x{ord(found[0]):02x}", text)


# One connection. What is asked through it is expected in the access log.
class Client:
    def __init__(self, daemon, server, address="127.0.0.1"):
        self.daemon, self.address = daemon, address
        to = "::1" if ":" in address else "127.0.0.1"
        self.socket = socket.create_connection((to, daemon.ports[server]), 60, (address, 0))
        self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        if server == "https":
            self.socket = handshake(daemon.clients, self.socket)
        self.file = self.socket.makefile("rb")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.file.close()
        self.socket.close()

    def send(self, request):
        self.socket.sendall(request.encode("latin-1"))

    # Returns status, headers and body of one answer. Fails unless the answer has what every answer has to have.
    def read(self, request=get()):
        lines = []
        while (line := self.file.readline()) != b"\r\n":
            lines += re.fullmatch("([^\r\n]+)\r\n", line.decode("latin-1")).groups()
        status = int(re.fullmatch(r"HTTP/1\.1 (\d{3}) .+", lines[0])[1])
        fields = [re.fullmatch(r"([\w-]+): (\S|\S.*\S)", line).groups() for line in lines[1:]]
        headers = {name.lower(): value for name, value in fields}
        size = 0 if status == 304 or request.startswith("HEAD") else int(headers["content-length"])
        body = self.file.read(size).decode("latin-1")
        date = email.utils.parsedate_to_datetime(headers["date"])
        modified = email.utils.parsedate_to_datetime(headers.get("last-modified", SAME))
        is_page = headers.get("content-type", "").startswith("text/html") and body[:1] in ("", "<") and size < 1000
        if (len(headers) < len(fields) or len(body) < size or email.utils.format_datetime(date, True) != headers["date"]
                or abs(date.timestamp() - time.time()) > 30 or modified > date or status >= 400 and not is_page
                or status in (200, 206, 304) and not re.fullmatch(r'"[!#-~]+"', headers["etag"])):
            raise AssertionError(f"{lines} {body}")
        values = [re.findall(f"\r\n{name}: *(.*)\r\n", request) or ["-"] for name in ("Referer", "User-Agent")]
        texts = [request.lstrip("\r\n").split("\r\n")[0], *(value[0] for value in values)]
        self.daemon.asked[log_entry(self.address, status, size, *map(escaped, texts))] += 1
        return status, headers, body

    def ask(self, request=get()):
        self.send(request)
        return self.read(request)

    # Takes the answer to a request that was sent, without keeping its body. Returns how much of it came.
    def count_body(self):
        while (line := self.file.readline()) != b"\r\n":
            if line.startswith(b"Content-Length: "):
                left = size = int(line.split()[1])
        buffer = memoryview(bytearray(1 << 20))
        with contextlib.suppress(ConnectionResetError, ssl.SSLError):
            while count := self.file.readinto(buffer[:left]):
                left -= count
        return size - left

    def has_ended(self):
        self.socket.setblocking(False)
        try:
            return self.socket.recv(1) == b""
        except OSError as error:
            return not isinstance(error, (BlockingIOError, ssl.SSLWantReadError))


class PublicDaemon(Daemon):
    def __init__(self, settings="", command="./marluserver start", at_once=False):
        self.access_log = f"{WORK}/{Daemon.next_port}/access.log"
        self.asked = collections.Counter()
        self.ports = dict(zip(SERVERS, (Daemon.next_port, Daemon.next_port + 1)))
        self.clients = tls_clients(f"{TLS}/good.crt")
        super().__init__("public_site=yes\nstart_https=y\nuse_log_https=y\ncipher_list=HIGH\n"
                         f"crt_file={TLS}/good.crt\nkey_file={TLS}/good.key\naccess_log={self.access_log}\n{settings}",
                         command, at_once)
        wait_until(lambda: at_once or all(map(is_listening, self.ports.values())) or self.has_ended())

    # Asks on a connection of its own.
    def ask(self, server, request=get(), address="127.0.0.1"):
        with Client(self, server, address) as client:
            return client.ask(request)

    # Has a large file sent to a client that takes only the beginning.
    def hold(self, server):
        client = Client(self, server)
        client.send(get("/large"))
        client.file.peek()
        return client

    def replace(self, name, text, size=0, modified=1):
        write(f"{self.directory}/new", text)
        os.truncate(f"{self.directory}/new", size)
        os.utime(f"{self.directory}/new", ns=(modified, modified))
        os.rename(f"{self.directory}/new", f"{self.site}/{name}")

    # The access log, and the files that it was renamed to. Fails unless each line is a whole one.
    def logged(self, *renamed):
        entries = collections.Counter()
        for line in "".join(map(read, (*renamed, self.access_log))).split("\n")[:-1]:
            address, date, request, status, size, *fields = re.fullmatch(
                r'(\S+) - - \[([^]]+)\] "([^"]*)" (\d{3}) (\d+|-) "([^"]*)" "([^"]*)"', line).groups()
            seconds = datetime.datetime.strptime(date, "%d/%b/%Y:%H:%M:%S %z").timestamp()
            if len(line) > 4095 or abs(seconds - time.time()) > 600:
                raise AssertionError(line)
            entries[log_entry(address, int(status), int(size.replace("-", "0")), request, *fields)] += 1
        return entries


class Public(unittest.TestCase):
    def start(self, *arguments):
        return self.enterContext(PublicDaemon(*arguments))

    def client(self, *arguments):
        return self.enterContext(Client(*arguments))

    def check(self, daemon, server, cases, **placeholders):
        for request, status, body, closes, headers in cases:
            with self.subTest(server=server, request=request[:300]), Client(daemon, server) as client:
                for name, value in placeholders.items():
                    request = request.replace(name, value)
                    headers = {header: text and text.replace(name, value) for header, text in headers.items()}
                answered, answer_headers, answer_body = client.ask(request)
                self.assertIn(answered, status if isinstance(status, tuple) else (status,))
                self.assertIn(body, (None, answer_body))
                self.assertEqual({name: answer_headers.get(name) for name in headers}, headers)
                ends = answer_headers.get("connection") == "close"
                self.assertIn(closes, (None, ends))
                if ends:
                    self.assertEqual(client.file.read(), b"")
                else:
                    self.assertIn(client.ask()[0], (200, 301))

    def test_answers_and_logs_every_row(self):
        for prefix, page in (("", LOST), (CONTAINED, None)):
            with self.start_with_site(prefix, page) as daemon:
                self.answers_and_logs_every_row(daemon, page)
            Daemon.next_port -= 2  # the next one binds while connections linger

    def start_with_site(self, prefix, page):
        directory = f"{WORK}/{Daemon.next_port}"
        write(f"{directory}/headers", "*.txt X-Text: 1\n*/ X-Page: 1\n")
        os.symlink("site", f"{directory}/link")
        daemon = PublicDaemon(f"website_path={directory}/../{os.path.basename(directory)}/link/.\n"
                              f"headers_file={directory}/headers\n", prefix + UNPRIVILEGED)
        texts = {"0123456789": ["a.txt"], "docs": ["docs/index.html"], "plain": ["future.css", "older.css"],
                 "secret": ["../site-old/index.html", ".git/config", "docs/.page", "closed/x"],
                 "as gz": ["future.css.gz"],
                 "once": ["p%41", "docs/.well-known/once", "d" + 254 * "/d" + "/once", 254 * "d/" + "once"],
                 "as br": ["future.css.br", "older.css.br"], page: ["404.html"] if page else [],
                 "": ["docs/deep/x", "empty/x", "picture.PNG", "picture.PNG.gz", "x.mjs", "x.avif",
                      "x.webmanifest", "v1.css/x"]}
        for text, names in texts.items():
            for name in names:
                write(f"{daemon.site}/{name}", text)
        for target, link in (("/etc/passwd", "out"), (f"{daemon.site}/docs", "absolute"), ("../site-old", "beside"),
                             ("circle", "circle"), ("../a.txt", "docs/up.txt"), ("a.txt", "latest.css")):
            os.symlink(target, f"{daemon.site}/{link}")
        for name, seconds in (("a.txt", MODIFIED + 0.5), ("future.css", 4e9 + 0.5), ("future.css.br", 4e9),
                              ("future.css.gz", 4e9), ("older.css.br", 1e9)):
            os.utime(f"{daemon.site}/{name}", (0, seconds))
        os.chmod(f"{daemon.site}/closed", 0)
        os.mkfifo(f"{daemon.site}/pipe")
        return daemon

    def answers_and_logs_every_row(self, daemon, page):
        cases = ROWS if page else [(*case[:2], None if case[2] == LOST else case[2], *case[3:]) for case in ROWS]
        for server in SERVERS:
            self.check(daemon, server, cases, ETAG=daemon.ask(server, get("/a.txt"))[1]["etag"],
                       ZIPPED=daemon.ask(server, get("/future.css", "Accept-Encoding: gzip"))[1]["etag"])
            self.finds_nothing_behind_a_link_that_changes(daemon, server)
        self.assertEqual(daemon.end(), 0)
        self.assertEqual(daemon.logged(), daemon.asked)
        for server in SERVERS:
            self.assertNotRegex(daemon.log(f"{server}.log"), "GET|HTTP/|handshake")

    def finds_nothing_behind_a_link_that_changes(self, daemon, server):
        with futures.ThreadPoolExecutor() as threads, Client(daemon, server) as client:
            asked = threads.submit(lambda: {client.ask(get("/swap/index.html"))[2] for _ in range(500)})
            while not asked.done():
                for target in ("../site-old", "docs"):
                    os.symlink(target, f"{daemon.directory}/new")
                    os.rename(f"{daemon.directory}/new", f"{daemon.site}/swap")
        self.assertIn("docs", asked.result())
        self.assertNotIn("secret", asked.result())

    def test_sends_visitors_to_https(self):
        daemon = self.start("https_only=yes\n")
        write(f"{daemon.site}/.well-known/acme-challenge/token", "token")
        self.check(daemon, "http", HTTPS_ONLY_ROWS, PORT=f":{daemon.https_port}")
        self.assertEqual(daemon.ask("https")[0], 200)

    def test_takes_requests_as_they_come(self):
        daemon = self.start()
        daemon.replace("large", "", 32 << 20)
        expected = {get(method="HEAD"): 200, get("/none"): 404, get(): 200, get(method="PUT"): 405}
        for server in SERVERS:
            client = self.client(daemon, server)
            for byte in "".join(expected):
                client.send(byte)
            client.send(100 * "".join(expected) + get("/large") + get())
            for request, status in 101 * [*expected.items()]:
                self.assertEqual(client.read(request)[0], status)
            if server == "http":
                client.socket.shutdown(socket.SHUT_WR)
            self.assertEqual(client.count_body(), 32 << 20)
            self.assertEqual(client.read()[2], "hello")
            if server == "http":
                self.assertEqual(client.file.read(), b"")
        padding = "Padding: " + 960 * "a"
        for _ in range(5):  # each leaves in the round in which it asks for another turn
            client = self.client(daemon, "http")
            client.send(39 * get("/", padding) + get("/", padding, "Connection: close"))
            self.assertEqual([client.read()[2] for _ in range(40)], 40 * ["hello"])

    def test_drops_who_takes_more_than_ten_seconds(self):
        daemon = self.start()
        clients = [(socket.create_connection(("127.0.0.1", daemon.https_port)), *sent)
                   for sent in ((b"", b""), (b"\x16\x03\x01\x40\0", b"\0"))]
        for server in SERVERS:
            kept = self.client(daemon, server)
            kept.ask()
            clients += [(kept.socket, b"GET ", b"/")] + [(self.client(daemon, server).socket, *sent) for sent in (
                (b"", b""), (b"\r", b"\n"), (b"GET / HTTP/1.1\r\n", b"a: b\r\n"))]
        with futures.ThreadPoolExecutor(len(clients)) as threads:
            for seconds, client in zip(threads.map(lambda client: dribble(*client), clients), clients):
                self.assertTrue(9 < seconds < 30, f"{seconds} {client}")

    def test_sends_files_of_any_size_as_they_are_now(self):
        daemon = self.start()
        clients = [self.client(daemon, server) for server in SERVERS]
        tags = []
        for size, modified in ((5, 10**18), (5, 10**18), (5, 10**18 + 1), (6, 10**18), (0, 1), ((4 << 30) + 5, 1)):
            daemon.replace("file", "", size, modified)
            tags += [client.ask(get("/file", method="HEAD"))[1]["etag"] for client in clients]
            for client in clients:
                client.send(get("/file"))
            with futures.ThreadPoolExecutor() as threads:
                self.assertEqual([*threads.map(Client.count_body, clients)], 2 * [size])
        self.assertEqual(tags[:2], tags[2:4])  # another file, but the same time and size
        self.assertEqual([len(set(tags)), tags[::2]], [5, tags[1::2]])
        if not daemon.is_sanitized:
            self.assertLess(daemon.memory("VmHWM"), 32 << 10)
        descriptors = daemon.count("fd")
        for change, is_whole in ((lambda: daemon.replace("large", "small"), True),
                                 (lambda: os.truncate(f"{daemon.site}/large", 0), False)):
            daemon.replace("large", "", 64 << 20)
            held = [daemon.hold(server) for server in SERVERS]
            change()
            for client in held:
                with client:
                    self.assertEqual(client.count_body() == 64 << 20, is_whole)
        wait_until(lambda: daemon.count("fd") == descriptors)

    def test_ends_in_the_middle(self):
        daemon = self.start()
        daemon.replace("large", "", 1 << 40)
        held = [daemon.hold(server) for server in SERVERS for _ in range(100)]
        silent = [self.client(daemon, server) for server in SERVERS for _ in range(100)]
        with futures.ThreadPoolExecutor(50) as threads:
            for client in held[::4]:
                threads.submit(client.count_body)
            self.assertEqual(daemon.end(), 0)
        self.assertTrue(all(map(Client.has_ended, silent)))

    def test_ends_when_one_server_cannot_start(self):
        shutil.copy(f"{TLS}/good.crt", f"{TLS}/held.crt")
        self.enterContext(socket.create_server(("127.0.0.1", Daemon.next_port + 1)))
        with contextlib.ExitStack() as holding:
            holding.callback(os.close, hold_back(f"{TLS}/held.crt"))
            daemon = self.start(f"crt_file={TLS}/held.crt\n", "./marluserver start", True)
            wait_until(lambda: is_listening(daemon.port))
            daemon.replace("large", "", 1 << 40)
            client = daemon.hold("http")
        begin = time.monotonic()
        while not daemon.has_ended():  # a slow download
            client.file.read1(1)
        self.assertLess(time.monotonic() - begin, 6)

    def test_loses_no_line_when_its_log_is_renamed(self):
        daemon = self.start()
        renamed = [f"{daemon.access_log}.{number}" for number in range(5)]

        def ask(number):
            with Client(daemon, SERVERS[number % 2]) as client:
                for turn in itertools.count():
                    client.ask(get(f"/?{number}-{turn}"))
                    if os.path.exists(f"{daemon.directory}/enough"):
                        return

        with futures.ThreadPoolExecutor(8) as threads:
            asking = [threads.submit(ask, number) for number in range(8)]
            for path in renamed:
                wait_until(lambda: os.path.exists(daemon.access_log) and os.path.getsize(daemon.access_log))
                os.rename(daemon.access_log, path)
            wait_until(lambda: os.path.exists(daemon.access_log))
            write(f"{daemon.directory}/enough", "")
        self.assertEqual({done.result() for done in asking}, {None})
        self.assertEqual(os.stat(daemon.access_log).st_mode & 0o7777, 0o640)
        self.assertEqual(daemon.end(), 0)
        self.assertEqual(daemon.logged(*renamed), daemon.asked)

    def test_goes_on_when_the_disk_of_its_log_is_full(self):
        run(f"mkdir {WORK}/small && mount -t tmpfs -o size=64k tmpfs {WORK}/small")
        daemon = self.start(f"access_log={WORK}/small/access.log\n")
        daemon.access_log = f"{WORK}/small/access.log"
        client = self.client(daemon, "http")
        before = daemon.log().count("\n")
        write(f"{WORK}/small/filler", 60 * 1024 * "x")
        for number in range(100):
            client.ask(get(f"/?{number}", "User-Agent: " + 500 * "a"))
        wait_until(lambda: daemon.log().count("\n") == before + 1)
        os.remove(f"{WORK}/small/filler")
        for number in range(100, 110):
            client.ask(get(f"/?{number}"))
        wait_until(lambda: daemon.log().count("\n") == before + 2)
        client.ask(get("/?110"))
        self.assertEqual(daemon.end(), 0)
        self.assertEqual(daemon.logged() - daemon.asked, collections.Counter())
        self.assertIn("/?110 ", read(daemon.access_log))

    # Returns how many of the connections from some addresses in turn are answered before one is not, None if all are.
    def allowance(self, daemon, *addresses):
        for count in range(1100):
            try:
                status, *_ = daemon.ask(SERVERS[count % 20 == 0], address=addresses[count % len(addresses)])
            except (AttributeError, OSError):  # there is no answer
                status = 0
            if status != 200:
                return count

    def test_counts_the_connections_of_an_address(self):
        for address in ("fd00::1", "fd00::2", "fd00::3", "fd01::1"):
            run(f"ip address add {address} dev lo nodad")
        daemon = self.start("trusted_proxy=127.0.0.8,fd01::1\n")
        self.assertGreaterEqual(self.allowance(daemon, "127.0.0.9"), 1000)
        self.assertGreaterEqual(self.allowance(daemon, "fd00::1", "fd00::2"), 1000)
        self.assertEqual(self.allowance(daemon, "fd00::3"), 0)
        self.assertIsNone(self.allowance(daemon, "127.0.0.8"))
        wait_until(lambda: "127.0.0.9 HTTP/1.1 429" in daemon.log("https.log"))
        for address, forwarded, logged in (
                ("127.0.0.8", "192.0.2.1, 192.0.2.2", "192.0.2.2"), ("127.0.0.7", "192.0.2.3", "127.0.0.7"),
                ("fd01::1", "2001:db8::5", "2001:db8::5"), ("127.0.0.8", "", "127.0.0.8"), ("::1", "192.0.2.4", "::1")):
            with Client(daemon, "http", address) as client:
                client.address = logged
                client.ask(get("/", f"X-Forwarded-For: {forwarded}"))
        self.assertEqual(daemon.end(), 0)
        self.assertEqual(daemon.asked, daemon.logged())

    def test_finds_room_for_a_new_visitor(self):
        daemon = self.start("", "prlimit --nofile=128:256 ./marluserver start")
        greedy = [self.client(daemon, "http", "127.0.0.100") for _ in range(100)]
        wait_until(lambda: sum(map(Client.has_ended, greedy)) >= 100 - 256 // 8)
        self.assertFalse(all(map(Client.has_ended, greedy)))
        clients = [self.client(daemon, "http", f"127.0.1.{number % 20}") for number in range(200)]
        for server in SERVERS:
            self.assertEqual(daemon.ask(server)[0], 200)
        self.assertEqual(clients[-1].ask()[0], 200)
        wait_until(lambda: sum(map(Client.has_ended, clients)) >= 200 - (256 - 64) // 2)

    def test_speaks_tls(self):
        daemon = self.start()
        for version in (ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3):
            daemon.clients = tls_clients(f"{TLS}/good.crt", version)
            daemon.clients.set_alpn_protocols(["h2", "http/1.1"])
            client = self.client(daemon, "https")
            self.assertEqual(client.ask()[2], "hello")
            self.assertEqual(client.socket.selected_alpn_protocol(), "http/1.1")
            again = socket.create_connection(("127.0.0.1", daemon.https_port))
            with daemon.clients.wrap_socket(again, session=client.socket.session) as resumed:
                self.assertTrue(resumed.session_reused)
        daemon.clients = tls_clients(f"{TLS}/good.crt", ssl.TLSVersion.TLSv1_1)
        self.assertRaises(OSError, Client, daemon, "https")
        output, *_ = run(f"echo R | openssl s_client -tls1_2 -connect 127.0.0.1:{daemon.https_port} 2>&1")
        self.assertNotIn("verify return", output.partition("RENEGOTIATING")[2])
        self.assertIn("RENEGOTIATING", output)
        for settings in (f"crt_file={TLS}/full.crt", f"crt_file={TLS}/leaf.crt\nchain_file={TLS}/middle.crt",
                         f"pem_file={TLS}/chain.pem"):
            daemon = self.start(f"{settings}\nkey_file={TLS}/leaf.key\n")
            daemon.clients = tls_clients(f"{TLS}/root.crt")
            self.assertEqual(daemon.ask("https")[0], 200, settings)
