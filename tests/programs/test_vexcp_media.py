"""Media from the command line: fetching, serving, and letting a renderer play."""

import hashlib
import http.client
import os
import pty
import re
import select
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import unittest

from support import (BINARY_DIR, LIMIT_S, OWN_ADDRESS, ROOT, SimulatorTest, on_devices,
                     wait_until)

PROGRAM = os.path.join(BINARY_DIR, "vexcp")
TONE = os.path.join(ROOT, "apps", "vexsim", "devices", "mediaserver", "media", "tone.wav")


def run(*arguments, cwd=None):
    return subprocess.run([PROGRAM, *arguments], stdin=subprocess.DEVNULL, capture_output=True,
                          text=True, timeout=60, cwd=cwd)


def read_file(name):
    with open(name, "rb") as file:
        return file.read()


def some_bytes(count):
    return bytes(hashlib.sha256(str(i).encode()).digest()[0] for i in range(1024)) * (
        count // 1024) + b"e" * (count % 1024)


def open_files(pid):
    """The names of what a process has open; one that it is just closing may be missing."""
    folder = "/proc/%d/fd" % pid
    names = []
    for descriptor in os.listdir(folder):
        try:
            names.append(os.path.basename(os.readlink(os.path.join(folder, descriptor))))
        except FileNotFoundError:
            pass
    return names


class ScriptedServer:
    """Answers one connection after the other with what a function gives for the request."""

    def __init__(self, answer):
        self.answer = answer
        self.requests = []
        self.socket = socket.create_server(("127.0.0.1", 0))
        self.port = self.socket.getsockname()[1]
        self.thread = threading.Thread(target=self._serve)
        self.thread.start()

    def url(self, path="/file"):
        return "http://127.0.0.1:%d%s" % (self.port, path)

    def _serve(self):
        while True:
            try:
                connection, _ = self.socket.accept()
            except OSError:
                return
            with connection:
                request = b""
                while not request.endswith(b"\r\n\r\n"):
                    piece = connection.recv(65536)
                    if not piece:
                        break
                    request += piece
                self.requests.append(request.decode())
                try:
                    connection.sendall(self.answer(request.decode()))
                except OSError:
                    pass

    def stop(self):
        self.socket.shutdown(socket.SHUT_RDWR)
        self.socket.close()
        self.thread.join(LIMIT_S)


class MediaTest(SimulatorTest):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name

    def path(self, name):
        return os.path.join(self.folder, name)

    def write(self, name, data):
        os.makedirs(os.path.dirname(self.path(name)), exist_ok=True)
        with open(self.path(name), "wb") as file:
            file.write(data)
        return self.path(name)

    def script(self, answer):
        server = ScriptedServer(answer)
        self.addCleanup(server.stop)
        return server


class GetTest(MediaTest):
    def test_it_asks_politely_and_stores_what_comes(self):
        server = self.script(lambda _: b"HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello")
        result = run("get", server.url("/a%20b.txt?x=1"), cwd=self.folder)
        self.assertEqual(0, result.returncode, result.stderr)
        self.assertEqual(b"hello", read_file(self.path("a b.txt")))
        self.assertRegex(result.stderr, r"^a b.txt: 5 bytes in [0-9.]+ s, .*/s\n$")
        self.assertEqual("", result.stdout)
        self.assertEqual("GET /a%%20b.txt?x=1 HTTP/1.1\r\nAccept: */*\r\nAccept-Language: en-us\r\n"
                         "Connection: close\r\nHost: 127.0.0.1:%d\r\nUser-Agent: vexcp/1.0\r\n\r\n"
                         % server.port, server.requests[0])

    def test_to_the_standard_output(self):
        body = some_bytes(3000000)
        server = self.script(lambda _: b"HTTP/1.0 200 OK\r\n\r\n" + body)
        result = subprocess.run([PROGRAM, "get", server.url(), "-o", "-"], capture_output=True,
                                timeout=60)
        self.assertEqual(0, result.returncode)
        self.assertEqual(body, result.stdout)

    def test_continue_asks_for_the_rest_and_adds_it(self):
        server = self.script(lambda _: b"HTTP/1.1 206 Partial Content\r\nContent-Range: "
                             b"bytes 4-9/10\r\nContent-Length: 6\r\n\r\n456789")
        name = self.write("part", b"0123")
        result = run("get", server.url(), "-c", "-o", name)
        self.assertEqual(0, result.returncode, result.stderr)
        self.assertIn("\r\nRange: bytes=4-\r\n", server.requests[0])
        self.assertEqual(b"0123456789", read_file(name))

    def test_continue_takes_the_whole_from_a_server_without_ranges(self):
        server = self.script(lambda _: b"HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nwhole"[:-1])
        name = self.write("part", b"0123456789")
        self.assertEqual(0, run("get", server.url(), "-c", "-o", name).returncode)
        self.assertEqual(b"whol", read_file(name))

    def test_continue_of_a_complete_file_is_done(self):
        server = self.script(lambda _: b"HTTP/1.1 416 Range Not Satisfiable\r\nContent-Range: "
                             b"bytes */4\r\nContent-Length: 0\r\n\r\n")
        name = self.write("part", b"0123")
        result = run("get", server.url(), "-c", "-o", name)
        self.assertEqual(0, result.returncode, result.stderr)
        self.assertIn("complete already", result.stderr)

    def test_an_answer_for_another_range_is_not_stored(self):
        server = self.script(lambda _: b"HTTP/1.1 206 Partial Content\r\nContent-Range: "
                             b"bytes 0-9/10\r\nContent-Length: 10\r\n\r\n0123456789")
        name = self.write("part", b"abcd")
        result = run("get", server.url(), "-c", "-o", name)
        self.assertEqual(6, result.returncode)
        self.assertEqual(b"abcd", read_file(name))

    def test_a_server_that_sends_less_than_was_asked_for_is_asked_for_the_rest(self):
        body = some_bytes(100)

        def answer(request):
            offset = int(re.search(r"Range: bytes=(\d+)-", request)[1])
            piece = body[offset:offset + 6]
            return (b"HTTP/1.1 206 Partial Content\r\nContent-Range: bytes %d-%d/100\r\n"
                    b"Content-Length: %d\r\n\r\n" % (offset, offset + len(piece) - 1, len(piece))
                    + piece)

        server = self.script(answer)
        name = self.write("part", body[:4])
        result = run("get", server.url(), "-c", "-o", name)
        self.assertEqual(0, result.returncode, result.stderr)
        self.assertIn("100 bytes", result.stderr)
        self.assertEqual(body, read_file(name))
        self.assertEqual(16, len(server.requests))

    def test_a_part_is_not_taken_for_the_whole(self):
        answers = [b"HTTP/1.1 206 Partial Content\r\nContent-Range: bytes 4-9/100\r\n"
                   b"Content-Length: 6\r\n\r\n456789", b"HTTP/1.1 404 Not Found\r\n\r\n"]
        server = self.script(lambda _: answers[len(server.requests) - 1])
        name = self.write("part", b"0123")
        result = run("get", server.url(), "-c", "-o", name)
        self.assertEqual((5, "vexcp: the server answered with status 404\n"),
                         (result.returncode, result.stderr))
        self.assertEqual(b"0123456789", read_file(name))
        self.assertIn("\r\nRange: bytes=10-\r\n", server.requests[1])

    def test_parts_of_a_file_that_has_changed_are_not_put_together(self):
        changed = {"/longer": b"206 Partial Content\r\nContent-Range: bytes 4-11/12\r\n\r\n"
                              b"45678901",
                   "/shorter": b"206 Partial Content\r\nContent-Range: bytes 4-5/6\r\n\r\n45",
                   "/cut": b"416 Range Not Satisfiable\r\nContent-Range: bytes */4\r\n\r\n"}
        server = self.script(
            lambda request: b"HTTP/1.1 " + (changed[request.split()[1]] if "Range" in request else
                                            b"200 OK\r\nContent-Length: 10\r\n\r\n0123"))
        for path in changed:
            result = run("get", server.url(path), "-o", self.path("file"))
            self.assertEqual(6, result.returncode, path)
            self.assertIn("has changed", result.stderr)
            self.assertEqual(b"0123", read_file(self.path("file")))

    def test_a_file_that_has_changed_may_come_anew_as_a_whole(self):
        answers = [b"HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n0123",
                   b"HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\nnew"]
        server = self.script(lambda _: answers[len(server.requests) - 1])
        result = run("get", server.url(), "-o", self.path("file"))
        self.assertEqual(0, result.returncode, result.stderr)
        self.assertEqual(b"new", read_file(self.path("file")))

    def test_a_range_that_cannot_be_is_not_stored(self):
        server = self.script(lambda _: b"HTTP/1.1 206 Partial Content\r\nContent-Range: "
                             b"bytes 4-9/8\r\nContent-Length: 6\r\n\r\n456789")
        name = self.write("part", b"abcd")
        self.assertEqual(6, run("get", server.url(), "-c", "-o", name).returncode)
        self.assertEqual(b"abcd", read_file(name))

    def test_a_transfer_that_breaks_off_goes_on_by_itself(self):
        body = some_bytes(2000000)

        def answer(request):
            offset = int((re.search(r"Range: bytes=(\d+)-", request) or [0, 0])[1])
            rest = body[offset:]
            status = ("206 Partial Content\r\nContent-Range: bytes %d-1999999/2000000" % offset
                      if offset else "200 OK")
            head = "HTTP/1.1 %s\r\nContent-Length: %d\r\n\r\n" % (status, len(rest))
            return head.encode() + rest[:900000]

        server = self.script(answer)
        result = run("get", server.url(), "-o", self.path("file"))
        self.assertEqual(0, result.returncode, result.stderr)
        self.assertEqual(body, read_file(self.path("file")))
        self.assertEqual(3, len(server.requests))

    def test_a_transfer_that_stays_broken_is_told(self):
        server = self.script(lambda request: b"HTTP/1.1 200 OK\r\nContent-Length: 50\r\n\r\nhalf"
                             if "Range" not in request else b"")
        result = run("get", server.url(), "-o", self.path("file"))
        self.assertEqual(5, result.returncode)
        self.assertEqual(b"half", read_file(self.path("file")))
        result = run("get", server.url(), "--tries", "1", "-o", self.path("file"))
        self.assertEqual(6, result.returncode)
        self.assertIn("broke off after 4 of 50 bytes", result.stderr)

    def test_refusals_and_redirects(self):
        def answer(request):
            if "/moved" in request:
                return b"HTTP/1.1 302 Found\r\nLocation: /here\r\nContent-Length: 0\r\n\r\n"
            if "/here" in request:
                return b"HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok"
            if "/ring" in request:
                return b"HTTP/1.1 302 Found\r\nLocation: ring\r\nContent-Length: 0\r\n\r\n"
            if "/odd" in request:
                return b"ICY 200 OK\r\n\r\n"
            return b"HTTP/1.1 404 Not Found\r\nContent-Length: 4\r\n\r\nnone"

        server = self.script(answer)
        file = self.path("file")
        self.assertEqual(0, run("get", server.url("/moved"), "-o", file).returncode)
        self.assertEqual(b"ok", read_file(file))
        result = run("get", server.url("/gone"), "-o", file)
        self.assertEqual((5, "vexcp: the server answered with status 404\n"),
                         (result.returncode, result.stderr))
        self.assertEqual(5, run("get", server.url("/ring"), "-o", file).returncode)
        result = run("get", server.url("/odd"), "-o", file)
        self.assertEqual(5, result.returncode)
        self.assertIn("no HTTP", result.stderr)

    def test_a_file_keeps_what_it_holds_until_there_is_something_to_put_in_its_place(self):
        answers = {"/gone": b"HTTP/1.1 404 Not Found\r\nContent-Length: 4\r\n\r\nnone",
                   "/short": b"HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\nnew",
                   "/part": b"HTTP/1.1 206 Partial Content\r\nContent-Range: bytes 0-1/2\r\n"
                            b"Content-Length: 2\r\n\r\nit"}
        server = self.script(lambda request: answers[request.split()[1]])
        name = self.write("file", b"from before")
        self.assertEqual(5, run("get", server.url("/gone"), "-o", name).returncode)
        self.assertEqual(5, run("get", "http://127.0.0.1:9/", "-o", name).returncode)
        self.assertEqual(b"from before", read_file(name))
        self.assertEqual(0, run("get", server.url("/short"), "-o", name).returncode)
        self.assertEqual(b"new", read_file(name))
        self.assertEqual(0, run("get", server.url("/part"), "-o", name).returncode)
        self.assertEqual(b"it", read_file(name))

    def test_what_cannot_work_says_why(self):
        for url, why in (("ftp://host/", "http://"), ("http:///x", "no host"),
                         ("http://a:70000/", "1 to 65535"), ("http://[::1]/", "IPv4")):
            result = run("get", url, "-o", self.path("file"))
            self.assertEqual(2, result.returncode, url)
            self.assertIn(why, result.stderr)
        result = run("get", "http://127.0.0.1:9/", "-o", self.path("file"))
        self.assertEqual(5, result.returncode)
        self.assertIn("cannot be reached", result.stderr)
        result = run("get", "http://no-such-host.invalid/", "-o", self.path("file"))
        self.assertEqual((5, "vexcp: no-such-host.invalid cannot be reached: there is no such host\n"),
                         (result.returncode, result.stderr))
        result = run("get", "http://127.0.0.1:9/", "-o", self.path("no/such/folder"))
        self.assertEqual(2, result.returncode)
        server = self.script(lambda _: b"HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello")
        result = run("get", server.url(), "-o", "/dev/full")
        self.assertEqual(6, result.returncode)
        self.assertIn("No space left", result.stderr)

    def test_a_terminal_sees_a_bar_with_rate_and_remaining_time(self):
        def answer(_):
            return b"HTTP/1.1 200 OK\r\nContent-Length: 4000000\r\n\r\n" + bytes(4000000)

        server = self.script(answer)
        master, terminal = pty.openpty()
        process = subprocess.Popen([PROGRAM, "get", server.url(), "-o", self.path("file")],
                                   stdin=subprocess.DEVNULL, stdout=terminal, stderr=terminal)
        os.close(terminal)
        text = b""
        while select.select([master], [], [], LIMIT_S)[0]:
            try:
                text += os.read(master, 65536)
            except OSError:
                break
        self.assertEqual(0, process.wait(LIMIT_S))
        os.close(master)
        self.assertRegex(text.decode(), r"\r\[=+\] 100%  4\.0 MB  [0-9.]+ .?B/s  0:00 left")


class Served:
    """A running `vexcp serve`."""

    def __init__(self, *arguments):
        self.process = subprocess.Popen([PROGRAM, "serve", "--interface", "eth0", *arguments],
                                        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
        self.url = self.process.stdout.readline().strip()

    def stop(self):
        self.process.send_signal(signal.SIGINT)
        self.rest = self.process.stdout.read()
        self.process.stdout.close()
        return self.process.wait(LIMIT_S)


class ServeTest(MediaTest):
    def serve(self, *arguments):
        served = Served(*arguments)
        self.addCleanup(lambda: served.process.poll() is None and served.stop())
        self.assertRegex(served.url, r"^http://10\.78\.0\.1:\d+/")
        return served

    def ask(self, url, method="GET", **headers):
        host, _, path = url[len("http://"):].partition("/")
        connection = http.client.HTTPConnection(host, timeout=LIMIT_S)
        connection.request(method, "/" + path, headers=headers)
        answer = connection.getresponse()
        body = answer.read()
        connection.close()
        return answer.status, dict(answer.getheaders()), body

    def test_a_file_with_ranges_and_head(self):
        body = some_bytes(1500000)
        served = self.serve(self.write("film & more.mp4", body))
        self.assertTrue(served.url.endswith("/film%20&%20more.mp4"), served.url)
        status, headers, got = self.ask(served.url)
        self.assertEqual((200, True), (status, body == got))
        self.assertEqual(("video/mp4", "1500000", "bytes", "close"),
                         (headers["Content-Type"], headers["Content-Length"],
                          headers["Accept-Ranges"], headers["Connection"]))
        status, headers, got = self.ask(served.url, "HEAD")
        self.assertEqual((200, "1500000", b""), (status, headers["Content-Length"], got))
        for asked, first, last in (("bytes=0-0", 0, 0), ("bytes=1000000-", 1000000, 1499999),
                                   ("bytes=-7", 1499993, 1499999), ("bytes=5-9999999", 5, 1499999),
                                   ("bytes=524287-524289", 524287, 524289),
                                   ("bytes=-9999999", 0, 1499999)):
            status, headers, got = self.ask(served.url, Range=asked)
            self.assertEqual((206, "bytes %d-%d/1500000" % (first, last)),
                             (status, headers["Content-Range"]), asked)
            self.assertTrue(body[first:last + 1] == got, asked)
        for asked in ("bytes=1500000-", "bytes=-0"):
            status, headers, got = self.ask(served.url, Range=asked)
            self.assertEqual((416, "bytes */1500000", b""), (status, headers["Content-Range"], got))
        for asked in ("bytes=2-1", "bytes=a-b", "lines=1-2", "bytes=0-1,3-4"):
            self.assertEqual(200, self.ask(served.url, Range=asked)[0], asked)
        self.assertEqual(404, self.ask(served.url + "x")[0])
        self.assertEqual(0, served.stop())
        self.assertIn("GET /film%20&%20more.mp4  206  bytes 0-0/1500000\n", served.rest)

    def test_the_whole_tree_is_served(self):
        served = self.serve("/")
        status, _, got = self.ask(served.url + self.write("tone", b"below the root")[1:])
        self.assertEqual((200, b"below the root"), (status, got))
        self.assertEqual(200, self.ask(served.url)[0])
        self.assertEqual(404, self.ask(served.url + "no/such/file")[0])

    def test_a_folder_and_nothing_outside(self):
        self.write("outside.txt", b"secret")
        self.write("in/a.mp3", b"music")
        self.write("in/empty", b"")
        self.write("in/sub/b.PNG", b"picture")
        os.symlink(self.path("outside.txt"), self.path("in/link"))
        served = self.serve(self.path("in"))
        status, headers, page = self.ask(served.url)
        self.assertEqual((200, "text/html; charset=utf-8"), (status, headers["Content-Type"]))
        self.assertIn(b'<a href="./a.mp3">a.mp3</a>', page)
        self.assertIn(b'<a href="./sub/">sub/</a>', page)
        status, headers, got = self.ask(served.url + "a.mp3")
        self.assertEqual((200, "audio/mpeg", b"music"), (status, headers["Content-Type"], got))
        status, headers, got = self.ask(served.url + "sub/b%2EPNG")
        self.assertEqual(("image/png", b"picture"), (headers["Content-Type"], got))
        status, headers, got = self.ask(served.url + "empty")
        self.assertEqual((200, "0", b""), (status, headers["Content-Length"], got))
        for path in ("../outside.txt", "%2e%2e/outside.txt", "link", "nothing", "sub/../../outside.txt"):
            status, _, got = self.ask(served.url + path)
            self.assertEqual((404, b""), (status, got), path)
        status, headers, _ = self.ask(served.url, "POST")
        self.assertEqual((405, "GET, HEAD"), (status, headers["Allow"]))

    def test_many_clients_at_a_time(self):
        body = some_bytes(20000000)
        served = self.serve(self.write("big", body), "--quiet")
        digest = hashlib.md5(body).hexdigest()
        fetch = ("import hashlib, sys, urllib.request, concurrent.futures as f\n"
                 "get = lambda _: hashlib.md5(urllib.request.urlopen(sys.argv[1]).read()).hexdigest()\n"
                 "print(set(f.ThreadPoolExecutor(10).map(get, range(10))))\n")
        result = subprocess.run(on_devices([sys.executable, "-c", fetch, served.url]),
                                capture_output=True, text=True, timeout=60)
        self.assertEqual("{'%s'}\n" % digest, result.stdout, result.stderr)
        self.assertEqual(0, served.stop())
        self.assertEqual("", served.rest)

    def test_clients_that_leave_early_disturb_nobody(self):
        body = some_bytes(5000000)
        served = self.serve(self.write("big", body))
        host, port = re.match(r"http://([0-9.]+):(\d+)", served.url).groups()
        for _ in range(20):
            with socket.create_connection((host, int(port)), timeout=LIMIT_S) as connection:
                connection.sendall(b"GET /big HTTP/1.1\r\n\r\n")
                connection.recv(1000)
        self.assertTrue(body == self.ask(served.url)[2])
        self.assertTrue(wait_until(lambda: "big" not in open_files(served.process.pid)))

    def test_a_file_that_becomes_shorter_ends_early_and_harms_nobody(self):
        self.write("other", b"still here")
        name = self.write("big", bytes(80000000))
        served = self.serve(self.folder)
        host, port = re.match(r"http://([0-9.]+):(\d+)", served.url).groups()
        with socket.create_connection((host, int(port)), timeout=LIMIT_S) as connection:
            connection.sendall(b"GET /big HTTP/1.1\r\n\r\n")
            self.assertTrue(connection.recv(1000).startswith(b"HTTP/1.1 200 OK"))
            os.truncate(name, 0)
            got = 0
            try:
                while piece := connection.recv(1 << 20):
                    got += len(piece)
            except ConnectionResetError:
                pass
        self.assertLess(got, 80000000)
        self.assertEqual(b"still here", self.ask(served.url + "other")[2])
        self.assertEqual(0, served.stop())

    def test_what_cannot_be_served_says_why(self):
        result = run("serve", self.path("nothing"), "--interface", "eth0")
        self.assertEqual(2, result.returncode)
        self.assertIn("No such file", result.stderr)
        self.assertEqual(3, run("serve", self.folder, "--interface", "eth7").returncode)
        with socket.create_server((OWN_ADDRESS, 65535)):
            result = run("serve", self.folder, "--interface", "eth0", "--port", "65535")
        self.assertEqual((4, "", "vexcp: no server could be opened on port 65535 or on one of the "
                                 "hundred from there on\n"),
                         (result.returncode, result.stdout, result.stderr))

    def test_what_is_served_is_fetched(self):
        body = some_bytes(3333333)
        served = self.serve(self.write("film.mkv", body))
        self.assertEqual(0, run("get", served.url, "-o", self.path("copy")).returncode)
        self.assertTrue(body == read_file(self.path("copy")))
        with open(self.path("copy"), "r+b") as file:
            file.truncate(1234567)
        self.assertEqual(0, run("get", served.url, "-c", "-o", self.path("copy")).returncode)
        self.assertTrue(body == read_file(self.path("copy")))
        served.stop()
        self.assertIn("206  bytes 1234567-3333332/3333333", served.rest)


class DevicesTest(MediaTest):
    def test_media_of_a_server_arrive_whole(self):
        simulator = self.simulate("mediaserver")
        location = simulator.device()["locations"][0]
        base = location[:location.rindex("/")]
        url = base + "/media/tone.wav"
        result = run("get", url, "-o", self.path("tone.wav"))
        self.assertEqual(0, result.returncode, result.stderr)
        self.assertEqual(read_file(TONE), read_file(self.path("tone.wav")))

    def test_a_renderer_plays_a_file(self):
        simulator = self.simulate("renderer", "--answers", "burst")
        udn = simulator.device()["udns"][0]
        file = self.write("tone & <more>.wav", read_file(TONE))
        process = subprocess.Popen([PROGRAM, "push", "--interface", "eth0", udn, file],
                                   stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
        line = process.stdout.readline()
        match = re.match(r"Renderer plays (http://10\.78\.0\.1:\d+/\S+); Ctrl-C ends it\n", line)
        self.assertTrue(match, line)
        fetched = subprocess.run(
            on_devices([sys.executable, "-c",
                        "import sys, urllib.request as u\n"
                        "sys.stdout.buffer.write(u.urlopen(sys.argv[1]).read())", match[1]]),
            capture_output=True, timeout=60)
        self.assertEqual(read_file(TONE), fetched.stdout, fetched.stderr)
        info = run("call", "--interface", "eth0", "--json", udn, "AVTransport", "GetPositionInfo",
                   "InstanceID=0")
        self.assertIn(match[1], info.stdout)
        self.assertIn("tone &amp; &lt;more&gt;", info.stdout)
        state = run("call", "--interface", "eth0", udn, "AVTransport", "GetTransportInfo",
                    "InstanceID=0")
        self.assertIn("PLAYING", state.stdout)
        process.send_signal(signal.SIGINT)
        self.assertEqual(0, process.wait(LIMIT_S))
        process.stdout.close()

    def test_a_device_that_is_no_renderer_is_told(self):
        simulator = self.simulate("lamp", "--answers", "burst")
        result = run("push", "--interface", "eth0", simulator.device()["udns"][0], TONE)
        self.assertEqual(1, result.returncode)
        self.assertIn("AVTransport", result.stderr)


if __name__ == "__main__":
    unittest.main()
