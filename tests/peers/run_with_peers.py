#!/usr/bin/env python3
"""Run one test command next to a private set of loopback peers (python3 standard library only).

    python3 run_with_peers.py [--timeout S] [--with NAME]... -- COMMAND ARGS...

Starts, on free ports of 127.0.0.1 (so parallel ctest runs never collide):
  - nginx serving a fresh data folder that holds small.bin (1000 bytes), medium.bin (5 MiB) and
    large.bin (64 MiB), filled with the deterministic stream of peer_body.py, with WebDAV PUT/DELETE
    under /upload/ (stored in DATA/upload/);
  - fault_peer.py over HTTP, and a second one over HTTPS;
then runs COMMAND with

  MDX_NGINX_HTTP_PORT   MDX_NGINX_HTTPS_PORT   nginx
  MDX_FAULT_PORT        MDX_FAULT_TLS_PORT     the fault peers
  MDX_PEER_DATA         the data folder nginx serves
  MDX_PEER_CA           the test certificate, for clients that want to verify it

--with NAME (repeatable, or comma-separated) starts more peers next to those:
  aws   ec2_metadata_peer.py (EC2-style instance metadata, HTTP), sigv4_peer.py (an S3 front that
        checks every signature with botocore, HTTPS) and s3rver_peer.py (s3rver 3.7.1 from npm,
        HTTPS, bucket "mybucket"), exported as
          MDX_EC2_PORT  MDX_SIGV4_PORT  MDX_S3RVER_PORT
        A peer that cannot run here (botocore, node or npm missing, no registry for the first
        install of s3rver) says why on stderr and its variable is left unset, so the tests that
        need it skip while the others run.

stops every peer and removes every file it made (also when COMMAND fails, on a timeout and on
SIGINT/SIGTERM/SIGHUP, which are passed on to COMMAND), and exits with COMMAND's status
(128 + N when COMMAND died of signal N, 124 on --timeout, 77 when nginx is not installed).
"""

import argparse
import os
import selectors
import shutil
import signal
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
sys.dont_write_bytecode = True  # keep the source tree clean of __pycache__
import nginx_peer  # noqa: E402

FILES = ("small.bin:1000", "medium.bin:5M", "large.bin:64M")
SKIP = 77
START_TIMEOUT = 10.0
EXTRA_PEERS = ("aws",)
# s3rver is installed on first use (about 10 s with a registry); the peer bounds that itself.
S3RVER_START_TIMEOUT = 400.0


def sweep_leftovers():
    """Remove the folders of runners that were killed outright (ctest's timeout sends SIGKILL,
    which leaves no chance to clean up): 70 MB each, so they must not pile up."""
    base = tempfile.gettempdir()
    try:
        names = os.listdir(base)
    except OSError:
        return
    for name in names:
        if not name.startswith("mdx-peers-"):
            continue
        path = os.path.join(base, name)
        try:
            with open(os.path.join(path, "owner.pid")) as f:
                pid = int(f.read())
        except (OSError, ValueError):
            continue  # not ours, or a runner that is just starting
        try:
            os.kill(pid, 0)
            continue
        except ProcessLookupError:
            shutil.rmtree(path, ignore_errors=True)
        except OSError:
            continue


def start_fault_peer(tls, max_seconds):
    cmd = [sys.executable, os.path.join(HERE, "fault_peer.py"), "--max-seconds", str(max_seconds)]
    if tls:
        cmd.append("--tls")
    # stdin stays a pipe we hold: when this runner dies for any reason, the peer sees EOF and exits.
    return subprocess.Popen(cmd, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                            preexec_fn=nginx_peer.die_with_parent)


def read_ports(procs, deadline):
    """Wait for the "PORT <n>" line of every fault peer."""
    sel = selectors.DefaultSelector()
    ports = {}
    buffers = {}
    for p in procs:
        sel.register(p.stdout, selectors.EVENT_READ, p)
        buffers[p] = b""
    while len(ports) < len(procs):
        left = deadline - time.monotonic()
        if left <= 0:
            raise RuntimeError("fault peer did not report its port in time")
        for key, _ in sel.select(left):
            p = key.data
            chunk = os.read(p.stdout.fileno(), 256)
            if not chunk:
                raise RuntimeError("fault peer exited early with status %s" % p.wait())
            buffers[p] += chunk
            if b"\n" in buffers[p]:
                line = buffers[p].split(b"\n", 1)[0].decode()
                if not line.startswith("PORT "):
                    raise RuntimeError("fault peer said %r" % line)
                ports[p] = int(line.split()[1])
                sel.unregister(p.stdout)
    sel.close()
    return [ports[p] for p in procs]


