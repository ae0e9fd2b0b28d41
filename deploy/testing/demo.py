"""The bundled site from three marlus through two balancers, for a browser on this machine."""
import os
import subprocess

from cluster import ADDRESS, BUILD, NAME, start_cluster
from network import wait_for
from report import tell

SOCKET = os.path.join(BUILD, "demo.socket")  # leads from this machine's network into the demo's


def open_door():
    """In this machine's network. Ends with this process, or what takes its place."""
    subprocess.Popen(["setpriv", "--pdeathsig", "TERM", "socat", "TCP-LISTEN:8443,bind=127.0.0.1,reuseaddr,fork",
                      "UNIX:" + SOCKET])


def serve(more_configuration):
    cluster = start_cluster(more_configuration)
    for name in ("one", "two", "three"):
        cluster.add_marlu(name)
    cluster.wait_until_served()
    print(cluster.curl("--http2", "--include", "--head", f"https://{NAME}/"))
    inside = cluster.machines["visitors"].start("socat.log", "socat", f"UNIX-LISTEN:{SOCKET},fork,unlink-early",
                                                f"TCP:{ADDRESS}:443")
    wait_for(lambda: os.path.exists(SOCKET), "the way in")
    tell("https://localhost:8443/ is the site. The browser warns, because the certificate is the demo's own. Ctrl-C ends it.")
    try:
        inside.wait()
    except KeyboardInterrupt:
        pass
    os.remove(SOCKET)
