# The command line, and what it leaves running.
import os
import re
import subprocess
import unittest

from harness import PROGRAMS, ROOT, Daemon, read, run, wait_until, write

PROGRAM = f"{PROGRAMS}/marluserver"


class Command(unittest.TestCase):
    def test_refuses_what_it_does_not_know(self):
        self.assertEqual(run(PROGRAM), ("", f"Usage: {PROGRAM} start|stop\n", 1))
        self.assertEqual(run(f"{PROGRAM} stop"), ("", "Daemon is not running\n", 1))
        for word in ("START", "startx", "-v", "''"):
            self.assertEqual(run(f"{PROGRAM} {word}"), ("", "Invalid command\n", 1), word)

    def test_prints_the_version_also_at_the_start(self):
        version = re.search(r"VERSION ([\d.]+) ", read(f"{ROOT}/CMakeLists.txt"))[1]
        printed = run(f"{PROGRAM} --version")
        self.assertEqual((printed[0].split(" -")[0], printed[0][-1:], *printed[1:]), (f"marlu {version}", "\n", "", 0))
        self.assertEqual(run(f"{PROGRAM} --v start"), printed)
        with Daemon() as daemon:
            self.assertEqual(daemon.start, printed)

    def test_starts_once_and_with_its_own_configuration_only(self):
        daemon = self.enterContext(Daemon("", "./marluserver start --config /none.cfg"))
        wait_until(lambda: f" is used: {daemon.config_file}\n" in daemon.log())
        self.assertEqual(daemon.run("./marluserver start --conf"), ("", "Daemon is already running\n", 1))

    def test_signals_nobody_when_the_pid_file_holds_no_process(self):
        with subprocess.Popen(["sleep", "60"]) as bystander:
            for text in ("", "garbage", "0", "-1", "99999999999999999999"):
                write("/run/marluserver.pid", text)
                self.assertEqual(run(f"{PROGRAM} stop"), ("", "", 0), text)
                self.assertIsNone(bystander.poll(), text)
            bystander.kill()
        os.remove("/run/marluserver.pid")


class Start(unittest.TestCase):
    def test_detaches_the_daemon(self):
        daemon = self.enterContext(Daemon())
        process = f"/proc/{daemon.pid}"
        self.assertEqual(os.readlink(f"{process}/cwd"), "/")
        self.assertEqual({os.readlink(f"{process}/fd/{number}") for number in (0, 1, 2)}, {"/dev/null"})
        self.assertNotIn(os.getsid(daemon.pid), (os.getsid(0), daemon.pid), "a session leader could get a terminal")
        self.assertEqual(read(daemon.pid_file), f"{daemon.pid}\n")
        self.assertEqual(os.stat(daemon.pid_file).st_mode & 0o7777, 0o666)
        self.assertEqual(daemon.run("./marluserver stop"), ("", "", 0))
        self.assertEqual(daemon.wait(), 0)

    def test_goes_on_without_a_pid_file(self):
        daemon = self.enterContext(Daemon("", "ln -s /none/none /run/marluserver.pid && ./marluserver start"))
        self.assertNotEqual(daemon.answer("GET /"), "")

    def test_ends_by_itself_when_the_configuration_is_wrong(self):
        # A log takes the reason when it is open and its server is known to start.
        for settings, reason in (("nonsense", ""), ("start_http=no", ""), ("port=x", "Value is not a number. [port]")):
            with Daemon(settings) as daemon:
                self.assertEqual(daemon.wait(), 0, settings)
                log = (f"The configuration file located at the following path is used: {daemon.config_file}\n"
                       f"\nError reading configuration: \n{reason} \nShutting down server...\n")
                path = f"{daemon.directory}/http.log"
                self.assertEqual(daemon.messages() if os.path.exists(path) else "", log if reason else "", settings)
