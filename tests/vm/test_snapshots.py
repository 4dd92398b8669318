"""Exported snapshots with real initiators, clones that snapshots are kept for, and sub filesystems after a restart."""

import os
import unittest

from harness import LISTED, MIB, OTHER, Daemon_Case, Initiator, backstores, run


class Btrfs_Snapshots(Daemon_Case):
    def setUp(self):
        super().setUp()
        self.pool, self.target = self.create_pool("snapshots")

    def disk(self, name, number, seed=None):
        """The checksum of the first 4 MiB, written before if there is a seed."""
        with Initiator(name, self.target) as client:
            return client.write(number, 0, 4 * MIB, seed=seed) if seed else client.read(number, 0, 4 * MIB)

    def test_an_export_shows_its_moment_and_leaves_nothing(self):
        lun = self.daemon.create_lun(self.pool, "--export", "--acl", LISTED)
        number = self.daemon.lun(self.pool, lun)["lun_num"]
        old = self.disk(LISTED, number, seed=1)
        snapshot = self.daemon.ok("snapshot", "create", self.pool, lun)[0]["id"]
        exported = self.daemon.ok("snapshot", "export", self.pool, snapshot, "--acl", OTHER)[0]["lun_num"]
        with Initiator(OTHER, self.target) as reader:
            for seed in (2, 3):
                self.assertNotEqual(old, self.disk(LISTED, number, seed))
                self.assertEqual(old, reader.read(exported, 0, 4 * MIB))
        wrong = ("snapshot", "acl", "add", self.pool, snapshot, LISTED, "--number", str(exported + 7))
        self.assertIn("no export with LUN number", self.daemon.refused(*wrong))
        self.daemon.ok("snapshot", "acl", "add", self.pool, snapshot, LISTED, "--number", str(exported))
        self.assertEqual(old, self.disk(LISTED, exported))
        # What is written to an export is not in the snapshot.
        changed = self.disk(OTHER, exported, seed=4)
        again = self.daemon.ok("snapshot", "export", self.pool, snapshot, "--again", "--acl", OTHER)
        second = ({one["lun_num"] for one in again} - {exported}).pop()
        self.assertEqual((changed, old), (self.disk(OTHER, exported), self.disk(OTHER, second)))
        self.daemon.refused("snapshot", "unexport", self.pool, snapshot, "--number", str(exported + 7))
        self.daemon.ok("snapshot", "unexport", self.pool, snapshot)
        self.assertEqual((1, [lun]), (len(backstores()), [one["lun_id"] for one in self.daemon.ok("lun", "list", self.pool)]))
        self.daemon.ok("snapshot", "delete", self.pool, snapshot, "--yes")
        self.assertEqual([], self.daemon.differences())

    def test_initiators_of_an_export_in_demo_mode_are_refused(self):
        lun = self.daemon.create_lun(self.pool)
        snapshot = self.daemon.ok("snapshot", "create", self.pool, lun)[0]["id"]
        self.daemon.ok("snapshot", "export", self.pool, snapshot)
        self.assertIn("demo mode", self.daemon.refused("snapshot", "acl", "add", self.pool, snapshot, LISTED))
        self.daemon.ok("snapshot", "unexport", self.pool, snapshot)


class ZFS_Snapshots(Btrfs_Snapshots):
    filesystem = "zfs"

    def test_a_linked_lun_keeps_its_snapshot_and_the_exports_of_it(self):
        lun = self.daemon.create_lun(self.pool)
        snapshot = self.daemon.ok("snapshot", "create", self.pool, lun)[0]["id"]
        linked = self.daemon.ok("lun", "create", self.pool, "--snapshot", snapshot, "--link")["lun_id"]
        for exported in (False, True):
            if exported:
                self.daemon.ok("snapshot", "export", self.pool, snapshot, "--acl", OTHER)
            error = self.daemon.refused("snapshot", "delete", self.pool, snapshot, "--force", "--yes")
            self.assertIn(f"{self.pool}/{linked}", error)
        self.assertIn("lun_num", self.daemon.ok("snapshot", "list", self.pool)[0])
        self.daemon.ok("lun", "delete", self.pool, linked, "--yes")
        self.daemon.ok("snapshot", "delete", self.pool, snapshot, "--force", "--yes")
        self.assertEqual([], backstores())

    def test_one_filesystem_that_cannot_be_mounted_does_not_stop_the_others(self):
        for name in "abc":
            self.daemon.ok("fs", "create", self.pool, name)
            self.daemon.ok("fs", "mount", self.pool, name)
        self.assertIn("that of sub filesystem 'a'", self.daemon.refused("fs", "mount-point", self.pool, "b", "a"))
        self.daemon.refused("fs", "create", self.pool, "d", "--mount-point", "c")
        run("zfs", "destroy", f"{self.pool}/b")
        self.reboot()
        found = {one["name"]: (one["mounted"], os.path.ismount(one["mountpoint"]))
                 for one in self.daemon.ok("fs", "list", self.pool)}
        self.assertEqual({"a": (True, True), "b": (False, False), "c": (True, True)}, found)
        for name in "ac":
            self.daemon.ok("fs", "umount", self.pool, name)


if __name__ == "__main__":
    unittest.main()
