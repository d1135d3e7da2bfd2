#!/usr/bin/env python3
"""Independent UPnP programs as devices of the laboratory, each on a host of its own.

  devices.py NAME HOST    starts one, prints its description URL and waits for Ctrl-C
                          NAME: minidlna gerbera rygel light    HOST: dev1 .. dev4
"""

import http.client
import math
import os
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time
import urllib.request
import wave

HOSTS = {"dev1": ["10.90.1.11"], "dev2": ["10.90.1.12"], "dev3": ["10.90.2.13"],
         "dev4": ["10.90.1.14", "10.90.2.14"]}
MEDIA_SERVER = "urn:schemas-upnp-org:device:MediaServer:1"
MEDIA_RENDERER = "urn:schemas-upnp-org:device:MediaRenderer:1"
DIMMABLE_LIGHT = "urn:schemas-upnp-org:device:DimmableLight:1"
LIMIT_S = 40.0

MINIDLNA = """media_dir={media}
db_dir={work}/db
log_dir={work}
network_interface={interfaces}
port=8200
friendly_name=Lab miniDLNA &amp; friends {host}
uuid={uuid}
inotify=no
notify_interval=60
"""

RYGEL = """[general]
ipv6=false
interface={interfaces}
port=0
enable-transcoding=false
log-level=*:4
allow-upload=false
allow-deletion=false
[MediaExport]
enabled=true
title=Lab rygel server {host}
uris={media}
monitor-changes=true
monitor-grace-timeout=1
[Playbin]
enabled=true
title=Lab rygel renderer {host}
audio-sink=fakesink sync=true
video-sink=fakesink sync=true
[External]
enabled=false
[MPRIS]
enabled=false
[Tracker3]
enabled=false
"""


def on_host(host, arguments):
    return ["nsenter", "--net=/run/netns/" + host, "--"] + arguments


def make_media(folder):
    """One sound, whose name carries an ampersand and an accent."""
    os.makedirs(os.path.join(folder, "music"), exist_ok=True)
    with wave.open(os.path.join(folder, "music", "tone & t\u00e9.wav"), "wb") as sound:
        sound.setnchannels(1)
        sound.setsampwidth(2)
        sound.setframerate(8000)
        sound.writeframes(b"".join(struct.pack("<h", int(9000 * math.sin(i / 4)))
                                   for i in range(16000)))


