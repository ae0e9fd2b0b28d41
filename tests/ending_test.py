# How the daemon ends. That no pid file is left is looked at whenever a Daemon goes out of its context.
import contextlib
import os
import signal
import unittest
from signal import SIGABRT, SIGBUS, SIGFPE, SIGINT, SIGQUIT, SIGSEGV, SIGTERM

from harness import LARGE, PROGRAMS, WORK, Daemon, fill, is_listening, read, receive_all, wait_until, write


class Signals(unittest.TestCase):
    def test_end_the_daemon_with_their_status_and_text(self):
        cases = [
            ((SIGINT, SIGQUIT, SIGTERM), 0, "Shutting down server..."),
            ((SIGABRT,), 1, "ERROR: Abort signal. Shutting down server."),
            ((SIGFPE,), 1, "ERROR: Arithmetic error occurred. Shutting down server."),
            ((SIGSEGV, SIGBUS), 1, "ERROR: Memory access error. Shutting down server."),
        ]
        for number, status, line in [(number, status, line) for numbers, status, line in cases for number in numbers]:
            with Daemon() as daemon:
                write(f"{daemon.site}/index.html", LARGE)
                with daemon.hold_worker("GET /"):
                    self.assertEqual(daemon.end(number), status, number)
                self.assertTrue(daemon.messages().endswith(f"\n{line}\n"), daemon.messages())

    def test_of_every_other_kind_change_nothing(self):
        daemon = self.enterContext(Daemon())
        for number in set(range(1, 32)) - {SIGINT, SIGQUIT, SIGABRT, SIGBUS, SIGFPE, signal.SIGKILL, SIGSEGV, SIGTERM,
                                           signal.SIGSTOP}:
            daemon.kill(number)
            self.assertTrue(daemon.answer("GET /").endswith("hello"), number)

    def test_that_come_second_do_not_change_the_end(self):
        for first, second, status in ((SIGTERM, SIGABRT, 0), (SIGINT, SIGSEGV, 0), (SIGABRT, SIGTERM, 1),
                                      (SIGFPE, SIGQUIT, 1)):
            # The log is a full pipe that nobody reads: the end waits for its writer, in vain and not for long.
            name = f"{WORK}/pipe{second}"
            os.mkfifo(name)
            pipe = os.open(name, os.O_RDWR | os.O_NONBLOCK)
            with Daemon(f"log_file={name}\n") as daemon:
                fill(pipe)
                daemon.kill(first)
                wait_until(lambda: not is_listening(daemon.port) or daemon.has_ended())
                daemon.kill(second)
                self.assertEqual(daemon.end(first), status, f"{first} {second}")
            os.close(pipe)


class Stop(unittest.TestCase):
    def test_works_as_soon_as_there_is_a_pid_file(self):
        # The shell's own commands are quicker than the daemon's next steps.
        stop = "until read pid </run/marluserver.pid && kill $pid; do :; done"
        for _ in range(30):
            with Daemon("", f"./marluserver start && {stop}") as daemon:
                # Under tsan, and only there, one such signal in some thousands never reaches the handler.
                if daemon.is_sanitized:
                    daemon.end()
                self.assertEqual(daemon.wait(), 0)

    def test_works_while_a_pipe_holds_up_the_start(self):
        os.mkfifo(f"{WORK}/unread")
        daemon = self.enterContext(Daemon(f"log_file={WORK}/unread\n", at_once=True))
        wait_until(lambda: read(f"/proc/{daemon.pid}/syscall").startswith("257 "))  # it waits in openat
        self.assertEqual(daemon.end(), 0)

    def test_that_hangs_is_cut_short(self):
        daemon = self.enterContext(Daemon("", f"LD_PRELOAD={PROGRAMS}/tests/libhang_at_exit.so ./marluserver start"))
        daemon.kill(SIGTERM)
        wait_until(lambda: not os.path.exists(daemon.pid_file))
        write(daemon.pid_file, "a new daemon's")
        self.assertEqual(daemon.end(), 0)
        os.remove(daemon.pid_file)


class Failures(unittest.TestCase):
    def test_of_a_request_abort_the_daemon(self):
        for request in ("GET\r\n", "GET /" + 256 * "n", "GET /loop"):
            with Daemon() as daemon:
                os.symlink("loop", f"{daemon.site}/loop")
                with contextlib.suppress(ConnectionError):  # comes when the daemon is gone
                    wait_until(lambda: daemon.has_ended() or receive_all(daemon.send(request)))
                self.assertEqual(daemon.wait(), 1, request)
                self.assertTrue(daemon.messages().endswith("\n\n\nERROR: Abort signal. Shutting down server.\n"), request)

    @unittest.skipIf(Daemon.is_sanitized, "this leaves no room for a sanitizer")
    def test_to_start_a_thread_abort_the_daemon(self):
        # The stack that a thread gets by default would not fit into the address space.
        command = "ulimit -s 70000000000 && ./marluserver start"
        for settings, status in (("use_log=n\n", 1), ("", 0)):  # a log without its writer is a refused configuration
            with Daemon(settings, command) as daemon:
                self.assertEqual(daemon.wait(), status)
