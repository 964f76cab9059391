#!/usr/bin/env python3
"""Attacks line_server, line_client and work_queue with hostile peers and with lack of memory, threads and descriptors.

Usage: attack.py FOLDER_OF_THE_PROGRAMS FAILING_MALLOC [ATTACK...]
FAILING_MALLOC is the library built of tests/examples/failing_malloc.cpp. Without names, all attacks are made. Prints a line for each;
status 0 when the programs held out against all, else 1. Everything happens on 127.0.0.1 and in temporary directories, is bounded in
number and time, and needs no privilege. Attacks on memory and descriptors are left out where a sanitizer has or needs its own.
"""
import contextlib
import errno
import mmap
import os
import pathlib
import random
import re
import resource
import select
import shlex
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time

PROGRAMS = pathlib.Path(sys.argv[1]).resolve()
LAUNCHER = shlex.split(os.environ.get("KEST_LAUNCHER", ""))  # a command that runs programs of their kind
# In qemu's emulation of an i386 process, a thread that has returned from a signal handler has the thread-local storage, and so the
# identity, of the newest thread. A server that a signal ends cannot join its threads then.
HANDLERS_CONFUSE_THREADS = bool(LAUNCHER)
SERVER = [*LAUNCHER, PROGRAMS / "line_server"]
CLIENT = [*LAUNCHER, PROGRAMS / "line_client"]
LONGEST_LINE = 1024 * 1024
PATIENCE = 30  # seconds to wait for something that should happen; only failures wait so long
TIME_TO_END = 2  # seconds that a server may take to end


def wait_until(condition, what):
    end = time.monotonic() + PATIENCE
    while not condition():
        if time.monotonic() > end:
            raise AssertionError(f"waited {PATIENCE} s in vain: {what}")
        time.sleep(0.01)


def read_to_end(connection):
    return b"".join(iter(lambda: connection.recv(65536), b""))


def reset(connection):
    """Closes the connection so that the peer gets a reset."""
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.close()


def expect(wanted, got, what=""):
    if got != wanted:
        raise AssertionError(f"{what}: wanted {wanted!r}, got {got!r}")


def run_client(domain, address, limit, data=b"", **options):
    options = {"input": data, "stdout": subprocess.PIPE} | options
    return subprocess.run([*CLIENT, domain, address, limit], stderr=subprocess.PIPE, timeout=PATIENCE, **options)


class Server:
    """A running line_server. Leaving the context ends it by SIGTERM and checks that it ends well and soon."""

    def __init__(self, domain="inet", limit="0", clients=None, prefix=(), **options):
        self.directory = tempfile.TemporaryDirectory(prefix="kest", dir="/tmp")  # the path of a socket has room for 107 bytes
        self.domain = domain
        self.errors = tempfile.TemporaryFile()
        address = "127.0.0.1:0" if domain == "inet" else self.directory.name + "/s"
        options = {"stdout": subprocess.PIPE, "stderr": self.errors} | options
        arguments = [domain, address, limit] + ([clients] if clients else [])
        self.process = subprocess.Popen([*prefix, *SERVER, *arguments], **options)
        ready = self.process.stdout.readline().decode()
        assert ready.startswith("listening on "), ready + self.stderr()
        self.address = ready.removeprefix("listening on ").rstrip("\n")
        self.before = self.descriptors(), self.threads() + 1  # a sanitizer or an emulator may start a thread of its own

    def __enter__(self):
        return self

    def __exit__(self, failure, *_):
        try:
            if failure is None:
                self.end(signal.SIGTERM)
        finally:
            self.process.kill()
            self.process.wait()
            self.process.stdout.close()
            self.errors.close()
            self.directory.cleanup()

    def end(self, number):
        if self.process.poll() is None and not HANDLERS_CONFUSE_THREADS:
            begin = time.monotonic()
            self.process.send_signal(number)
            with contextlib.suppress(subprocess.TimeoutExpired):
                self.process.wait(timeout=PATIENCE)
            seconds = time.monotonic() - begin
            assert seconds < TIME_TO_END, f"the server took {seconds:.1f} s to end"
        assert not self.process.poll(), f"the server ended with {self.process.returncode}: {self.stderr()}"

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
        """What the server answers a new client."""
        with self.connect() as connection:
            with contextlib.suppress(BrokenPipeError):
                connection.sendall(line + b"\n")
            return connection.makefile("rb").readline()

    def serves(self):
        """Whether the server answers the line of a new client."""
        assert self.process.poll() is None, f"the server ended with {self.process.returncode}: {self.stderr()}"
        with contextlib.suppress(ConnectionError):
            return self.ask() == b"12 still there?\n"

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.process.pid}/fd"))

    def threads(self):
        return len(os.listdir(f"/proc/{self.process.pid}/task"))

    def is_idle(self):
        """Whether the server has no more descriptors and threads than at the beginning."""
        return self.descriptors() <= self.before[0] and self.threads() <= self.before[1]

    def waits(self):
        """How often the main thread has given up the processor by itself."""
        status = pathlib.Path(f"/proc/{self.process.pid}/status").read_text()
        return int(re.search(r"^voluntary_ctxt_switches:\s*(\d+)$", status, re.M)[1])


