"""Runs the suites of this folder, each in a process of its own, as many at once as there are cores.

A suite is a unittest.TestCase in a file test_*.py; its tests' names are sentences. A suite whose process crashes, or
does not end in time, fails with every test that it still had to run. `EXCLUSIVE = True` keeps others away meanwhile;
a suite that mostly waits for the clock says `WAITS = True` and takes none of the others' places.
"""

import concurrent.futures
import importlib
import json
import os
import subprocess
import sys
import tempfile
import threading
import time
import traceback
import unittest
from pathlib import Path

from lab.netns import Interrupted, signals_raise

HERE = Path(__file__).resolve().parent
ROOT = HERE.parent.parent
SUITE_TIMEOUT_S = 420
WAITING_AT_ONCE = 4
KINDS = {"alone": "EXCLUSIVE", "waits": "WAITS"}


def sentence(name):
    return name.removeprefix("test_").replace("_", " ")


def title(suite):
    """A suite's class name as words."""
    return "".join(f" {c.lower()}" if c.isupper() and i else c for i, c in enumerate(suite))


def suites_of(folder):
    """(module, class, how it runs: alone, waits or "", [test, ...]) of every suite of a folder beside this file."""
    found = []
    for path in sorted((HERE if folder == "." else HERE.parent / folder).glob("test_*.py")):
        module = f"tests.{'system' if folder == '.' else folder}.{path.stem}"
        try:
            loaded = importlib.import_module(module)
        except Exception:                                    # its own process shows the reason, as a failed test
            found.append((module, path.stem, "", ["test_the_file_can_be_loaded"]))
            continue
        for name, value in vars(loaded).items():
            if isinstance(value, type) and issubclass(value, unittest.TestCase) and value.__module__ == module:
                tests = unittest.defaultTestLoader.getTestCaseNames(value)
                if tests:
                    kind = next((k for k, mark in KINDS.items() if getattr(value, mark, False)), "")
                    found.append((module, name, kind, list(tests)))
    return found


def chosen(suites, names):
    """Suites and tests whose names contain one of the given ones; all when none are given."""
    picked = []
    for module, name, kind, tests in suites:
        whole = any(n.lower() in (name.lower(), module.rsplit(".", 1)[1].lower(), title(name).lower()) for n in names)
        some = tests if not names or whole else [t for t in tests if any(n in t or n in sentence(t) for n in names)]
        if some:
            picked.append((module, name, kind, some))
    return picked


# ---- in the suite's own process

class _Report(unittest.TestResult):
    """Writes a line of JSON for every test as it ends."""

    def __init__(self, out):
        super().__init__()
        self.out, self.began = out, 0.0

    def startTest(self, test):
        super().startTest(test)
        self.began, self._problem = time.monotonic(), None

    def stopTest(self, test):
        super().stopTest(test)
        self._write(test, self._problem or ("passed", ""))

    def _write(self, test, outcome):
        name = getattr(test, "_testMethodName", None) or str(test)
        self.out.write(json.dumps({"test": name, "outcome": outcome[0], "text": outcome[1],
                                   "seconds": time.monotonic() - self.began}) + "\n")
        self.out.flush()

    def _note(self, test, outcome, error):
        text = "".join(traceback.format_exception(*error)) if error else ""
        if hasattr(test, "_testMethodName"):
            self._problem = (outcome, text)
        else:                                                # setUpClass or tearDownClass
            self.began = time.monotonic()
            self._write(test, (outcome, text))

    def addError(self, test, err):
        super().addError(test, err)
        self._note(test, "failed", err)

    def addFailure(self, test, err):
        super().addFailure(test, err)
        self._note(test, "failed", err)

    def addSubTest(self, test, subtest, err):
        super().addSubTest(test, subtest, err)
        if err:
            earlier = self._problem[1] if self._problem else ""
            text = earlier + f"{subtest._subDescription()}\n" + "".join(traceback.format_exception(*err))
            self._problem = ("failed", text)

    def addSkip(self, test, reason):
        super().addSkip(test, reason)
        self._problem = ("skipped", reason)


def worker(module, name, tests, out):
    signals_raise()
    cls = getattr(importlib.import_module(module), name)
    suite = unittest.TestSuite(cls(test) for test in tests)
    with open(out, "w") as file:
        try:
            suite.run(_Report(file))
        except Interrupted as interrupted:
            # Fixtures are not torn down by a run that is cut short: do it here.
            cls.doClassCleanups()
            sys.exit(interrupted.status)


# ---- in the process of ./test

