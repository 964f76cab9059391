#!/usr/bin/env python3
"""Makes the tables, the page and the plots of a run of the benchmarks. Called by bench.sh.

Measurements are named workload/variant/who[/size]. Measurements that differ only in who make one row. A goal is a line of bench_goals.csv:
a ratio, its largest good value, the bits (64 or 32), and for a goal that is missed the reason. The size "1000+" means 1000 and more. A
ratio to "others" compares with the fastest of them, one to "codecs" with the fastest of the library's own. The value "spread" is reached
within the spread of the repetitions of the compared one.
A goal without a measurement in its topic counts as missed. A goal of a codec that the processor does not have is left out.
"""
import argparse
import collections
import csv
import fnmatch
import io
import json
import math
import os
import pathlib
import platform
import re
import statistics

import matplotlib

matplotlib.use("svg")
from matplotlib import pyplot  # noqa: E402 (the backend is chosen before)

FIRST = ["limit", "kest", "std"]
# The library's codecs, and what the processor's flags must have for them.
CODECS = {"kest-avx512": {"avx512_vbmi2", "avx512vbmi", "avx512bw", "popcnt"}, "kest-avx2": {"avx2", "popcnt"},
          "kest-sse4": {"sse4_2", "popcnt"}, "kest-neon": {"asimd"}, "kest-portable": set()}
OWN = ["limit", "shared", "kest", *CODECS, "loop"]
NARROW = "\u00a0" # between a number and its unit, which stay together
MOST_PERCENT = 350 # that the first picture shows
# Colours that can be told apart on white and on black.
COLORS = dict(limit="#888888", kest="#d62728", std="#3a87c8", poco="#2ca02c", apr="#9467bd", boost="#d9700a")
MORE_COLORS = ["#a0705f", "#d059ac", "#97982a", "#1798a8", "#7f8fc8", "#5f9f52", "#b0803f", "#7d7d7d"]
NAMES = dict(limit="bare calls", shared="shared bare calls", kest="Kest", std="standard library", poco="POCO", apr="APR", boost="Boost",
             glib="GLib", icu="ICU")
INK, DARK_INK, PLACE_OF_INK = "#2f4153", "#d2dbde", "#010203" # of what is written on a picture, by the reader's scheme
Case = collections.namedtuple("Case", "workload variant size")

# The first table and picture of the page: what a program does, and the measurement of that task.
TASKS = [
    ("enter and leave a free mutex", "mutex", Case("free", "plain", None)),
    ("wake a waiting thread, and be woken", "condition", Case("there and back", "plain", None)),
    ("start a thread and wait for it", "thread", Case("start and join", "pinned", None)),
    ("look at a file", "file", Case("state", "regular file", None)),
    ("list a directory of 1,000 entries", "directory", Case("list", "disk", 1000)),
    ("copy a file of 1 MiB", "copy", Case("copy", "disk", 1048576)),
    ("replace a file by renaming another", "copy", Case("rename", "disk", None)),
    ("connect and accept over TCP", "connection", Case("connect and accept", "tcp", None)),
    ("send 1 KiB and get it back, with limits", "echo", Case("there and back", "tcp within limits", 1024)),
    ("write 64 KiB of lines to a stream over a socket", "stream", Case("write lines", "socket", 1024)),
]

# The titles of the subjects in the order of the page, and what their cases measure.
SUBJECTS = {
    "mutex": "Mutexes. Contended: two threads, each on a processor of its own.",
    "condition": "Conditions. There and back: two threads wake each other by turns.",
    "thread": "Threads. From the constructor to the end of the wait.",
    "file": "Files. The state of a file, the full path of a file, a name compared with a pattern.",
    "directory": "Directories. All entries of a directory, by their number. The \"shared bare calls\" are made "
                 "under a lock, and each name is copied into a string, as Kest promises.",
    "copy": "Copying and renaming. By size, within a disk, within memory, and from disk to memory.",
    "connection": "Connections. A connection is made, accepted and closed.",
    "echo": "Transfers. A block is sent to another thread and sent back, by the size of the block.",
    "stream": "Streams. 64 KiB in blocks, lines and characters, by the size of the stream's buffer.",
    "text": "Text. UTF-8 to wide text and back, by script and number of characters. The bare call is a plain copy into a new string. "
            "The columns that begin with \"kest-\" are the codecs that this processor has. Kest chooses one of them by the length of the "
            "text. For long texts the column \"Kest\" therefore repeats the column of one codec, and most of what the two differ by is "
            "what a measurement can differ by. "
            "For arm64 [instructions were counted](performance/arm64.md) instead of times.",
    "symbol": "Symbols of loaded libraries",
    "clock": "The clock",
    "singleton": "Singletons",
}


