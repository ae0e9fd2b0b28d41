"""Machines, networks between them and time limits, all of which end with the process that made them.

A machine is a set of namespaces (network, mounts, processes, name) that shares this machine's programs. A network is a bridge
in the network namespace of the caller, who has to be in one of its own.
"""
import os
import subprocess
import time

PRIVATE = ("/run", "/srv", "/opt", "/mnt", "/var/log")  # what each machine has for itself, empty at first


def run(*command, **options):
    """Runs a command to its end and returns what it printed. One that fails ends the test with what it said."""
    done = subprocess.run(command, text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, **options)
    if done.returncode != 0:
        raise RuntimeError(f"{' '.join(command)}: {done.stdout}")
    return done.stdout


def wait_for(condition, what, seconds=30):
    limit = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > limit:
            raise TimeoutError(f"not within {seconds} s: {what}")
        time.sleep(0.02)


def read(path):
    with open(path, errors="replace") as file:
        return file.read()


def make_network(name):
    # No ageing surprises and no waiting: the bridge forwards from its first moment on.
    run("ip", "link", "add", name, "type", "bridge", "forward_delay", "0")
    run("ip", "link", "set", name, "up")


class Machine:
    def __init__(self, name, log_directory):
        self.name = name
        self.log_directory = log_directory
        self.switched_on = False
        self.switch_on()

    def switch_on(self):
        # The first process ignores the ends of its children, so that the kernel takes them away.
        self.holder = subprocess.Popen(["unshare", "--net", "--mount", "--pid", "--uts", "--fork", "--mount-proc", "--kill-child",
                                        "env", "--ignore-signal=CHLD", "sleep", "infinity"])
        children = f"/proc/{self.holder.pid}/task/{self.holder.pid}/children"

        def is_up():
            with open(children) as file:
                self.pid = file.read().strip()
            return self.pid and os.path.basename(os.readlink(f"/proc/{self.pid}/exe")) == "sleep"
        wait_for(is_up, f"{self.name} switched on")
        self.links = []
        self.run("hostname", self.name)
        for directory in PRIVATE:
            self.run("mount", "-t", "tmpfs", "-o", "mode=755", "tmpfs", directory)
        self.run("ip", "link", "set", "lo", "up")
        self.switched_on = True

    def switch_off(self):
        """As if the power failed: nobody gets a word. The network that was joined last is cut first."""
        for link in reversed(self.links):
            run("ip", "link", "delete", link)
        self.holder.kill()
        self.holder.wait()
        self.switched_on = False

    def command(self, *command):
        return ["nsenter", "-t", self.pid, "-n", "-m", "-p", "-u", "--", *command]

    def run(self, *command, **options):
        return run(*self.command(*command), **options)

    def start(self, log, *command, **options):
        """Starts a program that goes on. What it prints is added to a log outside of the machine."""
        with open(os.path.join(self.log_directory, log), "ab") as output:
            return subprocess.Popen(self.command(*command), stdin=subprocess.DEVNULL, stdout=output, stderr=output, **options)

    def connect(self, network, *addresses):
        """Adds an interface, named as the network, with the addresses, to the network."""
        here = f"{self.name}.{network}"
        self.links.append(here)
        run("ip", "link", "add", here, "type", "veth", "peer", "name", network, "netns", self.pid)
        run("ip", "link", "set", here, "master", network, "up")
        for address in addresses:
            self.run("ip", "address", "add", address, "dev", network)
        self.run("ip", "link", "set", network, "up")

    def set_link(self, network, state):
        run("ip", "link", "set", f"{self.name}.{network}", state)

    def set_kernel(self, name, value):
        self.run("sh", "-c", f"echo {value} >/proc/sys/{name}")

    def copy(self, source, path):
        """Puts a file or directory of this machine there."""
        self.run("mkdir", "-p", os.path.dirname(path))
        self.run("cp", "-r", "--no-target-directory", source, path)  # the file systems before the machine's own are shared

    def write(self, path, text):
        self.run("mkdir", "-p", os.path.dirname(path))
        self.run("sh", "-c", 'cat >"$1"', "sh", path, input=text)
