"""What the system tests share: a private mount namespace with an /orbistor and an /etc of its own, daemons started from
a build folder, and the comparison of what is there before and after.

The process that uses this needs root. It enters the namespace once and stays there; nothing of it is seen outside.
"""
import ctypes
import glob
import json
import os
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

CLONE_NEWNS = 0x20000
BUILD = os.environ.get("SCSIPOOL_BUILD", os.path.join(os.path.dirname(__file__), "..", "..", "build", "debug"))
BACKING = "/orbistor/scsipool_backstore"
MOUNTS = "/orbistor/scsipool"

_entered = False


def run(*command, check=True, **options):
    return subprocess.run(command, check=check, text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          stdin=subprocess.DEVNULL, **options).stdout


def enter_namespace():
    """Once for the process; subprocesses inherit it."""
    global _entered
    if _entered:
        return
    if ctypes.CDLL(None, use_errno=True).unshare(CLONE_NEWNS) != 0:
        raise OSError(ctypes.get_errno(), "unshare")
    run("mount", "--make-rprivate", "/")
    _entered = True


def new_id():
    """A pool id that a ZFS pool may have too."""
    return "ab" + str(uuid.uuid4())[2:]


class Sandbox:
    """A folder, and over it /orbistor (on the folder's disk, or a tmpfs of `room` bytes) and a copy of /etc."""

    def __init__(self, room=None):
        enter_namespace()
        self.folder = tempfile.mkdtemp(prefix="scsipool-test-")
        os.makedirs("/orbistor", exist_ok=True)
        if room is None:
            os.mkdir(self.path("orbistor"))
            run("mount", "--bind", self.path("orbistor"), "/orbistor")
        else:
            run("mount", "-t", "tmpfs", "-o", f"size={room}", "scsipool-test", "/orbistor")
        shutil.copytree("/etc", self.path("etc"), symlinks=True)
        run("mount", "--bind", self.path("etc"), "/etc")
        if not os.path.exists("/etc/fstab"):
            open("/etc/fstab", "w").close()

    def path(self, name):
        return os.path.join(self.folder, name)

    def close(self):
        for mount in sorted(mounts_below("/orbistor/"), reverse=True):
            run("umount", "-l", mount, check=False)
        run("umount", "/etc")
        run("umount", "-l", "/orbistor")
        # /orbistor itself stays: removing it would take it from under the tests of other processes, whatever their namespace.
        shutil.rmtree(self.folder)


def mounts_below(prefix):
    with open("/proc/self/mounts") as table:
        return [line.split()[1] for line in table if line.split()[1].startswith(prefix)]


def loops_of(ids):
    """The loop devices whose backing file is named by one of the ids."""
    found = []
    for path in glob.glob("/sys/block/loop*/loop/backing_file"):
        try:
            backing = open(path).read().strip()
        except OSError:
            continue
        if any(one in backing for one in ids):
            found.append(f"{path.split('/')[3]} {backing}")
    return found


def processes_naming(text):
    found = []
    for path in glob.glob("/proc/[0-9]*/cmdline"):
        try:
            words = open(path, "rb").read().decode(errors="replace").split("\0")
        except OSError:
            continue
        if any(text in word for word in words) and int(path.split("/")[2]) != os.getpid():
            found.append(" ".join(words))
    return found


def fstab_entries():
    """Comments do not count: the table is rewritten entry by entry."""
    with open("/etc/fstab") as table:
        return [line for line in table.read().splitlines() if line.strip() and not line.startswith("#")]


def residue(ids):
    """Everything that pools of these ids could have left, for comparison with what was there before."""
    return {
        "mounts": mounts_below("/orbistor/"),
        "loops": loops_of(ids),
        "files": sorted(os.listdir(BACKING)) if os.path.isdir(BACKING) else [],
        "mount points": sorted(os.listdir(MOUNTS)) if os.path.isdir(MOUNTS) else [],
        "fstab": fstab_entries(),
        "processes": [line for one in ids for line in processes_naming(one)],
    }


def settled_residue(ids, seconds=10):
    """The same, once loop devices (which the kernel frees a moment after an unmount) have had their time."""
    end = time.monotonic() + seconds
    while loops_of(ids) and time.monotonic() < end:
        time.sleep(0.1)
    return residue(ids)