def stop_process(p, grace=3.0):
    if p.poll() is None:
        p.terminate()
        try:
            p.wait(grace)
        except subprocess.TimeoutExpired:
            p.kill()
            p.wait()


def start_aws_peers(root, max_seconds):
    """The three peers of --with aws, each printing "PORT <n>" once it serves: a list of
    (environment variable, process, start-up deadline in seconds)."""
    common = ["--max-seconds", str(max_seconds)]
    peers = []
    for variable, script, extra, timeout in (
            ("MDX_EC2_PORT", "ec2_metadata_peer.py", [], START_TIMEOUT),
            ("MDX_SIGV4_PORT", "sigv4_peer.py", [], START_TIMEOUT),
            ("MDX_S3RVER_PORT", "s3rver_peer.py", ["--data", os.path.join(root, "s3rver")],
             S3RVER_START_TIMEOUT)):
        cmd = [sys.executable, os.path.join(HERE, script)] + common + extra
        p = subprocess.Popen(cmd, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                             preexec_fn=nginx_peer.die_with_parent)
        peers.append((variable, p, timeout))
    return peers


def read_optional_ports(peers, t0):
    """{variable: port} of the peers that came up. A peer that exits with SKIP cannot run on
    this machine (it said why on stderr) and is left out; any other early exit is an error."""
    sel = selectors.DefaultSelector()
    pending = {}
    for variable, p, timeout in peers:
        sel.register(p.stdout, selectors.EVENT_READ, (variable, p))
        pending[p] = (b"", t0 + timeout)
    ports = {}
    while pending:
        now = time.monotonic()
        for p, (_, deadline) in pending.items():
            if deadline <= now:
                raise RuntimeError("%s did not report its port in time" % p.args[1])
        left = min(deadline for _, deadline in pending.values()) - now
        for key, _ in sel.select(left):
            variable, p = key.data
            chunk = os.read(p.stdout.fileno(), 256)
            buffered, deadline = pending[p]
            if not chunk:
                sel.unregister(p.stdout)
                del pending[p]
                rc = p.wait()
                if rc != SKIP:
                    raise RuntimeError("%s exited early with status %s" % (p.args[1], rc))
                sys.stderr.write("run_with_peers.py: %s not started (%s skipped)\n"
                                 % (os.path.basename(p.args[1]), variable))
                continue
            buffered += chunk
            if b"\n" not in buffered:
                pending[p] = (buffered, deadline)
                continue
            line = buffered.split(b"\n", 1)[0].decode()
            if not line.startswith("PORT "):
                raise RuntimeError("%s said %r" % (p.args[1], line))
            ports[variable] = int(line.split()[1])
            sel.unregister(p.stdout)
            del pending[p]
    sel.close()
    return ports