class _Printer:
    def __init__(self):
        self.lock, self.passed, self.failed, self.skipped = threading.Lock(), 0, 0, 0

    def suite(self, name, results):
        with self.lock:
            print(f"  {title(name)}")
            for result in results:
                outcome = result["outcome"]
                setattr(self, outcome, getattr(self, outcome) + 1)
                mark = {"passed": "ok    ", "failed": "FAILED", "skipped": "skipped"}[outcome]
                print(f"    {mark} {sentence(result['test'])} ({result['seconds']:.1f} s)")
                if outcome == "failed":
                    print("\n".join(f"           {line}" for line in result["text"].rstrip().splitlines()[-60:]))
            sys.stdout.flush()


_running = set()                                             # processes of suites


def _reporting_to(folder):
    """The environment in which programs with a sanitizer leave their reports in a folder."""
    def option(name, *more):
        return ":".join(filter(None, (os.environ.get(name), f"log_path={folder}/report", *more)))
    return {**os.environ, "ASAN_OPTIONS": option("ASAN_OPTIONS"), "UBSAN_OPTIONS": option("UBSAN_OPTIONS"),
            "LSAN_OPTIONS": option("LSAN_OPTIONS", f"suppressions={ROOT / 'tests/lsan.supp'}", "print_suppressions=0"),
            "TSAN_OPTIONS": option("TSAN_OPTIONS", f"suppressions={ROOT / 'tests/tsan.supp'}")}


def _run_suite(suite, timeout):
    module, name, _, tests = suite
    with tempfile.TemporaryDirectory() as folder:
        out = Path(folder) / "results"
        process = subprocess.Popen([sys.executable, "-m", "tests.system.runner", module, name, str(out), *tests],
                                   cwd=ROOT, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                   stderr=subprocess.STDOUT, text=True, errors="replace", start_new_session=True,
                                   env=_reporting_to(folder))
        _running.add(process)
        problem, output = "", ""
        try:
            output, _ = process.communicate(timeout=timeout)
        except subprocess.TimeoutExpired:
            process.terminate()
            problem = f"not done within {timeout:g} s\n"
            try:
                output, _ = process.communicate(timeout=60)
            except subprocess.TimeoutExpired:
                process.kill()
                output, _ = process.communicate()
        finally:
            _running.discard(process)
        results = [json.loads(line) for line in out.read_text().splitlines()] if out.exists() else []
        reports = "".join(report.read_text(errors="replace") for report in sorted(Path(folder).glob("report.*")))
    done = {result["test"] for result in results}
    fixture = "".join(r["text"] for r in results if not r["test"].startswith("test_") and r["outcome"] == "failed")
    for test in tests:
        if test not in done:
            text = fixture or f"{problem}not run; the suite's process ended with {process.returncode}\n{output}"
            results.append({"test": test, "outcome": "failed", "seconds": 0.0, "text": text})
    # A fixture that failed is told by the tests that it kept from running.
    if len(done & set(tests)) < len(tests):
        results = [r for r in results if r["test"].startswith("test_")]
    if process.returncode != 0 and all(r["outcome"] != "failed" for r in results):
        results.append({"test": "test_the_suite_ends_in_order", "outcome": "failed", "seconds": 0.0,
                        "text": f"{problem}status {process.returncode}\n{output}"})
    if reports:
        results.append({"test": "test_no_sanitizer_reports_anything", "outcome": "failed", "seconds": 0.0, "text": reports})
    return name, results


def run_suites(names=(), folder=".", timeout=SUITE_TIMEOUT_S):
    """Runs the suites (those that `names` pick). How many tests passed, failed and were skipped."""
    suites, printer = chosen(suites_of(folder), names), _Printer()
    with concurrent.futures.ThreadPoolExecutor(max(2, os.cpu_count() or 2)) as pool, \
            concurrent.futures.ThreadPoolExecutor(WAITING_AT_ONCE) as waiting:
        try:
            shared = [(waiting if suite[2] == "waits" else pool).submit(_run_suite, suite, timeout)
                      for suite in suites if suite[2] != "alone"]
            for future in concurrent.futures.as_completed(shared):
                printer.suite(*future.result())
            for suite in suites:
                if suite[2] == "alone":
                    printer.suite(*_run_suite(suite, timeout))
        except BaseException:
            for executor in (pool, waiting):
                executor.shutdown(wait=False, cancel_futures=True)
            for process in list(_running):                   # each cleans up after itself
                process.terminate()
            raise
    if not suites:
        print("  no such test")
        printer.failed += 1
    return printer.passed, printer.failed, printer.skipped


if __name__ == "__main__":
    worker(sys.argv[1], sys.argv[2], sys.argv[4:], sys.argv[3])
