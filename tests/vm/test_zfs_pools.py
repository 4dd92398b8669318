"""ZFS pools on real OpenZFS, in a file and on the global device, through the daemon and the command line."""

import os
import subprocess
import time
import unittest

from harness import GIB, LISTED, MIB, OTHER, Daemon_Case, Initiator, clear_target, run, wait_for, zpools

BACKING = "/orbistor/scsipool_backstore"


def zfs(name, dataset):
    """A property of a dataset."""
    return run("zfs", "get", "-Hp", "-o", "value", name, dataset).stdout.strip()


class File_Pool(Daemon_Case):
    filesystem = "zfs"

    def record(self, pool_id):
        (record,) = self.daemon.ok("pool", "list", pool_id)
        return record

    def test_life(self):
        pool, target = self.create_pool("life", "--compression", "lz4", "--retention", "5", size="1G")
        self.assertIn(pool, zpools())
        self.assertTrue(os.path.isfile(f"{BACKING}/{pool}"))
        self.assertEqual("off", zfs("atime", pool))
        record = self.record(pool)
        expected = {"pool_name": "life", "fs_type": "zfs", "type": "iSCSI", "target": target, "total_size": GIB,
                    "retention": 5, "compression": "lz4", "thin_provision": True, "global_dev": ""}
        self.assertEqual(expected, {key: record[key] for key in expected})
        self.daemon.ok("pool", "update", pool, "--name", "renamed", "--retention", "7")
        self.assertEqual(("renamed", 7), (self.record(pool)["pool_name"], self.record(pool)["retention"]))
        self.daemon.ok("pool", "delete", pool, "--yes")
        self.assertEqual(([], False), (zpools(), os.path.exists(f"{BACKING}/{pool}")))

    def test_a_pool_that_was_destroyed_by_hand_can_be_deleted(self):
        pool, _ = self.create_pool("gone")
        run("zpool", "destroy", pool)
        self.daemon.ok("pool", "delete", pool, "--yes")
        self.assertFalse(os.path.exists(f"{BACKING}/{pool}"))
        self.assertNotIn(pool, [one["pool_id"] for one in self.daemon.ok("health")["pools"]])

    def test_smallest_pool(self):
        pool, _ = self.create_pool("small", size="50M")
        self.assertIn(pool, zpools())
        self.assertIn("52428800", self.daemon.refused("pool", "create", "smaller", "--size", "52428799", "--fs", "zfs"))

    def test_thick_file_is_allocated(self):
        pool = self.daemon.ok("pool", "create", "thick", "--size", "256M", "--fs", "zfs")["pool_id"]
        self.addCleanup(self.delete_pool, pool)
        self.assertGreaterEqual(os.stat(f"{BACKING}/{pool}").st_blocks * 512, 256 * MIB)

    def test_pool_is_imported_after_a_reboot(self):
        pool, _ = self.create_pool("reboot")
        before = self.record(pool)
        self.reboot()
        self.assertIn(pool, zpools())
        after = self.record(pool)
        for record in (before, after):
            record.pop("used_size")
        self.assertEqual(before, after)

    def test_a_missing_pool_is_named_and_not_recreated(self):
        pool, _ = self.create_pool("gone")
        self.daemon.stop()
        run("zpool", "export", pool)
        os.rename(f"{BACKING}/{pool}", "/orbistor/gone.zfs")
        self.daemon.start()
        self.assertIn(pool, self.daemon.ctl("health").stdout)
        self.assertEqual([], zpools())
        os.rename("/orbistor/gone.zfs", f"{BACKING}/{pool}")
        self.reboot()
        self.assertIn(pool, zpools())

    def test_a_labelled_file_is_not_wiped(self):
        pool, _ = self.create_pool("label")
        run("zfs", "create", f"{pool}/precious")
        run("zpool", "export", pool)
        self.daemon.refused("pool", "create", "again", "--id", pool, "--size", "1G", "--fs", "zfs")
        run("zpool", "import", "-d", BACKING, "-N", pool)
        self.assertEqual("filesystem", zfs("type", f"{pool}/precious"))

    def test_bad_names(self):
        for name in ("mirror", "raidz1", "spare1", "log", "draid", "1abc", "a/b", "a@b", "-rf", "..", "a b$(touch /x)",
                     '"; touch /x; "', "x" * 300, "new\nline"):
            with self.subTest(name=name):
                message = self.daemon.refused("pool", "create", "named", f"--id={name}", "--size", "100M", "--fs", "zfs")
                self.assertTrue(message.strip())
                self.assertEqual([], zpools())
                self.assertEqual([], self.daemon.ok("pool", "list"))
        self.assertFalse(os.path.exists("/x"))
        self.create_pool("named", size="100M")
        self.assertIn("exist", self.daemon.refused("pool", "create", "named", "--size", "100M", "--fs", "zfs"))


