# Configurations that are refused or odd, as marlu-check takes them from the daemon's own loader, and what it lists.
import os
import re
import shutil
import socket
import unittest

from harness import PROGRAMS, ROOT, TLS, WORK, cache_slot, make_certificates, read, run, write

CHECK = f"{PROGRAMS}/marlu-check"
SITE = f"{WORK}/site"
HTTP = f"website_path={SITE}/docs\nstart_http=y\n"
HTTPS = (f"website_path={SITE}/docs\nstart_https=y\nport_https=8443\ncipher_list=ALL:@SECLEVEL=1\n"
         f"crt_file={TLS}/good.crt\nkey_file={TLS}/good.key\n")
PUBLIC = f"{HTTP}public_site=y\naccess_log={WORK}/access.log\n"
MISSING = "The path to the file is incorrect. "


def setUpModule():
    make_certificates()
    write(f"{SITE}/docs/index.html", "hello")
    for number in range(100):  # more than the cache has slots
        write(f"{SITE}/{number}", "x" * (number * 37 % 101 + 1))


def check(settings, prefix=""):
    write(f"{WORK}/check.cfg", settings)
    return run(f"{prefix} {CHECK} config {WORK}/check.cfg")


class Config(unittest.TestCase):
    def test_names_the_first_thing_that_is_wrong(self):
        write(f"{TLS}/broken.pem", "-----BEGIN CERTIFICATE-----\n!\n-----END CERTIFICATE-----\n" + 1024 * "\n" +
              read(f"{TLS}/good.crt"))
        pem = f"{HTTPS}pem_file={TLS}"
        separate = f"website_path={SITE}\nstart_https=y\ncipher_list=ALL\n"
        crt, key = f"crt_file={TLS}/good.crt\n", f"key_file={TLS}/good.key\n"
        cases = [
            ("port_http\n", "Invalid configuration line: port_http"),
            (HTTP + " # not in column one", "Invalid configuration line:  # not in column one"),
            (HTTP + "port=81\r\n\r\n", "Invalid configuration line: \r"),
            ("start_http=y", "Unable to open configuration file: not found [website_path]"),
            ("website_path= \nport=x", "Unable to open configuration file: [website_path] is empty"),
            (HTTP + "start_http=n\nport=x", "No permission to start any server: start_http and/or start_https"),
            (HTTP + "port=8o80\nport_http=x", "Value is not a number. [port]"),
            (HTTP + "port_http=81\nport_https=-1", "Value is not a number. [port_https]"),
            (HTTP + "port=2147483648", "stoi"),
            ("use_log_https=y\nlog_file_https=/run", "Failed to open log file: /run - Is a directory"),
            (HTTPS + "pem_file=.", MISSING + "File missing. [pem_file]"),
            (pem + "/good.key", "PEM is missing certificate [pem_file]"),
            (pem + "/good.crt", "PEM is missing a key [pem_file]"),
            (pem + "/broken.pem", "PEM is missing a key [pem_file]"),
            (separate + "pem_file=\ncrt_file=/none", "One of the items is missing: crt_file and/or key_file"),
            (separate + "crt_file=/none\nkey_file=", "File path not specified: crt_file and/or key_file"),
            (separate + "crt_file=/none\nkey_file=/none", MISSING + "File missing. [crt_file]"),
            (separate + crt + "key_file=/none", MISSING + "File missing. [key_file]"),
            (separate + crt + key + "chain_file=/none", MISSING + "File missing. [chain_file]"),
            (HTTPS + "cipher_list=\nport=x", "The list of ciphers is incorrect. [cipher_list]"),
            (pem + "/mismatch.pem", "Private Key does not match the Certificate"),
            (HTTPS + f"key_file={TLS}/root.key", "Failed to load certificate or private key"),
            (HTTPS + "cipher_list=none", "Error installing cipher list: none"),
            (HTTPS + "cache_ignore=/run", MISSING + "[cache_ignore]"),
            (HTTPS + "start_http=y\nport=73979", "[port_http] and [port_https] are equal: only one server can bind it"),
            (PUBLIC + "website_path=/none", "Failed to open the website: No such file or directory"),
            (PUBLIC + "access_log=/dev/null", "The access log is not a regular file. [access_log]"),
            (PUBLIC + "access_log=/none/log", "Failed to open log file: /none/log - No such file or directory"),
            (PUBLIC + "trusted_proxy=::1, 10.0.0", "Not an IP address: 10.0.0 [trusted_proxy]"),
            (PUBLIC + "headers_file=/run", MISSING + "File missing. [headers_file]"),
            (HTTPS + PUBLIC + f"key_file={TLS}/weak.key", "Private Key does not match the Certificate"),
            (HTTPS, "Failed to create RAW socket", "setpriv --bounding-set -net_raw"),
            (HTTPS + "port_https=443", "Port 443: Permission denied", "setpriv --bounding-set -net_bind_service"),
        ]
        for settings, error, *prefix in cases:
            self.assertEqual(check(settings, *prefix), ("", f"{error}\n", 1), settings)
        self.assertEqual(run(f"{CHECK} config /none"), ("", "Unable to open configuration file: /none\n", 1))
        for line, error in (("*.html", "it is not PATTERN Name: value"), ("* X y: 1", 'no header has the name "X y"'),
                            ("* X:", "the value is not printable ASCII"), ("* X: \1", "the value is not printable ASCII"),
                            ("* dATE: 1", "the server itself makes the header dATE")):
            write(f"{WORK}/headers", f"# note\n\n\t*.html X-a: b: c\n{line}\n* :")
            error = f"Line 4 of the headers file: {error}. [headers_file]\n"
            self.assertEqual(check(PUBLIC + f"headers_file={WORK}/headers"), ("", error, 1), line)

    def test_has_the_logs_that_the_daemon_could_open(self):
        run("mkdir -m 1777 sticky && touch sticky/foreign && chown 1 sticky/foreign && "
            "ln -s new.log to_new && ln -s none/log to_none && ln -s loop loop", cwd=WORK)
        for name in ("to_new", "to_none", "loop", "none/log", "sticky/foreign", "sticky/new"):
            path, error = f"{WORK}/{name}", ""
            was_there = os.path.exists(path)
            checked = check(f"{HTTP}use_log=y\nlog_file={path}\n"), run(f"{CHECK} wait {WORK}/check.cfg")
            self.assertEqual(os.path.exists(path), was_there, path)
            try:
                os.close(os.open(path, os.O_WRONLY | os.O_CREAT))  # as the daemon does
            except OSError as failure:
                error = f"Failed to open log file: {path} - {os.strerror(failure.errno)}\n"
            self.assertEqual([result[1:] for result in checked], 2 * [(error, int(error != ""))], path)

    def test_is_summed_up_with_a_warning_of_what_nobody_wants(self):
        run(f"ln -s {SITE} link; ln -s {SITE} si; mkfifo pipe; mkdir 'My Site' site/docs/old site/docs/older", cwd=WORK)
        write(f"{WORK}/list", run(f"{CHECK} list {SITE}")[0])
        one, two = f"log_file={WORK}/new.log\n", f"log_file_http={WORK}/other.log\n"
        to_one, to_two = f"port 80, log {WORK}/new.log", f"port 80, log {WORK}/other.log"
        self.enterContext(socket.create_server(("", 81)))  # that a port is in use now does not count
        cases = [  # settings, what the summary holds, the warnings
            (f"# note\n\n \tWebsite_Path = {WORK}/My Site \nSTART_HTTP=yes", f" {WORK}/My Site\n", ""),
            (HTTP + "PORT=81\nport=82\r\n#port=83", "port 82", ""),
            (HTTP + "port_http=070000\nport=81", "port 70000", "[port_http] 70000 is no port"),
            (HTTP + "prot=81", "port 80", "unknown key [prot]"),
            (HTTP + "use_log=yes\n" + one + two, to_one, ""),
            (HTTP + "use_log=n\nuse_log_http=y\n" + two, to_two, ""),
            (HTTP + "use_log=Yes\n" + one, "log off", "[use_log] is neither yes"),
            (HTTP + "use_log_http=no\nuse_log=y\n" + one + two, "log off", ""),
            (HTTP + "use_log=y\nuse_log_http=y\n" + one, "log off", ""),
            (HTTP + f"use_log=y\nlog_file={WORK}/pipe", "", "the daemon waits"),
            (HTTPS + f"website_path={SITE}//", f" {SITE}/\n", "[cache_ignore]\npublic_site=yes"),
            (HTTP + f"website_path={WORK}/si", f" {WORK}/si\n", ""),
            (HTTP + f"website_path={WORK}/link/", f" {WORK}/link\n", "[website_path] is not canonical\npublic_site=yes"),
            (HTTP + f"website_path={SITE}/docs/old", "", f"[website_path] {SITE}/docs/older begins with it\npublic_site=yes"),
            (HTTPS + f"public_site=y\nwebsite_path={WORK}/link/.", "served       as a public site\naccess log   off\n",
             "[access_log] is missing"),
            (HTTP + "https_only=y", "", "[https_only] has no effect without public_site=yes"),
            (PUBLIC + "https_only=y\ntrusted_proxy=::FFFF:1.2.3.4,::1", f"access log   {WORK}/access.log\n",
             "[https_only] HTTP redirects to HTTPS"),
            (HTTP + "website_path=C:\\", " C:\n", "[website_path] is no directory"),
            (HTTP + "website_path=/", "website      \n", "[website_path] is the root directory"),
            (HTTPS, "not cached   0 files", ""),
            (HTTPS + f"website_path={SITE}", "not cached   0 files", "[cache_ignore] \npublic_site=yes"),
            (HTTPS + f"website_path={SITE}\ncache_ignore={WORK}/list", f"{len(read(f'{WORK}/list').split())} files", ""),
            (HTTPS + "start_http=y\nport=0\nport_https=0", "port 0", "[port_http] 0 is\n[port_https] 0 is"),
            (HTTPS + f"crt_file={TLS}/expired.crt", "CN = good, ", "the certificate has expired"),
            (HTTPS + f"key_file={TLS}/weak.key", "", "the private key is not of the certificate's type"),
        ]
        for settings, summary, warning in cases:
            output, errors, status = check(settings)
            self.assertRegex(output, rf"\AOK\n(?=website  )(.*\n)*.*{re.escape(summary)}", settings)
            lines = "".join(f"warning: {re.escape(line)}.*\n" for line in warning.splitlines())
            self.assertRegex(errors, rf"\A{lines}\Z", settings)
            self.assertEqual(status, 0, settings)


    def test_knows_the_keys_of_the_manual(self):
        keys = check(HTTP + "x=")[1].rpartition("the keys are ")[2].split()
        page = read(f"{ROOT}/packaging/man/marluserver.cfg.5")
        self.assertEqual(sorted(keys), sorted(re.findall(r"^\.It Ic (\w+)$", page, re.MULTILINE)))