def read_topic(path):
    """The repetitions of a topic, in ns: {Case: {who: [time, ...]}}, and {Case: remark}."""
    times = collections.defaultdict(lambda: collections.defaultdict(list))
    remarks = {}
    for entry in json.loads(path.read_text())["benchmarks"]:
        if entry.get("run_type") != "iteration":
            continue
        if entry.get("error_occurred"):
            raise SystemExit(f"bench: {entry['name']}: {entry['error_message']}")
        name = entry["run_name"].split("/")
        # Google Benchmark adds to the name how it measured: process_time, real_time, manual_time, threads:2, iterations:1, repeats:3.
        parts = [each for each in name if ":" not in each and not each.endswith("_time")]
        workload, variant, who = parts[:3]
        case = Case(workload, variant, int(parts[3]) if len(parts) > 3 else None)
        # What the measurement says it takes: time on the clock, or the processor's, which another program does not disturb as much.
        clock = "real_time" if "real_time" in name or "manual_time" in name else "cpu_time"
        scale = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}[entry["time_unit"]]
        times[case][who].append(entry[clock] * scale)
        remarks[case] = entry.get("label") or remarks.get(case, "")
    return times, remarks


def by_size(case):
    return case.workload, case.variant, case.size or 0


def ordered(whos):
    """Each of them once: the limit, the library, the standard library, then the others by name."""
    return sorted(set(whos), key=lambda who: ((FIRST + [who]).index(who), who))


def ratio_text(times, base):
    """The median as a ratio to the median of the limit, and the ratios of the middle half of the repetitions."""
    low, middle, high = (statistics.quantiles(times, n=4, method="inclusive") if len(times) > 1 else times * 3)
    return f"{middle / base:.2f} ({low / base:.2f}-{high / base:.2f})"


def time_text(nanoseconds):
    for unit, scale in ("s", 1e9), ("ms", 1e6), ("µs", 1e3):
        if nanoseconds >= scale:
            return f"{nanoseconds / scale:.3g}{NARROW}{unit}"
    return f"{nanoseconds:.3g}{NARROW}ns"


def size_matches(pattern, size):
    if size is None or pattern in ("", "*"):
        return pattern == "*" or (pattern == "") == (size is None)
    return size >= int(pattern[:-1]) if pattern.endswith("+") else size == int(pattern)


def goals_of(goals, topic, case, whos):
    """For each goal of the case: (its line, the goal as text, whether it is reached, the ratio as text)."""
    for goal in goals:
        if goal["topic"] != topic or not fnmatch.fnmatchcase(case.workload, goal["workload"]) \
                or not fnmatch.fnmatchcase(case.variant, goal["variant"]) or not size_matches(goal["size"], case.size):
            continue
        who, base = goal["ratio"].split("/")
        if base in ("others", "codecs"):
            compared = [each for each in whos if (each in CODECS if base == "codecs" else each not in OWN)]
            base = min(compared, key=lambda each: statistics.median(whos[each]), default=base)
        if who not in whos or base not in whos:
            continue
        reached = statistics.median(whos[who]) / statistics.median(whos[base])
        if goal["reach"] == "spread":
            most, text = max(whos[base]) / statistics.median(whos[base]), f"within the spread of {base}"
        else:
            most, text = float(goal["reach"]), f"{float(goal['reach']):.2f}" + ("" if base == "limit" else f" of {base}")
        if who != "kest":
            text = f"{who} {text}"
        # The page shows both with two digits.
        missed = round(reached, 2) - round(most, 2)
        yield goal, text, missed <= 0, f"{reached:.2f}"


def name_of(case):
    return f"{case.workload}, {case.variant}" + (f", {case.size:,}" if case.size is not None else "")


def table(rows):
    """A table in Markdown; the first row is its head."""
    widths = [max(len(row[column]) for row in rows) for column in range(len(rows[0]))]
    lines = ["| " + " | ".join(cell.ljust(width) for cell, width in zip(row, widths)) + " |" for row in rows]
    return "\n".join([lines[0], "|" + "|".join("-" * (width + 2) for width in widths) + "|", *lines[1:]])


