"""What marlu-log makes of a daemon's own logs, and of one that grows."""
import contextlib
import os
import re
import subprocess
import unittest

from harness import PROGRAMS, TLS, WORK, Daemon, connect, handshake, make_certificates, receive_all, run, tls_clients
from harness import wait_until, write

LOG = f"{WORK}/growing.log"


def entries(target):
    head = "[22.11.2026 22:27:31.895] (7) [8] 10.0.0.1"
    return f"{head} GET {target} HTTP/1.1\r\n\r\n\n\n{head} PATH = {target}\n\n\n"


@contextlib.contextmanager
def followed():
    program = subprocess.Popen([f"{PROGRAMS}/marlu-log", "--follow", LOG], stdout=subprocess.PIPE)
    os.set_blocking(program.stdout.fileno(), False)
    with program:
        yield program
        program.terminate()


class Logs(unittest.TestCase):
    def test_have_the_status_and_size_of_each_answer(self):
        make_certificates()
        settings = (f"start_https=y\ncipher_list=ALL\ncrt_file={TLS}/good.crt\nkey_file={TLS}/good.key\n"
                    "use_log_https=y\n")
        with Daemon(settings) as daemon:
            write(f"{daemon.site}/docs/a.html", "some text")
            write(f"{daemon.site}/docs/a.html?b", "a query")
            write(f"{daemon.site}/empty", "")
            os.symlink("/etc/passwd", f"{daemon.site}/out")
            targets = ["/", "/docs/a.html", "/none/..//docs/./a.html", "/docs/a.html?b", "/docs", "/empty", "/none",
                       "/out", "/../x"]
            requests = [f"GET {target} HTTP/1.1\r\nReferer: {target}\r\n\r\n" for target in targets] + ["HEAD / \x80\n"]
            wait_until(lambda: "Server started" in daemon.log("https.log"))
            clients = tls_clients(f"{TLS}/good.crt")
            for name, https in (("http.log", False), ("https.log", True)):
                expected = ""
                for request in requests:
                    answer = ""
                    while f" {request}" not in daemon.log(name):  # otherwise the request came after the one read
                        client = handshake(clients, connect(daemon.https_port)) if https else connect(daemon.port)
                        client.sendall(request.encode("latin-1"))
                        answer = receive_all(client)
                    head, _, body = (answer or "HTTP/1.1 404 nothing was answered").partition("\r\n\r\n")
                    line = request.splitlines()[0].replace("\x80", r"\x80")
                    referrer = re.search("Referer: (.*)\r|$", request)[1] or "-"
                    expected += f'127.0.0.1 "{line}" {head.split()[1]} {len(body)} "{referrer}" "-"\n'
                command = f"{PROGRAMS}/marlu-log --site {daemon.site}/../site - <{daemon.directory}/{name}"
                lines, errors, status = run(command)
                # A request that was in the log a moment later than expected was sent twice.
                lines = re.sub(r"(?m)^(.*\n)\1+", r"\1", re.sub(r" - - \[[^]]*\]", "", lines))
                self.assertEqual((lines, errors, status), (expected, "", 0))

    def test_are_followed_when_they_are_emptied_and_replaced(self):
        def change(command):
            self.assertEqual(run(command, cwd=WORK)[1:], ("", 0))

        write(LOG, entries("/0") + entries("/1")[:50])
        write(f"{WORK}/rest", entries("/1")[50:] + entries("/2") + entries("/x")[:50])
        write(f"{WORK}/emptied", entries("/3"))
        write(f"{WORK}/moved", entries("/4"))
        write(f"{WORK}/new", entries("/5"))
        with followed() as program:
            output = ""

            def has(*targets):
                nonlocal output
                output += (program.stdout.read() or b"").decode()
                return re.findall("GET (/.)", output) == list(targets)

            wait_until(lambda: has("/0"))
            change(f"cat rest >>{LOG}")
            wait_until(lambda: has("/0", "/1", "/2"))
            change(f"cp {LOG} copy && cp emptied {LOG}")
            wait_until(lambda: has("/0", "/1", "/2", "/3"))
            change(f"mv {LOG} old && touch {LOG} && cat moved >>old")
            wait_until(lambda: has("/0", "/1", "/2", "/3", "/4"))
            change(f"cat new >>{LOG}")
            wait_until(lambda: has("/0", "/1", "/2", "/3", "/4", "/5"))
