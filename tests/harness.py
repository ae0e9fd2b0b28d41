#!/usr/bin/env python3
# Runs a test of the programs, and holds what these tests, the soak and the benchmark share.
#
# tests/harness.py PROGRAMS TEST [OPTION...]
#
# PROGRAMS is the directory of marluserver and marlu-check, TEST a file here without its ending; the options are
# unittest's.
import contextlib
import ctypes
import fcntl
import os
import re
import shutil
import signal
import socket
import ssl
import struct
import subprocess
import sys
import time
import unittest

ROOT = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))
PROGRAMS = os.path.realpath(sys.argv[1])
WORK = "/mnt"  # a tmpfs of our own
TLS = f"{WORK}/tls"
LOG_PREFIX = r"\[\d\d\.\d\d\.\d{4} \d\d:\d\d:\d\d\.\d{3}\] \((\d*)\) \[\d+\] "  # the one group is the context

FORBIDDEN = "HTTP/1.1 403 Forbidden\r\nContent-Length: 0\r\n\r\n"
NOT_ALLOWED = "HTTP/1.1 405 Method Not Allowed\r\n\r\n"
NOT_FOUND = ("HTTP/1.1 404 Not Found\r\nContent-Type: text/html\r\n\r\n"
             "<html><body><h1>404 Not Found</h1><p>The requested file was not found.</p></body></html>")
SHUTDOWN_LINE = "Shutting down server...\n"
LARGE = "x" * (15 << 20)  # more than the sockets hold


def ok(content_type, body):
    return f"HTTP/1.1 200 OK\r\nContent-Type: {content_type}\r\nContent-Length: {len(body)}\r\n\r\n{body}"


def plain(body):
    return ok("application/octet-stream", body)


HELLO = ok("text/html", "hello")  # the index file's


# Goes on as the first process of namespaces of its own: it has /run, /mnt and the ports to itself, inherits the daemon
# when that detaches, and nothing outlives it.
def enter_namespaces():
    if os.getpid() != 1:
        user = [] if os.getuid() == 0 else ["--map-root-user"]
        os.execvp("unshare", ["unshare", *user, "--mount", "--net", "--pid", "--fork", "--kill-child", "--mount-proc",
                              sys.executable, *sys.argv])
    for directory in ("/run", WORK):
        subprocess.run(["mount", "-t", "tmpfs", "tmpfs", directory], check=True)
    up = struct.pack("16sH14x", b"lo", 1)
    fcntl.ioctl(socket.socket(), 0x8914, up)  # SIOCSIFFLAGS
    os.environ["TZ"] = "TST-5:30"
    time.tzset()
    signal.signal(signal.SIGIO, signal.SIG_IGN)  # comes when somebody opens a file that hold_back keeps closed


# Bytes are text here, one character each.
def read(path):
    with open(path, encoding="latin-1", newline="") as file:
        return file.read()


def write(path, text):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "w", encoding="latin-1", newline="") as file:
        file.write(text)


# Returns a shell command's standard output, standard error and status.
def run(command, *prefix, **options):
    done = subprocess.run([*prefix, "sh", "-c", command], capture_output=True, **options)
    return done.stdout.decode("latin-1"), done.stderr.decode("latin-1"), done.returncode


def wait_until(condition):
    limit = time.monotonic() + 30
    while not condition():
        if time.monotonic() > limit:
            raise TimeoutError("not within half a minute")
        time.sleep(0.002)


def is_listening(port):
    return re.search(f":{port:04X} 0+:0000 0A", read("/proc/net/tcp") + read("/proc/net/tcp6")) is not None


def connect(port, source="127.0.0.1"):
    return socket.create_connection(("127.0.0.1", port), 60, (source, 0))


# Returns all that comes until the connection ends, and closes it. Over TLS the end has to be announced.
def receive_all(client, pause=0):
    answer = bytearray()
    with client:
        try:
            while piece := client.recv(65536):
                answer += piece
                time.sleep(pause)
        except ConnectionResetError:
            pass  # the daemon had closed the connection before it had read everything
    return answer.decode("latin-1")


# The next close, also the one at the process's end, breaks the connection off.
def reset_when_closed(client):
    client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))


# The context of clients that trust one certificate and nothing else, with any version of TLS or with one alone.
def tls_clients(certificate, version=None):
    context = ssl.create_default_context(cafile=certificate)
    context.check_hostname = False
    context.set_ciphers("ALL:@SECLEVEL=0")  # otherwise nothing older than TLS 1.2 is even offered
    if version:
        context.minimum_version = context.maximum_version = version
    return context


def handshake(context, client):
    return context.wrap_socket(client, suppress_ragged_eofs=False)


