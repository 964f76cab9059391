#!/usr/bin/env python3
"""Makes the tables, the page and the plots of a run of the benchmarks. Called by bench.sh.

Measurements are named workload/variant/who[/size]; what differs in who alone is set beside each other. A goal is a line of
bench_goals.csv: the ratio that it is about, and what that should be at most, for 64 or for 32 bits. "1000+" as its size means 1000 and
more; "spread" as what to reach means within what the repetitions of the one compared with are apart. A goal that no measurement of its
topic is about counts as missed.
"""
import argparse
import collections
import csv
import fnmatch
import json
import math
import pathlib
import statistics

import matplotlib

matplotlib.use("svg")
from matplotlib import pyplot  # noqa: E402 (the backend is chosen before)

FIRST = ["limit", "kest", "std"]
COLORS = dict(limit="#888888", kest="#d62728", std="#1f77b4", poco="#2ca02c", apr="#9467bd", boost="#ff7f0e")
MORE_COLORS = ["#8c564b", "#e377c2", "#bcbd22", "#17becf", "#aec7e8", "#98df8a", "#ffbb78", "#000000"]
Case = collections.namedtuple("Case", "workload variant size")


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
        # Google Benchmark adds how it measured: process_time, real_time, manual_time, threads:2, iterations:1, repeats:3.
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
    """Each once: the limit, the library, the standard library, then the others by name."""
    return sorted(set(whos), key=lambda who: ((FIRST + [who]).index(who), who))


def ratio_text(times, base):
    """The median as a ratio to that of the limit, and between which ratios the middle half of the repetitions lies."""
    low, middle, high = (statistics.quantiles(times, n=4, method="inclusive") if len(times) > 1 else times * 3)
    return f"{middle / base:.2f} ({low / base:.2f}-{high / base:.2f})"


def time_text(nanoseconds):
    for unit, scale in ("s", 1e9), ("ms", 1e6), ("µs", 1e3):
        if nanoseconds >= scale:
            return f"{nanoseconds / scale:.3g} {unit}"
    return f"{nanoseconds:.3g} ns"


def size_matches(pattern, size):
    if size is None or pattern in ("", "*"):
        return pattern == "*" or (pattern == "") == (size is None)
    return size >= int(pattern[:-1]) if pattern.endswith("+") else size == int(pattern)


def goals_of(goals, topic, case, whos):
    """For each goal of the case: (what it says, whether it is reached, how that is said)."""
    for goal in goals:
        if goal["topic"] != topic or not fnmatch.fnmatchcase(case.workload, goal["workload"]) \
                or not fnmatch.fnmatchcase(case.variant, goal["variant"]) or not size_matches(goal["size"], case.size):
            continue
        who, base = goal["ratio"].split("/")
        if who not in whos or base not in whos:
            continue
        reached = statistics.median(whos[who]) / statistics.median(whos[base])
        if goal["reach"] == "spread":
            most, text = max(whos[base]) / statistics.median(whos[base]), f"within the spread of {base}"
        else:
            most, text = float(goal["reach"]), goal["reach"] + ("" if base == "limit" else f" of {base}")
        if who != "kest":
            text = f"{who} {text}"
        # Both have two digits on the page.
        missed = round(reached, 2) - round(most, 2)
        yield text, missed <= 0, "reached" if missed <= 0 else f"missed by {missed:.2f}"


def said_of(goals):
    """The goals of a case in a few words: all that are missed, and of many that are reached the first."""
    goals = list(goals)
    reached = [f"{text}: {result}" for text, is_reached, result in goals if is_reached]
    missed = [f"{text}: {result}" for text, is_reached, result in goals if not is_reached]
    few = 2
    if len(reached) > few + 1:
        reached[few:] = [f"{len(reached) - few} more reached"]
    return "; ".join(missed + reached)


