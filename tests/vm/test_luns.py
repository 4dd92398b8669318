"""LUNs end to end: the command line, the daemon, the kernel's target and real initiators."""

import os
import glob
import re
import statistics
import time
import unittest

from conformance import run_conformance
from harness import (BUILD, GIB, LISTED, MIB, OTHER, PORTAL, REPOSITORY, Daemon_Case, Initiator, acls, backstores, can_login,
                     demo_mode, new_target, run, targets, wait_for)


class Lun_Case(Daemon_Case):
    def setUp(self):
        super().setUp()
        self.pool, self.target = self.create_pool("luns")

    def export(self, *initiators, size="64M"):
        """A new exported LUN with these initiators; without any, in demo mode. Returns its id and its number."""
        options = [word for name in initiators for word in ("--acl", name)]
        lun_id = self.daemon.create_lun(self.pool, "--export", *options, size=size)
        return lun_id, self.daemon.lun(self.pool, lun_id)["lun_num"]

    def assert_nothing_exported(self):
        self.assertEqual([], targets())
        self.assertEqual([], backstores())
        self.assertEqual([], self.daemon.differences())


class One_Export(Lun_Case):
    def test_listed_initiator_uses_the_disk(self):
        lun_id, number = self.export(LISTED, size="10G")
        listed = self.daemon.lun(self.pool, lun_id)
        with Initiator(LISTED, self.target) as client:
            self.assertEqual([number], client.luns())
            self.assertEqual((10 * GIB, 512), client.size(number))
            self.assertEqual(listed["vpd_serial_number"], client.serial(number))
            written = client.write(number, 3 * MIB, 64 * MIB, seed=1)
            self.assertEqual(written, client.read(number, 3 * MIB, 64 * MIB))
        with Initiator(LISTED, self.target) as client:
            self.assertEqual(written, client.read(number, 3 * MIB, 64 * MIB))

    def test_other_initiator_is_refused_and_sees_no_target(self):
        self.export(LISTED)
        with Initiator(OTHER, self.target) as client:
            self.assertIn("514", client.login)
        self.assertIn(self.target, run("iscsi-ls", "-i", LISTED, f"iscsi://{PORTAL}").stdout)
        self.assertNotIn(self.target, run("iscsi-ls", "-i", OTHER, f"iscsi://{PORTAL}", check=False).stdout)

    def test_spelling_of_an_initiator_does_not_matter(self):
        self.export(LISTED.upper().replace("IQN", "iqn"))
        self.assertTrue(can_login(LISTED, self.target))

    def test_acl_changes_reach_a_live_session(self):
        lun_id, number = self.export(LISTED)
        self.daemon.ok("lun", "acl", "add", self.pool, lun_id, OTHER)
        with Initiator(OTHER, self.target) as client:
            client.write(number, 0, MIB, seed=2)
            self.daemon.ok("lun", "acl", "remove", self.pool, lun_id, OTHER)
            with self.assertRaises(OSError):
                client.read(number, 0, MIB)
        self.assertFalse(can_login(OTHER, self.target))
        self.assertTrue(can_login(LISTED, self.target))

    def test_trim_gives_space_back(self):
        lun_id, number = self.export(LISTED)
        with Initiator(LISTED, self.target) as client:
            client.write(number, 0, 32 * MIB, seed=3)
            before = self.daemon.lun(self.pool, lun_id)["size"]
            client.trim(number, 0, 32 * MIB)
        run("sync")
        self.assertLess(self.daemon.lun(self.pool, lun_id)["size"], before - 24 * MIB)

    def test_busy_target_refuses_without_force(self):
        lun_id, number = self.export(LISTED)
        with Initiator(LISTED, self.target) as client:
            self.assertIn("is busy", self.daemon.refused("lun", "unexport", self.pool, lun_id))
            written = client.write(number, 0, MIB, seed=4)
            self.assertEqual(written, client.read(number, 0, MIB))
            self.daemon.ok("lun", "unexport", self.pool, lun_id, "--force")
            with self.assertRaises(OSError):
                client.read(number, 0, MIB)
        self.assert_nothing_exported()

    def test_delete_of_an_exported_lun_takes_the_export_away(self):
        lun_id, _ = self.export(LISTED)
        self.daemon.ok("lun", "delete", self.pool, lun_id, "--yes")
        self.assert_nothing_exported()


