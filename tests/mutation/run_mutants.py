#!/usr/bin/env python3
"""Mutation pass: breaks the product code one fault at a time and tells which faults the suite catches.

Each mutant in mutants.toml replaces one exact text of one file (it must occur there exactly once).
The pass copies a source tree to a scratch folder (the tree it is given is never touched), builds
it once, checks that the selected tests pass unmutated, and then for each mutant: writes the
mutated file, builds only the targets its tests need (incrementally, in the same build folder),
runs its CTest selection under the suite lock, and puts the file back.

    tests/mutation/run_mutants.py                       # this working tree, each mutant's own tests
    tests/mutation/run_mutants.py --wide                # ... the whole suite for every mutant
    tests/mutation/run_mutants.py --commit e6a730f --wide --results old.json
    tests/mutation/run_mutants.py --only request-order-start-debugging byte-order-int
    tests/mutation/run_mutants.py --compare old.json new.json   # the table of two passes

A mutant is killed when at least one test fails (or times out), survived when all pass. Other
outcomes: stale (its text is not in the file exactly once: the code moved, update the mutant),
invalid (the mutated tree does not build), no-tests (the selection names no test of this tree),
pending (marked so in the list: its code has not landed yet).
"""

import argparse
import fcntl
import io
import json
import os
import re
import signal
import subprocess
import sys
import tarfile
import time
import tomllib
from pathlib import Path

HERE = Path(__file__).resolve().parent
REPO = HERE.parent.parent
LOCK = "/tmp/nox-suite.lock"  # held while tests run, as every test run on this machine does
# What a Java test class needs besides its own classes.
JAVA_TARGETS = ["noxjvm_inspector", "noxjvm_inspector_jar", "nox_agent_jar", "noxjvm_inspector_java_tests", "vmsim"]
FIELDS = {"id", "file", "find", "replace", "description", "kill", "status", "note"}


def load_mutants(path):
    with open(path, "rb") as f:
        mutants = tomllib.load(f).get("mutant", [])
    seen = set()
    for m in mutants:
        unknown = set(m) - FIELDS
        missing = {"id", "description", "kill"} - set(m)
        if m.get("status") != "pending":
            missing |= {"file", "find", "replace"} - set(m)
        if unknown or missing or m["id"] in seen:
            sys.exit(f"mutant {m.get('id')}: unknown fields {sorted(unknown)}, missing {sorted(missing)}, or a repeated id")
        seen.add(m["id"])
    return mutants


# ------------------------------------------------------------------------------------- the tree

def files_of_commit(revision):
    """{relative path: (mode, bytes)} of a commit of this repository."""
    archive = subprocess.run(["git", "-C", str(REPO), "archive", "--format=tar", revision],
                             check=True, capture_output=True).stdout
    files = {}
    with tarfile.open(fileobj=io.BytesIO(archive)) as tar:
        for member in tar.getmembers():
            if member.isfile():
                files[member.name] = (member.mode, tar.extractfile(member).read())
    return files


def files_of_tree(tree):
    """{relative path: (mode, bytes)} of a working tree: tracked and untracked files, not ignored ones."""
    listing = subprocess.run(["git", "-C", str(tree), "ls-files", "-z", "-co", "--exclude-standard"],
                             check=True, capture_output=True).stdout.decode()
    files = {}
    for name in filter(None, listing.split("\0")):
        path = Path(tree, name)
        if path.is_file() and not path.is_symlink():
            files[name] = (path.stat().st_mode & 0o777, path.read_bytes())
    return files


def sync(files, scratch):
    """Makes `scratch` hold exactly `files` (build/ aside); unchanged files keep their times, so
    that the build folder stays incremental across passes."""
    for name, (mode, data) in files.items():
        path = scratch / name
        if not path.is_file() or path.read_bytes() != data:
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_bytes(data)
        os.chmod(path, mode)
    for root, dirs, names in os.walk(scratch):
        rel_root = Path(root).relative_to(scratch)
        if rel_root == Path("."):
            dirs[:] = [d for d in dirs if d != "build"]
        for n in names:
            if str(rel_root / n) not in files:
                (Path(root) / n).unlink()


# ------------------------------------------------------------------------------------- building, testing

def run(command, log, cwd=None):
    with open(log, "a") as out:
        out.write("$ " + " ".join(command) + "\n")
        out.flush()
        return subprocess.run(command, cwd=cwd, stdout=out, stderr=subprocess.STDOUT).returncode


def tests_of(build, selection):
    """The tests a selection names, with their commands (from CTest's own listing)."""
    listing = subprocess.run(["ctest", "--test-dir", str(build), "--show-only=json-v1", *selection],
                             check=True, capture_output=True).stdout
    return json.loads(listing).get("tests", [])


