"""LUN snapshots on real Btrfs, on one host: many at once, under a writer, and what lives on after them."""
import concurrent.futures
import hashlib
import os
import struct
import subprocess
import sys
import threading
import time
import unittest

from harness import MOUNTS, System_Test

MIB = 1 << 20
SNAPSHOTS = "/svc/r/scsipool/snapshot"
SECONDS = int(os.environ.get("SCSIPOOL_SOAK_SECONDS", "10"))

# Writes numbered blocks one after another, each durable before the next, and prints each number then.
WRITER = """
import os, struct, sys
image = os.open(sys.argv[1], os.O_WRONLY | os.O_DSYNC)
number = 0
while True:
    number += 1
    os.pwrite(image, struct.pack("<Q", number) * 512, number % 4096 * 4096)
    os.write(1, struct.pack("<Q", number))
"""


class Snapshots(System_Test):
    def setUp(self):
        super().setUp()
        self.host = self.daemon().start()
        self.pool = self.new_id()
        self.ctl(self.host, "pool", "create", "p", "--size", "400M", "--thin", "--id", self.pool, "--retention", "60000")
        self.lun = self.make_lun()

    def tearDown(self):
        self.ctl(self.host, "pool", "delete", self.pool, "--force", "--yes")
        self.assertEqual(0, self.host.stop(), self.host.log())
        self.assert_nothing_left()

    def make_lun(self, *options):
        lun = self.new_id()
        self.ctl(self.host, "lun", "create", self.pool, "--id", lun, *(options or ("--size", "16M")))
        return lun

    def image(self, dataset):
        return f"{MOUNTS}/{self.pool}/{dataset}/lun_backstore"

    def take(self, lun=None):
        status, answer = self.host.request("POST", SNAPSHOTS, {"pool_id": self.pool, "lun_id": lun or self.lun})
        self.assertEqual(200, status, answer)
        return answer[0]["id"]

    def delete(self, snapshot):
        status, answer = self.host.request("DELETE", f"{SNAPSHOTS}?pool_id={self.pool}&snapshot_id={snapshot}")
        self.assertEqual(200, status, answer)

    def listed(self):
        status, rows = self.host.request("GET", f"{SNAPSHOTS}?pool_id={self.pool}")
        self.assertEqual(200, status, rows)
        return rows

    def test_eight_clients_take_and_delete_at_once(self):
        luns = [self.lun, self.make_lun()]
        end = time.monotonic() + SECONDS

        def client(number):
            """Deletes its oldest but two; the number of a new one is above those it still has."""
            lun, own, taken = luns[number % 2], [], 0
            while time.monotonic() < end:
                own.append(self.take(lun))
                taken += 1
                if len(own) > 2:
                    self.delete(own.pop(0))
            return own, taken

        with concurrent.futures.ThreadPoolExecutor(8) as clients:
            done = list(clients.map(client, range(8)))
        rows = self.listed()
        numbers = {row["id"]: row["seq"] for row in rows}
        self.assertEqual({one for own, _ in done for one in own}, set(numbers))
        for own, _ in done:
            self.assertEqual(sorted(own, key=numbers.get), own)
        for lun in luns:
            of_lun = [row["seq"] for row in rows if row["parent_id"] == lun]
            self.assertEqual(sorted(set(of_lun)), of_lun)
        self.assertEqual(set(numbers) | set(luns), set(os.listdir(f"{MOUNTS}/{self.pool}")))
        taken = sum(count for _, count in done)
        self.assertGreater(taken, 16)
        if "SCSIPOOL_SOAK_SECONDS" in os.environ:
            print(f"{taken} snapshots taken, {taken - len(rows)} deleted in {SECONDS} s")

    def test_a_snapshot_holds_all_that_was_written_before_it(self):
        with open(self.image(self.lun), "wb") as image:
            image.truncate(16 * MIB)
        writer = subprocess.Popen([sys.executable, "-c", WRITER, self.image(self.lun)], stdout=subprocess.PIPE)
        written = [0]

        def follow():
            while number := writer.stdout.read(8):
                written[0] = struct.unpack("<Q", number)[0]

        follower = threading.Thread(target=follow)
        follower.start()
        try:
            for _ in range(8):
                before = written[0]
                while written[0] < before + 5:
                    time.sleep(0.01)
                before = written[0]
                snapshot = self.take()
                with open(self.image(snapshot), "rb") as image:
                    blocks = [image.read(4096) for _ in range(4096)]
                numbers = [struct.unpack("<Q", block[:8])[0] for block in blocks]
                newest = max(numbers)
                self.assertGreaterEqual(newest, before)
                # Each block is whole, and holds the last number that was written to it up to the newest one.
                for at, (number, block) in enumerate(zip(numbers, blocks)):
                    self.assertEqual(struct.pack("<Q", number) * 512, block)
                    self.assertEqual(max(newest - (newest - at) % 4096, 0), number)
        finally:
            writer.kill()
            writer.wait()
            follower.join()
            writer.stdout.close()

    def test_a_lun_made_of_a_snapshot_outlives_it(self):
        with open(self.image(self.lun), "wb") as image:
            image.write(os.urandom(4 * MIB))
        content = self.digest(self.lun)
        snapshot = self.take()
        luns = [self.make_lun("--snapshot", snapshot, *option) for option in ((), ("--link",))]
        with open(self.image(self.lun), "r+b") as image:
            image.write(os.urandom(MIB))
        self.delete(snapshot)
        for lun in luns:
            self.assertEqual(content, self.digest(lun))

    def digest(self, dataset):
        with open(self.image(dataset), "rb") as image:
            return hashlib.file_digest(image, "sha256").hexdigest()


if __name__ == "__main__":
    unittest.main()