# Until the returned descriptor is closed, whoever opens the file waits.
def hold_back(path):
    descriptor = os.open(path, os.O_RDWR)
    fcntl.fcntl(descriptor, fcntl.F_SETLEASE, fcntl.F_WRLCK)
    return descriptor


# Makes a pipe of one page that is full, so that whoever writes to it waits. Returns a descriptor that reads it.
def make_full_pipe(path):
    os.mkfifo(path)
    pipe = os.open(path, os.O_RDWR | os.O_NONBLOCK)
    os.write(pipe, bytes(fcntl.fcntl(pipe, fcntl.F_SETPIPE_SZ, 4096)))
    return pipe


# The option SO_REUSEADDR, the backlog and whether calls wait, of a listening socket.
def listening_options(server):
    backlog, = struct.unpack_from("I", server.getsockopt(socket.IPPROTO_TCP, socket.TCP_INFO, 104), 28)
    is_reused = server.getsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR)
    return is_reused, backlog, not fcntl.fcntl(server, fcntl.F_GETFL) & os.O_NONBLOCK


# Makes certificates and keys in TLS, NAME.crt with NAME.key, and files that combine them: "leaf" was issued by
# "middle", and that by "root"; "good" stands for itself.
def make_certificates():
    script = f"""mkdir -p {TLS} && cd {TLS}
        make() {{ name=$1; shift; openssl req -x509 -nodes -subj /CN=$name -keyout $name.key -out $name.crt "$@"; }}
        curve="ec -pkeyopt ec_paramgen_curve:P-256"
        make good -newkey $curve && make root -newkey $curve && make weak -newkey rsa:512 &&
        make middle -newkey $curve -CA root.crt -CAkey root.key &&
        make leaf -newkey $curve -CA middle.crt -CAkey middle.key &&
        openssl req -new -key good.key -subj /CN=good -out request && cat good.key weak.crt >weak.pem &&
        openssl x509 -req -in request -signkey good.key -days -1 -out expired.crt &&
        cat leaf.key leaf.crt middle.crt >chain.pem && cat root.key good.crt >mismatch.pem"""
    _, errors, status = run(script)
    if status != 0:
        raise RuntimeError(errors)


# The cache's slot of a file: FNV-1a over the name's bytes with their sign.
def cache_slot(name):
    value = 0xcbf29ce484222325
    for byte in struct.unpack(f"{len(os.fsencode(name))}b", os.fsencode(name)):
        value = (value ^ byte) * 0x100000001b3 % (1 << 64)
    return value % 64


def children():
    return set(map(int, read("/proc/1/task/1/children").split()))


