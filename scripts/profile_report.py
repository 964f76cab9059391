#!/usr/bin/env python3
"""Makes the tables of a run of profile.sh, and its page.

A case has measured repetitions (CASE.TURN.json) and samples with their callers (CASE.WHO.TURN.samples). The lower quartile of the
repetitions is divided among places by the samples: a system call with all that the kernel does in it, or a function outside the kernel.
"""
import argparse
import collections
import json
import math
import os
import pathlib
import platform
import re
import statistics
import subprocess
import time

# What each who is called.
NAMES = dict(limit="bare calls", shared="shared bare calls", kest="Kest", std="standard library")

# What a case is called, its goals (over whom, at most), and why the rest stays. The text is only printed under the figures of the run.
ABOUT = {
    "rename": ("A rename in memory", [("limit", 1.05), ("std", 1.30)], """
The standard library makes one call, `rename`. When both names are links of one file, the system does nothing and reports no error.
`TFile::Rename` promises that the source is gone then, so it looks at the source afterwards: the row `newfstatat`. The bare calls look
too. The look cannot go. Only a rename that refuses to replace (`RENAME_NOREPLACE`) would answer the question by itself, and where a
file is replaced it would fail first, and cost a call more."""),
    "signal": ("A signal that nobody waits for", [("limit", 1.03)], """
`Signal` and `Broadcast` stand in the header. The compiler knows the condition's class here and puts the call of the system in their
place. Nothing of the library is on the way."""),
    "copy": ("A copy of 256 MiB on the disk", [("limit", 1.05)], """
The kernel moves the bytes in both. The bare calls name up to 1 GiB in a call of `copy_file_range`. Kest names 64 MiB, so that a
cancellation is acted on between two calls, then reads until the true end, and gives the copy the time of its source. It also looks at
the two files, three times in all. The table of calls shows what that takes, beside what moving the bytes takes. What the figures of a
run differ by beyond that is the disk, which writes back meanwhile: the column "between" shows how far apart the repetitions are."""),
    "echo": ("An echo of 64 bytes over \"fs\"", [("limit", 1.03)], """
Both make the same calls. They differ in the wait: the bare calls name one set of descriptors for readable and for urgent, and Kest two.
The second set cannot go. Without it a lone urgent byte would count as something to receive."""),
    "list": ("Listing 1,000 entries in memory", [("limit", 1.08)], """
For each entry Kest takes and leaves a lock and makes a string. The lock cannot go: several threads may read one directory, and what
`readdir` returns lasts until the next call only. The string cannot go: an entry outlives its directory. It allocates when a name has
more than 15 bytes, as these have. The end is an exception, one for each listing. The "shared bare calls" have a
lock, a string and an exception too, without Kest. What they add cannot go. What Kest adds to the shared bare calls is mostly the
functions of the library that are called for each entry. They stay in the library, so that a later version can change them. Kest's
exception also costs more. All three make the same calls of `readdir`, and what the rows of `getdents64` differ by changes from run to
run."""),
}
PREPARING = {"write", "writev", "unlink", "unlinkat", "mknodat", "execve", "exit_group", "mmap", "munmap", "mprotect", "clone3", "rseq"}


def place_of(frames):
    """Of a sample's frames, (symbol, object) from the innermost on: what is charged, or None for what prepares the measurement."""
    symbol, where = frames[0]
    if where == "[kernel.kallsyms]":
        names = [name.partition("+")[0] for name, _ in frames]
        calls = [match[1] for match in (re.match(r"(?:__(?:x64|do|se)_sys_|ksys_|do_(?=writev))(\w+)", name) for name in names) if match]
        if calls:
            return None if calls[0] in PREPARING else f"`{calls[0]}`, in the kernel"
        return None if "asm_exc_page_fault" in names else "into the kernel and back"
    name = pathlib.Path(where).name
    if name.startswith("ld-") or name.startswith("libbenchmark"):
        return None
    symbol = re.sub(r"\+0x[0-9a-f]+$", "", symbol)
    symbol = re.sub(r"@@?GLIBC\S*$|^__GI_+|\[abi:cxx11\]|\(anonymous namespace\)::", "", symbol)
    if name.startswith("bench_"):
        return "the measuring program"
    return f"`{symbol}`, {re.sub(r'[-.].*', '', name)}" if symbol != "[unknown]" else re.sub(r"[-.].*", "", name)


def read_samples(paths):
    """How many samples each place has, and each instruction of the library's own functions."""
    places, instructions = collections.Counter(), collections.Counter()
    for path in paths:
        for block in path.read_text().split("\n\n"):
            lines = block.strip().splitlines()
            if len(lines) < 2 or not lines[0].startswith("bench_"):
                continue
            frames = [re.match(r"\s*[0-9a-f]+ (.*) \(([^()]*(?:\([^()]*\))?[^()]*)\)$", line).groups() for line in lines[1:]]
            place = place_of(frames)
            if place is not None:
                places[place] += 1
                if "libkest" in frames[0][1] and frames[0][0].startswith("Kest::"):
                    instructions[frames[0][0]] += 1
    return places, instructions