def ask_location(address, target, port=""):
    """The description URL that the device at an address tells for a target, or None. To be called
    on the control point's host."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        probe.connect((address, 9))
        own = probe.getsockname()[0]
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as client:
        client.bind((own, 0))
        client.sendto(('M-SEARCH * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\n'
                       'MAN: "ssdp:discover"\r\nMX: 1\r\nST: %s\r\n\r\n' % target).encode(),
                      ("239.255.255.250", 1900))
        end = time.monotonic() + 1.3
        while time.monotonic() < end:
            client.settimeout(max(end - time.monotonic(), 0.01))
            try:
                data = client.recv(8192)
            except socket.timeout:
                break
            for line in data.decode("latin-1").split("\r\n"):
                name, _, value = line.partition(":")
                if name.strip().lower() == "location" and "//%s:%s" % (address, port) in value:
                    return value.strip()
    return None


class Device:
    """A device program: started, ended in order (it says byebye if it ever does) or killed."""

    def __init__(self, name, host, work):
        self.name = name
        self.host = host
        self.address = HOSTS[host][0]
        self.interfaces = ["eth%d" % n for n in range(len(HOSTS[host]))]
        self.work = os.path.join(work, name + "-" + host)
        self.media = os.path.join(work, "media")
        self.process = None
        self.location = None
        os.makedirs(os.path.join(self.work, "xdg"), mode=0o700, exist_ok=True)
        make_media(self.media)

    def start(self):
        try:
            return self._start()
        except RuntimeError:
            # Programs that want a display, a bus or a port may meet others of their kind.
            self.kill()
            return self._start()

    def _start(self):
        command, target, port = getattr(self, "_" + self.name)()
        xdg = os.path.join(self.work, "xdg")
        environment = dict(os.environ, HOME=self.work, XDG_RUNTIME_DIR=xdg, XDG_CACHE_HOME=xdg,
                           XDG_CONFIG_HOME=xdg)
        with open(os.path.join(self.work, "log"), "ab") as log:
            self.process = subprocess.Popen(
                on_host(self.host, command), cwd=self.work, env=environment,
                stdin=subprocess.DEVNULL, stdout=log, stderr=log, start_new_session=True)
        self.location = self._wait_until_served(target, port)
        return self.location

    def location_of(self, target, address=None):
        """The description URL of another root device of the program, or of the same one at another
        address of its host."""
        found = []

        def served():
            found[:] = [ask_location(address or self.address, target)]
            return found[0] and self._is_served(found[0])
        self._wait_until(served, LIMIT_S)
        if not found[0]:
            raise RuntimeError("%s on %s has no %s:\n%s" % (self.name, self.host, target, self.log()))
        return found[0]

    def stop(self):
        """The device program first and alone, so that it can say byebye; then its helpers."""
        if self.process is None:
            return
        for process in self._device_processes():
            os.kill(process, signal.SIGTERM)
        self._wait_until(lambda: not self._device_processes(), 10)
        self.kill()

    def kill(self):
        """Everything at once, without a word."""
        if self.process is None:
            return
        # dbus-run-session and xvfb-run put what they start into groups of their own.
        family = self._family()
        try:
            os.killpg(self.process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        for process in family:
            try:
                os.kill(process, signal.SIGKILL)
            except ProcessLookupError:
                pass
        self.process.wait(LIMIT_S)
        self.process = None

    def log(self):
        with open(os.path.join(self.work, "log"), "rb") as log:
            return log.read()[-2000:].decode("utf-8", "replace")

    def _wait_until_served(self, target, port):
        end = time.monotonic() + LIMIT_S
        while time.monotonic() < end:
            if self.process.poll() is not None:
                raise RuntimeError("%s ended:\n%s" % (self.name, self.log()))
            location = ask_location(self.address, target, port)
            if location and self._is_served(location):
                return location
            time.sleep(0.2)
        raise RuntimeError("%s on %s is not ready:\n%s" % (self.name, self.host, self.log()))

    @staticmethod
    def _is_served(location):
        try:
            urllib.request.urlopen(location, timeout=5).close()
        except (OSError, http.client.HTTPException):
            return False
        return True

    @staticmethod
    def _wait_until(condition, limit):
        end = time.monotonic() + limit
        while not condition() and time.monotonic() < end:
            time.sleep(0.05)

    def _family(self):
        """Every process of the host that was started from here, children first."""
        found = []

        def walk(pid):
            try:
                tasks = os.listdir("/proc/%d/task" % pid)
            except FileNotFoundError:
                return
            for task in tasks:
                try:
                    with open("/proc/%d/task/%s/children" % (pid, task), encoding="ascii") as list_:
                        children = [int(child) for child in list_.read().split()]
                except (FileNotFoundError, ProcessLookupError):
                    continue
                for child in children:
                    walk(child)
            found.append(pid)

        if self.process is not None:
            walk(self.process.pid)
        return found

    def _device_processes(self):
        wanted = {"minidlna": "minidlnad", "light": "gupnp-network-l"}.get(self.name, self.name)
        matching = []
        for pid in self._family():
            try:
                with open("/proc/%d/comm" % pid, encoding="ascii") as comm:
                    name = comm.read().strip()
                with open("/proc/%d/stat" % pid, encoding="ascii") as stat:
                    state = stat.read().rpartition(")")[2].split()[0]
            except (FileNotFoundError, ProcessLookupError):
                continue
            if name == wanted and state != "Z":
                matching.append(pid)
        return matching

    def _uuid(self):
        return "4d696e69-0000-4000-8000-%s" % self.host.encode().hex().rjust(12, "0")

    def _fill(self, template, separator=","):
        return template.format(media=self.media, work=self.work, host=self.host, uuid=self._uuid(),
                               interfaces=separator.join(self.interfaces))

    def _write(self, name, text):
        path = os.path.join(self.work, name)
        with open(path, "w", encoding="utf-8") as file:
            file.write(text)
        return path

    def _minidlna(self):
        conf = self._write("conf", self._fill(MINIDLNA))
        pid_file = os.path.join(self.work, "minidlna.pid")
        if os.path.exists(pid_file):
            os.remove(pid_file)
        return ["minidlnad", "-d", "-R", "-f", conf, "-P", pid_file], MEDIA_SERVER, "8200"

    def _gerbera(self):
        folder = os.path.join(self.work, "cfg")
        os.makedirs(folder, exist_ok=True)
        with open("/etc/gerbera/config.xml", encoding="utf-8") as file:
            text = file.read()
        for tag, value in (("home", folder), ("name", "Lab gerbera &amp; co " + self.host)):
            head, _, rest = text.partition("<%s>" % tag)
            text = head + "<%s>%s</%s>" % (tag, value, tag) + rest.partition("</%s>" % tag)[2]
        text = text.replace("<udn/>", "<udn>uuid:%s</udn>" % self._uuid())
        self._write("cfg/config.xml", text)
        # It serves one interface: --interface and --ip can be given once ("currently we can only bind
        # to one interface at a time", gerbera(1)). So it is no device on both networks of dev4.
        return (["gerbera", "-c", os.path.join(folder, "config.xml"), "-m", self.work, "-f", "cfg",
                 "-e", "eth0", "-p", "49152", "-a", self.media], MEDIA_SERVER, "49152")

    def _rygel(self):
        # One process, two root devices: a media server and a media renderer.
        self._write("xdg/rygel.conf", self._fill(RYGEL, ";"))
        return ["dbus-run-session", "--", "rygel"], MEDIA_SERVER, ""

    def _light(self):
        # A program with a window, so it gets a display nobody sees.
        return (["xvfb-run", "-a", "dbus-run-session", "--", "gupnp-network-light", "-p", "49700"],
                DIMMABLE_LIGHT, "49700")


def main():
    if len(sys.argv) != 3 or sys.argv[2] not in HOSTS:
        sys.exit(__doc__)
    work = tempfile.mkdtemp(prefix="vex-lab-")
    device = Device(sys.argv[1], sys.argv[2], work)
    try:
        print(device.start(), flush=True)
        signal.pause()
    except KeyboardInterrupt:
        pass
    finally:
        device.stop()
        shutil.rmtree(work)


if __name__ == "__main__":
    main()
