"""Deletion and recycle flag on a replicating pool: mirrored to the peer, and what happens when the peer does not do it."""
import concurrent.futures
import unittest

from harness import System_Test, run
from scripted_peer import Scripted_Peer, good_pool, http
import two_hosts

SNAPSHOTS = "/svc/r/scsipool/snapshot"


class Peer_Case(System_Test):
    KEY = "a-key-that-both-hosts-share"

    def host(self, name, **config):
        host = two_hosts.Host(self.sandbox, name, self.KEY)
        host.config.update(config)
        self.daemons.append(host)
        return host

    def make_pool(self, host, name):
        pool = self.new_id()
        self.ctl(host, "pool", "create", name, "--size", "300M", "--thin", "--id", pool)
        return pool

    def tearDown(self):
        for host in self.daemons:
            if host.process is not None:
                self.assertEqual(0, host.stop(), host.log())

    def marks(self, host, pool):
        """The ids of the pool's snapshots with their recycle flags."""
        status, rows = host.request("GET", f"{SNAPSHOTS}?pool_id={pool}")
        self.assertEqual(200, status, rows)
        return {row["id"]: row["recycle"] for row in rows}

    def refused(self, host, *words, told):
        """The command fails, and its message says all of `told`."""
        code, out, err = host.ctl(*words)
        self.assertEqual(1, code, (words, out, err))
        for text in told:
            self.assertIn(text, out + err, words)


class Two_Hosts(Peer_Case):
    def certificate(self, name):
        paths = [self.sandbox.path(f"tls-{name}{kind}") for kind in (".crt", ".key")]
        run("openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-subj", "/CN=test",
            "-days", "2", "-addext", "subjectAltName=IP:127.0.0.1", "-out", paths[0], "-keyout", paths[1])
        return dict(zip(("certificate", "key"), paths))

    def setUp(self):
        super().setUp()
        tls = self.certificate("b")
        self.a, self.b = self.host("a", tls={"ca": tls["certificate"]}).start(), self.host("b", tls=tls).start()
        self.here, self.there = self.make_pool(self.a, "here"), self.make_pool(self.b, "there")
        self.peer = f"127.0.0.1:{self.b.port}"
        self.ctl(self.a, "peer", "add", self.there, f"https://{self.peer}", "--name", "there")
        self.ctl(self.a, "replication", "set", self.here, "--to", self.there)
        self.lun = self.new_id()
        self.ctl(self.a, "lun", "create", self.here, "--size", "16M", "--id", self.lun)

    def replicated(self):
        self.ctl(self.a, "snapshot", "create", self.here, self.lun)
        job = self.a.request("GET", f"/svc/r/scsipool/job?pool_id={self.here}")[1]
        self.ctl(self.a, "job", "watch", str(max(one["job_id"] for one in job)))

    def test_mirrored_and_refused_without_loss(self):
        self.replicated()
        self.replicated()
        first, second = self.marks(self.a, self.here)
        self.ctl(self.a, "snapshot", "recycle", self.here, first, "off")
        self.ctl(self.a, "snapshot", "delete", self.here, second, "--yes")
        self.assertEqual([{first: False}] * 2, [self.marks(self.a, self.here), self.marks(self.b, self.there)])

        def nothing_is_done(*told, deletion=()):
            for words in (("snapshot", "recycle", self.here, first, "on"), ("snapshot", "delete", self.here, first, "--yes"),
                          ("lun", "delete", self.here, self.lun, "--yes")):
                self.refused(self.a, *words, told=deletion if deletion and words[1] == "delete" else told)
            self.assertEqual({first: False}, self.marks(self.a, self.here))
            self.refused(self.a, "peer", "check", self.there, told=told[1:])

        with self.subTest("the peer is away"):
            self.assertEqual(0, self.b.stop())
            nothing_is_done(self.peer, "Connection refused")
        with self.subTest("its certificate is not trusted"):
            good = self.b.config["tls"]
            self.b.config["tls"] = self.certificate("other")
            self.b.start()
            nothing_is_done(self.peer, "certificate was refused: self-signed certificate")
            self.assertEqual(0, self.b.stop())
            self.b.config["tls"] = good
        with self.subTest("its key is another"):
            self.b.use_key("another-key-of-nobody-else")
            self.b.start()
            nothing_is_done(self.peer, "access key", deletion=(self.peer, "refuses this host's access key"))
            self.assertEqual({first: False}, self.marks(self.b, self.there))
            self.assertEqual(0, self.b.stop())
            self.b.use_key(self.KEY)
        with self.subTest("its address says http"):
            self.b.start()
            self.ctl(self.a, "peer", "add", self.there, f"http://{self.peer}/", "--name", "there")
            self.refused(self.a, "peer", "check", self.there, told=["a host with TLS has an address that begins with https:"])
            self.ctl(self.a, "peer", "add", self.there, f"https://{self.peer}/", "--name", "there")
        self.ctl(self.a, "lun", "delete", self.here, self.lun, "--yes")
        self.assertEqual([{}] * 2, [self.marks(self.a, self.here), self.marks(self.b, self.there)])


