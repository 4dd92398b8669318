"""Two daemons, each with its own /orbistor: LUN snapshots of one are replicated to the pool of the other."""
import contextlib
import glob
import hashlib
import json
import os
import shutil
import signal
import socket
import sqlite3
import subprocess
import time

from harness import BACKING, BUILD, MOUNTS, Daemon, System_Test, loops_of

MIB = 1 << 20
SNAPSHOTS = "/svc/r/scsipool/snapshot"


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def sha(path):
    with open(path, "rb") as file:
        return hashlib.file_digest(file, "sha256").hexdigest()


class Host(Daemon):
    """A daemon in a mount namespace of its own, which ends with it as if the host had lost its power."""

    def __init__(self, sandbox, name, key):
        self.port = free_port()
        self.key_file = sandbox.path(name + ".key")
        self.use_key(key)
        super().__init__(sandbox, name, {"listen": [{"address": "127.0.0.1", "port": self.port}],
                                         "access_key_file": self.key_file})
        self.orbistor, self.etc = sandbox.path(name + "-orbistor"), sandbox.path(name + "-etc")
        os.mkdir(self.orbistor)
        shutil.copytree("/etc", self.etc, symlinks=True)

    def use_key(self, key):
        with open(self.key_file, "w", opener=lambda path, flags: os.open(path, flags, 0o600)) as file:
            file.write(key + "\n")

    def spawn(self, environment=None, path=None):
        with open(self.config_path, "w") as file:
            json.dump(self.config, file)
        script = ('for one in $(awk \'$2 ~ "^/orbistor/" {print $2}\' /proc/self/mounts | sort -r); do umount "$one"; done;'
                  f"mount --bind {self.orbistor} /orbistor && mount --bind {self.etc} /etc && "
                  f"exec {os.path.join(BUILD, 'daemon/scsipoold')} --config {self.config_path}")
        with open(self.log_path, "ab") as log:
            self.process = subprocess.Popen(["unshare", "-m", "sh", "-c", script], stdin=subprocess.DEVNULL, stdout=log,
                                            stderr=log, env={**os.environ, **(environment or {})})
        return self

    def image(self, pool, dataset):
        """The LUN image inside a LUN or snapshot, seen from here."""
        return f"/proc/{self.process.pid}/root{MOUNTS}/{pool}/{dataset}/lun_backstore"

    def backing(self, pool):
        return f"{self.orbistor}{BACKING[len('/orbistor'):]}/{pool}"

    def children(self):
        """The daemon's children, each as its number and the words of its command."""
        found = []
        for path in glob.glob("/proc/[0-9]*/stat"):
            folder = os.path.dirname(path)
            try:
                with open(path) as stat, open(folder + "/cmdline") as command:
                    parent = int(stat.read().rsplit(")", 1)[1].split()[1])
                    words = command.read().split("\0")
            except (OSError, IndexError):
                continue
            if parent == self.process.pid:
                found.append((int(os.path.basename(folder)), words))
        return found

    def pipes(self):
        """How many ends of pipes the daemon holds: a tool that was not let go of shows here."""
        return sum(os.readlink(one.path).startswith("pipe:") for one in os.scandir(f"/proc/{self.process.pid}/fd"))

    def kill_tool(self, word):
        """SIGKILL to the daemon's child that runs `btrfs <word>`; false without one."""
        for number, words in self.children():
            if words[:2] == ["btrfs", word]:
                with contextlib.suppress(ProcessLookupError):
                    os.kill(number, signal.SIGKILL)
                    return True
        return False

    def lost(self):
        """SIGKILL. Returns when mounts and loop devices have gone with the namespace: mounted a second time meanwhile,
        the pool would be read as it was before its last writes."""
        self.process.kill()
        self.ended()

    def ended(self, seconds=30):
        self.process.wait(seconds)
        self.process = None
        end = time.monotonic() + seconds
        while loops_of([self.pool]):
            if time.monotonic() > end:
                raise AssertionError(f"still mounted: {loops_of([self.pool])}")
            time.sleep(0.02)


