# What clients get over TLS, what the HTTPS log says about it, and how the two servers begin and end.
import os
import re
import shutil
import socket
import ssl
import unittest
from concurrent import futures

from harness import FORBIDDEN, LARGE, LOG_PREFIX, NOT_ALLOWED, NOT_FOUND, SHUTDOWN_LINE, TLS, Daemon, cache_slot
from harness import connect, handshake, hold_back, is_listening, listening_options, logged, make_certificates, ok
from harness import receive_all, reset_when_closed, tls_clients, wait_until, write


def setUpModule():
    make_certificates()
    TlsDaemon.clients = tls_clients(f"{TLS}/good.crt")


def without(capability):
    return f"setpriv --bounding-set -{capability} ./marluserver start"


class TlsDaemon(Daemon):
    def __init__(self, settings="", command="./marluserver start", at_once=False):
        super().__init__("start_http=n\nstart_https=y\nuse_log_https=y\ncipher_list=ALL:@SECLEVEL=0\n"
                         f"crt_file={TLS}/good.crt\nkey_file={TLS}/good.key\n{settings}", command, at_once)

    # Sends request and returns the connection.
    def ask(self, request, clients=None):
        client = handshake(clients or self.clients, connect(self.https_port))
        client.sendall(request.encode("latin-1"))
        return client

    def answer(self, request):
        return receive_all(self.ask(request))

    # Without what follows when the end closes the socket just as the listener is about to accept.
    def messages(self, name="https.log"):
        return re.sub("0.0.0.0 Failed to accept.*\n\n$", "", super().messages(name))


