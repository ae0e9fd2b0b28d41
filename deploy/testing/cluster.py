"""The network of docs/deployment.md: machines with marlu, two balancers, and visitors behind a router.

    visitors --- 198.51.100.0/24 --- router --- 192.0.2.0/24 --- first, second --- 10.77.1.0/24 --- one, two, three (four)
"""
import os
import re
import subprocess

from network import Machine, make_network, read, run, wait_for

DEPLOY = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))
ROOT = os.path.dirname(DEPLOY)
BUILD = os.path.join(ROOT, "build/deploy")
WORK = os.path.join(BUILD, "test")  # a tmpfs of the test, where the machines see it
ADDRESS = "192.0.2.10"  # the one that moves
NAME = "site.example"
MARLUS = {"one": "10.77.1.11", "two": "10.77.1.12", "three": "10.77.1.13", "four": "10.77.1.14"}
BALANCERS = {"first": (1, 64), "second": (2, 128)}
# What "systemctl reload haproxy" does.
RELOAD = "haproxy -c -q -f /etc/haproxy/haproxy.cfg && kill -USR2 $(cat /run/haproxy.pid)"
VISITORS = [f"198.51.100.{number}" for number in range(11, 27)]
MARLU_CONFIGURATION = """website_path=/srv/www
start_http=yes
port_http=80
use_log_http=yes
log_file_http=/run/marluserver.log
"""


