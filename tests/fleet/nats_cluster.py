"""nats-servers on loopback with JetStream, and a client of theirs that shares no code with the programs under test."""
import base64
import json
import os
import select
import shutil
import signal
import socket
import ssl
import subprocess
import tempfile
import threading
import time

NATS_SERVER = os.environ.get("CALVANE_NATS_SERVER", "/usr/sbin/nats-server")
SLOWNESS = int(os.environ.get("CALVANE_TEST_SLOWNESS", "1"))


def wait_until(condition, what, seconds=30):
    end = time.monotonic() + seconds * SLOWNESS
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > end:
            raise AssertionError(f"not within {seconds * SLOWNESS} s: {what}")
        time.sleep(0.05)


def free_ports(count):
    sockets = [socket.create_server(("127.0.0.1", 0)) for _ in range(count)]
    ports = [each.getsockname()[1] for each in sockets]
    for each in sockets:
        each.close()
    return ports


class Message:
    def __init__(self, subject, sequence, head, data):
        self.subject, self.sequence, self.data = subject, sequence, data
        lines = head.decode().split("\r\n")[1:] if head else []
        self.headers = dict(line.split(": ", 1) for line in lines if ": " in line)


class Client:
    """One connection: requests and what JetStream answers, nothing more. `access` has the TLS context and what signs in."""
    WINDOW = 64  # Of questions on their way.
    PATIENCE = 10 * SLOWNESS

    def __init__(self, port, domain=None, access=None, patience=PATIENCE):
        self.prefix = f"$JS.{domain}.API." if domain else "$JS.API."
        self.socket = socket.create_connection(("127.0.0.1", port), timeout=patience)
        self.file = self.socket.makefile("rb", 0)  # Without a buffer, since TLS begins behind the first line.
        info = json.loads(self.file.readline().split(b" ", 1)[1])
        options = {"verbose": False, "headers": True, "no_responders": True, "user": "camera", "pass": "right"}
        if access:
            context, sign_in = access
            self.socket = context.wrap_socket(self.socket, server_hostname="localhost")
            options = {**options, **sign_in(info["nonce"])}
        self.file = self.socket.makefile("rb")
        self.inbox = f"_INBOX.{os.getpid()}.{id(self)}"
        self.number = 0
        self.socket.sendall(f"CONNECT {json.dumps(options)}\r\nSUB {self.inbox}.> 1\r\n".encode())

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.file.close()
        self.socket.close()

    def publish(self, subject, data=b"", reply=""):
        self.socket.sendall(f"PUB {subject} {reply} {len(data)}\r\n".encode() + data + b"\r\n")

    def publish_head(self, subject, head):
        """A message without payload, of the format of devices' streams."""
        text = f"NATS/1.0\r\nCalvane: {head}\r\n\r\n".encode()
        self.socket.sendall(f"HPUB {subject} {len(text)} {len(text)}\r\n".encode() + text + b"\r\nPING\r\n")
        while not self.file.readline().startswith(b"PONG"):
            pass

    def next(self):
        """Subject and data of what comes next for this client."""
        while True:
            line = self.file.readline()
            words = line.split()
            if not words:
                raise ConnectionError("the server has gone")
            if words[0] == b"PING":
                self.socket.sendall(b"PONG\r\n")
            elif words[0] in (b"MSG", b"HMSG"):
                data = self.file.read(int(words[-1]))
                self.file.read(2)
                if words[0] == b"HMSG":
                    head = data[:int(words[-2])]
                    if b" 503" in head.split(b"\r\n")[0]:
                        raise ConnectionError(f"nobody answers {words[1].decode()}")
                    data = data[int(words[-2]):]
                return words[1].decode(), data
            elif words[0] == b"-ERR":
                raise ConnectionError(line.decode())

    def request(self, subject, value=None):
        self.number += 1
        reply = f"{self.inbox}.{self.number}"
        self.publish(subject, json.dumps(value).encode() if value is not None else b"", reply)
        while True:
            name, data = self.next()
            if name == reply:
                return json.loads(data)

    def api(self, operation, value=None):
        answer = self.request(self.prefix + operation, value)
        if "error" in answer:
            raise LookupError(f"{operation}: {answer['error']}")
        return answer

    def messages(self, stream):
        """All that a stream holds, in its order."""
        state = self.api(f"STREAM.INFO.{stream}")["state"]
        found = {}
        for first in range(state["first_seq"], state["last_seq"] + 1, self.WINDOW):
            sequences = range(first, min(first + self.WINDOW, state["last_seq"] + 1))
            for sequence in sequences:
                self.publish(f"{self.prefix}STREAM.MSG.GET.{stream}", json.dumps({"seq": sequence}).encode(), f"{self.inbox}.get")
            for _ in sequences:
                answer_to, data = self.next()
                assert answer_to.endswith(".get"), answer_to
                answer = json.loads(data)
                if "message" in answer:
                    found[answer["message"]["seq"]] = answer["message"]
                elif answer["error"]["err_code"] != 10037:  # There is none.
                    raise LookupError(answer["error"])
        return [self._decode(found[sequence]) for sequence in sorted(found)]

    @staticmethod
    def _decode(message):
        head, data = (base64.b64decode(message.get(key, "")) for key in ("hdrs", "data"))
        return Message(message["subject"], message["seq"], head, data)