def main():
    argv = sys.argv[1:]
    if "--" not in argv:
        sys.stderr.write("usage: run_with_peers.py [--timeout S] [--with NAME]... -- COMMAND ARGS...\n")
        return 2
    i = argv.index("--")
    ap = argparse.ArgumentParser()
    ap.add_argument("--timeout", type=float, default=0.0, help="stop COMMAND after S seconds")
    ap.add_argument("--with", dest="extra", action="append", default=[], metavar="NAME",
                    help="more peers: %s (repeatable, or comma-separated)" % ", ".join(EXTRA_PEERS))
    args = ap.parse_args(argv[:i])
    extra = {name for item in args.extra for name in item.split(",") if name}
    unknown = sorted(extra - set(EXTRA_PEERS))
    if unknown:
        ap.error("unknown --with %s (known: %s)" % (", ".join(unknown), ", ".join(EXTRA_PEERS)))
    command = argv[i + 1:]
    if not command:
        sys.stderr.write("run_with_peers.py: no command\n")
        return 2
    if not os.access(nginx_peer.NGINX, os.X_OK):
        sys.stderr.write("run_with_peers.py: %s missing (Debian package nginx); skipping\n"
                         % nginx_peer.NGINX)
        return SKIP

    child = None

    def on_signal(signum, _frame):
        if child is not None and child.poll() is None:
            child.send_signal(signum)  # COMMAND ends first; we clean up when it is gone
        else:
            raise SystemExit(128 + signum)

    for s in (signal.SIGTERM, signal.SIGHUP, signal.SIGINT):
        signal.signal(s, on_signal)

    sweep_leftovers()
    root = tempfile.mkdtemp(prefix="mdx-peers-")
    with open(os.path.join(root, "owner.pid"), "w") as f:
        f.write(str(os.getpid()))
    faults = []
    aws = []
    nginx = None
    try:
        t0 = time.monotonic()
        # The fault peers boot while the data files are written.
        max_seconds = args.timeout + 60 if args.timeout > 0 else 0
        faults = [start_fault_peer(False, max_seconds), start_fault_peer(True, max_seconds)]
        if "aws" in extra:
            aws = start_aws_peers(root, max_seconds)
        data = os.path.join(root, "data")
        os.makedirs(data)
        nginx_peer.make_files(data, FILES)
        nginx = nginx_peer.NginxPeer(data, start_timeout=START_TIMEOUT, workdir=root).start()
        fault_port, fault_tls_port = read_ports(faults, t0 + START_TIMEOUT)
        if os.environ.get("MDX_PEERS_VERBOSE"):
            sys.stderr.write("run_with_peers.py: peers up in %.3f s\n" % (time.monotonic() - t0))
        aws_ports = read_optional_ports(aws, t0) if aws else {}
        if aws and os.environ.get("MDX_PEERS_VERBOSE"):
            sys.stderr.write("run_with_peers.py: aws peers up in %.3f s\n" % (time.monotonic() - t0))

        env = dict(os.environ,
                   MDX_NGINX_HTTP_PORT=str(nginx.http_port),
                   MDX_NGINX_HTTPS_PORT=str(nginx.https_port),
                   MDX_FAULT_PORT=str(fault_port),
                   MDX_FAULT_TLS_PORT=str(fault_tls_port),
                   MDX_PEER_DATA=data,
                   MDX_PEER_CA=nginx_peer.CERT)
        env.update((variable, str(port)) for variable, port in aws_ports.items())
        try:
            child = subprocess.Popen(command, env=env, preexec_fn=nginx_peer.die_with_parent)
        except OSError as e:
            sys.stderr.write("run_with_peers.py: cannot run %s: %s\n" % (command[0], e))
            return 127
        try:
            rc = child.wait(args.timeout if args.timeout > 0 else None)
        except subprocess.TimeoutExpired:
            sys.stderr.write("run_with_peers.py: command still running after %g s; stopping it\n"
                             % args.timeout)
            stop_process(child, 5.0)
            return 124
        return 128 - rc if rc < 0 else rc
    except (RuntimeError, OSError) as e:
        sys.stderr.write("run_with_peers.py: could not start the peers: %s\n" % e)
        return 1
    finally:
        # A second Ctrl-C must not cut the clean-up short; every step below is bounded.
        for s in (signal.SIGTERM, signal.SIGHUP, signal.SIGINT):
            signal.signal(s, signal.SIG_IGN)
        if child is not None:
            stop_process(child, 5.0)
        if nginx is not None:
            nginx.stop()
        for p in faults + [p for _, p, _ in aws]:
            try:
                p.stdin.close()
            except OSError:
                pass
        for p in faults:
            try:
                p.wait(1.0)
            except subprocess.TimeoutExpired:
                stop_process(p, 1.0)
            p.stdout.close()
        for _, p, _ in aws:
            try:
                p.wait(5.0)  # s3rver_peer stops node first
            except subprocess.TimeoutExpired:
                stop_process(p, 1.0)
            p.stdout.close()
        shutil.rmtree(root, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
