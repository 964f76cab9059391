#!/usr/bin/env python3
"""Checks docs/faults.md against the tests, and that the tests can make every call fail.

usage: page.py PAGE NM LIBRARY PROGRAM...

PROGRAM, under an emulator where there is one, lists its calls and its cases. The check fails when a call has no case, when the page and the
cases differ, and when the library imports a call that the program does not define. With KEST_WRITE_PAGE set in the environment the script
writes the table of the page instead of comparing it.
"""
import os
import re
import subprocess
import sys

# What a library in C++ imports besides calls of the system. Without the optimiser a call changes the order of bytes. With libc++ the
# library calls pthread_exit to go on with a cancellation.
LANGUAGE = re.compile(r"_Z|__cxa_|_ITM_|_Unwind_|__g(cc|xx)_|__gmon_start__|__dynamic_cast|__stack_chk_(fail|guard)|__getauxval$|__aeabi_|__errno_location|abort$|__assert_fail$|"
                      r"__(u?div|u?mod)[dt]i\d$|_*w?(mem|str)[a-z]+(_chk)?$|__(asan|tsan|ubsan|sanitizer)_|__tls_get_addr|__cpu_|bcmp$|"
                      r"__libc_single_threaded$|pthread_exit$|_GLOBAL_OFFSET_TABLE_$|[hn]to[hn]s$")
# A call that fails by itself when the test asks for a symbol that does not exist. Sanitizers need it before any code of a program can run.
REAL = ["dlsym"]
BEGIN, END = "<!-- cases -->\n", "<!-- end -->\n"


def symbols(nm, kind, path):
    lines = subprocess.run([nm, "-D", kind, path], check=True, capture_output=True, text=True).stdout.splitlines()
    return {line.split()[-1].split("@")[0] for line in lines}


def main():
    page, nm, library, program = sys.argv[1], sys.argv[2], sys.argv[3], sys.argv[4:]
    told = subprocess.run(program + ["--gtest_filter=Fault.CasesAreListed"], check=True, capture_output=True, text=True).stdout
    calls = re.findall(r"^call (\w+)$", told, re.M)
    never = re.findall(r"^never (\w+)$", told, re.M)
    cases = re.findall(r"^case \| `(\w+)` \| (.*) \| (.*)$", told, re.M)

    problems = [f"no case for {name}" for name in calls + REAL if name not in {case[0] for case in cases}]
    unknown = symbols(nm, "--undefined-only", library) - symbols(nm, "--defined-only", program[-1]) - set(never + REAL)
    problems += [f"{name} is imported, and no test can make it fail" for name in sorted(unknown) if not LANGUAGE.match(name)]

    rows = sorted(set(cases), key=lambda case: ((calls + REAL).index(case[0]), case[1:]))
    table = "| Call | In | Outcome |\n|---|---|---|\n"
    table += "".join(f"| `{call}` | {operation} | {outcome} |\n" for call, operation, outcome in rows)
    table += "\nCalls without a way to fail: " + ", ".join(f"`{name}`" for name in never) + ".\n"

    text = open(page, encoding="utf-8").read()
    head, rest = text.split(BEGIN)
    old, tail = rest.split(END)
    if "KEST_WRITE_PAGE" in os.environ:
        open(page, "w", encoding="utf-8").write(head + BEGIN + table + END + tail)
    elif old != table:
        differing = sorted(set(old.splitlines()) ^ set(table.splitlines()))
        problems += ["the page and the cases differ, run this with KEST_WRITE_PAGE=1:"] + differing

    print("\n".join(problems) or f"{len(rows)} cases of {len(calls + REAL)} calls")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
