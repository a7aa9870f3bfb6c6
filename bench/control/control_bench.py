#!/usr/bin/env python3
"""Threads and memory mappings of a running agent over N `status` requests
on its control socket (default 100,000), sampled every tenth of the way.
Usage: control_bench.py BUILD_DIR [N]"""
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time


def figure(pid, key):
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            if line.startswith(key + ":"):
                return int(line.split()[1])
    return -1


def maps(pid):
    with open(f"/proc/{pid}/maps") as f:
        return sum(1 for _ in f)


def request(path):
    s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    s.connect(path)
    s.sendall(b"status\n")
    s.shutdown(socket.SHUT_WR)
    reply = b""
    while True:
        chunk = s.recv(65536)
        if not chunk:
            break
        reply += chunk
    s.close()
    return reply


def main():
    build = os.path.abspath(sys.argv[1])
    total = int(sys.argv[2]) if len(sys.argv) > 2 else 100000
    stage = os.path.join(build, "stage")
    work = tempfile.mkdtemp(prefix="ardent-control-bench-")
    install = os.path.join(work, "install")
    for sub in ("bin", "lib", "module", "policy", "log", "run", "data/webshell", "data/upload"):
        os.makedirs(os.path.join(install, sub))
    os.symlink(os.path.join(stage, "bin", "ardent-agent"), os.path.join(install, "bin", "ardent-agent"))
    for name in os.listdir(os.path.join(stage, "lib")):
        os.symlink(os.path.join(stage, "lib", name), os.path.join(install, "lib", name))
    agent = subprocess.Popen([os.path.join(install, "bin", "ardent-agent"), "run", "--install-dir", install],
                             stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    sock = os.path.join(install, "run", "agent.sock")
    try:
        deadline = time.time() + 30
        while not os.path.exists(sock) and time.time() < deadline:
            time.sleep(0.05)
        request(sock)
        print(f"{'requests':>10} {'threads':>8} {'mappings':>9} {'VmRSS kB':>9}")
        print(f"{0:>10} {figure(agent.pid, 'Threads'):>8} {maps(agent.pid):>9} {figure(agent.pid, 'VmRSS'):>9}")
        start = time.time()
        failed = 0
        for i in range(1, total + 1):
            if b'"ok":true' not in request(sock):
                failed += 1
            if i % (total // 10) == 0:
                print(f"{i:>10} {figure(agent.pid, 'Threads'):>8} {maps(agent.pid):>9} "
                      f"{figure(agent.pid, 'VmRSS'):>9}", flush=True)
        elapsed = time.time() - start
        print(f"{total} requests in {elapsed:.1f} s ({total / elapsed:.0f}/s), {failed} not answered ok")
    finally:
        agent.send_signal(signal.SIGTERM)
        agent.wait(timeout=30)
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main()