class Daemon:
    """One scsipoold with its socket, data folder and log in a sandbox's folder."""

    def __init__(self, sandbox, name="a", config=None):
        self.socket = sandbox.path(name + ".sock")
        self.data = sandbox.path(name + "-data")
        self.log_path = sandbox.path(name + ".log")
        self.config_path = sandbox.path(name + ".json")
        self.config = {
            "socket": self.socket,
            "data_folder": self.data,
            "module": {"library": os.path.join(BUILD, "backup/pools/scsipool/libscsipool.so"), "filesystem": "btrfs",
                       "mount_point": MOUNTS},
            "log_level": "debug",
            "lio": {"lock_file": sandbox.path(name + "-lio.lock")},
            **(config or {}),
        }
        self.process = None

    def spawn(self, environment=None, path=None):
        with open(self.config_path, "w") as file:
            json.dump(self.config, file)
        variables = {**os.environ, **(environment or {})}
        if path is not None:
            variables["PATH"] = path
        with open(self.log_path, "ab") as log:
            self.process = subprocess.Popen([os.path.join(BUILD, "daemon/scsipoold"), "--config", self.config_path],
                                            env=variables, stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        return self

    def start(self, environment=None, path=None, seconds=60):
        """Returns once requests are taken; raises with the log when the daemon ends instead."""
        self.spawn(environment, path)
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            if self.process.poll() is not None:
                raise AssertionError(f"scsipoold ended with {self.process.returncode}:\n{self.log()}")
            try:
                self.request("GET", "/svc/r/health")
                return self
            except OSError:
                time.sleep(0.05)
        raise AssertionError(f"scsipoold does not answer:\n{self.log()}")

    def log(self):
        with open(self.log_path, errors="replace") as file:
            return file.read()

    def stop(self, number=signal.SIGTERM, seconds=60):
        """Ends the daemon and returns its exit status."""
        if self.process is None:
            return None
        if self.process.poll() is None:
            self.process.send_signal(number)
        try:
            status = self.process.wait(seconds)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            raise AssertionError(f"scsipoold does not stop:\n{self.log()}")
        self.process = None
        return status

    def request(self, method, path, body=None, seconds=120):
        """The status and the parsed answer. A body that is text goes as it is."""
        connection = Unix_Connection(self.socket, seconds)
        try:
            if body is not None and not isinstance(body, (str, bytes)):
                body = json.dumps(body)
            connection.request(method, path, body, {"Content-Type": "application/json"} if body is not None else {})
            answer = connection.getresponse()
            return answer.status, json.loads(answer.read() or "null")
        finally:
            connection.close()

    def ctl(self, *arguments):
        """Exit status, standard output and standard error of scsipoolctl."""
        done = subprocess.run([os.path.join(BUILD, "ctl/scsipoolctl"), "--socket", self.socket, *arguments],
                              text=True, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        return done.returncode, done.stdout, done.stderr


class System_Test(unittest.TestCase):
    """A sandbox for each test; after it, everything that its pools could leave must be gone."""

    room = None

    def setUp(self):
        self.sandbox = Sandbox(self.room)
        self.addCleanup(self.sandbox.close)
        self.daemons = []
        self.addCleanup(self.end_daemons)
        self.ids = []
        self.before = residue([])

    def end_daemons(self):
        for daemon in self.daemons:
            if daemon.process is not None:
                daemon.process.kill()
                daemon.process.wait()

    def daemon(self, name="a", config=None):
        daemon = Daemon(self.sandbox, name, config)
        self.daemons.append(daemon)
        return daemon

    def new_id(self):
        self.ids.append(new_id())
        return self.ids[-1]

    def ctl(self, daemon, *arguments, status=0):
        """Runs scsipoolctl, checks its exit status and returns what it printed."""
        code, out, err = daemon.ctl(*arguments)
        self.assertEqual(status, code, f"{arguments}\n{out}{err}\n{daemon.log()}")
        return out if status == 0 else err

    def assert_nothing_left(self):
        self.assertEqual(self.before, settled_residue(self.ids))
