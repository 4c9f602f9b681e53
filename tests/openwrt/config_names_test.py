#!/usr/bin/env python3
"""Checks the packaged default /etc/config/sas against the daemon's table of
UCI names (src/config/schema.h): every option it sets, or shows commented
out, is one the daemon reads or writes, and every section of the daemon's
package is declared, since the daemon writes only into sections that exist."""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
SCHEMA = ROOT / "src/config/schema.h"
PACKAGED = ROOT / "openwrt/net/cbsd/files/sas.config"
# Sections of /tmp/sas_cache, not of /etc/config/sas.
OTHER_PACKAGES = {"cache"}

NAME = re.compile(r'UciName\s+k\w+\{"(\w+)",\s*"(\w+)"\}')
SECTION = re.compile(r"^config\s+(\S+)\s+'?(\w+)'?\s*$")
OPTION = re.compile(r"^#?\s*option\s+(\w+)\s")


def main():
    known = set(NAME.findall(SCHEMA.read_text()))
    sections = {s for s, _ in known} - OTHER_PACKAGES
    problems = []
    declared = set()
    current = None
    for number, raw in enumerate(PACKAGED.read_text().splitlines(), 1):
        line = raw.strip()
        section = SECTION.match(line)
        if section:
            current = section.group(2)
            declared.add(current)
            if section.group(1) != current:
                problems.append(f"line {number}: section {current} has type {section.group(1)}")
            continue
        option = OPTION.match(line)
        if option and (current, option.group(1)) not in known:
            problems.append(f"line {number}: {current}.{option.group(1)} is not a name the daemon uses")
    for missing in sorted(sections - declared):
        problems.append(f"section {missing} is missing")
    for problem in problems:
        print(f"{PACKAGED.relative_to(ROOT)}: {problem}")
    print(f"packaged configuration: {len(known)} names known, {len(problems)} problem(s)")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
