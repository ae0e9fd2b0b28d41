#!/usr/bin/python3
"""Three marlus behind two balancers: visitors compare every answer while one thing after the other fails.

    visitors (this namespace) --- bridge "outside" --- first, second --- bridge "inside" --- one, two, three

A machine is a set of namespaces that shares this machine's programs. deploy/test starts this in namespaces of its own,
with which everything made here ends.
"""
import collections
import contextlib
import glob
import os
import random
import re
import shutil
import socket
import ssl
import subprocess
import sys
import threading
import time

import httpx

DEPLOY = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))
ROOT = os.path.dirname(DEPLOY)
PROGRAMS = os.path.join(ROOT, "build/deploy")
WORK = "/mnt"  # a tmpfs, which every machine sees
ADDRESS = "192.0.2.10"  # the one that moves
BALANCERS = {"first": "1", "second": "2"}  # the last part of their addresses
MARLUS = {"one": "10.77.1.11", "two": "10.77.1.12", "three": "10.77.1.13"}
VISITORS = [f"192.0.2.{number}" for number in range(101, 117)]
GREEDY_VISITOR = "192.0.2.100"
ANSWERS = 20000
CONFIGURATION = """website_path=/srv/www
public_site=yes
start_http=yes
trusted_proxy=10.77.1.1,10.77.1.2
access_log=/run/access.log
use_log_http=yes
log_file_http=/run/marluserver.log
"""
# Stand for what reaches and restarts a machine: deploy/publish and deploy/restart find these first. Machines are some
# way off, so that visitors come while one of them has the new site and another does not.
COMMANDS = {
    "ssh": f"""pid=$(cat {WORK}/$1) && shift
sleep 1
exec nsenter -t $pid -n -m -p -- sh -c "$*"
""",
    "systemctl": """pid=$(cat /run/marluserver.pid) && kill $pid
until [ -e /run/marluserver.pid ] && [ $(cat /run/marluserver.pid) != $pid ]; do sleep 0.1; done
"""}


def run(*command, **options):
    """Runs a command to its end and returns what it printed. One that fails ends the test with what it said."""
    done = subprocess.run(command, text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, **options)
    if done.returncode != 0:
        raise RuntimeError(f"{' '.join(command)}: {done.stdout}")
    return done.stdout


def wait_for(condition, what, seconds=120):
    limit = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > limit:
            raise TimeoutError(f"not within {seconds} s: {what}")
        time.sleep(0.05)


def read(path):
    with open(path, "rb") as file:
        return file.read()


def write(path, text):
    with open(path, "w") as file:
        file.write(text)


class Machine:
    def __init__(self, name):
        self.name = name
        # The first process ignores the ends of its children, so that the kernel removes them.
        self.holder = subprocess.Popen(["unshare", "--net", "--mount", "--pid", "--fork", "--mount-proc",
                                        "--kill-child", "env", "--ignore-signal=CHLD", "sleep", "infinity"])

        def has_first_process():
            self.pid = read(f"/proc/{self.holder.pid}/task/{self.holder.pid}/children").decode().strip()
            return self.pid and os.readlink(f"/proc/{self.pid}/exe").endswith("/sleep")
        wait_for(has_first_process, name)
        write(f"{WORK}/{name}", self.pid)
        for directory in ("/run", "/srv", "/opt", "/etc/haproxy", "/etc/keepalived"):
            self.run("mount", "-t", "tmpfs", "-o", "mode=755", "tmpfs", directory)
        self.run("ip", "link", "set", "lo", "up")

    def connect(self, network, address):
        here = f"{self.name}.{network}"
        run("ip", "link", "add", here, "type", "veth", "peer", "name", network, "netns", self.pid)
        run("ip", "link", "set", here, "master", network, "up")
        self.run("ip", "address", "add", address + "/24", "dev", network)
        self.run("ip", "link", "set", network, "up")

    def power_off(self):
        """Nobody gets a word: the links end first."""
        for network in ("outside", "inside"):
            run("ip", "link", "delete", f"{self.name}.{network}")
        self.holder.kill()
        self.holder.wait()

    def command(self, *command):
        return ["nsenter", "-t", self.pid, "-n", "-m", "-p", "--", *command]

    def run(self, *command, **options):
        return run(*self.command(*command), **options)

    def start(self, *command):
        """Starts a program that goes on and adds what it prints to the machine's log."""
        with open(f"{WORK}/{self.name}.log", "ab") as log:
            subprocess.Popen(self.command(*command), stdin=subprocess.DEVNULL, stdout=log, stderr=log)


