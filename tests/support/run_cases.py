"""Runs GoogleTest programs and unittest files and counts their cases one by one.

Used by the tiers: run(programs, scripts) prints one line a case that failed or was skipped, and ends with
"N passed, N failed, N skipped". A program that crashes counts as one failed case.
"""
import json
import os
import subprocess
import sys
import tempfile
import unittest


class Count:
    def __init__(self):
        self.passed = self.failed = self.skipped = 0

    def case(self, name, state, why=""):
        setattr(self, state, getattr(self, state) + 1)
        if state == "failed":
            print(f"FAILED: {name}{': ' + why if why else ''}")
        elif state == "skipped":
            print(f"skipped: {why or 'no reason given'} ({name})")
        sys.stdout.flush()


def gtest_program(count, path, arguments=(), seconds=900):
    name = os.path.basename(path)
    with tempfile.NamedTemporaryFile(suffix=".json") as report:
        try:
            done = subprocess.run([path, f"--gtest_output=json:{report.name}", "--gtest_brief=1", *arguments],
                                  stdin=subprocess.DEVNULL, timeout=seconds)
        except subprocess.TimeoutExpired:
            count.case(name, "failed", f"not finished after {seconds} s")
            return
        failed_before = count.failed
        try:
            with open(report.name) as text:
                result = json.load(text)
        except ValueError:
            count.case(name, "failed", f"ended with status {done.returncode} without a report")
            return
    for suite in result["testsuites"]:
        for case in suite["testsuite"]:
            full = f"{name}:{suite['name']}.{case['name']}"
            if case.get("failures"):
                count.case(full, "failed")
            elif case.get("result") == "SKIPPED":
                count.case(full, "skipped", "see its message above")
            elif case.get("status") == "RUN":
                count.case(full, "passed")
    if done.returncode != 0 and count.failed == failed_before:
        count.case(name, "failed", f"ended with status {done.returncode}")


class _Result(unittest.TextTestResult):
    count = None

    def addSuccess(self, test):
        super().addSuccess(test)
        self.count.case(test.id(), "passed")

    def addFailure(self, test, err):
        super().addFailure(test, err)
        print(self._exc_info_to_string(err, test))
        self.count.case(test.id(), "failed")

    addError = addFailure

    def addSubTest(self, test, subtest, err):
        super().addSubTest(test, subtest, err)
        if err is not None:
            print(self._exc_info_to_string(err, test))
            self.count.case(subtest.id(), "failed")

    def addSkip(self, test, reason):
        super().addSkip(test, reason)
        self.count.case(test.id(), "skipped", reason)


def unittest_file(count, path):
    folder, name = os.path.split(os.path.abspath(path))
    sys.path.insert(0, folder)
    _Result.count = count
    try:
        suite = unittest.defaultTestLoader.loadTestsFromName(name[:-3])
    except Exception as error:  # a script that does not load is a failed case
        count.case(name, "failed", str(error))
        return
    if suite.countTestCases() == 0:
        count.case(name, "failed", "holds no test")
    unittest.TextTestRunner(stream=open(os.devnull, "w"), resultclass=_Result).run(suite)


def run(programs, scripts, arguments=()):
    count = Count()
    for program in programs:
        print(f"-- {os.path.basename(program)}", flush=True)
        gtest_program(count, program, arguments)
    for script in scripts:
        print(f"-- {os.path.basename(script)}", flush=True)
        unittest_file(count, script)
    if count.passed + count.failed + count.skipped == 0:
        count.case("tier", "failed", "no case was run")
    print(f"{count.passed} passed, {count.failed} failed, {count.skipped} skipped")
    return 0 if count.failed == 0 else 1
