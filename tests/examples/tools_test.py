"""Runs the example tools on real input and compares what they say with the standard tools.

Usage: tools_test.py FOLDER_OF_THE_PROGRAMS FOLDER_OF_SOURCES [unittest's arguments]
KEST_LAUNCHER may hold a command that runs programs of their kind.
"""

import math
import os
import pathlib
import pty
import shlex
import signal
import subprocess
import sys
import tempfile
import time
import unittest

PROGRAMS = pathlib.Path(sys.argv[1]).resolve()
LAUNCHER = shlex.split(os.environ.get("KEST_LAUNCHER", ""))
SOURCES = pathlib.Path(sys.argv[2]).resolve()
LIMIT = 120  # seconds that no program of these takes, however slow the build


def run(name, *arguments, **options):
    options.setdefault("timeout", LIMIT)
    return subprocess.run([*LAUNCHER, PROGRAMS / name, *map(str, arguments)], capture_output=True, text=True, **options)


class Case(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def write(self, name, content=b"content\n"):
        path = self.folder / name
        path.write_bytes(content)
        return path


class FindFiles(Case):
    def expected(self, root, pattern):
        kinds = {"f": "file", "d": "directory", "p": "fifo", "c": "device", "b": "device", "l": "link"}
        form = r"%y %s %TY-%Tm-%Td %TH:%TM:%.2TS %p\n"
        found = subprocess.run(
            ["find", "-L", root, "-mindepth", "1", "-name", pattern, "-printf", form], capture_output=True, text=True, check=True
        )
        lines = []
        for line in found.stdout.splitlines():
            kind, size, day, clock, path = line.split(" ", 4)
            lines.append(f"{kinds.get(kind, 'other'):9} {size:>12} {day} {clock} {path}")
        return sorted(lines)

    def test_finds_what_find_finds(self):
        self.write("file")
        os.mkfifo(self.folder / "pipe")
        (self.folder / "dangling").symlink_to("nowhere")
        patterns = ("*.h", "*socket*", "*", "no such name", "[a-c]*")
        for root, pattern in [(SOURCES / "kest", each) for each in patterns] + [(self.folder, "*")]:
            with self.subTest(root=root, pattern=pattern):
                result = run("find_files", root, pattern)
                self.assertEqual((result.returncode, result.stderr), (0, ""))
                self.assertEqual(sorted(result.stdout.splitlines()), self.expected(root, pattern))

    def test_local_times_follow_the_zone(self):
        path = self.write("file")
        for instant, zone in ((0, "UTC"), (1000000000, "XXX-5:30"), (2224756800, "EST5EDT,M3.2.0,M11.1.0")):
            with self.subTest(zone=zone):
                os.utime(path, (instant, instant))
                environment = dict(os.environ, TZ=zone)
                shown = run("find_files", self.folder, "file", env=environment).stdout.split()[2:4]
                wanted = subprocess.run(
                    ["date", "-d", f"@{instant}", "+%Y-%m-%d %H:%M:%S"], capture_output=True, text=True, env=environment, check=True
                )
                self.assertEqual(" ".join(shown), wanted.stdout.strip())

    def test_a_directory_of_several_roads_is_listed_under_the_first(self):
        (self.folder / "a" / "b").mkdir(parents=True)
        (self.folder / "a" / "b" / "up").symlink_to(self.folder / "a")
        (self.folder / "a" / "b" / "itself").symlink_to(".")
        (self.folder / "a" / "target").touch()
        result = run("find_files", self.folder, "target")
        self.assertEqual((result.returncode, len(result.stdout.splitlines())), (0, 1))
        second = "{0}/a/b/{1}: the same directory as {0}/{2}, listed there"
        expected = [second.format(self.folder, "itself", "a/b"), second.format(self.folder, "up", "a")]
        self.assertEqual(sorted(result.stderr.splitlines()), expected)

    def test_a_terminal_gets_no_control_characters(self):
        (self.folder / "loop\033\x7f\x9b\n\xa0\\").symlink_to(self.folder)
        escaped = f"{self.folder}/loop\\033\\177\\302\\233\\012\xa0\\"
        master, terminal = pty.openpty()
        self.addCleanup(os.close, master)
        os.set_blocking(master, False)
        for stream, line in ("stdout", escaped), ("stderr", f"{escaped}: the same directory as {self.folder}, listed there"):
            with self.subTest(stream=stream):
                streams = {"stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL, stream: terminal}
                subprocess.run([*LAUNCHER, PROGRAMS / "find_files", self.folder, "*"], timeout=LIMIT, check=True, **streams)
                self.assertEqual(os.read(master, 4096).decode().splitlines()[0][-len(line) :], line)
        os.close(terminal)

    def test_what_cannot_be_read_is_told_and_passed_over(self):
        closed = self.folder / "closed"
        closed.mkdir(0)
        self.write("file")
        command = [*LAUNCHER, PROGRAMS / "find_files", self.folder, "*"]
        if os.geteuid() == 0:  # root may read everything, unless it has no capabilities
            command = ["setpriv", "--bounding-set=-all", "--inh-caps=-all", *command]
        result = subprocess.run(command, capture_output=True, text=True, timeout=LIMIT)
        self.assertEqual(result.returncode, 1)
        self.assertIn(f" {self.folder}/file\n", result.stdout)
        self.assertEqual(f"{closed}: passed over: Kest: directory opening failed: Permission denied\n", result.stderr)

    def test_bad_use_is_told(self):
        self.assertEqual(run("find_files").returncode, 2)
        self.assertIn("usage: ", run("find_files", "only one").stderr)
        missing = run("find_files", self.folder / "missing", "*")
        self.assertEqual((missing.returncode, missing.stdout), (1, ""))


class MoveFile(Case):
    def other_file_system(self):
        for place in ("/dev/shm", "/run"):
            if os.path.isdir(place) and os.access(place, os.W_OK) and os.stat(place).st_dev != self.folder.stat().st_dev:
                folder = tempfile.TemporaryDirectory(dir=place)
                self.addCleanup(folder.cleanup)
                return pathlib.Path(folder.name)
        self.skipTest("this machine has one writable file system only")

    def test_moves_within_a_file_system_and_over_another(self):
        for place in (self.folder, self.other_file_system()):
            with self.subTest(place=place):
                source = self.write("source", b"12345")
                os.utime(source, (1, 1000000000))
                target = place / "target"
                target.write_text("an older and longer content")
                result = run("move_file", source, target)
                self.assertEqual(result.stdout, f"moved: '{target}' is a file of 5 bytes\n")
                self.assertEqual(result.returncode, 0)
                self.assertFalse(source.exists())
                self.assertEqual(target.read_bytes(), b"12345")
                self.assertEqual(int(target.stat().st_mtime), 1000000000)

    def test_a_failure_tells_what_exists_now(self):
        source = self.write("source", b"12345")
        full = self.folder / "full"
        full.mkdir()
        (full / "entry").touch()
        (self.folder / "link").symlink_to("nowhere")
        cases = (
            (self.folder / "missing", source, "'{from}' does not exist; '{to}' is a file of 5 bytes"),
            (source, full, "'{from}' is a file of 5 bytes; '{to}' is a directory"),
            (source, self.folder / "none" / "x", "'{from}' is a file of 5 bytes; '{to}' does not exist"),
            (self.folder / "link", full, "'{from}' is there, but cannot be looked at (Kest: getting file state failed: "),
            (source, pathlib.Path("/dev/full/x"), "'{from}' is a file of 5 bytes; '{to}' does not exist"),
            (source, self.folder / ("x" * 300), "'{from}' is a file of 5 bytes; '{to}' cannot be looked at ("),
        )
        for origin, target, now in cases:
            with self.subTest(origin=origin, target=target):
                result = run("move_file", origin, target)
                self.assertEqual(result.returncode, 1)
                self.assertIn(f"not moved: Kest: rename failed: from '{origin}' to '{target}': ", result.stderr)
                self.assertIn("\nnow: " + now.replace("{from}", str(origin)).replace("{to}", str(target)), result.stderr)
                self.assertEqual(source.read_bytes(), b"12345")

    def test_a_copy_that_fails_leaves_the_source(self):
        source = self.write("source", b"12345")
        target = self.other_file_system() / "folder"
        target.mkdir()
        result = run("move_file", source, target)
        self.assertEqual(result.returncode, 1)
        self.assertIn("cross device link: tryed to copy and remove: copy failed", result.stderr)
        self.assertIn(f"now: '{source}' is a file of 5 bytes; '{target}' is a directory\n", result.stderr)

    def test_bad_use_is_told(self):
        self.assertEqual(run("move_file", "only one").returncode, 2)


class PluginHost(Case):
    def test_calls_the_plugin_with_and_without_its_suffix(self):
        for library in (PROGRAMS / "plugin.so", PROGRAMS / "plugin"):
            self.assertEqual(run("plugin_host", library, "Twice", "-2.5").stdout, "Twice(-2.5) = -5\n")
        self.assertEqual(run("plugin_host", PROGRAMS / "plugin", "Square", "3").stdout, "Square(3) = 9\n")

    def test_calls_the_system(self):
        result = run("plugin_host", "libm.so.6", "cos", "1")
        self.assertEqual(result.returncode, 0)
        self.assertAlmostEqual(float(result.stdout.split("=")[1]), math.cos(1), places=14)

    def test_failures_are_told_apart(self):
        missing = run("plugin_host", self.folder / "none", "f", "1")
        self.assertEqual(missing.returncode, 1)
        self.assertIn(f"Kest: {self.folder}/none.so: cannot open shared object file", missing.stderr)
        self.assertEqual(run("plugin_host", "libm.so.6", "no_such_function", "1").returncode, 3)
        for arguments in ((), ("libm.so.6", "cos", ""), ("libm.so.6", "cos", "one")):
            self.assertEqual(run("plugin_host", *arguments).returncode, 2)


class WorkQueue(Case):
    def test_text_of_the_basic_plane_is_unchanged(self):
        content = "".join(f"{number} äöü Ж 漢字 €\n" for number in range(20000))
        path = self.write("text", content.encode())
        for workers in (1, 7):
            result = run("work_queue", path, workers)
            self.assertEqual(result.stdout, f"20000 lines, {len(content) - 20000} characters, 0 changed, {workers} workers\n")
            self.assertEqual(result.returncode, 0)

    def test_lines_that_change_are_told(self):
        path = self.write("text", "fine\n\U0001f600\nfine\n".encode() + b"cut \xe2\x82\nzero \0 byte\nno end")
        result = run("work_queue", path, 2)
        self.assertEqual(result.returncode, 1)
        told = [line for line in result.stdout.splitlines() if line.startswith("line ")]
        self.assertEqual(sorted(told), ["line 2 changed", "line 4 changed", "line 5 changed"])
        self.assertIn("6 lines, ", result.stdout)

    @unittest.skipIf(LAUNCHER, "under qemu's emulation of i386 a thread that ran a signal handler takes itself for another thread")
    def test_stops_early_at_an_interrupt(self):
        path = self.folder / "fifo"
        os.mkfifo(path)
        process = subprocess.Popen([*LAUNCHER, PROGRAMS / "work_queue", path, "4"], stdout=subprocess.PIPE, text=True)
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        with open(path, "w", encoding="utf-8") as writer:  # the program is past its set-up when it opens the other end
            writer.write("a line\n" * 100)
            writer.flush()
            time.sleep(0.2)
            start = time.monotonic()
            process.send_signal(signal.SIGINT)
            output, _ = process.communicate(timeout=LIMIT)
            self.assertLess(time.monotonic() - start, LIMIT / 4)
        self.assertEqual(process.returncode, 4)
        self.assertRegex(output, r"^interrupted: \d+ lines, \d+ characters, 0 changed, 4 workers\n$")

    def test_bad_use_is_told(self):
        for arguments in ((), ("file",), ("file", "0"), ("file", "257"), ("file", "2x")):
            self.assertEqual(run("work_queue", *arguments).returncode, 2)
        # It opens, but cannot be read; with libc++ it is an empty file.
        self.assertEqual(run("work_queue", self.folder, "2").returncode, 0 if os.environ.get("KEST_HAS_LIBCXX") else 3)
        missing = run("work_queue", self.folder / "none", "2")
        self.assertEqual((missing.returncode, missing.stderr), (3, f"{self.folder}/none: No such file or directory\n"))


class Output(Case):
    def test_that_cannot_be_written_is_told(self):
        text = self.write("text")
        for output in "/dev/full", "&-":  # the latter is closed
            for status, *command in (
                (1, "find_files", SOURCES / "kest", "*"),
                (3, "move_file", self.write("source"), self.folder / "target"),
                (4, "plugin_host", "libm.so.6", "cos", "1"),
                (3, "work_queue", text, "2"),
            ):
                with self.subTest(output=output, command=command):
                    command = ["sh", "-c", f'exec "$@" >{output}', "sh", *LAUNCHER, PROGRAMS / command[0], *command[1:]]
                    result = subprocess.run(command, stderr=subprocess.PIPE, text=True, timeout=LIMIT)
                    self.assertEqual(result.returncode, status)
                    self.assertIn("could not be written\n", result.stderr)


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], *sys.argv[3:]])
