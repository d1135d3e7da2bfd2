"""A house of simulated devices in several processes, which come, go, die and stop for a while.

What is told of each device is known here: which are alive, and how many changes each has made.
"""

import json
import os
import random
import shlex
import shutil
import signal
import subprocess
import time

KINDS = ("lamp", "generated", "mediaserver", "renderer", "lamp", "generated", "lamp", "lamp",
         "mediaserver", "generated")
# The variable that tells numbered changes.
COUNTED = {"lamp": "Dimming.LoadLevelStatus", "generated": "Level1.Level"}
# Long enough for a device that is stopped when the renewal falls due.
SUBSCRIPTION_S = 120
LONGEST_STOP_S = 12.0


def on_devices(arguments):
    return shlex.split(os.environ["ON_DEVICES"]) + arguments


def end_process(process):
    """Kills a process, unless it has ended, and closes what led to it."""
    process.kill()
    process.wait()
    try:
        process.stdin.close()
    except BrokenPipeError:
        pass  # What was still to be written has nobody to read it.
    process.stdout.close()


class Device:
    def __init__(self, simulator, entry):
        self.simulator = simulator
        self.id = entry["id"]
        self.kind = entry["folder"]
        self.udn = entry["udns"][0]
        self.alive = True
        self.changes = 0

    def change(self):
        """Makes the next numbered change, stamped with its time."""
        self.changes += 1
        self.simulator.ask("set %d %s %d@%d" % (self.id, COUNTED[self.kind], self.changes,
                                                time.monotonic_ns()))


class Simulator:
    """One vexsim process; its first device is a generated one."""

    def __init__(self, house, seed):
        self.house = house
        self.stopped = False
        command = [os.path.join(house.build, "vexsim"), "generated", "--services", "1", "--json",
                   "--exit-with-stdin", "--silent-exit", "--interface", "eth0", "--seed", seed,
                   "--announce-interval", "60"]
        self.process = subprocess.Popen(on_devices(command), stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, text=True)
        self.devices = []
        try:
            self.process.stdout.readline()
            self.ask("events timeout=%d" % SUBSCRIPTION_S)
            self.note_new()
        except BaseException:
            self.kill()
            raise

    def ask(self, command):
        self.process.stdin.write(command + "\n")
        self.process.stdin.flush()
        answer = json.loads(self.process.stdout.readline())
        if not answer["ok"]:
            raise RuntimeError("%s: %s" % (command, answer["error"]))
        return answer

    def note_new(self):
        known = {device.id for device in self.devices}
        new = [Device(self, entry) for entry in self.ask("list")["devices"]
               if entry["id"] not in known]
        self.devices += new
        return new

    def add(self, kind):
        """One more device; the time is that of its switching on."""
        begun = time.monotonic_ns()
        folder = self.house.media_folder if kind == "mediaserver" else kind
        self.ask("add %s services=1" % folder)
        for device in self.note_new():
            self.house.joined(device, begun)

    def remove(self, device):
        self.devices.remove(device)
        device.alive = False
        self.ask("remove %d" % device.id)

    def kill_device(self, device):
        device.alive = False
        self.ask("kill %d" % device.id)

    def revive(self, device):
        begun = time.monotonic_ns()
        device.changes = 0
        device.alive = True
        self.ask("revive %d" % device.id)
        self.house.joined(device, begun)

    def end(self, how):
        """How: "byebye", "silent" or "killed"."""
        for device in self.devices:
            device.alive = False
        try:
            if how == "byebye":
                self.ask("remove all")
            if how != "killed":
                self.process.stdin.close()
                self.process.wait(20)
        finally:
            self.kill()

    def kill(self):
        """Whatever state it is in; it may have ended already."""
        end_process(self.process)