def table_of(topic, times, remarks, goals):
    whos = ordered(who for case in times.values() for who in case)
    rows = [["case", "limit takes", "goal"] + whos[1:]]
    for case in sorted(times, key=by_size):
        base = statistics.median(times[case]["limit"])
        said = said_of(goals_of(goals, topic, case, times[case]))
        name = f"{case.workload}, {case.variant}" + (f", {case.size:,}" if case.size is not None else "")
        rows.append([name, time_text(base), said or "-"] +
                    [ratio_text(times[case][who], base) if who in times[case] else "-" for who in whos[1:]])
    widths = [max(len(row[column]) for row in rows) for column in range(len(rows[0]))]
    lines = ["| " + " | ".join(cell.ljust(width) for cell, width in zip(row, widths)) + " |" for row in rows]
    lines.insert(1, "|" + "|".join("-" * (width + 2) for width in widths) + "|")
    notes = collections.defaultdict(list)
    for case in sorted(times, key=by_size):
        if remarks[case] and f"{case.workload}, {case.variant}" not in notes[remarks[case]]:
            notes[remarks[case]].append(f"{case.workload}, {case.variant}")
    return "\n".join(lines + [f"\n{'; '.join(cases)}: {remark}." for remark, cases in notes.items() if remark])


def colors_of(times):
    """A color for each who of a topic, the same in all topics for those that most have."""
    others = sorted({who for case in times.values() for who in case} - COLORS.keys())
    return COLORS | dict(zip(others, MORE_COLORS * len(others)))


def plot_topic(topic, times, path):
    """Time per unit of size for what has sizes, a panel for each workload; ratios to the limit for the rest, in one panel."""
    matplotlib.rcParams.update({"svg.hashsalt": "kest", "svg.fonttype": "none", "font.size": 8})
    curves = sorted({(case.workload, case.variant) for case in times if case.size is not None})
    bars = sorted((case for case in times if case.size is None), key=by_size)
    panels = len(curves) + bool(bars)
    columns = min(3, panels)
    figure, axes = pyplot.subplots(math.ceil(panels / columns), columns, squeeze=False, layout="constrained",
                                   figsize=(4.2 * columns, 3 * math.ceil(panels / columns)))
    axes = list(axes.flat)
    colors = colors_of(times)
    for workload, variant in curves:
        axis = axes.pop(0)
        for who in ordered(who for case in times for who in times[case]):
            points = sorted((case.size, statistics.median(times[case][who]) / case.size) for case in times
                            if (case.workload, case.variant) == (workload, variant) and who in times[case])
            if points:
                axis.plot(*zip(*points), marker=".", label=who, color=colors[who], zorder=3 if who == "kest" else 2)
        axis.set(xscale="log", yscale="log", title=f"{workload}, {variant}", xlabel="size", ylabel="ns per unit of size")
        axis.grid(alpha=0.3)
        axis.legend(fontsize=6)
    if bars:
        axis = axes.pop(0)
        whos = ordered(who for case in bars for who in times[case])[1:]
        for place, who in enumerate(whos):
            shown = [(row, case) for row, case in enumerate(bars) if who in times[case]]
            axis.barh([row + 0.8 * place / len(whos) for row, _ in shown],
                      [statistics.median(times[case][who]) / statistics.median(times[case]["limit"]) for _, case in shown],
                      0.8 / len(whos), align="edge", label=who, color=colors[who])
        axis.axvline(1.0, color=colors["limit"])
        axis.set(title="ratio to the limit", yticks=[row + 0.4 for row in range(len(bars))],
                 yticklabels=[f"{case.workload},\n{case.variant}" for case in bars])
        axis.invert_yaxis()
        axis.legend(fontsize=6)
    for axis in axes:
        axis.remove()
    figure.savefig(path, metadata={"Date": None})
    pyplot.close(figure)


