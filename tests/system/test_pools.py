"""Pools on real Btrfs, from the command line and through REST to the disk and back."""
import concurrent.futures
import json
import os
import shutil
import signal
import subprocess
import time
import unittest

from harness import BACKING, MOUNTS, System_Test, run

MIB = 1 << 20


def blocks_of(path):
    return os.stat(path).st_blocks * 512


class Pool_Life(System_Test):
    def test_a_pool_from_creation_to_deletion(self):
        daemon = self.daemon().start()
        pool = self.new_id()
        self.ctl(daemon, "pool", "create", "backup one", "--size", "256M", "--id", pool, "--compression", "zlib",
                 "--retention", "5", "--attr", 'note="first"')
        backing, mount = f"{BACKING}/{pool}", f"{MOUNTS}/{pool}"
        self.assertEqual(256 * MIB, os.path.getsize(backing))
        self.assertGreaterEqual(blocks_of(backing), 256 * MIB)
        self.assertEqual("btrfs", run("stat", "-f", "-c", "%T", mount).strip())
        self.assertIn("compress=zlib", run("findmnt", "-n", "-o", "OPTIONS", mount))
        self.assertIn(backing, open("/etc/fstab").read())

        status, pools = daemon.request("GET", f"/svc/r/pool?type=scsi&pool_id={pool}")
        self.assertEqual(200, status)
        record = pools[0]
        self.assertEqual({"async": False, "block_size": 0, "checksum": True, "note": "first"},
                         record.pop("extended_attrs"))
        self.assertGreater(record.pop("used_size"), 0)
        self.assertTrue(record.pop("target").startswith("iqn.2003-01."))
        self.assertEqual({"pool_id": pool, "pool_name": "backup one", "fs_type": "btrfs", "type": "iSCSI",
                          "total_size": 256 * MIB, "retention": 5, "compression": "zlib", "thin_provision": False,
                          "dedup": False, "snapshot_mounted": False, "global_dev": ""}, record)

        self.assertIn("256 MiB", self.ctl(daemon, "pool", "list"))
        self.ctl(daemon, "pool", "update", "backup one", "--name", "two", "--retention", "9", "--attr", "note=null")
        changed = json.loads(self.ctl(daemon, "pool", "list", "two", "--json"))[0]
        self.assertEqual((9, None, True),
                         (changed["retention"], changed["extended_attrs"]["note"], changed["extended_attrs"]["checksum"]))
        self.assertIn("--yes is needed", self.ctl(daemon, "pool", "delete", "two", status=1))
        self.ctl(daemon, "pool", "delete", "two", "--yes")
        self.assertEqual((200, []), daemon.request("GET", "/svc/r/pool?type=scsi"))
        self.assertEqual(404, daemon.request("GET", f"/svc/r/pool?pool_id={pool}")[0])
        self.assertEqual(0, daemon.stop())
        self.assert_nothing_left()

    def test_two_pools_at_once_and_a_duplicate_name(self):
        daemon = self.daemon().start()
        names = ["one", "two", "same", "same", "same"]
        bodies = [{"pool_id": self.new_id(), "pool_name": name, "total_size": 128 * MIB, "thin_provision": True}
                  for name in names]
        with concurrent.futures.ThreadPoolExecutor(5) as threads:
            answers = list(threads.map(lambda body: daemon.request("POST", "/svc/r/pool", body), bodies))
        self.assertEqual([200, 200], [status for status, _ in answers[:2]], answers)
        self.assertEqual([200, 409, 409], sorted(status for status, _ in answers[2:]), answers)
        made = [answer["pool_id"] for status, answer in answers if status == 200]
        self.assertEqual(sorted(made), sorted(os.listdir(BACKING)))
        with concurrent.futures.ThreadPoolExecutor(3) as threads:
            deleted = list(threads.map(lambda one: daemon.request("DELETE", f"/svc/r/pool?pool_id={one}"), made))
        self.assertEqual([200] * 3, [status for status, _ in deleted], deleted)
        self.assert_nothing_left()

    def test_the_smallest_pool(self):
        daemon = self.daemon().start()
        small = self.new_id()
        message = self.ctl(daemon, "pool", "create", "small", "--size", "52428799", "--id", small, status=1)
        self.assertIn("backstore must bigger than 52428800", message)
        self.ctl(daemon, "pool", "create", "small", "--size", "50M", "--id", small)
        with open(f"{MOUNTS}/{small}/file", "wb") as file:
            file.write(os.urandom(20 * MIB))
        self.ctl(daemon, "pool", "delete", "small", "--yes")
        self.assert_nothing_left()

    def test_thick_pools_keep_their_blocks(self):
        daemon = self.daemon().start()
        pool = self.new_id()
        self.ctl(daemon, "pool", "create", "thick", "--size", "256M", "--id", pool)
        with open(f"{MOUNTS}/{pool}/file", "wb") as file:
            file.write(os.urandom(100 * MIB))
            os.fsync(file.fileno())
        os.unlink(f"{MOUNTS}/{pool}/file")
        run("sync", "-f", f"{MOUNTS}/{pool}")
        time.sleep(3)
        self.assertGreaterEqual(blocks_of(f"{BACKING}/{pool}"), 256 * MIB)
        # Mounted by its entry, as at a boot, a recent kernel gives freed blocks back until the daemon starts.
        self.assertEqual(0, daemon.stop())
        run("umount", f"{MOUNTS}/{pool}")
        run("mount", f"{MOUNTS}/{pool}")
        run("fstrim", f"{MOUNTS}/{pool}")
        self.assertLess(blocks_of(f"{BACKING}/{pool}"), 200 * MIB)
        daemon.start()
        self.assertGreaterEqual(blocks_of(f"{BACKING}/{pool}"), 256 * MIB)
        self.assertNotRegex(run("findmnt", "-n", "-o", "OPTIONS", f"{MOUNTS}/{pool}"), r"(^|,)discard")
        self.ctl(daemon, "pool", "delete", "thick", "--yes")
        self.assert_nothing_left()

    def test_pools_come_back_after_a_restart(self):
        daemon = self.daemon().start()
        pool, lost = self.new_id(), self.new_id()
        self.ctl(daemon, "pool", "create", "kept", "--size", "128M", "--thin", "--id", pool, "--compression", "lzo")
        self.ctl(daemon, "pool", "create", "lost", "--size", "128M", "--thin", "--id", lost)
        open(f"{MOUNTS}/{pool}/file", "w").write("data")
        self.assertEqual(0, daemon.stop(signal.SIGINT))
        for one in (pool, lost):  # as after a boot
            run("umount", f"{MOUNTS}/{one}")
        os.unlink(f"{BACKING}/{lost}")
        daemon.start()
        self.assertEqual("data", open(f"{MOUNTS}/{pool}/file").read())
        self.assertIn("compress=lzo", run("findmnt", "-n", "-o", "OPTIONS", f"{MOUNTS}/{pool}"))
        code, out, _ = daemon.ctl("health")
        self.assertEqual(1, code)
        self.assertRegex(out, rf"lost +{lost} +btrfs +missing")
        self.assertRegex(out, rf"kept +{pool} +btrfs +ok")
        self.ctl(daemon, "pool", "delete", "kept", "--yes")
        self.ctl(daemon, "pool", "delete", "lost", "--yes", status=1)
        self.ctl(daemon, "pool", "delete", "lost", "--yes", "--force")
        self.assertEqual([], daemon.request("GET", "/svc/r/health")[1]["pools"])
        self.assert_nothing_left()

    def test_a_pool_that_is_not_mounted_takes_nothing(self):
        """Where /orbistor is on Btrfs itself, the tools would work on it instead."""
        disk = self.sandbox.path("disk")
        with open(disk, "wb") as file:
            file.truncate(1024 * MIB)
        run("mkfs.btrfs", "-q", disk)
        run("mount", "-o", "loop", disk, "/orbistor")
        try:
            daemon = self.daemon().start()
            pool = self.new_id()
            self.ctl(daemon, "pool", "create", "away", "--size", "200M", "--thin", "--id", pool)
            run("umount", f"{MOUNTS}/{pool}")
            self.ctl(daemon, "lun", "create", "away", "--size", "10M", status=1)
            self.assertEqual([], os.listdir(f"{MOUNTS}/{pool}"))
            run("mount", f"{MOUNTS}/{pool}")
            self.ctl(daemon, "lun", "create", "away", "--size", "10M")
            self.ctl(daemon, "pool", "delete", "away", "--yes", "--force")
            self.assertEqual(0, daemon.stop())
        finally:
            run("umount", "-l", "/orbistor")


