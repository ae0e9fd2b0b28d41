"""Runs the parts of deploy/test, each in namespaces of its own."""
import glob
import os
import subprocess
import sys
import time

import containers
import demo
import failures
import measurements
import report
from cluster import BUILD, ROOT, WORK
from network import read, run
from report import check, step

CLUSTER = "curl haproxy iproute2 keepalived nftables nghttp2-client procps"
CONTAINERS = "catatonit conmon curl debootstrap iproute2 podman runc"
# For each part the seconds that it may take, the Debian packages that it needs, and what runs it.
PARTS = {
    "cluster": (360, CLUSTER + " chromium goaccess python3-pycurl rsync", failures.test_cluster),
    "page": (60, CLUSTER + " nginx-light", measurements.test_page),
    "growth": (80, CLUSTER, measurements.test_growth),
    "container": (50, CONTAINERS, containers.test_container),
    "kubernetes": (50, CONTAINERS, containers.test_kubernetes),
    "demo": (24 * 3600, CLUSTER + " socat", demo.serve),
}


def prepare(part):
    """With this machine's network."""
    packages = PARTS[part][1] + " build-essential cmake libssl-dev openssl util-linux"
    run(os.path.join(ROOT, "scripts/install_missing"), *packages.split())
    step("builds marlu")
    run("cmake", "-S", ROOT, "-B", BUILD)
    run("cmake", "--build", BUILD, "-j", str(os.cpu_count()), "--target", "marluserver", "marlu-check")
    run("g++", "-std=c++20", "-O2", "-Wall", "-Wextra", "-o", os.path.join(BUILD, "wire"),
        os.path.join(ROOT, "deploy/testing/wire.cc"))
    if part in ("container", "kubernetes"):
        containers.build_images()
    if part == "kubernetes":
        containers.check_schema()
    if part == "demo":
        demo.open_door()


def run_part(part, more_configuration):
    """In namespaces of its own."""
    began = time.monotonic()
    os.makedirs(WORK, exist_ok=True)
    run("mount", "-t", "tmpfs", "tmpfs", WORK)
    try:
        PARTS[part][2](more_configuration)
    except (OSError, RuntimeError, TimeoutError, ValueError) as error:
        check(False, str(error))
        for log in sorted(glob.glob(os.path.join(WORK, "*.log"))):
            print(f"-- {os.path.basename(log)}\n{read(log)[-1500:]}")
    result = f"{len(report.failures)} failures" if report.failures else "all is well"
    print(f"{part}: {time.monotonic() - began:.0f} s, {result}", flush=True)
    sys.exit(bool(report.failures))


def main():
    options = [argument for argument in sys.argv[1:] if argument == "--public-site"]
    parts = [argument for argument in sys.argv[1:] if argument not in options] or [part for part in PARTS if part != "demo"]
    if any(part not in PARTS for part in parts):
        sys.exit("deploy/test [--public-site] [cluster|page|growth|container|kubernetes]... or deploy/test demo")
    if os.geteuid() != 0:
        sys.exit("deploy/test needs root, for its network namespaces")
    if len(parts) > 1:
        failed = [part for part in parts if subprocess.run([sys.executable, "-B", __file__, *options, part]).returncode != 0]
        print("failed: " + ", ".join(failed) if failed else "every part is well")
        sys.exit(bool(failed))
    part, = parts
    if os.environ.get("DEPLOY_TEST_INSIDE") == "yes":
        run_part(part, "public_site=yes\n" if options else "")
    prepare(part)
    # What is made from here on ends with the first process of these namespaces.
    os.execvpe("unshare", ["unshare", "--net", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc", "timeout",
                           "--kill-after=5", "--foreground", str(PARTS[part][0]), sys.executable, "-B", __file__, *sys.argv[1:]],
               {**os.environ, "DEPLOY_TEST_INSIDE": "yes"})


if __name__ == "__main__":
    main()
