#!/usr/bin/env python3
"""Runs line_server and line_client against each other, against netcat and socat, and against peers that fail. What hostile peers and
shortages do to them is in scripts/attack.py, which also has the means to run them.

Usage: line_test.py FOLDER_OF_THE_PROGRAMS [unittest's arguments]
"""
import contextlib
import errno
import os
import pathlib
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).parents[2] / "scripts"))
from attack import CLIENT, LONGEST_LINE, PATIENCE, SERVER, Server, read_to_end, reset, run_client, wait_until


def answers_to(data):
    """What the server must answer, computed from the bytes alone."""
    lines = data.split(b"\n")
    if lines[-1] == b"":
        lines.pop()
    return b"".join(b"%d %s\n" % (len(line), line) for line in lines)


def listens(path):
    """Whether the socket of that path takes connections: it has the path before that, and refuses them."""
    sockets = [line.split() for line in pathlib.Path("/proc/net/unix").read_text().splitlines()]
    return any(fields[3] == "00010000" and fields[-1] == path for fields in sockets)


@contextlib.contextmanager
def running(command, **options):
    """A process that is ended with the context at the latest."""
    process = subprocess.Popen(command, **options)
    try:
        yield process
    finally:
        process.kill()
        process.communicate()


class LineTest(unittest.TestCase):
    def setUp(self):
        contexts = contextlib.ExitStack()
        self.addCleanup(contexts.close)
        self.enter = contexts.enter_context
        self.path = self.enter(tempfile.TemporaryDirectory(prefix="kest", dir="/tmp")) + "/s"  # there is room for 107 bytes

    def start(self, domain="inet"):
        return self.enter(Server(domain))


class Together(LineTest):
    INPUTS = {
        "nothing": b"",
        "one newline": b"\n",
        "empty lines": b"\n\nx\n\n",
        "no newline at the end": b"first\nlast",
        "zero bytes": b"\0\n\0\0\nx\0y\n\0",
        "every byte value": bytes(range(256)) * 3,
        "carriage returns stay": b"a\r\nb\r\n",
        "around the size of a buffer": b"".join(b"x" * n + b"\n" for n in (*range(4087, 4098), 8192)),
        "the longest line": b"y" * LONGEST_LINE + b"\nafter\n",
        "many lines": pathlib.Path(__file__).read_bytes() * 5,
    }

    def test_client_prints_what_the_server_must_answer(self):
        for domain in "inet", "fs":
            server = self.start(domain)
            for name, data in self.INPUTS.items():
                for limit in ("10",) if name != "many lines" else ("10", "0"):
                    with self.subTest(domain=domain, input=name, limit=limit):
                        result = run_client(domain, server.address, limit, data)
                        self.assertEqual((result.returncode, result.stderr), (0, b""))
                        self.assertTrue(result.stdout == answers_to(data), "the answers differ")
            self.assertEqual(server.stderr(), "")

    def test_netcat_and_socat_get_every_answer_though_they_send_ahead(self):
        data = self.INPUTS["many lines"] + self.INPUTS["around the size of a buffer"] + b"no newline"
        inet, fs = self.start("inet"), self.start("fs")
        port = inet.address.rpartition(":")[2]
        for command in (
            ["nc", "-N", "127.0.0.1", port],
            ["nc", "-N", "-U", fs.address],
            ["socat", f"-t{PATIENCE}", "-", f"TCP:127.0.0.1:{port}"],
            ["socat", f"-t{PATIENCE}", "-", f"UNIX-CONNECT:{fs.address}"],
        ):
            with self.subTest(command=command):
                result = subprocess.run(command, input=data, capture_output=True, timeout=PATIENCE, check=True)
                self.assertTrue(result.stdout == answers_to(data), "the answers differ")

    def test_client_talks_to_programs_that_are_not_ours(self):
        command = ["socat", "-dd", "TCP-LISTEN:0,bind=127.0.0.1", "EXEC:sed -u s/^/got-/"]
        with running(command, stderr=subprocess.PIPE, text=True) as peer:
            port = next(filter(None, (re.search(r"listening on .*:(\d+)", line) for line in peer.stderr)))[1]
            result = run_client("inet", f"127.0.0.1:{port}", "10", b"one\n\nthree")
            self.assertEqual((result.returncode, result.stdout), (0, b"got-one\ngot-\ngot-three\n"))
        with running(["nc", "-l", "-U", self.path], stdin=subprocess.PIPE, stdout=subprocess.PIPE) as peer:
            peer.stdin.write(b"forty-two\n")  # what somebody would type
            peer.stdin.flush()
            wait_until(lambda: listens(self.path), "netcat listens")
            result = run_client("fs", self.path, "10", b"the question\n")
            self.assertEqual((result.returncode, result.stdout), (0, b"forty-two\n"))
            self.assertEqual(peer.communicate(timeout=PATIENCE)[0], b"the question\n")