# One run of the program, with a directory, ports, logs and a pid file of its own. At the end of a "with" statement the
# daemon is ended, unless the test has seen its end. The test fails if that status is not 0, the pid file is left, or a
# sanitizer complained.
class Daemon:
    next_port = 8000
    is_sanitized = "san_init" in read(f"{PROGRAMS}/marluserver")
    ending_seconds = 10 if is_sanitized else 2  # two are promised

    # Adds settings to a configuration that works (a later line counts), runs command beside the program, and returns
    # when the daemon listens on a port or has ended, or at once.
    def __init__(self, settings="", command="./marluserver start", at_once=False):
        self.port, self.https_port = Daemon.next_port, Daemon.next_port + 1
        Daemon.next_port += 2
        self.directory = f"{WORK}/{self.port}"
        self.site = f"{self.directory}/site"
        self.pid_file = f"{self.directory}/run/marluserver.pid"
        self.config_file = f"{self.directory}/marlu/marluserver.cfg"
        self.status = None
        write(f"{self.site}/index.html", "hello")
        write(self.config_file, f"website_path={self.site}\nstart_http=y\nport={self.port}\nuse_log=y\n"
              f"log_file={self.directory}/http.log\nport_https={self.https_port}\n"
              f"log_file_https={self.directory}/https.log\n{settings}")
        os.mkdir(f"{self.directory}/run")
        shutil.copy(f"{PROGRAMS}/marluserver", self.directory)
        before = children()
        self.start = self.run(command)
        # Two processes are left, the one between and the daemon, which is younger.
        wait_until(lambda: len(children() - before) == 2)
        between, self.pid = sorted(children() - before)
        os.waitpid(between, 0)
        wait_until(lambda: at_once or is_listening(self.port) or is_listening(self.https_port) or self.has_ended())

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.status is None and self.end() != 0:
            raise AssertionError(f"ended with status {self.status}")
        if os.path.exists(self.pid_file):
            raise AssertionError("the pid file was left")
        for name in os.listdir(self.directory):
            if name.startswith("report"):
                raise AssertionError(read(f"{self.directory}/{name}"))
        shutil.rmtree(self.directory)

    # Runs a command where the daemon's directory is the current one and its pid file is in /run.
    def run(self, command):
        # The daemon's standard error is /dev/null. By design its signal handler ends the process, which no handler may
        # do in tsan's eyes, and the servers' threads are never joined.
        report = f"log_path={self.directory}/report:"
        tsan = f"report_signal_unsafe=0:report_thread_leaks=0:atexit_sleep_ms=0:suppressions={ROOT}/tests/tsan.supp"
        environment = {"ASAN_OPTIONS": report + "verify_asan_link_order=0", "UBSAN_OPTIONS": report,
                       "TSAN_OPTIONS": report + tsan}
        return run(f"mount --bind {self.directory}/run /run && {command}", "unshare", "--mount",
                   cwd=self.directory, env=os.environ | environment)

    # Sends request over plain HTTP. Beware: the daemon closes a connection whose request was not there when it looked.
    def send(self, request, source="127.0.0.1"):
        client = connect(self.port, source)
        client.sendall(request.encode("latin-1"))
        return client

    # Repeats request until an answer begins; while the rest of it is not read, a worker is held.
    def hold_worker(self, request):
        while True:
            client = self.send(request)
            with contextlib.suppress(ConnectionResetError):
                if client.recv(1, socket.MSG_PEEK):
                    return client
            client.close()

    # Repeats request until there is an answer.
    def answer(self, request):
        return receive_all(self.hold_worker(request))

    # Duplicates of all sockets that the daemon has open.
    def sockets(self):
        process = os.pidfd_open(self.pid)
        names = [name for name in os.listdir(f"/proc/{self.pid}/fd")
                 if os.readlink(f"/proc/{self.pid}/fd/{name}").startswith("socket:")]
        copies = [ctypes.CDLL(None).syscall(438, process, int(name), 0) for name in names]  # pidfd_getfd
        os.close(process)
        return [socket.socket(fileno=copy) for copy in copies]

    # The number of its descriptors ("fd") or threads ("task").
    def count(self, kind):
        return len(os.listdir(f"/proc/{self.pid}/{kind}"))

    # A value of /proc/PID/status in KiB.
    def memory(self, field):
        return int(re.search(field + r":\s+(\d+) kB", read(f"/proc/{self.pid}/status"))[1])

    def log(self, name="http.log"):
        return read(f"{self.directory}/{name}")

    # What the log holds after the start of the server on port; of_loader are further lines of the loader.
    def first_messages(self, port, of_loader=""):
        return (f"The configuration file located at the following path is used: {self.config_file}\n{of_loader}"
                f"Server started on port {port}\nServing files from: {self.site}\n")

    # The log without what every entry begins with.
    def messages(self, name="http.log"):
        return re.sub(LOG_PREFIX, "", self.log(name))

    def has_ended(self):
        if self.status is None:
            pid, state = os.waitpid(self.pid, os.WNOHANG)
            self.status = os.waitstatus_to_exitcode(state) if pid else None
        return self.status is not None

    def kill(self, number):
        if not self.has_ended():
            os.kill(self.pid, number)

    # Waits for the end and returns the status.
    def wait(self):
        wait_until(self.has_ended)
        return self.status

    # Ends the daemon with a signal, in the time that is promised, and returns the status.
    def end(self, number=signal.SIGTERM):
        begin = time.monotonic()
        self.kill(number)
        self.wait()
        if time.monotonic() - begin > self.ending_seconds:
            raise AssertionError("the end took too long")
        return self.status


# A daemon with the HTTPS server alone.
class TlsDaemon(Daemon):
    def __init__(self, settings="", command="./marluserver start", at_once=False):
        super().__init__("start_http=n\nstart_https=y\nuse_log_https=y\ncipher_list=ALL:@SECLEVEL=0\n"
                         f"crt_file={TLS}/good.crt\nkey_file={TLS}/good.key\n{settings}", command, at_once)

    # Sends request and returns the connection.
    def ask(self, request):
        client = handshake(self.clients, connect(self.https_port))
        client.sendall(request.encode("latin-1"))
        return client

    def answer(self, request):
        return receive_all(self.ask(request))

    # Without what follows when the end closes the socket just as the listener is about to accept.
    def messages(self, name="https.log"):
        return re.sub("0.0.0.0 Failed to accept.*\n\n$", "", super().messages(name))


# A test that imports this has what TlsDaemon needs.
def setUpModule():
    make_certificates()
    TlsDaemon.clients = tls_clients(f"{TLS}/good.crt")


# The command that starts the program without a capability.
def without(capability):
    return f"setpriv --bounding-set -{capability} ./marluserver start"


if __name__ == "__main__":
    enter_namespaces()
    result = unittest.main(sys.argv[2], argv=sys.argv[2:], warnings="ignore", exit=False).result
    sys.exit(0 if result.wasSuccessful() and result.testsRun > 0 else 1)
