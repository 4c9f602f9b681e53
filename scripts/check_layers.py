#!/usr/bin/env python3
"""Fails when the source tree breaks one of its structural rules:

- an include from a lower layer to a higher one (src/ and tests/ alike);
- a process started, or a shell run, anywhere but src/base/system.cpp;
- a log call with numeric level and system-log arguments instead of a named helper;
- a UCI section name spelled as a string literal outside the config layer.

The build already refuses an upward include (each layer compiles against a
view of src/ without the layers above it); this check names the offending
line and also covers headers that no source of the layer includes yet.
"""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent



def read_layers(path):
    """Each layer of src/LAYERS and every layer below it, bottom first."""
    below = {}
    for line in path.read_text().splitlines():
        words = line.split("#", 1)[0].split()
        if words:
            name, direct = words[0], words[1:]
            seen = set(direct)
            for lower in direct:
                seen |= set(below[lower])
            below[name] = sorted(seen, key=list(below).index)
    return below


BELOW = read_layers(ROOT / "src" / "LAYERS")
SEAM = pathlib.Path("src/base/system.cpp")
PROCESS_CALL = re.compile(r"popen|std::system|posix_spawn|fork|exec[lv]")
NUMERIC_LOG = re.compile(r"\blog\(\s*\d+\s*,")
UCI_SECTION = re.compile(r'"(config|cpi|sasConfig|operation|cellInfo|cache|cert)"\s*,\s*"')
INCLUDE = re.compile(r'#include "([a-z_]+)/')


def sources(folder):
    for path in sorted((ROOT / folder).rglob("*")):
        if path.suffix in (".cpp", ".h"):
            yield path


def check_includes(path, layer, problems):
    allowed = set(BELOW[layer]) | {layer}
    for number, line in enumerate(path.read_text().splitlines(), 1):
        match = INCLUDE.match(line.strip())
        if match and match.group(1) in BELOW and match.group(1) not in allowed:
            problems.append(f"{path.relative_to(ROOT)}:{number}: layer {layer} includes "
                            f"{match.group(1)}, which is above it: {line.strip()}")


def check_source_rules(path, problems):
    relative = path.relative_to(ROOT)
    layer = relative.parts[1]
    for number, line in enumerate(path.read_text().splitlines(), 1):
        where = f"{relative}:{number}"
        if relative != SEAM and PROCESS_CALL.search(line) and not line.lstrip().startswith("//"):
            problems.append(f"{where}: starts a process outside {SEAM}: {line.strip()}")
        if NUMERIC_LOG.search(line):
            problems.append(f"{where}: numeric log level, use a named helper: {line.strip()}")
        if layer != "config" and UCI_SECTION.search(line):
            problems.append(f"{where}: UCI name spelled outside config/schema.h: {line.strip()}")


def main():
    problems = []
    for layer in BELOW:
        for path in sources(f"src/{layer}"):
            check_includes(path, layer, problems)
            check_source_rules(path, problems)
        for path in sources(f"tests/{layer}"):
            check_includes(path, layer, problems)
    for folder in sorted((ROOT / "src").iterdir()):
        if folder.is_dir() and folder.name not in BELOW:
            problems.append(f"src/{folder.name}: a folder that is no layer")
    for problem in problems:
        print(problem)
    print(f"layer check: {len(problems)} problem(s)")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