class Https(unittest.TestCase):
    def test_answers_and_logs_byte_for_byte(self):
        write(f"{TLS}/list", "\n  /fresh.txt/ \r\n../x\n")
        daemon = self.enterContext(TlsDaemon(f"cache_ignore={TLS}/list\npem_file={TLS}/chain.pem\n"))
        write(f"{daemon.site}/report.pdf", "report")
        write(f"{daemon.site}/docs/empty.css", "")
        write(f"{daemon.site}/fresh.txt", "fresh")
        os.symlink("report.pdf", f"{daemon.site}/latest")
        os.symlink("fresh.txt", f"{daemon.site}/fresh.css")
        too_long = "/" + 256 * "n"
        cases = [
            ("GET / HTTP/1.1\r\nHost: a\r\n\r\n", "/index.html", ok("text/html", "hello")),
            ("GET /index.html?v=3&v HTTP/1.1", "/index.html", ok("text/html", "hello")),
            ("GET /?" + 5000 * "a", "/index.html", ok("text/html", "hello")),
            ("GET /index.html\0.txt", "/index.html", ok("text/html", "hello")),
            ("GET /latest ", "/latest", ok("application/octet-stream", "report")),
            ("GET /fresh.css ", "/fresh.css", ok("text/css", "fresh")),
            ("GET /index.html\r\nHost: a", "/index.html\r\nHost:", NOT_FOUND),
            ("GET /docs/empty.css ", "/docs/empty.css", NOT_FOUND),
            ("GET /docs/ ", "/docs/", NOT_FOUND),
            ("GET /../https.log ", "/../https.log", FORBIDDEN),
            ("HEAD / HTTP/1.1", "", NOT_ALLOWED),
            ("GET  / HTTP/1.1", "", NOT_ALLOWED),
            ("\0GET / HTTP/1.1", "", NOT_ALLOWED),
            (f"GET {too_long}", too_long, ""),
        ]
        expected = daemon.first_messages(
            daemon.https_port, f"PATH CACHE IGNORE: {TLS}/list\nADD: path to non-cached file: {daemon.site}/fresh.txt\n"
            f"ERROR:\npath to non-cached file: ../x\nsite path: {daemon.site}\n"
            f"result path: {daemon.directory}/x\n{39 * '_'}\n")
        for version in (ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3):
            clients = tls_clients(f"{TLS}/root.crt", version)  # content only if the whole chain is sent
            for request, target, answer in cases:
                self.assertEqual(receive_all(daemon.ask(request, clients)), answer, request)
                expected += logged(request[:4095].split("\0")[0], target, answer)
            expected += (f"Error handling client: filesystem error: status: File name too long "
                         f"[{daemon.site}{too_long}]\n")  # the last request gets no answer
        self.assertEqual(daemon.end(), 0)
        self.assertEqual(daemon.messages(), expected + SHUTDOWN_LINE)
        self.assertEqual(daemon.log("http.log"), "", "its server was not to be started")
        contexts = set(re.findall(LOG_PREFIX, daemon.log("https.log")))
        self.assertEqual(len(contexts), 3 + 2 * len(cases), "of the loader, the listener, the end and each connection")

    def test_serves_on_after_connections_that_break_off(self):
        daemon = self.enterContext(TlsDaemon())
        write(f"{daemon.site}/large", LARGE)
        descriptors = daemon.count("fd")
        daemon.answer("GET / ")
        served = "127.0.0.1 GET / \n\n.*PATH = /index.html\n\n\n"
        refused = "SSL_accept <= 0\n(\\S*:error:.*\n)?\n"
        asked = ".*GET /large \n\n.*PATH.*\n\n\n"
        old, middle, new = ssl.TLSVersion.TLSv1_1, ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3
        cases = [  # what is sent in clear, the version of the handshake, whether a file is asked for, and the lines
            ("", None, False, False, refused),
            ("", None, False, True, refused),
            ("\x16\x03\x01\x02", None, False, True, refused),
            ("GET / HTTP/1.1\r\n\r\n", None, False, False, "SSL_accept <= 0\n\\S*:error:.*http request.*\n\n"),
            ("", old, False, False, "SSL_accept <= 0\n\\S*:error:.*unsupported protocol.*\n\n"),
            ("", middle, False, False, "SSL error: 1\n \n\n\\S*:error:.*unexpected eof.*\n\n"),
            ("", middle, False, True, ""),
            ("", middle, True, False, asked),
            ("", new, True, True, asked),
        ]
        expected = daemon.first_messages(daemon.https_port) + served
        for in_clear, version, is_asked, is_reset, lines in cases:
            client = connect(daemon.https_port)
            client.sendall(in_clear.encode("latin-1"))
            if is_reset:
                reset_when_closed(client)
            if version == old:
                self.assertRaises(ssl.SSLError, handshake, tls_clients(f"{TLS}/good.crt", version), client)
            elif version:
                client = handshake(tls_clients(f"{TLS}/good.crt", version), client)
            if is_asked:
                client.sendall(b"GET /large ")
                client.recv(1)
            client.close()
            self.assertEqual(daemon.answer("GET / "), ok("text/html", "hello"))
            expected += lines + served
        wait_until(lambda: daemon.count("fd") == descriptors)
        self.assertEqual(daemon.end(), 0)
        self.assertRegex(daemon.messages(), f"\\A{expected}{SHUTDOWN_LINE}\\Z")

    def test_serves_one_connection_at_a_time_and_waits_ten_seconds(self):
        daemon = self.enterContext(TlsDaemon())
        write(f"{daemon.site}/large", LARGE)
        first = daemon.ask("GET /large ")
        beginning = first.recv(1).decode()
        second = daemon.clients.wrap_socket(connect(daemon.https_port), do_handshake_on_connect=False)
        second.settimeout(0.3)  # waits for nothing: where all is right, nothing comes however long it is
        self.assertRaises(TimeoutError, second.do_handshake)
        self.assertTrue(beginning + receive_all(first) == ok("application/octet-stream", LARGE))
        second.settimeout(60)
        second.do_handshake()
        packet, listening, client = sorted(daemon.sockets(), key=lambda each: (-each.family, each.fileno()))
        self.assertEqual(packet.family, socket.AF_PACKET)
        self.assertEqual(listening_options(listening), (0, 128, True))
        self.assertEqual(client.getsockopt(socket.SOL_SOCKET, socket.SO_RCVTIMEO, 16)[:8], (10).to_bytes(8, "little"))
        second.sendall(b"GET / ")
        self.assertEqual(receive_all(second), ok("text/html", "hello"))

    def test_shares_the_allowance_with_http(self):
        daemon = self.enterContext(TlsDaemon("start_http=y\n"))
        wait_until(lambda: daemon.messages() == daemon.first_messages(daemon.https_port))
        for _ in range(1000):
            daemon.send("", "127.0.0.9").close()
        # Connections are accepted in order: when the silent one has been closed, all have been counted.
        self.assertEqual(receive_all(connect(daemon.port)), "")
        for port in (daemon.port, daemon.https_port):
            self.assertEqual(receive_all(connect(port, "127.0.0.9")), "")
        self.assertEqual(receive_all(daemon.hold_worker("GET /")), ok("text/html", "hello"))
        self.assertEqual(daemon.end(), 0)
        refused = "127.0.0.9 HTTP/1.1 429 Too Many Requests\n\n"
        self.assertEqual(daemon.messages(), daemon.first_messages(daemon.https_port) + refused + SHUTDOWN_LINE)
        self.assertIn(f"{daemon.site}\n{refused}127.0.0.1 GET /\n", daemon.messages("http.log"))

    def test_keeps_what_it_served_unless_it_is_listed(self):
        write(f"{TLS}/list", "fresh")
        daemon = self.enterContext(TlsDaemon(f"cache_ignore={TLS}/list\n"))
        os.symlink(".", f"{daemon.site}/link")  # what counts is the canonical name
        slot = cache_slot(f"{daemon.site}/kept")
        neighbour = next(name for name in map(str, range(10000)) if cache_slot(f"{daemon.site}/{name}") == slot)
        cases = [  # what the file is replaced with, and what is served for it
            ("kept", "1", "1"), ("fresh", "2", "2"), ("kept", "3", "1"), ("fresh", "4", "4"), (neighbour, "5", "1"),
        ]
        for name, text, served in cases:
            write(f"{daemon.site}/new", text)
            os.rename(f"{daemon.site}/new", f"{daemon.site}/{name}")
            self.assertEqual(daemon.answer(f"GET /link/{name} "), ok("application/octet-stream", served), name + text)