class Cluster:
    def __init__(self):
        for network in ("inside", "outside"):
            run("ip", "link", "add", network, "type", "bridge", "forward_delay", "0")
            run("ip", "link", "set", network, "up")
        for address in (GREEDY_VISITOR, *VISITORS):
            run("ip", "address", "add", address + "/24", "dev", "outside")
        run("openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-days", "2",
            "-subj", "/CN=site", "-addext", "subjectAltName=IP:" + ADDRESS, "-keyout", f"{WORK}/key.pem",
            "-out", f"{WORK}/certificate.pem")
        self.marlus = {name: self.make_marlu(name, address) for name, address in MARLUS.items()}
        self.balancers = {name: self.make_balancer(name, number) for name, number in BALANCERS.items()}
        self.wait_until(*MARLUS, state="UP")
        wait_for(lambda: len(self.holders()) == 1, "one balancer with the address")

    def make_marlu(self, name, address):
        machine = Machine(name)
        machine.connect("inside", address)
        programs = f"{PROGRAMS}/marluserver {PROGRAMS}/marlu-check {DEPLOY}/container/first_process"
        machine.run("sh", "-c", f"""mkdir -p /opt/marlu/marlu && cp {programs} /opt/marlu &&
            cp -a {WORK}/site/1 /srv/www && echo alive >/srv/www/alive.txt &&
            cat >/opt/marlu/marlu/marluserver.cfg""", input=CONFIGURATION)
        # Does what a service manager does: the daemon comes back a second after its end.
        machine.start("sh", "-c", "while :; do /opt/marlu/first_process; sleep 1; done")
        return machine

    def make_balancer(self, name, number):
        machine = Machine(name)
        machine.connect("inside", "10.77.1." + number)
        machine.connect("outside", "192.0.2." + number)
        machine.run("sh", "-c", f"""mkdir /run/haproxy && cp {DEPLOY}/haproxy.cfg /etc/haproxy &&
            cp {DEPLOY}/keepalived.conf /etc/keepalived &&
            cat {WORK}/certificate.pem {WORK}/key.pem >/etc/haproxy/site.pem""")
        machine.start("haproxy", "-W", "-f", "/etc/haproxy/haproxy.cfg")
        machine.start("keepalived", "--dont-fork", "--log-console")
        return machine

    def wait_until(self, *names, state):
        """Until every balancer sees the marlus in this state."""
        for balancer in self.balancers.values():
            def is_seen():
                statistics = balancer.run("sh", "-c", "curl -s 'http://127.0.0.1:8404/;csv' || :")
                return all(re.search(f"^marlus,{name},.*,{state},", statistics, re.M) for name in names)
            wait_for(is_seen, f"{names} {state} in {balancer.name}")

    def holders(self):
        return [balancer for balancer in self.balancers.values() if f" {ADDRESS}/" in balancer.run("ip", "address")]

    def daemon(self, name):
        return self.marlus[name].run("sh", "-c", "cat /run/marluserver.pid || :").strip()


# What may be answered: for each version of the site the bytes of each path.
site = {}


def make_site(version):
    """The bundled site and a gallery, whose pictures have other names and bytes in each version."""
    top = f"{WORK}/site/{version}"
    shutil.copytree(f"{ROOT}/site", top)
    os.mkdir(f"{top}/gallery-{version}")
    names = []
    for source in glob.glob(f"{ROOT}/site/img/*.*g"):
        names.append(f"gallery-{version}/{os.path.basename(source)}")
        with open(f"{top}/{names[-1]}", "wb") as picture:
            picture.write(read(source) + b"%d" % version)
    write(f"{top}/gallery.html", "\n".join([f"gallery {version}", *names]))
    run("touch", "--date", f"@{version}", f"{top}/gallery.html")  # rsync tells files apart by size and second
    run("gzip", "--keep", f"{top}/gallery.html")
    files = [path for path in glob.glob(f"{top}/**", recursive=True) if os.path.isfile(path)]
    site[version] = {path[len(top):]: read(path) for path in files if not path.endswith("gallery.html.gz")}


