"""Coverage of lum/ by its unit tests: runs lum_tests of a build made with --coverage, prints lines and branches a file.

Usage: coverage.py BUILD_DIR [--list]. Branches are counted as gcov has them, without those that only an exception takes
and without calls. `--list` names every line, and every line with a branch, that is not covered. The exit status is 1
when less than 95 % of the lines or 85 % of the branches are covered, or a test fails.
"""

import gzip
import json
import subprocess
import sys
import tempfile
from pathlib import Path

LINES_WANTED, BRANCHES_WANTED = 95.0, 85.0
ROOT = Path(__file__).resolve().parent.parent


def run_tests(build):
    for old in build.rglob("*.gcda"):
        old.unlink()
    done = subprocess.run([build / "bin/lum_tests", "--gtest_brief=1"], stdin=subprocess.DEVNULL, capture_output=True,
                          text=True, errors="replace", check=False)
    print((done.stdout or done.stderr).strip().splitlines()[-1])
    return done.returncode == 0


def counts(build):
    """{file: {line: (count, [branch taken, ...])}} of lum/, summed over the objects that contain a line."""
    files = {}
    # Of an inline function the linker keeps one copy, which may be a test's object.
    objects = sorted([*build.glob("lum/CMakeFiles/lum_core.dir/*.gcda"), *build.glob("lum/CMakeFiles/lum_tests.dir/**/*.gcda")])
    with tempfile.TemporaryDirectory() as work:
        for data in objects:
            subprocess.run(["gcov", "--json-format", "--branch-probabilities", data], cwd=work, check=True,
                           stdout=subprocess.DEVNULL)
            for report in Path(work).glob("*.gcov.json.gz"):
                with gzip.open(report) as packed:
                    collect(json.load(packed), files)
                report.unlink()
    return files


def collect(report, files):
    for file in report["files"]:
        path = (Path(report["current_working_directory"]) / file["file"]).resolve()
        if path.parent != ROOT / "lum":
            continue
        lines = files.setdefault(path.name, {})
        for line in file["lines"]:
            number, taken = line["line_number"], [b["count"] for b in line["branches"] if not b["throw"]]
            count, branches = lines.get(number, (0, []))
            # A line of a header or template stands in many objects: what one of them reaches is reached.
            if len(branches) == len(taken):
                taken = [a + b for a, b in zip(branches, taken)]
            elif len(branches) > len(taken):
                taken = branches
            lines[number] = (count + line["count"], taken)


def percent(part, whole):
    return 100.0 * part / whole if whole else 100.0


def summary(lines):
    branches = [b for _, taken in lines.values() for b in taken]
    return (sum(1 for count, _ in lines.values() if count), len(lines), sum(1 for b in branches if b), len(branches))


def spans(numbers):
    """1,2,3,7 as 1-3, 7."""
    found = []
    for number in sorted(numbers):
        if found and found[-1][1] == number - 1:
            found[-1][1] = number
        else:
            found.append([number, number])
    return ", ".join(f"{a}" if a == b else f"{a}-{b}" for a, b in found)


def main():
    build, listed = Path(sys.argv[1]).resolve(), "--list" in sys.argv
    passed = run_tests(build)
    files = counts(build)
    total = [0, 0, 0, 0]
    print(f"{'file':<32}{'lines':>16}{'branches':>18}")
    for name, lines in sorted(files.items()):
        some = summary(lines)
        total = [a + b for a, b in zip(total, some)]
        print(f"{name:<32}{some[0]:>5}/{some[1]:<5}{percent(*some[:2]):5.1f}{some[2]:>7}/{some[3]:<5}{percent(*some[2:]):5.1f}")
        if listed:
            missing = [n for n, (count, _) in lines.items() if not count]
            partly = [n for n, (count, taken) in lines.items() if count and not all(taken)]
            print(f"    lines not run: {spans(missing) or 'none'}\n    branches not taken at: {spans(partly) or 'none'}")
    lines, branches = percent(*total[:2]), percent(*total[2:])
    print(f"lum/: lines {total[0]}/{total[1]} {lines:.1f} %, branches {total[2]}/{total[3]} {branches:.1f} %")
    return 0 if passed and total[1] and lines > LINES_WANTED and branches > BRANCHES_WANTED else 1


if __name__ == "__main__":
    sys.exit(main())
