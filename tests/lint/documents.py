#!/usr/bin/env python3
"""Every link in a document leads to a file, README.md fits 130 lines and quotes examples/host.c, and every test that
DESIGN.md names exists."""
import re
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent.parent
MOST_LINES = 130
FEWEST_TESTS = 25  # fewer means that the search is broken


def files(pattern):
    out = subprocess.run(["git", "ls-files", "-z", pattern], cwd=ROOT, check=True, capture_output=True, text=True)
    return [ROOT / name for name in out.stdout.split("\0") if name]


def broken_links():
    for document in files("*.md"):
        for number, line in enumerate(document.read_text().splitlines(), 1):
            for target in re.findall(r"\]\(([^)#:]+)(?:#[^)]*)?\)", line):
                if not (document.parent / target).exists():
                    yield f"{document.relative_to(ROOT)}:{number}: {target} does not exist"


def without_indentation(text):
    return "\n".join(line.strip() for line in text.splitlines())


def readme():
    text = (ROOT / "README.md").read_text()
    lines = text.count("\n")
    if lines > MOST_LINES:
        yield f"README.md: {lines} lines, at most {MOST_LINES}"
    host = without_indentation((ROOT / "examples" / "host.c").read_text())
    quoted = re.findall(r"^```c\n(.*?)^```$", text, re.MULTILINE | re.DOTALL)
    if len(quoted) != 1:
        yield f"README.md: {len(quoted)} blocks of C, expected 1"
    for block in quoted:
        for part in block.strip("\n").split("\n\n"):
            if without_indentation(part) not in host:
                yield f"README.md: examples/host.c does not contain\n{part}"


def missing_tests():
    named = set(re.findall(r"`(\w+\.[a-zA-Z0-9]+_\w+)`", (ROOT / "DESIGN.md").read_text()))
    if len(named) < FEWEST_TESTS:
        yield f"DESIGN.md: names {len(named)} tests, expected {FEWEST_TESTS} or more"
    sources = "".join(path.read_text() for path in files("tests/*/*_test.cpp"))
    defined = {".".join(test) for test in re.findall(r"^(?:TYPED_)?TEST(?:_[FP])?\((\w+),\s*(\w+)\)", sources, re.MULTILINE)}
    for test in sorted(named - defined):
        yield f"DESIGN.md: {test} is not a test"


problems = [*broken_links(), *readme(), *missing_tests()]
print(*problems, sep="\n", end="\n" if problems else "")
sys.exit(bool(problems))