class SimulatedHouse:
    """`size` devices: 40 in 100 never die, 10 stop for seconds, the others come and go."""

    def __init__(self, build, size, work, speed, seed):
        self.build = build
        self.speed = speed
        self.random = random.Random(seed)
        self.on_join = lambda device, begun: None
        self.is_gone = lambda udn: False
        self.home = self.sleeper = self.rooms = None
        self.guests = []
        self.guest_size = max(size * 5 // 100, 1)
        # The kind of the device that moved out of the rooms last.
        self._empty_place = None
        self._guest_number = 0
        self._make_media_folder(work)
        try:
            self._people(size)
        except BaseException:
            self.kill()
            raise
        now = time.monotonic()
        self._due = {"change": now, "room": now, "guest": now, "stop": now}
        self._wake_at = None
        self.events = {"joined": 0, "byebye": 0, "died": 0, "revived": 0, "stopped": 0,
                       "changes": 0}

    def _people(self, size):
        self.home = self._process("home", size * 40 // 100)
        self.sleeper = self._process("sleeper", size * 10 // 100, ("lamp", "generated"))
        self.rooms = self._process("rooms", size * 30 // 100)
        for _ in range(4):
            self._invite()

    def _make_media_folder(self, work):
        """The media server's folder with a file of some blocks, and the file by itself."""
        source = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "apps",
                              "vexsim", "devices", "mediaserver")
        self.media_folder = os.path.join(work, "mediaserver")
        shutil.copytree(source, self.media_folder)
        self.media_file = os.path.join(self.media_folder, "media", "tone.wav")
        with open(self.media_file, "wb") as file:
            file.write(random.Random(7).randbytes(700001))

    def _process(self, seed, size, kinds=KINDS):
        simulator = Simulator(self, seed)
        try:
            for number in range(1, size):
                simulator.add(kinds[number % len(kinds)])
        except BaseException:
            simulator.kill()
            raise
        return simulator

    def _invite(self):
        self._guest_number += 1
        self.guests.append(self._process("guest%d" % self._guest_number, self.guest_size))

    def joined(self, device, begun):
        if hasattr(self, "events"):
            self.events["joined"] += 1
        self.on_join(device, begun)

    def simulators(self):
        own = [self.home, self.sleeper, self.rooms]
        return [simulator for simulator in own + self.guests if simulator is not None]

    def alive(self):
        return [device for simulator in self.simulators() for device in simulator.devices
                if device.alive]

    def live(self):
        """Does what is due; to be called a few dozen times a second."""
        self._wake()
        for name, pause, action in (("change", 0.05, self._change),
                                    ("room", 5.0, self._change_room),
                                    ("guest", 25.0, self._change_guest),
                                    ("stop", 40.0, self._stop)):
            if time.monotonic() < self._due[name]:
                continue
            # The number of changes stays as it is: they load the library, the others change it.
            speed = 1.0 if name == "change" else self.speed
            self._due[name] = time.monotonic() + pause / speed * self.random.uniform(0.5, 1.5)
            action()

    def _change(self):
        devices = [device for device in self.alive()
                   if device.kind in COUNTED and not device.simulator.stopped]
        self.random.choice(devices).change()
        self.events["changes"] += 1

    def _change_room(self):
        """Somebody leaves, dies, comes back or moves in."""
        dead = [device for device in self.rooms.devices if not device.alive]
        alive = [device for device in self.rooms.devices if device.alive]
        back = [device for device in dead if self.is_gone(device.udn)]
        if back:
            self.events["revived"] += 1
            self.rooms.revive(self.random.choice(back))
        elif self._empty_place:
            # Of the same kind as the one that left: a renderer's descriptions take 35 KiB and a
            # generated device's two, and the house is to weigh the same at all times.
            self.rooms.add(self._empty_place)
            self._empty_place = None
        elif self.random.random() < 0.5 and len(dead) < 3:
            self.events["died"] += 1
            self.rooms.kill_device(self.random.choice(alive))
        else:
            self.events["byebye"] += 1
            leaving = self.random.choice(alive)
            self._empty_place = leaving.kind
            self.rooms.remove(leaving)

    def _change_guest(self):
        """The guest that came first leaves, in one of three ways, and another comes."""
        how = self.random.choice(("byebye", "silent", "killed"))
        guest = self.guests.pop(0)
        self.events["byebye" if how == "byebye" else "died"] += len(guest.devices)
        guest.end(how)
        self._invite()

    def _stop(self):
        """The sleeper takes no part in anything for some seconds."""
        if self.sleeper.stopped:
            return
        self.events["stopped"] += 1
        self.sleeper.process.send_signal(signal.SIGSTOP)
        self.sleeper.stopped = True
        self._wake_at = time.monotonic() + self.random.uniform(2.0, LONGEST_STOP_S)

    def _wake(self, now=False):
        if self.sleeper.stopped and (now or time.monotonic() > self._wake_at):
            self.sleeper.process.send_signal(signal.SIGCONT)
            self.sleeper.stopped = False

    def rest(self):
        """Nothing changes from here on; whoever was stopped goes on."""
        self._wake(now=True)

    def end(self):
        try:
            self.rest()
            for simulator in self.simulators():
                simulator.end("silent")
        finally:
            self.kill()

    def kill(self):
        """What still runs, in whatever state."""
        for simulator in self.simulators():
            simulator.kill()
