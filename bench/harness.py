#!/usr/bin/python3
"""The comparisons of bench/run: quill_cloud against the standard tools, on 127.0.0.1.

Started by bench/run once the bench programs are built. Sets up nginx and quill-fileservice in a
temporary directory, runs every comparison several rounds (ours and theirs alternating, the order
swapped each round), prints a table of medians, spreads and ratios and writes it as Markdown and
JSON. Every process started here is stopped before it returns, also on errors and signals.

Exit status: 0 when every run succeeded (whether or not a target was met), 1 when a run or a
server failed.
"""

import argparse
import datetime
import filecmp
import json
import os
import platform
import pwd
import re
import select
import shlex
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time

GIB = 1024**3
MIB = 1024**2
RUN_TIMEOUT = 600  # seconds; nothing here takes nearly that long
CURL = "/usr/bin/curl"
NGINX = "/usr/sbin/nginx"
GNU_TIME = "/usr/bin/time"
VIPS = "/usr/bin/vips"
VIPSTHUMBNAIL = "/usr/bin/vipsthumbnail"
CONVERT = "/usr/bin/convert-im6.q16"
ARIA2C = "/usr/bin/aria2c"


class BenchError(Exception):
    pass


class Run:
    """One measured process: wall seconds, CPU seconds (user+system), peak RSS in bytes, and the page
    faults it took (minor ones: memory the kernel had to hand out, each a trip into the kernel), and
    its voluntary and involuntary context switches (threads handing work to each other show there)."""

    def __init__(self, wall, cpu, rss, output, faults=0, vcs=0, ivcs=0):
        self.wall = wall
        self.cpu = cpu
        self.rss = rss
        self.output = output
        self.faults = faults
        self.vcs = vcs
        self.ivcs = ivcs

    def json_output(self):
        for line in self.output.splitlines():
            if line.startswith("{"):
                return json.loads(line)
        return {}


def measure(cmd, log, env=None, cwd=None):
    """Runs cmd to completion and measures it from outside: wall and CPU time with wait4, peak memory
    and page faults with GNU time.

    The peak memory that wait4 reports for a child of this Python process counts the Python
    process's own pages, which the child holds until it calls exec (about 28 MiB), so every program
    seemed to peak at that. GNU time starts the program from a process of about a megabyte.
    """
    out_path = log + ".out"
    rss_path = log + ".rss"
    with open(out_path, "w") as out, open(log + ".err", "w") as err:
        start = time.perf_counter()
        proc = subprocess.Popen([GNU_TIME, "-f", "%M %R", "-o", rss_path] + list(cmd), stdout=out, stderr=err,
                                env=env, cwd=cwd)
        timer = threading.Timer(RUN_TIMEOUT, proc.kill)
        timer.start()
        try:
            _, status, usage = os.wait4(proc.pid, 0)
        except BaseException:
            proc.kill()  # interrupted: nothing started here outlives the harness
            proc.wait()
            raise
        finally:
            timer.cancel()
        wall = time.perf_counter() - start
        proc.returncode = os.waitstatus_to_exitcode(status)
    with open(out_path) as out:
        output = out.read()
    if proc.returncode != 0:
        with open(log + ".err") as err:
            tail = err.read()[-2000:]
        raise BenchError("%s exited with %d:\n%s%s" % (" ".join(cmd[:4]), proc.returncode, output[-1000:], tail))
    with open(rss_path) as rss:
        # The last line; a line about the exit status may come before it.
        peak_kib, faults = (int(field) for field in rss.read().splitlines()[-1].split())
    return Run(wall, usage.ru_utime + usage.ru_stime, peak_kib * 1024, output, faults, usage.ru_nvcsw,
               usage.ru_nivcsw)


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def wait_for_port(port, proc, what, limit=20.0):
    deadline = time.monotonic() + limit
    while time.monotonic() < deadline:
        if proc.poll() is not None:
            raise BenchError("%s exited at start (status %d)" % (what, proc.returncode))
        try:
            with socket.create_connection(("127.0.0.1", port), timeout=0.5):
                return
        except OSError:
            time.sleep(0.05)
    raise BenchError("%s did not listen on port %d within %.0f s" % (what, port, limit))


def read_through(path):
    """Reads a file so that the next run finds it in the page cache."""
    with open(path, "rb", buffering=0) as f:
        while f.read(8 * MIB):
            pass


def fresh_dir(base, name):
    path = os.path.join(base, name)
    shutil.rmtree(path, ignore_errors=True)
    os.makedirs(path)
    return path


def median(values):
    return statistics.median(values) if values else float("nan")


def spread(values):
    """(max - min) / median, in percent."""
    if len(values) < 2:
        return 0.0
    m = median(values)
    return 100.0 * (max(values) - min(values)) / m if m else 0.0


