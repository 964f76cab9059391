#!/usr/bin/env python3
"""Opens every page of the manual in a headless browser, as wide as on a desk and as narrow as on a telephone, light and dark, and fails on
what a reader would find broken: text off the edge or too pale, a link that leads nowhere, a picture that is not shown, a script that
fails, a search that does not find, a reference that puts things where they do not belong.

Usage: check_manual.py FOLDER_OF_THE_PAGES FOLDER_OF_THE_HEADERS
Links out of the manual are not followed: nothing here goes over the network.
"""
import concurrent.futures
import pathlib
import re
import sys
import tempfile
import time
import urllib.parse

from selenium import webdriver
from selenium.webdriver.chrome.service import Service

WIDTHS = (1280, 390)
SCHEMES = ("light", "dark")
BROWSERS = 2

# What the browser has made of a page: where its links lead, what can be linked to, what it could not show, what the reference says.
LOOK = """
const done = arguments[0];
const all = selector => Array.from(document.querySelectorAll(selector));
const texts = selector => all(selector).map(each => each.textContent.replace(/\\s+/g, " ").trim());
const settled = all("img").map(each => each.decode().catch(() => {})); // hidden ones are not loaded before they are needed
const prose = document.querySelector(".contents")?.cloneNode(true);
prose?.querySelectorAll(".fragment, code").forEach(each => each.remove());
Promise.all(settled).then(() => done({
    links: all("a[href], area[href], link[href]").map(each => each.getAttribute("href")),
    files: all("img[src], script[src], iframe[src], embed[src]").map(each => each.getAttribute("src"))
        .concat(all("object[data]").map(each => each.getAttribute("data"))),
    anchors: all("[id]").map(each => each.id).concat(all("[name]").map(each => each.getAttribute("name"))),
    broken: all("img").filter(each => !each.complete || each.naturalWidth === 0).map(each => each.getAttribute("src")),
    title: document.title,
    begins: Array.from(prose?.children ?? []).map(each => each.textContent.trim()).filter(each => each).slice(0, 2),
    commands: (prose?.textContent ?? "").match(/[@\\\\](file|brief|param|return|throw|p|c|ref)\\b/g) ?? [],
    exceptions: texts("table.exception td.paramname"),
    sections: texts("h2.groupheader"),
    classes: all("table.memberdecls td.memItemRight").filter(each => /^(class|struct)/.test(each.previousElementSibling.textContent))
        .map(each => each.textContent.trim()),
    operations: texts("h2.memtitle").filter(each => each.includes("(")).map(each => each.replace(/^\\W+|\\(.*$/g, "")),
    header: (document.querySelector(".contents")?.textContent.match(/#include <(kest.*?)>/) ?? [])[1],
}));
"""

# What sticks out of the page, and of what the browser shows the pairs of colours that are hard to read. An element that scrolls by itself
# may hold wider ones, if it is no wider than the page.
MEASURE = """
const width = document.documentElement.clientWidth, wide = new Set(), pale = new Map();
const short = element => element.tagName.toLowerCase() + (element.className ? "." + element.className : "") + " '" +
    element.textContent.replace(/\\s+/g, " ").trim().slice(0, 40) + "'";
const scrolls = element => {
    for (let each = element.parentElement; each && each.id != "doc-content"; each = each.parentElement)
        if (getComputedStyle(each).overflowX != "visible" && each.getBoundingClientRect().right <= width + 1) return true;
    return false;
};
for (const each of document.querySelectorAll(".header *, .contents *")) {
    const place = each.getBoundingClientRect();
    if (place.width && place.right > width + 1 && !scrolls(each)) wide.add(short(each));
}
for (const each of [document.documentElement, document.getElementById("doc-content")])
    if (each && each.scrollWidth > each.clientWidth + 1) wide.add(short(each).slice(0, 30) + " scrolls sideways");

const parts = colour => { const all = colour.match(/[\\d.]+/g).map(Number); return all.length > 3 ? all : [...all, 1]; };
const over = (front, back) => [0, 1, 2].map(index => front[index] * front[3] + back[index] * (1 - front[3])).concat(1);
const light = colour => [0.2126, 0.7152, 0.0722].reduce((sum, weight, index) => {
    const part = colour[index] / 255;
    return sum + weight * (part <= 0.03928 ? part / 12.92 : ((part + 0.055) / 1.055) ** 2.4);
}, 0);
const base = matchMedia("(prefers-color-scheme: dark)").matches ? [0, 0, 0, 1] : [255, 255, 255, 1];
const backs = new Map();
const back = element => {
    if (!element) return base;
    if (!backs.has(element)) backs.set(element, over(parts(getComputedStyle(element).backgroundColor), back(element.parentElement)));
    return backs.get(element);
};
const walker = document.createTreeWalker(document.body, NodeFilter.SHOW_TEXT);
for (let node = walker.nextNode(); node; node = walker.nextNode()) {
    const element = node.parentElement, style = getComputedStyle(element);
    if (!node.data.trim() || !element.checkVisibility({opacityProperty: true, visibilityProperty: true})) continue;
    if (element.closest("script, style, object, svg")) continue;
    const ground = back(element), ink = over(parts(style.color), ground);
    const [low, high] = [light(ink), light(ground)].sort((left, right) => left - right);
    const ratio = (high + 0.05) / (low + 0.05);
    const kind = `${element.tagName}.${element.className} ${ratio.toFixed(1)}`; // one of each kind is told
    if (ratio < 4.5 && !pale.has(kind)) pale.set(kind, short(element) + " has a contrast of " + ratio.toFixed(1));
}
return [[...wide], [...pale.values()]];
"""


