"""The front door: what ./dev installs, configures and leaves out, and the private networks of its tests.

Programs that would change the machine are stood in for by small scripts on PATH.
"""

import fnmatch
import os
import re
import shutil
import subprocess
import tempfile
import unittest

from support import BINARY_DIR, ROOT, SimulatorTest, wait_until

INSTALLED = "#!/bin/sh\necho 'install ok installed'\n"


class FrontDoor:
    """A copy of ./dev and its tools, which builds into a folder of its own."""

    def __init__(self, test):
        folder = tempfile.TemporaryDirectory()
        test.addCleanup(folder.cleanup)
        self.root = os.path.join(folder.name, "project")
        self.stubs = os.path.join(folder.name, "stubs")
        self.calls = os.path.join(folder.name, "calls")
        os.mkdir(self.root)
        os.mkdir(self.stubs)
        shutil.copy2(os.path.join(ROOT, "dev"), self.root)
        shutil.copytree(os.path.join(ROOT, "tools"), os.path.join(self.root, "tools"))
        os.symlink(os.path.join(ROOT, "apps"), os.path.join(self.root, "apps"))
        with open(self.calls, "w", encoding="utf-8"):
            pass

    def stub(self, name, text):
        path = os.path.join(self.stubs, name)
        with open(path, "w", encoding="utf-8") as file:
            file.write(text)
        os.chmod(path, 0o755)

    def record(self, name, then="exit 0"):
        """A stand-in that writes down how it was called."""
        self.stub(name, '#!/bin/sh\necho "%s $*" >>"%s"\n%s\n' % (name, self.calls, then))

    def called(self):
        with open(self.calls, encoding="utf-8") as file:
            return file.read().splitlines()

    def run(self, *command, **environment):
        return subprocess.run(
            command, cwd=self.root, stdin=subprocess.DEVNULL, capture_output=True, text=True,
            timeout=120, env=dict(os.environ, PATH=self.stubs + ":" + os.environ["PATH"],
                                  **environment))


class NeedTest(unittest.TestCase):
    """Packages that are missing; `./dev build` is the command that asks for them."""

    def setUp(self):
        self.door = FrontDoor(self)
        self.installed = os.path.join(os.path.dirname(self.door.calls), "installed")
        self.door.stub("dpkg-query", '#!/bin/sh\ncase $4 in\n'
                       'libcli11-dev | ccache) [ -e "%s" ] || exit 1 ;;\nesac\n'
                       "echo 'install ok installed'\n" % self.installed)
        self.door.record("cmake")
        self.door.record("ninja")
        self.door.record("sleep")
        self.door.record("apt-get")

    def be(self, user):
        self.door.stub("id", "#!/bin/sh\necho %d\n" % user)

    def test_an_ordinary_user_without_sudo_is_told_the_line_to_run(self):
        self.be(1000)
        self.door.record("sudo", "exit 1")
        result = self.door.run("./dev", "build")
        self.assertEqual(
            (3, "", "These packages are missing. Please run this line, then ./dev again:\n"
             "  sudo apt-get update && sudo apt-get install -y --no-install-recommends "
             "ccache libcli11-dev\n"), (result.returncode, result.stdout, result.stderr))
        self.assertEqual(["sudo -n true"], self.door.called())

    def check_installed(self, calls):
        result = self.door.run("./dev", "build")
        self.assertEqual(0, result.returncode, result.stderr)
        self.assertIn("== installing ccache libcli11-dev\n", result.stdout)
        self.assertIn("== building debug\n", result.stdout)
        self.assertEqual(calls, self.door.called()[:-2])
        self.assertRegex(self.door.called()[-2], r"^cmake --preset debug ")
        self.assertRegex(self.door.called()[-1], r"^ninja -C build/debug ")

    UPDATE = "apt-get -o Acquire::Retries=5 update -q"
    INSTALL = ("apt-get -o Acquire::Retries=5 -o DPkg::Lock::Timeout=600 install -q -y "
               "--no-install-recommends ccache libcli11-dev")

    def test_an_ordinary_user_with_sudo_has_them_installed_through_it(self):
        self.be(1000)
        self.door.record("sudo", 'shift\nexec "$@"')
        self.check_installed(["sudo -n true", "sudo -n " + self.UPDATE, self.UPDATE,
                              "sudo -n env DEBIAN_FRONTEND=noninteractive " + self.INSTALL,
                              self.INSTALL])

    def test_root_has_them_installed_at_once(self):
        self.be(0)
        self.door.record("sudo", "exit 1")
        self.check_installed([self.UPDATE, self.INSTALL])

    def test_what_is_there_is_not_installed_again(self):
        self.be(1000)
        self.door.stub("dpkg-query", INSTALLED)
        self.door.record("sudo", "exit 1")
        self.assertEqual(0, self.door.run("./dev", "build").returncode)
        self.assertEqual(["cmake", "ninja"], [call.split()[0] for call in self.door.called()])

    def test_installing_is_tried_twice_and_its_failure_shown(self):
        self.be(0)
        self.door.record("apt-get", "echo no such mirror; exit 100")
        result = self.door.run("./dev", "build")
        self.assertEqual(3, result.returncode)
        self.assertEqual([self.UPDATE, "sleep 30", self.UPDATE], self.door.called())
        told = re.search(r"no such mirror\nInstalling failed; the whole output is in (\S+)\n$",
                         result.stderr)
        self.assertIsNotNone(told, result.stderr)
        os.remove(told.group(1))


