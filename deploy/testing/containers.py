"""The image, and the Kubernetes objects, with podman."""
import glob
import os
import re
import shutil
import subprocess
import time

from cluster import BUILD, DEPLOY, ROOT, WORK
from network import read, run, wait_for
from report import check, same, step, tell


def podman(*arguments):
    # What earlier runs have built is used again, and nothing of this machine's own containers is touched.
    return run("podman", "--root", os.path.join(BUILD, "containers"), "--runroot", os.path.join(BUILD, "containers-run"),
               *arguments, env={**os.environ, "CONTAINERS_CONF": os.path.join(DEPLOY, "testing/containers.conf")})


def build_images():
    """With this machine's network, which installs packages: before the test enters namespaces of its own."""
    step("builds the images")
    base = "debian:12-slim"
    try:
        podman("image", "exists", base)
    except RuntimeError:
        tell("no base image is pulled: debootstrap makes one of the same content")
        tree = os.path.join(BUILD, "base")
        shutil.rmtree(tree, ignore_errors=True)
        sources = run("apt-get", "indextargets", "--format", "$(REPO_URI) $(CODENAME) $(COMPONENT)", "Created-By: Packages")
        run("debootstrap", "--variant=minbase", "bookworm", tree, re.search("^(.*) bookworm main$", sources, re.M)[1])
        for kept_out in ("usr/share/doc", "usr/share/man", "usr/share/info", "usr/share/locale", "var/lib/apt/lists", "var/log",
                         "var/cache/apt"):
            for path in glob.glob(os.path.join(tree, kept_out, "*")):
                shutil.rmtree(path) if os.path.isdir(path) else os.remove(path)
        run("tar", "--directory", tree, "--create", "--file", tree + ".tar", ".")
        podman("import", tree + ".tar", base)
        shutil.rmtree(tree)
        os.remove(tree + ".tar")
    for name, file in (("marlu", "Containerfile"), ("marlu-site", "Containerfile.site")):
        podman("build", "--pull-never", "--network=host", "--file", os.path.join(DEPLOY, "container", file), "--tag", name, ROOT)


def check_schema():
    """With a validator from the npm registry, where there is npm."""
    if not shutil.which("npm"):
        tell("no npm here: the Kubernetes objects are not checked against their schema")
        return
    step("checks the Kubernetes objects against their schema")
    run("npm", "install", "--silent", "--no-audit", "--no-fund", "--prefix", os.path.join(BUILD, "schema"), "kubernetes-models@5",
        "js-yaml@4")
    print(run("node", "--input-type=module", "--eval", """
        import fs from "node:fs";
        import yaml from "js-yaml";
        for (const object of yaml.loadAll(fs.readFileSync(process.argv[1], "utf8"))) {
            const models = await import(`kubernetes-models/${object.apiVersion}/${object.kind}`);
            new models[object.kind](object).validate();
            console.log("   ", object.kind);
        }""", os.path.join(DEPLOY, "kubernetes/marlu.yaml"), cwd=os.path.join(BUILD, "schema")), end="")


def get(path):
    return subprocess.run(["curl", "-sf", "-m", "2", "http://127.0.0.1:8080" + path], stdout=subprocess.PIPE).stdout


def is_served():
    with open(os.path.join(ROOT, "site/style.css"), "rb") as file:
        return get("/style.css") == file.read()


def begin():
    run("ip", "link", "set", "lo", "up")
    for kind in ("pod", "container"):
        podman(kind, "rm", "--all", "--force")  # of a run that was cut off


def test_container(_):
    begin()
    safe = ("--network=host", "--read-only", "--tmpfs=/var/run:U", "--cap-drop=all", "--security-opt=no-new-privileges")
    site = f"--volume={ROOT}/site:/srv/www:ro"

    step("runs the image without root, capabilities and a writable file system, and stops it")
    began = time.monotonic()
    podman("run", "--detach", "--name=marlu", *safe, site, "marlu")
    wait_for(is_served, "the container serves")
    started = time.monotonic() - began
    size = int(podman("image", "inspect", "--format", "{{.Size}}", "localhost/marlu").split()[-1]) / 2**20
    inside = podman("--log-level=error", "exec", "marlu", "sh", "-c", "id -u; grep Cap /proc/1/status; touch /file /srv/www/file 2>&1; ls /usr/bin/*g++*"
                    " 2>&1; ldd /usr/lib/marlu/marluserver | grep 'not found'; :")
    check(inside.startswith("10001\n") and not re.search("Cap...:.*[1-9a-f]", inside), "no root, no capability", inside)
    same("read-only and without a compiler", len(re.findall("Read-only file system|No such file", inside)), 3)
    began = time.monotonic()
    podman("stop", "marlu")
    stopped = time.monotonic() - began
    tell(f"{size:.1f} MiB, started in {started:.1f} s, stopped in {stopped:.1f} s")
    check(size <= 90, "size of the image", size)
    check(started < 3 and stopped < 2, "start and stop in time")
    same("status of a stop", exit_status(), "0")
    check("GET /style.css" in podman("logs", "marlu"), "logs on standard output")

    step("tells a stop from a fault")
    podman("start", "marlu")
    wait_for(is_served, "the container serves")
    podman("exec", "--detach", "marlu", "sh", "-c", "kill -KILL $(cat /var/run/marluserver.pid)")
    wait_for(lambda: exit_status() != "running", "the container ends", 10)
    same("status of a killed daemon", exit_status(), "1")
    podman("rm", "--force", "marlu")
    bad = os.path.join(WORK, "bad.cfg")
    with open(bad, "w") as file:
        file.write("no configuration\n")
    podman("run", "--detach", "--name=marlu", *safe, f"--volume={bad}:/etc/marlu/marluserver.cfg:ro", "marlu")
    wait_for(lambda: exit_status() != "running", "the container ends", 10)
    same("status of a bad configuration", exit_status(), "1")
    check("Invalid configuration line" in podman("logs", "marlu"), "the reason in the log", podman("logs", "marlu"))
    podman("rm", "--force", "marlu")

    step("runs the image that holds its site")
    podman("run", "--detach", "--name=marlu", *safe, "marlu-site")
    wait_for(is_served, "the container serves")
    podman("rm", "--force", "marlu")


def exit_status():
    state, status = podman("inspect", "--format", "{{.State.Status}} {{.State.ExitCode}}", "marlu").split()[-2:]
    return status if state == "exited" else "running"


def test_kubernetes(_):
    manifest = os.path.join(DEPLOY, "kubernetes/marlu.yaml")
    begin()
    step("plays the Kubernetes objects with podman: one of the three replicas, as they would share this network and its ports")
    played = os.path.join(WORK, "marlu.yaml")
    with open(played, "w") as file:
        file.write(read(manifest).replace("replicas: 3", "replicas: 1"))
    podman("kube", "play", "--network=host", played)
    wait_for(is_served, "the pod serves")
    options = podman("inspect", "--format", "{{.HostConfig.ReadonlyRootfs}} {{.Config.User}} {{.EffectiveCaps}}",
                     "marlu-pod-0-marlu").splitlines()[-1]
    same("read-only, user, capabilities", options, "true 10001:10001 []")
    podman("kube", "down", played)
    wait_for(lambda: not is_served(), "the pod ends")
