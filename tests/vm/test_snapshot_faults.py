"""LUN snapshots on both kinds of pool when something is in the way: failed and killed exports, a writer."""

import concurrent.futures
import unittest

from harness import LISTED, MIB, OTHER, Daemon_Case, Initiator, backstores, run, wait_for

SLOT = 64 * 1024


class Snapshot_Faults:
    def setUp(self):
        super().setUp()
        self.pool, self.target = self.create_pool("snapshots")
        self.lun = self.daemon.create_lun(self.pool, "--export", "--acl", LISTED)

    def snapshot(self):
        return self.daemon.ok("snapshot", "create", self.pool, self.lun)[0]["id"]

    def export(self, snapshot):
        return self.daemon.ok("snapshot", "export", self.pool, snapshot, "--acl", OTHER)[0]["lun_num"]

    def state(self):
        """The volumes in storage, the LUNs that are listed, the backstores in the kernel, the exports."""
        return (self.volumes(), [one["lun_id"] for one in self.daemon.ok("lun", "list", self.pool)], backstores(),
                self.daemon.differences())

    def test_a_failed_export_leaves_nothing(self):
        snapshot = self.snapshot()
        before = self.state()
        self.assertIn("lack of ACLs", self.daemon.refused("snapshot", "export", self.pool, snapshot))
        self.assertEqual(before, self.state())
        self.daemon.ok("snapshot", "delete", self.pool, snapshot, "--yes")

    def test_with_a_writer_in_flight_it_is_crash_consistent(self):
        """Each write is flushed: what the snapshot holds is the first ones, with all that were acknowledged."""
        written, stopped = [], []

        def write():
            with Initiator(LISTED, self.target) as client:
                while not stopped and len(written) < 64 * MIB // SLOT:
                    written.append(client.write(0, len(written) * SLOT, SLOT, seed=len(written) + 1))

        with concurrent.futures.ThreadPoolExecutor(1) as threads:
            writer = threads.submit(write)
            try:
                wait_for("writes", lambda: len(written) > 3)
                acknowledged, snapshot, issued = len(written), self.snapshot(), len(written) + 1
                wait_for("more writes", lambda: len(written) > issued + 2)
            finally:
                stopped.append(True)
                writer.result(60)
        self.assertGreater(issued, acknowledged + 1, "nothing was written while it was taken")
        number = self.export(snapshot)
        with Initiator(OTHER, self.target) as reader:
            found = [reader.read(number, index * SLOT, SLOT) for index in range(issued + 2)]
            nothing = reader.read(number, 64 * MIB - SLOT, SLOT)
        kept = next(index for index, digest in enumerate(found) if digest != written[index])
        print(f"    {acknowledged} acknowledged before, {kept} in the snapshot, {issued} issued when it was there")
        self.assertTrue(acknowledged <= kept <= issued)
        self.assertEqual({nothing}, set(found[kept:]))
        self.daemon.ok("snapshot", "unexport", self.pool, snapshot)


class On_Btrfs(Snapshot_Faults, Daemon_Case):
    filesystem = "btrfs"

    def volumes(self):
        return sorted(line.split()[-1] for line in
                      run("btrfs", "subvolume", "list", f"/orbistor/scsipool/{self.pool}").stdout.splitlines())


class On_Zfs(Snapshot_Faults, Daemon_Case):
    filesystem = "zfs"

    def volumes(self):
        return run("zfs", "list", "-H", "-r", "-t", "all", "-o", "name", self.pool).stdout.split()

    def test_a_kill_in_an_export_leaves_nothing_after_the_next_start(self):
        snapshot = self.snapshot()
        before = self.state()
        for point in ("export_snapshot.clone", "unexport_snapshot.lun", "remove_volume.destroy"):
            self.daemon.stop()
            self.daemon.start(fault=point)
            for words in (("export", self.pool, snapshot, "--acl", OTHER), ("unexport", self.pool, snapshot)):
                if self.daemon.process.poll() is None:
                    self.daemon.ctl("snapshot", *words)
            self.assertTrue(self.daemon.killed(), point)
            self.daemon.start()
            self.assertEqual(before, self.state(), point)
        self.daemon.ok("snapshot", "delete", self.pool, snapshot, "--yes")


if __name__ == "__main__":
    unittest.main()
