# The command line, and how the daemon starts and ends. That no pid file is left is looked at whenever a Daemon goes out
# of its context.
import contextlib
import os
import re
import unittest
from signal import SIGABRT, SIGBUS, SIGFPE, SIGINT, SIGKILL, SIGQUIT, SIGSEGV, SIGSTOP, SIGTERM

from harness import HELLO, PROGRAMS, ROOT, SHUTDOWN_LINE, TLS, WORK, Daemon, TlsDaemon, is_listening, make_full_pipe
from harness import read, receive_all, run, setUpModule, wait_until, without, write

PROGRAM = f"{PROGRAMS}/marluserver"


class Process(unittest.TestCase):
    def test_the_command_refuses_what_it_does_not_know(self):
        self.assertEqual(run(PROGRAM), ("", f"Usage: {PROGRAM} start|stop\n", 1))
        self.assertEqual(run(f"{PROGRAM} stop"), ("", "Daemon is not running\n", 1))
        for word in ("START", "startx", "-v", "''"):
            self.assertEqual(run(f"{PROGRAM} {word}"), ("", "Invalid command\n", 1), word)

    def test_start_and_stop_run_one_daemon_with_its_own_configuration(self):
        version = re.search(r"VERSION ([\d.]+) ", read(f"{ROOT}/CMakeLists.txt"))[1]
        printed = run(f"{PROGRAM} --version")
        self.assertEqual((printed[0].split(" -")[0], printed[0][-1:], *printed[1:]), (f"marlu {version}", "\n", "", 0))
        self.assertEqual(run(f"{PROGRAM} --v start"), printed)
        daemon = self.enterContext(Daemon("", "./marluserver start --config /none.cfg"))
        self.assertEqual(daemon.start, printed)
        process = f"/proc/{daemon.pid}"
        self.assertEqual(os.readlink(f"{process}/cwd"), "/")
        self.assertEqual({os.readlink(f"{process}/fd/{number}") for number in (0, 1, 2)}, {"/dev/null"})
        self.assertNotIn(os.getsid(daemon.pid), (os.getsid(0), daemon.pid), "a session leader could get a terminal")
        self.assertEqual(read(daemon.pid_file), f"{daemon.pid}\n")
        self.assertEqual(os.stat(daemon.pid_file).st_mode & 0o7777, 0o666)
        self.assertEqual(daemon.run("./marluserver start"), ("", "Daemon is already running\n", 1))
        self.assertEqual(daemon.run("./marluserver stop"), ("", "", 0))
        self.assertEqual(daemon.wait(), 0)
        self.assertIn(f" is used: {daemon.config_file}\n", daemon.messages())

    def test_stop_signals_nobody_when_the_pid_file_holds_no_process(self):
        for text in ("", "garbage", "0", "-1", "99999999999999999999"):
            write("/run/marluserver.pid", text)
            self.assertEqual(run(f"{PROGRAM} stop"), ("", "", 0), text)  # a signal would end this shell, too
        os.remove("/run/marluserver.pid")

    def test_a_refused_configuration_ends_the_daemon_also_without_a_pid_file(self):
        daemon = self.enterContext(Daemon("port=x", "ln -s /none/none /run/marluserver.pid && ./marluserver start"))
        self.assertEqual(daemon.wait(), 0)
        self.assertEqual(daemon.messages(), f"The configuration file located at the following path is used: "
                         f"{daemon.config_file}\n\nError reading configuration: \nValue is not a number. [port] \n"
                         f"{SHUTDOWN_LINE}")

    def test_a_server_that_cannot_be_set_up_ends_the_daemon(self):
        cases = [  # settings, the last line in the log, the command
            (f"pem_file={TLS}/weak.pem", "Failed to load Certificate from PEM"),
            (f"chain_file={TLS}/good.key", "Failed to load certificate bundle (CA chain)"),
            ("", "Failed to create RAW socket", without("net_raw")),
            ("port_https=443", "Failed to bind HTTPS socket", without("net_bind_service")),
            ("start_http=y\nport=80", "Serving files from: {site}", without("net_bind_service")),
        ]
        daemons = [self.enterContext(TlsDaemon(settings, *command, at_once=True)) for settings, _, *command in cases]
        for daemon, (_, line, *_) in zip(daemons, cases):
            self.assertEqual(daemon.wait(), 0, line)
            self.assertTrue(daemon.messages().endswith(f"\n{line.format(site=daemon.site)}\n{SHUTDOWN_LINE}"), line)
        self.assertTrue(daemon.messages("http.log").endswith(f"\nBind failed\n{SHUTDOWN_LINE}"))

    def test_the_first_signal_decides_about_status_and_text(self):
        ending = {SIGINT, SIGQUIT, SIGABRT, SIGBUS, SIGFPE, SIGKILL, SIGSEGV, SIGTERM, SIGSTOP}
        cases = [  # the first signal, the second, the status, the last line
            (SIGINT, SIGSEGV, 0, "Shutting down server..."),
            (SIGQUIT, SIGFPE, 0, "Shutting down server..."),
            (SIGTERM, SIGABRT, 0, "Shutting down server..."),
            (SIGABRT, SIGTERM, 1, "ERROR: Abort signal. Shutting down server."),
            (SIGFPE, SIGQUIT, 1, "ERROR: Arithmetic error occurred. Shutting down server."),
            (SIGSEGV, SIGINT, 1, "ERROR: Memory access error. Shutting down server."),
            (SIGBUS, SIGTERM, 1, "ERROR: Memory access error. Shutting down server."),
        ]
        for first, second, status, line in cases:
            # The end waits for the writer of the other log, in vain and not for long.
            make_full_pipe(f"{WORK}/{first}")
            with TlsDaemon(f"start_http=y\nlog_file_https={WORK}/{first}\n") as daemon:
                for number in set(range(1, 32)) - ending:
                    daemon.kill(number)
                self.assertEqual(receive_all(daemon.hold_worker("GET /")), HELLO)
                daemon.kill(first)
                wait_until(lambda: not is_listening(daemon.port) or daemon.has_ended())
                daemon.kill(second)
                self.assertEqual(daemon.end(first), status, first)
                self.assertTrue(daemon.messages("http.log").endswith(f"\n{line}\n"), first)

    def test_a_stop_works_as_soon_as_there_is_a_pid_file(self):
        # The shell's own commands are quicker than the daemon's next steps.
        stop = "until read pid </run/marluserver.pid && kill $pid; do :; done"
        for _ in range(30):
            with Daemon("", f"./marluserver start && {stop}") as daemon:
                # Under tsan, and only there, one such signal in some thousands never reaches the handler.
                if daemon.is_sanitized:
                    daemon.end()
                self.assertEqual(daemon.wait(), 0)

    def test_a_stop_works_while_a_pipe_holds_up_the_start(self):
        os.mkfifo(f"{WORK}/unread")
        daemon = self.enterContext(Daemon(f"log_file={WORK}/unread\n", at_once=True))
        wait_until(lambda: read(f"/proc/{daemon.pid}/syscall").startswith("257 "))  # it waits in openat
        self.assertEqual(daemon.end(), 0)

    def test_a_stop_that_hangs_is_cut_short(self):
        daemon = self.enterContext(Daemon("", f"LD_PRELOAD={PROGRAMS}/tests/libhang_at_exit.so ./marluserver start"))
        daemon.kill(SIGTERM)
        wait_until(lambda: not os.path.exists(daemon.pid_file))
        write(daemon.pid_file, "a new daemon's")
        self.assertEqual(daemon.end(), 0)
        os.remove(daemon.pid_file)

    def test_a_request_without_a_possible_name_aborts_the_daemon(self):
        for request in ("GET\r\n", "GET /" + 256 * "n", "GET /loop"):
            with Daemon() as daemon:
                os.symlink("loop", f"{daemon.site}/loop")
                with contextlib.suppress(ConnectionError):  # comes when the daemon is gone
                    wait_until(lambda: daemon.has_ended() or receive_all(daemon.send(request)))
                self.assertEqual(daemon.wait(), 1, request)
                self.assertTrue(daemon.messages().endswith("\nERROR: Abort signal. Shutting down server.\n"), request)
