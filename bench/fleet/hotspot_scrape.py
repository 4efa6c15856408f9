#!/usr/bin/env python3
"""A scrape of `noxinspect serve` with 100 HotSpot VMs, for two builds side by side.

Publishes copies of a real JDK 17 VM's performance-data file (its begin time moved to now) in
/tmp/hsperfdata_<user> under 100 live child processes, starts `noxinspect serve` of each build
given, and scrapes them in alternating turns. Prints per build the median and p90 scrape time
and the bytes the serving process read per scrape (rchar of /proc/<pid>/io), and the ratio of the
medians. The files are removed at the end, also on failure.

    python3 bench/fleet/hotspot_scrape.py NAME=SOURCE_DIR[:BUILD_DIR] ... [--vms 100] [--scrapes 200]

Not a test: it writes into the real /tmp/hsperfdata_<user>, so run it under the suite lock.
"""
import argparse
import os
import pwd
import re
import signal
import statistics
import struct
import subprocess
import sys
import time
import urllib.request

SEED = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "fuzz", "corpus",
                    "perf_data_buffer", "g1-sleeping-vm")


def vm_file():
    """The seed file with sun.rt.createVmBeginTime set to now (little-endian, as this machine)."""
    data = bytearray(open(SEED, "rb").read())
    name = b"sun.rt.createVmBeginTime\0"
    at = data.find(name)
    if at < 20:
        raise SystemExit("no begin time in the seed file")
    entry = at - 20  # the name follows the entry's 20-byte header
    data_offset = struct.unpack_from("<i", data, entry + 16)[0]
    struct.pack_into("<q", data, entry + data_offset, int(time.time() * 1000))
    return bytes(data)


def rchar(pid):
    with open(f"/proc/{pid}/io") as f:
        for line in f:
            if line.startswith("rchar:"):
                return int(line.split()[1])
    return 0


def start_serve(source, build):
    env = dict(os.environ, NOX_BUILD_DIR=build)
    p = subprocess.Popen([os.path.join(source, "tools", "noxinspect"), "serve", "--port", "0"],
                         stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, env=env, text=True)
    deadline = time.time() + 60
    while time.time() < deadline:
        line = p.stdout.readline()
        m = re.search(r"(http://\S+)", line)
        if m:
            return p, m.group(1)
        if not line:
            break
    p.kill()
    raise SystemExit(f"serve of {source} did not start")


def scrape(url):
    began = time.perf_counter()
    with urllib.request.urlopen(url, timeout=30) as r:
        body = r.read().decode()
    return time.perf_counter() - began, body


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("builds", nargs="+", help="NAME=SOURCE_DIR[:BUILD_DIR]")
    ap.add_argument("--vms", type=int, default=100)
    ap.add_argument("--scrapes", type=int, default=200)
    args = ap.parse_args()

    user = pwd.getpwuid(os.geteuid()).pw_name
    folder = f"/tmp/hsperfdata_{user}"
    os.makedirs(folder, mode=0o755, exist_ok=True)
    children, planted, serves = [], [], []
    try:
        for _ in range(args.vms):
            children.append(subprocess.Popen(["sleep", "3600"]))
        time.sleep(1.1)  # the VMs begin a whole second after their processes started
        data = vm_file()
        for c in children:
            path = os.path.join(folder, str(c.pid))
            with open(path, "wb") as f:
                f.write(data)
            planted.append(path)
        for build in args.builds:
            name, dirs = build.split("=", 1)
            source, _, build = dirs.partition(":")
            build = build or os.path.join(source, "build", "release")
            proc, url = start_serve(source, build)
            serves.append((name, proc, url))
        pids = {str(c.pid) for c in children}
        times = {name: [] for name, _, _ in serves}
        reads = {name: [] for name, _, _ in serves}
        found = {}
        for i in range(args.scrapes + 30):
            for name, proc, url in (serves if i % 2 == 0 else list(reversed(serves))):
                before = rchar(proc.pid)
                took, body = scrape(url)
                after = rchar(proc.pid)
                if i >= 30:  # the first ones warm the JVMs up
                    times[name].append(took)
                    reads[name].append(after - before)
                    found[name] = len({p for p in re.findall(r'^nox_vm_up\{[^}]*pid="(\d+)"', body, re.M)} & pids)
        used = struct.unpack_from("<i", data, 8)[0]  # the prologue's used size
        print(f"scrape of {args.vms} HotSpot VMs (files of {len(data)} bytes, {used} used), {args.scrapes} scrapes "
              "each, alternating:")
        medians = {}
        for name, _, _ in serves:
            t = sorted(times[name])
            medians[name] = statistics.median(t)
            print(f"  {name:8s} median {medians[name] * 1e3:7.2f} ms  p90 {t[int(0.9 * len(t)) - 1] * 1e3:7.2f} ms  "
                  f"read per scrape median {statistics.median(reads[name]) / 1024:8.0f} KiB "
                  f"({statistics.median(reads[name]) / (args.vms * len(data)):.2f}x the files' sizes, "
                  f"{statistics.median(reads[name]) / (args.vms * used):.2f}x their used parts)  "
                  f"VMs found {found[name]}")
        names = [n for n, _, _ in serves]
        for other in names[1:]:
            print(f"  {other} / {names[0]}: {medians[other] / medians[names[0]]:.2f}x")
    finally:
        for _, proc, _ in serves:
            proc.send_signal(signal.SIGTERM)
            try:
                proc.wait(10)
            except subprocess.TimeoutExpired:
                proc.kill()
        for path in planted:
            try:
                os.unlink(path)
            except FileNotFoundError:
                pass
        for c in children:
            c.kill()
            c.wait()


if __name__ == "__main__":
    sys.exit(main())