class Load:
    """What the visitors have in common. A stage is what goes on while they ask."""

    def __init__(self):
        self.lock = threading.Lock()
        self.counts = collections.Counter()  # of (stage, verdict)
        self.faults = collections.Counter()  # of (stage, what was wrong)
        self.stage, self.versions, self.is_over = "nothing", {1}, False
        self.visitors = [Visitor(self, address, number % 2 == 0) for number, address in enumerate(VISITORS)]

    def note(self, verdict, fault):
        # The present stage: it begins when nothing is under way any more that met the previous event.
        with self.lock:
            self.counts[self.stage, verdict] += 1
            if fault:
                self.faults[self.stage, fault] += 1

    def total(self, verdict):
        with self.lock:
            return sum(number for (_, counted), number in self.counts.items() if counted == verdict)

    def wait_for_everybody(self):
        """Until each visitor has begun after now, and finished, a number of requests."""
        marks = [visitor.finished + 21 for visitor in self.visitors]
        wait_for(lambda: all(visitor.finished >= mark for visitor, mark in zip(self.visitors, marks)),
                 "every visitor goes on")


class Visitor(threading.Thread):
    """Asks for one file after the other on a kept connection, and compares every byte."""

    def __init__(self, load, address, is_http_2):
        super().__init__(daemon=True)
        self.load, self.address, self.is_http_2 = load, address, is_http_2
        self.tls = ssl.create_default_context(cafile=f"{WORK}/certificate.pem")
        self.finished = 0
        self.connect()

    def connect(self):
        transport = httpx.HTTPTransport(verify=self.tls, http1=not self.is_http_2, http2=self.is_http_2,
                                        local_address=self.address)
        self.client = httpx.Client(transport=transport, timeout=10)

    def run(self):
        paths = [path for path in site[1] if path in site[2]] + 5 * ["/gallery.html"]
        while not self.load.is_over:
            page = self.visit(random.choice(paths))
            for version, pages in site.items():
                if page == pages["/gallery.html"]:
                    for picture in page.decode().split("\n")[1:]:
                        self.visit("/" + picture, {version})

    def visit(self, path, versions=None):
        versions = versions or self.load.versions
        body, fault = self.ask(path, versions)
        verdict = "right"
        if fault and body is not None:
            verdict = "wrong"
        elif fault:
            time.sleep(1)
            self.connect()
            _, last_fault = self.ask(path, versions)
            verdict = "lost" if last_fault else "repeated"
            fault = f"{fault}, then {last_fault or 'right'}"
        self.load.note(verdict, fault)
        self.finished += 1
        time.sleep(0.02)  # far below the balancers' limit, however fast the machine is
        return body

    def ask(self, path, versions):
        """Returns the body, or None without a whole answer, and what is wrong."""
        try:
            answer = self.client.get(f"https://{ADDRESS}{path}")
        except (httpx.HTTPError, OSError) as error:
            return None, f"{type(error).__name__} {error}"
        if answer.status_code != 200:
            return answer.content, f"status {answer.status_code} for {path}"
        if answer.content not in [site[version].get(path) for version in versions | self.load.versions]:
            return answer.content, f"{len(answer.content)} other bytes for {path}"
        return answer.content, None


def kill_marlu(cluster, load):
    before = cluster.daemon("one")
    cluster.marlus["one"].run("kill", "-KILL", before)
    wait_for(lambda: cluster.daemon("one") not in ("", before), "one comes back")
    cluster.wait_until("one", state="UP")


def cut_link(cluster, load):
    run("ip", "link", "set", "three.inside", "down")
    cluster.wait_until("three", state="DOWN")
    run("ip", "link", "set", "three.inside", "up")
    cluster.wait_until("three", state="UP")


def restart_each(cluster, load):
    before = {name: cluster.daemon(name) for name in MARLUS}
    run(f"{DEPLOY}/restart", *MARLUS)
    if any(cluster.daemon(name) == before[name] for name in MARLUS):
        raise RuntimeError("a marlu was not restarted")


