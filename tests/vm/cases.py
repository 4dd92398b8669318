"""Runs the test programs of the virtual machine inside it and prints one line for each case.

    cases.py BUILD PROGRAM...          programs: names of GoogleTest programs in BUILD/tests, or test_*.py here
    cases.py --cases FILE              the cases of one Python file, in this process

A case is `ok  NAME`, `FAIL  NAME` (indented lines below say why) or `skipped: WHY  NAME`. The whole output of a
program is in /results/PROGRAM.log; /results/progress tells which were started and which ended, for the case that
the machine does not survive one.
"""

import importlib.util
import os
import re
import signal
import subprocess
import sys
import threading
import traceback
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
RESULTS = os.environ.get("SCSIPOOL_RESULTS", "/results")
PROGRAM_SECONDS = int(os.environ.get("SCSIPOOL_PROGRAM_SECONDS", "3600"))
CASE_LINE = re.compile(r"^(?:ok|FAIL|skipped: .*?)  (\S.*)$")


def case_lines(verdict, name, detail=""):
    lines = [f"{verdict}  {name}"]
    return lines + ["    " + line for line in detail.strip().splitlines()]


def googletest_lines(program, lines):
    """Turns the output of a GoogleTest program, line by line, into case lines."""
    running, said = None, []
    for line in lines:
        line = line.rstrip("\n")
        if match := re.match(r"\[ RUN      \] (\S+)", line):
            running, said = match.group(1), []
        elif running and (match := re.match(r"\[ {7}OK \] " + re.escape(running), line)):
            yield from case_lines("ok", f"{program}.{running}")
            running = None
        elif running and (match := re.match(r"\[  (FAILED|SKIPPED) +\] " + re.escape(running), line)):
            name, running = f"{program}.{running}", None
            if match.group(1) == "FAILED":
                yield from case_lines("FAIL", name, "\n".join(said))
            else:
                why = " ".join(text for text in said if text and not text.endswith(": Skipped"))
                yield from case_lines(f"skipped: {why or 'no reason given'}", name)
        elif running:
            said.append(line)
    if running:
        yield from case_lines("FAIL", f"{program}.{running}", "\n".join(said + ["the program ended here"]))


def python_lines(_program, lines):
    for line in lines:
        if CASE_LINE.match(line) or line.startswith("    "):
            yield line.rstrip("\n")


class Lines(unittest.TestResult):
    """Prints each case as soon as it ends."""

    def __init__(self, program):
        super().__init__()
        self.program = program

    def say(self, verdict, test, detail=""):
        name = test.id().split(".", 1)[-1] if hasattr(test, "id") else str(test)
        print("\n".join(case_lines(verdict, f"{self.program}.{name}", detail)), flush=True)

    def addSuccess(self, test):
        self.say("ok", test)

    def addFailure(self, test, err):
        super().addFailure(test, err)
        self.say("FAIL", test, "".join(traceback.format_exception(*err)))

    addError = addFailure

    def addSkip(self, test, reason):
        super().addSkip(test, reason)
        self.say(f"skipped: {reason}", test)

    def addSubTest(self, test, subtest, err):
        if err is not None:
            self.addFailure(subtest, err)

    def addExpectedFailure(self, test, err):
        self.say("skipped: expected to fail", test)

    def addUnexpectedSuccess(self, test):
        self.addFailure(test, (AssertionError, AssertionError("it should fail and did not"), None))


def run_python_cases(path):
    """The cases of one file; the exit status is 1 when one failed."""
    program = os.path.splitext(os.path.basename(path))[0]
    sys.path.insert(0, os.path.dirname(os.path.abspath(path)))
    spec = importlib.util.spec_from_file_location(program, path)
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    result = Lines(program)
    loader = unittest.TestLoader()
    loader.testNamePatterns = os.environ.get("SCSIPOOL_CASES", "*").split()
    loader.loadTestsFromModule(module).run(result)
    return 0 if result.wasSuccessful() else 1


def command_of(build, program):
    if program.endswith(".py"):
        return [sys.executable, os.path.abspath(__file__), "--cases", os.path.join(HERE, program)], python_lines
    return [os.path.join(build, "tests", program), "--gtest_color=no"], googletest_lines


def run_program(build, program):
    """Runs one program and prints its cases. Returns whether it and all its cases were good."""
    command, parse = command_of(build, program)
    if not os.path.exists(command[-1] if program.endswith(".py") else command[0]):
        print("\n".join(case_lines("FAIL", program, f"{command[0]} is not built")), flush=True)
        return False
    child = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                             text=True, errors="replace", start_new_session=True)
    timer = threading.Timer(PROGRAM_SECONDS, os.killpg, (child.pid, signal.SIGKILL))
    timer.start()
    failed = cases = 0
    with open(os.path.join(RESULTS, program + ".log"), "w", encoding="utf-8") as log:

        def recorded():
            for line in child.stdout:
                log.write(line)
                log.flush()
                yield line

        for line in parse(program, recorded()):
            print(line, flush=True)
            cases += bool(CASE_LINE.match(line))
            failed += line.startswith("FAIL  ")
    status = child.wait()
    timer.cancel()
    if (status != 0 and failed == 0) or cases == 0:
        detail = f"exit status {status} after {cases} cases, see {program}.log"
        print("\n".join(case_lines("FAIL", program, detail)), flush=True)
        return False
    return failed == 0


def run_and_check(build, program):
    """run_program(), and a failed case more when it leaves something behind in the kernel, in mounts or pools."""
    import harness  # it is for the guest alone, where this runs

    before = harness.leftovers()
    good = run_program(build, program)
    left = harness.left_since(before)
    if left:
        print("\n".join(case_lines("FAIL", f"{program}.leftovers", str(left))), flush=True)
    return good and not left


def main(arguments):
    if arguments[0] == "--cases":
        return run_python_cases(arguments[1])
    build, programs = arguments[0], arguments[1:]
    os.environ["SCSIPOOL_BUILD"] = build
    good = True
    for program in programs:
        with open(os.path.join(RESULTS, "progress"), "a", encoding="utf-8") as progress:
            print("start", program, file=progress, flush=True)
            os.fsync(progress.fileno())
            good &= run_and_check(build, program)
            print("done", program, file=progress)
    return 0 if good else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