class List(unittest.TestCase):
    def test_leaves_the_largest_file_of_each_slot_in_the_cache(self):
        site = f"{WORK}/listed"
        shutil.copytree(SITE, site)
        write(f"{site}/empty", "")
        write(f"{site}/a b", "blank")
        for target, link in (("/etc/passwd", "out"), ("none", "broken"), ("..", "docs/up"), ("0", "link")):
            os.symlink(target, f"{site}/{link}")
        output, errors, status = result = run(f"{CHECK} list {site}/docs/..")
        self.assertEqual(run(f"{CHECK} list {site}"), result)
        self.assertEqual((re.sub(": .+", "", errors), status), ("a b\nbroken\nempty\nout\n", 0))
        listed = output.splitlines()
        self.assertEqual(listed, sorted(listed))
        kept, largest = {}, {}  # bytes in each slot
        for name in map(str, range(100)):
            slot, size = cache_slot(f"{site}/{name}"), os.path.getsize(f"{site}/{name}")
            largest[slot] = max(largest.get(slot, 0), size)
            if name not in listed:
                self.assertNotIn(slot, kept)
                kept[slot] = size
        self.assertEqual(kept, largest)

    def test_leaves_what_fits_into_the_cache(self):
        site = f"{WORK}/large"
        for name, size in (("a", 129 << 20), ("b", 127 << 20)):
            write(f"{site}/{name}", "")
            os.truncate(f"{site}/{name}", size)
        self.assertEqual(run(f"{CHECK} list {site}"), ("", "", 0))
        write(f"{site}/c", "c")
        self.assertEqual(run(f"{CHECK} list {site}"), ("a\n", "", 0))
        run("head -c 2000 /dev/zero | tee new.css old.js >none.html && touch -d 2020-01-01 old.js.gz && touch new.css.br",
            cwd=site)
        told = [line.partition(":")[0] for line in run(f"{CHECK} list {site}")[1].splitlines() if "compressed" in line]
        self.assertEqual(told, ["none.html", "old.js"])