class Room(System_Test):
    room = "300m"

    def test_larger_than_free_space(self):
        daemon = self.daemon().start()
        thick, thin = self.new_id(), self.new_id()
        message = self.ctl(daemon, "pool", "create", "thick", "--size", "400M", "--id", thick, status=1)
        self.assertIn("not enough space", message)
        self.assertNotIn(thick, os.listdir(BACKING))
        self.ctl(daemon, "pool", "create", "thin", "--size", "400M", "--thin", "--id", thin)
        self.assertLess(blocks_of(f"{BACKING}/{thin}"), 50 * MIB)
        self.ctl(daemon, "pool", "delete", "thin", "--yes")
        self.assert_nothing_left()

    def test_a_full_disk(self):
        daemon = self.daemon().start()
        pool = self.new_id()
        with open("/orbistor/filler", "wb") as file:
            os.posix_fallocate(file.fileno(), 0, 300 * MIB - 200 * 1024)
        message = self.ctl(daemon, "pool", "create", "full", "--size", "128M", "--thin", "--id", pool, status=1)
        self.assertIn("Failed to", message)
        self.assertNotIn("left behind", message)
        os.unlink("/orbistor/filler")
        self.ctl(daemon, "pool", "create", "full", "--size", "128M", "--thin", "--id", pool)
        self.ctl(daemon, "pool", "delete", "full", "--yes")
        self.assert_nothing_left()