def table_of(times, remarks):
    whos = ordered(who for case in times.values() for who in case)
    rows = [["Case", "Bare calls", "Kest", "between"] + [NAMES.get(who, who) for who in whos[2:]]]
    for case in sorted(times, key=by_size):
        base = statistics.median(times[case]["limit"])
        middle, between = ratio_text(times[case]["kest"], base).split(" ")
        rows.append([name_of(case), time_text(base), middle, between.strip("()")] +
                    [ratio_text(times[case][who], base).split(" ")[0] if who in times[case] else "-" for who in whos[2:]])
    notes = collections.defaultdict(list)
    for case in sorted(times, key=by_size):
        if remarks[case] and f"{case.workload}, {case.variant}" not in notes[remarks[case]]:
            notes[remarks[case]].append(f"{case.workload}, {case.variant}")
    return "\n".join([table(rows)] + [f"\n{'; '.join(cases)}: {remark}." for remark, cases in notes.items() if remark])


def tasks_of(topics):
    """The rows of the first table: (what a program does, the times of all who do it)."""
    return [(text, topics[topic][0][case]) for text, topic, case in TASKS if topic in topics and case in topics[topic][0]]


def table_of_tasks(topics):
    rows = [["What a program does", "Bare calls", "Kest", "Kest adds", "Standard library", "Others"]]
    for text, whos in tasks_of(topics):
        base, kest = (statistics.median(whos[who]) for who in ("limit", "kest"))
        others = sorted(statistics.median(whos[who]) / base for who in whos if who in COLORS.keys() - {*OWN, "std"})
        added = round(100 * kest / base) - 100
        rows.append([text, time_text(base), time_text(kest), f"{added:+}{NARROW}%" if added else "nothing",
                     time_text(statistics.median(whos["std"])) if "std" in whos else "-",
                     f"{round(100 * others[0]) - 100:+} to {round(100 * others[-1]) - 100:+}{NARROW}%" if others else "-"])
    return table(rows)


def colors_of(times):
    """A colour for each who of a topic. Those that most topics have keep one colour in all topics."""
    others = sorted({who for case in times.values() for who in case} - COLORS.keys())
    return COLORS | dict(zip(others, MORE_COLORS * len(others)))


def begin_picture():
    """Text and axes get a colour that save_picture() replaces by the reader's colour, dark or light."""
    colors = {name: PLACE_OF_INK for name in ("text.color", "axes.edgecolor", "axes.labelcolor", "xtick.color", "ytick.color")}
    matplotlib.rcParams.update({"svg.hashsalt": "kest", "svg.fonttype": "none", "font.size": 9, "axes.facecolor": "none", **colors,
                                "axes.spines.top": False, "axes.spines.right": False, "legend.frameon": False,
                                "xtick.minor.size": 0, "ytick.minor.size": 0})


def write(path, text):
    """Replaces the file by a whole one, or leaves the old one."""
    new = path.with_name(path.name + ".new")
    try:
        new.write_text(text)
        os.replace(new, path)
    finally:
        new.unlink(missing_ok=True)


def save_picture(figure, path):
    with io.StringIO() as written:
        figure.savefig(written, format="svg", metadata={"Date": None}, transparent=True, bbox_inches="tight")
        text = written.getvalue()
    pyplot.close(figure)
    scheme = (f"<style>:root {{ color-scheme: light dark; --ink: {INK}; }} "
              f"@media (prefers-color-scheme: dark) {{ :root {{ --ink: {DARK_INK}; }} }}</style>")
    text = text.replace(PLACE_OF_INK, "var(--ink)").replace("<defs>", scheme + "\n <defs>", 1)
    # A text without a colour of its own is black.
    text = re.sub(r'(<text style=")(?![^"]*fill:)', r"\1fill: var(--ink); ", text)
    text = re.sub(r"(\.\d\d)\d+", r"\1", text) # a hundredth of a point is small enough
    write(path, re.sub(r"[ \t]+$", "", text, flags=re.M))


def plot_tasks(topics, path):
    """Draws a bar for Kest's share of the bare calls' time, and a mark for the share of each of the others."""
    begin_picture()
    tasks = tasks_of(topics)
    figure, axis = pyplot.subplots(layout="constrained", figsize=(8, 0.42 * len(tasks) + 0.8))
    for place, (text, whos) in enumerate(tasks):
        base = statistics.median(whos["limit"])
        percent = {who: 100 * statistics.median(times) / base for who, times in whos.items()}
        axis.barh(place, percent["kest"], 0.6, color=COLORS["kest"], alpha=0.45, label=NAMES["kest"] if place == 0 else None)
        for who in sorted(percent.keys() & COLORS.keys() - set(OWN)):
            axis.plot(min(percent[who], MOST_PERCENT), place, marker=">" if percent[who] > MOST_PERCENT else "o", color=COLORS[who],
                      label=NAMES[who] if NAMES[who] not in axis.get_legend_handles_labels()[1] else None, linestyle="none", markersize=6,
                      markeredgecolor=PLACE_OF_INK, markeredgewidth=0.5)
    axis.axvline(100, color=PLACE_OF_INK, linewidth=1)
    axis.set(yticks=range(len(tasks)), yticklabels=[text for text, _ in tasks], xlim=(0, MOST_PERCENT + 5),
             xlabel="time in % of the bare calls: shorter is better")
    axis.invert_yaxis()
    axis.legend(ncols=6, loc="lower center", bbox_to_anchor=(0.4, 1.0))
    save_picture(figure, path)


