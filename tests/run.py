"""Runs the tests for ./test: builds, unit and contract tests through ctest, system tests through their own runner."""

import argparse
import os
import subprocess
import sys
import time
import xml.etree.ElementTree as ElementTree
from dataclasses import dataclass
from pathlib import Path

from lab.netns import Interrupted, signals_raise
from tests.system import runner

ROOT = Path(__file__).resolve().parent.parent
TEST_TIMEOUT_S = 120


@dataclass
class Tally:
    passed: int = 0
    failed: int = 0
    skipped: int = 0

    def add(self, passed=0, failed=0, skipped=0):
        self.passed += passed
        self.failed += failed
        self.skipped += skipped


def heading(text):
    print(f"\n== {text}", flush=True)


def build(preset, tally):
    """Builds a preset with the same shell function that ./demo uses. A build that fails counts as a failed test."""
    heading(f"build: {preset}")
    done = subprocess.run(["bash", "-c", f". lab/setup.sh; build_preset {preset}"], cwd=ROOT, check=False)
    if done.returncode != 0:
        tally.add(failed=1)
    return done.returncode == 0


def indented(text, lines=60):
    return "\n".join(f"      {line}" for line in text.strip().splitlines()[-lines:])


def unit(preset, tally):
    """Unit and contract tests. A test program that crashes fails the test that was running."""
    heading(f"unit and contract tests: {preset}")
    directory = ROOT / "build" / preset
    report = directory / "ctest.xml"
    report.unlink(missing_ok=True)
    began = time.monotonic()
    done = subprocess.run(["ctest", "--test-dir", str(directory), "-j", str(os.cpu_count() or 2), "--timeout",
                           str(TEST_TIMEOUT_S), "--output-junit", str(report), "-O", str(directory / "ctest.log")],
                          stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False)
    if not report.exists():
        print(f"  ctest ended with {done.returncode} and left no report; see {directory / 'ctest.log'}")
        return tally.add(failed=1)
    passed = failed = skipped = 0
    for case in ElementTree.parse(report).getroot().iter("testcase"):
        status = case.get("status")
        if status == "run":
            passed += 1
        elif status in ("notrun", "disabled") and case.find("skipped") is not None and not _missing(case):
            skipped += 1
            print(f"  skipped {case.get('name')}")
        else:
            failed += 1
            print(f"  FAILED  {case.get('name')}\n{indented(case.findtext('system-out') or 'no output')}")
    if passed + failed == 0 or (done.returncode != 0 and failed == 0):
        print(f"  ctest ended with {done.returncode} after {passed} tests; see {directory / 'ctest.log'}")
        failed += 1
    print(f"  {passed} passed, {failed} failed in {time.monotonic() - began:.0f} s")
    return tally.add(passed, failed, skipped)


def _missing(case):
    """Whether a test was not run because its program is not there: that is a failure, not a skip."""
    return "Unable to find" in (case.find("skipped").get("message") or "")


def system(preset, tally, names=()):
    heading(f"system tests: {preset}")
    os.environ["LUM_BIN"] = str(ROOT / "build" / preset / "bin")
    tally.add(*runner.run_suites(names))


def fuzz(minutes, tally):
    """Runs each fuzz target for a while on its corpus; a finding fails."""
    if not build("fuzz", tally):
        return
    programs = sorted((ROOT / "build/fuzz/bin").glob("fuzz_*"))
    heading(f"fuzz: {len(programs)} targets, {minutes:g} min each")
    for program in programs:
        work = ROOT / "build/fuzz/work" / program.name
        (work / "found").mkdir(parents=True, exist_ok=True)
        (work / "corpus").mkdir(exist_ok=True)
        seeds = ROOT / "tests/fuzz/corpus" / program.name.removeprefix("fuzz_")
        with (work / "log").open("wb") as log:
            done = subprocess.run([program, f"-max_total_time={int(minutes * 60)}", f"-artifact_prefix={work}/found/",
                                   "-timeout=20", work / "corpus", *([seeds] if seeds.is_dir() else [])],
                                  stdin=subprocess.DEVNULL, stdout=log, stderr=log, cwd=work, check=False)
        print(f"  {'ok    ' if done.returncode == 0 else 'FAILED'}  {program.name}", flush=True)
        if done.returncode != 0:
            print(indented((work / "log").read_text(errors="replace")))
        tally.add(passed=done.returncode == 0, failed=done.returncode != 0)
    if not programs:
        tally.add(failed=1)


def soak(minutes, preset, tally):
    heading(f"soak: {minutes:g} min")
    os.environ["LUM_BIN"] = str(ROOT / "build" / preset / "bin")
    os.environ["SOAK_MINUTES"] = str(minutes)
    # The loops of kills take as long as their number takes ($SOAK_KILLS), whatever the minutes.
    tally.add(*runner.run_suites(folder="soak", timeout=minutes * 60 + 1800))


def options():
    parser = argparse.ArgumentParser(prog="./test", add_help=False)
    parser.add_argument("--unit", action="store_true")
    parser.add_argument("--system", nargs="*", metavar="NAME")
    parser.add_argument("--sanitizers", action="store_true")
    parser.add_argument("--fuzz", type=float, metavar="MINUTES")
    parser.add_argument("--soak", type=float, metavar="MINUTES")
    return parser.parse_args()


def run(chosen, tally):
    only = chosen.fuzz is not None or chosen.soak is not None
    want_unit = chosen.unit or (chosen.system is None and not only)
    want_system = chosen.system is not None or (not chosen.unit and not only)
    presets = ["dev"] + (["asan-ubsan", "tsan"] if chosen.sanitizers else [])
    for preset in presets if want_unit or want_system or chosen.soak is not None else []:
        if not build(preset, tally):
            continue
        if want_unit:
            unit(preset, tally)
        if want_system:
            system(preset, tally, chosen.system or ())
        if chosen.soak is not None and preset == "dev":
            soak(chosen.soak, preset, tally)
    if chosen.fuzz is not None:
        fuzz(chosen.fuzz, tally)


def main():
    chosen, tally, began = options(), Tally(), time.monotonic()
    signals_raise()
    try:
        run(chosen, tally)
    except Interrupted as interrupted:
        print(f"\n{interrupted}")
        return interrupted.status
    print(f"\n{time.monotonic() - began:.0f} s" + (f", {tally.skipped} skipped" if tally.skipped else ""))
    print(f"{tally.passed} passed, {tally.failed} failed", flush=True)
    return 0 if tally.failed == 0 and tally.passed > 0 else 1


if __name__ == "__main__":
    sys.exit(main())
