"""A recorder with a generated camera, on a bus and a card of its own, and calvane-web beside it."""
import http.client
import json
import os
import shutil
import signal
import subprocess
import tempfile
import time
import unittest
from urllib.parse import urlencode, urlsplit

SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BINARIES = os.environ.get("CALVANE_BIN_DIR", os.path.join(SOURCE, "build", "release", "bin"))
SLOWNESS = int(os.environ.get("CALVANE_TEST_SLOWNESS", "1"))
PAGE = os.path.join(SOURCE, "tools", "calvane-web", "page")

CAMERA = """[calvane]
t.pipelines = camera
[camera]
t.pipeline.head = picture
[picture]
t.plugin.type = TestPicture
t.plugin.module = media.so
t.pipeline.next.video = video
t.pipeline.next.audio = audio
width = 320
height = 180
rate = 30
[video]
t.plugin.type = RecordingSink
t.plugin.module = recording.so
track = video
[audio]
t.plugin.type = RecordingSink
t.plugin.module = recording.so
track = audio
"""


def wait_until(condition, what, seconds=20):
    end = time.monotonic() + seconds * SLOWNESS
    while not condition():
        if time.monotonic() > end:
            raise AssertionError(f"not within {seconds * SLOWNESS} s: {what}")
        time.sleep(0.05)


class Answer:
    def __init__(self, response, body):
        self.status, self.body, self.headers = response.status, body, response.headers

    def json(self):
        return json.loads(self.body)


class Device:
    """The programs and their folder, in which there is an empty card if none is given, with a recorder of this description."""

    def __init__(self, card=None, description=CAMERA):
        self.folder = tempfile.mkdtemp(prefix="calvane-web-")
        self.card = card or self.path("card")
        os.makedirs(self.card, exist_ok=True)
        self.write("camera.ini", description)
        self.address = "unix:path=" + self.path("bus")
        self.environment = {**os.environ, "DRENN_BUS": self.address, "DRENN_SETTINGS": self.path("settings.db")}
        self.bus = self.recorder = None
        self.servers = []
        self.start_bus()
        self.start_recorder()

    def path(self, name):
        return os.path.join(self.folder, name)

    def write(self, name, text, mode=0o600):
        with open(self.path(name), "w", encoding="utf-8") as file:
            file.write(text)
        os.chmod(self.path(name), mode)
        return self.path(name)

    def _start(self, name, *words, **options):
        return subprocess.Popen([name if "/" in name or name == "dbus-daemon" else os.path.join(BINARIES, name), *words],
                                env=self.environment, cwd=self.folder, stdin=subprocess.DEVNULL, **options)

    def start_bus(self):
        self.bus = self._start("dbus-daemon", "--session", "--nofork", "--nopidfile", "--address=" + self.address,
                               stderr=subprocess.DEVNULL)
        wait_until(lambda: os.path.exists(self.path("bus")), "the bus's socket")

    def stop_bus(self):
        self.bus.kill()
        self.bus.wait()
        os.unlink(self.path("bus"))

    def start_recorder(self):
        self.recorder = self._start("calvane-recorder", "--root", self.card, "--log", "*=error", "camera.ini")

    def stop_recorder(self, number=signal.SIGTERM):
        self.recorder.send_signal(number)
        self.recorder.wait()

    def ask(self, *words, check=True):
        """What calvane-recording says."""
        return subprocess.run([os.path.join(BINARIES, "calvane-recording"), *words], env=self.environment, check=check,
                              cwd=self.folder, stdout=subprocess.PIPE, stderr=subprocess.PIPE).stdout

    def ask_json(self, *words):
        return json.loads(self.ask(*words, "--json"))

    def seconds_recorded(self):
        summary = json.loads(self.ask("tracks", "--json", check=False) or "{}").get("video")
        return summary["duration"] if summary else 0

    def start_web(self, *words, listen="127.0.0.1:0"):
        with open(self.path("web.log"), "ab") as log:
            server = Server(self._start("calvane-web", "--listen", listen, "--page", PAGE, *words,
                                        stdout=subprocess.PIPE, stderr=log))
        self.servers.append(server)
        return server

    def password_words(self, password):
        made = subprocess.run([os.path.join(BINARIES, "calvane-web"), "--hash-password"], input=password.encode() + b"\n",
                              check=True, stdout=subprocess.PIPE).stdout.decode()
        return "--password-file", self.write("password", made)

    def tls_words(self):
        """A new certificate for 127.0.0.1."""
        certificate, key = self.path("cert.pem"), self.path("key.pem")
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-keyout",
                        key, "-out", certificate, "-subj", "/CN=camera", "-addext", "subjectAltName=IP:127.0.0.1"],
                       check=True, stderr=subprocess.DEVNULL)
        return "--tls-cert", certificate, "--tls-key", key

    def close(self):
        problems = [problem for server in self.servers if (problem := server.stop())]
        self.stop_recorder()
        self.stop_bus()
        with open(self.path("web.log"), encoding="utf-8") as log:
            text = log.read()
        shutil.rmtree(self.folder)
        if problems:
            raise AssertionError(f"{problems}\n{text}")


