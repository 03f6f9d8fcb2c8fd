#!/usr/bin/env python3
"""Lists the tests that a ctest run skipped, each with the reason that it printed: skipped.py RESULTS.xml

GoogleTest prints the place, the reason and then "[  SKIPPED ]"; other tests print what they like."""

import re
import sys
import xml.etree.ElementTree as ElementTree


def reason(output):
    match = re.search(r": Skipped\n(.*?)\n*\[  SKIPPED \]", output, re.DOTALL)
    text = match.group(1) if match else output
    return " ".join(text.split()) or "gives no reason"


def main():
    skipped = [case for case in ElementTree.parse(sys.argv[1]).getroot().iter("testcase")
               if case.get("status") in ("notrun", "disabled")]
    print(f"\nSkipped tests: {len(skipped)}")
    for case in skipped:
        disabled = case.get("status") == "disabled"
        print(f"  {case.get('name')}: " + ("disabled" if disabled else reason(case.findtext("system-out") or "")))


if __name__ == "__main__":
    main()