class ServerTest(LineTest):
    def test_answers_come_as_soon_as_they_can_and_all_of_them(self):
        for domain in "inet", "fs":
            with self.subTest(domain=domain), self.start(domain).connect() as client:
                client.sendall(b"whole\nhal")  # the beginning of the next line holds no answer back
                self.assertEqual(client.recv(100), b"5 whole\n")
                client.sendall(b"f\nunfinished")
                client.shutdown(socket.SHUT_WR)
                self.assertEqual(read_to_end(client), b"4 half\n10 unfinished\n")

    def test_what_keeps_it_from_starting_is_said(self):
        taken, path = self.start("inet").address, self.start("fs").address
        usage = "usage: line_server DOMAIN ADDRESS [LIMIT [CLIENTS]]\n"
        for arguments, status, message in (
            ([], 2, usage),
            *((["inet", "127.0.0.1:0", *rest], 2, usage) for rest in (["-1"], ["1", "0"], ["1", "x"], ["1", "10001"], ["1", "2", "3"])),
            (["inet", "nonsense"], 1, "line_server: bad socket address: "),
            (["ipx", "x"], 1, "line_server: unsupported socket domain (address family): "),
            (["inet", taken], 1, "line_server: socket bind failed: "),
            (["inet", taken.replace("127.0.0.1", "0.0.0.0")], 1, "line_server: socket bind failed: 0.0.0.0:"),
            (["fs", path], 1, f"line_server: socket bind failed: {path}\n"),
        ):
            with self.subTest(arguments=arguments):
                result = subprocess.run([*SERVER, *arguments], capture_output=True, text=True, timeout=PATIENCE, check=False)
                self.assertEqual((result.returncode, result.stdout), (status, ""))
                self.assertTrue(result.stderr.startswith(message), result.stderr)
        self.assertTrue(os.path.exists(path))  # the file of the server that is running
        with open("/dev/full", "wb") as full:
            result = subprocess.run([*SERVER, "inet", "127.0.0.1:0"], stdout=full, stderr=subprocess.PIPE, timeout=PATIENCE, check=False)
        self.assertEqual((result.returncode, result.stderr), (1, b"line_server: standard output cannot be written\n"))


def answers_one(connection):
    connection.recv(100)
    connection.sendall(b"3 one\n4 tw")
    connection.recv(100)


def resets(connection):
    connection.recv(100)
    reset(connection)


def babbles(connection):
    connection.recv(100)
    connection.sendall(b"b" * (LONGEST_LINE + 100))
    read_to_end(connection)