class Several_Exports(Lun_Case):
    def test_each_initiator_sees_its_own_lun(self):
        first, first_number = self.export(LISTED)
        _, second_number = self.export(OTHER)
        self.assertEqual([0, 1], [first_number, second_number])
        with Initiator(LISTED, self.target) as mine, Initiator(OTHER, self.target) as other:
            self.assertEqual(([0], [1]), (mine.luns(), other.luns()))
            self.assertNotEqual(mine.serial(0), other.serial(1))
            written = other.write(1, 0, MIB, seed=5)
            self.daemon.ok("lun", "unexport", self.pool, first, "--force")
            self.assertEqual(written, other.read(1, 0, MIB))

    def test_last_unexport_removes_the_target(self):
        luns = [self.export(LISTED)[0], self.export(LISTED)[0]]
        self.daemon.ok("lun", "unexport", self.pool, luns[0])
        self.assertEqual([self.target], targets())
        self.daemon.ok("lun", "unexport", self.pool, luns[1])
        self.assert_nothing_exported()

    def test_data_and_serial_survive_unexport_and_export(self):
        lun_id, number = self.export(LISTED)
        self.export(LISTED)
        with Initiator(LISTED, self.target) as client:
            serial, written = client.serial(number), client.write(number, 0, MIB, seed=6)
        self.daemon.ok("lun", "unexport", self.pool, lun_id)
        self.daemon.ok("lun", "export", self.pool, lun_id, "--acl", LISTED)
        self.assertEqual(number, self.daemon.lun(self.pool, lun_id)["lun_num"])
        with Initiator(LISTED, self.target) as client:
            self.assertEqual((serial, written), (client.serial(number), client.read(number, 0, MIB)))


class Modes(Lun_Case):
    def test_demo_mode_lets_everybody_write_and_says_so(self):
        _, number = self.export()
        self.assertTrue(demo_mode(self.target))
        with Initiator(OTHER, self.target) as client:
            written = client.write(number, 0, MIB, seed=7)
        with Initiator(LISTED, self.target) as client:
            self.assertEqual(written, client.read(number, 0, MIB))
        table = run(f"{BUILD}/ctl/scsipoolctl", "--socket", self.daemon.socket, "lun", "list", self.pool)
        self.assertIn("demo", table.stdout.lower())

    def test_acls_are_ignored_in_a_demo_group_with_luns(self):
        self.export()
        self.export(LISTED)
        self.assertTrue(demo_mode(self.target))
        self.assertEqual([], acls(self.target))
        with Initiator(OTHER, self.target) as client:
            self.assertEqual([0, 1], client.luns())

    def test_acl_group_with_luns_refuses_an_export_without_acls(self):
        self.export(LISTED)
        before = backstores()
        lun_id = self.daemon.create_lun(self.pool)
        self.assertIn("lack of ACLs", self.daemon.refused("lun", "export", self.pool, lun_id))
        self.assertEqual(before, backstores())
        self.assertFalse(can_login(OTHER, self.target))

    def test_nobody_keeps_access_from_demo_times(self):
        """Also not who is still logged in, and not who was; and the next switch opens the target again."""
        demo, number = self.export()
        with Initiator(OTHER, self.target) as logged_out:
            logged_out.read(number, 0, MIB)
        with Initiator("iqn.2026-11.org.example:live", self.target) as live:
            live.read(number, 0, MIB)
            self.daemon.ok("lun", "unexport", self.pool, demo, "--force")
            self.daemon.ok("lun", "export", self.pool, demo, "--acl", LISTED)
            number = self.daemon.lun(self.pool, demo)["lun_num"]
            for attempt in (live.luns, lambda: live.read(number, 0, MIB), lambda: live.write(number, 0, MIB, seed=8)):
                with self.assertRaises(OSError):
                    attempt()
        for name in (OTHER, "iqn.2026-11.org.example:live"):
            self.assertFalse(can_login(name, self.target), name)
        self.assertTrue(can_login(LISTED, self.target))
        self.daemon.ok("lun", "unexport", self.pool, demo, "--force")
        self.daemon.ok("lun", "export", self.pool, demo)
        self.assertTrue(can_login(OTHER, self.target))


class Conformance(Lun_Case):
    def test_scsi_conformance(self):
        _, number = self.export(LISTED, OTHER, size="256M")
        unexpected, summary = run_conformance(LISTED, f"iscsi://{PORTAL}/{self.target}/{number}")
        print(f"    iscsi-test-cu: {summary}")
        self.assertEqual({}, unexpected)

    def test_a_reservation_ends_with_its_session(self):
        """By a logout and by a lost connection; the kernel answers a logout first and lets go a moment later."""
        _, number = self.export(LISTED, OTHER)
        for end in ("logout", "loss"):
            with Initiator(OTHER, self.target) as other:
                with Initiator(LISTED, self.target) as holder:
                    wait_for("reservation", lambda: holder.reserves(number))
                    self.assertFalse(other.reserves(number), end)
                    if end == "loss":
                        holder.process.kill()
                wait_for(f"reservation after the {end}", lambda: other.reserves(number))


