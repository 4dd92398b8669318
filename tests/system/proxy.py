"""A TCP proxy that can be told what goes wrong on the way."""
import socket
import struct
import threading
import time


class Proxy:
    """Passes connections on to a port of this machine.

    break_next(action, after, times): the next `times` connections that carry `after` bytes towards the target are
    "cut", "stall" (nothing more passes until release()), have one bit of that byte turned ("flip"), or are "slow" from
    there on. Requests without a stream carry less than a few KiB.
    """

    def __init__(self, target):
        self.target = target
        self.lock = threading.Lock()
        self.action, self.after, self.times, self.broken = None, 0, 0, 0
        self.go_on = threading.Event()
        self.open = set()
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        threading.Thread(target=self._accept, daemon=True).start()

    def break_next(self, action, after, times=1):
        with self.lock:
            self.action, self.after, self.times, self.broken = action, after, times, 0
            self.go_on.clear()

    def release(self):
        self.go_on.set()

    def cut_all(self):
        """Ends every connection as a broken line does; true when there was any."""
        with self.lock:
            doomed = list(self.open)
        for one in doomed:
            self._cut(one)
        return bool(doomed)

    def close(self):
        self.release()
        self.listener.close()
        self.cut_all()

    def _accept(self):
        while True:
            try:
                near, _ = self.listener.accept()
            except OSError:
                return
            try:
                far = socket.create_connection(("127.0.0.1", self.target))
            except OSError:
                near.close()
                continue
            with self.lock:
                self.open |= {near, far}
            for pump in ((near, far, True), (far, near, False)):
                threading.Thread(target=self._pump, args=pump, daemon=True).start()

    @staticmethod
    def _cut(one):
        try:
            one.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            one.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass

    def _due(self, passed, size):
        """What is to go wrong within the next `size` bytes of a connection."""
        with self.lock:
            if self.times == 0 or passed + size <= self.after:
                return None
            self.times -= 1
            self.broken += 1
            return self.action

    def _pump(self, source, sink, watched):
        passed, slow = 0, False
        try:
            while data := source.recv(65536):
                action = self._due(passed, len(data)) if watched else None
                if action == "cut":
                    self._cut(source)
                    self._cut(sink)
                    break
                if action == "stall":
                    self.go_on.wait()
                if action == "flip":
                    at = max(0, self.after - passed)
                    data = data[:at] + bytes([data[at] ^ 4]) + data[at + 1:]
                slow = slow or action == "slow"
                if slow:
                    time.sleep(len(data) / (2 << 20))
                sink.sendall(data)
                passed += len(data)
            sink.shutdown(socket.SHUT_WR)
        except OSError:
            self._cut(source)
            self._cut(sink)
        finally:
            with self.lock:
                self.open.discard(source)
                last = sink not in self.open
            if last:
                source.close()
                sink.close()
