"""Three marlus behind two balancers: every answer is compared while one thing after the other fails."""
import collections
import glob
import json
import os
import re
import shutil
import signal
import subprocess
import threading
import time

from cluster import ADDRESS, BALANCERS, DEPLOY, MARLUS, NAME, RELOAD, ROOT, VISITORS, WORK, start_cluster
from network import read, run, wait_for
from report import check, same, step, tell


def make_version(number):
    """The bundled site and a gallery, whose pictures have other names and bytes in each version."""
    top = os.path.join(WORK, "versions", str(number))
    shutil.copytree(os.path.join(ROOT, "site"), top)
    pictures = []
    os.mkdir(os.path.join(top, f"gallery-{number}"))
    for source in sorted(glob.glob(os.path.join(ROOT, "site/img/*.*g"))):
        pictures.append(f"gallery-{number}/{os.path.basename(source)}")
        with open(source, "rb") as original, open(os.path.join(top, pictures[-1]), "wb") as copy:
            copy.write(original.read() + b"%d" % number)
    with open(os.path.join(top, "gallery.html"), "w") as page:
        page.write(f"<!DOCTYPE html><title>gallery {number}</title>\n")
        page.writelines(f'<img src="{picture}" alt="">\n' for picture in pictures)
    return top


class Load:
    """The visitors at work. Each stretch of time has a name: what was going on."""

    def __init__(self, cluster, requests, rate):
        self.cluster, self.stretches, self.faults, self.counts = cluster, [], [], {}
        self.lock = threading.Lock()
        settings = cluster.path("visitors.json")
        with open(settings, "w") as file:
            json.dump({"address": ADDRESS, "name": NAME, "ca": cluster.ca, "addresses": VISITORS, "rate": rate,
                       "requests": requests, "versions": cluster.path("versions")}, file)
        self.process = subprocess.Popen(cluster.machines["visitors"].command(os.path.join(DEPLOY, "testing/visitors"), settings),
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.reader = threading.Thread(target=self.read, daemon=True)
        self.reader.start()

    def read(self):
        for line in self.process.stdout:
            entry = json.loads(line)
            with self.lock:
                if "counts" in entry:
                    self.counts = entry["counts"]
                    self.seconds = entry.get("seconds")
                else:
                    self.faults.append(entry)

    def right(self):
        with self.lock:
            return self.counts.get("right", 0)

    def begin(self, name):
        self.stretches.append([name, time.time(), self.right(), 0])

    def end(self):
        # What was begun in a stretch is over soon after it.
        before = self.right()
        wait_for(lambda: self.right() > before + 300, "answers", 60)
        self.stretches[-1][3] = self.right()
        self.stretches[-1].append(time.time())

    def finish(self):
        self.process.stdin.close()
        self.reader.join()
        check(self.process.wait() == 0, "the visitors' program ended well")

    def faults_in(self, stretch):
        return [fault for fault in self.faults if stretch[1] <= fault["time"] < stretch[4]]


class Prober:
    """A visitor who comes anew twenty times a second: for how long is there nobody?"""

    def __init__(self, cluster):
        self.process = cluster.machines["visitors"].start(
            "prober.log", "sh", "-c", f"""while :; do
                date +%s.%N
                curl -sfo /dev/null -m 0.5 --cacert {cluster.ca} --resolve {NAME}:443:{ADDRESS} https://{NAME}/favicon.ico &&
                    echo answered
                sleep 0.05
            done""", start_new_session=True)
        self.log = cluster.path("prober.log")

    def longest_gap(self):
        os.killpg(self.process.pid, signal.SIGKILL)
        self.process.wait()
        with open(self.log) as file:
            times = [float(text) for text in re.findall(r"([\d.]+)\nanswered", file.read())]
        check(len(times) > 20, "the prober was answered")
        return max(after - before for before, after in zip(times, times[1:]))


def status(cluster, *arguments):
    return cluster.curl("--output", "/dev/null", "--write-out", "%{http_code}", "--path-as-is", *arguments)


def test_answers(cluster):
    url = f"https://{NAME}"
    step("checks both configurations with their own programs, and says 503 while no marlu is up")
    for protocol in ("--http2", "--http1.1"):
        same("without a marlu", status(cluster, protocol, url + "/"), "503")
    for name in ("one", "two", "three"):
        cluster.add_marlu(name)
    cluster.wait_until_served()

    step("answers every file of the site byte for byte, over HTTP/2 and HTTP/1.1")
    site = cluster.site
    for directory, _, names in os.walk(site):
        for name in names:
            path = os.path.join(directory, name)
            for protocol in ("--http2", "--http1.1"):
                answer = cluster.path("answer")
                cluster.curl(protocol, "--output", answer, f"{url}/{os.path.relpath(path, site)}")
                with open(path, "rb") as file, open(answer, "rb") as got:
                    check(file.read() == got.read(), path)
    print(cluster.curl("--http2", "--verbose", "--output", "/dev/null", url + "/style.css"))

    step("does for visitors what marlu does not")
    for protocol in ("--http2", "--http1.1"):
        for wanted, *arguments in (
                ("404", url + "/missing.html"), ("404", url + "/style.css", "--output", "/dev/null", url + "/img/none.png"),
                ("405", "--request", "POST", url), ("405", "--request", "OPTIONS", url),
                ("400", "--request", "GET", "--data", "text", url),
                ("400", url + "/img/../../srv/www/style.css"), ("400", url + "/.."), ("414", url + "/" + 256 * "x"),
                ("414", url + 401 * "/four"), ("200", url + "/style.css?query=1"),
                ("200", url + "/?query"), ("404", url + "/" + 255 * "x")):
            same(f"{protocol} {arguments}", status(cluster, protocol, *arguments)[-3:], wanted)
        head = cluster.curl(protocol, "--head", url + "/style.css").lower()
        size = os.path.getsize(os.path.join(site, "style.css"))
        check(f"content-length: {size}\n" in head and "cache-control: public, max-age=3600\n" in head, "HEAD", head)
        check("x-served-by" not in head, "the inside stays inside", head)
        head = cluster.curl(protocol, "--compressed", "--dump-header", "-", "--output", "/dev/null", url + "/style.css").lower()
        check("content-encoding: gzip" in head and "vary: accept-encoding" in head, "compression", head)
    same("redirect", cluster.curl("--output", "/dev/null", "--write-out", "%{http_code} %{redirect_url}",
                                  f"http://{NAME}/style.css?x=1"), f"301 https://{NAME}/style.css?x=1")
    check("max-age=10\n" in cluster.curl("--head", url + "/"), "pages for ten seconds")
    statistics = subprocess.run(cluster.machines["visitors"].command("curl", "-sm", "2", f"http://{ADDRESS}:8404/"))
    check(statistics.returncode == 7, "statistics for the balancer alone")
    check(all(cluster.marlu_process(name) for name in ("one", "two", "three")), "no request ended a marlu")
    for name in ("one", "two", "three"):
        with open(cluster.path(name + ".log")) as log:
            check("ended with" not in log.read(), name + " never ended")

    step("queues 400 at once, and 6000 from one visitor within the allowance")
    for arguments in (("-n400", "-c40", "-m10"), ("-n6000", "-c4", "-m30")):
        report = cluster.machines["visitors"].run("h2load", *arguments, "-H", "cache-control: no-cache", "--connect-to",
                                                  f"{ADDRESS}:443", url + "/img/dawn.png")
        print(re.search("finished in.*", report)[0])
        check(f"status codes: {arguments[0][2:]} 2xx" in report, "all answered", report)

    step("shows the demonstration page in Chromium, whole, while a marlu is killed")
    browser = cluster.machines["visitors"].start(
        "chromium.log", "chromium", "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
        "--disable-background-networking", "--disable-component-update", "--disable-sync", "--ignore-certificate-errors",
        "--user-data-dir=/run/chromium", f"--host-resolver-rules=MAP {NAME} {ADDRESS}", "--virtual-time-budget=60000", "--dump-dom",
        url + "/")
    log = cluster.path(cluster.holder()[0] + ".log")
    wait_for(lambda: "HeadlessChrome" in read(log) or "Chrome/" in read(log), "Chromium's first request", 60)
    cluster.machines["one"].run("kill", "-KILL", cluster.marlu_process("one"))
    browser.wait(timeout=60)
    page = read(cluster.path("chromium.log"))
    summary = re.search('<p id="summary"[^>]*>(.*?)</p>', page)
    tell(summary and summary[1])
    check('data-result="ok"' in page, "Chromium's page", summary and summary[1])
    cluster.wait_until_served()


def kill_marlu(cluster):
    before = cluster.marlu_process("one")
    cluster.machines["one"].run("kill", "-KILL", before)
    wait_for(lambda: cluster.marlu_process("one") not in (None, before), "one comes back")


def send_malformed_request(cluster):
    before = cluster.marlu_process("two")

    def ended():
        cluster.machines["one"].run("bash", "-c", f"printf 'GET\\n' >/dev/tcp/{MARLUS['two']}/80 || :")
        return cluster.marlu_process("two") != before
    if cluster.more_configuration:
        check(not any([ended() for _ in range(20)]), "a public site goes on")
        return
    wait_for(ended, "the request ends two")
    wait_for(lambda: cluster.marlu_process("two") not in (None, before), "two comes back")


def cut_link(cluster):
    cluster.machines["three"].set_link("inside", "down")
    time.sleep(8)  # for as long: both health checks and requests meet the silence
    cluster.machines["three"].set_link("inside", "up")


def add_machine(cluster):
    cluster.add_marlu("four")
    wait_for(lambda: cluster.answers("four"), "four answers")
    for name in BALANCERS:
        cluster.machines[name].run("sh", "-c", f"echo '    server four {MARLUS['four']}:80' >>/etc/haproxy/haproxy.cfg")
        cluster.machines[name].run("sh", "-c", RELOAD)
    cluster.wait_until_served(MARLUS)
    log = cluster.path(cluster.holder()[0] + ".log")
    wait_for(lambda: ' "four 0"' in read(log), "four answers visitors")


def publish(cluster):
    cluster.administer("publish", cluster.path("versions/2"), "15", *MARLUS)
    for name in MARLUS:
        cluster.machines[name].run("test", "!", "-e", "/srv/www/gallery-1")
        cluster.machines[name].run("test", "-e", "/srv/www/alive.txt")
    check("gallery 2" in cluster.curl(f"https://{NAME}/gallery.html"), "the new page")


def renew_certificate(cluster):
    cluster.make_certificate(2)
    cluster.administer("renew", cluster.path("site.crt"), cluster.path("site.key"), *BALANCERS, RELOAD=RELOAD)
    for number, _ in BALANCERS.values():
        command = f"openssl s_client -connect 192.0.2.{number}:443 </dev/null 2>&1 | openssl x509 -noout -serial"
        wait_for(lambda: "serial=02" in cluster.machines["visitors"].run("sh", "-c", command), "the new certificate")


def restart_each(cluster):
    before = {name: cluster.marlu_process(name) for name in MARLUS}
    cluster.administer("restart", *MARLUS, RESTART="kill -TERM $(cat /run/marluserver.pid)")
    for name in MARLUS:
        check(cluster.marlu_process(name) != before[name], name + " was restarted")


def kill_balancer(cluster):
    dying, = cluster.holder()
    survivor, = set(BALANCERS) - {dying}
    prober = Prober(cluster)
    time.sleep(1)
    cluster.machines[dying].switch_off()
    wait_for(lambda: cluster.holder() == [survivor], "the address moves")
    time.sleep(3)
    cluster.gap = prober.longest_gap()
    cluster.dead_balancer = dying


def bring_balancer_back(cluster):
    name = cluster.dead_balancer
    survivor, = cluster.holder()
    cluster.add_balancer(name)
    cluster.machines[name].run("sh", "-c", f"echo '    server four {MARLUS['four']}:80' >>/etc/haproxy/haproxy.cfg")
    cluster.start_balancer(name)
    cluster.wait_until_served(MARLUS)
    time.sleep(3)  # long enough to take the address, if it did
    same("who has the address", cluster.holder(), [survivor])


def test_failures(cluster, requests):
    step(f"compares {requests} answers while one thing after the other fails")
    load = Load(cluster, requests, rate=550)
    for what, happen in (("nothing", lambda _: time.sleep(5)), ("a marlu is killed", kill_marlu),
                         ("a marlu gets a malformed request", send_malformed_request), ("a machine's link is cut", cut_link),
                         ("a fourth machine is added", add_machine), ("the site is published anew", publish),
                         ("the certificate is renewed", renew_certificate), ("each machine is restarted in turn", restart_each),
                         ("a balancer dies", kill_balancer), ("it comes back", bring_balancer_back)):
        load.begin(what)
        happen(cluster)
        load.end()
        stretch = load.stretches[-1]
        faults = [fault["what"] for fault in load.faults_in(stretch) if not fault["repeated"]]
        print(f"    {what:36} {stretch[4] - stretch[1]:5.1f} s  {stretch[3] - stretch[2]:6} right, {len(faults):3} wrong or missing",
              *(f"\n        {number} times {text}" for text, number in collections.Counter(faults).items()), flush=True)
    load.finish()
    counts = load.counts
    dying = next(stretch for stretch in load.stretches if stretch[0] == "a balancer dies")
    expected = load.faults_in(dying)
    others = [fault for fault in load.faults if fault not in expected]
    print(f"    {counts['right']} right ({counts['HTTP/2']} over HTTP/2, {counts['HTTP/1.1']} over HTTP/1.1) in "
          f"{load.seconds:.0f} s, {counts.get('wrong', 0)} wrong, {counts.get('missing', 0)} missing, of which "
          f"{sum(not fault['repeated'] for fault in expected)} when the balancer died; repeated in vain: "
          f"{counts.get('repeated in vain', 0)}; galleries: {counts.get('gallery 1', 0)} old, {counts.get('gallery 2', 0)} new")
    print(f"    without service when the balancer died: {cluster.gap:.2f} s")
    check(counts["right"] >= requests, "enough answers")
    check(not others, "wrong or missing answers", others[:10])
    same("repeated in vain", counts.get("repeated in vain", 0), 0)
    same("wrong answers", counts.get("wrong", 0), 0)
    check(counts.get("gallery 1") and counts.get("gallery 2"), "both versions were seen")
    check(cluster.gap <= 3, "time without service", cluster.gap)


def test_logs(cluster):
    step("reads the balancers' logs with GoAccess, and finds the visitors' addresses in them and in marlu's")
    lines = [line for name in BALANCERS for line in read(cluster.path(name + ".log")).splitlines() if "] \"" in line]
    log = cluster.path("access.log")
    with open(log, "w") as file:
        file.write("\n".join(lines) + "\n")
    run("goaccess", log, "--log-format=COMBINED", "--no-global-config", "--invalid-requests",
        cluster.path("not-taken"), "-o", cluster.path("report.json"))
    with open(cluster.path("report.json")) as file:
        report = json.load(file)
    same("lines that GoAccess takes", report["general"]["valid_requests"], len(lines))
    check(report["general"]["failed_requests"] == 0, "lines that GoAccess does not take", read(cluster.path("not-taken")))
    same("addresses in the balancers' logs", sorted({line.split()[0] for line in lines} - {"198.51.100.10"}), VISITORS)
    seen = set()
    for name in MARLUS:
        seen.update(re.findall(r"^x-forwarded-for: (\S+)", read(cluster.path(name + ".log")), re.M))
    same("addresses in marlu's logs", sorted(seen), VISITORS)
    print(f"    {len(lines)} lines, {len(seen)} visitors")


def test_cluster(more_configuration):
    first_version, _ = make_version(1), make_version(2)
    cluster = start_cluster(more_configuration, first_version)
    test_answers(cluster)
    test_failures(cluster, requests=100000)
    test_logs(cluster)