def read_times(paths):
    """The repetitions of each who, in ns."""
    times = collections.defaultdict(list)
    for path in paths:
        for entry in json.loads(path.read_text())["benchmarks"]:
            if entry.get("error_occurred"):
                raise SystemExit(f"profile: {entry['name']}: {entry['error_message']}")
            if entry.get("run_type") == "iteration":
                name = entry["run_name"].split("/")
                who = next(each for each in name if each in NAMES)
                clock = "real_time" if "manual_time" in name else "cpu_time"
                times[who].append(entry[clock] * {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}[entry["time_unit"]])
    return times


def low(times):
    return statistics.quantiles(times, n=4, method="inclusive")[0]


def time_text(nanoseconds):
    unit, scale = next(((unit, scale) for unit, scale in (("s", 1e9), ("ms", 1e6), ("µs", 1e3)) if nanoseconds >= scale), ("ns", 1))
    return f"{nanoseconds / scale:.3g} {unit}"


def table(rows):
    return ["| " + " | ".join(row) + " |" for row in [rows[0], ["---"] * len(rows[0]), *rows[1:]]]


def table_of_times(times):
    rows = [["", "lowest", "lower quartile", "lowest of the bare calls", "lower quartile of the bare calls", "between"]]
    for who, name in NAMES.items():
        if who in times:
            of_bare = [each / low(times["limit"]) for each in statistics.quantiles(times[who], n=4, method="inclusive")]
            rows.append([name, time_text(min(times[who])), time_text(low(times[who])), f"{min(times[who]) / min(times['limit']):.2f}",
                         f"{of_bare[0]:.2f}", f"{of_bare[0]:.2f}-{of_bare[2]:.2f}"])
    return table(rows)


def table_of_places(times, samples):
    """Shares of the bare calls' time in per cent; what has less than half a per cent in every column is put together."""
    shares = {}
    for who in samples:
        total = samples[who].total()
        shares[who] = {place: 100 * count / total * low(times[who]) / low(times["limit"]) for place, count in samples[who].items()}
    places = sorted(set().union(*shares.values()), key=lambda place: -max(each.get(place, 0) for each in shares.values()))
    shown = [place for place in places if max(each.get(place, 0) for each in shares.values()) >= 0.5][:16]
    rows = [["Where", *(f"{NAMES[who]}, %" for who in samples), "Kest adds to the bare calls"]]
    for name, those in [(place, [place]) for place in shown] + [("everything else", set(places) - set(shown)), ("together", places)]:
        sums = [sum(shares[who].get(place, 0) for place in those) for who in samples]
        rows.append([name, *(f"{each:.1f}" for each in sums), f"{round(sums[-1] - sums[0], 1) + 0.0:+.1f}"]) # + 0.0 leaves no -0.0
    return table(rows)


def table_of_instructions(times, samples, instructions, library):
    """The instructions of the library at which most samples are."""
    addresses = {}
    for line in subprocess.run(["nm", "-C", "--defined-only", library], check=True, capture_output=True, text=True).stdout.splitlines():
        address, _, name = line.split(" ", 2)
        addresses[name.replace("[abi:cxx11]", "")] = int(address, 16)
    rows = [["Function", "Instruction", "Kest, %"]]
    for symbol, count in instructions.most_common(6):
        name, _, offset = symbol.rpartition("+")
        bare_name = name.replace("[abi:cxx11]", "")
        start = addresses.get(bare_name) or next((value for key, value in addresses.items() if key.startswith(bare_name + "(")), None)
        text = "?"
        if start is not None:
            place = start + int(offset, 16)
            command = ["objdump", "-d", "--no-show-raw-insn", f"--start-address={place}", f"--stop-address={place + 16}", library]
            listing = subprocess.run(command, check=True, capture_output=True, text=True).stdout
            match = re.search(rf"^\s*{place:x}:\t(.*)$", listing, re.M)
            text = re.sub(r"\s+", " ", re.sub(r"#.*|<.*>", "", match[1])).strip() if match else "?"
        share = 100 * count / samples["kest"].total() * low(times["kest"]) / low(times["limit"])
        shown = re.sub(r"\(anonymous namespace\)::|\[abi:cxx11\]", "", name) # the manual would take what follows "::" for a link
        rows.append([f"`{shown}`", f"`{text}`", f"{share:.1f}"])
    return table(rows) if len(rows) > 1 else ["None of the samples is in the library."]


