"""What calvane-web does with clients that mean no good."""
import contextlib
import gzip
import http.client
import os
import socket
import ssl
import subprocess
import threading
import time
import unittest

from harness import BINARIES, PAGE, SLOWNESS, Server, WebTest

JSON = {"Content-Type": "application/json"}


class SafetyTest(WebTest):
    SECONDS = 2

    def exchange(self, request, server=None):
        """Bytes for bytes; all that comes until the server closes or is quiet."""
        with socket.create_connection((server or self.web).address, timeout=5 * SLOWNESS) as connection:
            connection.sendall(request)
            connection.shutdown(socket.SHUT_WR) if not request else None
            answer = b""
            try:
                while piece := connection.recv(65536):
                    answer += piece
                    if b"Connection: close" not in answer and b"Content-Length" in answer:
                        break
            except socket.timeout:
                pass
            return answer

    def head(self, line, *headers):
        return "\r\n".join([line, "Host: " + self.web.host, *headers, "", ""]).encode()

    def test_no_path_leads_out_of_the_page(self):
        for path in ("/../../../../etc/passwd", "/%2e%2e/%2e%2e/etc/passwd", "//etc/passwd", "/static/../../x", "/.",
                     "/index.html/", "/index.html%00.js", "/..%5c..%5cx", "/%", "http://x/etc/passwd"):
            with self.subTest(path):
                status = self.exchange(self.head(f"GET {path} HTTP/1.1")).split(b"\r\n")[0]
                self.assertRegex(status, rb"^HTTP/1\.1 40[04] ")

    def test_requests_that_are_ambiguous_or_too_large_are_refused(self):
        get = "GET /healthz HTTP/1.1"
        for status, request in (
                (400, self.head(get, "Content-Length: 1", "Content-Length: 2")),
                (400, self.head(get, "Transfer-Encoding: chunked")), (400, self.head(get, "Content-Length: -1")),
                (400, self.head(get, "X: a\x01b")), (400, self.head(get, "Host: other")), (400, self.head(get, " X: y")),
                (400, self.head("NONSENSE")), (405, self.head("DELETE /healthz HTTP/1.1")),
                (405, self.head("POST /api/summary HTTP/1.1")),
                (414, self.head("GET /" + "a" * 9000 + " HTTP/1.1")), (431, self.head(get, "X: " + "a" * 20000)),
                (431, b"G" * 20000)):
            with self.subTest(request[:80]):
                self.assertRegex(self.exchange(request), rb"^HTTP/1\.1 %d " % status)
        self.assertEqual(self.web.get("/healthz").status, 200)

    def test_a_request_hidden_in_a_body_is_none(self):
        hidden = self.head("GET /api/summary HTTP/1.1")
        answer = self.exchange(self.head("GET /healthz HTTP/1.1", f"Content-Length: {len(hidden)}") + hidden)
        self.assertEqual(answer.count(b"HTTP/1.1 "), 1, answer)

    def test_other_names_of_the_host_are_refused(self):
        self.assert_error(self.web.get("/api/summary", {"Host": "evil.example"}), 421, "host")
        port = self.web.host.rsplit(":", 1)[1]
        self.assertEqual(self.web.get("/api/summary", {"Host": "localhost:" + port}).status, 200)
        headers = self.web.get("/").headers
        self.assertIn("default-src 'none'", headers["Content-Security-Policy"])
        self.assertNotIn("Access-Control-Allow-Origin", headers)
        self.assertEqual(self.web.get("/", {"If-None-Match": headers["ETag"]}).status, 304)
        self.assertEqual(self.web.get("/", {"If-None-Match": 'W/"0000000000000000"'}).status, 200)
        packed = self.web.get("/", {"Accept-Encoding": "gzip"})
        self.assertEqual(gzip.decompress(packed.body), self.web.get("/").body)
        self.assertEqual(packed.headers["Content-Encoding"], "gzip")

    def test_half_open_connections_hold_nobody_up_and_are_closed(self):
        half = [socket.create_connection(self.web.address) for _ in range(150)]
        for connection in half:
            connection.sendall(b"GET /api/summary HTTP/1.1\r\nHost: x\r\nX: ")
        begin = time.monotonic()
        self.assertEqual(self.web.get("/api/summary").status, 200)
        self.assertLess(time.monotonic() - begin, 2 * SLOWNESS)

        def is_closed(connection, seconds):
            connection.settimeout(seconds)
            try:
                return connection.recv(1) == b""
            except socket.timeout:
                return False
            except ConnectionError:
                return True
        with contextlib.suppress(ConnectionError):
            while not is_closed(half[0], 1):
                half[0].sendall(b"y")  # That something comes does not help.
                self.assertLess(time.monotonic() - begin, 16 * SLOWNESS)
        self.assertEqual(sum(is_closed(each, SLOWNESS) for each in half[1:]), 149)
        for connection in half:
            connection.close()

    def test_200_clients_at_once_are_answered(self):
        answers, lock = [], threading.Lock()

        def ask():
            try:
                status = self.web.get("/api/tracks").status
            except OSError as problem:
                status = problem
            with lock:
                answers.append(status)
        threads = [threading.Thread(target=ask) for _ in range(200)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual(answers, [200] * 200)
        self.assertLess(self.web.memory(), 24 * 2**20 * (1 if SLOWNESS == 1 else 20))

    def test_clients_beyond_the_limit_are_sent_away(self):
        many = [socket.create_connection(self.web.address) for _ in range(256)]
        try:
            self.assertRegex(self.exchange(self.head("GET /healthz HTTP/1.1")), rb"^HTTP/1\.1 503 ")
        except ConnectionError:
            pass
        for connection in many:
            connection.close()
        time.sleep(0.3)
        self.assertEqual(self.web.get("/healthz").status, 200)

    def test_no_address_has_all_connections(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
            try:
                probe.connect(("192.0.2.1", 9))  # Sends nothing.
                own = probe.getsockname()[0]
            except OSError:
                self.skipTest("this machine has no address but that of itself")
        web = self.web_with_password(*self.device.tls_words(), listen="0.0.0.0:0")
        many = [socket.create_connection((own, web.address[1])) for _ in range(33)]
        many[32].settimeout(5 * SLOWNESS)
        self.assertEqual(many[32].recv(1), b"")
        many[31].settimeout(0.2)
        self.assertRaises(socket.timeout, many[31].recv, 1)
        with socket.create_connection(("127.0.0.1", web.address[1])) as proxy:
            proxy.settimeout(0.2)
            self.assertRaises(socket.timeout, proxy.recv, 1)
        for connection in many:
            connection.close()
        time.sleep(0.3)
        with socket.create_connection((own, web.address[1])) as again:
            again.settimeout(0.2)
            self.assertRaises(socket.timeout, again.recv, 1)

    def test_only_so_many_look_on(self):
        pages = []
        for status in [200] * 32 + [503]:
            connection = self.web.connect()
            connection.request("GET", "/api/events")
            pages.append(connection)
            self.assertEqual(connection.getresponse().status, status)
        for connection in pages:
            connection.close()

    def web_with_password(self, *words, **options):
        return self.device.start_web(*self.device.password_words("open sesame"), *words, **options)

    def test_a_password_opens_and_wrong_ones_are_slowed_down(self):
        web = self.web_with_password()
        for path in ("/api/summary", "/api/events", "/api/media", "/metrics"):
            self.assert_error(web.get(path), 401, "Log in")
        self.assertEqual(web.get("/").status, 200)
        right = '{"password": "open sesame"}'
        self.assert_error(web.get("/api/login", method="POST", body=right), 415)
        self.assert_error(web.get("/api/login", JSON, "POST", "[]"), 400, "password")
        self.assert_error(web.get("/api/login", JSON, "POST", "x" * 5000), 413)
        entered = web.get("/api/login", JSON, "POST", right)
        self.assertEqual(entered.status, 204)
        cookie = entered.headers["Set-Cookie"]
        self.assertRegex(cookie, r"^calvane=[0-9a-f]{64}; Path=/; HttpOnly; SameSite=Strict$")
        mine = {"Cookie": "other=1; " + cookie.split(";")[0]}
        self.assertEqual(web.get("/api/summary", mine).status, 200)
        self.assertEqual(web.get("/api/summary", {"Cookie": cookie.split(";")[0][:-1]}).status, 401)
        for _ in range(5):
            self.assert_error(web.get("/api/login", JSON, "POST", '{"password": "open"}'), 401)
        self.assert_error(web.get("/api/login", JSON, "POST", right), 429)
        self.assertEqual(web.get("/api/logout", mine, "POST").status, 204)
        self.assertEqual(web.get("/api/summary", mine).status, 401)

    def test_tls(self):
        words = self.device.tls_words()
        web = self.web_with_password(*words)
        context = ssl.create_default_context(cafile=words[1])
        silent = [socket.create_connection(web.address) for _ in range(70)]  # Handshakes that never come.
        connection = http.client.HTTPSConnection(web.host, context=context, timeout=10 * SLOWNESS)
        for _ in range(3):  # On one connection.
            connection.request("POST", "/api/login", '{"password": "open sesame"}', JSON)
            answer = connection.getresponse()
            answer.read()
            self.assertIn("; Secure", answer.headers["Set-Cookie"])
        cookie = {"Cookie": answer.headers["Set-Cookie"].split(";")[0]}
        connection.request("GET", "/api/export?from=-1min", headers=cookie)
        self.assertEqual(connection.getresponse().read()[4:8], b"ftyp")
        connection.close()
        for each in silent:
            each.close()

    def test_a_socket_of_systemd_takes_the_place_of_the_address(self):
        with socket.create_server(("127.0.0.1", 0)) as listening:
            number = listening.fileno()
            process = subprocess.Popen(
                ["sh", "-c", f'LISTEN_PID=$$ LISTEN_FDS=1 exec "$@" 3<&{number}', "sh", os.path.join(BINARIES, "calvane-web"),
                 "--page", PAGE], env=self.device.environment, pass_fds=[number], stdout=subprocess.PIPE)
            server = Server(process)
            self.assertEqual(server.host, "127.0.0.1:%d" % listening.getsockname()[1])
            self.assertEqual(server.get("/healthz").status, 200)
            self.assertIsNone(server.stop())

    def test_others_than_this_machine_take_more_than_an_address(self):
        def refused(*words):
            done = subprocess.run([os.path.join(BINARIES, "calvane-web"), *words], env=self.device.environment,
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=20 * SLOWNESS, check=False)
            self.assertNotEqual(done.returncode, 0)
            return done.stderr.decode()
        self.assertIn("--behind-proxy", refused("--listen", "0.0.0.0:0"))
        open_file = self.device.write("open", "$y$j9T$x$y\n", 0o644)
        self.assertIn("Others may read", refused("--listen", "127.0.0.1:0", "--password-file", open_file))
        self.assertIn("--hash-password", refused("--listen", "127.0.0.1:0", "--password-file",
                                                 self.device.write("plain", "secret\n")))
        self.assertIn("camera.local", refused("--listen", "camera.local:80"))
        self.assertIn("go together", refused("--listen", "127.0.0.1:0", "--tls-cert", "x"))
        self.assertIn("/nowhere", refused("--page", "/nowhere", "--listen", "127.0.0.1:0"))


if __name__ == "__main__":
    unittest.main(verbosity=2)