def start_browser(profile):
    options = webdriver.ChromeOptions()
    for option in ("--headless", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--disable-background-networking",
                   "--disable-quic", "--no-first-run", "--disable-component-update", "--disable-sync", f"--user-data-dir={profile}",
                   "--allow-file-access-from-files", "--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE 127.0.0.1"):
        options.add_argument(option)
    options.set_capability("goog:loggingPrefs", {"browser": "SEVERE"})
    return webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)


def show(browser, width, scheme):
    browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {"width": width, "height": 1000, "deviceScaleFactor": 1, "mobile": width < 768})
    browser.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": [{"name": "prefers-color-scheme", "value": scheme}]})


def look_at(browser, path):
    """The page as the browser has it, after its scripts ran; what failed meanwhile comes along."""
    page = {"measured": []}
    show(browser, WIDTHS[0], SCHEMES[0])
    browser.get(path.as_uri())
    page.update(browser.execute_async_script(LOOK))
    for width in WIDTHS:
        for scheme in SCHEMES:
            show(browser, width, scheme)
            wide, pale = browser.execute_script(MEASURE)
            page["measured"] += [f"at {width}, {scheme}: {each} is off the edge" for each in wide if scheme == SCHEMES[0]]
            page["measured"] += [f"at {width}, {scheme}: {each}" for each in pale]
    page["failures"] = [entry["message"] for entry in browser.get_log("browser")]
    return page


def look_at_all(paths):
    with tempfile.TemporaryDirectory() as profile:
        browser = start_browser(profile)
        try:
            return {path.name: look_at(browser, path) for path in paths}
        finally:
            browser.quit()


def search(root, words):
    """What a reader who types a word is shown; the list must be as easy to read as the pages."""
    with tempfile.TemporaryDirectory() as profile:
        browser = start_browser(profile)
        try:
            for word, expected in words.items():
                show(browser, WIDTHS[len(word) % 2], SCHEMES[0]) # dark, the list is shown with its colours turned round
                browser.get((root / "index.html").as_uri())
                browser.find_element("id", "MSearchField").send_keys(word)
                end, found = time.monotonic() + 10, []
                while not any(expected in each for each in found) and time.monotonic() < end:
                    time.sleep(0.1)
                    browser.switch_to.default_content()
                    browser.switch_to.frame("MSearchResults")
                    found = browser.execute_script("return [...document.querySelectorAll('.SRResult, #NoMatches')]"
                                                   ".filter(each => each.checkVisibility()).map(each => each.textContent)")
                if not any(expected in each for each in found):
                    yield f"search: '{word}' does not find {expected}, but {len(found)} others"
                yield from (f"search: {fault}" for fault in browser.execute_script(MEASURE)[1])
        finally:
            browser.quit()


def links_faults(root, pages):
    for name, page in pages.items():
        for link in sorted({*page["links"], *page["files"]}):
            target = urllib.parse.urlsplit(link)
            if target.scheme in ("http", "https", "mailto", "javascript", "data"):
                continue
            path = urllib.parse.unquote(target.path) or name
            anchor = urllib.parse.unquote(target.fragment)
            if not (root / path).is_file():
                yield f"{name}: {link} leads to no file"
            elif anchor and path in pages and anchor not in pages[path]["anchors"]:
                yield f"{name}: {link} leads to no place in {path}"
    # What a reader cannot get to from the first page is not part of the manual. Doxygen makes a page of each folder, also of those without
    # a header. The tree beside the pages is a script of its own.
    reached, waiting = set(), ["index.html"]
    for script in root.glob("*.js"):
        waiting += re.findall(r'"([\w.]+\.html)(?:#\w+)?"', script.read_text(encoding="utf-8")) if script.stem in pages_of_tree(root) else []
    while waiting:
        name = waiting.pop()
        if name in reached or name not in pages:
            continue
        reached.add(name)
        waiting.extend(urllib.parse.unquote(urllib.parse.urlsplit(link).path) for link in pages[name]["links"])
    yield from (f"{name}: no page leads to it" for name in pages if name not in reached and not name.startswith(("dir_", "graph_legend")))


