#!/usr/bin/env python3
"""Runs line_server and line_client, against each other, against netcat and socat, and against peers that misbehave.

Usage: line_test.py FOLDER_OF_THE_PROGRAMS [unittest's arguments]
KEST_LAUNCHER may hold a command that runs programs of their kind. Everything happens on 127.0.0.1 and in a temporary directory.
"""
import contextlib
import errno
import os
import pathlib
import random
import re
import resource
import select
import shlex
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
import unittest

PROGRAMS = pathlib.Path(sys.argv[1]).resolve()
LAUNCHER = shlex.split(os.environ.get("KEST_LAUNCHER", ""))
# qemu's emulation of an i386 process: once a thread has returned from a signal handler it has the thread-local storage, and so
# the identity, of the thread that was made last. A server ended by a signal then cannot join its threads.
HANDLERS_CONFUSE_THREADS = bool(LAUNCHER)
SERVER = [*LAUNCHER, PROGRAMS / "line_server"]
CLIENT = [*LAUNCHER, PROGRAMS / "line_client"]
LONGEST_LINE = 1024 * 1024
PATIENCE = 30  # seconds after which something that should have happened counts as not happening; only failures wait so long


def answers_to(data):
    """What the server must answer, computed from the bytes alone."""
    lines = data.split(b"\n")
    if lines[-1] == b"":
        lines.pop()
    return b"".join(b"%d %s\n" % (len(line), line) for line in lines)


def wait_until(condition, what):
    end = time.monotonic() + PATIENCE
    while not condition():
        if time.monotonic() > end:
            raise AssertionError(f"waited {PATIENCE} s in vain: {what}")
        time.sleep(0.01)


def listens(path):
    """Whether the socket of that path takes connections: it has the path before that, and refuses them."""
    sockets = [line.split() for line in pathlib.Path("/proc/net/unix").read_text().splitlines()]
    return any(fields[3] == "00010000" and fields[-1] == path for fields in sockets)


def read_to_end(connection):
    return b"".join(iter(lambda: connection.recv(65536), b""))


def reset(connection):
    """Closes so that the peer gets a reset."""
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.close()


def run_client(domain, address, limit, data=b"", **options):
    options = {"input": data, "stdout": subprocess.PIPE} | options
    return subprocess.run([*CLIENT, domain, address, limit], stderr=subprocess.PIPE, timeout=PATIENCE, **options)


@contextlib.contextmanager
def running(command, **options):
    """A process that is ended with the context at the latest."""
    process = subprocess.Popen(command, **options)
    try:
        yield process
    finally:
        process.kill()
        process.communicate()


class Server:
    """A running line_server. Leaving the context ends it by SIGTERM and checks that it ends well."""

    def __init__(self, domain="inet", limit="0", path=None):
        self.domain = domain
        self.errors = tempfile.TemporaryFile()
        address = "127.0.0.1:0" if domain == "inet" else path
        self.process = subprocess.Popen([*SERVER, domain, address, limit], stdout=subprocess.PIPE, stderr=self.errors)
        ready = self.process.stdout.readline().decode()
        assert ready.startswith("listening on "), ready + self.stderr()
        self.address = ready.removeprefix("listening on ").rstrip("\n")

    def __enter__(self):
        return self

    def __exit__(self, failure, *_):
        try:
            if HANDLERS_CONFUSE_THREADS:
                return
            status = self.stop(signal.SIGTERM) if self.process.poll() is None else self.process.returncode
            if failure is None and status != 0:
                raise AssertionError(f"the server ended with {status}: {self.stderr()}")
        finally:
            self.process.kill()
            self.process.wait()
            self.process.stdout.close()
            self.errors.close()

    def stop(self, number):
        self.process.send_signal(number)
        return self.process.wait(timeout=PATIENCE)

    def stderr(self):
        self.errors.seek(0)
        return self.errors.read().decode()

    def connect(self, receive_buffer=None):
        family = socket.AF_INET if self.domain == "inet" else socket.AF_UNIX
        connection = socket.socket(family)
        connection.settimeout(PATIENCE)
        if receive_buffer:
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        host, _, port = self.address.rpartition(":")
        connection.connect((host, int(port)) if self.domain == "inet" else self.address)
        return connection

    def ask(self, line=b"still there?"):
        """A new client's line is answered."""
        with self.connect() as connection:
            connection.sendall(line + b"\n")
            return connection.makefile("rb").readline()

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.process.pid}/fd"))

    def threads(self):
        return len(os.listdir(f"/proc/{self.process.pid}/task"))

    def waits(self):
        """How often the main thread has given up the processor of its own accord."""
        status = pathlib.Path(f"/proc/{self.process.pid}/status").read_text()
        return int(re.search(r"^voluntary_ctxt_switches:\s*(\d+)$", status, re.M)[1])