class Bad_Input(System_Test):
    def test_each_is_a_clear_error_and_nothing_is_made(self):
        daemon = self.daemon().start()
        good = {"pool_name": "good", "total_size": 128 * MIB}
        hostile = ['"; touch /tmp/x; "', "../x", "-rf", "a/b", "x" * 300, "a\nb", "", "$(reboot)"]
        cases = [({**good, "pool_name": name}, "'pool_name'") for name in hostile]
        cases += [({**good, "pool_id": name}, "'pool_id'") for name in hostile]
        cases += [({**good, "total_size": size}, "'total_size'")
                  for size in (0, -1, 1.5, 1e20, 2 ** 63, 2 ** 64, "1G", None, True)]
        cases += [({**good, "fs_type": "ext4"}, "'fs_type'"), ({**good, "surprise": 1}, "'surprise'"),
                  ({**good, "dedup": 1}, "'dedup'"), ({"pool_name": "x"}, "'total_size': is missing"), ([], "object"),
                  ('{"pool_name": "x", "total_si', "not JSON"), ("", "JSON")]
        for body, part in cases:
            status, answer = daemon.request("POST", "/svc/r/pool", body)
            self.assertEqual(400, status, body)
            self.assertIn(part, answer["error"]["message"], body)
        self.assertEqual([], os.listdir(BACKING) if os.path.isdir(BACKING) else [])
        self.assertEqual(0, daemon.stop())
        self.assert_nothing_left()

    def test_half_a_body(self):
        import socket
        daemon = self.daemon().start()
        with socket.socket(socket.AF_UNIX) as raw:
            raw.connect(daemon.socket)
            raw.sendall(b"POST /svc/r/pool HTTP/1.1\r\nHost: x\r\nContent-Length: 70\r\n\r\n"
                        b'{"pool_name": "half", "total_size": 134217728}')
            raw.shutdown(socket.SHUT_WR)
            raw.settimeout(20)
            self.assertNotIn(b" 200 ", raw.recv(4096)[:20])
        self.assertEqual((200, []), daemon.request("GET", "/svc/r/pool"))

    def test_a_missing_tool(self):
        tools = self.sandbox.path("bin")
        os.mkdir(tools)
        for folder in ("/usr/sbin", "/usr/bin", "/sbin", "/bin"):
            for name in os.listdir(folder):
                if name != "mkfs.btrfs" and not os.path.lexists(f"{tools}/{name}"):
                    os.symlink(f"{folder}/{name}", f"{tools}/{name}")
        daemon = self.daemon().start(path=tools)
        pool = self.new_id()
        message = self.ctl(daemon, "pool", "create", "x", "--size", "128M", "--thin", "--id", pool, status=1)
        self.assertIn("mkfs.btrfs", message)
        self.assertIn("not found", message)
        self.assertEqual([], os.listdir(BACKING))
        self.assert_nothing_left()