def table_of_calls(results, case):
    """What perf trace has counted of the calls: (name, calls, ms in all)."""
    calls = {}
    for who in "limit", "kest":
        sections = re.split(r"^ (\S+) \(\d+\), ", (results / f"{case}.{who}.calls").read_text(), flags=re.M)
        text = "".join(text for name, text in zip(sections[1::2], sections[2::2]) if name.startswith("bench_"))
        calls[who] = {name: (int(count), float(ms)) for name, count, ms in re.findall(r"^\s+(\w+)\s+(\d+)\s+\d+\s+([\d.]+)", text, re.M)}
    rows = [["Call", "bare: calls", "ms", "Kest: calls", "ms"]]
    for name in "openat", "fstat", "newfstatat", "copy_file_range", "read", "utimensat", "close":
        if any(name in each for each in calls.values()):
            rows.append([f"`{name}`"] + [text for who in ("limit", "kest") for count, ms in [calls[who].get(name, (0, 0.0))]
                                         for text in (str(count), f"{ms:.3f}")])
    return table(rows)


def section_of(results, case, library):
    title, goals, why = ABOUT[case]
    times = read_times(sorted(results.glob(f"{case}.*.json")))
    if any(not 0 < each < math.inf for whos in times.values() for each in whos):
        raise SystemExit(f"profile: {case}: not each repetition has a time")
    samples, instructions = {}, collections.Counter()
    for who in ("limit", "shared", "kest") if "shared" in times else ("limit", "kest"):
        # The last instructions are those of Kest.
        samples[who], instructions = read_samples(sorted(results.glob(f"{case}.{who}.*.samples")))
        if samples[who].total() < 300:
            raise SystemExit(f"profile: {case}: too few samples of {who}")
    lines = [f"## {title}", "", f"Of {len(times['kest'])} repetitions each:", "", *table_of_times(times), ""]
    for base, most in goals:
        of_base = "the bare calls" if base == "limit" else "the standard library"
        by_low, by_least = (round(of(times["kest"]) / of(times[base]), 2) for of in (low, min))
        verdict = {2: "Reached", 1: "Undecided", 0: "Not reached"}[(by_low <= most) + (by_least <= most)]
        lines += [f"Goal: at most {most:.2f} of {of_base}. {verdict}: {by_low:.2f} by the lower quartiles, {by_least:.2f} by the lowest." +
                  (f" The bare calls alone: {low(times['limit']) / low(times[base]):.2f} and {min(times['limit']) / min(times[base]):.2f}."
                   if base != "limit" else ""), ""]
    counted = ", ".join(f"{NAMES[who]} {each.total()}" for who, each in samples.items())
    lines += [f"Samples: {counted}.", "", *table_of_places(times, samples), ""]
    if (results / f"{case}.kest.calls").exists():
        lines += ["The calls of five copies, waits for the disk included, with those that start the program:", "",
                  *table_of_calls(results, case), ""]
    lines += ["The instructions of the library that most samples are at:", "",
              *table_of_instructions(times, samples, instructions, library), why]
    return lines


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--results", type=pathlib.Path, required=True)
    parser.add_argument("--library", type=pathlib.Path, required=True)
    parser.add_argument("--page", type=pathlib.Path)
    parser.add_argument("cases", nargs="+")
    arguments = parser.parse_args()
    sections = [["", *section_of(arguments.results, case, arguments.library)] for case in arguments.cases]
    text = "\n".join(line for section in sections for line in section) + "\n"
    print(text)
    if arguments.page is None:
        return
    model = re.search(r"^model name\s*: (.*)$", pathlib.Path("/proc/cpuinfo").read_text(), re.M)
    load = os.getloadavg()[1] # of the last five minutes
    new = arguments.page.with_name(arguments.page.name + ".new") # a full disk leaves the old page
    text = "\n".join([
        "# Where the time goes that Kest adds", "",
        "Written by `scripts/profile.sh`. These five cases have taken more than their goals allow. Each is measured beside the bare",
        "calls, in one program, in random order and on one processor, and then sampled. A share is one of the bare calls' time.",
        "The time is the lower quartile, since whatever else the machine does only adds. A place is a system call with all that the kernel",
        "does in it, or a function. A sample names the instruction that comes next, so the costly one may be the one before.", "",
        f"Machine: {model[1] if model else platform.machine()}, Linux {platform.release()}, glibc {platform.libc_ver()[1]}, "
        f"{time.strftime('%Y-%m-%d', time.gmtime())}. It is a virtual one without counters of the processor.",
        f"The load of the last five minutes of the run was {load:.1f}: above 2, some per cent of difference say nothing.", text])
    try:
        new.write_text(text)
        os.replace(new, arguments.page)
    finally:
        new.unlink(missing_ok=True)


if __name__ == "__main__":
    main()