class Server:
    def __init__(self, process):
        self.process = process
        self.url = process.stdout.readline().decode().split(" ")[1]
        self.host = urlsplit(self.url).netloc
        self.address = urlsplit(self.url).hostname, urlsplit(self.url).port

    def connect(self, timeout=30):
        return http.client.HTTPConnection(self.host, timeout=timeout * SLOWNESS)

    def get(self, path, headers=None, method="GET", body=None, **parameters):
        connection = self.connect()
        query = "?" + urlencode(parameters) if parameters else ""
        connection.request(method, path + query, body, headers or {})
        response = connection.getresponse()
        answer = Answer(response, response.read())
        connection.close()
        return answer

    def memory(self):
        """Bytes that are this process's own."""
        with open(f"/proc/{self.process.pid}/status", encoding="ascii") as status:
            return 1024 * next(int(line.split()[1]) for line in status if line.startswith("RssAnon"))

    def stop(self):
        """What was wrong, or nothing."""
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
            try:
                self.process.wait(10 * SLOWNESS)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
                return "calvane-web does not end by SIGTERM"
        self.process.stdout.close()
        return f"calvane-web ended with {self.process.returncode}" if self.process.returncode != 0 else None


class Described:
    """What docs/reference/web-api.json says of a server, for a test case."""
    with open(os.path.join(SOURCE, "docs", "reference", "web-api.json"), encoding="utf-8") as file:
        description = json.load(file)

    def described(self, tag=None):
        """Paths of questions, with their operations: those that have a tag, or those that have none."""
        return [(path, operations["get"]) for path, operations in self.description["paths"].items()
                if "get" in operations and operations["get"].get("tags") == (tag and [tag])]

    def check(self, value, schema, where):
        if "$ref" in schema:
            schema = self.description["components"]["schemas"][schema["$ref"].rsplit("/", 1)[1]]
        if value is None:
            self.assertTrue(schema.get("nullable"), where)
            return
        for part in schema.get("allOf", []):
            self.check(value, part, where)
        kinds = {"object": dict, "array": list, "string": str, "boolean": bool, "integer": int, "number": (int, float)}
        if "type" in schema:
            self.assertIsInstance(value, kinds[schema["type"]], where)
        if "pattern" in schema:
            self.assertRegex(value, schema["pattern"], where)
        if "enum" in schema:
            self.assertIn(value, schema["enum"], where)
        for name in schema.get("required", []):
            self.assertIn(name, value, where)
        known, others = schema.get("properties", {}), schema.get("additionalProperties")
        for name, part in value.items() if isinstance(value, dict) else ():
            if name in known or others:
                self.check(part, known.get(name, others), f"{where} {name}")
            elif known:
                self.fail(f"{where} {name} is not described")
        for number, part in enumerate(value if isinstance(value, list) else ()):
            self.check(part, schema["items"], f"{where} [{number}]")

    def assert_as_described(self, web, path, operation):
        """With all parameters, with the required ones, and with one that is unknown."""
        parameters = {each["name"]: each["example"] for each in operation.get("parameters", [])}
        required = {each["name"]: each["example"] for each in operation.get("parameters", []) if each["required"]}
        for given in (parameters, required):
            with self.subTest(path, given=given):
                answer = web.get(path, **given)
                self.assertEqual(answer.status, 200, answer.body[:200])
                response = operation["responses"]["200"]
                (kind, content), = response["content"].items()
                self.assertEqual(answer.headers["Content-Type"].split(";")[0], kind)
                for header in response.get("headers", {}):
                    self.assertIn(header, answer.headers)
                if kind == "application/json":
                    self.check(answer.json(), content["schema"], path)
        if path != "/healthz":
            unknown = web.get(path, unknown="1", **required)
            self.assertEqual(unknown.status, 400, path)
            self.assertIn("unknown", unknown.json()["error"])
            self.check(unknown.json(), {"$ref": "#/components/schemas/Error"}, path)


class WebTest(unittest.TestCase):
    """A device for all tests of a class, which has recorded for some seconds."""
    SECONDS = 6

    @classmethod
    def setUpClass(cls):
        cls.device = Device()
        cls.addClassCleanup(cls.device.close)
        wait_until(lambda: cls.device.seconds_recorded() >= cls.SECONDS, "a recording", cls.SECONDS + 20)
        cls.web = cls.device.start_web()

    def assert_error(self, answer, status, *words):
        self.assertEqual(answer.status, status, answer.body[:200])
        error = answer.json()["error"]
        for word in words:
            self.assertIn(word, error)
