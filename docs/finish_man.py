#!/usr/bin/env python3
"""Turns what Doxygen has written for man into pages for man: finish_man.py FOLDER VERSION.

Each class that programs name keeps a page, under the name that programs use within the namespace: TSocket, TSocket::TAddress, ETimeout, and
Interface::TSocket for the abstract class. The pages of files, namespaces, guides and tools of the library are removed.
"""
import pathlib
import re
import sys

NAMESPACES = r"Kest::(System::)?(Interface::_Socket::)?"


def name_of(text):
    """The name by which programs call the class of a page, or nothing when the page is about something else."""
    name = re.search(r"\n\.SH NAME\n(\S.*?)(?: \\- .*)?\n", text)
    name = name[1].replace("\\&", "").strip() if name else ""
    found = re.fullmatch(NAMESPACES + r"((?:Interface::)?[TE]\w+(?:::\w+)*)(?:<.*>)?", name)
    return found[3] if found and '.SH "What it is"' in text else ""


def rows(found):
    """Doxygen writes no tables for man: it puts the rows of a table, and the cells of a row, into one line."""
    text = ""
    for row in re.split(r" {4,}", found[0].strip()):
        key, _, rest = row.partition("   ")
        text += f"\n.TP\n\\&{key}\n\\&{rest.replace('   ', ', ')}" if rest else f" {key}"
    return text.lstrip("\n")


def finished(text, name, version):
    text = re.sub(r"^\.TH .*", f'.TH "{name}" 3kest "" "Kest {version}" "Kest"', text, count=1)
    text = re.sub(r'^class Kest::.*?"(?=\S)', "", text, flags=re.M)  # in front of what a template is for
    text = re.sub(r"^(?!\.)(?:\S.*?)   \S.*    \S.*$", rows, text, flags=re.M)
    begin = text.index('.SH "What it is"')
    summary = re.search(r"\n(?!\.|\n)(.+?)(?:\\&)?(?:[.:](?:\s|$)|\n)", text[begin:])
    summary = summary[1].replace("\\&", "").strip() if summary else "class of Kest"
    text = re.sub(r"\n\.SH NAME\n.*\n", lambda _: f"\n.SH NAME\n{name} \\- {summary}\n", text, count=1)
    return text.replace('.SH "What it is"', ".SH DESCRIPTION", 1)


def main():
    folder, version = pathlib.Path(sys.argv[1]), sys.argv[2]
    for path in folder.glob("*.3kest"):  # else pages of a removed class would stay
        path.unlink()
    for path in folder.glob("*.3"):
        text = path.read_text(encoding="utf-8")
        path.unlink()
        if name := name_of(text):
            (folder / f"{name}.3kest").write_text(finished(text, name, version), encoding="utf-8")


if __name__ == "__main__":
    main()