def limit_memory(mebibytes, stack=None):
    def limit():
        resource.setrlimit(resource.RLIMIT_AS, (mebibytes << 20, mebibytes << 20))
        if stack:
            resource.setrlimit(resource.RLIMIT_STACK, (stack, stack))

    return limit


class SingleFailures:
    """Makes one allocation of a program fail."""

    def __init__(self):
        self.file = tempfile.NamedTemporaryFile(prefix="kest", dir="/tmp")
        self.file.write(bytes(4))
        self.file.flush()
        self.memory = mmap.mmap(self.file.fileno(), 4)
        self.environment = os.environ | {"LD_PRELOAD": sys.argv[2], "KEST_FAILING_MALLOC": self.file.name}

    def arm(self, number):
        """Makes the allocation of that number, counted from now on, fail; 0 makes none fail."""
        self.memory[:] = struct.pack("i", number)

    def is_used(self):
        return struct.unpack("i", self.memory[:])[0] <= 0


def take_nothing(clients):
    """Sends lines over all connections and reads no answers, until the server reads no more."""
    for client in clients:
        client.setblocking(False)
    while writable := select.select([], clients, [], 0.3)[1]:
        for client in writable:
            with contextlib.suppress(BlockingIOError):
                client.send(b"x" * 65535 + b"\n")


def full_pipe():
    """A pipe that nobody reads: the end for writing, and the other end."""
    reading, writing = os.pipe()
    os.set_blocking(writing, False)
    with contextlib.suppress(BlockingIOError):
        while True:
            os.write(writing, b"x" * 65536)
    with contextlib.suppress(BlockingIOError):
        while True:
            os.write(writing, b"x")
    os.set_blocking(writing, True)
    return writing, reading


# The end of a server.


def siege(domain, count, behave):
    """The server ends in time whatever its clients do, and the clients see the end."""
    with Server(domain) as server, contextlib.ExitStack() as stack:
        clients = [stack.enter_context(server.connect(receive_buffer=4096)) for _ in range(count)]
        behave(clients)
        server.end(signal.SIGINT if domain == "inet" else signal.SIGTERM)
        expect("", server.stderr(), "standard error")
        assert domain == "inet" or not os.path.exists(server.address), "the file of the socket is still there"


def are_halfway(clients):
    for client in clients:
        client.sendall(b"line\nhalf a line")
        expect(b"4 line\n", client.recv(100))


def standard_error_is_full():
    writing, reading = full_pipe()
    try:
        with Server(stderr=writing) as server, contextlib.ExitStack() as stack:
            for _ in range(5):
                client = stack.enter_context(server.connect())
                with contextlib.suppress(ConnectionError):
                    client.sendall(b"x" * (LONGEST_LINE + 1))
                    expect(b"", client.recv(100), "the end of the connection")
            assert server.serves()
    finally:
        os.close(writing)
        os.close(reading)


# A client's end.


def one_client(domain, limit, behave, message):
    """Whatever a client does, the server ends it for the stated reason. It leaves nothing behind, and other clients do not notice."""
    with Server(domain, limit) as server:
        begin = time.monotonic()
        with server.connect(receive_buffer=4096) as client:
            with contextlib.suppress(ConnectionError):
                behave(server, client)
            wait_until(server.stderr, "the client is ended")
            seconds = time.monotonic() - begin
            expect(f"line_server: client 1: ended, {message}\n", server.stderr())
        assert limit == "0" or float(limit) * 0.9 <= seconds < float(limit) + 5, f"{seconds:.1f} s for a limit of {limit} s"
        assert server.serves()
        wait_until(server.is_idle, "nothing is left behind")


