"""How long a page takes, and how the rate grows with the marlus."""
import glob
import os
import re
import time

from cluster import ADDRESS, Cluster, ROOT
from network import wait_for
from report import check, step, tell

NGINX = """
user root;
worker_processes 2;
pid /run/nginx.pid;
error_log /dev/null;
events {}
http {
    include /etc/nginx/mime.types;
    access_log off;
    sendfile on;
    gzip on;
    server {
        listen 8443 ssl http2;
        ssl_certificate /etc/haproxy/site.pem;
        ssl_certificate_key /etc/haproxy/site.pem;
        root /srv/www;
    }
}
"""


def processor_seconds(machine, name):
    total = 0
    for process in machine.run("pgrep", "-x", name).split():
        fields = machine.run("cat", f"/proc/{process}/stat").rsplit(")", 1)[1].split()
        total += int(fields[11]) + int(fields[12])
    return total / os.sysconf("SC_CLK_TCK")


PAST_CACHE = "--header=cache-control: no-cache"


def load(visitors, what, url, *arguments):
    """Returns seconds and requests a second of h2load."""
    report = visitors.run("h2load", *arguments, url)
    counts = re.search(r"status codes: (\d+) 2xx, (\d+) 3xx, (\d+) 4xx, (\d+) 5xx", report)
    check(int(counts[1]) > 0 and counts[2] == counts[3] == counts[4] == "0", what, counts[0])
    seconds, unit, rate = re.search(r"finished in ([\d.]+)(m?s), ([\d.]+) req/s", report).groups()
    return float(seconds) / (1000 if unit == "ms" else 1), float(rate)


def test_page(more_configuration):
    step("a page of 50 files at once, 100 ms there and back, not from a cache: median of 5 loads, the slowest of the visitors")
    cluster = Cluster(os.path.join(ROOT, "site"), more_configuration)
    visitors = cluster.add_visitors(delay=50)
    balancer = cluster.add_balancer("first")
    cluster.start_balancer("first")
    for name in ("one", "two", "three"):
        cluster.add_marlu(name)
    balancer.copy(cluster.site, "/srv/www")
    balancer.write("/run/nginx.conf", NGINX)
    balancer.run("mkdir", "-p", "/var/log/nginx")
    balancer.run("nginx", "-c", "/run/nginx.conf")
    wait_for(lambda: cluster.holder(), "the address")
    cluster.wait_until_served(balancers=["first"])
    files = [path for path in glob.glob(cluster.site + "/**", recursive=True) if os.path.isfile(path)]
    for count in (1, 8):
        seen = {"the balancer": [], "nginx": []}
        for server, port in (("the balancer", 443), ("nginx", 8443)) * 5:
            urls = [f"https://{ADDRESS}:{port}/{os.path.relpath(path, cluster.site)}" for path in files]
            seconds, _ = load(visitors, server, urls[0], *urls[1:], PAST_CACHE, f"--clients={count}", f"--requests={count * len(urls)}",
                              f"--max-concurrent-streams={len(urls)}")
            seen[server].append(seconds)
        balanced, alone = (sorted(times)[2] for times in seen.values())
        tell(f"{count} visitors, {len(files)} files: through the balancer {balanced:.2f} s, nginx alone {alone:.2f} s, "
             f"{balanced / alone:.2f} times")
        check(balanced <= 1.3 * alone, "a page through the balancer takes at most 1.3 times as long")


def test_growth(more_configuration):
    step("requests a second past the balancer's cache, 50 ms there and back between balancer and marlu")
    cluster = Cluster(os.path.join(ROOT, "site"), more_configuration)
    visitors = cluster.add_visitors()
    balancer = cluster.add_balancer("first", delay=25)
    cluster.start_balancer("first")
    wait_for(lambda: cluster.holder(), "the address")
    names = []
    rates = []
    for name in ("one", "two", "three"):
        names.append(name)
        cluster.add_marlu(name)
        cluster.wait_until_served(names, ["first"])

        def used():
            return [processor_seconds(balancer, "haproxy"),
                    sum(processor_seconds(cluster.machines[machine], "marluserver") for machine in names)]
        before, began = used(), time.monotonic()
        _, rate = load(visitors, f"{len(names)} marlus", f"https://{ADDRESS}/style.css", "--duration=8", "--clients=5",
                       "--max-concurrent-streams=100", PAST_CACHE)
        seconds = time.monotonic() - began
        of_balancer, of_marlus = ((after - earlier) / seconds for earlier, after in zip(before, used()))
        tell(f"{len(names)} marlus: {rate:.0f} a second; processors: HAProxy {of_balancer:.2f}, marlus together {of_marlus:.2f}")
        rates.append(rate)
    check(rates[0] < rates[1] < rates[2], "the rate grows with the marlus", rates)
    tell(f"the limit is HAProxy: by its share, {rate / of_balancer:.0f} a second would fill a processor")
    _, rate = load(visitors, "from the cache", f"https://{ADDRESS}/style.css", "--duration=8", "--clients=8",
                   "--max-concurrent-streams=100")
    tell(f"from the balancer's cache: {rate:.0f} a second")
