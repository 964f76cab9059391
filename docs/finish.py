#!/usr/bin/env python3
"""Finishes the manual that Doxygen has written: finish.py FOLDER_OF_THE_PAGES.

Doxygen's search finds names that begin with the typed text. This script adds each name to the lists under the ends of the name too, so that
"timeout" finds SetReceiveTimeout. It removes pages that only list the members of a class again. It puts classes that programs use before
the tools of the library on the page of a header.
"""
import html
import pathlib
import re
import sys

SHORTEST = 3  # letters that the end of a name must have to be listed


def encoded(name):
    """A name as Doxygen's lists write it."""
    return re.sub(r"[^a-z0-9\u0080-\uffff]", lambda each: f"_{ord(each[0]):02x}", name.lower())


def entries_of(path):
    for name, result in re.findall(r"^  \['(\w+)_\d+',(\[.*\])\],?$", path.read_text(encoding="utf-8"), flags=re.M):
        yield re.sub(r"_([0-9a-f]{2})", lambda code: chr(int(code[1], 16)), name), result


def headings_of(path):
    """The headings of a page, which Doxygen's search does not know."""
    text = path.read_text(encoding="utf-8")
    title = html.unescape(re.search(r"<title>(?:Kest: )?(.*?)</title>", text)[1])
    for anchor, heading in re.findall(r'<h[23]><a class="anchor" id="(\w+)"></a>\s*(.*?)</h[23]>', text, flags=re.S):
        heading = html.unescape(re.sub(r"<[^>]*>", "", heading)).strip().replace("'", "\u2019")
        yield heading.lower(), f"['{html.escape(heading)}',['../{path.name}#{anchor}',1,'{html.escape(title)}']]"


def widen(root, section, letters):
    """Writes the lists of a section anew, one for each letter, with further entries for the ends of each name. Returns the letters."""
    search = root / "search"
    lists = {letter: list(entries_of(search / f"{section}_{place:x}.js")) for place, letter in enumerate(letters)}
    names = [entry for entries in lists.values() for entry in entries]
    headings = [entry for path in sorted(root.glob("*.html")) for entry in headings_of(path)]
    further = [(name[place:], result) for name, result in headings for place in range(max(len(name) - SHORTEST + 1, 1))]
    further += [(name[place:], result) for name, result in names for place in range(1, len(name) - SHORTEST + 1)]
    for name, result in further:
        if name[0].isalnum() and (name, result) not in lists.setdefault(name[0], []):
            lists[name[0]].append((name, result))
    for place, rows in enumerate(lists.values()):
        text = ",\n".join(f"  ['{encoded(name)}_{number}',{result}]" for number, (name, result) in enumerate(rows))
        (search / f"{section}_{place:x}.js").write_text(f"var searchData=\n[\n{text}\n];\n", encoding="utf-8")
        page = search / f"{section}_0.html"  # newer versions of Doxygen have none
        if page.is_file():
            page.with_name(f"{section}_{place:x}.html").write_text(page.read_text().replace(f"{section}_0.js", f"{section}_{place:x}.js"))
    return "".join(lists)


def classes_first(path):
    """Moves the tools behind the classes, which Doxygen has put in the order of their names."""
    row = r'<tr class="memitem:">.*?<tr class="separator:">.*?</tr>\n'
    text = path.read_text(encoding="utf-8")
    order = lambda rows: "".join(sorted(re.findall(row, rows[0], flags=re.S), key=lambda each: "_Gadgets" in each or "_Template" in each))
    path.write_text(re.sub(f"(?:{row})+", order, text, flags=re.S), encoding="utf-8")


def main():
    root = pathlib.Path(sys.argv[1])
    for path in root.glob("*-members.html"):
        path.unlink()
    for path in root.glob("*_8h.html"):
        classes_first(path)
    data = root / "search/searchdata.js"
    text = data.read_text(encoding="utf-8")
    letters = re.search(r'indexSectionsWithContent =\s*\{\s*0: "([^"]*)"', text)
    section = re.search(r'indexSectionNames =\s*\{\s*0: "(\w+)"', text)[1]
    data.write_text(text[:letters.start(1)] + widen(root, section, letters[1]) + text[letters.end(1):], encoding="utf-8")


if __name__ == "__main__":
    main()