class LineTest(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory(prefix="kest", dir="/tmp")  # the path of a socket has room for 107 bytes
        self.addCleanup(directory.cleanup)
        self.directory = pathlib.Path(directory.name)
        self.path = str(self.directory / "s")

    def start(self, domain="inet", limit="0"):
        server = Server(domain, limit, self.path)
        self.addCleanup(server.__exit__, None)
        return server

    def assertStillServes(self, server):
        self.assertEqual(server.ask(), b"12 still there?\n")


class Together(LineTest):
    INPUTS = {
        "nothing": b"",
        "one newline": b"\n",
        "empty lines": b"\n\nx\n\n",
        "no newline at the end": b"first\nlast",
        "zero bytes": b"\0\n\0\0\nx\0y\n\0",
        "every byte value": bytes(range(256)) * 3,
        "carriage returns stay": b"a\r\nb\r\n",
        "beyond ASCII": "dreißig ✓\n".encode(),
        "around the size of a buffer": b"".join(b"x" * n + b"\n" for n in (*range(4087, 4098), 8192)),
        "the longest line": b"y" * LONGEST_LINE + b"\nafter\n",
        "many lines": pathlib.Path(__file__).read_bytes() * 3,
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
    def test_fifty_clients_at_once_leave_nothing_behind(self):
        server = self.start()
        before = server.descriptors()
        clients = [server.connect() for _ in range(50)]
        for number, client in enumerate(clients):
            client.sendall(b"%d\n" % number)
        for number, client in reversed(list(enumerate(clients))):
            self.assertEqual(client.recv(100), b"%d %d\n" % (len(str(number)), number))
        self.assertGreater(server.threads(), 50)
        for client in clients:
            client.close()
        wait_until(lambda: server.descriptors() == before, "the descriptors are back")
        self.assertLess(server.threads(), 5)  # a sanitizer or an emulator may have some of its own

    def test_short_clients_do_not_pile_up(self):
        server = self.start()
        most = server.descriptors() + 50
        for _ in range(400):
            server.ask()
            self.assertLess(server.descriptors(), most)

    def test_answer_is_not_held_back_by_the_beginning_of_the_next_line(self):
        with self.start().connect() as client:
            client.sendall(b"whole\nhal")
            self.assertEqual(client.recv(100), b"5 whole\n")
            client.sendall(b"f\n")
            self.assertEqual(client.recv(100), b"4 half\n")

    def test_half_closed_client_gets_all_answers_and_then_the_end(self):
        for domain in "inet", "fs":
            with self.subTest(domain=domain), self.start(domain).connect() as client:
                client.sendall(b"one\nunfinished")
                client.shutdown(socket.SHUT_WR)
                self.assertEqual(read_to_end(client), b"3 one\n10 unfinished\n")

    def test_random_bytes_are_lines_like_any_other(self):
        data = random.Random(1).randbytes(300_000)
        with self.start().connect() as client:
            sender = threading.Thread(target=lambda: (client.sendall(data), client.shutdown(socket.SHUT_WR)))
            sender.start()
            self.assertTrue(read_to_end(client) == answers_to(data), "the answers differ")
            sender.join()

    def test_reset_costs_nobody_else_anything(self):
        server = self.start()
        with server.connect() as other:
            other.sendall(b"begun")
            client = server.connect()
            client.sendall(b"line\nhalf")
            self.assertEqual(client.recv(100), b"4 line\n")
            reset(client)
            wait_until(lambda: "client 2: ended, the connection is broken\n" in server.stderr(), "the reset is noticed")
            other.sendall(b" and ended\n")
            self.assertEqual(other.recv(100), b"15 begun and ended\n")

    def test_silent_client_is_ended_after_the_limit(self):
        server = self.start(limit="0.4")
        with server.connect() as client:
            begin = time.monotonic()
            client.sendall(b"one\ntwo")
            self.assertEqual(read_to_end(client), b"3 one\n")
            self.assertGreaterEqual(time.monotonic() - begin, 0.35)  # the server's clock may be set, a little, by others
        self.assertStillServes(server)
        self.assertEqual(server.stderr(), "line_server: client 1: ended, nothing came within the limit\n")

    def test_client_that_takes_no_answers_is_ended_after_the_limit(self):
        server = self.start(limit="0.4")
        with server.connect(receive_buffer=4096) as client:
            client.setblocking(False)
            with contextlib.suppress(ConnectionError):
                end = time.monotonic() + PATIENCE
                while "answers were not taken" not in server.stderr() and time.monotonic() < end:
                    select.select([], [client], [], 0.05)
                    with contextlib.suppress(BlockingIOError):
                        client.send(b"x" * 65535 + b"\n")
        self.assertStillServes(server)
        self.assertEqual(server.stderr(), "line_server: client 1: ended, answers were not taken within the limit\n")

    def test_line_beyond_the_bound_ends_its_client_without_a_reset(self):
        server = self.start()
        before = server.descriptors()
        with server.connect() as client:
            client.sendall(b"short\n" + b"z" * (LONGEST_LINE + 100_000))
            self.assertEqual(read_to_end(client), b"5 short\n")
            client.shutdown(socket.SHUT_WR)  # not before, or the connection would be over and nothing left to reset
            wait_until(lambda: server.descriptors() == before, "the server has closed")
            self.assertEqual(client.getsockopt(socket.SOL_SOCKET, socket.SO_ERROR), 0)
        self.assertStillServes(server)
        self.assertEqual(server.stderr(), f"line_server: client 1: ended, a line is longer than {LONGEST_LINE} bytes\n")

    def test_line_without_end_is_not_read_for_ever(self):
        server = self.start()
        with server.connect() as client:
            end = time.monotonic() + PATIENCE
            with self.assertRaises(ConnectionError):
                while time.monotonic() < end:
                    client.sendall(b"z" * 65536)
                    time.sleep(0.001)
        self.assertStillServes(server)

    def test_shortage_of_descriptors_makes_clients_wait(self):
        if b"__ubsan_handle_dynamic_type_cache_miss" in (PROGRAMS / "line_server").read_bytes():
            self.skipTest("the sanitizer needs descriptors itself, for a pipe that it tests pointers with")
        server = self.start()
        room = 3
        allowed = server.descriptors() + room
        resource.prlimit(server.process.pid, resource.RLIMIT_NOFILE, (allowed, allowed))
        clients = [server.connect() for _ in range(2 * room)]
        for client in clients:
            client.sendall(b"x\n")
        for client in clients[:room]:
            self.assertEqual(client.recv(100), b"1 x\n")
        before = server.waits()
        wait_until(lambda: server.waits() > before + 2, "the server pauses between its attempts")
        self.assertEqual(select.select(clients[room:], [], [], 0)[0], [])
        self.assertEqual(server.stderr(), f"line_server: cannot take a client: {os.strerror(errno.EMFILE)}\n")
        for client in clients[:room]:
            client.close()
        for client in clients[room:]:
            self.assertEqual(client.recv(100), b"1 x\n")
            client.close()

    @unittest.skipIf(HANDLERS_CONFUSE_THREADS, "an emulator's fault, see above")
    def test_signals_end_it_whatever_its_clients_do(self):
        for number, domain in (signal.SIGINT, "inet"), (signal.SIGTERM, "fs"):
            with self.subTest(signal=number, domain=domain), contextlib.ExitStack() as clients:
                server = self.start(domain)
                idle, halfway = (clients.enter_context(server.connect()) for _ in range(2))
                deaf = clients.enter_context(server.connect(receive_buffer=4096))
                for client in idle, halfway:
                    client.sendall(b"line\n")
                    self.assertEqual(client.recv(100), b"4 line\n")
                halfway.sendall(b"half a line")
                deaf.settimeout(0.3)
                with self.assertRaises(TimeoutError):  # until the server, which cannot send, reads no more
                    while True:
                        deaf.sendall(b"x" * 65535 + b"\n")
                begin = time.monotonic()
                self.assertEqual(server.stop(number), 0)
                self.assertLess(time.monotonic() - begin, 5)
                self.assertEqual((read_to_end(idle), read_to_end(halfway)), (b"", b""))
                self.assertEqual(server.stderr(), "")
                self.assertFalse(os.path.exists(self.path))

    def test_what_keeps_it_from_starting_is_said(self):
        taken = self.start("inet").address
        self.start("fs")
        for arguments, status, message in (
            ([], 2, "usage: line_server DOMAIN ADDRESS [LIMIT]\n"),
            (["inet", "127.0.0.1:0", "-1"], 2, "usage: line_server DOMAIN ADDRESS [LIMIT]\n"),
            (["inet", "127.0.0.1:0", "1", "2"], 2, "usage: line_server DOMAIN ADDRESS [LIMIT]\n"),
            (["inet", "nonsense"], 1, "line_server: bad socket address: "),
            (["ipx", "x"], 1, "line_server: unsupported socket domain (address family): "),
            (["inet", taken], 1, "line_server: socket bind failed: "),
            (["inet", taken.replace("127.0.0.1", "0.0.0.0")], 1, "line_server: socket bind failed: 0.0.0.0:"),
            (["fs", self.path], 1, f"line_server: socket bind failed: {self.path}\n"),
        ):
            with self.subTest(arguments=arguments):
                result = subprocess.run([*SERVER, *arguments], capture_output=True, text=True, timeout=PATIENCE, check=False)
                self.assertEqual((result.returncode, result.stdout), (status, ""))
                self.assertTrue(result.stderr.startswith(message), result.stderr)
        self.assertTrue(os.path.exists(self.path))  # the file of the server that is running
        with open("/dev/full", "wb") as full:
            result = subprocess.run([*SERVER, "inet", "127.0.0.1:0"], stdout=full, stderr=subprocess.PIPE, timeout=PATIENCE, check=False)
        self.assertEqual((result.returncode, result.stderr), (1, b"line_server: standard output cannot be written\n"))


class ClientTest(LineTest):
    TIME_OUT = (3, "time-out: the server did not react in time.")
    CLOSED = (4, "shutdown: the server closed the connection before all lines were answered.")
    TOOK_NO_MORE = (4, "shutdown: the server closed the connection and took no more lines.")
    RESET = (5, "reset: the server reset the connection.")

    def listen(self, domain, backlog=5):
        listener = socket.socket(socket.AF_INET if domain == "inet" else socket.AF_UNIX)
        self.addCleanup(listener.close)
        listener.settimeout(PATIENCE)
        listener.bind(("127.0.0.1", 0) if domain == "inet" else self.path)
        listener.listen(backlog)
        return listener, self.path if domain == "fs" else "127.0.0.1:%d" % listener.getsockname()[1]

    def assertEnds(self, result, expected, stdout=b""):
        status, sentence = expected
        self.assertEqual((result.returncode, result.stderr.decode()), (status, f"line_client: {sentence}\n"))
        self.assertEqual(result.stdout, stdout)

    def run_against(self, peer, data, domain="inet", limit="10"):
        """The client's end when the function peer does with the connection what it likes."""
        listener, address = self.listen(domain)
        thread = threading.Thread(target=lambda: peer(listener.accept()[0]))
        thread.start()
        result = run_client(domain, address, limit, data)
        thread.join(PATIENCE)
        listener.close()
        return result

    def test_shutdown(self):
        def answer_one(connection):
            with connection:
                connection.recv(100)
                connection.sendall(b"3 one\n4 tw")
                connection.recv(100)

        self.assertEnds(self.run_against(answer_one, b"one\ntwo\nthree\n"), self.CLOSED, b"3 one\n")

    def test_shutdown_noticed_while_sending(self):
        listener, address = self.listen("fs")
        pipes = dict.fromkeys(("stdin", "stdout", "stderr"), subprocess.PIPE)
        with running([*CLIENT, "fs", address, "10"], **pipes) as client:
            listener.accept()[0].close()
            output, errors = client.communicate(b"line\n", timeout=PATIENCE)
        self.assertEnds(subprocess.CompletedProcess([], client.returncode, output, errors), self.TOOK_NO_MORE)

    def test_reset(self):
        def reset_it(connection):
            connection.recv(100)
            reset(connection)

        self.assertEnds(self.run_against(reset_it, b"line\n"), self.RESET)

    def test_silent_peer_is_a_time_out(self):
        with running(["nc", "-l", "-U", self.path], stdin=subprocess.PIPE, stdout=subprocess.PIPE) as peer:
            wait_until(lambda: listens(self.path), "netcat listens")
            begin = time.monotonic()
            result = run_client("fs", self.path, "0.4", b"line\n")
            self.assertGreaterEqual(time.monotonic() - begin, 0.35)
            self.assertEnds(result, self.TIME_OUT)
            self.assertEqual(peer.communicate(timeout=PATIENCE)[0], b"line\n")

    def test_peer_that_reads_nothing_is_a_time_out(self):
        listener, address = self.listen("fs")
        begin = time.monotonic()
        self.assertEnds(run_client("fs", address, "0.4", b"x" * 1_000_000 + b"\n"), self.TIME_OUT)
        self.assertGreaterEqual(time.monotonic() - begin, 0.35)
        listener.accept()[0].close()

    def test_full_queue_is_a_time_out_of_connecting(self):
        _, address = self.listen("fs", backlog=0)
        with socket.socket(socket.AF_UNIX) as first:
            first.connect(address)
            begin = time.monotonic()
            self.assertEnds(run_client("fs", address, "0.4"), self.TIME_OUT)
            self.assertGreaterEqual(time.monotonic() - begin, 0.35)

    def test_refusal(self):
        for domain in "inet", "fs":
            listener, address = self.listen(domain)
            if domain == "fs":
                listener.close()  # the file stays
                self.assertEnds(run_client(domain, address, "10"), (6, f"refusal: nobody listens on {address}."))
            else:
                with socket.socket() as bound:  # but not listening, so nobody else does on its port
                    bound.bind(("127.0.0.1", 0))
                    address = "127.0.0.1:%d" % bound.getsockname()[1]
                    self.assertEnds(run_client(domain, address, "10"), (6, f"refusal: nobody listens on {address}."))

    def test_bad_address(self):
        for domain, address, beginning in (
            ("inet", "nocolon", 'bad address: "nocolon" cannot be used ('),
            ("inet", "127.0.0.1:", 'bad address: "127.0.0.1:" cannot be used ('),
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
        for arguments in [[], ["inet"], ["inet", "127.0.0.1:1"], ["inet", "127.0.0.1:1", "1", "more"]] + [
            ["inet", "127.0.0.1:1", limit] for limit in limits
        ]:
            with self.subTest(arguments=arguments):
                result = subprocess.run([*CLIENT, *arguments], stdin=subprocess.DEVNULL, capture_output=True, timeout=PATIENCE, check=False)
                self.assertEqual((result.returncode, result.stdout), (2, b""))
                self.assertTrue(result.stderr.startswith(b"usage: line_client DOMAIN ADDRESS LIMIT\n"), result.stderr)

    def test_answers_that_cannot_be_written(self):
        server = self.start()
        for output in "/dev/full", "&-":  # the latter is closed
            command = ["sh", "-c", f'exec "$@" >{output}', "sh", *CLIENT, "inet", server.address, "10"]
            result = subprocess.run(command, input=b"line\n", stderr=subprocess.PIPE, timeout=PATIENCE, check=False)
            self.assertEqual(
                (result.returncode, result.stderr), (8, b"line_client: output: the answers cannot be written to standard output.\n")
            )

    def test_other_failures_are_told_too(self):
        self.assertEnds(run_client("fs", self.path, "1"), (1, f"failure: {os.strerror(errno.ENOENT)}."))
        server = self.start()
        directory = os.open(self.directory, os.O_RDONLY)
        self.addCleanup(os.close, directory)
        result = run_client("inet", server.address, "1", input=None, stdin=directory)
        self.assertEnds(result, (1, "failure: standard input cannot be read."))

        def babble(connection):
            with connection, contextlib.suppress(ConnectionError):
                connection.recv(100)
                connection.sendall(b"b" * (LONGEST_LINE + 100))

        self.assertEnds(self.run_against(babble, b"line\n"), (1, "failure: the server sent an answer longer than any line."))


if __name__ == "__main__":
    for program in "nc", "socat":
        if shutil.which(program) is None:
            raise SystemExit(f"{program} is missing")
    unittest.main(argv=[sys.argv[0], *sys.argv[2:]], verbosity=2)