def sends_an_urgent_byte(_, client):
    client.send(b"!", socket.MSG_OOB)


def is_silent(_, client):
    client.sendall(b"one\ntwo")
    expect(b"3 one\n", read_to_end(client))


def takes_nothing(_, client):
    take_nothing([client])


def sends_too_long_a_line(server, client):
    """The client gets its last answer, and no reset."""
    client.sendall(b"short\n" + b"z" * (LONGEST_LINE + 100_000))
    expect(b"5 short\n", read_to_end(client))
    client.shutdown(socket.SHUT_WR)  # only now: before, the connection would be over, and there would be nothing to reset
    wait_until(server.is_idle, "the server has closed")
    expect(0, client.getsockopt(socket.SOL_SOCKET, socket.SO_ERROR), "the connection's error")


def sends_a_line_without_end(_, client):
    end = time.monotonic() + PATIENCE
    while time.monotonic() < end:
        client.sendall(b"z" * 65536)
        time.sleep(0.001)
    raise AssertionError("the server reads a line without end")


def resets(_, client):
    client.sendall(b"line\nhalf")
    expect(b"4 line\n", client.recv(100))
    reset(client)


# Many clients.


def crowd():
    """Fifty clients at once, 400 one after the other, and one that sends random bytes."""
    with Server() as server:
        clients = [server.connect() for _ in range(50)]
        for number, client in enumerate(clients):
            client.sendall(b"%d\n" % number)
        for number, client in reversed(list(enumerate(clients))):
            expect(b"%d %d\n" % (len(str(number)), number), client.recv(100))
            client.close()
        for _ in range(400):
            assert server.serves()
            assert server.descriptors() < 70
        with server.connect() as client:
            sender = threading.Thread(target=lambda: (client.sendall(noise), client.shutdown(socket.SHUT_WR)))
            noise = random.Random(1).randbytes(300_000)
            sender.start()
            expect(noise.count(b"\n") + 1, read_to_end(client).count(b"\n"), "lines answered")
            sender.join()
        wait_until(server.is_idle, "nothing is left behind")
        expect("", server.stderr(), "standard error")


def too_many(domain):
    """A client beyond the limit is told "busy", and not reset, until another client leaves."""
    with Server(domain, clients="3") as server:
        clients = [server.connect() for _ in range(3)]
        are_halfway(clients)
        for _ in range(200):
            expect(b"busy\n", server.ask())
        with server.connect() as patient:
            expect(b"busy\n", read_to_end(patient))
        result = run_client(domain, server.address, "10", b"line\n")
        expect((6, b"line_client: refusal: the server has no room for another client.\n"), (result.returncode, result.stderr))
        expect("line_server: cannot take a client: there are as many as there may be\n", server.stderr())
        clients.pop().close()
        wait_until(server.serves, "there is room again")


def no_descriptors():
    """Without a descriptor, clients wait for one, and the server pauses meanwhile."""
    with Server() as server:
        room = 3
        allowed = server.descriptors() + room
        resource.prlimit(server.process.pid, resource.RLIMIT_NOFILE, (allowed, allowed))
        clients = [server.connect() for _ in range(2 * room)]
        for client in clients:
            client.sendall(b"x\n")
        for client in clients[:room]:
            expect(b"1 x\n", client.recv(100))
        before = server.waits()
        wait_until(lambda: server.waits() > before + 2, "the server pauses between its attempts")
        expect([], select.select(clients[room:], [], [], 0)[0], "clients that are answered")
        expect(f"line_server: cannot take a client: {os.strerror(errno.EMFILE)}\n", server.stderr())
        for client in clients[:room]:
            client.close()
        for client in clients[room:]:
            expect(b"1 x\n", client.recv(100))
            client.close()


# No memory.