class Starting(System_Test):
    def refused(self, daemon, part):
        daemon.spawn()
        self.assertEqual(1, daemon.process.wait(30), daemon.log())
        daemon.process = None
        self.assertIn(part, daemon.log())

    def test_a_second_daemon(self):
        first = self.daemon().start()
        self.refused(self.daemon("b", {"socket": first.socket}), "another scsipoold is running")
        self.refused(self.daemon("c", {"data_folder": first.data}), "another scsipoold is running")
        self.assertEqual(200, first.request("GET", "/svc/r/health")[0])

    def test_a_socket_left_by_a_kill(self):
        daemon = self.daemon().start()
        daemon.stop(signal.SIGKILL)
        self.assertTrue(os.path.exists(daemon.socket))
        daemon.start()
        self.assertEqual(0o600, os.stat(daemon.socket).st_mode & 0o777)

    def test_a_data_folder_that_cannot_be_written(self):
        os.mkdir(self.sandbox.path("ro"))
        run("mount", "-t", "tmpfs", "-o", "ro", "scsipool-test", self.sandbox.path("ro"))
        self.addCleanup(run, "umount", self.sandbox.path("ro"))
        self.refused(self.daemon("a", {"data_folder": self.sandbox.path("ro")}), "cannot be written")

    def test_a_damaged_and_a_wrongly_keyed_catalog(self):
        keys = []
        for letter in "ab":
            keys.append(self.sandbox.path("key-" + letter))
            with open(os.open(keys[-1], os.O_CREAT | os.O_WRONLY, 0o600), "w") as file:
                file.write(letter * 64 + "\n")
        daemon = self.daemon("a", {"catalog_key_file": keys[0]}).start()
        daemon.stop()
        path = f"{daemon.data}/scsi_pool_manager.db"
        good = open(path, "rb").read()
        self.assertNotIn(b"SQLite format", good)
        daemon.config["catalog_key_file"] = keys[1]
        self.refused(daemon, "the catalog in")
        daemon.config["catalog_key_file"] = keys[0]
        with open(path, "r+b") as file:
            file.write(b"\0" * 2048)
        self.refused(daemon, "the catalog in")
        open(path, "wb").write(good)
        daemon.start()

    def test_a_module_that_cannot_be_loaded(self):
        self.refused(self.daemon("a", {"module": {"library": "/nowhere/libnone.so"}}), "cannot be loaded")
        with open(self.sandbox.path("svc.conf"), "w") as file:
            file.write("# nothing\n")
        self.refused(self.daemon("b", {"module": {"svc_conf": self.sandbox.path("svc.conf")}}), "cannot be loaded")

    def test_a_given_service_configuration(self):
        daemon = self.daemon()
        entry = "dynamic SCSI_Pool_Manager_Service Service_Object * {}:_make_SCSI_Pool_Manager_Service() \"{}\"\n"
        with open(self.sandbox.path("svc.conf"), "w") as file:
            file.write(entry.format(daemon.config["module"]["library"], "-f btrfs -d " + MOUNTS))
        daemon.config["module"] = {"svc_conf": self.sandbox.path("svc.conf")}
        daemon.start()
        self.assertEqual((200, []), daemon.request("GET", "/svc/r/pool"))
        self.assertEqual(0, daemon.stop())

    def test_over_tcp_the_access_key_is_needed(self):
        import http.client
        import socket
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            port = probe.getsockname()[1]
        key_file = self.sandbox.path("access.key")
        with open(os.open(key_file, os.O_CREAT | os.O_WRONLY, 0o600), "w") as file:
            file.write("0123456789abcdef0123456789abcdef\n")
        self.daemon("a", {"listen": [{"address": "127.0.0.1", "port": port}], "access_key_file": key_file}).start()
        for key, status in ((None, 401), ("0" * 32, 401), ("0123456789abcdef0123456789abcdef", 200)):
            connection = http.client.HTTPConnection("127.0.0.1", port, timeout=20)
            connection.request("GET", "/svc/r/health", headers={} if key is None else {"X-Access-Key": key})
            self.assertEqual(status, connection.getresponse().status, key)
            connection.close()


class Stopping(System_Test):
    def test_a_request_in_flight_is_finished(self):
        tools = self.sandbox.path("bin")
        os.mkdir(tools)
        real = shutil.which("mkfs.btrfs")
        with open(f"{tools}/mkfs.btrfs", "w") as file:
            file.write(f'#!/bin/sh\ntouch {tools}/begun\nsleep 2\nexec {real} "$@"\n')
        os.chmod(f"{tools}/mkfs.btrfs", 0o755)
        daemon = self.daemon().start(path=f"{tools}:{os.environ['PATH']}:/usr/sbin:/sbin")
        body = {"pool_id": self.new_id(), "pool_name": "slow", "total_size": 128 * MIB, "thin_provision": True}
        with concurrent.futures.ThreadPoolExecutor(1) as thread:
            answer = thread.submit(daemon.request, "POST", "/svc/r/pool", body)
            while not os.path.exists(f"{tools}/begun"):
                time.sleep(0.05)
            self.assertEqual(0, daemon.stop(signal.SIGTERM))
            self.assertEqual(200, answer.result()[0], daemon.log())
        daemon.start()
        self.ctl(daemon, "pool", "delete", "slow", "--yes")
        self.assert_nothing_left()


