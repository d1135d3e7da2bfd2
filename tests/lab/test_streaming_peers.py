"""Media over HTTP with independent programs: the client with nginx, Python's server and miniDLNA, the
server with curl, wget and ffprobe, each on a host of its own."""

import hashlib
import json
import os
import signal
import subprocess
import tempfile
import time
import unittest
import urllib.request

from devices import HOSTS, Device, make_media, on_host
from lab_support import VEXCP, wait_until

STREAM_GET = os.path.join(os.environ["VEX_BINARY_DIR"], "examples", "stream_get")
OWN_ADDRESS = "10.90.1.2"
DEV1 = HOSTS["dev1"][0]
LIMIT_S = 30

NGINX = """
daemon off; pid {work}/nginx.pid; error_log {work}/error.log; worker_processes 1;
events {{ worker_connections 64; }}
http {{
  access_log off; client_body_temp_path {work}; proxy_temp_path {work}; fastcgi_temp_path {work};
  uwsgi_temp_path {work}; scgi_temp_path {work};
  server {{
    listen {address}:8080; root {work}/media; keepalive_timeout 75;
    location /list/ {{ alias {work}/media/; autoindex on; }}
    location /unchunked/ {{ alias {work}/media/; autoindex on; chunked_transfer_encoding off; }}
    location /slow/ {{ alias {work}/media/; limit_rate 1m; }}
    location /moved {{ return 302 /film; }}
    location /version {{ return 200 "$server_protocol"; }}
  }}
}}
"""


def digest(data):
    return hashlib.sha256(data).hexdigest()


def get(url, *arguments):
    """What `vexcp get` stored, and how it ended."""
    with tempfile.TemporaryDirectory() as folder:
        name = os.path.join(folder, "file")
        result = subprocess.run([VEXCP, "get", url, "-o", name, *arguments], capture_output=True,
                                text=True, timeout=60, check=False)
        with open(name, "rb") as file:
            return file.read(), result


class Peers(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.work = folder.name
        os.chmod(cls.work, 0o755)
        cls.media = os.path.join(cls.work, "media")
        os.mkdir(cls.media)
        make_media(cls.media)
        cls.film = os.urandom(1 << 20) * 20 + b"the end"
        with open(os.path.join(cls.media, "film"), "wb") as file:
            file.write(cls.film)
        for i in range(500):
            with open(os.path.join(cls.media, "many-%03d-%s" % (i, "x" * 40)), "wb"):
                pass

    @classmethod
    def start(cls, command, url):
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                   stderr=subprocess.DEVNULL)
        cls.addClassCleanup(process.wait, LIMIT_S)
        cls.addClassCleanup(process.terminate)

        def answers():
            try:
                with urllib.request.urlopen(url, timeout=5) as answer:
                    return answer.read(1)
            except OSError:
                return None
        if not wait_until(answers, LIMIT_S):
            raise AssertionError("%s does not answer" % command[0])


