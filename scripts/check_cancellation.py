#!/usr/bin/env python3
"""Finds code that would end the process when a thread is cancelled.

A cancellation unwinds like an exception. It ends the process when a catch-all does not pass it on and when it meets a noexcept
function. So in the files below the given folders
  - there is no `catch (...)` but the one of `_CatchAll` in foundation/unwinding.h, which tells a cancellation from an exception, and
  - no operation that can block is noexcept.
Usage: check_cancellation.py FOLDER...
"""

import pathlib
import re
import sys

BLOCKING = (
    "Wait Sleep Yield Receive ReceiveFrom Send SendTo Connect Accept SelectRead SelectWrite ValidateReceive WaitFor Enter Run "
    "ThreadFunc Read Write Copy Rename underflow uflow overflow sync Get Transmit SendOnce CountReady ConnectWithin"
).split()

TOKENS_WITHOUT_CODE = re.compile(
    r'//[^\n]*|/\*.*?\*/|R"([^ ()\\]*)\(.*?\)\1"|"(?:\\.|[^"\\\n])*"|(?<![0-9A-Za-z_])\'(?:\\.|[^\'\\\n])*\'', re.DOTALL
)


def blank(text):
    """The text with comments and literals turned into spaces, so that places in it stay the same."""
    return TOKENS_WITHOUT_CODE.sub(lambda match: re.sub(r"[^\n]", " ", match.group()), text)


def closing(text, start):
    """The place of the bracket that closes the one at start."""
    pairs = {"(": ")", "{": "}"}
    depth = 0
    for place in range(start, len(text)):
        if text[place] == text[start]:
            depth += 1
        elif text[place] == pairs[text[start]]:
            depth -= 1
            if depth == 0:
                return place
    raise SyntaxError("a bracket is not closed")


def catch_alls(text):
    for match in re.finditer(r"\bcatch\s*\(\s*\.\.\.\s*\)", text):
        yield match.start(), "catch (...) would catch a cancellation too: call _CatchAll of foundation/unwinding.h"


def blocking_without_unwinding(text):
    for match in re.finditer(r"\b(%s)\s*(?=\()" % "|".join(BLOCKING), text):
        after = text[closing(text, text.index("(", match.end())) + 1 :]
        specifiers = re.match(r"(?:\s|&|\b(?:const|volatile|override|final)\b)*(\bnoexcept\b\s*(\(\s*false\s*\))?|\bthrow\s*\(\s*\))", after)
        if specifiers is not None and specifiers.group(2) is None:
            yield match.start(), f"{match.group(1)} can block and is noexcept"


def main(folders):
    files = [path for folder in folders for path in sorted(pathlib.Path(folder).rglob("*")) if path.suffix in (".h", ".cpp")]
    if not files:
        sys.exit("check_cancellation.py: no sources in " + " ".join(folders))
    found = False
    for path in files:
        text = blank(path.read_text(encoding="utf-8"))
        catching = [] if path.parts[-2:] == ("foundation", "unwinding.h") else catch_alls(text)
        for place, message in [*catching, *blocking_without_unwinding(text)]:
            print(f"{path}:{text.count(chr(10), 0, place) + 1}: {message}")
            found = True
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