def long_lines(stack):
    """150 clients share 400 MiB, and each sends a line as long as allowed. The stacks are small, so that there are threads for all."""
    with Server(preexec_fn=limit_memory(400, stack)) as server:
        for _ in range(2):
            with contextlib.ExitStack() as stack:
                clients = [stack.enter_context(server.connect()) for _ in range(150)]
                for _ in range(16):
                    for client in clients:
                        with contextlib.suppress(ConnectionError):
                            client.sendall(b"x" * (LONGEST_LINE // 16))
                answer = server.ask()
                assert answer in (b"busy\n", b"12 still there?\n"), f"answer during the siege: {answer}, {server.stderr()}"
            wait_until(server.serves, "it serves on")


def server_without(behave, clients=None):
    """Each allocation of a conversation and of what follows fails once, and the server serves on. They do not all happen in one order, so
    there are two rounds after the last number that found something to fail."""
    failures = SingleFailures()
    with Server(clients=clients, env=failures.environment) as server:
        number, idle = 0, 0
        while idle < 3:
            number += 1
            failures.arm(number)
            for conversation in behave, Server.ask, Server.ask:
                with contextlib.suppress(ConnectionError):
                    conversation(server)
            idle = 0 if failures.is_used() else idle + 1
            failures.arm(0)
            wait_until(server.serves, f"it serves on after allocation {number} failed")
        assert number > 8, f"only {number} allocations were made to fail"


def is_one_too_many(server):
    with server.connect(), server.connect():
        server.ask()


def breaks_off(server):
    client = server.connect()
    client.sendall(b"x\nx")
    reset(client)


def queue(workers, data, **options):
    with tempfile.NamedTemporaryFile(prefix="kest", dir="/tmp") as text:
        text.write(data)
        text.flush()
        command = [*LAUNCHER, PROGRAMS / "work_queue", text.name, str(workers)]
        return subprocess.run(command, capture_output=True, text=True, timeout=PATIENCE, check=False, **options)


def queue_without(workers, data, mebibytes, message):
    result = queue(workers, data, preexec_fn=limit_memory(mebibytes))
    expect((3, f"work_queue: {message}\n"), (result.returncode, result.stderr))


def queue_without_one():
    """Each allocation fails once. The work is done nevertheless, or a message says why not."""
    failures = SingleFailures()
    told = number = 0
    while number == 0 or failures.is_used():
        number += 1
        failures.arm(number)
        result = queue(2, b"a line of some length\n" * 20, env=failures.environment)
        if result.returncode == 0:
            expect("20 lines, 420 characters, 0 changed, 2 workers\n", result.stdout)
        else:
            expect(3, result.returncode, f"status after allocation {number} failed, with {result.stderr!r}")
            assert result.stderr, f"no message after allocation {number} failed"
            told += 1
    assert told > 8, f"only {told} failures were told"


# Closed standard streams.


def closed_streams(closing):
    """With closed standard streams a client gets its answers, and nothing that the server prints."""
    with Server(prefix=["sh", "-c", f'exec "$@" {closing}', "sh"]) as server:
        with server.connect() as first, server.connect() as second:
            are_halfway([first, second])
            second.sendall(b"x" * (LONGEST_LINE + 1))
            expect(b"", read_to_end(second))
            first.sendall(b"\n")
            expect(b"11 half a line\n", first.recv(100))
    result = subprocess.run(["sh", "-c", 'exec "$@" >&- 2>&-', "sh", *SERVER, "inet", "127.0.0.1:0"], timeout=PATIENCE, check=False)
    expect(1, result.returncode, "status without an output to tell the address")


# The client's limit.


def client_against(behave):
    """A server that keeps sending does not hold the client beyond its limit."""
    with socket.create_server(("127.0.0.1", 0)) as listener:
        listener.settimeout(PATIENCE)

        def serve():
            with listener.accept()[0] as connection, contextlib.suppress(OSError):
                connection.settimeout(PATIENCE)
                connection.recv(100)
                behave(connection)

        server = threading.Thread(target=serve)
        server.start()
        begin = time.monotonic()
        result = run_client("inet", "127.0.0.1:%d" % listener.getsockname()[1], "0.5", b"line\n")
        seconds = time.monotonic() - begin
        server.join()
    expect((3, b"line_client: time-out: the server did not react in time.\n"), (result.returncode, result.stderr))
    assert 0.45 <= seconds < 5, f"{seconds:.1f} s for a limit of 0.5 s"


def drips(connection):
    for _ in range(100):
        connection.sendall(b"x")
        time.sleep(0.1)


def sends_an_urgent_byte_and_waits(connection):
    connection.send(b"!", socket.MSG_OOB)
    read_to_end(connection)


NOTHING_CAME = "nothing came within the limit"
NOT_TAKEN = "answers were not taken within the limit"
TOO_LONG = f"a line is longer than {LONGEST_LINE} bytes"
BROKEN = "the connection is broken"
# What an attack takes away, and the symbol that shows that a sanitizer of the program needs that for itself.
MEMORY = rb"__[at]san_init"
DESCRIPTORS = rb"__ubsan_handle_dynamic_type_cache_miss"

ATTACKS = (
    ("end: 40 fs clients take nothing", siege, "fs", 40, take_nothing),
    ("end: 40 inet clients take nothing", siege, "inet", 40, take_nothing),
    ("end: 40 clients are halfway in a line", siege, "fs", 40, are_halfway),
    ("end: standard error is full", standard_error_is_full),
    ("limit: an urgent byte, inet", one_client, "inet", "0.5", sends_an_urgent_byte, NOTHING_CAME),
    ("limit: an urgent byte, fs", one_client, "fs", "0.5", sends_an_urgent_byte, NOTHING_CAME),
    ("limit: silence", one_client, "inet", "0.5", is_silent, NOTHING_CAME),
    ("limit: takes nothing, inet", one_client, "inet", "0.5", takes_nothing, NOT_TAKEN),
    ("limit: takes nothing, fs", one_client, "fs", "0.5", takes_nothing, NOT_TAKEN),
    ("client: too long a line", one_client, "inet", "0", sends_too_long_a_line, TOO_LONG),
    ("client: a line without end", one_client, "inet", "0", sends_a_line_without_end, TOO_LONG),
    ("client: resets", one_client, "inet", "0", resets, BROKEN),
    ("many: a crowd", crowd),
    ("many: more than there may be, inet", too_many, "inet"),
    ("many: more than there may be, fs", too_many, "fs"),
    ("many: no descriptors", DESCRIPTORS, no_descriptors),
    ("memory: long lines", MEMORY, long_lines, None),
    ("memory: long lines, small stacks", MEMORY, long_lines, 256 * 1024),
    ("memory: each allocation of a line", MEMORY, server_without, Server.ask),
    ("memory: each allocation of a refusal", MEMORY, server_without, is_one_too_many, "2"),
    ("memory: each allocation of a reset", MEMORY, server_without, breaks_off),
    ("work_queue: no threads", MEMORY, queue_without, 256, b"x", 700, "Kest: thread creation error"),
    ("work_queue: no memory", MEMORY, queue_without, 1, b"x" * 200_000_000, 300, "memory ran out"),
    ("work_queue: each allocation", MEMORY, queue_without_one),
    ("closed: standard input", closed_streams, "<&-"),
    ("closed: standard error", closed_streams, "2>&-"),
    ("closed: both", closed_streams, "<&- 2>&-"),
    ("line_client: the answer drips", client_against, drips),
    ("line_client: an urgent byte", client_against, sends_an_urgent_byte_and_waits),
)


def attack(name, *call):
    """Makes one attack and prints its outcome: held, left out or FAILED."""
    begin = time.monotonic()
    outcome = "held"
    if isinstance(call[0], bytes) and re.search(call[0], (PROGRAMS / "line_server").read_bytes()):
        outcome = "left out: the sanitizer has its own, or needs it"
    else:
        action, *arguments = call[1:] if isinstance(call[0], bytes) else call
        try:
            action(*arguments)
        except (AssertionError, OSError, subprocess.TimeoutExpired) as failure:
            outcome = f"FAILED: {failure or type(failure).__name__}"
    print(f"{name:40} {time.monotonic() - begin:5.1f} s  {outcome}", flush=True)
    return outcome.partition(":")[0]


def main():
    signal.alarm(600)  # whatever goes wrong, this ends
    chosen = [row for row in ATTACKS if len(sys.argv) < 4 or row[0] in sys.argv[3:]]
    outcomes = [attack(*row) for row in chosen]
    print(", ".join(f"{outcomes.count(each)} {each}" for each in ("held", "left out", "FAILED")))
    return 0 if chosen and "FAILED" not in outcomes else 1


if __name__ == "__main__":
    sys.exit(main())
