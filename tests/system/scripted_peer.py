"""A TCP server that takes any request and answers with whatever bytes a test gives, right or wrong."""
import json
import socketserver
import threading


def http(body, status="200 OK", length=None):
    """An answer whose head may promise another length than the body has."""
    head = f"HTTP/1.1 {status}\r\nContent-Type: application/json\r\nContent-Length: {len(body) if length is None else length}\r\n\r\n"
    return (head + body).encode()


class _Talk(socketserver.StreamRequestHandler):
    def handle(self):
        head = [self.rfile.readline().decode().strip()]
        while head[-1]:
            head.append(self.rfile.readline().decode().strip())
        length = [int(line.split(":")[1]) for line in head if line.lower().startswith("content-length:")]
        self.rfile.read(sum(length))
        if head[0]:
            self.server.requests.append(head[0])
            self.wfile.write(self.server.answer(head[0]))


class Scripted_Peer(socketserver.ThreadingTCPServer):
    """`answer` gets the first line of a request and returns bytes, after which the connection ends."""

    allow_reuse_address = daemon_threads = True

    def __init__(self, answer):
        super().__init__(("127.0.0.1", 0), _Talk)
        self.answer, self.requests = answer, []
        self.port = self.server_address[1]
        threading.Thread(target=self.serve_forever, args=(0.05,), daemon=True).start()

    def close(self):
        self.shutdown()
        self.server_close()


def good_pool(line):
    """What a peer says of its pool."""
    return http(json.dumps([{"fs_type": "btrfs"}])) if "/svc/r/pool" in line else None