class Cluster:
    def __init__(self, site, more_configuration):
        self.site, self.more_configuration = site, more_configuration
        self.machines = {}
        self.processes = []
        # What the machines mount stays theirs, and so does what others mount meanwhile.
        run("mount", "--make-rprivate", "/")
        run("ip", "link", "set", "lo", "up")
        os.mkdir(self.path("machines"))
        for network in ("inside", "outside", "far"):
            make_network(network)
        self.make_certificates()

    def path(self, *names):
        return os.path.join(WORK, *names)

    def add(self, name):
        machine = self.machines[name] = Machine(name, WORK)
        with open(self.path("machines", name), "w") as file:
            file.write(machine.pid)
        return machine

    def administer(self, script, *arguments, **environment):
        """Runs a script of deploy/cluster, for which testing/reach stands in for ssh."""
        run(os.path.join(DEPLOY, "cluster", script), *arguments, env={
            **os.environ, "SSH": DEPLOY + "/testing/reach", "RSYNC_RSH": DEPLOY + "/testing/reach",
            "MACHINES": self.path("machines"), **environment})

    def start(self, machine, log, *command):
        self.processes.append(machine.start(log, *command))

    # Certificates: an authority of the test's own

    def make_certificates(self):
        self.ca = self.path("ca.pem")
        run("openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-days", "2", "-subj",
            "/CN=test authority", "-keyout", self.path("ca.key"), "-out", self.ca, stdin=subprocess.DEVNULL)
        self.make_certificate(1)

    def make_certificate(self, serial):
        key, request, certificate = (self.path("site." + kind) for kind in ("key", "csr", "crt"))
        run("openssl", "req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-subj", "/CN=" + NAME, "-addext",
            "subjectAltName=DNS:" + NAME, "-keyout", key, "-out", request)
        run("openssl", "x509", "-req", "-in", request, "-CA", self.ca, "-CAkey", self.path("ca.key"), "-set_serial", str(serial),
            "-days", "2", "-copy_extensions", "copy", "-out", certificate)

    def join(self, end, other_end, delay):
        """Joins two machines by a cable on which packets take a time. An end is a machine, an interface and addresses."""
        ends = (end, other_end)
        names = [text for machine, interface, _ in ends for text in (machine.pid, interface)]
        self.processes.append(subprocess.Popen([os.path.join(BUILD, "wire"), *names, str(delay)]))
        for machine, interface, addresses in ends:
            wait_for(lambda: interface in machine.run("ip", "-brief", "link"), interface)
            for address in addresses:
                machine.run("ip", "address", "add", address, "dev", interface)
            # Long enough for a burst: the cable is to be slow, not to lose packets.
            machine.run("ip", "link", "set", interface, "txqueuelen", "10000", "up")

    # Machines with marlu

    def add_marlu(self, name):
        machine = self.add(name)
        machine.connect("inside", MARLUS[name] + "/24")
        for program in (BUILD + "/marluserver", BUILD + "/marlu-check", DEPLOY + "/container/first_process"):
            machine.copy(program, "/opt/marlu/" + os.path.basename(program))
        machine.write("/opt/marlu/marlu/marluserver.cfg", MARLU_CONFIGURATION + self.more_configuration)
        machine.copy(self.site, "/srv/www")
        machine.write("/srv/www/alive.txt", "alive\n")
        # Stands for what a service manager does: the daemon comes back two seconds after its end.
        self.start(machine, name + ".log", "sh", "-c", """
            while :; do
                /opt/marlu/first_process
                echo "ended with $?"
                sleep 2
            done""")
        return machine

    def marlu_process(self, name):
        """The daemon's number in its machine, None when it does not run."""
        done = subprocess.run(self.machines[name].command("pgrep", "-x", "marluserver"), text=True, stdout=subprocess.PIPE)
        return done.stdout.strip() or None

    def answers(self, name):
        return subprocess.run(self.machines[name].command("curl", "-sfo", "/dev/null", "-m", "1", "http://localhost/alive.txt"),
                              stdout=subprocess.DEVNULL).returncode == 0

    def wait_until_served(self, names=("one", "two", "three"), balancers=tuple(BALANCERS)):
        """Until each of the marlus answers, and each of the balancers knows."""
        for name in names:
            wait_for(lambda: self.answers(name), name + " answers")
        for balancer in balancers:
            command = self.machines[balancer].command("curl", "-s", "http://127.0.0.1:8404/;csv")

            def statistics():
                return subprocess.run(command, stdout=subprocess.PIPE, text=True).stdout  # empty while HAProxy starts
            for name in names:
                wait_for(lambda: re.search(f"^marlus,{name},.*,UP,", statistics(), re.M), f"{name} in {balancer}")

    # Balancers

    def add_balancer(self, name, delay=0):
        """delay: milliseconds that a packet takes from the balancer to a marlu, or back."""
        number, first_source = BALANCERS[name]
        machine = self.add(name)
        address = f"10.77.1.{number}/24"
        if delay:
            # A switch of its own at the other end of the cable.
            switch = self.add("switch")
            self.join((machine, "inside", [address]), (switch, "cable", []), delay)
            switch.run("ip", "link", "add", "switch", "type", "bridge", "forward_delay", "0")
            switch.connect("inside")
            for port in ("cable", "inside"):
                switch.run("ip", "link", "set", port, "master", "switch")
            switch.run("ip", "link", "set", "switch", "up")
        else:
            machine.connect("inside", address)
        machine.connect("outside", f"192.0.2.{number}/24")
        machine.run("ip", "route", "add", "default", "via", "192.0.2.254")
        machine.run(os.path.join(DEPLOY, "cluster/balancer_network"), "10.77.1", str(first_source))
        for directory in ("haproxy", "keepalived"):
            machine.run("mount", "-t", "tmpfs", "-o", "mode=755", "tmpfs", "/etc/" + directory)
        machine.copy(os.path.join(DEPLOY, "haproxy"), "/etc/haproxy")
        if self.more_configuration:  # a public site
            machine.run("sed", "-i", "s/mul(1200)/mul(5000)/", "/etc/haproxy/haproxy.cfg")
        machine.write("/etc/haproxy/site.pem", read(self.path("site.crt")) + read(self.path("site.key")))
        machine.copy(os.path.join(DEPLOY, "cluster/keepalived.conf"), "/etc/keepalived/keepalived.conf")
        machine.run("mkdir", "/run/haproxy")
        return machine

    def start_balancer(self, name):
        machine = self.machines[name]
        machine.run("haproxy", "-c", "-f", "/etc/haproxy/haproxy.cfg")
        machine.run("keepalived", "--config-test", "--config-id", name)
        self.start(machine, name + ".log", "haproxy", "-W", "-p", "/run/haproxy.pid", "-f", "/etc/haproxy/haproxy.cfg")
        self.start(machine, name + ".keepalived.log", "keepalived", "--dont-fork", "--log-console", "--config-id", name)

    def has_address(self, name):
        machine = self.machines[name]
        return machine.switched_on and ADDRESS + "/" in machine.run("ip", "-4", "address", "show", "dev", "outside")

    def holder(self):
        return [name for name in BALANCERS if name in self.machines and self.has_address(name)]

    # Visitors, and the router that is between them and the balancers

    def add_visitors(self, delay=0):
        """delay: milliseconds that a packet takes from a visitor to the router, or back."""
        router = self.add("router")
        router.connect("outside", "192.0.2.254/24")
        router.set_kernel("net/ipv4/ip_forward", 1)
        visitors = self.add("visitors")
        addresses = [address + "/24" for address in VISITORS]
        if delay:
            self.join((router, "far", ["198.51.100.254/24"]), (visitors, "far", addresses), delay)
        else:
            router.connect("far", "198.51.100.254/24")
            visitors.connect("far", *addresses)
        visitors.run("ip", "route", "add", "default", "via", "198.51.100.254")
        return visitors

    def curl(self, *arguments, **options):
        return self.machines["visitors"].run("curl", "--silent", "--show-error", "--max-time", "20", "--cacert", self.ca,
                                             "--resolve", f"{NAME}:443:{ADDRESS}", "--resolve", f"{NAME}:80:{ADDRESS}",
                                             *arguments, **options)


def start_cluster(more_configuration, site=os.path.join(ROOT, "site")):
    """Two balancers and visitors, as yet without a marlu."""
    cluster = Cluster(site, more_configuration)
    cluster.add_visitors()
    for name in BALANCERS:
        cluster.add_balancer(name)
        cluster.start_balancer(name)
    wait_for(lambda: len(cluster.holder()) == 1, "one balancer with the address")
    return cluster
