#!/usr/bin/env python3
"""Finds in the sources of the library what its readers would stumble over.

- An include that runs upwards: a folder stands on those that LAYERS names, and a header never includes one that includes it.
- A public header without `@file`, and an internal one whose first line does not say who uses it.
- A file of more than 600 lines, an operation of more than 40.
- A comment that sends its reader elsewhere without saying where ("as above", "see there", "the same as").
- The comment of an operation whose parts are not in the order effect, @param, @return, @throw, Requires, Waits, Threads.
Usage: check_sources.py FOLDER
"""

import pathlib
import re
import sys

LAYERS = {
    "foundation": (),
    "interface": ("foundation",),
    "text": ("foundation",),
    "threads": ("foundation", "interface"),
    "net": ("foundation", "interface", "threads"),
    "filesystem": ("foundation", "interface", "threads"),
    "process": ("filesystem", "foundation", "interface", "threads"),
}
LONGEST_FILE, LONGEST_OPERATION = 600, 40
ELSEWHERE = re.compile(
    r"\b(?:as|see|than|table) (?:above|below|there)\b|\bThe (?:above|below|rest is|same)\b|\bthe same (?:as|for|holds)\b|\b(?:mentioned|described|said) (?:above|below)\b|\bditto\b"
)
PARTS = (("@param", 1), ("@return", 2), ("@throw", 3), ("Requires:", 4), ("Waits:", 5), ("Threads:", 6))


def includes(text):
    return re.findall(r"^#include <kest/([^>]+)>", text, flags=re.M)


def layering(root, files):
    for path, text in files.items():
        folder = path.relative_to(root).parts[0]
        if folder not in LAYERS:
            continue
        for name in includes(text):
            other = name.split("/")[0]
            if other in LAYERS and other != folder and other not in LAYERS[folder]:
                yield path, 1, f"includes {name}, and {folder}/ does not stand on {other}/"


def circles(root, files):
    uses = {str(path.relative_to(root)): includes(text) for path, text in files.items() if path.suffix == ".h"}
    finished, open_now = set(), []

    def visit(name):
        if name in open_now:
            yield root / name, 1, "includes itself, by " + ", ".join(open_now[open_now.index(name) + 1 :])
        elif name not in finished and name in uses:
            open_now.append(name)
            for each in uses[name]:
                yield from visit(each)
            finished.add(open_now.pop())

    for name in uses:
        yield from visit(name)


def file_comments(root, files):
    public = {"kest.h", *includes((root / "kest.h").read_text(encoding="utf-8"))}
    for path, text in files.items():
        if path.suffix != ".h":
            continue
        if str(path.relative_to(root)) in public:
            if "@file" not in text:
                yield path, 1, "a public header without @file"
        elif not re.match(r"// Internal header: used ", text):
            yield path, 1, 'the first line of an internal header begins with "// Internal header: used "'


def operations(text):
    """Where each operation that takes more than its own line begins, and the length of its body. The sources are formatted: a body ends
    with the first bracket that stands as far left as the line on which it began."""
    lines = text.split("\n")
    for number, line in enumerate(lines):
        begin = re.match(r"( *)(?!//|namespace|class|struct|enum|union|extern|template).*[\w)\]>] \{$", line)
        if begin and not re.match(r"\s*(?:[}]|if|for|while|switch|do|else|try|catch)\b", line):
            end = next((each for each in range(number + 1, len(lines)) if re.match(begin[1] + r"\}", lines[each])), number)
            yield number + 1, end - number - 1


def lengths(_, files):
    every = sorted(length for text in files.values() for _, length in operations(text))
    shortest = [every[len(every) // 2], every[len(every) * 9 // 10], every[-1]] if every else [0, 0, 0]
    print(f"{len(every)} operations of more than one line: half have at most {shortest[0]}, nine of ten {shortest[1]}, all {shortest[2]}")
    for path, text in files.items():
        if text.count("\n") > LONGEST_FILE:
            yield path, LONGEST_FILE, f"more than {LONGEST_FILE} lines"
        for number, length in operations(text):
            if length > LONGEST_OPERATION:
                yield path, number, f"an operation of {length} lines, more than {LONGEST_OPERATION}"


def comments(_, files):
    for path, text in files.items():
        reached = 0
        for number, line in enumerate(text.split("\n"), 1):
            comment = re.search(r"//.*", line)
            if comment and ELSEWHERE.search(comment[0]):
                yield path, number, "sends the reader elsewhere without saying where: " + ELSEWHERE.search(comment[0])[0]
            if not re.match(r"\s*///(?!<)", line):
                reached = 0
                continue
            words = re.sub(r"^\s*/// ?", "", line)
            part = next((place for word, place in PARTS if words.startswith(word)), None)
            is_prose = part is None and re.match(r"[^\s@]", words)
            if (part or 0) < reached and (part or (is_prose and reached == 3)):
                yield path, number, "not in the order effect, @param, @return, @throw, Requires, Waits, Threads"
            reached = max(reached, part or 0)


def main(folder):
    root = pathlib.Path(folder)
    files = {path: path.read_text(encoding="utf-8") for path in sorted(root.rglob("*")) if path.suffix in (".h", ".cpp")}
    if not files:
        sys.exit("check_sources.py: no sources in " + folder)
    found = False
    for rule in (layering, circles, file_comments, lengths, comments):
        for path, number, message in rule(root, files):
            print(f"{path}:{number}: {message}")
            found = True
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
