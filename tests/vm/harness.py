"""What the tests of the virtual machine share: the daemon, the command line, initiators, the kernel target.

Everything here works on the machine that it runs on, as root: it is for the guest alone.
"""

import contextlib
import glob
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest
import uuid

sys.path.append(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
from unix_http import Unix_Connection  # noqa: E402

BUILD = os.environ.get("SCSIPOOL_BUILD", "")
REPOSITORY = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
TARGET_ROOT = "/sys/kernel/config/target"
PORTAL = "127.0.0.1:3260"
MIB = 1024 * 1024
GIB = 1024 * MIB
LISTED = "iqn.2026-11.org.example:listed"
OTHER = "iqn.2026-11.org.example:other"


def run(*command, check=True, timeout=120, **options):
    """Runs a tool; with check, a failure raises with what the tool said."""
    done = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True, errors="replace",
                          timeout=timeout, check=False, **options)
    if check and done.returncode != 0:
        raise AssertionError(f"{' '.join(command)} ended with {done.returncode}: {done.stdout}{done.stderr}")
    return done


def wait_for(what, condition, seconds=30):
    """Waits until the condition is true and returns its value."""
    end = time.monotonic() + seconds
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise AssertionError(f"no {what} after {seconds} s")
        time.sleep(0.1)


def new_target(name):
    return f"iqn.2026-11.org.example:{name}-{uuid.uuid4().hex[:8]}"


# ---- the daemon and its command line


class Daemon:
    """One scsipoold with its data in a folder of its own; options are further members of its configuration."""

    def __init__(self, filesystem="btrfs", **options):
        self.folder = tempfile.mkdtemp(prefix="scsipoold-")
        self.socket = f"{self.folder}/scsipoold.sock"
        self.log = f"{self.folder}/log"
        self.process = None
        with open(f"{self.folder}/scsipoold.json", "w", encoding="utf-8") as file:
            json.dump({**self.configuration(filesystem), **options}, file)

    def configuration(self, filesystem):
        return {
            "socket": self.socket,
            "data_folder": f"{self.folder}/data",
            "module": {
                "library": f"{BUILD}/backup/pools/scsipool/libscsipool.so",
                "filesystem": filesystem,
                "mount_point": "/orbistor/scsipool",
            },
            "lio": {"lock_file": f"{self.folder}/lio.lock"},
            "log_level": "debug",
        }

    def start(self, fault=None):
        """Starts it and waits until it answers. With a fault point it may die at any time after."""
        environment = {**os.environ}
        environment.pop("SCSIPOOL_FAULT", None)
        if fault:
            environment["SCSIPOOL_FAULT"] = fault
        with open(self.log, "ab") as log:
            self.process = subprocess.Popen([f"{BUILD}/daemon/scsipoold", "--config", f"{self.folder}/scsipoold.json"],
                                            stdin=subprocess.DEVNULL, stdout=log, stderr=log, env=environment)
        try:
            wait_for("answer of scsipoold", self.answers, 60)
        except AssertionError as error:
            raise AssertionError(f"{error}; its log ends:\n{self.log_tail()}") from None
        return self

    def answers(self):
        if self.process.poll() is not None:
            raise AssertionError(f"scsipoold ended with {self.process.returncode}")
        return self.ctl("pool", "list").returncode == 0

    def stop(self):
        """SIGTERM, and the exit status."""
        if self.process and self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
            self.process.wait(60)
        return self.process.returncode if self.process else 0

    def killed(self):
        """Whether it has died of SIGKILL, after a moment's wait."""
        with contextlib.suppress(subprocess.TimeoutExpired):
            return self.process.wait(10) == -signal.SIGKILL
        return False

    def remove(self):
        self.stop()
        shutil.rmtree(self.folder, ignore_errors=True)

    def log_tail(self, lines=40):
        with open(self.log, encoding="utf-8", errors="replace") as log:
            return "".join(log.readlines()[-lines:])

    def ctl(self, *arguments, timeout=300):
        """Runs scsipoolctl and returns the finished process."""
        return run(f"{BUILD}/ctl/scsipoolctl", "--socket", self.socket, "--json", *arguments, check=False,
                   timeout=timeout)

    def ok(self, *arguments, timeout=300):
        """Runs scsipoolctl, which must succeed, and returns its JSON answer."""
        done = self.ctl(*arguments, timeout=timeout)
        if done.returncode != 0:
            raise AssertionError(f"scsipoolctl {' '.join(arguments)} ended with {done.returncode}: "
                                 f"{done.stdout}{done.stderr}\n{self.log_tail()}")
        return json.loads(done.stdout) if done.stdout.strip() else None

    def refused(self, *arguments):
        """Runs scsipoolctl, which must be refused (exit status 1), and returns its message."""
        done = self.ctl(*arguments)
        if done.returncode != 1:
            raise AssertionError(f"scsipoolctl {' '.join(arguments)} ended with {done.returncode}, not 1: "
                                 f"{done.stdout}{done.stderr}")
        return done.stderr + done.stdout

    def rest(self, method, path, body=None, timeout=600):
        """One request without the command line, whose start costs more than most requests: its JSON answer."""
        connection = Unix_Connection(self.socket, timeout)
        with contextlib.closing(connection):
            connection.request(method, f"/svc/r/scsipool/{path}", json.dumps(body) if body else None,
                               {"Content-Type": "application/json"})
            answer = connection.getresponse()
            text = answer.read().decode()
        if answer.status != 200:
            raise AssertionError(f"{method} {path} answered {answer.status}: {text}\n{self.log_tail()}")
        return json.loads(text)

    # LUNs of one pool, the words that most tests need

    def create_lun(self, pool, *options, size="64M"):
        return self.ok("lun", "create", pool, "--size", size, *options)["lun_id"]

    def lun(self, pool, lun_id):
        found = [one for one in self.ok("lun", "list", pool) if one["lun_id"] == lun_id]
        if len(found) != 1:
            raise AssertionError(f"LUN {lun_id} is listed {len(found)} times")
        return found[0]

    def differences(self):
        """What export check finds different between the catalog, the saved record and the kernel."""
        done = self.ctl("export", "check")
        check = json.loads(done.stdout)
        found = [one for one in check["exports"] if one["difference"]] + check["findings"]
        if check["ok"] == bool(found) or done.returncode != bool(found):
            raise AssertionError(f"export check ended with {done.returncode}: {done.stdout}{done.stderr}")
        return found