def summary_of(runs):
    """Of (topics, goals, addition to the topics' names) each: how many goals are reached, and the others."""
    counts, missed = collections.Counter(), []
    for topics, goals, addition in runs:
        for topic, (times, _) in topics.items():
            for case in sorted(times, key=by_size):
                for text, reached, result in goals_of(goals, topic, case, times[case]):
                    counts[reached] += 1
                    if not reached:
                        size = f", {case.size:,}" if case.size is not None else ""
                        missed.append(f"- {topic}{addition}: {case.workload}, {case.variant}{size}: {text}, {result}")
        for goal in goals:
            times = topics.get(goal["topic"], ({},))[0]
            if times and not any(True for case in times for _ in goals_of([goal], goal["topic"], case, times[case])):
                counts[False] += 1
                size = f", {goal['size']}" if goal["size"] else ""
                missed.append(f"- {goal['topic']}{addition}: {goal['workload']}, {goal['variant']}{size}: "
                              f"{goal['ratio']} {goal['reach']}, not measured")
    return f"{counts[True]} of {counts.total()} goals are reached.", missed


def page_of(tables, tables_32, run, count, missed, quick):
    lines = ["# Performance", ""]
    if quick:
        lines += ["**From a quick run, which shows that everything runs and no more: no figure here is to be quoted.**", ""]
    lines += [
        "What the library costs beside the same work done with bare calls, the limit, and beside what a program would take instead. Written",
        "by `scripts/bench.sh`; anyone can repeat it. A figure is the median of the repetitions as a ratio to the median of the limit, smaller",
        "is better; in brackets the ratios between which the middle half of the repetitions lies. The limit makes the same calls in the same",
        "order: where the library promises an order of calls that costs more than a peer's, the wait before each receive for instance, a peer",
        "may be below 1.00. Repetitions are in random order, and every program has a second, sleeping thread. The curves of the plots show",
        "growth: time per byte, character or entry over size. Code and names of the measurements are in `benchmarks/`, the goals in",
        "`scripts/bench_goals.csv`.",
        "", "| | |", "|---|---|"]
    lines += [f"| {name} | {value} |" for name, value in run.items()]
    lines += ["", count + ("" if not missed else " Missed:")]
    if missed:
        lines += [""] + missed
    for topic, table in tables.items():
        lines += ["", f"## {topic.capitalize()}", "", table, "", f"![{topic}](performance/{topic}.svg)"]
        if topic in tables_32:
            lines += ["", "32 bits:", "", tables_32[topic]]
    return "\n".join(lines) + "\n"


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--results", type=pathlib.Path, required=True)
    parser.add_argument("--results-32", type=pathlib.Path)
    parser.add_argument("--page", type=pathlib.Path)
    parser.add_argument("--goals", type=pathlib.Path, required=True)
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("topics", nargs="+")
    options = parser.parse_args()

    with options.goals.open(newline="") as file:
        goals = list(csv.DictReader(file))
    runs = []
    for bits, results, addition in ("64", options.results, ""), ("32", options.results_32, ", 32 bits"):
        topics = {topic: read_topic(results / f"{topic}.json") for topic in options.topics} if results else {}
        runs.append((topics, [goal for goal in goals if goal["bits"] == bits], addition))
    tables, tables_32 = ({topic: table_of(topic, *found, goals) for topic, found in topics.items()} for topics, goals, _ in runs)
    for topic, table in tables.items():
        print(f"\n== {topic}\n\n{table}")
        if topic in tables_32:
            print(f"\n== {topic}, 32 bits\n\n{tables_32[topic]}")
    count, missed = summary_of(runs)
    print("\n" + "\n".join([count, *missed]))
    if options.page:
        run = dict(line.split("=", 1) for line in (options.results / "run.txt").read_text().splitlines())
        plots = options.page.with_suffix("")
        plots.mkdir(exist_ok=True)
        for topic, (times, _) in runs[0][0].items():
            plot_topic(topic, times, plots / f"{topic}.svg")
        options.page.write_text(page_of(tables, tables_32, run, count, missed, options.quick))


if __name__ == "__main__":
    main()
