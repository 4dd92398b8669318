"""LUNs and sub filesystems of a ZFS pool arrive in the ZFS pool of another daemon."""

import http.client
import os
import tempfile
import unittest

from harness import LISTED, MIB, OTHER, Daemon, Daemon_Case, Initiator, run, wait_for

KEY = "a-key-that-both-share"


def content(volume):
    """The checksum of a volume. Past the page cache, which does not see what an initiator writes."""
    run("udevadm", "settle")
    return run("bash", "-o", "pipefail", "-ec", f"dd if=/dev/zvol/{volume} bs=1M iflag=direct | sha256sum").stdout


def content_of_snapshot(volume, snapshot):
    clone = f"{volume.split('/')[0]}/look"
    run("zfs", "clone", f"{volume}@{snapshot}", clone)
    wait_for("device", lambda: run("test", "-b", f"/dev/zvol/{clone}", check=False).returncode == 0)
    found = content(clone)
    wait_for("end of the clone", lambda: run("zfs", "destroy", clone, check=False).returncode == 0)
    return found


class Replication(Daemon_Case):
    filesystem = "zfs"
    tls = {}

    def setUp(self):
        with tempfile.NamedTemporaryFile("w", delete=False) as key:
            key.write(KEY + "\n")
        self.options = {"listen": [{"address": "127.0.0.1", "port": 7801}], "access_key_file": key.name, **self.tls}
        super().setUp()
        self.there = Daemon("zfs", **{**self.options, "listen": [{"address": "127.0.0.1", "port": 7802}]})
        self.addCleanup(self.there.remove)
        self.there.start()
        self.pool, self.target = self.create_pool("here")
        self.other = self.there.ok("pool", "create", "there", "--size", "1G", "--fs", "zfs", "--thin")["pool_id"]
        self.addCleanup(self.there.ok, "pool", "delete", self.other, "--force", "--yes")
        scheme = "https" if self.tls else "http"
        self.daemon.ok("peer", "add", self.other, f"{scheme}://127.0.0.1:7802/", "--name", "there")
        self.daemon.ok("replication", "set", self.pool, "--to", self.other)

    def replicate(self, *words):
        """Takes a snapshot of the dataset and waits until it is sent. Returns its id and how much was sent."""
        snapshot = self.daemon.ok(*words)[0]["id"]

        def ended():
            job = max(self.daemon.ok("job", "list", self.pool), key=lambda one: one["job_id"])
            return job["state"] not in ("pending", "running") and job

        job = wait_for("end of the job", ended, 180)
        self.assertEqual("succeeded", job["state"], self.daemon.log_tail() + self.there.log_tail())
        return snapshot, job["data_size"]

    def replicate_lun(self, lun, offset, length):
        """The same of a LUN whose client has written, with the checksum of its volume."""
        with Initiator(LISTED, self.target) as client:
            client.write(0, offset * MIB, length * MIB, seed=length)
        snapshot, size = self.replicate("snapshot", "create", self.pool, lun)
        return snapshot, size, content(f"{self.pool}/{lun}")

    def snapshots(self, daemon, pool, dataset, *kind):
        return [one["id"] for one in daemon.ok(*kind, "snapshot", "list", pool, dataset)]


class Plain(Replication):
    def test_a_lun_in_full_and_in_increments(self):
        lun = self.daemon.create_lun(self.pool, "--export", "--acl", LISTED)
        copy, sent = f"{self.other}/{lun}", {}
        for offset, length, low, high in ((0, 16, 16, 24), (20, 4, 4, 8)):
            snapshot, size, wanted = self.replicate_lun(lun, offset, length)
            self.assertTrue(low * MIB <= size < high * MIB, size)
            self.assertEqual(wanted, content(copy))
            sent[snapshot] = wanted
        self.assertEqual(2, len(set(sent.values())))
        self.assertEqual(list(sent), self.snapshots(self.there, self.other, lun))
        for snapshot, wanted in sent.items():
            self.assertEqual(wanted, content_of_snapshot(copy, snapshot))

        # One that was taken over there is replaced by the next stream; its record goes, with an event.
        own = self.there.ok("snapshot", "create", self.other, lun)[0]["id"]
        snapshot, _, wanted = self.replicate_lun(lun, 30, 2)
        sent[snapshot] = wanted
        self.assertEqual((list(sent), wanted), (self.snapshots(self.there, self.other, lun), content(copy)))
        replaced = [event for event in self.there.ok("event", "list") if "snapshot_replaced" in str(event)]
        self.assertEqual([True], [own in str(event) for event in replaced])

        # No stream into a LUN that somebody uses.
        self.there.ok("lun", "export", self.other, lun, "--acl", OTHER, "--type", "iscsi", "--target", self.target + "-copy")
        peer = http.client.HTTPConnection("127.0.0.1", 7802)
        peer.request("POST", f"/svc/scsipool/receive/{self.other}/1/{lun}/{own}/recycle/9", b"x" * MIB, {"X-Access-Key": KEY})
        answer = peer.getresponse()
        self.assertEqual((409, True), (answer.status, b"is exported" in answer.read()))
        self.assertEqual((list(sent), wanted), (self.snapshots(self.there, self.other, lun), content(copy)))
        self.there.ok("lun", "unexport", self.other, lun)


class Over_Tls(Replication):
    def setUp(self):
        folder = tempfile.mkdtemp()
        run("openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-days", "9",
            "-subj", "/CN=here", "-addext", "subjectAltName=IP:127.0.0.1", "-keyout", f"{folder}/key", "-out", f"{folder}/pem")
        self.tls = {"tls": {"certificate": f"{folder}/pem", "key": f"{folder}/key", "ca": f"{folder}/pem"}}
        super().setUp()

    def files(self, daemon, pool, name):
        """The checksums of the files in a mounted sub filesystem, by name."""
        (folder,) = [one["mountpoint"] for one in daemon.ok("fs", "list", pool) if one["name"] == name]
        self.assertTrue(os.path.ismount(folder))
        return run("sh", "-c", f"cd '{folder}' && sha256sum *").stdout, folder

    def test_luns_and_sub_filesystems(self):
        lun = self.daemon.create_lun(self.pool, "--export", "--acl", LISTED)
        self.daemon.ok("fs", "create", self.pool, "docs")
        self.daemon.ok("fs", "mount", self.pool, "docs")
        folder = self.daemon.ok("fs", "list", self.pool)[0]["mountpoint"]
        sent = []
        for number, low, high in ((8, 8, 12), (2, 2, 4)):
            _, _, wanted = self.replicate_lun(lun, number * 4, number)
            self.assertEqual(wanted, content(f"{self.other}/{lun}"))
            with open(f"{folder}/file{number}", "wb") as file:
                file.write(os.urandom(number * MIB))
            snapshot, size = self.replicate("fs", "snapshot", "create", self.pool, "docs")
            self.assertTrue(low * MIB <= size < high * MIB, size)
            sent.append(snapshot)
            self.there.ok("fs", "mount", self.other, "docs")
            self.assertEqual(self.files(self.daemon, self.pool, "docs")[0], self.files(self.there, self.other, "docs")[0])
        self.assertEqual(sent, self.snapshots(self.there, self.other, "docs", "fs"))


if __name__ == "__main__":
    unittest.main()