class Daemon_Case(unittest.TestCase):
    """A test with one daemon. What it leaves in the kernel, in mounts and in processes is a failure."""

    filesystem = "btrfs"
    options = {}

    def setUp(self):
        self.before = leftovers()
        self.daemon = Daemon(self.filesystem, **self.options)
        self.addCleanup(self.clean)
        self.daemon.start()

    def clean(self):
        self.daemon.remove()
        self.assertEqual({}, left_since(self.before), "the test left something behind")

    def create_pool(self, name, *options, size="1G"):
        """A pool that is deleted, with all in it, at the end of the test. Returns its id."""
        target = new_target(name)
        answer = self.daemon.ok("pool", "create", name, "--size", size, "--fs", self.filesystem, "--thin",
                                "--lun-type", "iscsi", "--target", target, *options)
        self.addCleanup(self.delete_pool, answer["pool_id"])
        return answer["pool_id"], target

    def delete_pool(self, pool_id):
        if any(pool["pool_id"] == pool_id for pool in self.daemon.ok("pool", "list")):
            self.daemon.ok("pool", "delete", pool_id, "--force", "--yes")

    def reboot(self):
        """Stops the daemon, forgets what a reboot forgets, mounts what /etc/fstab names, and starts it again."""
        self.daemon.stop()
        clear_target()
        for pool in zpools():
            run("zpool", "export", pool)
        mounted = pool_mounts()
        for path in mounted:
            run("umount", path)
        for path in reversed(mounted):
            run("mount", path)
        self.daemon.start()


# ---- initiators