class ClientTest(LineTest):
    TIME_OUT = (3, "time-out: the server did not react in time.")
    PEERS = (
        ("10", b"one\ntwo\n", answers_one, 4, "shutdown: the server closed the connection before all lines were answered.", b"3 one\n"),
        ("10", b"line\n", resets, 5, "reset: the server reset the connection.", b""),
        ("10", b"line\n", babbles, 1, "failure: the server sent an answer longer than any line.", b""),
        ("0.4", b"line\n", read_to_end, *TIME_OUT, b""),
    )

    def listen(self, domain, backlog=5):
        listener = self.enter(socket.socket(socket.AF_INET if domain == "inet" else socket.AF_UNIX))
        listener.settimeout(PATIENCE)
        listener.bind(("127.0.0.1", 0) if domain == "inet" else self.path)
        listener.listen(backlog)
        return listener, self.path if domain == "fs" else "127.0.0.1:%d" % listener.getsockname()[1]

    def assertEnds(self, result, status, sentence, stdout=b""):
        self.assertEqual((result.returncode, result.stderr.decode()), (status, f"line_client: {sentence}\n"))
        self.assertEqual(result.stdout, stdout)

    def test_what_a_peer_does_is_told(self):
        for limit, data, peer, *expected in self.PEERS:
            with self.subTest(peer=peer):
                listener, address = self.listen("inet")

                def serve():
                    with listener.accept()[0] as connection, contextlib.suppress(ConnectionError):
                        peer(connection)

                thread = threading.Thread(target=serve)
                thread.start()
                self.assertEnds(run_client("inet", address, limit, data), *expected)
                thread.join(PATIENCE)

    def test_shutdown_noticed_while_sending(self):
        listener, address = self.listen("fs")
        pipes = dict.fromkeys(("stdin", "stdout", "stderr"), subprocess.PIPE)
        with running([*CLIENT, "fs", address, "10"], **pipes) as client:
            listener.accept()[0].close()
            output, errors = client.communicate(b"line\n", timeout=PATIENCE)
        result = subprocess.CompletedProcess([], client.returncode, output, errors)
        self.assertEnds(result, 4, "shutdown: the server closed the connection and took no more lines.")

    def test_limits_of_sending_and_connecting(self):
        _, address = self.listen("fs", backlog=0)
        for data in b"x" * 1_000_000 + b"\n", b"":  # the first is in the queue, which then is full
            begin = time.monotonic()
            self.assertEnds(run_client("fs", address, "0.4", data), *self.TIME_OUT)
            self.assertGreaterEqual(time.monotonic() - begin, 0.35)

    def test_refusal(self):
        self.listen("fs")[0].close()  # the file stays
        bound = self.enter(socket.socket())  # but not listening, so nobody else does on its port
        bound.bind(("127.0.0.1", 0))
        for domain, address in ("fs", self.path), ("inet", "127.0.0.1:%d" % bound.getsockname()[1]):
            self.assertEnds(run_client(domain, address, "10"), 6, f"refusal: nobody listens on {address}.")

    def test_bad_address(self):
        for domain, address, beginning in (
            ("inet", "nocolon", 'bad address: "nocolon" cannot be used ('),
            ("inet", "x" * 300 + ":1", 'bad address: "xxx'),
            ("martian", "x", 'bad address: "martian" has no addresses ('),
            ("ipx", "x", 'bad address: "ipx" has no addresses ('),
            ("fs", "/" + "x" * 200, 'bad address: "/xxx'),  # the system takes 107 bytes
        ):
            with self.subTest(domain=domain, address=address):
                result = run_client(domain, address, "1", b"line\n")
                self.assertEqual((result.returncode, result.stdout), (7, b""))
                self.assertRegex(result.stderr.decode(), rf"\Aline_client: {re.escape(beginning)}.*\)\.\n\Z")

    def test_bad_arguments_print_the_usage(self):
        limits = ["", "abc", "-1", "-0.5", "nan", "-nan", "inf", "1x", " 1", "1 ", "+1", "1e400", "1e-400", "0,5", "--help"]
        for arguments in [], ["inet"], ["inet", ""], ["inet", "", "1", "more"], *(["inet", "", limit] for limit in limits):
            with self.subTest(arguments=arguments):
                result = subprocess.run([*CLIENT, *arguments], stdin=subprocess.DEVNULL, capture_output=True, timeout=PATIENCE, check=False)
                self.assertEqual((result.returncode, result.stdout), (2, b""))
                self.assertTrue(result.stderr.startswith(b"usage: line_client DOMAIN ADDRESS LIMIT\n"), result.stderr)

    def test_its_own_ends_are_told(self):
        self.assertEnds(run_client("fs", self.path, "1"), 1, f"failure: {os.strerror(errno.ENOENT)}.")
        address = self.start().address
        for redirection, status, sentence in (
            # With libc++ a folder is an empty file.
            *([] if os.environ.get("KEST_HAS_LIBCXX") else [("<.", 1, "failure: standard input cannot be read.")]),
            (">/dev/full", 8, "output: the answers cannot be written to standard output."),
            (">&-", 8, "output: the answers cannot be written to standard output."),
        ):
            command = ["sh", "-c", f'exec "$@" {redirection}', "sh", *CLIENT, "inet", address, "10"]
            result = subprocess.run(command, input=b"line\n", capture_output=True, timeout=PATIENCE, check=False)
            self.assertEnds(result, status, sentence)


if __name__ == "__main__":
    for program in "nc", "socat":
        if shutil.which(program) is None:
            raise SystemExit(f"{program} is missing")
    unittest.main(argv=[sys.argv[0], *sys.argv[2:]], verbosity=2)