def has_fault_points(build):
    with open(os.path.join(build, "CMakeCache.txt")) as cache:
        return "SCSIPOOL_FAULT_POINTS:BOOL=ON" in cache.read()


class Killed(System_Test):
    """SIGKILL at each named point; afterwards the pool can be made again or deleted, and its neighbour is unharmed."""

    def setUp(self):
        super().setUp()
        from harness import BUILD
        if not has_fault_points(BUILD):
            self.skipTest("this build has no fault points")

    def killed_at(self, daemon, point, *arguments):
        daemon.start({"SCSIPOOL_FAULT": point})
        code, _, err = daemon.ctl(*arguments)
        self.assertEqual(1, code, f"{point}: {err}")
        self.assertEqual(-signal.SIGKILL, daemon.process.wait(20), f"{point} was not reached:\n{daemon.log()}")
        daemon.process = None
        daemon.start()

    def neighbour(self, daemon):
        daemon.start()
        pool = self.new_id()
        self.ctl(daemon, "pool", "create", "neighbour", "--size", "128M", "--thin", "--id", pool)
        open(f"{MOUNTS}/{pool}/file", "w").write("mine")
        daemon.stop()
        return f"{MOUNTS}/{pool}/file"

    def test_in_creation(self):
        daemon = self.daemon()
        file = self.neighbour(daemon)
        for point in ("create_pool.target", "create_pool.file", "create_pool.make", "create_pool.create",
                      "create_pool.mount"):
            with self.subTest(point):
                pool = self.new_id()
                create = ("pool", "create", point, "--size", "128M", "--thin", "--id", pool)
                self.killed_at(daemon, point, *create)
                health = daemon.request("GET", "/svc/r/health")[1]
                if os.path.exists(f"{BACKING}/{pool}"):
                    self.assertEqual([pool], health["orphans"])
                    self.assertIn("--replace-orphan", self.ctl(daemon, *create, status=1))
                    self.ctl(daemon, *create, "--replace-orphan")
                else:
                    self.assertEqual([], health["orphans"])
                    self.ctl(daemon, *create)
                self.assertEqual("mine", open(file).read())
                self.ctl(daemon, "pool", "delete", point, "--yes")
                daemon.stop()
        daemon.start()
        self.ctl(daemon, "pool", "delete", "neighbour", "--yes")
        self.assert_nothing_left()

    def test_an_orphan_can_be_removed_and_nothing_else(self):
        daemon = self.daemon()
        file = self.neighbour(daemon)
        pool = self.new_id()
        self.killed_at(daemon, "create_pool.mount", "pool", "create", "x", "--size", "128M", "--id", pool)
        foreign = self.new_id()
        os.symlink("/etc/passwd", f"{BACKING}/{foreign}")
        open(f"{BACKING}/notes.txt", "w").close()
        self.assertEqual([pool], daemon.request("GET", "/svc/r/health")[1]["orphans"])
        for name in (foreign, "notes.txt", os.path.basename(os.path.dirname(file))):
            self.ctl(daemon, "pool", "delete", name, "--orphan", "--yes", status=1)
        self.ctl(daemon, "pool", "delete", pool, "--orphan", "--yes")
        self.assertTrue(os.path.islink(f"{BACKING}/{foreign}"))
        os.unlink(f"{BACKING}/{foreign}")
        os.unlink(f"{BACKING}/notes.txt")
        self.assertEqual("mine", open(file).read())
        self.ctl(daemon, "pool", "delete", "neighbour", "--yes")
        self.assert_nothing_left()

    def test_in_deletion(self):
        daemon = self.daemon()
        file = self.neighbour(daemon)
        for point in ("delete_pool.luns", "delete_pool.destroy", "delete_pool.backstore"):
            with self.subTest(point):
                pool = self.new_id()
                daemon.start()
                self.ctl(daemon, "pool", "create", point, "--size", "128M", "--thin", "--id", pool)
                daemon.stop()
                self.killed_at(daemon, point, "pool", "delete", pool, "--yes")
                self.assertEqual("mine", open(file).read())
                self.ctl(daemon, "pool", "delete", pool, "--yes", "--force")
                daemon.stop()
        daemon.start()
        self.ctl(daemon, "pool", "delete", "neighbour", "--yes")
        self.assert_nothing_left()


if __name__ == "__main__":
    unittest.main()
