"""What the other tests of the virtual machine build on: the kernel's target, file systems and initiators work."""

import os
import unittest

from harness import (LISTED, MIB, OTHER, TARGET_ROOT, Initiator, can_login, clear_target, demo_mode, new_target, run,
                     targets)


def put(path, text):
    with open(f"{TARGET_ROOT}/{path}", "w", encoding="utf-8") as file:
        file.write(text)


def export_by_hand(target, image, size, initiator):
    """One LUN 0 on a file, for one initiator, by configfs alone."""
    store, group = "core/fileio_0/by_hand", f"iscsi/{target}/tpgt_1"
    for folder in ("iscsi", f"iscsi/{target}", group, "core/fileio_0", store, f"{group}/np/[::]:3260", f"{group}/lun/lun_0",
                   f"{group}/acls/{initiator}", f"{group}/acls/{initiator}/lun_0"):
        os.makedirs(f"{TARGET_ROOT}/{folder}", exist_ok=True)
    put(f"{store}/control", f"fd_dev_name={image},fd_dev_size={size},fd_buffered_io=1")
    put(f"{store}/wwn/vpd_unit_serial", "0123456789abcdef")
    put(f"{store}/enable", "1")
    put(f"{store}/attrib/emulate_tpu", "1")
    put(f"{group}/attrib/authentication", "0")
    os.symlink(f"{TARGET_ROOT}/{store}", f"{TARGET_ROOT}/{group}/lun/lun_0/lun")
    os.symlink(f"{TARGET_ROOT}/{group}/lun/lun_0", f"{TARGET_ROOT}/{group}/acls/{initiator}/lun_0/lun")
    put(f"{group}/enable", "1")


class Machine(unittest.TestCase):
    def test_a_lun_by_hand(self):
        image, target = "/orbistor/by_hand", new_target("hand")
        self.addCleanup(os.remove, image)
        self.addCleanup(clear_target)
        run("truncate", "-s", "128M", image)
        export_by_hand(target, image, 128 * MIB, LISTED)
        self.assertEqual([target], targets())
        self.assertFalse(demo_mode(target))
        self.assertFalse(can_login(OTHER, target))
        with Initiator(LISTED, target) as client:
            self.assertEqual([0], client.luns())
            self.assertEqual((128 * MIB, 512), client.size(0))
            self.assertEqual("0123456789abcdef", client.serial(0))
            written = client.write(0, MIB, 64 * MIB, seed=1)
            self.assertEqual(written, client.read(0, MIB, 64 * MIB))
            self.assertNotEqual(written, client.read(0, 0, 64 * MIB))
            client.trim(0, MIB, 64 * MIB)
            with self.assertRaises(OSError):
                client.read(7, 0, MIB)
        run("sync")
        self.assertLess(os.stat(image).st_blocks * 512, 4 * MIB)
        clear_target()
        self.assertEqual([], targets())

    def test_btrfs_sends_and_receives(self):
        folder = "/orbistor/machine"
        os.makedirs(f"{folder}/mnt")
        self.addCleanup(run, "rm", "-rf", folder)
        run("fallocate", "-l", "200M", f"{folder}/image")
        run("mkfs.btrfs", "-q", f"{folder}/image")
        run("mount", "-o", "loop", f"{folder}/image", f"{folder}/mnt")
        self.addCleanup(run, "umount", f"{folder}/mnt")
        script = ("btrfs subvolume create one && dd if=/dev/urandom of=one/data bs=1M count=8 && "
                  "btrfs subvolume snapshot -r one snap && mkdir in && btrfs send snap | btrfs receive in && "
                  "cmp one/data in/snap/data")
        run("bash", "-ec", script, cwd=f"{folder}/mnt")

    def test_zfs_volume_appears_as_a_device(self):
        run("truncate", "-s", "256M", "/orbistor/machine.zfs")
        self.addCleanup(os.remove, "/orbistor/machine.zfs")
        run("zpool", "create", "-f", "-m", "none", "machine", "/orbistor/machine.zfs")
        self.addCleanup(run, "zpool", "destroy", "machine")
        run("zfs", "create", "-s", "-b", "8192", "-V", "64M", "machine/one volume")
        run("udevadm", "settle")
        self.assertTrue(os.path.exists("/dev/zvol/machine/one volume") or os.path.exists("/dev/zvol/machine/one+volume"))


if __name__ == "__main__":
    unittest.main()
