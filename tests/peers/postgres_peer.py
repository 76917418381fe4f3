#!/usr/bin/env python3
"""Debian's PostgreSQL as a throw-away loopback server for the catalog tests.

    python3 postgres_peer.py [--max-seconds S]

Makes a cluster in a new temporary folder (initdb, trust authentication for the user
"postgres"), starts postgres on a free port of 127.0.0.1 with its socket in that folder, prints
"PORT <n>" once it accepts connections, and runs until stdin closes (when it is a pipe), its
parent goes away, SIGTERM, or the time limit. Then it stops the server (fast shutdown) and
removes the folder. initdb and postgres refuse to run as root: as root they run as the user
"postgres", which owns the folder. Exit status 77 when PostgreSQL is not installed (Debian
package postgresql).
"""

import argparse
import glob
import os
import pwd
import select
import shutil
import signal
import stat
import subprocess
import sys
import tempfile
import time

import nginx_peer
import peerlib

sys.dont_write_bytecode = True


def find_bin():
    """The bin folder of the newest PostgreSQL installed, or None."""
    found = sorted(glob.glob("/usr/lib/postgresql/*/bin/postgres"),
                   key=lambda p: int(p.split("/")[4]) if p.split("/")[4].isdigit() else 0)
    return os.path.dirname(found[-1]) if found else None


def as_user(user):
    """preexec_fn: drop to user (when root), then die with the parent (credentials first: a
    change of them clears the parent-death signal)."""
    def switch():
        if user is not None:
            os.setgid(user.pw_gid)
            os.setuid(user.pw_uid)
        peerlib.die_with_parent()
    return switch


def wait_for_end(server, max_seconds):
    deadline = time.monotonic() + max_seconds if max_seconds > 0 else None
    parent = os.getppid()
    watch_stdin = stat.S_ISFIFO(os.fstat(0).st_mode) or stat.S_ISSOCK(os.fstat(0).st_mode)
    while server.poll() is None and os.getppid() == parent:
        if deadline is not None and time.monotonic() > deadline:
            return
        if watch_stdin:
            ready, _, _ = select.select([0], [], [], 0.25)
            if ready and not os.read(0, 4096):
                return
        else:
            time.sleep(0.25)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--max-seconds", type=float, default=0.0)
    args = parser.parse_args()
    bindir = find_bin()
    if bindir is None:
        sys.stderr.write("postgres_peer.py: no PostgreSQL (Debian package postgresql); skipping\n")
        return peerlib.SKIP
    user = pwd.getpwnam("postgres") if os.geteuid() == 0 else None
    signal.signal(signal.SIGTERM, lambda signum, frame: sys.exit(0))
    signal.signal(signal.SIGHUP, lambda signum, frame: sys.exit(0))
    folder = tempfile.mkdtemp(prefix="mdx-postgres-")
    server = None
    try:
        os.chmod(folder, 0o755)
        if user is not None:
            os.chown(folder, user.pw_uid, user.pw_gid)
        data = os.path.join(folder, "data")
        subprocess.run([os.path.join(bindir, "initdb"), "-D", data, "-U", "postgres", "-A", "trust", "-E", "UTF8",
                        "--no-sync", "--no-instructions"], check=True, stdin=subprocess.DEVNULL,
                       stdout=subprocess.DEVNULL, preexec_fn=as_user(user))
        for _ in range(5):  # a port taken between free_port() and the bind: another one
            port = nginx_peer.free_port()
            server = subprocess.Popen([os.path.join(bindir, "postgres"), "-D", data, "-p", str(port), "-k", folder,
                                       "-c", "listen_addresses=127.0.0.1", "-c", "fsync=off",
                                       "-c", "logging_collector=off"],
                                      stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                      stderr=open(os.path.join(folder, "server.log"), "w"),
                                      preexec_fn=as_user(user))
            deadline = time.monotonic() + 30
            while server.poll() is None and time.monotonic() < deadline:
                ready = subprocess.run([os.path.join(bindir, "pg_isready"), "-q", "-h", "127.0.0.1", "-p", str(port)])
                if ready.returncode == 0:
                    break
                time.sleep(0.05)
            if server.poll() is None and time.monotonic() < deadline:
                break
            server.kill()
            server.wait()
            server = None
        if server is None:
            with open(os.path.join(folder, "server.log"), errors="replace") as f:
                raise RuntimeError("postgres did not start:\n" + f.read())
        print("PORT %d" % port, flush=True)
        wait_for_end(server, args.max_seconds)
        return 0
    finally:
        if server is not None and server.poll() is None:
            server.send_signal(signal.SIGINT)  # fast shutdown: clients are cut off
            try:
                server.wait(20)
            except subprocess.TimeoutExpired:
                server.kill()
                server.wait()
        shutil.rmtree(folder, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
