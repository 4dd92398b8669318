"""LUN snapshots of one host arrive in the pool of the other."""
import concurrent.futures
import http.client
import os
import signal
import socket
import subprocess
import time
import unittest

from harness import MOUNTS, run
from two_hosts import MIB, Two_Hosts, sha


class Replication(Two_Hosts):
    def test_full_then_ten_increments(self):
        self.assertIn("yes", self.ctl(self.a, "peer", "check", self.there, "--from", self.here))
        newest_only = self.make_lun("--retention-type", "newest")
        for lun in (self.lun, newest_only):
            first = self.snapshot(lun)
            self.assertGreater(self.ended()["data_size"], 20 * MIB)
            self.assert_same(first, lun)
        for number in range(10):
            lun = newest_only if number % 3 == 0 else self.lun
            if number % 2:  # the peer's copy is written to, and brought back or left so
                with open(self.b.image(self.there, lun), "r+b") as image:
                    image.write(os.urandom(MIB))
                if number % 4 == 1:
                    self.ctl(self.b, "lun", "rollback", self.there, lun, "--yes")
            self.change(number * MIB, MIB, lun)
            taken = self.snapshot(lun)
            size = self.ended()["data_size"]
            self.assertTrue(MIB <= size < 3 * MIB, size)
            self.assert_same(taken, lun)
        self.assertEqual(4 - 1, len(self.listed(self.a, self.lun)))
        self.assertEqual(self.listed(self.a, self.lun), self.listed(self.b, self.lun))
        self.assertEqual(self.listed(self.a, newest_only)[-1], self.listed(self.b, newest_only)[-1])
        # Those that the last job held references on go with the next one.
        self.assertLessEqual(len(self.listed(self.a, newest_only)), 3)
        self.assertNotIn("At subvol", "".join(line for line in self.a.log().splitlines() if "ERROR" in line))

    def test_commands_show_repeat_and_mirror(self):
        first = self.snapshot()
        job = str(self.ended()["job_id"])
        self.assertIn("succeeded", self.ctl(self.a, "job", "list", self.here))
        self.assertIn("succeeded 100 %", self.ctl(self.a, "job", "watch", job))
        self.assertIn("succeeded", self.ctl(self.a, "event", "list", "--job", job))
        self.assertIn("replication completed", self.ctl(self.a, "alert", "list"))
        self.ctl(self.a, "job", "redo", job)
        self.assertEqual(0, self.ended()["data_size"])  # it is all there

        second = self.snapshot()
        self.ended()
        out = self.ctl(self.a, "retention", "explain", self.here, self.lun)
        self.assertIn(first, out)
        self.assertIn("within the retention count", out)
        self.ctl(self.a, "snapshot", "recycle", self.here, first, "off")
        self.assertEqual([(first, 1, False), (second, 2, True)], self.listed(self.b))
        self.assertEqual(self.listed(self.a), self.listed(self.b))
        self.ctl(self.a, "snapshot", "delete", self.here, second, "--yes")
        self.assertEqual([(first, 1, False)], self.listed(self.b))
        self.assertFalse(os.path.exists(self.b.image(self.there, second)))
        self.ctl(self.a, "job", "remove", job)
        self.assertNotIn(int(job), [one["job_id"] for one in self.jobs()])

        self.b.lost()
        error = self.ctl(self.a, "snapshot", "delete", self.here, first, "--yes", status=1)
        self.assertIn("target", error)
        self.assertEqual([(first, 1, False)], self.listed(self.a))
        third = self.snapshot()
        self.assertIn("session", self.ended("failed")["error_message"] or self.a.log())
        self.b.start()
        self.ctl(self.a, "job", "redo", str(self.jobs()[-1]["job_id"]))
        self.ended()
        self.assert_same(third)

    def test_a_wrong_key_is_named_and_nothing_is_lost(self):
        self.assertEqual(0, self.a.stop())
        self.a.use_key("another-key-of-nobody-else")
        self.a.start()
        status, out, error = self.a.ctl("peer", "check", self.there)
        self.assertEqual(1, status)
        self.assertIn("key", out + error)
        taken = self.snapshot()
        self.ended("failed")
        self.assertEqual([], self.listed(self.b))
        self.assertEqual(taken, self.listed(self.a)[0][0])
        job = str(self.jobs()[-1]["job_id"])
        why = self.ctl(self.a, "job", "show", job)
        self.assertIn("Failed to execute scsi pool replicate", why)
        self.assertEqual(0, self.a.stop())
        self.a.start()
        self.assertEqual(why, self.ctl(self.a, "job", "show", job))

    def test_a_source_that_dies_leaves_nothing_and_goes_on_later(self):
        taken = self.start_slow_transfer()
        self.a.lost()
        self.assert_no_trace(taken)
        self.a.start()
        self.repeated()
        self.assert_same(taken)
        self.assertEqual(self.listed(self.a), self.listed(self.b))

    def test_a_source_that_is_stopped_goes_on_later(self):
        taken = self.start_slow_transfer()
        begin = time.monotonic()
        self.assertEqual(0, self.a.stop())
        self.assertLess(time.monotonic() - begin, 15)
        self.assert_no_trace(taken)
        self.a.start()
        self.repeated()
        self.assert_same(taken)

    def test_a_source_that_dies_late_or_early_in_a_job_runs_it_once(self):
        """Late: nothing is sent again. Early: stored but not queued, it runs all the same."""
        for point, sent in (("replicate.sent", 0), ("job.end", MIB), ("job.stored", MIB)):
            with self.subTest(point):
                self.assertEqual(0, self.a.stop())
                self.a.start({"SCSIPOOL_FAULT": point})
                self.change(0, MIB)
                before = len(self.jobs())
                try:
                    self.snapshot()
                except (OSError, http.client.HTTPException):
                    self.assertEqual("job.stored", point)
                self.assertEqual(-signal.SIGKILL, self.a.process.wait(60))
                self.a.ended()
                self.a.start()
                self.repeated()
                job = self.jobs()[-1]
                self.assertEqual(before + 1, len(self.jobs()))
                self.assertTrue(sent <= job["data_size"] <= 30 * sent, job)
                self.assertEqual(self.listed(self.a), self.listed(self.b))
                self.assert_consistent()

    def test_a_job_that_waits_for_its_backup_lets_others_pass(self):
        other = self.make_lun(filled=MIB)
        self.named(self.snapshot())
        self.ended()
        waits = self.snapshot()
        number = str(self.jobs()[-1]["job_id"])
        passes = self.snapshot(other)
        self.named(passes)
        self.ended()
        self.assert_same(passes, other)
        for _ in range(2):
            self.wait_for(lambda: waits in self.ctl(self.a, "job", "show", number))
            self.assertIn("pending", self.ctl(self.a, "job", "show", number))
            self.assertIn(waits, self.ctl(self.a, "event", "list", "--job", number))
            self.assertEqual(0, self.a.stop())
            self.a.start()
        with concurrent.futures.ThreadPoolExecutor() as other_terminal:
            watch = other_terminal.submit(self.ctl, self.a, "job", "watch", number)
            self.wait_for(lambda: waits in self.ctl(self.a, "job", "show", number))
            time.sleep(2)  # it looks once a second
            self.named(waits)
            self.assertIn(waits, watch.result())
        self.assert_same(waits)
        self.assert_consistent()

    def named(self, snapshot):
        """A backup catalog that names the snapshot comes to the source."""
        record = {"pool_uuid": self.here, "uuid": self.new_id(), "extended_attrs": {"snapshot_id": snapshot}}
        status, answer = self.a.request("PUT", "/svc/r/catalog", record)
        self.assertEqual(200, status, answer)

    def test_a_target_that_is_not_as_it_was_left(self):
        self.ctl(self.b, "lun", "create", self.there, "--size", "64M", "--id", self.lun)
        self.ctl(self.b, "snapshot", "create", self.there, self.lun)  # not one of the source's
        first = self.snapshot()
        self.ended()
        self.assertEqual(self.listed(self.a), self.listed(self.b))

        self.change(0, MIB)
        second = self.snapshot()
        self.ended()
        run("nsenter", "-t", str(self.b.process.pid), "-m", "btrfs", "subvolume", "delete", f"{MOUNTS}/{self.there}/{second}")
        self.change(MIB, MIB)
        self.snapshot()
        self.ended()
        self.assertEqual(self.listed(self.a), self.listed(self.b))
        self.assert_consistent()

        self.ctl(self.b, "lun", "delete", self.there, self.lun, "--force", "--yes")
        self.change(2 * MIB, MIB)
        last = self.snapshot()
        self.assertGreater(self.ended()["data_size"], 20 * MIB)
        self.assert_same(last)
        self.assert_consistent()
        self.assertNotIn(first, [row[0] for row in self.listed(self.b)])

    def test_what_changes_at_the_source_while_a_job_runs_or_waits(self):
        other = self.make_lun(filled=MIB)
        taken = self.start_slow_transfer()
        status, answer = self.b.request("POST", "/svc/r/scsipool/lun/export", {"pool_id": self.there, "lun_id": self.lun})
        self.assertEqual(409, status, answer)
        self.assertIn("being received", str(answer))
        self.change(0, MIB)
        queued = self.snapshot()
        self.ctl(self.a, "replication", "clear", self.here)
        self.assertIn("replication info is remove", self.ended("failed")["error_message"])
        self.assertEqual("succeeded", self.jobs()[0]["state"])
        self.assert_same(taken)

        self.ctl(self.a, "lun", "delete", self.here, other, "--force", "--yes")
        self.ctl(self.a, "replication", "set", self.here, "--to", self.there)
        for job in self.jobs():
            self.ctl(self.a, "job", "redo", str(job["job_id"]))
            self.wait_for(lambda: all(one["state"] == "succeeded" for one in self.jobs() if one["job_id"] == job["job_id"]))
        self.assert_same(queued)

    def test_a_tool_that_dies_is_tried_again(self):
        for tool in ("receive", "send"):
            with self.subTest(tool):
                self.change(0, 8 * MIB)
                taken = self.start_slow_transfer()
                self.assertTrue((self.b if tool == "receive" else self.a).kill_tool(tool))
                self.ended(seconds=150)
                self.assert_same(taken)

    def test_a_target_that_dies_between_data_and_record(self):
        self.assertEqual(0, self.b.stop())
        self.b.start({"SCSIPOOL_FAULT": "receive.record"})
        taken = self.snapshot()
        self.ended("failed")
        self.assertEqual(-signal.SIGKILL, self.b.process.wait(10))
        self.b.ended()
        self.b.start()
        self.assertEqual([], self.listed(self.b))
        self.assertFalse(os.path.exists(os.path.dirname(self.b.image(self.there, taken))), "what came stayed")
        self.ctl(self.a, "job", "redo", str(self.jobs()[-1]["job_id"]))
        self.ended()
        self.assert_same(taken)
        self.assertEqual(self.listed(self.a), self.listed(self.b))

    def test_a_deletion_that_is_cut_between_storage_and_record(self):
        taken = self.snapshot()
        self.ended()
        for host in (self.b, self.a):
            self.assertEqual(0, host.stop())
            host.start({"SCSIPOOL_FAULT": "delete_snapshot.destroyed"})
            self.a.ctl("snapshot", "delete", self.here, taken, "--yes")
            self.assertEqual(-signal.SIGKILL, host.process.wait(10))
            host.ended()
            host.start()
            self.assert_consistent()
        self.assertEqual([], self.listed(self.a) + self.listed(self.b))

    def test_what_was_answered_for_survives_a_crash_of_the_target(self):
        first = self.snapshot()
        self.ended()
        self.ctl(self.a, "replication", "clear", self.here)
        self.change(0, 8 * MIB)
        second = self.snapshot()
        mount = f"{MOUNTS}/{self.here}"
        stream = subprocess.run(["nsenter", "-t", str(self.a.process.pid), "-m", "btrfs", "send", "-q", "-p",
                                 f"{mount}/{first}", f"{mount}/{second}"], check=True, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE).stdout
        wanted = sha(self.a.image(self.here, second))
        status, answer = self.post(second, stream[:-1000], whole=False)
        self.assertNotEqual(200, status)
        other = self.new_id()
        status, answer = self.post(other, stream)
        self.assertEqual(500, status)
        self.assertIn("the stream is of another one", str(answer))
        self.assertFalse(os.path.exists(os.path.dirname(self.b.image(self.there, second))))
        status, answer = self.post(second, stream)
        copy = self.sandbox.path("copy")
        run("cp", "--sparse=always", self.b.backing(self.there), copy)
        self.assertEqual(200, status, answer)
        self.b.lost()
        mounted = self.sandbox.path("mounted")
        os.mkdir(mounted)
        run("mount", "-o", "ro,loop", copy, mounted)
        try:
            self.assertEqual(wanted, sha(f"{mounted}/{second}/lun_backstore"))
        finally:
            run("umount", mounted)

    def post(self, snapshot, data, whole=True):
        """Feeds a stream as a source would, in chunks; one that is not whole ends without the last chunk."""
        connection = http.client.HTTPConnection("127.0.0.1", self.b.port, timeout=120)
        path = f"/svc/scsipool/receive/{self.there}/1/{self.lun}/{snapshot}/recycle/2"
        try:
            connection.putrequest("POST", path)
            connection.putheader("X-Access-Key", self.KEY)
            connection.putheader("Transfer-Encoding", "chunked")
            connection.endheaders()
            for at in range(0, len(data), 65536):
                part = data[at:at + 65536]
                connection.send(b"%x\r\n%s\r\n" % (len(part), part))
            if whole:
                connection.send(b"0\r\n\r\n")
            else:
                connection.sock.shutdown(socket.SHUT_WR)
            answer = connection.getresponse()
            return answer.status, answer.read()
        except (http.client.HTTPException, OSError) as error:
            return 0, str(error)
        finally:
            connection.close()


if __name__ == "__main__":
    unittest.main()