class Restart(Lun_Case):
    def facts(self):
        """What must be the same after a reboot."""
        return {lun["lun_id"]: {key: lun[key] for key in ("lun_num", "target", "type", "acls", "vpd_serial_number")}
                for lun in self.daemon.ok("lun", "list", self.pool)}

    def test_exports_are_back_after_a_reboot(self):
        first, number = self.export(LISTED)
        gap, _ = self.export(LISTED)
        self.export(LISTED, OTHER)
        self.daemon.ok("lun", "delete", self.pool, gap, "--yes")
        before = self.facts()
        with Initiator(LISTED, self.target) as client:
            written = client.write(number, 0, 8 * MIB, seed=8)
        self.reboot()
        self.assertEqual(before, self.facts())
        self.assertEqual([], self.daemon.differences())
        with Initiator(LISTED, self.target) as client:
            self.assertEqual(written, client.read(number, 0, 8 * MIB))
            self.assertEqual(before[first]["vpd_serial_number"], client.serial(number))
        self.assertFalse(can_login("iqn.2026-11.org.example:nobody", self.target))

    def test_demo_mode_is_back_after_a_reboot(self):
        _, number = self.export()
        self.reboot()
        with Initiator(OTHER, self.target) as client:
            client.write(number, 0, MIB, seed=9)

    def test_a_lun_that_cannot_be_rebuilt_is_named_and_kept(self):
        lun_id, _ = self.export(LISTED)
        kept, number = self.export(LISTED)
        image = f"/orbistor/scsipool/{self.pool}/{lun_id}/lun_backstore"
        run("mv", image, image + ".away")
        self.reboot()
        self.assertIn(lun_id, str(self.daemon.differences()))
        with Initiator(LISTED, self.target) as client:
            self.assertEqual([number], client.luns())
        # It stays part of its target: that neither goes with the last LUN there is nor opens to everybody.
        self.daemon.ok("lun", "unexport", self.pool, kept, "--force")
        self.assertIn("lack of ACLs", self.daemon.refused("lun", "export", self.pool, self.daemon.create_lun(self.pool)))
        self.daemon.ok("lun", "export", self.pool, kept, "--acl", LISTED)
        self.assertIn(lun_id, str(self.daemon.differences()))
        run("mv", image + ".away", image)
        self.daemon.ok("export", "check", "--repair")
        self.assertEqual([], self.daemon.differences())
        with Initiator(LISTED, self.target) as client:
            self.assertEqual(2, len(client.luns()))
        self.daemon.ok("lun", "delete", self.pool, kept, "--yes", "--force")


def fault_points():
    """The steps of the exporter and where the record is saved; lio_kernel_test kills at all steps of the library."""
    found = []
    for path in [*glob.glob(f"{REPOSITORY}/platform/lio/*.cpp"), f"{REPOSITORY}/backup/pools/scsipool/sub_volume_exporter.cpp"]:
        with open(path, encoding="utf-8") as file:
            found += re.findall(r'FAULT_POINT\("([^"]+)"\)', file.read())
    return sorted({name for name in found if not name.startswith("lio.") or name.endswith("_saved")})


class Killed(Lun_Case):
    """SIGKILL at each step. What is left afterwards is nothing, or is named and repaired."""

    def attempt(self, point, one, two):
        """Does what passes all steps, with the fault point armed; whether the daemon died of it."""
        self.daemon.stop()
        self.daemon.start(fault=point)
        for words, lun_id, *rest in (("export", one, "--acl", LISTED), ("acl add", one, OTHER), ("acl remove", one, OTHER),
                                     ("export", two, "--acl", OTHER), ("unexport", one, "--force"),
                                     ("unexport", two, "--force"), ("export", one), ("unexport", one, "--force")):
            if self.daemon.process.poll() is None:
                self.daemon.ctl("lun", *words.split(), self.pool, lun_id, *rest)
        return self.daemon.killed()

    def check_repaired(self):
        if self.daemon.differences():
            self.daemon.ok("export", "check", "--repair")
        self.assertEqual([], self.daemon.differences())
        exported = [lun for lun in self.daemon.ok("lun", "list", self.pool) if "lun_num" in lun]
        for name in (LISTED, OTHER):
            allowed = any(not lun["acls"] or name in str(lun["acls"]) for lun in exported)
            self.assertEqual(allowed, can_login(name, self.target), name)
        for lun in exported:
            self.daemon.ok("lun", "unexport", self.pool, lun["lun_id"], "--force")
        self.assert_nothing_exported()

    def test_nothing_unnamed_is_left_by_a_kill_at_any_step(self):
        points = fault_points()
        self.assertGreater(len(points), 10)
        luns = self.daemon.create_lun(self.pool), self.daemon.create_lun(self.pool)
        for point in points:
            with self.subTest(point=point):
                self.assertTrue(self.attempt(point, *luns), "the step was never reached")
                self.daemon.start()
                self.check_repaired()