class Global_Device:
    """The server's ZFS pool `orbistor`, on a disk of its own. What tests leave in it is a failure."""

    def setUp(self):
        run("zpool", "create", "-f", "-m", "none", "orbistor", "/dev/vdb")
        self.addCleanup(run, "zpool", "destroy", "-f", "orbistor")
        super().setUp()

    def clean(self):
        super().clean()
        self.assertEqual(["orbistor"], run("zfs", "list", "-H", "-t", "all", "-o", "name", "-r", "orbistor").stdout.split())


class Global_Pool(Global_Device, Daemon_Case):
    filesystem = "zfs"

    def test_quota_and_reservation(self):
        for options, reservation in (((), 200 * MIB), (("--thin",), 0)):
            with self.subTest(options=options):
                pool = self.daemon.ok("pool", "create", "global", "--size", "200M", "--fs", "zfs", "--global-dev", "orbistor",
                                      *options)["pool_id"]
                dataset = f"orbistor/{pool}"
                self.assertEqual(str(200 * MIB), zfs("quota", dataset))
                self.assertEqual(str(reservation), zfs("reservation", dataset))
                (record,) = self.daemon.ok("pool", "list", pool)
                self.assertEqual(("orbistor", 200 * MIB), (record["global_dev"], record["total_size"]))
                self.daemon.ok("pool", "delete", pool, "--yes")
                self.assertNotIn(dataset, run("zfs", "list", "-H", "-o", "name").stdout.split())

    def test_foreign_datasets_stay(self):
        run("zfs", "create", "orbistor/foreign")
        pool = self.daemon.ok("pool", "create", "global", "--size", "200M", "--fs", "zfs", "--global-dev", "orbistor")["pool_id"]
        self.daemon.refused("pool", "create", "again", "--id", "foreign", "--size", "200M", "--fs", "zfs", "--global-dev",
                            "orbistor")
        self.daemon.ok("health")
        run("zpool", "export", "orbistor")
        self.assertIn("not imported", self.daemon.ctl("health").stdout)
        run("zpool", "import", "-d", "/dev", "-N", "orbistor")
        self.daemon.ok("pool", "delete", pool, "--yes")
        self.assertEqual("filesystem", zfs("type", "orbistor/foreign"))
        run("zfs", "destroy", "orbistor/foreign")

    def test_leftover_children_are_named(self):
        pool = self.daemon.ok("pool", "create", "global", "--size", "200M", "--fs", "zfs", "--global-dev", "orbistor")["pool_id"]
        lun = self.daemon.create_lun(pool, "--export", "--acl", LISTED, size="32M")
        run("zfs", "create", f"orbistor/{pool}/precious")
        self.daemon.ok("lun", "delete", pool, lun, "--yes")
        self.assertIn("precious", self.daemon.refused("pool", "delete", pool, "--yes"))
        run("zfs", "destroy", f"orbistor/{pool}/precious")
        self.daemon.ok("pool", "delete", pool, "--yes")