class Initiator:
    """A session of an initiator; use it in a with statement."""

    def __init__(self, name, target, portal=PORTAL):
        self.process = subprocess.Popen([f"{BUILD}/tests/iscsi_io", name, portal, target], text=True,
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.login = self.process.stdout.readline().strip()
        self.logged_in = self.login == "ok"

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.stdin.close()
        self.process.stdout.close()
        self.process.wait(30)

    def ask(self, *words):
        """Sends a command; returns its answer or raises with why it failed."""
        if not self.logged_in:
            raise AssertionError(f"not logged in: {self.login}")
        print(*words, file=self.process.stdin, flush=True)
        verdict, _, text = self.process.stdout.readline().strip().partition(" ")
        if verdict != "ok":
            raise OSError(text or "the initiator ended")
        return text

    def luns(self):
        return [int(word) for word in self.ask("luns").split()]

    def size(self, lun):
        """Bytes and block size."""
        blocks, block_size = map(int, self.ask("size", lun).split())
        return blocks * block_size, block_size

    def serial(self, lun):
        return self.ask("serial", lun)

    def write(self, lun, offset, length, seed):
        return self.ask("write", lun, offset, length, seed)

    def read(self, lun, offset, length):
        return self.ask("read", lun, offset, length)

    def trim(self, lun, offset, length):
        return self.ask("trim", lun, offset, length)

    def reserves(self, lun):
        """Whether the LUN is reserved for this session now; another session's reservation refuses it."""
        try:
            self.ask("reserve", lun)
        except OSError as refusal:
            if "status 24 " not in str(refusal):
                raise
            return False
        return True


def can_login(name, target):
    with Initiator(name, target) as session:
        return session.logged_in


# ---- the kernel target and what a test can leave behind


def children(path):
    """The names of the folders and links in a configfs folder; attributes are files and do not count."""
    try:
        return sorted(entry.name for entry in os.scandir(path) if entry.is_dir())
    except FileNotFoundError:
        return []


def targets():
    """The iSCSI targets in the kernel."""
    return [name for name in children(f"{TARGET_ROOT}/iscsi") if os.path.isdir(f"{TARGET_ROOT}/iscsi/{name}/tpgt_1")
            or os.path.isdir(f"{TARGET_ROOT}/iscsi/{name}/fabric_statistics")]


def backstores():
    return [f"{hba}/{name}" for hba in children(f"{TARGET_ROOT}/core") if hba != "alua"
            for name in children(f"{TARGET_ROOT}/core/{hba}")]


def attribute(path):
    with open(f"{TARGET_ROOT}/{path}", encoding="utf-8", errors="replace") as file:
        return file.read().strip()


def acls(target):
    return children(f"{TARGET_ROOT}/iscsi/{target}/tpgt_1/acls")


def demo_mode(target):
    return attribute(f"iscsi/{target}/tpgt_1/attrib/generate_node_acls") == "1"


def remove_folder_with_links(path):
    """A LUN or a mapped LUN: its links, then itself."""
    for entry in os.scandir(path):
        if entry.is_symlink():
            os.unlink(entry.path)
    os.rmdir(path)


def remove_group(group):
    for acl in children(f"{group}/acls"):
        for lun in glob.glob(f"{group}/acls/{acl}/lun_*"):
            remove_folder_with_links(lun)
        os.rmdir(f"{group}/acls/{acl}")
    for lun in glob.glob(f"{group}/lun/lun_*"):
        remove_folder_with_links(lun)
    for portal in children(f"{group}/np"):
        os.rmdir(f"{group}/np/{portal}")
    os.rmdir(group)


def clear_target():
    """Empties the kernel target, as a reboot does."""
    for fabric in ("iscsi", "loopback"):
        for group in glob.glob(f"{TARGET_ROOT}/{fabric}/*/tpgt_*"):
            remove_group(group)
    for target in targets():
        os.rmdir(f"{TARGET_ROOT}/iscsi/{target}")
    for target in glob.glob(f"{TARGET_ROOT}/loopback/naa.*"):
        os.rmdir(target)
    for backstore in backstores():
        os.rmdir(f"{TARGET_ROOT}/core/{backstore}")


def mounts():
    with open("/proc/mounts", encoding="utf-8") as file:
        return [line.split()[1] for line in file]


def pool_mounts():
    """The mount points of pools and in pools, the innermost first."""
    return sorted((path for path in mounts() if path.startswith("/orbistor/")), key=len, reverse=True)


def zpools():
    return run("zpool", "list", "-H", "-o", "name").stdout.split()


def clear_pools():
    """Takes away what a failed test left, so that it does not fail the next one."""
    for path in pool_mounts():
        run("umount", "-l", path, check=False)
    for pool in zpools():
        if pool != "orbistor":
            run("zpool", "destroy", "-f", pool, check=False)
    shutil.rmtree("/orbistor/scsipool_backstore", ignore_errors=True)


def kernel_objects():
    """The targets of all fabrics, their groups and the backstores."""
    fabrics = [name for name in children(TARGET_ROOT) if name != "core"]
    found = [f"{fabric}/{name}" for fabric in fabrics for name in children(f"{TARGET_ROOT}/{fabric}")
             if name != "discovery_auth"]
    groups = sorted(path[len(TARGET_ROOT) + 1:] for path in glob.glob(f"{TARGET_ROOT}/*/*/tpgt_*"))
    return found + groups + backstores()


def loop_devices():
    return run("losetup", "-n", "-O", "NAME,BACK-FILE").stdout.splitlines()


def leftovers():
    """All that a test may leave behind: lists by kind."""
    with open("/etc/fstab", encoding="utf-8") as file:
        fstab = [line for line in file if "/orbistor/" in line]
    return {"target": kernel_objects(), "mounts": mounts(), "loops": loop_devices(), "pools": zpools(), "fstab": fstab,
            "files": sorted(glob.glob("/orbistor/scsipool_backstore/*") + glob.glob("/orbistor/scsipool/*")),
            "daemons": daemons()}


def left_since(before):
    """What is there now and was not then, by kind, and what is missing; a failed test's rest is cleared away.

    A loop device goes a moment after its last user.
    """
    end = time.monotonic() + 5
    while (now := leftovers()) != before and time.monotonic() < end:
        time.sleep(0.2)
    if now == before:
        return {}
    clear_target()
    clear_pools()
    return {kind: {"more": [one for one in now[kind] if one not in before[kind]],
                   "missing": [one for one in before[kind] if one not in now[kind]]}
            for kind in now if now[kind] != before[kind]}


def daemons():
    """The processes that run scsipoold."""
    found = []
    for path in glob.glob("/proc/[0-9]*/comm"):
        with contextlib.suppress(OSError), open(path, encoding="utf-8") as file:
            if file.read().strip() == "scsipoold":
                found.append(int(re.search(r"\d+", path).group()))
    return found