class Many(Lun_Case):
    """Many LUNs in one target through the daemon. With SCSIPOOL_SCALE=1 it is 200, and the times are judged.

    Each step lists the pool's subvolumes with a process of its own, which is what takes the time.
    """

    scale = bool(os.environ.get("SCSIPOOL_SCALE"))
    count = 200 if scale else 8

    def seconds(self, method, path, body=None):
        start = time.monotonic()
        answer = self.daemon.rest(method, path, body)
        return time.monotonic() - start, answer

    def test_cost_does_not_grow(self):
        started, creations, exports, listings = time.monotonic(), [], [], {}
        for number in range(1, self.count + 1):
            took, lun = self.seconds("POST", "lun", {"pool_id": self.pool, "lun_size": MIB})
            creations.append(took)
            took, _ = self.seconds("POST", "lun/export", {"pool_id": self.pool, "lun_id": lun["lun_id"],
                                                          "acls": [{"initiator": LISTED}]})
            exports.append(took)
            if number in (self.count // 2, self.count):
                listings[number], listed = self.seconds("GET", f"lun?pool_id={self.pool}")
                self.assertEqual(list(range(number)), sorted(lun["lun_num"] for lun in listed))
        made = time.monotonic()
        with Initiator(LISTED, self.target) as client:
            self.assertEqual(list(range(self.count)), client.luns())
        self.daemon.ok("pool", "delete", self.pool, "--force", "--yes", timeout=1800)
        self.assertEqual(([], []), (targets(), backstores()))
        if self.scale:
            middle = [statistics.median(times[first:first + 9]) for times in (creations, exports) for first in (5, 191)]
            print("    creation {:.2f} s at the 10th, {:.2f} s at the 200th; export {:.2f} s, {:.2f} s; ".format(*middle)
                  + f"listings {listings}; all made in {made - started:.0f} s, deleted in {time.monotonic() - made:.0f} s",
                  flush=True)
            self.assertLess(listings[200] / listings[100], 2.6)
            self.assertLess(middle[3] / middle[2], 1.5)


class Hostile(Lun_Case):
    INITIATORS = ["", "foo", "iqn.2026-11.org.example:a b", "iqn.2026-11.org.example:a/b", "iqn.2026-11.org.example:a\nb",
                  "../acls", "iqn.2026-11.org.example:" + "x" * 250, "naa.123", "eui.xyz", "iqn.2026-11.org.example:a,b"]
    TARGETS = ["iqn.2026-11.org.example:a/b", "iqn.2026-11.org.example:a\nb", "../../core/fileio_0", "foo",
               "iqn.2026-11.org.example:" + "x" * 250]

    def test_initiator_names(self):
        lun_id = self.daemon.create_lun(self.pool)
        for name in self.INITIATORS:
            with self.subTest(name=name):
                message = self.daemon.refused("lun", "export", self.pool, lun_id, "--acl", name)
                self.assertIn(name.splitlines()[0][:40] if name else "initiator", message)
                self.assert_nothing_exported()

    def test_target_names(self):
        for name in self.TARGETS:
            with self.subTest(name=name):
                self.daemon.refused("pool", "create", "hostile", "--size", "200M", "--fs", "btrfs", "--lun-type", "iscsi",
                                    "--target", name)
                self.assert_nothing_exported()

    def test_sizes(self):
        for size in ("0", "1", "511", "-1", "99999999999999999999"):
            with self.subTest(size=size):
                done = self.daemon.ctl("lun", "create", self.pool, f"--size={size}", "--export", "--acl", LISTED)
                self.assertIn(done.returncode, (1, 2))
                self.assertIn("size", (done.stderr + done.stdout).lower())
                self.assert_nothing_exported()
        self.assertEqual([], self.daemon.ok("lun", "list", self.pool))

    def test_foreign_targets_are_left_alone(self):
        foreign = new_target("foreign")
        run("mkdir", "-p", f"/sys/kernel/config/target/iscsi/{foreign}/tpgt_1")
        self.addCleanup(run, "rmdir", f"/sys/kernel/config/target/iscsi/{foreign}")
        self.addCleanup(run, "rmdir", f"/sys/kernel/config/target/iscsi/{foreign}/tpgt_1")
        lun_id, _ = self.export(LISTED)
        self.daemon.ok("export", "check", "--repair")
        self.daemon.ok("lun", "unexport", self.pool, lun_id)
        self.assertEqual([foreign], targets())


if __name__ == "__main__":
    unittest.main()