class ClientTest(Peers):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        conf = os.path.join(cls.work, "nginx.conf")
        with open(conf, "w", encoding="ascii") as file:
            file.write(NGINX.format(work=cls.work, address=DEV1))
        cls.url = "http://%s:8080" % DEV1
        cls.start(on_host("dev1", ["nginx", "-c", conf, "-p", cls.work]), cls.url + "/film")

    def read(self, path):
        with urllib.request.urlopen(self.url + path, timeout=LIMIT_S) as answer:
            return answer.read(), dict(answer.getheaders())

    def test_a_body_with_a_length(self):
        data, result = get(self.url + "/film")
        self.assertEqual(0, result.returncode, result.stderr)
        self.assertEqual(digest(self.film), digest(data))

    def test_a_chunked_body(self):
        expected, headers = self.read("/list/")
        self.assertEqual("chunked", headers.get("Transfer-Encoding"))
        data, result = get(self.url + "/list/")
        self.assertEqual((0, expected), (result.returncode, data), result.stderr)

    def test_a_body_that_ends_with_the_connection(self):
        expected, headers = self.read("/unchunked/")
        self.assertNotIn("Transfer-Encoding", headers)
        self.assertNotIn("Content-Length", headers)
        data, result = get(self.url + "/unchunked/")
        self.assertEqual((0, expected), (result.returncode, data), result.stderr)

    def test_a_request_of_http_1_0(self):
        for version in ("1.0", "1.1"):
            options = ["--http1.0"] if version == "1.0" else []
            data, result = get(self.url + "/version", *options)
            self.assertEqual((0, b"HTTP/" + version.encode()), (result.returncode, data), result.stderr)
        # What would come in chunks ends with the connection.
        expected, _ = self.read("/list/")
        data, result = get(self.url + "/list/", "--http1.0")
        self.assertEqual((0, expected), (result.returncode, data), result.stderr)

    def test_an_answer_of_http_1_0(self):
        url = "http://%s:8081" % DEV1
        self.start(on_host("dev1", ["python3", "-m", "http.server", "8081", "--bind", DEV1,
                                    "--directory", self.media]), url + "/film")
        data, result = get(url + "/film")
        self.assertEqual(0, result.returncode, result.stderr)
        self.assertEqual(digest(self.film), digest(data))

    def test_a_part(self):
        with tempfile.NamedTemporaryFile() as part:
            part.write(self.film[:7654321])
            part.flush()
            result = subprocess.run([VEXCP, "get", self.url + "/film", "-c", "-o", part.name],
                                    capture_output=True, text=True, timeout=60, check=False)
            self.assertEqual(0, result.returncode, result.stderr)
            with open(part.name, "rb") as file:
                self.assertEqual(digest(self.film), digest(file.read()))
            result = subprocess.run([VEXCP, "get", self.url + "/film", "-c", "-o", part.name],
                                    capture_output=True, text=True, timeout=60, check=False)
            self.assertEqual(0, result.returncode, result.stderr)
            self.assertIn("complete already", result.stderr)

    def test_nothing_there_and_elsewhere(self):
        data, result = get(self.url + "/nothing")
        self.assertEqual((5, b""), (result.returncode, data))
        self.assertIn("404", result.stderr)
        data, result = get(self.url + "/moved")
        self.assertEqual((0, digest(self.film)), (result.returncode, digest(data)))

    def test_a_slow_server(self):
        started = time.monotonic()
        data, result = get(self.url + "/slow/many-000-" + "x" * 40)
        self.assertEqual((0, b""), (result.returncode, data), result.stderr)
        with open(os.path.join(self.media, "short"), "wb") as file:
            file.write(self.film[:3 << 20])
        data, result = get(self.url + "/slow/short")
        self.assertEqual(0, result.returncode, result.stderr)
        self.assertEqual(digest(self.film[:3 << 20]), digest(data))
        self.assertGreater(time.monotonic() - started, 1.5)

    def test_a_connection_that_stays_open_leaves_the_client_waiting_for_its_stop(self):
        result = subprocess.run([STREAM_GET, DEV1, "8080", "/film", "6"], capture_output=True,
                                text=True, timeout=60, check=False)
        self.assertEqual(1, result.returncode)
        self.assertRegex(result.stdout, r"^status 200, \d+ bytes, stopped\n$")
        # All that is missing is less than one block.
        got = int(result.stdout.split()[2])
        self.assertLess(got, len(self.film))
        self.assertGreater(got, len(self.film) - 524288)

    def test_minidlna(self):
        device = Device("minidlna", "dev2", self.work)
        self.addCleanup(device.kill)
        location = device.start()

        def udns():
            found = subprocess.run([VEXCP, "discover", "--json", "--wait", "3"],
                                   capture_output=True, text=True, timeout=60, check=False)
            return [entry["udn"] for entry in json.loads(found.stdout or "[]")
                    if entry["location"] == location]
        udn, = wait_until(udns, LIMIT_S)

        def url():
            listing = subprocess.run([VEXCP, "browse", udn, "--depth", "4", "--json"],
                                     capture_output=True, text=True, timeout=60, check=False)
            urls = [piece.split('"')[1] for piece in listing.stdout.split('"url"')[1:]]
            return [one for one in urls if one.endswith(".wav")][:1]
        data, result = get(wait_until(url, LIMIT_S)[0])
        self.assertEqual(0, result.returncode, result.stderr)
        music = os.path.join(device.media, "music")
        with open(os.path.join(music, os.listdir(music)[0]), "rb") as file:
            self.assertEqual(digest(file.read()), digest(data))


class ServerTest(Peers):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.process = subprocess.Popen([VEXCP, "serve", "-q", "-i", "eth0", cls.media],
                                       stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
        cls.url = cls.process.stdout.readline().strip()

    @classmethod
    def tearDownClass(cls):
        cls.process.send_signal(signal.SIGINT)
        status = cls.process.wait(LIMIT_S)
        cls.process.stdout.close()
        if status != 0:
            raise AssertionError("vexcp serve ended with %d" % status)

    def fetch(self, *command):
        return subprocess.run(on_host("dev1", list(command)), capture_output=True, timeout=60,
                              check=False)

    def test_curl(self):
        result = self.fetch("curl", "-sSf", self.url + "film")
        self.assertEqual((0, digest(self.film)), (result.returncode, digest(result.stdout)),
                         result.stderr)
        result = self.fetch("curl", "-sSf", "-r", "1000000-1000009", self.url + "film")
        self.assertEqual(self.film[1000000:1000010], result.stdout)
        result = self.fetch("curl", "-sSI", self.url + "film")
        self.assertIn(b"HTTP/1.1 200 OK\r\n", result.stdout)
        self.assertIn(b"Content-Length: %d\r\n" % len(self.film), result.stdout)
        self.assertEqual(22, self.fetch("curl", "-sSf", self.url + "nothing").returncode)
        result = self.fetch("curl", "-sSf", "--http1.0", self.url + "film")
        self.assertEqual(digest(self.film), digest(result.stdout))

    def test_wget_whole_and_continued(self):
        name = os.path.join(self.work, "copy")
        result = self.fetch("wget", "-q", "-O", name, self.url + "film")
        self.assertEqual(0, result.returncode, result.stderr)
        with open(name, "rb") as file:
            self.assertEqual(digest(self.film), digest(file.read()))
        with open(name, "r+b") as file:
            file.truncate(5000001)
        result = self.fetch("wget", "-q", "-c", "-O", name, self.url + "film")
        self.assertEqual(0, result.returncode, result.stderr)
        with open(name, "rb") as file:
            self.assertEqual(digest(self.film), digest(file.read()))

    def test_ffprobe(self):
        name = os.listdir(os.path.join(self.media, "music"))[0]
        result = self.fetch("ffprobe", "-v", "error", "-show_format", "-show_streams", "-of", "json",
                            self.url + "music/" + urllib.request.quote(name))
        self.assertEqual(0, result.returncode, result.stderr)
        told = json.loads(result.stdout)
        self.assertEqual(("wav", 2.0), (told["format"]["format_name"],
                                        float(told["format"]["duration"])))
        self.assertEqual("8000", told["streams"][0]["sample_rate"])


if __name__ == "__main__":
    unittest.main()