def plot_topic(times, path):
    """Draws the time per unit of size, with a panel for each workload. Returns whether any case has sizes."""
    curves = sorted({(case.workload, case.variant) for case in times if case.size is not None})
    # Two sizes are no curve.
    curves = [curve for curve in curves if len({case.size for case in times if (case.workload, case.variant) == curve}) > 3]
    if not curves:
        return False
    begin_picture()
    columns = min(2, len(curves))
    figure, axes = pyplot.subplots(math.ceil(len(curves) / columns), columns, squeeze=False, layout="constrained",
                                   figsize=(4 * columns, 2.6 * math.ceil(len(curves) / columns) + 0.4))
    axes = list(axes.flat)
    colors = colors_of(times)
    for workload, variant in curves:
        axis = axes.pop(0)
        for who in ordered(who for case in times for who in times[case]):
            points = sorted((case.size, statistics.median(times[case][who]) / case.size) for case in times
                            if (case.workload, case.variant) == (workload, variant) and who in times[case])
            if points:
                axis.plot(*zip(*points), label=NAMES.get(who, who), color=colors[who], linewidth=1.2,
                          zorder=3 if who == "kest" else 2)
        axis.set(xscale="log", yscale="log", title=f"{workload}, {variant}", xlabel="size", ylabel="ns per unit of size")
        axis.minorticks_off()
    handles = {label: line for axis in figure.axes for line, label in zip(*axis.get_legend_handles_labels())}
    figure.legend(handles.values(), handles.keys(), loc="lower center", bbox_to_anchor=(0.5, 1.0), ncols=6)
    for axis in axes:
        axis.remove()
    save_picture(figure, path)
    return True


def read_goals(path):
    with path.open(newline="", encoding="utf-8-sig") as file:
        try:
            goals = list(csv.DictReader(file, strict=True))
        except (csv.Error, UnicodeDecodeError) as error:
            raise SystemExit(f"bench: {path} is not a table of goals: {error}") from error
    for goal in goals:
        who, _, base = (goal["ratio"] or "").partition("/")
        if None in goal or goal["topic"] not in SUBJECTS or goal["bits"] not in ("64", "32") or who not in OWN or not base \
                or "/" in base or not re.fullmatch(r"\*|([0-9]+\+?)?", goal["size"]) \
                or not re.fullmatch(r"spread|[0-9]+\.[0-9]+", goal["reach"] or ""):
            raise SystemExit(f"bench: this is no goal: {goal}")
    if not goals:
        raise SystemExit(f"bench: no goals in {path}")
    return goals


def summary_of(runs):
    """Gets (topics, goals, addition to the topics' names) of each run. Returns how many goals are reached, and a row for each other."""
    counts, missed, left_out = collections.Counter(), [], 0
    flags = set(" ".join(re.findall(r"^(?:flags|Features)\s*:(.*)", pathlib.Path("/proc/cpuinfo").read_text(), re.M)).split())
    if not flags and platform.machine() in ("x86_64", "aarch64"): # other processors have no codec of their own
        raise SystemExit("bench: /proc/cpuinfo does not say what the processor has")
    for topics, goals, addition in runs:
        for topic, (times, _) in topics.items():
            for case in sorted(times, key=by_size):
                for goal, text, reached, result in goals_of(goals, topic, case, times[case]):
                    counts[reached] += 1
                    if not reached:
                        missed.append([topic + addition, name_of(case), text, result, goal["why"] or "not known"])
        for goal in goals:
            times = topics.get(goal["topic"], ({},))[0]
            who = goal["ratio"].split("/")[0]
            if times and CODECS.get(who, set()) - flags and not any(who in whos for whos in times.values()):
                left_out += 1
            elif times and not any(True for case in times for _ in goals_of([goal], goal["topic"], case, times[case])):
                counts[False] += 1
                name = ", ".join(each for each in (goal["workload"], goal["variant"], goal["size"]) if each)
                missed.append([goal["topic"] + addition, name, f"{goal['ratio']} {goal['reach']}", "not measured", ""])
    return f"{counts[True]} of {counts.total()} goals are reached." + \
        (f" {left_out} goals of codecs that this processor does not have are left out." if left_out > 0 else ""), missed


