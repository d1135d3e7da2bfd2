"""What fuzzing has learnt and the repository keeps: it stays small, and packing loses nothing."""

import os
import pathlib
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
sys.path.insert(0, os.path.join(ROOT, "tools"))
import fuzz  # noqa: E402

ENTRIES = sorted(path.name for path in (ROOT / "tests/fuzz/corpus").iterdir())


class KeptTest(unittest.TestCase):
    def setUp(self):
        work = tempfile.TemporaryDirectory()
        self.addCleanup(work.cleanup)
        self.work = pathlib.Path(work.name)
        # No test writes over the real ones.
        self.real = fuzz.archive_of
        fuzz.archive_of = lambda entry: self.work / "learnt" / (entry + ".tar.gz")
        self.addCleanup(setattr, fuzz, "archive_of", self.real)

    def folder(self, **inputs):
        folder = self.work / "inputs"
        folder.mkdir()
        for name, content in inputs.items():
            (folder / name).write_bytes(content)
        return folder

    def test_each_entry_has_kept_inputs_within_the_bounds(self):
        fuzz.archive_of = self.real
        for entry in ENTRIES:
            with self.subTest(entry=entry):
                sizes = [path.stat().st_size
                         for path in fuzz.unpack(entry, self.work / entry).iterdir()]
                self.assertGreater(len(sizes), 0)
                self.assertLessEqual(len(sizes), 300)
                self.assertLessEqual(sum(sizes), 300 * 1024)
                self.assertLessEqual(max(sizes), 64 * 1024)
                self.assertLessEqual(fuzz.archive_of(entry).stat().st_size, 64 * 1024)

    def test_what_is_packed_comes_out_again(self):
        folder = self.folder(one=b"\0\xff", two=b"", three=b"x" * 70)
        self.assertEqual((3, 72), fuzz.pack("xml", folder))
        out = fuzz.unpack("xml", self.work / "out")
        self.assertEqual({"one": b"\0\xff", "two": b"", "three": b"x" * 70},
                         {path.name: path.read_bytes() for path in out.iterdir()})

    def test_the_same_inputs_give_the_same_archive(self):
        folder = self.folder(one=b"1", two=b"2")
        fuzz.pack("xml", folder)
        first = fuzz.archive_of("xml").read_bytes()
        os.utime(folder / "one", (1, 1))
        fuzz.pack("xml", folder)
        self.assertEqual(first, fuzz.archive_of("xml").read_bytes())

    def test_unpacking_begins_anew(self):
        out = self.work / "out"
        out.mkdir()
        (out / "old").write_bytes(b"old")
        self.assertEqual([], list(fuzz.unpack("none of that name", out).iterdir()))

    def test_too_much_is_refused_and_the_archive_stays(self):
        for what, inputs in (("inputs", {"i%d" % number: b"x" for number in range(301)}),
                             ("bytes", {"i%d" % number: b"x" * 65536 for number in range(5)}),
                             ("bytes of one", {"i": b"x" * 65537})):
            with self.subTest(what=what), tempfile.TemporaryDirectory() as name:
                folder = pathlib.Path(name)
                for key, content in inputs.items():
                    (folder / key).write_bytes(content)
                with self.assertRaisesRegex(ValueError, "too much to keep"):
                    fuzz.pack("xml", folder)
                self.assertFalse(fuzz.archive_of("xml").exists())


if __name__ == "__main__":
    unittest.main()
