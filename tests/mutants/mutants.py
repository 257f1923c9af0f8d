#!/usr/bin/env python3
"""Puts one defect after another into a copy of the tree, and tells who notices it.

Each patch in the folders beside this file is a defect: a line that says which, then the difference.
The copy, its build and what is printed of failures lie in build/mutants/. A mutant is built, then
judged, by whatever is first of: the tests of its folder, all tests, the swarm.
"""
import argparse
import hashlib
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
PLACE = ROOT / "build" / "mutants"
TREE = PLACE / "tree"
BUILD = TREE / "build" / "mutants"
LOGS = PLACE / "logs"
# They compare with recorded results of whole runs, or look at texts of the tree: that something is
# different they notice, but not that it is wrong. Or they measure real time, and notice other work.
BLIND = ("*.TracesOf*:*InRealTime*:HouseRules.*:InstalledTree.*:DebianPackage.*:Batches.*:"
         "InterfacePage.*:Mutants.*")
# Seconds without a word after which a test program hangs. No test takes a tenth of it.
SILENCE_MOST = 180


def files_of_the_tree():
    listed = subprocess.run(["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
                            cwd=ROOT, check=True, capture_output=True).stdout
    return [name for name in listed.decode().split("\0") if name and (ROOT / name).is_file()]


def make_copy():
    """Makes the copy equal to the tree. What is equal already keeps its time, and is not built."""
    names = set(files_of_the_tree())
    digest = hashlib.sha256()
    for name in sorted(names):
        content = (ROOT / name).read_bytes()
        digest.update(name.encode() + b"\0" + content)
        copy = TREE / name
        if copy.is_file() and copy.read_bytes() == content:
            continue
        copy.parent.mkdir(parents=True, exist_ok=True)
        shutil.copyfile(ROOT / name, copy)
        shutil.copymode(ROOT / name, copy)
    for folder, folders, files in os.walk(TREE):
        if pathlib.Path(folder) == TREE and "build" in folders:
            folders.remove("build")
        for file in files:
            path = pathlib.Path(folder) / file
            if str(path.relative_to(TREE)) not in names:
                path.unlink()
    return digest.hexdigest()


class Mutant:
    def __init__(self, patch):
        self.patch = patch
        self.name = str(patch.relative_to(ROOT / "tests/mutants").with_suffix(""))
        text = patch.read_text()
        self.says = text.split("\n", 1)[0]
        self.file = re.search(r"^\+\+\+ b/(\S+)", text, re.M).group(1)

    def apply(self):
        return subprocess.run(["patch", "-p1", "--fuzz=0", "--no-backup-if-mismatch", "-s", "-f",
                               "-r", "-", "-i", self.patch], cwd=TREE).returncode == 0

    def near_suites(self):
        """The suites of the tests' folder that is named after the mutated one."""
        parts = [part for part in self.file.split("/")[:-1] if part != "tools"]
        suites = set()
        for part in parts[:1]:
            for source in (ROOT / "tests" / part).glob("*.cpp"):
                suites.update(re.findall(r"^TEST(?:_[FP])?\((\w+),", source.read_text(), re.M))
        return sorted(suites)


def finish(processes):
    for process in processes:
        try:
            os.killpg(process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        process.wait()


def start(command, log, environment=None):
    with open(log, "w") as out:
        return subprocess.Popen([str(word) for word in command], cwd=TREE, stdin=subprocess.DEVNULL,
                                stdout=out, stderr=subprocess.STDOUT, start_new_session=True,
                                env={**os.environ, **(environment or {})})


def build(jobs):
    log = PLACE / "build.log"
    process = start(["cmake", "--build", "--preset", "mutants", "-j", jobs], log)
    try:
        done = process.wait()
    finally:
        finish([process])
    return "" if done == 0 else "does not build, see " + str(log.relative_to(ROOT))


def failed_test(log, code):
    text = log.read_text(errors="replace")
    failed = re.search(r"\[  FAILED  \] ([\w/]+\.[\w/]+)", text)
    if failed:
        return failed.group(1)
    begun = re.findall(r"\[ RUN      \] ([\w/]+\.[\w/]+)", text)
    how = "hangs" if code is None else "ends with " + str(code)
    return (begun[-1] if begun else "the test program") + ", which " + how


def tests(wanted, jobs):
    """The first test that fails; nothing when all pass."""
    shards = []
    for shard in range(jobs):
        log = LOGS / f"tests.{shard}"
        command = [BUILD / "bin/quil_tests", "--gtest_fail_fast", "--gtest_filter=" + wanted]
        shards.append((start(command, log, {"GTEST_TOTAL_SHARDS": str(jobs),
                                            "GTEST_SHARD_INDEX": str(shard)}), log))
    try:
        while True:
            codes = [(process.poll(), log) for process, log in shards]
            for code, log in codes:
                if code:
                    return failed_test(log, code)
            if all(code == 0 for code, log in codes):
                return ""
            for code, log in codes:
                if code is None and time.time() - log.stat().st_mtime > SILENCE_MOST:
                    return failed_test(log, None)
            time.sleep(0.02)
    finally:
        finish([process for process, log in shards])


def swarm(seconds, jobs):
    """The first world with a finding; nothing when there is none for so long."""
    log = LOGS / "swarm"
    process = start([BUILD / "bin/quil_swarm", "--seconds", seconds, "--jobs", jobs, "--no-shrink"],
                    log)
    try:
        while True:
            code = process.poll()
            found = re.search(r"^(seed \d+): (.*)", log.read_text(errors="replace"), re.M)
            if found:
                return found.group(1) + ", " + found.group(2)
            if code is not None:
                return "" if code == 0 else f"the swarm, which ends with {code}"
            time.sleep(0.05)
    finally:
        finish([process])


def judge(near, options):
    """Who notices what is built now: the kind of judge, and what it says."""
    blind = "-" + BLIND
    suites = ":".join(f"{suite}.*:*/{suite}.*" for suite in near)
    if near:
        said = tests(suites + blind, options.jobs)
        if said:
            return "tests", said
    said = tests("*" + blind + (":" + suites if suites else ""), options.jobs)
    if said:
        return "tests", said
    said = swarm(options.seconds, options.jobs)
    return ("swarm", said) if said else ("", "")


def require_sound_tree(digest, options):
    """What is noticed of a mutant must not be noticed of the tree itself."""
    stamp = PLACE / "sound"
    if stamp.is_file() and stamp.read_text() == digest:
        return
    problem = build(options.jobs) or judge([], options)[1]
    if problem:
        sys.exit("without a mutant: " + problem)
    stamp.write_text(digest)


def run(mutant, options):
    start_time = time.monotonic()
    if not mutant.apply():
        return "error", "the patch does not apply", start_time
    problem = build(options.jobs)
    if problem:
        return "error", problem, start_time
    kind, said = judge(mutant.near_suites(), options)
    return kind or "survived", said, start_time


def show(mutant, kind, said, seconds, as_json):
    if as_json:
        print(json.dumps({"mutant": mutant.name, "says": mutant.says, "noticed_by": kind,
                          "says_who": said, "seconds": round(seconds, 1)}), flush=True)
        return
    mark = {"swarm": "  (the swarm alone)", "survived": "SURVIVED: " + mutant.says,
            "error": "ERROR: "}.get(kind, "")
    print(f"{mutant.name:50} {seconds:6.1f} s  {said if kind != 'error' else mark + said}"
          f"{'' if kind == 'error' else mark}", flush=True)


def selected(options):
    here = ROOT / "tests" / "mutants"
    mutants = [Mutant(patch) for patch in sorted(here.rglob("*.patch"))]
    if options.names:
        mutants = [one for one in mutants
                   if {one.name, *one.name.split("/"), *one.file.split("/")} & set(options.names)]
        if not mutants:
            sys.exit("there is no such mutant")
    index, count = map(int, options.shard.split("/"))
    return mutants[index::count]


def main():
    parser = argparse.ArgumentParser(prog="./run mutants", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("names", nargs="*", metavar="NAME",
                        help="mutants, or folders that they are in or change")
    parser.add_argument("--shard", default="0/1", help="I/N: every N-th mutant, from the I-th on")
    parser.add_argument("--seconds", type=int, default=60, help="for the swarm (default: 60)")
    parser.add_argument("--jobs", type=int, default=os.cpu_count())
    parser.add_argument("--json", action="store_true", help="a line of JSON for each mutant")
    options = parser.parse_args()
    with tempfile.TemporaryDirectory(prefix="quil-mutants-") as place:
        os.environ["TMPDIR"] = place  # what ended processes leave behind goes with it
        return run_all(selected(options), options)


def run_all(mutants, options):
    LOGS.mkdir(parents=True, exist_ok=True)
    digest = make_copy()
    subprocess.run(["cmake", "--preset", "mutants"], cwd=TREE, check=True,
                   stdout=subprocess.DEVNULL)
    require_sound_tree(digest, options)
    results = []
    for mutant in mutants:
        kind, said, start_time = run(mutant, options)
        results.append(kind)
        show(mutant, kind, said, time.monotonic() - start_time, options.json)
        make_copy()
    if not options.json:
        print(f"{len(results)} mutants: {results.count('tests')} noticed by tests, "
              f"{results.count('swarm')} by the swarm alone, {results.count('survived')} survived, "
              f"{results.count('error')} could not be judged")
    return 1 if {"survived", "error"} & set(results) else 0


if __name__ == "__main__":
    sys.exit(main())