class Two_Hosts(System_Test):
    KEY = "a-key-that-both-hosts-share"

    def setUp(self):
        super().setUp()
        self.a, self.b = self.host("a"), self.host("b")
        self.pools = {self.a: self.new_id(), self.b: self.new_id()}
        for host, pool in self.pools.items():
            host.pool = pool
            self.ctl(host.start(), "pool", "create", "pool-" + host.name, "--size", "400M", "--thin", "--id", pool,
                     "--retention", "3")
        self.here, self.there = self.pools[self.a], self.pools[self.b]
        self.lun = self.make_lun()
        self.ctl(self.a, "peer", "add", self.there, self.way_to_b(), "--name", "there")
        self.ctl(self.a, "replication", "set", self.here, "--to", self.there)

    def way_to_b(self):
        return f"http://127.0.0.1:{self.b.port}/"

    def host(self, name):
        host = Host(self.sandbox, name, self.KEY)
        host.name = name
        self.daemons.append(host)
        return host

    def tearDown(self):
        for host in (self.a, self.b):
            if host.process is not None:
                self.assertEqual(0, host.stop(), host.log())
        end = time.monotonic() + 10
        while loops_of(self.ids) and time.monotonic() < end:
            time.sleep(0.1)
        self.assertEqual([], loops_of(self.ids))

    def make_lun(self, *options, filled=24 * MIB):
        lun = self.new_id()
        self.ctl(self.a, "lun", "create", self.here, "--size", "64M", "--id", lun, *options)
        with open(self.a.image(self.here, lun), "wb") as image:
            image.write(os.urandom(filled))
            image.truncate(64 * MIB)
        return lun

    def change(self, at, size, lun=None):
        with open(self.a.image(self.here, lun or self.lun), "r+b") as image:
            image.seek(at)
            image.write(os.urandom(size))

    def snapshot(self, lun=None):
        body = {"pool_id": self.here, "lun_id": lun or self.lun}
        status, answer = self.a.request("POST", SNAPSHOTS, body)
        self.assertEqual(200, status, answer)
        return answer[0]["id"]

    def jobs(self):
        status, jobs = self.a.request("GET", f"/svc/r/scsipool/job?pool_id={self.here}")
        self.assertEqual(200, status, jobs)
        return sorted(jobs, key=lambda job: job["job_id"])

    def ended(self, state="succeeded", seconds=90):
        """The newest job, once it has ended."""
        end = time.monotonic() + seconds
        while (job := self.jobs()[-1])["state"] in ("pending", "running"):
            self.assertLess(time.monotonic(), end, f"{job}\n{self.a.log()[-6000:]}")
            time.sleep(0.1)
        self.assertEqual(state, job["state"], f"{job}\n{self.a.log()[-6000:]}\n{self.b.log()[-6000:]}")
        return job

    def repeated(self, seconds=90):
        """The newest job, which the queue runs again by itself after a restart, once it has succeeded."""
        end = time.monotonic() + seconds
        while self.jobs()[-1]["state"] != "succeeded":
            self.assertLess(time.monotonic(), end, f"{self.jobs()[-1]}\n{self.a.log()[-6000:]}")
            time.sleep(0.1)

    def wait_for(self, condition, seconds=60):
        end = time.monotonic() + seconds
        while not condition():
            self.assertLess(time.monotonic(), end, f"{self.a.log()[-6000:]}\n{self.b.log()[-6000:]}")
            time.sleep(0.05)

    def listed(self, host, lun=None):
        pool = self.pools[host]
        status, rows = host.request("GET", f"{SNAPSHOTS}?pool_id={pool}" + (f"&lun_id={lun}" if lun else ""))
        self.assertEqual(200, status, rows)
        return [(row["id"], row["seq"], row["recycle"]) for row in rows]

    def rows(self, host, statement, name="scsi_pool_manager"):
        """Rows of a host's database, by default its catalog: what is recorded, listed or not."""
        with contextlib.closing(sqlite3.connect(f"file:{host.data}/{name}.db?mode=ro", uri=True)) as database:
            return database.execute(statement).fetchall()

    def assert_consistent(self):
        """Nothing runs; catalogs, storages and the two sides agree, and nothing is there that belongs to no one."""
        self.wait_for(lambda: self.rows(self.a, "SELECT * FROM queue_message", "scsipoold") == [])
        states = {}
        for host, pool in self.pools.items():
            recorded = self.rows(host, "SELECT hex(uuid), state, standby, seq, recycle FROM snapshot")
            volumes = self.rows(host, "SELECT hex(uuid) FROM volume")
            stored = os.listdir(f"/proc/{host.process.pid}/root{MOUNTS}/{pool}")
            self.assertEqual(sorted(row[0] for row in recorded + volumes),
                             sorted(name.replace("-", "").upper() for name in stored), host.name)
            self.assertEqual([], [row for row in recorded if row[1:3] != ("idle", 0)], host.name)
            self.assertEqual([], host.children(), host.name)
            states[host] = {row[0]: row[3:] for row in recorded}
        for snapshot, row in states[self.b].items():
            self.assertEqual(states[self.a].get(snapshot), row, snapshot)
        for snapshot, _, _ in self.listed(self.b):
            self.assertEqual(sha(self.a.image(self.here, snapshot)), sha(self.b.image(self.there, snapshot)))
        self.assertEqual([], [job for job in self.jobs() if job["state"] in ("pending", "running")])

    def assert_same(self, snapshot, lun=None):
        wanted = sha(self.a.image(self.here, snapshot))
        self.assertEqual(wanted, sha(self.b.image(self.there, snapshot)))
        self.assertEqual(wanted, sha(self.b.image(self.there, lun or self.lun)), "the LUN was not rolled to it")

    def start_slow_transfer(self):
        self.ctl(self.a, "replication", "set", self.here, "--to", self.there, "--limit", "00:00-24:00=4MiB")
        taken = self.snapshot()
        end = time.monotonic() + 30
        while not os.path.exists(self.b.image(self.there, taken)):
            self.assertLess(time.monotonic(), end, self.a.log()[-6000:])
            time.sleep(0.05)
        time.sleep(1)
        self.assertEqual("running", self.jobs()[-1]["state"])
        return taken

    def assert_no_trace(self, taken):
        end = time.monotonic() + 30
        while os.path.exists(os.path.dirname(self.b.image(self.there, taken))):
            self.assertLess(time.monotonic(), end, self.b.log()[-6000:])
            time.sleep(0.1)
        self.assertEqual([], self.listed(self.b))
