"""Runs iscsi-test-cu, the SCSI test program of libiscsi, against a LUN and says what is not as expected."""

import os
import re
import subprocess

from harness import OTHER

# Failures that are the kernel target's own (6.1, file backstore), with what it does. A LUN made by configfs alone,
# without this system, has the same.
_VERIFY_MISMATCH = "VERIFY with BYTCHK does not compare the data that came with it"
_VERIFY_PROTECT = "VERIFY accepts protection bits that the device does not offer"
_RESIDUALS = "a write whose data and CDB differ in length fails instead of transferring the shorter of both"
_COMPARE = "a refused COMPARE AND WRITE answers INVALID FIELD IN COMMAND INFORMATION UNIT, not ... IN CDB"
KERNEL = {
    "CompareAndWrite.Simple": _COMPARE,
    "CompareAndWrite.Miscompare": _COMPARE,
    "ReceiveCopyResults.CopyStatus": "RECEIVE COPY RESULTS knows the operating parameters only",
    "Verify10.VerifyProtect": _VERIFY_PROTECT,
    "Verify10.Mismatch": _VERIFY_MISMATCH,
    "Verify16.VerifyProtect": _VERIFY_PROTECT,
    "Verify16.Mismatch": _VERIFY_MISMATCH,
    "iSCSIdatasn.iSCSIDataSnInvalid": "a wrong DataSN in Data-Out ends the write without a CHECK CONDITION",
    "iSCSIResiduals.Write10Residuals": _RESIDUALS,
    "iSCSIResiduals.Write12Residuals": _RESIDUALS,
    "iSCSIResiduals.Write16Residuals": _RESIDUALS,
    "iSCSIResiduals.WriteVerify10Residuals": _RESIDUALS,
    "iSCSIResiduals.WriteVerify16Residuals": _RESIDUALS,
}

# Tests that look at once for what the kernel does a moment after its answer: either verdict is possible, by chance and
# by the speed of the machine. What they ask for is tested with patience in test_luns.py.
_RESERVATION = "the kernel ends a session's reservation a moment after it has answered the logout or lost the connection"
RACES = {
    "Reserve6.Logout": _RESERVATION,
    "Reserve6.ITNexusLoss": _RESERVATION,
}
REPEATS = 5
MOST_REPEATED = 3  # more failures at once are no chance


def parse(lines):
    """Test name (SUITE.TEST) -> passed, failed or skipped, from the verbose output."""
    results, suite, test, skipped = {}, None, None, False
    for line in lines:
        if match := re.match(r"Suite: (\S+)", line):
            suite = match.group(1)
        if match := re.match(r"\s+Test: (\S+)", line):
            test, skipped = f"{suite}.{match.group(1)}", False
        skipped |= "[SKIPPED]" in line
        if test and (match := re.search(r"\.\.\.\s*(passed|FAILED)\s*$|^\s*(passed|FAILED)\s*$", line)):
            verdict = match.group(1) or match.group(2)
            results[test] = "failed" if verdict == "FAILED" else "skipped" if skipped else "passed"
            test = None
    return results


def run_tests(arguments, url, name, seconds):
    """Results of one run of the program, and where its output is."""
    output = os.path.join(os.environ.get("SCSIPOOL_RESULTS", "/results"), f"{name}.log")
    with open(output, "w", encoding="utf-8") as log:
        subprocess.run(["iscsi-test-cu", "--dataloss", *arguments, url], stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                       timeout=seconds, check=False)
    with open(output, encoding="utf-8", errors="replace") as log:
        return parse(log), output


def repeat(test, arguments, url):
    """Runs a test that failed again, alone, and says whether it never fails then; each repeat is printed."""
    verdicts = []
    for number in range(1, REPEATS + 1):
        results, _ = run_tests([f"--test=ALL.{test}", *arguments], url, f"iscsi-test-cu.{test}.{number}", 120)
        verdicts.append(results.get(test, "not run"))
    print(f"    iscsi-test-cu: {test} failed and was run again alone: {', '.join(verdicts)}")
    return set(verdicts) == {"passed"}


def run_conformance(initiator, url, seconds=2400):
    """The failures that KERNEL does not name, those that it names and that did not come, and a summary."""
    names = ["-i", initiator, "-I", OTHER]
    results, output = run_tests(["--test=ALL", *names], url, "iscsi-test-cu", seconds)
    failed = {test for test, verdict in results.items() if verdict == "failed"}
    for test in sorted(failed & RACES.keys()):
        print(f"    iscsi-test-cu: {test} failed, which counts for nothing: {RACES[test]}")
    unexpected = {test: "fails" for test in sorted(failed - KERNEL.keys() - RACES.keys())}
    if len(unexpected) <= MOST_REPEATED:
        unexpected = {test: why for test, why in unexpected.items() if not repeat(test, names, url)}
    unexpected.update({test: "is expected to fail and did not" for test in KERNEL.keys() - failed})
    if len(results) < 100:
        unexpected["iscsi-test-cu"] = f"only {len(results)} tests were run, see {output}"
    counts = {verdict: list(results.values()).count(verdict) for verdict in ("passed", "failed", "skipped")}
    return unexpected, counts