class ProgramsTest(SimulatorTest):
    """A folder from which the library was installed without its programs keeps that in its cache."""

    # Options stay as they were told last, as in CMake's cache.
    CMAKE = """#!/bin/sh
mkdir -p "build/$2"
for option; do
  case $option in
    -DVEX_*) echo "$option" >>"build/$2/cache" ;;
  esac
done
"""
    NINJA = """#!/bin/sh
[ "$(grep VEX_BUILD_APPS "$2/cache" | tail -n 1)" = -DVEX_BUILD_APPS=ON ] ||
  { echo "ninja: error: unknown target" >&2; exit 1; }
ln -sf "%s/vexcp" "%s/vexsim" "$2"
"""

    def setUp(self):
        self.door = FrontDoor(self)
        self.door.stub("dpkg-query", INSTALLED)
        self.door.stub("cmake", self.CMAKE)
        self.door.stub("ninja", self.NINJA % (BINARY_DIR, BINARY_DIR))
        self.leave_them_out()

    def leave_them_out(self):
        subprocess.run(["cmake", "--preset", "release", "-DVEX_BUILD_TESTS=OFF",
                        "-DVEX_BUILD_APPS=OFF"], cwd=self.door.root, check=True,
                       env=dict(os.environ, PATH=self.door.stubs + ":" + os.environ["PATH"]))

    def test_the_demo_builds_them_and_shows_the_real_network(self):
        self.simulate("lamp", "--answers", "burst")
        results = []

        def lamp_is_shown():
            results[:] = [self.door.run("./dev", "demo", "--real")]
            # Of this host, which stands for the machine: no network of the demo's own is in it.
            return results[0].returncode != 0 or re.search(
                r"The devices of your network\S*\n(.*\n)*Lamp +DimmableLight:1 +10\.78\.0\.2\b",
                results[0].stdout)
        # On a busy machine a search may be over before the description is there.
        self.assertTrue(wait_until(lamp_is_shown), results[0].stdout)
        self.assertEqual(0, results[0].returncode, results[0].stdout + results[0].stderr)
        self.assertNotIn("All of it", results[0].stdout)

    def test_the_soak_and_the_benchmarks_have_them_built(self):
        self.door.record("python3")
        two_hosts = os.path.join(self.door.root, "tools", "two_hosts")
        with open(two_hosts, "w", encoding="utf-8") as file:
            file.write('#!/bin/sh\nexec "$@"\n')
        for arguments in (["soak", "0.1"], ["bench", "actions"]):
            self.leave_them_out()
            result = self.door.run("./dev", *arguments)
            self.assertEqual(0, result.returncode, result.stdout + result.stderr)


class CrossTest(unittest.TestCase):
    """`./dev cross` with a toolchain that only pretends."""

    CMAKE = """case $* in *" -B build/"*-small*) [ "$2" = small ] || exit 1 ;; esac
mkdir -p "$4"
echo "CMAKE_STRIP:FILEPATH=%s/strip" >"$4/CMakeCache.txt"
"""
    # 5,000 bytes of one library and 6,000 of the other, of which strip leaves half.
    NINJA = """case "$*" in
*armhf-small*vexupnpcp) head -c 5000 /dev/zero >"$2/libvexupnpcp.so.1.0.0" ;;
*i386-small*vexupnpcp) head -c 6000 /dev/zero >"$2/libvexupnpcp.so.1.0.0" ;;
esac
"""
    STRIP = """#!/bin/sh
head -c $(($(stat -c %s "$3") / 2)) "$3" >"$2"
"""

    def test_it_builds_and_weighs_both_libraries_and_runs_both_tests(self):
        door = FrontDoor(self)
        door.stub("dpkg-query", INSTALLED)
        door.record("cmake", self.CMAKE % door.stubs)
        door.record("ninja", self.NINJA)
        door.stub("strip", self.STRIP)
        for name in ("qemu/usr/bin/qemu-arm", "sysroot-armhf/lib/ld", "sysroot-i386/lib/ld-linux.so.2"):
            folder, program = os.path.split(os.path.join(door.root, "kit", name))
            os.makedirs(folder)
            door.record(program)
            shutil.move(os.path.join(door.stubs, program), folder)
        result = door.run("./dev", "cross", VEX_KIT=os.path.join(door.root, "kit"))
        self.assertEqual(0, result.returncode, result.stderr)
        self.assertRegex(result.stdout, r"\narmhf, [^\n]*stripped: 2500 bytes\n(.*\n)*"
                                        r"i386, [^\n]*stripped: 3000 bytes\n")
        for runner, tests in (("qemu-arm", "build/armhf/unit_tests"),
                              ("ld-linux.so.2", "build/i386/unit_tests")):
            self.assertTrue([call for call in door.called()
                             if call.startswith(runner + " ") and " %s " % tests in call], runner)


