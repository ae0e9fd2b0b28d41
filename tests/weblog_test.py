"""What marlu-log makes of a daemon's own logs, and of one that grows."""
import contextlib
import os
import re
import socket
import subprocess
import unittest

from harness import PROGRAMS, WORK, is_listening, read, receive_all, run, wait_until, write
from https_test import TlsDaemon, setUpModule


def entries(target):
    head = "[22.11.2026 22:27:31.895] (7) [8] 10.0.0.1"
    return f"{head} GET /{target} HTTP/1.1\r\n\r\n\n\n{head} PATH = /{target}\n\n\n"


class Logs(unittest.TestCase):
    def test_have_the_status_and_size_of_each_answer(self):
        with TlsDaemon("start_http=y\n") as daemon:
            write(f"{daemon.site}/docs/a.html", "some text")
            write(f"{daemon.site}/docs/a.html?b", "a query")
            write(f"{daemon.site}/empty", "")
            os.symlink("/etc/passwd", f"{daemon.site}/out")
            wait_until(lambda: is_listening(daemon.https_port))
            for server in daemon.sockets():
                with contextlib.suppress(OSError):  # so that no request comes after the one read
                    server.setsockopt(socket.IPPROTO_TCP, socket.TCP_DEFER_ACCEPT, 60)
            for name, ask in (("http.log", daemon.send), ("https.log", daemon.ask)):
                expected = ""
                for line in ("GET / ", "GET /docs/a.html ", "GET /none/..//docs/./a.html ", "GET /docs/a.html?b ",
                             "GET /docs ", "GET /empty ", "GET /none ", "GET /out ", "GET /../x ", "HEAD / "):
                    answer = receive_all(ask(f"{line}HTTP/1.1\r\nReferer: a\r\n\r\n")) or "HTTP/1.1 404 silence"
                    head, _, body = answer.partition("\r\n\r\n")
                    expected += f'127.0.0.1 "{line}HTTP/1.1" {head.split()[1]} {len(body)} "a" "-"\n'
                wait_until(lambda: "ERROR: HTTP/1.1 405" in daemon.log(name))
                command = f"{PROGRAMS}/marlu-log --site {daemon.site}/../site - <{daemon.directory}/{name}"
                lines, errors, status = run(command)
                self.assertEqual((re.sub(r" - - \[[^]]*\]", "", lines), errors, status), (expected, "", 0))

    def test_are_followed_when_they_are_emptied_and_replaced(self):
        write(f"{WORK}/log", entries(0) + entries(1)[:50])
        write(f"{WORK}/rest", entries(1)[50:] + entries(2) + entries("x")[:50])
        for number in (3, 4, 5):
            write(f"{WORK}/{number}", entries(number))
        write(f"{WORK}/lines", "")
        with open(f"{WORK}/lines", "w") as lines:
            program = subprocess.Popen([f"{PROGRAMS}/marlu-log", "--follow", f"{WORK}/log"], stdout=lines)
        self.addCleanup(program.kill)
        for command, targets in (("true", "0"), ("cat rest >>log", "012"), ("cp log copy && cp 3 log", "0123"),
                                 ("mv log old && touch log && cat 4 >>old", "01234"), ("cat 5 >>log", "012345")):
            self.assertEqual(run(command, cwd=WORK)[1:], ("", 0))
            wait_until(lambda: "".join(re.findall("GET /(.)", read(f"{WORK}/lines"))) == targets)