class Server:
    def __init__(self, folder, name, port, text):
        self.folder, self.name, self.port, self.process = folder, name, port, None
        self.config = os.path.join(folder, f"{name}.conf")
        with open(self.config, "w", encoding="utf-8") as file:
            file.write(f'server_name: {name}\nlisten: "127.0.0.1:{port}"\n{text}')

    @property
    def url(self):
        return f"nats://127.0.0.1:{self.port}"

    def start(self):
        with open(os.path.join(self.folder, f"{self.name}.log"), "ab") as log:
            self.process = subprocess.Popen([NATS_SERVER, "-c", self.config], stderr=log, stdin=subprocess.DEVNULL)

    def send(self, number):
        self.process.send_signal(number)

    def kill(self):
        if self.process:
            self.process.kill()
            self.process.wait()
            self.process = None


class Proxy:
    """A link to a server that stalls, loses what it was given, and breaks in the middle of a message."""

    def __init__(self, port):
        self.server_port = port
        self.flowing = threading.Event()
        self.flowing.set()
        self.is_losing = False
        self.left = None  # So many bytes more go to the server, then the link breaks.
        self.breaks = 0
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.url = f"nats://127.0.0.1:{self.listener.getsockname()[1]}"
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        while True:
            try:
                client, _ = self.listener.accept()
            except OSError:
                return
            threading.Thread(target=self._carry, args=(client,), daemon=True).start()

    def _carry(self, client):
        try:
            with client, socket.create_connection(("127.0.0.1", self.server_port)) as server:
                while True:
                    # The client's data first: what it has sent before it went away arrives, too, however late.
                    ready = select.select([client, server], [], [])[0]
                    source = client if client in ready else server
                    data = source.recv(65536)
                    self.flowing.wait()
                    if not data or not self._pass_on(data, source is client, server if source is client else client):
                        return
        except OSError:
            pass

    def _pass_on(self, data, is_up, target):
        """Whether the link goes on."""
        if self.is_losing:
            return True
        if is_up and self.left is not None:
            data = data[:self.left]
            self.left -= len(data)
        target.sendall(data)
        if is_up and self.left == 0:
            self.left, self.breaks = None, self.breaks + 1
            return False
        return True

    def close(self):
        self.flowing.set()
        self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()


class Cluster:
    """Some servers, one of them alone or all of them as a cluster, which lives until close()."""

    def __init__(self, count=3, store="", text="", domain=None, access=None):
        self.folder = tempfile.mkdtemp(prefix="calvane-nats-")
        self.access = access
        ports, routes = free_ports(count), free_ports(count)
        self.domain = domain
        self.servers = []
        for number, port in enumerate(ports):
            limits = f"{{store_dir: \"{self.folder}/n{number}\", {store} {f'domain: {domain}' if domain else ''}}}"
            config = f"jetstream: {limits}\n{text}\n"
            if count > 1:
                others = ", ".join(f'"nats://127.0.0.1:{route}"' for route in routes)
                config += f'cluster: {{name: fleet, listen: "127.0.0.1:{routes[number]}", routes: [{others}]}}\n'
            self.servers.append(Server(self.folder, f"n{number}", port, config))
        for server in self.servers:
            server.start()
        wait_until(self.is_ready, "JetStream")

    def is_ready(self):
        try:
            with self.client(patience=1) as client:  # Servers without a leader do not answer.
                client.api("INFO")
            return True
        except (OSError, LookupError):
            return False

    @property
    def urls(self):
        return ",".join(server.url for server in self.servers)

    def client(self, patience=Client.PATIENCE):
        for server in self.servers:
            if server.process:
                try:
                    return Client(server.port, self.domain, self.access, patience)
                except OSError:
                    pass
        raise ConnectionError("no server is there")

    def leader(self, stream):
        """The server that leads a stream, None while none does."""
        try:
            with self.client(patience=1) as client:
                name = client.api(f"STREAM.INFO.{stream}").get("cluster", {}).get("leader")
        except (OSError, LookupError):
            return None
        return next((server for server in self.servers if server.name == name), None)

    def close(self):
        for server in self.servers:
            server.kill()
        shutil.rmtree(self.folder)
