#!/usr/bin/env python3
"""Run one test command next to a private set of loopback peers.

    python3 run_with_peers.py [--timeout S] [--with aws] [--data DIR] [--make-file NAME:SIZE]...
                              -- COMMAND ARGS...

Starts on free ports of 127.0.0.1 (parallel ctest runs never collide) nginx serving small.bin
(1000 bytes), medium.bin (5 MiB) and large.bin (64 MiB) of the peers' stream (or DIR with the
files of --make-file, as bench/download/run.sh wants them), and fault_peer.py
over HTTP and HTTPS; with --with aws also ec2_metadata_peer.py and sigv4_peer.py, with --with
postgres also postgres_peer.py, with --with s3 s3rver and with --with azure azurite and
azure_token_peer.py (npm_peer.py runs the npm servers). COMMAND sees
MDX_NGINX_HTTP_PORT, MDX_NGINX_HTTPS_PORT, MDX_FAULT_PORT, MDX_FAULT_TLS_PORT, MDX_PEER_DATA,
MDX_PEER_CA, with aws MDX_EC2_PORT and MDX_SIGV4_PORT, and with postgres MDX_POSTGRES_PORT and
MDX_POSTGRES_URL (a connection string for the user postgres), with s3 MDX_S3RVER_PORT, with azure
MDX_AZURITE_PORT and MDX_AZURE_TOKEN_PORT, with google (gcs_peer.py, google_token_peer.py)
MDX_GCS_PORT and MDX_GOOGLE_TOKEN_PORT (unset when a peer cannot run here,
so that its tests skip). Everything is stopped and removed afterwards, also on a timeout or a
signal; the exit status is COMMAND's (124 on --timeout, 77 without nginx).
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

import nginx_peer
import peerlib

sys.dont_write_bytecode = True
PEERS = {"": [("MDX_FAULT_PORT", "fault_peer.py", ["--plain"]), ("MDX_FAULT_TLS_PORT", "fault_peer.py", ["--tls"])],
         "aws": [("MDX_EC2_PORT", "ec2_metadata_peer.py", []), ("MDX_SIGV4_PORT", "sigv4_peer.py", [])],
         "postgres": [("MDX_POSTGRES_PORT", "postgres_peer.py", [])],
         "s3": [("MDX_S3RVER_PORT", "npm_peer.py", ["s3"])],
         "azure": [("MDX_AZURITE_PORT", "npm_peer.py", ["azure"]), ("MDX_AZURE_TOKEN_PORT", "azure_token_peer.py", [])],
         "google": [("MDX_GCS_PORT", "gcs_peer.py", []), ("MDX_GOOGLE_TOKEN_PORT", "google_token_peer.py", [])]}


def read_ports(procs, deadline):
    """{variable: port} from the "PORT <n>" line of each peer; a peer that exits with 77 is left out."""
    selector, ports = selectors.DefaultSelector(), {}
    for variable, proc in procs:
        selector.register(proc.stdout, selectors.EVENT_READ, (variable, proc))
    while selector.get_map():
        events = selector.select(deadline - time.monotonic())
        if not events:
            raise RuntimeError("a peer did not report its port in time")
        for key, _ in events:
            variable, proc = key.data
            selector.unregister(proc.stdout)
            line = proc.stdout.readline().decode()
            if line.startswith("PORT "):
                ports[variable] = line.split()[1]
            elif proc.wait() != peerlib.SKIP:
                raise RuntimeError("%s exited with %s" % (proc.args[1], proc.returncode))
    return ports


def main():
    argv = sys.argv[1:]
    if "--" not in argv or argv.index("--") == len(argv) - 1:
        sys.stderr.write(__doc__)
        return 2
    parser = argparse.ArgumentParser()
    parser.add_argument("--timeout", type=float, default=0.0)
    parser.add_argument("--with", dest="extra", action="append", default=[], choices=["aws", "postgres", "s3", "azure", "google"])
    parser.add_argument("--data", help="the folder nginx serves (kept afterwards)")
    parser.add_argument("--make-file", action="append", default=[], metavar="NAME:SIZE")
    args, command = parser.parse_args(argv[:argv.index("--")]), argv[argv.index("--") + 1:]
    if not os.access(nginx_peer.NGINX, os.X_OK):
        sys.stderr.write("run_with_peers.py: no nginx (Debian package nginx); skipping\n")
        return peerlib.SKIP
    signal.signal(signal.SIGTERM, lambda signum, frame: sys.exit(128 + signum))
    signal.signal(signal.SIGHUP, lambda signum, frame: sys.exit(128 + signum))
    root = tempfile.mkdtemp(prefix="mdx-peers-")
    procs, child = [], None
    try:
        limit = str(args.timeout + 60 if args.timeout > 0 else 0)
        for variable, script, extra in PEERS[""] + sum((PEERS[name] for name in set(args.extra)), []):
            # stdin is a pipe held here: when this runner dies, the peer sees its end and exits.
            procs.append((variable, subprocess.Popen(
                [sys.executable, os.path.join(peerlib.HERE, script), "--max-seconds", limit] + extra,
                stdin=subprocess.PIPE, stdout=subprocess.PIPE, preexec_fn=peerlib.die_with_parent)))
        data = os.path.abspath(args.data or os.path.join(root, "data"))
        os.makedirs(data, exist_ok=True)
        nginx_peer.make_files(data, args.make_file or ("small.bin:1000", "medium.bin:5M", "large.bin:64M"))
        with nginx_peer.NginxPeer(data, workdir=root) as nginx:
            env = dict(os.environ, MDX_NGINX_HTTP_PORT=str(nginx.http_port), MDX_NGINX_HTTPS_PORT=str(nginx.https_port),
                       MDX_PEER_DATA=data, MDX_PEER_CA=peerlib.CERT)
            env.update(read_ports(procs, time.monotonic() + 60))  # initdb takes a few seconds
            if "MDX_POSTGRES_PORT" in env:
                env["MDX_POSTGRES_URL"] = "postgresql://postgres@127.0.0.1:%s/postgres" % env["MDX_POSTGRES_PORT"]
            child = subprocess.Popen(command, env=env, preexec_fn=peerlib.die_with_parent)
            try:
                rc = child.wait(args.timeout or None)
            except subprocess.TimeoutExpired:
                sys.stderr.write("run_with_peers.py: command still running after %g s; stopping it\n" % args.timeout)
                child.kill()
                child.wait()
                return 124
            return 128 - rc if rc < 0 else rc
    except (RuntimeError, OSError) as e:
        sys.stderr.write("run_with_peers.py: could not start the peers: %s\n" % e)
        return 1
    finally:
        if child is not None and child.poll() is None:
            child.terminate()
            child.wait()
        for _, proc in procs:  # SIGTERM first: the PostgreSQL peer stops its server and cleans up
            proc.terminate()
        for _, proc in procs:
            try:
                proc.wait(30)
            except subprocess.TimeoutExpired:
                proc.kill()
                proc.wait()
        shutil.rmtree(root, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
