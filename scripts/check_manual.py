#!/usr/bin/env python3
"""Opens every page of the manual in a headless browser and fails on what a reader would find broken: a link that leads nowhere, a picture
that is not shown, a script that fails. Links are looked at as the browser has them, after the pages' scripts ran.

Usage: check_manual.py FOLDER_OF_THE_PAGES
Links out of the manual are not followed: nothing here goes over the network.
"""
import pathlib
import sys
import urllib.parse

from selenium import webdriver
from selenium.webdriver.chrome.service import Service

# What the browser has made of a page: where its links lead, what can be linked to, what it could not show.
LOOK = """
const done = arguments[0];
const all = selector => Array.from(document.querySelectorAll(selector));
const settled = all("img").map(each => each.decode().catch(() => {})); // hidden ones are not loaded before they are needed
Promise.all(settled).then(() => done({
    links: all("a[href], area[href], link[href]").map(each => each.getAttribute("href")),
    files: all("img[src], script[src], iframe[src], embed[src]").map(each => each.getAttribute("src"))
        .concat(all("object[data]").map(each => each.getAttribute("data"))),
    anchors: all("[id]").map(each => each.id).concat(all("[name]").map(each => each.getAttribute("name"))),
    broken: all("img").filter(each => !each.complete || each.naturalWidth === 0).map(each => each.getAttribute("src")),
}));
"""


def start_browser():
    options = webdriver.ChromeOptions()
    for option in ("--headless", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--disable-background-networking",
                   "--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE 127.0.0.1"):
        options.add_argument(option)
    options.set_capability("goog:loggingPrefs", {"browser": "SEVERE"})
    return webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)


def look_at(browser, path):
    """The page as the browser has it, after its scripts ran; what failed meanwhile comes along."""
    browser.get(path.as_uri())
    page = browser.execute_async_script(LOOK)
    page["failures"] = [entry["message"] for entry in browser.get_log("browser")]
    return page


def main():
    root = pathlib.Path(sys.argv[1]).resolve()
    names = sorted(path.name for path in root.glob("*.html"))
    if "index.html" not in names:
        print(f"no index.html in {root}")
        return 1
    browser = start_browser()
    try:
        pages = {name: look_at(browser, root / name) for name in names}
    finally:
        browser.quit()

    faults = []
    links = 0
    for name, page in pages.items():
        faults.extend(f"{name}: {failure}" for failure in page["failures"])
        faults.extend(f"{name}: the picture {picture} is not shown" for picture in page["broken"])
        for link in {*page["links"], *page["files"]}:
            target = urllib.parse.urlsplit(link)
            if target.scheme in ("http", "https", "mailto", "javascript", "data"):
                continue
            links += 1
            path = urllib.parse.unquote(target.path) or name
            anchor = urllib.parse.unquote(target.fragment)
            if not (root / path).is_file():
                faults.append(f"{name}: {link} leads to no file")
            elif anchor and path in pages and anchor not in pages[path]["anchors"]:
                faults.append(f"{name}: {link} leads to no place in {path}")
    # What a reader cannot get to from the first page is not part of the manual. Doxygen makes a page of each folder, also of those without
    # a header.
    reached, waiting = set(), ["index.html"]
    while waiting:
        name = waiting.pop()
        if name in reached or name not in pages:
            continue
        reached.add(name)
        waiting.extend(urllib.parse.unquote(urllib.parse.urlsplit(link).path) for link in pages[name]["links"])
    faults.extend(f"{name}: no page leads to it" for name in names if name not in reached and not name.startswith(("dir_", "graph_legend")))

    for fault in sorted(faults):
        print(fault)
    print(f"manual: {len(pages)} pages, {links} links and files, {len(faults)} faults")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