class Servers:
    """nginx (static files, PUT, multipart and signature routes) and quill-fileservice."""

    def __init__(self, work, build_dir):
        self.work = work
        self.build_dir = build_dir
        self.procs = []
        self.nginx_dir = os.path.join(work, "nginx")
        self.www = os.path.join(work, "www")
        os.makedirs(self.nginx_dir)
        os.makedirs(self.www)
        # nginx never runs as root here: its workers would change to an unprivileged user anyway,
        # so it is started as one from the start, and everything it touches is made readable.
        # Bytes of every file under /paced/ served at full speed before the rest is held to
        # paced_rate; None: no paced location.
        self.paced_after = None
        self.paced_rate = "64m"
        self.drop_to = None
        if os.geteuid() == 0:
            self.drop_to = pwd.getpwnam("nobody")
            os.chmod(work, 0o755)
            os.chown(self.nginx_dir, self.drop_to.pw_uid, self.drop_to.pw_gid)

    def make_certificates(self):
        tls = os.path.join(self.work, "tls")
        os.makedirs(tls)
        self.ca = os.path.join(tls, "ca.pem")
        self.cert = os.path.join(tls, "server.pem")
        self.key = os.path.join(tls, "server.key")
        ext = os.path.join(tls, "ext.cnf")
        with open(ext, "w") as f:
            f.write("subjectAltName=IP:127.0.0.1,DNS:localhost\nbasicConstraints=CA:FALSE\n")

        def ossl(*args):
            subprocess.run(["openssl", *args], check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

        ossl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=quill bench CA",
             "-keyout", os.path.join(tls, "ca.key"), "-out", self.ca)
        ossl("req", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=127.0.0.1", "-keyout", self.key,
             "-out", os.path.join(tls, "server.csr"))
        ossl("x509", "-req", "-in", os.path.join(tls, "server.csr"), "-CA", self.ca, "-CAkey",
             os.path.join(tls, "ca.key"), "-CAcreateserial", "-days", "2", "-extfile", ext, "-out", self.cert)
        for path in (self.cert, self.key, self.ca):
            os.chmod(path, 0o644)
        os.chmod(tls, 0o755)

    def start(self):
        self.make_certificates()
        self.start_fileservice()
        self.start_nginx()

    def start_fileservice(self):
        data = os.path.join(self.work, "fileservice")
        os.makedirs(data)
        program = os.path.join(self.build_dir, "tools", "fileservice", "quill-fileservice")
        err = open(os.path.join(self.work, "fileservice.log"), "w")
        proc = subprocess.Popen([program, "--tls", "--port", "0", "--data", data, "--cert", self.cert, "--key",
                                 self.key], stdout=subprocess.PIPE, stderr=err, text=True)
        self.procs.append(proc)
        ready, _, _ = select.select([proc.stdout], [], [], 20)
        line = proc.stdout.readline().strip() if ready else ""
        if not line.isdigit():
            raise BenchError("quill-fileservice did not print its port")
        self.fileservice_port = int(line)

    def start_nginx(self):
        self.http_port = free_port()
        self.https_port = free_port()
        self.reply_port = free_port()
        d = self.nginx_dir
        temp = "".join("  %s_temp_path %s/%s;\n" % (kind, d, kind)
                       for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        # Upload routes read the whole request body (proxy buffering spools it, as it would for any
        # upstream) and only then ask the reply server, without the body, for the file service's
        # answer. The signature route goes to quill-fileservice itself, which signs a URL of the
        # PUT location here.
        body_sink = """
      client_max_body_size 0;
      proxy_request_buffering on;
      proxy_pass_request_body off;
      proxy_set_header Content-Length "";
      proxy_set_header Content-Type "";
      proxy_method GET;
"""
        paced = ""
        if self.paced_after is not None:
            paced = f"""    location /paced/ {{
      alias {self.www}/;
      limit_rate_after {self.paced_after};
      limit_rate {self.paced_rate};
    }}"""
        config = f"""
worker_processes 1;
daemon off;
pid {d}/nginx.pid;
error_log {d}/error.log warn;
events {{ worker_connections 512; }}
http {{
  access_log off;
  sendfile on;
  tcp_nopush on;
  keepalive_requests 100000;
  default_type application/octet-stream;
{temp}
  server {{
    listen 127.0.0.1:{self.http_port};
    root {self.www};
{paced}
  }}
  server {{
    listen 127.0.0.1:{self.https_port} ssl;
    ssl_certificate {self.cert};
    ssl_certificate_key {self.key};
    root {self.www};
    location = /file/uploadImg.action {{
{body_sink}
      proxy_pass http://127.0.0.1:{self.reply_port}/reply/image;
    }}
    location /objects/ {{
{body_sink}
      proxy_pass http://127.0.0.1:{self.reply_port}/reply/put;
    }}
    location = /file/uploadBySignature.action {{
      proxy_pass https://127.0.0.1:{self.fileservice_port};
      proxy_set_header Host $http_host;
      proxy_ssl_verify off;
    }}
  }}
  server {{
    listen 127.0.0.1:{self.reply_port};
    default_type application/json;
    location = /reply/image {{ return 200 '{{"code":0,"path":"//127.0.0.1:{self.https_port}/files/bench.jpg"}}'; }}
    location /reply/put {{ return 200 '{{"code":0}}'; }}
  }}
}}
"""
        conf = os.path.join(d, "nginx.conf")
        with open(conf, "w") as f:
            f.write(config)
        drop = self.drop_to

        def demote():
            if drop is not None:
                os.setgid(drop.pw_gid)
                os.setgroups([])
                os.setuid(drop.pw_uid)

        err = open(os.path.join(self.work, "nginx.log"), "w")
        proc = subprocess.Popen([NGINX, "-p", d, "-c", conf, "-e", d + "/error.log"], stdout=err, stderr=err,
                                preexec_fn=demote)
        self.procs.append(proc)
        for port in (self.http_port, self.https_port, self.reply_port):
            wait_for_port(port, proc, "nginx")

    def store_in_fileservice(self, path, key):
        """Makes `path` the stored file /files/<key> of quill-fileservice (a hard link, or a copy)."""
        files = os.path.join(self.work, "fileservice", "files")
        os.makedirs(files, exist_ok=True)
        target = os.path.join(files, key)
        if not os.path.exists(target):
            try:
                os.link(path, target)
            except OSError:
                shutil.copyfile(path, target)
        return "https://127.0.0.1:%d/files/%s" % (self.fileservice_port, key)

    def publish(self, path, name):
        """Makes `path` servable as /name (a hard link, or a copy across file systems)."""
        target = os.path.join(self.www, name)
        os.makedirs(os.path.dirname(target), exist_ok=True)
        try:
            os.link(path, target)
        except OSError:
            shutil.copyfile(path, target)
        os.chmod(target, 0o644)
        return name

    def stop(self):
        for proc in reversed(self.procs):
            if proc.poll() is None:
                proc.send_signal(signal.SIGTERM if proc.args[0] != NGINX else signal.SIGQUIT)
        for proc in reversed(self.procs):
            try:
                proc.wait(timeout=10)
            except subprocess.TimeoutExpired:
                proc.kill()
                proc.wait()
        self.procs = []


def make_random_file(path, size):
    chunk = os.urandom(4 * MIB)
    with open(path, "wb") as f:
        left = size
        while left > 0:
            n = min(left, len(chunk))
            f.write(chunk[:n])
            left -= n
            # Vary the content a little so that no layer can deduplicate it.
            chunk = chunk[1:] + chunk[:1]


def make_photo(work, path):
    """A 4000x3000 colour JPEG with photo-like detail (smoothed noise), about 4 MB."""
    parts = []
    for band in range(3):
        noise = os.path.join(work, "noise%d.v" % band)
        subprocess.run([VIPS, "gaussnoise", noise, "1000", "750", "--mean", "128", "--sigma", "70"], check=True)
        parts.append(noise)
    joined = os.path.join(work, "joined.v")
    subprocess.run([VIPS, "bandjoin", " ".join(parts), joined], check=True)
    big = os.path.join(work, "big.v")
    subprocess.run([VIPS, "resize", joined, big, "4"], check=True)
    subprocess.run([VIPS, "copy", big, path + "[Q=90]", "--interpretation", "srgb"], check=True)
    for p in parts + [joined, big]:
        os.remove(p)


def make_avatars(work, photo, count):
    """`count` JPEG avatars of 20 to 100 KB, cut from the photo at several sizes and qualities."""
    made = []
    variants = [(side, q) for side in (300, 360, 420, 480, 560, 640) for q in (60, 75, 90)]
    for i, (side, quality) in enumerate(variants):
        path = os.path.join(work, "avatar-src-%d.jpg" % i)
        left, top = (i * 137) % (4000 - side), (i * 211) % (3000 - side)
        subprocess.run([VIPS, "crop", photo, path + "[Q=%d]" % quality, str(left), str(top), str(side), str(side)],
                       check=True)
        if 20_000 <= os.path.getsize(path) <= 100_000:
            made.append(path)
        else:
            os.remove(path)
    if not made:
        raise BenchError("no avatar of 20 to 100 KB could be made")
    return [made[i % len(made)] for i in range(count)]


class Bench:
    def __init__(self, args):
        self.args = args
        self.quick = args.quick
        self.rounds = 1 if self.quick else args.rounds
        self.build_dir = os.path.abspath(args.build_dir)
        self.ours = os.path.join(self.build_dir, "bench", "quill-bench-transfer")
        self.layers = os.path.join(self.build_dir, "bench", "quill-bench-layers")
        self.scheduler = os.path.join(self.build_dir, "bench", "quill-bench-scheduler")
        self.work = tempfile.mkdtemp(prefix="quill-bench-", dir=args.work_dir)
        self.servers = Servers(self.work, self.build_dir)
        self.logs = os.path.join(self.work, "logs")
        os.makedirs(self.logs)
        # Small files served from and written to tmpfs: the disk's noise out of the comparison.
        self.tmpfs = tempfile.mkdtemp(prefix="quill-bench-", dir="/dev/shm") if os.path.isdir("/dev/shm") else None
        self.samples = {}  # name -> list of Run
        self.results = []
        self.failures = []
        self.big_size = (64 * MIB) if self.quick else GIB
        if self.quick:
            self.servers.paced_after = self.big_size - 8 * MIB
        self.small_count = 100 if self.quick else 1000
        self.avatar_count = 100 if self.quick else 1000
        self.scale_count = 3 if self.quick else 5
        self.cut_every = self.big_size // 8
        self.curl_resume = None  # what became of curl --retry 10 -C - on the cut download
        self.curl_wall = None
        self.only = set(args.only.split(",")) if args.only else None
        self.env = dict(os.environ)
        self.env["QUILL_LOG_LEVEL"] = "OFF"
        self.env.pop("QUILL_LOG_FILE", None)
        for proxy in ("http_proxy", "https_proxy", "HTTP_PROXY", "HTTPS_PROXY", "ALL_PROXY", "all_proxy"):
            self.env.pop(proxy, None)
        self.env["NO_PROXY"] = "127.0.0.1,localhost"

    def selected(self, step):
        return self.only is None or step in self.only

    # -- running ------------------------------------------------------------------------------

    def run(self, name, cmd, prepare=None, check=None):
        if prepare:
            prepare()
        os.sync()
        n = len(self.samples.setdefault(name, []))
        if self.args.profile and name.endswith("-ours"):
            # Timings taken under perf are for reading the profile, not for the table.
            cmd = ["perf", "record", "-q", "-g", "-o", os.path.join(self.logs, "%s-%d.perf.data" % (name, n)),
                   "--"] + cmd
        try:
            result = measure(cmd, os.path.join(self.logs, "%s-%d" % (name, n)), env=self.env)
            if check:
                check(result)
        except BenchError as error:
            self.failures.append("%s: %s" % (name, error))
            print("  FAILED %s: %s" % (name, error), file=sys.stderr)
            return None
        self.samples[name].append(result)
        return result

    def pair(self, round_index, first, second):
        """Runs two (name, cmd, prepare, check) tuples, swapping their order on odd rounds."""
        order = [first, second] if round_index % 2 == 0 else [second, first]
        for name, cmd, prepare, check in order:
            self.run(name, cmd, prepare, check)

    # -- set-up ---------------------------------------------------------------------------------

    def prepare_data(self):
        data = os.path.join(self.work, "data")
        os.makedirs(data)
        os.chmod(data, 0o755)
        self.big = os.path.join(data, "big.bin")
        make_random_file(self.big, self.big_size)
        os.chmod(self.big, 0o644)
        self.big_jpg = os.path.join(data, "upload.jpg")
        os.link(self.big, self.big_jpg)
        self.servers.publish(self.big, "big.bin")
        small_dir = os.path.join(data, "small")
        os.makedirs(small_dir)
        self.small_urls = []
        for i in range(self.small_count):
            path = os.path.join(small_dir, "f%04d.bin" % i)
            with open(path, "wb") as f:
                f.write(os.urandom(16 * 1024))
            self.servers.publish(path, "small/f%04d.bin" % i)
            self.small_urls.append("http://127.0.0.1:%d/small/f%04d.bin" % (self.servers.http_port, i))
        self.small_tmpfs_urls = []
        if self.tmpfs:
            # The same bytes on tmpfs, served through a link in nginx's root (nginx follows links).
            served = os.path.join(self.tmpfs, "small")
            shutil.copytree(small_dir, served)
            os.chmod(self.tmpfs, 0o755)
            os.chmod(served, 0o755)
            os.symlink(served, os.path.join(self.servers.www, "small-tmpfs"))
            self.small_tmpfs_urls = [u.replace("/small/", "/small-tmpfs/") for u in self.small_urls]
        self.photo = os.path.join(data, "photo.jpg")
        make_photo(data, self.photo)
        os.chmod(self.photo, 0o644)
        self.avatar_urls = []
        for i, source in enumerate(make_avatars(data, self.photo, self.avatar_count)):
            name = "avatars/a%04d.jpg" % i
            self.servers.publish(source, name)
            self.avatar_urls.append("http://127.0.0.1:%d/%s" % (self.servers.http_port, name))
        self.avatar_bytes = [os.path.getsize(os.path.join(self.servers.www, "avatars/a%04d.jpg" % i))
                             for i in range(len(self.avatar_urls))]
        self.lists = {}
        for kind, urls in (("small", self.small_urls), ("small-tmpfs", self.small_tmpfs_urls),
                           ("avatars", self.avatar_urls)):
            listing = os.path.join(data, kind + ".txt")
            with open(listing, "w") as f:
                f.write("\n".join(urls) + "\n")
            self.lists[kind] = listing

    def out(self, name):
        return fresh_dir(self.work, "out-" + name)

    def clean_outputs(self):
        for entry in os.listdir(self.work):
            if entry.startswith("out-"):
                shutil.rmtree(os.path.join(self.work, entry), ignore_errors=True)

    # -- comparisons ----------------------------------------------------------------------------

    def expect_file(self, path, size):
        def check(_):
            got = os.path.getsize(path) if os.path.exists(path) else -1
            if got != size:
                raise BenchError("%s has %d bytes, expected %d" % (path, got, size))
        return check

    def expect_files(self, directory, count):
        def check(_):
            got = len(os.listdir(directory)) if os.path.isdir(directory) else 0
            if got != count:
                raise BenchError("%s holds %d files, expected %d" % (directory, got, count))
        return check

    def downloads(self, r):
        s = self.servers
        for scheme, port in (("http", s.http_port), ("https", s.https_port)):
            url = "%s://127.0.0.1:%d/big.bin" % (scheme, port)
            ours_dir = os.path.join(self.work, "out-dl-ours")
            theirs_dir = os.path.join(self.work, "out-dl-curl")

            def prep(d):
                return lambda: (self.clean_outputs(), fresh_dir(self.work, os.path.basename(d)), read_through(self.big))

            self.pair(
                r,
                ("download-%s-ours" % scheme, [self.ours, "download", url, ours_dir, "big.bin"], prep(ours_dir),
                 self.expect_file(os.path.join(ours_dir, "big.bin"), self.big_size)),
                ("download-%s-curl" % scheme,
                 [CURL, "-sS", "--fail", "--cacert", s.ca, "-o", os.path.join(theirs_dir, "big.bin"), url],
                 prep(theirs_dir), self.expect_file(os.path.join(theirs_dir, "big.bin"), self.big_size)))

    def progress(self, r):
        # At full size the download lasts far longer than the 50 ms between progress reports, so
        # reports are certain. The quick run's 64 MiB can arrive within one such interval: there
        # the last 8 MiB come from a paced location at 64 MiB/s, which keeps the transfer going
        # for at least 125 ms with the percentage still rising, so that at least one report falls
        # inside it whatever the machine's speed. Both sides of the pair fetch the same URL.
        path = "/paced/big.bin" if self.quick else "/big.bin"
        url = "http://127.0.0.1:%d%s" % (self.servers.http_port, path)
        d = os.path.join(self.work, "out-progress")

        def prep():
            self.clean_outputs()
            fresh_dir(self.work, "out-progress")
            read_through(self.big)

        check = self.expect_file(os.path.join(d, "big.bin"), self.big_size)

        def check_reports(run):
            check(run)
            if run.json_output().get("progressReports", 0) < 1:
                raise BenchError("the progress callback was never called")

        # Two pairs a round: the difference looked for (2%) is far below the run-to-run spread of
        # writing 1 GiB on this kind of machine, so this comparison gets twice the samples.
        for _ in range(1 if self.quick else 2):
            self.pair(r, ("progress-none", [self.ours, "download", url, d, "big.bin"], prep, check),
                      ("progress-set", [self.ours, "download", url, d, "big.bin", "--progress"], prep,
                       check_reports))

    def uploads(self, r):
        s = self.servers
        base = "https://127.0.0.1:%d" % s.https_port
        prep = lambda: (self.clean_outputs(), read_through(self.big))

        def check_ours(run):
            reply = run.json_output()
            if not reply.get("ok") or reply.get("bytes") != self.big_size:
                raise BenchError("unexpected reply %s" % reply)

        fields = []
        for name, value in (("appId", "bench-app"), ("pin", "bench-pin"), ("aid", "bench-aid"), ("clientType", "pc")):
            fields += ["-F", "%s=%s" % (name, value)]
        self.pair(
            r, ("upload-multipart-ours", [self.ours, "upload", "image", self.big_jpg], prep, check_ours),
            ("upload-multipart-curl", [CURL, "-sS", "--fail", "--cacert", s.ca, *fields, "-F",
                                       "upload=@%s;type=image/jpeg" % self.big_jpg, "-o", "/dev/null",
                                       base + "/file/uploadImg.action"], prep, None))
        self.pair(
            r, ("upload-put-ours", [self.ours, "upload", "signed", self.big], prep, check_ours),
            ("upload-put-curl", [CURL, "-sS", "--fail", "--cacert", s.ca, "-T", self.big, "-o", "/dev/null",
                                 base + "/objects/curl-upload.bin"], prep, None))

    def resumes(self, r):
        """One big download through connections cut every eighth of the file by quill-fileservice
        (every 128 MiB of 1 GiB): ours against aria2c, and ours uncut as the baseline. curl with
        --retry 10 -C - is tried once: it does not retry a transfer closed early (exit 18)."""
        whole = self.servers.store_in_fileservice(self.big, "big.bin")
        self.cut_every = self.big_size // 8
        cut = whole + "?quill_cut_every=%d" % self.cut_every
        d = os.path.join(self.work, "out-resume")
        out = os.path.join(d, "big.bin")

        def prep():
            self.clean_outputs()
            fresh_dir(self.work, "out-resume")
            read_through(self.big)

        check = self.expect_file(out, self.big_size)

        def check_same(run):
            check(run)
            if not filecmp.cmp(out, self.big, shallow=False):
                raise BenchError("%s differs from the served file" % out)

        aria2 = [ARIA2C, "-q", "--allow-overwrite=true", "--max-tries=10", "--retry-wait=1", "--ca-certificate",
                 self.servers.ca, "-d", d, "-o", "big.bin", cut]
        self.pair(r, ("resume-cut-ours", [self.ours, "download", cut, d, "big.bin"], prep, check_same),
                  ("resume-cut-aria2c", aria2, prep, check_same))
        self.run("resume-uncut-ours", [self.ours, "download", whole, d, "big.bin"], prep, check)
        if r == 0:
            prep()
            try:
                run = measure([CURL, "-sS", "--retry", "10", "-C", "-", "--cacert", self.servers.ca, "-o", out,
                               cut], os.path.join(self.logs, "resume-cut-curl"), env=self.env)
                self.curl_wall = run.wall
                self.curl_resume = "completed, %d bytes in %.3f s" % (os.path.getsize(out), run.wall)
            except BenchError as error:
                got = os.path.getsize(out) if os.path.exists(out) else 0
                code = re.search(r"exited with (-?\d+)", str(error))
                self.curl_resume = "did not complete: exit %s with %d of %d bytes" % (
                    code.group(1) if code else "?", got, self.big_size)

    def curl_parallel(self, urls, directory):
        config = os.path.join(self.work, "curl-%s.cfg" % os.path.basename(directory))
        with open(config, "w") as f:
            for url in urls:
                f.write('url = "%s"\noutput = "%s/%s"\n' % (url, directory, url.rsplit("/", 1)[1]))
        return [CURL, "-sS", "--fail", "--parallel", "--parallel-max", "4", "-K", config]

    def kept_dir(self, name, r, base=None):
        """A fresh output directory of small files, left in place until the whole run ends.

        Deleting a thousand files just before a run made the next run's file creation pay for it
        (ext4 skips recently freed inodes while it allocates), which swung these comparisons by
        more than 100% depending on what ran before; nothing is deleted between these runs now.
        """
        path = os.path.join(base or self.work, "kept-%s-%d" % (name, r))
        shutil.rmtree(path, ignore_errors=True)
        os.makedirs(path)
        return path

    def many(self, r):
        self.many_pair(r, "many", self.small_urls, self.lists["small"], self.work)
        if self.tmpfs:
            self.many_pair(r, "many-tmpfs", self.small_tmpfs_urls, self.lists["small-tmpfs"], self.tmpfs)

    def many_pair(self, r, name, urls, listing, base):
        """Ours and curl fetching the small files at `urls` into kept directories under `base`."""
        ours_dir = os.path.join(base, "kept-%s-ours-%d" % (name, r))
        theirs_dir = os.path.join(base, "kept-%s-curl-%d" % (name, r))
        theirs = self.curl_parallel(urls, theirs_dir)
        self.pair(
            r, ("%s-ours" % name, [self.ours, "many", listing, ours_dir],
                lambda: self.kept_dir("%s-ours" % name, r, base), self.expect_files(ours_dir, self.small_count)),
            ("%s-curl" % name, theirs, lambda: self.kept_dir("%s-curl" % name, r, base),
             self.expect_files(theirs_dir, self.small_count)))

    LAYERS = ("engine", "queue", "queue-rename", "service")

    def layer_costs(self, r):
        """The small files of row 3 (on tmpfs where there is one) through fewer of the library's
        layers, and curl in the same round: what each layer adds to a small download. "service" is
        the whole library, as in row 3."""
        base = self.tmpfs or self.work
        urls, listing = ((self.small_tmpfs_urls, self.lists["small-tmpfs"]) if self.tmpfs else
                         (self.small_urls, self.lists["small"]))
        runs = []
        for layer in self.LAYERS:
            out = os.path.join(base, "kept-layers-%s-%d" % (layer, r))
            cmd = [self.ours, "many", listing, out] if layer == "service" else [self.layers, layer, listing, out]
            runs.append(("layers-%s" % layer, cmd, out))
        curl_out = os.path.join(base, "kept-layers-curl-%d" % r)
        runs.append(("layers-curl", self.curl_parallel(urls, curl_out), curl_out))
        # A different order each round, so that no layer always runs right after the same one.
        shift = r % len(runs)
        for name, cmd, out in runs[shift:] + runs[:shift]:
            self.run(name, cmd, lambda name=name: self.kept_dir(name, r, base), self.expect_files(out, self.small_count))

    def curl_and_vipsthumbnail(self, fetched, scaled):
        """What a user could script for the avatars: curl fetches them 4 at a time, then
        vipsthumbnail scales them to fit 200 px, two processes at a time (one per core here)."""
        fetch = " ".join(shlex.quote(a) for a in self.curl_parallel(self.avatar_urls, fetched))
        scale = ("ls %s | xargs -P %d -n 100 sh -c 'cd %s && exec %s -s 200 -o %s/%%s.jpg \"$@\"' sh" % (
            shlex.quote(fetched), os.cpu_count() or 1, shlex.quote(fetched), VIPSTHUMBNAIL, shlex.quote(scaled)))
        return ["/bin/sh", "-c", "set -e; %s; %s" % (fetch, scale)]

    def avatars(self, r):
        # On tmpfs where there is one: with the disk in it, the same run varied by half.
        base = self.tmpfs or self.work
        ours_root = os.path.join(base, "kept-avatars-ours-%d" % r)
        theirs_dir = os.path.join(base, "kept-avatars-curl-%d" % r)
        theirs = self.curl_parallel(self.avatar_urls, theirs_dir)

        def check_ours(run):
            reply = run.json_output()
            if not reply.get("ok") or reply.get("scaled") != self.avatar_count:
                raise BenchError("unexpected reply %s" % reply)

        self.pair(
            r, ("avatars-ours", [self.ours, "avatars", self.lists["avatars"], ours_root],
                lambda: self.kept_dir("avatars-ours", r, base), check_ours),
            ("avatars-curl", theirs, lambda: self.kept_dir("avatars-curl", r, base),
             self.expect_files(theirs_dir, self.avatar_count)))
        fetched = os.path.join(base, "kept-avatars-pipeline-%d" % r)
        scaled = os.path.join(base, "kept-avatars-pipeline-scaled-%d" % r)

        def prepare_pipeline():
            self.kept_dir("avatars-pipeline", r, base)
            self.kept_dir("avatars-pipeline-scaled", r, base)

        self.run("avatars-curl-vips", self.curl_and_vipsthumbnail(fetched, scaled), prepare_pipeline,
                 self.expect_files(scaled, self.avatar_count))

    def scaling(self, r):
        d = os.path.join(self.work, "out-scale")
        prep = lambda: (self.clean_outputs(), fresh_dir(self.work, "out-scale"), read_through(self.photo))
        ours = ("scale-ours", [self.ours, "scale", self.photo, d, str(self.scale_count)], prep, None)
        vips = ("scale-vipsthumbnail", [VIPSTHUMBNAIL, self.photo, "-s", "200", "-o", d + "/thumb.jpg"], prep, None)
        magick = ("scale-convert", [CONVERT, self.photo, "-thumbnail", "200x200", d + "/thumb.jpg"], prep, None)
        order = [ours, vips, magick] if r % 2 == 0 else [magick, vips, ours]
        for name, cmd, p, c in order:
            repeats = 1 if name == "scale-ours" else self.scale_count
            for _ in range(repeats):
                self.run(name, cmd, p, c)

    def scheduler_runs(self):
        try:
            # Hand-offs between threads dominate this benchmark, and their cost on a VM swings from
            # run to run: the median of several repetitions is reported.
            repetitions = 1 if self.quick else 5
            run = measure([self.scheduler, "--benchmark_format=json",
                           "--benchmark_repetitions=%d" % repetitions], os.path.join(self.logs, "scheduler"),
                          env=self.env)
        except BenchError as error:
            self.failures.append("scheduler: %s" % error)
            return None
        text = run.output
        report = json.loads(text[text.index("{"):])
        per = {}
        for b in report["benchmarks"]:
            aggregate = b.get("aggregate_name")
            if aggregate not in (None, "median"):
                continue
            if aggregate is None and any(o.get("aggregate_name") == "median" for o in report["benchmarks"]):
                continue  # single repetitions are summarised by their median
            n = int(b["name"].split("/")[1])
            per[n] = {"us_per_request": b["us_per_request"], "ms": b["real_time"]}
        return per

    # -- report ---------------------------------------------------------------------------------

    def stat(self, name, field="wall"):
        return [getattr(run, field) for run in self.samples.get(name, [])]

    def add(self, comparison, metric, ours, theirs, ratio, target, met, note=""):
        self.results.append({"comparison": comparison, "metric": metric, "ours": ours, "theirs": theirs,
                             "ratio": ratio, "target": target, "met": met, "note": note})

    def pair_rows(self, comparison, ours_name, theirs_name, size, unit, target_ratio, cpu_target=None,
                  rss_limit=None, per_item=None):
        ow, tw = self.stat(ours_name), self.stat(theirs_name)
        if self.only is not None and ours_name not in self.samples and theirs_name not in self.samples:
            return  # not selected with --only
        if not ow or not tw:
            self.add(comparison, unit, None, None, None, target_ratio, False, "no successful run")
            return
        if per_item is None:
            ours_rate, theirs_rate = size / median(ow) / 1e6, size / median(tw) / 1e6
            label = "MB/s"
        else:
            ours_rate, theirs_rate = per_item / median(ow), per_item / median(tw)
            label = unit
        ratio = ours_rate / theirs_rate
        self.add(comparison, label,
                 {"median": ours_rate, "wall_s": median(ow), "spread_pct": spread(ow), "runs": len(ow)},
                 {"median": theirs_rate, "wall_s": median(tw), "spread_pct": spread(tw), "runs": len(tw)},
                 ratio, ">= %.2f" % target_ratio, ratio >= target_ratio)
        oc, tc = self.stat(ours_name, "cpu"), self.stat(theirs_name, "cpu")
        scale = GIB / size if per_item is None else 1.0
        cpu_ratio = median(tc) / median(oc) if median(oc) > 0 else float("inf")
        self.add(comparison, "CPU s/GiB" if per_item is None else "CPU s",
                 {"median": median(oc) * scale, "spread_pct": spread(oc)},
                 {"median": median(tc) * scale, "spread_pct": spread(tc)}, cpu_ratio,
                 ">= %.2f" % cpu_target if cpu_target else "", cpu_ratio >= cpu_target if cpu_target else None)
        if per_item is not None:
            # Many small transfers: each fault is a trip into the kernel, and memory handed out anew
            # for every file shows here first.
            of, tf = self.stat(ours_name, "faults"), self.stat(theirs_name, "faults")
            self.add(comparison, "page faults", {"median": median(of)}, {"median": median(tf)},
                     median(tf) / median(of) if median(of) > 0 else None, "", None)
        if rss_limit:
            rss = max(self.stat(ours_name, "rss")) / MIB
            theirs_rss = max(self.stat(theirs_name, "rss")) / MIB
            self.add(comparison, "peak RSS MiB", {"median": rss}, {"median": theirs_rss}, None,
                     "<= %d MiB" % rss_limit, rss <= rss_limit)

    # Our bench programs report the CPU time of each of their threads by name: the network thread,
    # the serial queue that takes each completion (the service's, or the layers program's own),
    # and everything else (the main thread making the requests, start-up).
    THREAD_GROUPS = (("network thread", ("quill network",)), ("queue thread", ("cloud storage", "layers queue")))

    def thread_rows(self, comparison, name):
        per_run = [run.json_output().get("threadCpu", {}) for run in self.samples.get(name, [])]
        per_run = [threads for threads in per_run if threads]
        if not per_run:
            return
        for label, names in self.THREAD_GROUPS:
            values = [sum(v for k, v in threads.items() if k in names) for threads in per_run]
            self.add(comparison, "CPU s, %s" % label, {"median": median(values), "spread_pct": spread(values)},
                     None, None, "", None)

    def layer_rows(self):
        curl_wall, curl_cpu = self.stat("layers-curl"), self.stat("layers-curl", "cpu")
        if not curl_wall:
            return
        for layer in self.LAYERS:
            wall, cpu = self.stat("layers-%s" % layer), self.stat("layers-%s" % layer, "cpu")
            comparison = "3b %d x 16 KiB, layers: %s" % (self.small_count, layer)
            if not wall:
                self.add(comparison, "files/s", None, None, None, "", False, "no successful run")
                continue
            self.add(comparison, "files/s",
                     {"median": self.small_count / median(wall), "spread_pct": spread(wall), "runs": len(wall)},
                     {"median": self.small_count / median(curl_wall), "spread_pct": spread(curl_wall)},
                     median(curl_wall) / median(wall), "", None)
            self.add(comparison, "CPU s", {"median": median(cpu), "spread_pct": spread(cpu)},
                     {"median": median(curl_cpu), "spread_pct": spread(curl_cpu)},
                     median(curl_cpu) / median(cpu) if median(cpu) > 0 else None, "", None)
            self.thread_rows(comparison, "layers-%s" % layer)
            vcs, ivcs = self.stat("layers-%s" % layer, "vcs"), self.stat("layers-%s" % layer, "ivcs")
            if vcs and ivcs:
                self.add(comparison, "context switches", {"median": median(vcs) + median(ivcs)},
                         {"median": median(self.stat("layers-curl", "vcs")) +
                          median(self.stat("layers-curl", "ivcs"))}, None, "", None)

    def summarise(self, scheduler):
        size = self.big_size
        self.pair_rows("1 download HTTP", "download-http-ours", "download-http-curl", size, "MB/s", 1.2, 1.0, 48)
        self.pair_rows("1 download HTTPS", "download-https-ours", "download-https-curl", size, "MB/s", 1.2, 1.0, 48)
        self.pair_rows("2 upload multipart", "upload-multipart-ours", "upload-multipart-curl", size, "MB/s", 0.95,
                       None, 48)
        self.pair_rows("2 upload signed PUT", "upload-put-ours", "upload-put-curl", size, "MB/s", 0.95, None, 48)
        self.pair_rows("3 %d x 16 KiB" % self.small_count, "many-ours", "many-curl", self.small_count * 16384,
                       "files/s", 1.0, per_item=self.small_count, cpu_target=1 / 1.1)
        self.pair_rows("3 %d x 16 KiB, tmpfs" % self.small_count, "many-tmpfs-ours", "many-tmpfs-curl",
                       self.small_count * 16384, "files/s", 1.0, per_item=self.small_count, cpu_target=1 / 1.1)
        self.thread_rows("3 %d x 16 KiB, tmpfs" % self.small_count, "many-tmpfs-ours")
        self.layer_rows()
        if scheduler:
            for n in sorted(scheduler):
                us = scheduler[n]["us_per_request"]
                self.add("4 scheduler %dk" % (n // 1000), "us/request", {"median": us}, None, 20.0 / us,
                         "< 20 us", us < 20)
            if len(scheduler) == 2:
                small, large = sorted(scheduler)
                growth = scheduler[large]["ms"] / scheduler[small]["ms"]
                self.add("4 scheduler", "%dk/%dk time" % (large // 1000, small // 1000), {"median": growth}, None,
                         12.0 / growth, "<= 12", growth <= 12)
        ours_scale = [r.json_output().get("seconds", float("nan")) for r in self.samples.get("scale-ours", [])]
        vips = self.stat("scale-vipsthumbnail")
        magick = self.stat("scale-convert")
        if ours_scale and vips:
            ratio = median(vips) / median(ours_scale)
            self.add("5 scale 4000x3000 to 200", "ms", {"median": median(ours_scale) * 1000,
                                                        "spread_pct": spread(ours_scale)},
                     {"median": median(vips) * 1000, "spread_pct": spread(vips), "tool": "vipsthumbnail -s 200"},
                     ratio, ">= 1.50", ratio >= 1.5,
                     "ours: in-process ImageUtils::scaleImage, median of the calls after a first (warm-up) one")
            if magick:
                self.add("5 scale (reference)", "ms", {"median": median(ours_scale) * 1000},
                         {"median": median(magick) * 1000, "tool": "convert -thumbnail 200x200"},
                         median(magick) / median(ours_scale), "", None)
        none, with_progress = self.stat("progress-none"), self.stat("progress-set")
        if none and with_progress:
            ratio = median(none) / median(with_progress)
            self.add("6 progressCallback", "MB/s", {"median": size / median(with_progress) / 1e6,
                                                    "spread_pct": spread(with_progress)},
                     {"median": size / median(none) / 1e6, "spread_pct": spread(none), "tool": "no callback"},
                     ratio, "0.98 .. 1.02", 0.98 <= ratio <= 1.02)
            oc, tc = self.stat("progress-set", "cpu"), self.stat("progress-none", "cpu")
            self.add("6 progressCallback", "CPU s/GiB", {"median": median(oc) * GIB / size},
                     {"median": median(tc) * GIB / size}, median(tc) / median(oc), "", None)
        self.pair_rows("7 %d avatars fetched+scaled" % self.avatar_count, "avatars-ours", "avatars-curl",
                       sum(self.avatar_bytes), "files/s", 1.0, per_item=self.avatar_count)
        self.pair_rows("7 %d avatars vs curl + vipsthumbnail" % self.avatar_count, "avatars-ours",
                       "avatars-curl-vips", sum(self.avatar_bytes), "files/s", 1.0, per_item=self.avatar_count)
        ours_avatars = self.stat("avatars-ours")
        if ours_avatars:
            per_second = self.avatar_count / median(ours_avatars)
            cpu = median(self.stat("avatars-ours", "cpu")) * 1000 / self.avatar_count
            self.add("7 avatars, absolute", "files/s", {"median": per_second}, None, per_second / 1800,
                     ">= 1800/s", per_second >= 1800)
            self.add("7 avatars, absolute", "CPU s per 1000", {"median": cpu}, None, 1.2 / cpu if cpu else None,
                     "<= 1.2", cpu <= 1.2)
        cut, aria2, uncut = self.stat("resume-cut-ours"), self.stat("resume-cut-aria2c"), self.stat("resume-uncut-ours")
        if cut:
            title = "8 %d MiB cut every %d MiB" % (size // MIB, self.cut_every // MIB)
            if aria2:
                ratio = median(aria2) / median(cut)
                self.add(title, "wall s", {"median": median(cut), "spread_pct": spread(cut)},
                         {"median": median(aria2), "spread_pct": spread(aria2), "tool": "aria2c"}, ratio,
                         ">= 1.00", ratio >= 1.0)
            if uncut:
                ratio = median(uncut) / median(cut)
                self.add(title, "wall s vs uncut", {"median": median(cut), "spread_pct": spread(cut)},
                         {"median": median(uncut), "spread_pct": spread(uncut), "tool": "ours uncut"}, ratio,
                         ">= 0.91 (cut <= 1.1 x uncut)", ratio >= 1 / 1.1)
            if self.curl_resume is not None:
                # Ahead of curl: curl did not complete, or (were it to) took longer.
                curl_wall = self.curl_wall if self.curl_resume.startswith("completed") else None
                self.add(title, "vs curl --retry 10 -C -", {"median": median(cut)},
                         {"median": curl_wall, "tool": "curl"} if curl_wall else None,
                         curl_wall / median(cut) if curl_wall else None, "ahead",
                         curl_wall is None or curl_wall > median(cut), "curl " + self.curl_resume)

    def machine(self):
        def first_line(cmd):
            try:
                p = subprocess.run(cmd, capture_output=True, text=True, timeout=10)
                return (p.stdout or p.stderr).strip().splitlines()[0]
            except (OSError, IndexError, subprocess.TimeoutExpired):
                return "?"
        model = "?"
        with open("/proc/cpuinfo") as f:
            for line in f:
                if line.startswith("model name"):
                    model = line.split(":", 1)[1].strip()
                    break
        with open("/proc/meminfo") as f:
            mem_kib = int(f.readline().split()[1])
        return {"date": datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d %H:%M UTC"),
                "kernel": platform.release(), "cpu": model, "cpus": os.cpu_count(),
                "memory_gib": round(mem_kib / 1024 / 1024, 1), "load_before": os.getloadavg()[0],
                "nginx": first_line([NGINX, "-v"]), "curl": first_line([CURL, "--version"]),
                "vips": first_line([VIPS, "--version"]), "imagemagick": first_line([CONVERT, "-version"]),
                "aria2": first_line([ARIA2C, "--version"]),
                "mode": ("quick" if self.quick else "full") + (", only " + ",".join(sorted(self.only))
                                                                  if self.only else ""),
                "rounds": self.rounds,
                "big_file_bytes": self.big_size}

    def table(self, machine):
        lines = ["# quill_cloud benchmarks (%s)" % machine["mode"], "",
                 "%s; %s, %d CPUs, %.1f GiB; load average before the run %.2f; %s; %s; %s." % (
                     machine["date"], machine["cpu"], machine["cpus"], machine["memory_gib"],
                     machine["load_before"], machine["nginx"], machine["curl"].split(" (")[0], machine["vips"]),
                 "Rounds: %d, ours and theirs alternating. Medians; spread = (max - min) / median. "
                 "Ratios: 1.0 or more means quill_cloud is at least as good." % self.rounds, "",
                 "| Comparison | Metric | quill_cloud | spread | theirs | spread | ratio | target | met |",
                 "|---|---|---|---|---|---|---|---|---|"]

        def cell(value):
            if value is None:
                return "", ""
            m = value.get("median")
            text = "%.3g" % m if m is not None and m < 100 else "%.0f" % m if m is not None else "-"
            if value.get("tool"):
                text += " (%s)" % value["tool"]
            sp = value.get("spread_pct")
            return text, ("%.0f%%" % sp if sp is not None else "")

        for row in self.results:
            o, os_ = cell(row["ours"])
            t, ts = cell(row["theirs"])
            ratio = "" if row["ratio"] is None else "%.2f" % row["ratio"]
            met = {True: "yes", False: "**no**", None: ""}[row["met"]]
            lines.append("| %s | %s | %s | %s | %s | %s | %s | %s | %s |" % (
                row["comparison"], row["metric"], o, os_, t, ts, ratio, row["target"], met))
        notes = [r for r in self.results if r["note"]]
        if notes:
            lines.append("")
            lines += ["- %s: %s" % (r["comparison"], r["note"]) for r in notes]
        if self.failures:
            lines += ["", "Failed runs:"] + ["- " + f.splitlines()[0] for f in self.failures]
        return "\n".join(lines) + "\n"

    def main(self):
        try:
            print("bench: setting up servers and data in %s" % self.work, file=sys.stderr)
            self.servers.start()
            self.env["QUILL_CA_BUNDLE"] = self.servers.ca
            self.env["QUILL_FILE_SERVICE_HOST"] = "127.0.0.1:%d" % self.servers.https_port
            self.prepare_data()
            machine = self.machine()
            # The avatars step goes last: our run of it deletes a thousand temporary files, and the
            # next small-file runs should be as far from that as they can be.
            steps = {"download": self.downloads, "progress": self.progress, "upload": self.uploads,
                     "resume": self.resumes, "many": self.many, "layers": self.layer_costs, "scale": self.scaling,
                     "avatars": self.avatars}
            unknown = (self.only or set()) - set(steps) - {"scheduler"}
            if unknown:
                raise BenchError("unknown --only step(s): %s" % ", ".join(sorted(unknown)))
            scheduler = self.scheduler_runs() if self.selected("scheduler") else None
            for r in range(self.rounds):
                print("bench: round %d of %d" % (r + 1, self.rounds), file=sys.stderr)
                for name, step in steps.items():
                    if self.selected(name):
                        step(r)
            self.summarise(scheduler)
            text = self.table(machine)
            print(text)
            results_dir = os.path.abspath(self.args.results_dir)
            os.makedirs(results_dir, exist_ok=True)
            # A partial run never replaces the results of a complete one.
            stem = "partial" if self.only else "quick" if self.quick else "latest"
            with open(os.path.join(results_dir, stem + ".md"), "w") as f:
                f.write(text)
            raw = {n: [{"wall_s": r.wall, "cpu_s": r.cpu, "peak_rss_bytes": r.rss} for r in runs]
                   for n, runs in self.samples.items()}
            with open(os.path.join(results_dir, stem + ".json"), "w") as f:
                json.dump({"machine": machine, "results": self.results, "scheduler": scheduler, "runs": raw,
                           "failures": self.failures}, f, indent=1, default=str)
            misses = [r for r in self.results if r["met"] is False]
            for r in misses:
                print("bench: target missed: %s %s (%s)" % (r["comparison"], r["metric"], r["target"]),
                      file=sys.stderr)
            for failure in self.failures:
                print("bench: FAILED %s" % failure, file=sys.stderr)
            return 1 if self.failures else 0
        except (BenchError, subprocess.CalledProcessError, OSError) as error:
            print("bench: %s" % error, file=sys.stderr)
            return 1
        finally:
            self.servers.stop()
            kept = [self.work] + ([self.tmpfs] if self.tmpfs else [])
            for path in kept:
                if self.args.keep:
                    print("bench: kept %s" % path, file=sys.stderr)
                else:
                    shutil.rmtree(path, ignore_errors=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build-dir", required=True)
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--results-dir", default=os.path.join(os.path.dirname(os.path.abspath(__file__)), "results"))
    parser.add_argument("--work-dir", default=None, help="where the temporary directory goes (default: $TMPDIR)")
    parser.add_argument("--keep", action="store_true", help="keep the temporary directory, for inspection")
    parser.add_argument("--profile", action="store_true",
                        help="record each of our runs with perf record -g into the logs (use with --keep)")
    parser.add_argument("--only", default=None,
                        help="comma-separated steps: download, progress, upload, resume, many, layers, avatars, "
                        "scale, scheduler")
    args = parser.parse_args()

    def stop(signum, _frame):
        raise SystemExit(128 + signum)

    signal.signal(signal.SIGTERM, stop)
    signal.signal(signal.SIGHUP, stop)
    return Bench(args).main()


if __name__ == "__main__":
    sys.exit(main())