def page_of(runs, pictures, run, quick):
    topics, topics_32 = (topics for topics, _, _ in runs)
    lines = ["# What Kest costs {#performance}", ""]
    if quick:
        lines += ["**From a quick run, which shows that everything runs and no more: no figure here is to be quoted.**", ""]
    lines += [
        "Kest makes the calls of the system that a program would make itself, and adds little to most of them. The picture and the table",
        "show ten tasks. Each is done with bare calls, with Kest, and with what a program would take instead (the standard library, APR,",
        "Boost, POCO).",
        "",
        "![Ten tasks, done by Kest and by others; an arrow stands for a time beyond the edge of the picture](performance/tasks.svg)",
        "", table_of_tasks(topics), "",
        "The bare calls are those that Kest makes, in its order, with few exceptions. The page of [profiles](performance/profiles.md)",
        "names the exceptions in five cases.",
        "Another library may make fewer calls, and then takes less time. Kest waits for readiness before it receives, since its limits",
        "promise that.", "",
        "`scripts/bench.sh` measured the figures, on this machine. The same command repeats the measurement.", "",
        table([["", ""]] + [[name, value] for name, value in run.items()]), "",
        "## How to read the tables", "",
        "\"Bare calls\" is the time of the calls of the system alone, the median of the repetitions. The other columns are ratios to that",
        "time: 1.05 takes 5 % longer. The middle half of Kest's repetitions lies within the ratios in \"between\". The repetitions run in",
        "random order. Every program has a second, sleeping thread. The pictures show the time per byte, character or entry over the size."]
    for topic, about in SUBJECTS.items():
        if topic not in topics:
            continue
        title, _, text = about.partition(". ")
        lines += ["", f"## {title}", ""] + ([text, ""] if text else []) + [table_of(*topics[topic])]
        if topic in pictures:
            lines += ["", f"![{title}, over size](performance/{topic}.svg)"]
        if topic in topics_32:
            lines += ["", f"### {title}, on 32 bits", "", table_of(*topics_32[topic])]
    count, missed = summary_of(runs)
    lines += ["", "## For those who work on Kest: goals", "",
              "A goal is a ratio that the library should not exceed. `scripts/bench_goals.csv` has all goals. " + count,
              "Of five cases there is a [profile](performance/profiles.md) from a run of its own. It compares the lower quartiles and",
              "repeats each case more often. Its ratios differ from those here for these reasons, and from run to run."]
    if missed:
        lines += ["", table([["Subject", "Case", "Goal", "Reached", "Why"], *missed])]
    return "\n".join(lines) + "\n"


def write_page(path, runs, run, quick):
    pictures = path.with_suffix("")
    pictures.mkdir(exist_ok=True)
    plot_tasks(runs[0][0], pictures / "tasks.svg")
    drawn = [topic for topic, (times, _) in runs[0][0].items() if plot_topic(times, pictures / f"{topic}.svg")]
    write(path, page_of(runs, drawn, run, quick))
    for old in set(pictures.glob("*.svg")) - {pictures / f"{name}.svg" for name in ["tasks", *drawn]}:
        old.unlink()


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--results", type=pathlib.Path, required=True)
    parser.add_argument("--results-32", type=pathlib.Path)
    parser.add_argument("--page", type=pathlib.Path)
    parser.add_argument("--goals", type=pathlib.Path, required=True)
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("topics", nargs="+")
    options = parser.parse_args()

    goals = read_goals(options.goals)
    runs = []
    for bits, results, addition in ("64", options.results, ""), ("32", options.results_32, ", 32 bits"):
        topics = {topic: read_topic(results / f"{topic}.json") for topic in options.topics} if results else {}
        runs.append((topics, [goal for goal in goals if goal["bits"] == bits], addition))
    for topics, _, addition in runs:
        for topic, found in topics.items():
            print(f"\n== {topic}{addition}\n\n{table_of(*found)}")
    count, missed = summary_of(runs)
    print("\n" + "\n".join([count, *(", ".join(row) for row in missed)]))
    if options.page:
        run = dict(line.split("=", 1) for line in (options.results / "run.txt").read_text().splitlines())
        write_page(options.page, runs, run, options.quick)


if __name__ == "__main__":
    main()