def pages_of_tree(root):
    """The scripts that hold the tree, from its first on."""
    found, waiting = set(), ["navtreedata"]
    while waiting:
        name = waiting.pop()
        if name not in found and (root / f"{name}.js").is_file():
            found.add(name)
            waiting += re.findall(r'", "(\w+)" \]', (root / f"{name}.js").read_text(encoding="utf-8"))
    return found


def is_tool(name):
    return "_Gadgets" in name or "_Template" in name


def reference_faults(name, page, headers):
    """Whether the reference shows what the headers say, and where a reader looks for it."""
    yield from (f"{name}: shows the command {each}" for each in page["commands"])
    for each in page["exceptions"]:
        if not re.fullmatch(r"((std|\w+)::)*(E[A-Z]\w*|bad_\w+|\w+_error)(, ?((std|\w+)::)*(E[A-Z]\w*|bad_\w+|\w+_error))*", each):
            yield f"{name}: calls an exception '{each}'"
    if page["classes"] != sorted(page["classes"], key=is_tool):
        yield f"{name}: tools stand before classes: {', '.join(page['classes'])}"
    if {"Classes", "Namespaces"} <= set(page["sections"]) and page["sections"].index("Classes") > page["sections"].index("Namespaces"):
        yield f"{name}: namespaces stand before classes"
    if not name.startswith(("class", "struct")):
        return
    if not page["begins"] or page["begins"][0] != "What it is" or len(page["begins"][1]) < 15:
        yield f"{name}: does not begin with what it is for, but with {page['begins'][:1]}"
    if not page["header"]:
        yield f"{name}: does not say its header"
        return
    text = re.sub(r"//.*", "", (headers.parent / page["header"]).read_text(encoding="utf-8"))
    place = text.find(f"class KEST_EXPORT {page['title'].split('::')[-1].split()[0]}")
    for operation in page["operations"]:
        if re.search(r"^(~?T|E|~)[A-Z]\w*$", operation) and operation.strip("~") in page["title"]:
            continue  # constructors and destructors stand first
        further = re.compile(re.escape(operation).replace(r"\ ", " *") + r"\s*\(").search(text, max(place, 0))
        if not further:
            yield f"{name}: {operation} is not where the header has it"
            return
        place = further.end()


def comment_faults(headers):
    """Prose behind the first @throw is shown as that exception's; the comment of a file without @file as its namespace's."""
    for path in sorted(headers.rglob("*.h")):
        lines = path.read_text(encoding="utf-8").splitlines()
        if not lines or lines[0].startswith("// Internal header"):
            continue
        thrown = False
        for number, line in enumerate(lines, 1):
            comment = re.match(r"\s*/// ?(.*)$", line)
            if not comment:
                thrown = False
            elif comment[1].startswith("@throw"):
                thrown = True
                if comment[1].startswith("@throw by"):
                    yield f"{path}:{number}: 'by' is no exception"
            elif re.match(r"(Requires|Waits|Threads): ", comment[1]):
                thrown = False # a paragraph of its own in the manual
            elif thrown and comment[1] and not comment[1].startswith((" ", "@")):
                yield f"{path}:{number}: prose behind @throw: {comment[1][:50]}"
            if line.startswith("namespace ") and re.match(r"///", lines[number - 2]):
                first = number - 2
                while lines[first - 1].startswith("///"):
                    first -= 1
                if "@file" not in lines[first]:
                    yield f"{path}:{number}: the file's comment has no @file"


def main():
    root, headers = (pathlib.Path(each).resolve() for each in sys.argv[1:])
    paths = sorted(root.glob("*.html"))
    if root / "index.html" not in paths:
        print(f"no index.html in {root}")
        return 1
    with concurrent.futures.ThreadPoolExecutor(BROWSERS) as pool:
        shares = pool.map(look_at_all, [paths[index::BROWSERS] for index in range(BROWSERS)])
        pages = dict(sorted((name, page) for share in shares for name, page in share.items()))

    faults = list(links_faults(root, pages)) + list(comment_faults(headers.relative_to(pathlib.Path.cwd())))
    faults += search(root, {"timeout": "SetReceiveTimeout", "name": "GetFullPathName"})
    for name, page in pages.items():
        faults.extend(f"{name}: {failure}" for failure in page["failures"])
        faults.extend(f"{name}: the picture {picture} is not shown" for picture in page["broken"])
        faults.extend(f"{name}: {fault}" for fault in page["measured"])
        faults.extend(reference_faults(name, page, headers))
    for fault in faults:
        print(fault)
    print(f"manual: {len(pages)} pages at {len(WIDTHS)} widths in {len(SCHEMES)} schemes, {len(faults)} faults")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
