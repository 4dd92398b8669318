"""Replication over a line that fails, into a target that is full, and from a source that dies late."""
import os
import random
import signal
import sys
import time
import unittest

from harness import MOUNTS, run
from proxy import Proxy
from two_hosts import MIB, Two_Hosts

SOAK = int(os.environ.get("SCSIPOOL_SOAK", "8"))


class Faults(Two_Hosts):
    def way_to_b(self):
        self.line = Proxy(self.b.port)
        self.addCleanup(self.line.close)
        return f"http://127.0.0.1:{self.line.port}/"

    def redo(self):
        self.ctl(self.a, "job", "redo", str(self.jobs()[-1]["job_id"]))
        return self.ended()

    def change_and_wait(self, state="succeeded"):
        self.change(random.randrange(16) * MIB, 4 * MIB)
        taken = self.snapshot()
        self.ended(state)
        return taken


class Line(Faults):
    def assert_mended(self, taken):
        self.assertGreater(self.line.broken, 0)
        self.assert_same(taken)
        self.assert_consistent()

    def test_a_line_that_fails_once_is_tried_again(self):
        for action, after in (("cut", 20 * MIB), ("cut", 30000), ("flip", 2 * MIB), ("slow", MIB)):
            with self.subTest(action, after=after):
                self.line.break_next(action, after)
                self.assert_mended(self.change_and_wait())
                if action == "flip":
                    self.assertIn("crc32 mismatch", self.b.log())

    def test_a_line_that_stalls(self):
        for cut in (False, True):
            with self.subTest(cut=cut):
                self.change(0, 4 * MIB)
                self.line.break_next("stall", MIB)
                taken = self.snapshot()
                self.wait_for(lambda: self.line.broken)
                time.sleep(2)
                self.assertEqual("running", self.jobs()[-1]["state"])
                self.assertNotIn(taken, [row[0] for row in self.listed(self.b)])
                if cut:
                    self.line.cut_all()
                self.line.release()
                self.ended()
                self.assert_mended(taken)

    def test_a_line_that_always_fails_ends_the_job_and_leaves_nothing(self):
        first = self.change_and_wait()
        self.line.break_next("cut", MIB, times=5)
        taken = self.change_and_wait("failed")
        self.assertEqual(5, self.line.broken)
        self.assertIn("send snapshot data error", self.ctl(self.a, "job", "show", str(self.jobs()[-1]["job_id"])))
        self.assertEqual([first], [row[0] for row in self.listed(self.b)])
        self.assert_consistent()
        self.redo()
        self.assert_mended(taken)

    def test_a_full_target_ends_the_job_and_leaves_nothing(self):
        first = self.change_and_wait()
        ballast = f"/proc/{self.b.process.pid}/root{MOUNTS}/{self.there}/ballast"
        with open(ballast, "wb") as file:
            try:
                while True:
                    file.write(os.urandom(MIB))
            except OSError:
                pass
        self.change(0, 32 * MIB)
        taken = self.change_and_wait("failed")
        self.assertIn("No space left", self.b.log())
        self.assertEqual([first], [row[0] for row in self.listed(self.b)])
        os.unlink(ballast)
        run("sync", "-f", os.path.dirname(ballast))
        self.assert_consistent()
        self.redo()
        self.assert_same(taken)
        self.assert_consistent()


class Line_With_TLS(Faults):
    def host(self, name):
        host = super().host(name)
        certificate, key = self.sandbox.path("certificate.pem"), self.sandbox.path("key.pem")
        if name == "a":
            run("openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-days", "2",
                "-subj", "/CN=b", "-addext", "subjectAltName=IP:127.0.0.1", "-keyout", key, "-out", certificate)
            host.config["tls"] = {"ca": certificate}
        else:
            host.config["tls"] = {"certificate": certificate, "key": key}
        return host

    def way_to_b(self):
        return super().way_to_b().replace("http:", "https:")

    def test_a_changed_byte_ends_the_connection(self):
        for action in ("flip", "cut"):
            with self.subTest(action):
                self.line.break_next(action, 2 * MIB)
                taken = self.change_and_wait()
                self.assertEqual(1, self.line.broken)
                self.assert_same(taken)
                self.assert_consistent()
        self.assertNotIn("crc32 mismatch", self.b.log())


class Soak(Faults):
    """Kills at random moments; afterwards both sides are equal and nothing is left over."""

    def setUp(self):
        super().setUp()
        self.luns = [self.make_lun(filled=6 * MIB), self.make_lun("--retention-type", "newest", filled=6 * MIB)]
        self.seed = int(os.environ.get("SCSIPOOL_SEED", str(random.randrange(1 << 30))))
        self.random = random.Random(self.seed)
        self.kills = {}

    def kill(self, kind):
        """True when there was something to kill."""
        host = self.a if kind in ("source", "send") else self.b
        if kind in ("source", "target"):
            host.lost()
            host.start()
            return True
        if kind == "cut":
            return self.line.cut_all()
        end = time.monotonic() + 0.5
        while not host.kill_tool(kind):
            if time.monotonic() > end:
                return False
            time.sleep(0.01)
        return True

    def settle(self):
        """Waits for the end of all jobs; those that failed run again until none is left."""
        end = time.monotonic() + 120
        while True:
            self.wait_for(lambda: self.rows(self.a, "SELECT * FROM queue_message", "scsipoold") == [], 120)
            states = {job["job_id"]: job["state"] for job in self.jobs()}
            self.assertLess(time.monotonic(), end, f"{states}\n{self.a.log()[-6000:]}")
            failed = [number for number, state in states.items() if state == "failed"]
            if not failed:
                return
            for number in failed:
                self.ctl(self.a, "job", "redo", str(number))

    def round(self):
        lun = self.random.choice(self.luns)
        self.change(self.random.randrange(6) * MIB, self.random.randrange(1, 3 * MIB), lun)
        self.snapshot(lun)
        for _ in range(self.random.choice((1, 1, 2))):
            time.sleep(self.random.uniform(0, 0.8))
            kind = self.random.choice(("source", "target", "send", "receive", "cut"))
            if self.kill(kind):
                self.kills[kind] = self.kills.get(kind, 0) + 1
        if self.random.random() < 0.5:
            self.settle()
            self.assert_consistent()

    def test_random_kills_leave_both_sides_equal(self):
        self.ctl(self.a, "replication", "set", self.here, "--to", self.there, "--limit", "00:00-24:00=8MiB")
        self.snapshot(self.luns[0])
        self.settle()
        pipes = self.a.pipes(), self.b.pipes()
        print(f"   soak of {SOAK} kills, SCSIPOOL_SEED={self.seed}", flush=True)
        try:
            while sum(self.kills.values()) < SOAK:
                self.round()
            self.ctl(self.a, "replication", "set", self.here, "--to", self.there)
            for lun in self.luns:
                self.change(0, MIB, lun)
                taken = self.snapshot(lun)
                self.settle()
                self.assert_same(taken, lun)
            self.assert_consistent()
            self.assertEqual(self.listed(self.a, self.luns[0]), self.listed(self.b, self.luns[0]))
            self.assertEqual(pipes, (self.a.pipes(), self.b.pipes()), "a tool's end is still held")
        finally:
            print(f"   killed: {self.kills}, seed {self.seed}", flush=True)


if __name__ == "__main__":
    unittest.main()
