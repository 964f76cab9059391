#!/usr/bin/env python3
"""Writes the seeds of the fuzz targets, fuzz/corpus/TARGET/seed-NN. Other files there are inputs of faults that were found, and stay.

A target takes numbers from the end of its input and texts from the beginning, as libFuzzer's FuzzedDataProvider does. In a text of random
length each backslash is doubled, and a backslash with some other byte ends the text.
"""
import pathlib
import struct


def text(content):
    return content.replace(b"\\", b"\\\\") + b"\\."


def utf8():
    samples = [b"", b"plain", "grüße €".encode(), "\U0001F600".encode(), b"\xed\xa0\xbd\xed\xb8\x80", b"\xc0\x80", b"\xe2\x82", b"\xff",
               b"a\0b", b"\x80\xbf\xc0\xc1\xdf\xe0\xef\xf0", bytes(range(256))]
    for sample in samples:
        yield sample + bytes([0, 5])
    for unit in ("H", "I"):
        units = [0x41, 0x7F, 0x80, 0x7FF, 0x800, 0xD83D, 0xDE00, 0xFFFF] + ([0x10000, 0x7FFFFFFF, 0xFFFFFFFF] if unit == "I" else [0x3F])
        yield b"".join(struct.pack("<" + unit, each) for each in reversed(units)) + bytes([unit == "I", 20])
    # Long enough for the vectors of every codec: texts, the same with a malformed sequence in the middle, and code units around each limit.
    for sample in ["plain text ", "grüße ñ", "привет мир", "漢ࠀ字仮名", "aé漢😀"]:
        long = (sample * 50).encode()[:470]
        yield long + bytes([0, 255])
        yield long[:201] + b"\xc0\xe0\xff" + long[201:] + bytes([0, 160])
    for units in [0x41, 0x7F], [0x7F, 0x80], [0x80, 0x7FF], [0x41, 0x7FF, 0x800], [0xFFFF, 0x800, 0xD800], [0x41, 0xE9, 0x4E00, 0x7F]:
        yield struct.pack(f"<{len(units)}H", *units) * (480 // len(units) // 2) + bytes([0, 7])


def address():
    inet, fs, ipx, none, other = b"\0", b"\4", b"\5", b"\6", b"\7"
    for sample in [b"127.0.0.1:80", b"10.0.0.1:8080abc", b"10.0.0.1:", b"10.0.0.1", b"10.0.0.1:-1", b"0.0.0.0: \t+70000", b"a:b:c",
                   b"255.255.255.255:99999999999999999999", b"1.2.3.4:-9223372036854775809", b"256.1.1.1:1", b"01.2.3.4:5", b"1.2.3:4",
                   b"1.2.3.4\0:5", b"1.2.3.4:5\x006", b":1", b"1.2.3.4:" + b"0" * 254, b"1.2.3.4:" + b"0" * 255]:
        yield sample + inet
    for sample in [b"", b"/tmp/socket", b"a\0b", b"p" * 200, b"\xff\xfe"]:
        yield sample + fs
    yield b"anything" + ipx
    yield b"1.2.3.4:5" + none
    yield text(b"INET") + b"1.2.3.4:5" + other


def stream():
    # The first number is the size of the buffers. The numbers of the answers and of each operation follow. Any bytes are a valid walk.
    for size in range(10):
        for factor in (37, 101):
            yield bytes(i * factor % 251 for i in range(60 + size * 20)) + bytes([size])


def path():
    yield from [b"f", b"a/b/../f", b"./a//b/", b"l/f", b"l/../f", b"a/u", b"d", b"o", b"o/x", b"a\\b", b"a/\xff\xfe", b"f/", b"f/..", b"",
                b"a/b\0/f", b"a/r", b"a/r/../..", b"../" * 20, b"./" * 200 + b"f", b"n" * 256, b"a/ ", b"."]


def fs_address():
    def peer(datagram, name):  # gives the numbers in the order in which the target takes them, which is from the end of the input
        return (b"" if name is None else text(name)), bytes([datagram, 0 if name is None else 1])

    names = [None, b"", b"short", b"x" * 107, b"y" * 108, b"\0abstract", b"\0a\0b", b"zero\0inside", b"sl/ash", b".", b"receiver",
             b"\xff\xfe"]
    for domain in (0, 3, 4):
        for first in range(0, len(names), 4):
            peers = [peer(datagram, name) for name in names[first:first + 4] for datagram in (1, 0)]
            numbers = bytes([domain]) + b"".join(each[1] for each in peers)
            texts = (text(b"before") if domain == 0 else b"") + b"".join(each[0] for each in peers)
            yield texts + numbers[::-1]


for target in (utf8, address, stream, path, fs_address):
    folder = pathlib.Path(__file__).parent / "corpus" / target.__name__
    folder.mkdir(parents=True, exist_ok=True)
    for old in folder.glob("seed-*"):
        old.unlink()
    for number, seed in enumerate(target()):
        (folder / f"seed-{number:02}").write_bytes(seed)