class LeftOutTest(unittest.TestCase):
    def test_only_what_is_meant_to_take_long_is_left_out(self):
        text = subprocess.run(["bash", "-c", '. tools/dev_lib.sh; echo "$SLOW_TESTS"'], cwd=ROOT,
                              check=True, capture_output=True, text=True).stdout
        patterns = text.strip().split(":")
        seen = 0
        for name in ("unit_tests", "scenario_tests"):
            program = os.path.join(BINARY_DIR, name)
            if not os.path.exists(program):
                self.skipTest("built without tests")
            listed = subprocess.run([program, "--gtest_list_tests"], check=True,
                                    capture_output=True, text=True).stdout
            suite = ""
            for line in listed.splitlines():
                if not line.startswith(" "):
                    suite = line.split("#")[0].strip()
                    continue
                test = line.split("#")[0].strip()
                seen += 1
                self.assertEqual(bool(re.match(r"(Regression|Kept)?Slow", test)),
                                 any(fnmatch.fnmatchcase(suite + test, p) for p in patterns),
                                 suite + test)
        self.assertGreater(seen, 0)

    def test_every_narrowed_run_leaves_out_the_same(self):
        for name in ("dev_lib.sh", "cross.sh"):
            with open(os.path.join(ROOT, "tools", name), encoding="utf-8") as file:
                filters = re.findall(r"--gtest_filter=(\S+)", file.read())
            self.assertEqual({'"-$SLOW_TESTS"'}, set(filters), name)


class PrivateNetworkTest(unittest.TestCase):
    """tools/in_netns on machines that give an ordinary user no namespace of their own."""

    SHOW = ["sh", "-c", "echo $IN_NETNS_INSIDE; ip -o -4 addr show | awk '{print $2, $4}'"]
    SHOWN = ("1\nlo 127.0.0.1/8\npeer0 10.77.0.2/24\nlan0 10.77.0.1/24\n"
             "peer1 10.77.1.2/24\nlan1 10.77.1.1/24\n")

    def setUp(self):
        self.door = FrontDoor(self)
        self.unshare = shutil.which("unshare")

    def in_netns(self, *command):
        return self.door.run("tools/in_netns", *command)

    def be_ordinary(self, user_namespaces, sudo):
        self.door.stub("id", "#!/bin/sh\necho 1000\n")
        # A refusal comes after the namespace exists, where the identity is to be mapped.
        refusal = ":" if user_namespaces else (
            "echo 'unshare: write failed /proc/self/uid_map: Operation not permitted' >&2; exit 1")
        self.door.record("unshare", 'case " $* " in\n*" --user "* | *" -U"*) %s ;;\nesac\n'
                         'exec %s "$@"' % (refusal, self.unshare))
        self.door.record("sudo", 'shift\n[ "$1" != --preserve-env ] || shift\nexec "$@"' if sudo
                         else "exit 1")

    def check_networks(self, result):
        self.assertEqual(0, result.returncode, result.stderr)
        self.assertEqual(sorted(self.SHOWN.splitlines()), sorted(result.stdout.splitlines()))

    def test_root_gets_its_networks(self):
        self.check_networks(self.in_netns(*self.SHOW))

    def test_an_ordinary_user_gets_them_through_sudo_where_user_namespaces_are_refused(self):
        self.be_ordinary(user_namespaces=False, sudo=True)
        self.check_networks(self.in_netns(*self.SHOW))
        self.assertTrue([call for call in self.door.called()
                         if call.startswith("sudo -n --preserve-env unshare ")])

    def test_an_ordinary_user_without_either_is_told_what_is_missing(self):
        self.be_ordinary(user_namespaces=False, sudo=False)
        result = self.in_netns("true")
        self.assertEqual((125, "", "in_netns: needs user namespaces, or sudo without a password, for "
                          "a private network\n"), (result.returncode, result.stdout, result.stderr))

    def test_an_ordinary_user_needs_no_sudo_where_user_namespaces_are_allowed(self):
        if subprocess.run([self.unshare, "--user", "--map-root-user", "--net", "--mount", "--pid",
                           "--fork", "--mount-proc", "true"], capture_output=True).returncode != 0:
            self.skipTest("this machine allows no user namespaces")
        self.be_ordinary(user_namespaces=True, sudo=False)
        result = self.in_netns(*self.SHOW)
        self.check_networks(result)
        self.assertFalse([call for call in self.door.called() if call.startswith("sudo")])

    def test_the_commands_status_is_handed_on(self):
        for command, status in ((["sh", "-c", "exit 7"], 7), (["sh", "-c", "kill -ABRT $$"], 134)):
            self.assertEqual(status, self.in_netns(*command).returncode)


if __name__ == "__main__":
    unittest.main()