class Bad_Answers(Peer_Case):
    def setUp(self):
        super().setUp()
        self.a = self.host("a").start()
        self.pool, self.there = self.make_pool(self.a, "here"), self.new_id()
        lun = ("lun", "create", self.pool, "--size", "16M", "--id")
        self.lun, self.newest = self.new_id(), self.new_id()
        self.ctl(self.a, *lun, self.lun)
        self.ctl(self.a, *lun, self.newest, "--retention-type", "newest")
        for lun in (self.lun, self.lun, self.newest):
            self.ctl(self.a, "snapshot", "create", self.pool, lun)

    def serve(self, answer):
        peer = Scripted_Peer(answer)
        self.addCleanup(peer.close)
        self.ctl(self.a, "peer", "add", self.there, f"http://127.0.0.1:{peer.port}/", "--name", "there")
        self.ctl(self.a, "replication", "set", self.pool, "--to", self.there)
        return peer

    def test_each_is_told_and_nothing_is_lost(self):
        marks = self.marks(self.a, self.pool)
        first, second, _ = marks
        commands = (("snapshot", "delete", self.pool, first, "--yes"), ("snapshot", "recycle", self.pool, second, "off"),
                    ("retention", "explain", self.pool, self.newest))
        # A cut answer is asked for again, five times: those commands run at once, for half a minute.
        cut = http('[{"fs_type', length=400)
        for name, answer, told in (("not JSON", http("<html>"), "the answer is not JSON"),
                                   ("cut", cut, "the answer was cut"),
                                   ("no HTTP", b"SSH-2.0-nonsense\r\n\r\n", "malformed answer"),
                                   ("no end", b"HTTP/1.1 200 OK\r\n\r\n[]", "no marked end")):
            with self.subTest(name):
                peer = self.serve(lambda line, answer=answer: good_pool(line) or answer)
                with concurrent.futures.ThreadPoolExecutor(3) as pool:
                    list(pool.map(lambda words: self.refused(self.a, *words, told=[told, f"127.0.0.1:{peer.port}"]), commands))
                self.assertEqual(marks, self.marks(self.a, self.pool))
                self.assertEqual([], [line for line in peer.requests if line.startswith("DELETE")])
                self.assertEqual(18 if name == "cut" else 3, len([line for line in peer.requests if "snapshot" in line]))
                peer.answer = lambda line, answer=answer: answer
                self.refused(self.a, "peer", "check", self.there,
                             told=["the answer is no record of a pool" if name == "not JSON" else told])

    def test_a_deletion_that_the_peer_does_not_confirm(self):
        first = next(iter(self.marks(self.a, self.pool)))
        marks = self.marks(self.a, self.pool)
        refusal = http('{"error": {"message": "the disk is on fire"}}', "500 Internal Server Error")
        peer = self.serve(lambda line: good_pool(line) or (refusal if line.startswith("DELETE") else http("[]")))
        self.refused(self.a, "snapshot", "delete", self.pool, first, "--yes",
                     told=[f"127.0.0.1:{peer.port}", "the disk is on fire", "delete target pool snapshot error"])
        self.assertEqual(marks, self.marks(self.a, self.pool))
        # What the peer does not have is deleted here alone.
        absent = http('{"error": {"message": "there is no such snapshot"}}', "404 Not Found")
        peer.answer = lambda line: good_pool(line) or absent
        self.ctl(self.a, "snapshot", "delete", self.pool, first, "--yes")
        self.assertEqual(len(marks) - 1, len(self.marks(self.a, self.pool)))


if __name__ == "__main__":
    unittest.main()
