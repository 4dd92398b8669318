"""Bandwidth limits of a replication between two daemons: kept, across midnight, when they change, and after a pause."""
import os
import signal
import time
import unittest

from harness import System_Test
from two_hosts import MIB, SNAPSHOTS, Host

DAY = 86400
SIZE = 50 * MIB


def clock(seconds):
    return time.strftime("%H:%M:%S", time.gmtime(seconds % DAY))


class Bandwidth(System_Test):
    def setUp(self):
        super().setUp()
        self.hosts = [Host(self.sandbox, name, "a-key-that-both-hosts-share") for name in "ab"]
        self.daemons += self.hosts
        self.source, self.target = self.hosts
        self.here, self.there, self.lun = self.new_id(), self.new_id(), self.new_id()
        for host, pool in ((self.source, self.here), (self.target, self.there)):
            self.ctl(host.start(), "pool", "create", "pool", "--size", "400M", "--thin", "--id", pool)
        self.ctl(self.source, "lun", "create", self.here, "--size", f"{SIZE // MIB}M", "--id", self.lun)
        self.ctl(self.source, "peer", "add", self.there, f"http://127.0.0.1:{self.target.port}/", "--name",
                 "there")

    def restart_before_midnight(self, seconds):
        """The source in a time zone where midnight is so many seconds away."""
        self.assertEqual(0, self.source.stop())
        self.ahead = (DAY - seconds - int(time.time())) % DAY
        self.source.start({"TZ": f"TST-{clock(self.ahead)}"})

    def local_time(self):
        return (time.time() + self.ahead) % DAY

    def limit(self, *limits):
        options = [word for limit in limits for word in ("--limit", limit)]
        self.ctl(self.source, "replication", "set", self.here, "--to", self.there, *options)

    def snapshot(self):
        status, answer = self.source.request("POST", SNAPSHOTS, {"pool_id": self.here, "lun_id": self.lun})
        self.assertEqual(200, status, answer)
        return answer[0]["id"]

    def arrived(self, snapshot, size):
        """When so much of the snapshot's image had arrived."""
        image, give_up = self.target.image(self.there, snapshot), time.monotonic() + 60
        while not os.path.exists(image) or os.stat(image).st_size < size:
            self.assertLess(time.monotonic(), give_up, self.source.log()[-4000:])
            time.sleep(0.02)
        return time.monotonic()

    def end(self):
        """When the newest job had ended."""
        give_up = time.monotonic() + 120
        while True:
            status, jobs = self.source.request("GET", f"/svc/r/scsipool/job?pool_id={self.here}")
            job = max(jobs, key=lambda one: one["job_id"])
            if job["state"] not in ("pending", "running"):
                break
            self.assertLess(time.monotonic(), give_up, job)
            time.sleep(0.02)
        self.assertEqual("succeeded", job["state"], self.source.log()[-4000:])
        return time.monotonic()

    def fill(self):
        with open(self.source.image(self.here, self.lun), "wb") as image:
            image.write(os.urandom(SIZE))
            os.fsync(image.fileno())

    def test_the_limit_of_the_moment_holds(self):
        self.limit()
        self.snapshot()  # an empty one, so that the others are nothing but data
        self.end()
        self.fill()
        self.limit("23:00-01:00=5MiB")
        self.restart_before_midnight(10)
        time.sleep(max(0, DAY - 5 - self.local_time()))
        before, snapshot = self.local_time(), self.snapshot()
        begin, end = self.arrived(snapshot, 1), self.arrived(snapshot, SIZE)
        self.assertLess(self.local_time(), before, "it was to go across midnight")
        self.assertAlmostEqual(10, end - begin, delta=1)
        self.end()

        self.fill()
        now = int(self.local_time())
        change = now + 5
        self.limit(f"{clock(now)}-{clock(change)}=1MiB", f"{clock(change)}-23:00=10MiB")
        begin, slow = time.monotonic(), change - self.local_time()
        self.snapshot()
        time.sleep(slow + 1)
        self.source.process.send_signal(signal.SIGSTOP)
        time.sleep(3)
        self.source.process.send_signal(signal.SIGCONT)
        # What could have been sent in the pause is not made up for.
        self.assertAlmostEqual(slow + 3 + (SIZE / MIB - slow) / 10, self.end() - begin, delta=1.5)


if __name__ == "__main__":
    unittest.main()