def targets_of(build, tests):
    """The build targets that the tests' commands need: a C++ test runs its own executable, a Java
    test the library, the jars and its compiled classes."""
    targets = {"vmsim"}
    for test in tests:
        program = Path(test["command"][0])
        if program.name == "java":
            targets.update(JAVA_TARGETS)
        elif str(program).startswith(str(build)):
            targets.add(program.name)
    return sorted(targets)


def alive(pid):
    return pid > 0 and os.path.exists(f"/proc/{pid}")


def ipc_objects():
    """This user's System V segments whose creator has ended, and semaphore sets under the key of
    an ended VM (5000000 + pid * 100) or of a test (0x6e000000 and above): {("m" or "s", id)}."""
    found = set()
    with open("/proc/sysvipc/shm") as rows:
        next(rows)
        for f in map(str.split, rows):
            if int(f[7]) == os.geteuid() and not alive(int(f[4])):
                found.add(("m", int(f[1])))
    with open("/proc/sysvipc/sem") as rows:
        next(rows)
        for f in map(str.split, rows):
            key = int(f[0])
            vm_gone = 5000000 < key < 0x6e000000 and key % 100 == 0 and not alive((key - 5000000) // 100)
            if int(f[4]) == os.geteuid() and (vm_gone or key >= 0x6e000000):
                found.add(("s", int(f[1])))
    return found


def run_tests(build, selection, log, jobs):
    """Runs the selection under the suite lock; returns the names of the tests that failed.
    A test that a mutant crashes or hangs leaves its segments and semaphore sets behind, and they
    would fail the next runs: what this run's tests made and left is removed before the lock is
    given back (no other test runs while it is held)."""
    command = ["ctest", "--test-dir", str(build), "--output-on-failure", "-j", str(jobs), *selection]
    with open(log, "a") as out, open(LOCK, "a") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        before = ipc_objects()
        out.write("$ " + " ".join(command) + "\n")
        out.flush()
        result = subprocess.run(command, capture_output=True, text=True)
        out.write(result.stdout + result.stderr)
        for kind, ident in sorted(ipc_objects() - before):
            out.write(f"removing System V object left behind: ipcrm -{kind} {ident}\n")
            subprocess.run(["ipcrm", f"-{kind}", str(ident)], stdout=out, stderr=subprocess.STDOUT)
        fcntl.flock(lock, fcntl.LOCK_UN)
    failed = []
    if "The following tests FAILED:" in result.stdout:
        listed = result.stdout.split("The following tests FAILED:")[-1]
        failed = re.findall(r"^\s*\d+ - (\S+) \(", listed, re.M)
    if result.returncode != 0 and not failed:
        failed = ["(ctest failed: see the log)"]
    return failed


def selection_of(mutant, wide):
    return [] if wide else ["-R", mutant["kill"]]


# ------------------------------------------------------------------------------------- one mutant

def try_mutant(mutant, scratch, build, args, baseline_failures, log):
    if mutant.get("status") == "pending":
        return {"status": "pending", "killers": []}
    path = scratch / mutant["file"]
    original = path.read_bytes().decode() if path.is_file() else ""
    if original.count(mutant["find"]) != 1:
        return {"status": "stale", "killers": []}
    selection = selection_of(mutant, args.wide)
    tests = tests_of(build, selection)
    if not tests:
        return {"status": "no-tests", "killers": []}
    path.write_bytes(original.replace(mutant["find"], mutant["replace"]).encode())
    try:
        targets = targets_of(build, tests)
        if run(["cmake", "--build", str(build), "-j", str(args.jobs), "--target", *targets], log) != 0:
            return {"status": "invalid", "killers": []}
        failed = [t for t in run_tests(build, selection, log, args.jobs) if t not in baseline_failures]
        if not failed:
            return {"status": "survived", "killers": []}
        # A test that fails once may be a flaky one: only a test that fails again counts.
        again = run_tests(build, ["-R", "^(" + "|".join(re.escape(t) for t in failed) + ")$"], log, args.jobs)
        killers = [t for t in failed if t in again]
        flaky = [t for t in failed if t not in again]
        return {"status": "killed" if killers else "survived", "killers": killers, "flaky": flaky}
    finally:
        path.write_bytes(original.encode())


def prepare(args, mutants):
    """Copies the tree to the scratch folder, configures and builds it, and returns the tests that
    fail there before any mutation (they are left out of every verdict)."""
    files = files_of_commit(args.commit) if args.commit else files_of_tree(Path(args.tree or REPO))
    scratch = Path(args.work) / "tree"
    scratch.mkdir(parents=True, exist_ok=True)
    sync(files, scratch)
    build = scratch / "build" / "release"
    log = Path(args.work) / "build.log"
    log.write_text("")
    print(f"building {scratch} (log: {log})", flush=True)
    if run(["cmake", "--preset", "release"], log, cwd=scratch) != 0 or \
            run(["cmake", "--build", str(build), "-j", str(args.jobs)], log) != 0:
        sys.exit(f"the unmutated tree does not build: see {log}")
    selection = []
    if not args.wide:
        # The union of the mutants' selections, by name: CTest's regular expressions allow only a
        # few groups, too few to join the selections themselves.
        names = {t["name"] for m in mutants if m.get("status") != "pending" for t in tests_of(build, selection_of(m, False))}
        if not names:
            sys.exit("the mutants' selections name no test of this tree")
        selection = ["-R", "^(" + "|".join(sorted(re.escape(n) for n in names)) + ")$"]
    failures = run_tests(build, selection, log, args.jobs)
    if failures:
        print("failing before any mutation (left out of the verdicts): " + ", ".join(failures), flush=True)
    return scratch, build, set(failures)


# ------------------------------------------------------------------------------------- reports

def check(mutants, files):
    bad = 0
    for m in mutants:
        if m.get("status") == "pending":
            continue
        count = files.get(m["file"], (0, b""))[1].decode().count(m["find"])
        if count != 1:
            bad += 1
            print(f"{m['id']}: its text occurs {count} times in {m['file']}")
    print(f"{len(mutants)} mutants, {bad} stale")
    return 1 if bad else 0


def compare(old_file, new_file, mutants):
    old = {r["id"]: r for r in json.loads(Path(old_file).read_text())["results"]}
    new = {r["id"]: r for r in json.loads(Path(new_file).read_text())["results"]}
    print("| mutant | what it breaks | old suite | new suite | killed in the new suite by |")
    print("|---|---|---|---|---|")
    lost = []
    for m in mutants:
        o = old.get(m["id"], {}).get("status", "-")
        n = new.get(m["id"], {}).get("status", "-")
        killers = ", ".join(new.get(m["id"], {}).get("killers", [])[:4])
        print(f"| {m['id']} | {m['description']} | {o} | {n} | {killers} |")
        if o == "killed" and n != "killed":
            lost.append(m["id"])
    if lost:
        print("\nkilled by the old suite but not by the new one: " + ", ".join(lost))
    return 1 if lost else 0


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--commit", help="a revision of this repository to test (instead of a working tree)")
    parser.add_argument("--tree", help="the working tree to test, uncommitted changes included (default: this one)")
    parser.add_argument("--work", help="scratch folder, kept for incremental builds (default: /tmp/nox-mutation/<name>)")
    parser.add_argument("--mutants", default=str(HERE / "mutants.toml"))
    parser.add_argument("--only", nargs="+", metavar="ID", help="only these mutants")
    parser.add_argument("--wide", action="store_true", help="run the whole suite for each mutant")
    parser.add_argument("--jobs", type=int, default=2)
    parser.add_argument("--results", help="write the results to this JSON file")
    parser.add_argument("--compare", nargs=2, metavar=("OLD", "NEW"), help="print the table of two results files")
    parser.add_argument("--check", action="store_true", help="only check that every mutant's text is in the tree once")
    args = parser.parse_args()
    # A pass ended with SIGTERM still puts the mutated file back (the finally in try_mutant).
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))

    mutants = load_mutants(args.mutants)
    if args.compare:
        return compare(*args.compare, mutants)
    if args.check:
        return check(mutants, files_of_commit(args.commit) if args.commit else files_of_tree(Path(args.tree or REPO)))
    if args.only:
        unknown = set(args.only) - {m["id"] for m in mutants}
        if unknown:
            sys.exit("no such mutants: " + ", ".join(sorted(unknown)))
        mutants = [m for m in mutants if m["id"] in args.only]
    name = args.commit or Path(args.tree or REPO).resolve().name
    args.work = args.work or f"/tmp/nox-mutation/{re.sub(r'[^A-Za-z0-9._-]', '_', name)}"

    scratch, build, baseline_failures = prepare(args, mutants)
    log = Path(args.work) / "mutants.log"
    log.write_text("")
    results = []
    for mutant in mutants:
        started = time.monotonic()
        with open(log, "a") as out:
            out.write(f"\n===== {mutant['id']}\n")
        result = try_mutant(mutant, scratch, build, args, baseline_failures, log)
        result.update(id=mutant["id"], seconds=round(time.monotonic() - started))
        results.append(result)
        flaky = f" (failed once only: {', '.join(result['flaky'])})" if result.get("flaky") else ""
        print(f"{mutant['id']:44} {result['status']:9} {', '.join(result['killers'][:3])}{flaky}", flush=True)
        if args.results:
            Path(args.results).write_text(json.dumps({"tree": name, "wide": args.wide, "results": results}, indent=1))
    survived = [r["id"] for r in results if r["status"] == "survived"]
    print(f"\n{sum(r['status'] == 'killed' for r in results)} killed, {len(survived)} survived"
          + (": " + ", ".join(survived) if survived else ""))
    return 0


if __name__ == "__main__":
    sys.exit(main())
