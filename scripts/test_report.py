#!/usr/bin/env python3
"""Counts the results of a test run, names each test that was skipped with its reason, and the text codecs that this processor could run.

Usage: test_report.py RESULT, a file that ctest --output-junit has written.
"""

import re
import sys
import xml.etree.ElementTree


def main(path):
    run = xml.etree.ElementTree.parse(path).getroot()
    skipped = [case for case in run.iter("testcase") if case.get("status") in ("notrun", "disabled")]
    failed = sum(case.get("status") == "fail" for case in run.iter("testcase"))
    total = sum(1 for _ in run.iter("testcase"))
    print(f"{total - failed - len(skipped)} passed, {failed} failed, {len(skipped)} skipped")
    for case in skipped:
        # GoogleTest prints the place, the word, and the reason on the next line.
        reason = re.search(r": Skipped\n(.+)", case.findtext("system-out") or "")
        print(f"  skipped: {case.get('name')}: {reason.group(1) if reason else 'no reason was given'}")
    codecs = [name for case in run.iter("testcase") for name in re.findall(r"^codec: (\S+)", case.findtext("system-out") or "", re.M)]
    if codecs:
        print(f"  text codecs: {', '.join(codecs)}")


if __name__ == "__main__":
    main(*sys.argv[1:])