def publish(cluster, load):
    load.versions = {1, 2}
    run(f"{DEPLOY}/publish", f"{WORK}/site/2", "20", *MARLUS)
    load.versions = {2}
    for machine in cluster.marlus.values():
        machine.run("sh", "-c", "[ ! -e /srv/www/gallery-1 ] && [ -e /srv/www/alive.txt ]")
    tags = {re.search("ETag: .*", machine.run("curl", "-sI", "http://localhost/gallery.html"))[0]
            for machine in cluster.marlus.values()}
    if len(tags) != 1:
        raise RuntimeError(f"the validators differ: {tags}")


def take_too_much(cluster, load):
    def is_refused():
        with contextlib.ExitStack() as held:
            try:
                for _ in range(101):
                    last = held.enter_context(socket.create_connection((ADDRESS, 80), 10, (GREEDY_VISITOR, 0)))
                last.sendall(b"GET / HTTP/1.0\r\n\r\n")
                return not last.recv(100)
            except ConnectionError:
                return True
    wait_for(is_refused, "the limit of connections")
    wait_for(lambda: re.search("[1-9][0-9]* 4xx", run("h2load", "-n2000", "-c4", f"https://{ADDRESS}/style.css")),
             "the limit of requests")


def kill_balancer(cluster, load):
    dying, = cluster.holders()
    del cluster.balancers[dying.name]
    dying.power_off()
    wait_for(cluster.holders, "the address moves")


# What happens, and whether answers may be missing meanwhile that come at the first repetition.
EVENTS = (("a marlu is killed", kill_marlu, True), ("a machine's link is cut", cut_link, True),
          ("each marlu is restarted in turn", restart_each, False), ("the site is published anew", publish, False),
          ("one visitor takes too much", take_too_much, False), ("a balancer dies", kill_balancer, True))


def main():
    run("mount", "--make-rprivate", "/")
    run("mount", "-t", "tmpfs", "tmpfs", WORK)
    run("ip", "link", "set", "lo", "up")
    os.mkdir(f"{WORK}/bin")
    for name, script in COMMANDS.items():
        write(f"{WORK}/bin/{name}", "#!/bin/sh\nset -eu\n" + script)
        os.chmod(f"{WORK}/bin/{name}", 0o755)
    os.environ["PATH"] = f"{WORK}/bin:{os.environ['PATH']}"
    for version in (1, 2):
        make_site(version)
    cluster = Cluster()
    load = Load()
    for visitor in load.visitors:
        visitor.start()
    load.wait_for_everybody()
    for load.stage, happen, _ in EVENTS:
        print("==", load.stage, flush=True)
        happen(cluster, load)
        load.wait_for_everybody()
    wait_for(lambda: load.total("right") >= ANSWERS, "enough answers", 600)
    load.is_over = True
    for visitor in load.visitors:
        visitor.join()

    bad = load.total("wrong") + load.total("lost")
    print(f"{'':32} {'right':>7} {'wrong':>7} {'right at the first repetition':>30} {'lost':>5}")
    for stage, is_repetition_allowed in {"nothing": False, **{stage: allowed for stage, _, allowed in EVENTS}}.items():
        right, wrong, repeated, lost = (load.counts[stage, of] for of in ("right", "wrong", "repeated", "lost"))
        print(f"{stage:32} {right:7} {wrong:7} {repeated:30} {lost:5}")
        bad += 0 if is_repetition_allowed else repeated
    for (stage, fault), number in load.faults.items():
        print(f"{stage}: {number} times {fault}")
    logged = set()
    for machine in cluster.marlus.values():
        logged.update(re.findall(r"^(192\.\S+) ", machine.run("cat", "/run/access.log"), re.M))
    print("visitors in the access logs:", len(logged))
    sys.exit(bool(bad or logged != {GREEDY_VISITOR, *VISITORS}))


try:
    main()
except (OSError, RuntimeError) as error:
    for log in sorted(glob.glob(f"{WORK}/*.log")):
        print(f"-- {os.path.basename(log)}\n{read(log)[-1500:].decode(errors='replace')}")
    sys.exit(f"failed: {error}")
