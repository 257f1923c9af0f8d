#!/usr/bin/env python3
"""Tells how much of the product the tests run, and what of it they do not.

usage: docs/coverage.py LIBRARY PROFILE

LIBRARY is the product built with its coverage counted, PROFILE what llvm-profdata made of a run.
Prints lines and branches of each folder. Fails below the goals, where a place that is not covered
has no row in docs/coverage.md, and where a row has no such place any more.
"""
import collections
import json
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
GOALS = {"lines": 98, "branches": 92}
FOLDERS = ("common", "config", "mculink", "isp", "fpga", "selftest", "service")


def exported(library, profile):
    """What llvm-cov knows of each file of the product, by the file's name in the project."""
    told = subprocess.run(["llvm-cov", "export", library, "-instr-profile", profile], check=True,
                          capture_output=True).stdout
    files = {}
    for file in json.loads(told)["data"][0]["files"]:
        path = pathlib.Path(file["filename"]).resolve()
        name = str(path.relative_to(ROOT)) if path.is_relative_to(ROOT) else ""
        if name.split("/")[0] in FOLDERS:
            files[name] = file
    return files


def branches_never_taken(file):
    """Lines with a condition that had one value only. A template's instances count as one; what was
    never asked at all is in a region that never ran."""
    taken = collections.defaultdict(lambda: [0, 0])
    for line, column, _, _, true, false, *_ in file["branches"]:
        taken[line, column][0] += true
        taken[line, column][1] += false
    for expansion in file["expansions"]:  # of macros: where they are used
        line, column = expansion["source_region"][:2]
        for start, _, _, _, true, false, *_ in expansion["branches"]:
            taken[line, (column, start)][0] += true
            taken[line, (column, start)][1] += false
    return {line for (line, _), counts in taken.items() if 0 in counts and any(counts)}


def regions_never_run(file):
    return {line for line, _, count, has_count, is_entry, is_gap in file["segments"]
            if has_count and is_entry and not is_gap and count == 0}


def places(files):
    """File, line and text of each place that is not covered."""
    for name, file in sorted(files.items()):
        text = (ROOT / name).read_text().split("\n")
        branches = branches_never_taken(file)
        behind = {line + 1 for line in branches}  # what the condition guards is no place of its own
        for line in sorted(branches | regions_never_run(file) - behind):
            yield name, line, text[line - 1].strip()


def rows():
    """File and code of each row of the page's table."""
    row = re.compile(r"^\| `([\w/.]+)` \| `(.+?)` \| .+ \|$", re.M)
    return row.findall((ROOT / "docs/coverage.md").read_text())


def print_table(files):
    """Returns what is covered in percent."""
    sums = collections.defaultdict(lambda: collections.Counter())
    for name, file in files.items():
        for folder in (name.split("/")[0], "all"):
            for kind in GOALS:
                sums[folder][kind] += file["summary"][kind]["count"]
                sums[folder][kind + " covered"] += file["summary"][kind]["covered"]
    print(f"{'':10}{'lines':>8}{'covered':>10}{'branches':>11}{'covered':>10}")
    for folder in (*FOLDERS, "all"):
        sum_of = sums[folder]
        shares = [100 * sum_of[kind + " covered"] / sum_of[kind] if sum_of[kind] else 100
                  for kind in GOALS]
        print(f"{folder:10}{sum_of['lines']:8}{shares[0]:9.2f} %{sum_of['branches']:10}"
              f"{shares[1]:9.2f} %")
    return dict(zip(GOALS, shares))


def main():
    files = exported(*sys.argv[1:])
    shares = print_table(files)
    problems = [f"{kind}: less than {goal} % are covered" for kind, goal in GOALS.items()
                if shares[kind] < goal]
    known = rows()
    met = set()
    for name, line, text in places(files):
        reasons = [row for row in known if row[0] == name and row[1] in text]
        met.update(reasons)
        if not reasons:
            problems.append(f"{name}:{line}: not covered, without a reason: {text}")
    problems += [f"docs/coverage.md: covered by now: {file}: {code}"
                 for file, code in known if (file, code) not in met]
    print("\n".join(problems) or f"{len(known)} places that are not covered have their reasons")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