class Volumes:
    """The life of LUNs; `pool()` makes the pool that they are in."""

    filesystem = "zfs"

    def disk(self, name, target, number=0, seed=None):
        """The checksum of the first 8 MiB, written before if there is a seed."""
        with Initiator(name, target) as client:
            return client.write(number, 0, 8 * MIB, seed=seed) if seed else client.read(number, 0, 8 * MIB)

    def datasets(self, root):
        return run("zfs", "list", "-H", "-r", "-t", "all", "-o", "name", root).stdout.split()

    def test_life(self):
        """Written, snapshotted, cloned both ways, over a reboot, rolled back, deleted."""
        pool, target, root = self.pool("life", "--compression", "LZ4")
        lun = self.daemon.create_lun(pool, "--export", "--acl", LISTED, "--block-size", "4096", size="100M")
        volume = f"{root}/{lun}"
        for name, value in (("volblocksize", "4096"), ("volsize", str(100 * MIB)), ("compression", "lz4"), ("dedup", "off"),
                            ("sync", "standard"), ("checksum", "on"), ("refreservation", "0")):
            self.assertEqual(value, zfs(name, volume), name)
        old = self.disk(LISTED, target, seed=1)
        snapshot = self.daemon.ok("snapshot", "create", pool, lun)[0]["id"]
        new = self.disk(LISTED, target, seed=2)
        for option, origin in (((), "-"), (("--link",), f"{volume}@{snapshot}")):
            clone = self.daemon.ok("lun", "create", pool, "--snapshot", snapshot, *option, "--export", "--acl", OTHER)
            self.assertEqual(old, self.disk(OTHER, target, clone["lun_num"]))
            self.assertEqual((origin, "lz4"), (zfs("origin", f"{root}/{clone['lun_id']}"),
                                               zfs("compression", f"{root}/{clone['lun_id']}")))
            self.assertEqual(lun if option else None, self.daemon.lun(pool, clone["lun_id"]).get("origin_lun"))
            self.daemon.ok("lun", "delete", pool, clone["lun_id"], "--yes")
        self.reboot()
        self.assertEqual(new, self.disk(LISTED, target))
        self.daemon.ok("lun", "rollback", pool, lun, "--yes")
        self.assertEqual(old, self.disk(LISTED, target))
        self.assertEqual([root, volume, f"{volume}@{snapshot}"], self.datasets(root))
        self.daemon.ok("lun", "delete", pool, lun, "--yes")
        self.assertEqual([root], self.datasets(root))


class Volumes_In_A_File(Volumes, Daemon_Case):
    def pool(self, name, *options):
        pool, target = self.create_pool(name, *options)
        return pool, target, pool

    def test_block_sizes_and_compressions(self):
        for compression, value in (("none", "off"), ("gzip", "gzip"), ("ZLE", "zle")):
            pool, _, _ = self.pool(compression, "--compression", compression)
            lun = self.daemon.create_lun(pool, size="1M")
            self.assertEqual((value, "131072"), (zfs("compression", f"{pool}/{lun}"), zfs("volblocksize", f"{pool}/{lun}")))
        for asked, size, made in (("512", "10240", "512"), ("8192", "10000", "8192"), ("262144", "1M", "131072")):
            lun = self.daemon.create_lun(pool, "--block-size", asked, size=size)
            self.assertEqual(made, zfs("volblocksize", f"{pool}/{lun}"))
            self.assertEqual(0, int(zfs("volsize", f"{pool}/{lun}")) % int(made))
        self.assertIn("3000", self.daemon.refused("lun", "create", pool, "--size", "1M", "--block-size", "3000"))

    def test_trim_gives_back_what_the_filesystem_in_the_lun_does_not_use(self):
        pool, target = self.create_pool("trim", "--attr", "backstore_trim=true")
        lun = self.daemon.create_lun(pool)
        run("mkfs.ext4", "-q", f"/dev/zvol/{pool}/{lun}")
        self.daemon.ok("lun", "export", pool, lun, "--acl", LISTED)
        with Initiator(LISTED, target) as client:
            client.write(0, 43 * MIB, 4 * MIB, seed=3)
        run("zpool", "sync", pool)
        before = self.daemon.lun(pool, lun)
        self.daemon.ok("lun", "trim", pool, lun)
        run("zpool", "sync", pool)
        after = self.daemon.lun(pool, lun)
        self.assertLess(after["size"], before["size"] - 3 * MIB)
        self.assertEqual({**before, "size": 0}, {**after, "size": 0})
        self.daemon.ok("lun", "unexport", pool, lun)
        run("fsck.ext4", "-fn", f"/dev/zvol/{pool}/{lun}")


class Volumes_On_The_Global_Device(Volumes, Global_Device, Daemon_Case):
    def pool(self, name, *options):
        pool, target = self.create_pool(name, "--global-dev", "orbistor", *options)
        return pool, target, f"orbistor/{pool}"

    def reboot(self):
        self.daemon.stop()
        clear_target()
        run("zpool", "export", "orbistor")
        run("zpool", "import", "-d", "/dev", "-N", "orbistor")  # the system does this, before the daemon
        self.daemon.start()