class Servers(unittest.TestCase):
    def test_that_cannot_be_set_up_end_the_daemon(self):
        cases = [  # settings, the last line in the log, the command
            (f"pem_file={TLS}/odd.pem", "Failed to load Private Key from PEM"),
            (f"pem_file={TLS}/weak.pem", "Failed to load Certificate from PEM"),
            (f"pem_file={TLS}/weak_chain.pem", "Failed to load Certificate from PEM (CA chain)"),
            (f"pem_file={TLS}/mismatch.pem", "Private Key does not match the Certificate"),
            (f"key_file={TLS}/root.key", "Failed to load certificate or private key"),
            (f"chain_file={TLS}/good.key", "Failed to load certificate bundle (CA chain)"),
            ("cipher_list=none", "Error installing cipher list: none"),
            ("", "Failed to create RAW socket", without("net_raw")),
            ("port_https=443", "Failed to bind HTTPS socket", without("net_bind_service")),
            ("start_http=y\nport=80", "Serving files from: {site}", without("net_bind_service")),
        ]
        daemons = [self.enterContext(TlsDaemon(settings, *command, at_once=True)) for settings, _, *command in cases]
        for daemon, (_, line, *_) in zip(daemons, cases):
            self.assertEqual(daemon.wait(), 0, line)
            self.assertTrue(daemon.messages().endswith(f"\n{line.format(site=daemon.site)}\n{SHUTDOWN_LINE}"), line)
        self.assertTrue(daemon.messages("http.log").endswith(f"\nBind failed\n{SHUTDOWN_LINE}"))

    def test_of_which_one_ends_serve_what_is_queued(self):
        # The HTTPS server waits for its certificate until HTTP has work to do, and then cannot have its port.
        shutil.copy(f"{TLS}/good.crt", f"{TLS}/held.crt")
        certificate = hold_back(f"{TLS}/held.crt")
        daemon = self.enterContext(TlsDaemon(f"start_http=y\nport_https=443\ncrt_file={TLS}/held.crt\n",
                                             without("net_bind_service")))
        write(f"{daemon.site}/large", LARGE)
        for number in range(8):
            write(f"{daemon.site}/{number}", str(number))
        held = [daemon.hold_worker("GET /large") for _ in range(4)]
        descriptors = daemon.count("fd")
        queued = [daemon.send(f"GET /{number}") for number in range(8)]
        wait_until(lambda: daemon.count("fd") == descriptors + 8)
        os.close(certificate)
        wait_until(lambda: not is_listening(daemon.port))
        # The first worker that is free serves the queue, in its order.
        self.assertTrue(receive_all(held[0]) == ok("application/octet-stream", LARGE))
        for number, client in enumerate(queued):
            self.assertEqual(receive_all(client), ok("application/octet-stream", str(number)))
        self.assertEqual(re.findall(r"GET /(\d)\n", daemon.messages("http.log")), [str(number) for number in range(8)])
        self.assertEqual(len(daemon.sockets()), 3, "of the held connections")
        for client in held[1:]:
            receive_all(client)
        self.assertEqual(daemon.wait(), 0)
