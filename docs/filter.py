#!/usr/bin/env python3
"""Prints what Doxygen reads in place of a file: filter.py FILE.

A header is put under its subject of the reference (reference.dox). A page of the manual gets links to the pages before and after it, in the
order of the tree (layout.xml).
"""
import pathlib
import re
import sys

# A header that is not listed belongs to the subject with the name of its folder.
SUBJECTS = {"exception": "errors", "time": "time", "stream": "streams", "socket_stream": "streams", "socket_errors": "socket_errors",
            "cancellation": "threads", "mapper": "tools", "singleton": "tools"}
FOLDERS = {"filesystem": "files", "net": "sockets", "interface": "interfaces", "foundation": "tools"}


def header(path, text):
    text = re.sub(r"^ +[^/\n]*= default;$", "", text, flags=re.M)  # the comment of a class says what a copy does
    # Behind @throw, Doxygen would show these as a part of the exception.
    text = re.sub(r"^( *///) (Requires|Waits|Threads): ", r"\1 @par \2\n\1 ", text, flags=re.M)
    subject = SUBJECTS.get(path.stem) if path.parent.name != "interface" else None
    subject = subject or FOLDERS.get(path.parent.name, path.parent.name)
    if path.parent.name == "kest":  # kest.h, version.h and export.h have no classes
        return text
    def begin(found):
        is_tool = re.search(r"_Template|_Gadgets", found[0]) and subject != "streams"
        return f"{found[0]}\n/** @addtogroup reference_{'tools' if is_tool else subject}\n@{{ */"

    text = re.sub(r"^namespace [\w:]+ \{$", begin, text, flags=re.M)
    return re.sub(r"^\} // namespace", "/** @} */\n\\g<0>", text, flags=re.M)


def page(text):
    label = re.search(r"^# .*\{#(\w+)\}", text, flags=re.M)
    order = re.findall(r'<tab type="user" url="@ref (\w+)"', (pathlib.Path(__file__).parent / "layout.xml").read_text())
    if not label or label[1] not in order:
        return text
    place = order.index(label[1])
    links = [f"Previous: @ref {order[place - 1]}"] if place > 0 else []
    links += [f"Next: @ref {order[place + 1]}"] if place + 1 < len(order) else []
    return f"{text}\n\n<div class=\"turn\">\n{' · '.join(links)}\n</div>\n"


def main():
    path = pathlib.Path(sys.argv[1])
    text = path.read_text(encoding="utf-8")
    sys.stdout.reconfigure(encoding="utf-8")
    sys.stdout.write(header(path, text) if path.suffix == ".h" else page(text) if path.suffix == ".md" else text)


if __name__ == "__main__":
    main()