class Suspended(Daemon_Case):
    filesystem = "zfs"

    def test_a_full_disk_is_named_and_nothing_hangs(self):
        """A thin pool on a disk that is too small: ZFS suspends it until there is room."""
        os.makedirs(BACKING, exist_ok=True)
        run("mount", "-t", "tmpfs", "-o", "size=96M", "none", BACKING)
        self.addCleanup(run, "umount", BACKING)
        pool, _ = self.create_pool("thin")
        lun = self.daemon.create_lun(pool, size="300M")
        with subprocess.Popen(["dd", "if=/dev/urandom", f"of=/dev/zvol/{pool}/{lun}", "bs=1M", "count=160", "conv=fsync"],
                              stderr=subprocess.DEVNULL) as writer:
            wait_for("suspension", lambda: "SUSPENDED" in self.daemon.ctl("health").stdout, 120)
            started = time.monotonic()
            self.assertEqual([], self.daemon.ok("pool", "list"))
            self.daemon.ctl("lun", "list", pool)
            self.daemon.refused("pool", "delete", pool, "--force", "--yes")
            self.assertLess(time.monotonic() - started, 60)
            self.assertTrue(os.path.exists(f"{BACKING}/{pool}"))
            run("mount", "-o", "remount,size=400M", BACKING)
            run("zpool", "clear", pool)
            self.assertEqual(0, writer.wait(60))
        self.daemon.ok("health")
        self.assertEqual([lun], [one["lun_id"] for one in self.daemon.ok("lun", "list", pool)])


class Sub_Filesystems(Daemon_Case):
    filesystem = "zfs"

    def setUp(self):
        super().setUp()
        self.pool, _ = self.create_pool("filesystems")
        self.fs("create", "docs")

    def fs(self, word, *arguments):
        return self.daemon.ok("fs", *word.split(), self.pool, *arguments)

    def file(self, name, text=None):
        """The file in a mounted sub filesystem: written with a text, else read."""
        record = {one["name"]: one for one in self.fs("list")}[name]
        self.assertEqual((True, True), (record["mounted"], os.path.ismount(record["mountpoint"])))
        with open(f"{record['mountpoint']}/file", "r" if text is None else "w", encoding="utf-8") as file:
            return file.read() if text is None else file.write(text)

    def test_life(self):
        self.fs("mount", "docs")
        self.file("docs", "old")
        snapshot = self.fs("snapshot create", "docs")[0]["id"]
        self.file("docs", "new")
        for name, *option in (("full",), ("link", "--link")):
            self.fs("create", name, "--snapshot", snapshot, *option)
            self.fs("mount", name)
            self.assertEqual("old", self.file(name))
        self.fs("umount", "full")
        self.fs("mount-point", "docs", "other leaf")
        self.reboot()
        self.assertEqual({"docs": True, "link": True, "full": False}, {one["name"]: one["mounted"] for one in self.fs("list")})
        self.assertEqual("new", self.file("docs"))
        self.assertIn("already", self.daemon.refused("fs", "create", self.pool, "docs"))
        for name in ("full", "link"):
            self.fs("delete", name, "--yes")
        self.fs("rollback", "docs", "--yes")
        self.assertEqual("old", self.file("docs"))
        self.fs("delete", "docs", "--yes")
        self.assertEqual([self.pool], run("zfs", "list", "-H", "-o", "name").stdout.split())

    def test_one_that_link_clones_live_on_is_not_deleted(self):
        snapshot = self.fs("snapshot create", "docs")[0]["id"]
        self.fs("create", "link", "--snapshot", snapshot, "--link")
        for words in (("snapshot delete", snapshot), ("delete", "docs")):
            word, name = words
            message = self.daemon.refused("fs", *word.split(), self.pool, name, "--yes")
            self.assertIn(f"has dependent clones: {self.pool}/link", message)
            self.assertEqual([snapshot], [one["id"] for one in self.fs("snapshot list", "docs")])

    def test_luns_and_sub_filesystems_share_their_names(self):
        lun = self.daemon.create_lun(self.pool, size="1M")
        self.assertIn("already exists", self.daemon.refused("fs", "create", self.pool, lun))
        self.assertEqual(["docs"], [one["name"] for one in self.fs("list")])

    def test_a_busy_pool_is_not_destroyed(self):
        self.fs("mount", "docs")
        self.file("docs", "open")
        with open(f"{self.fs('list')[0]['mountpoint']}/file", encoding="utf-8"):
            self.assertIn("busy", self.daemon.refused("pool", "delete", self.pool, "--force", "--yes"))
            self.assertEqual(([self.pool], True), (zpools(), os.path.exists(f"{BACKING}/{self.pool}")))


if __name__ == "__main__":
    unittest.main()
