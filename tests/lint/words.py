#!/usr/bin/env python3
"""Prints each use of a word that words.txt lists, with file, line and what to write instead."""
import fnmatch
import re
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent.parent
LIST = ROOT / "tests" / "lint" / "words.txt"
# What no one reads as prose: inputs of fuzzers, generated files and the list itself.
SKIPPED = ["tests/fuzz/corpus/*", "tests/abi/*", "*.svg", "tests/lint/words.txt"]


def rules():
    words, allowed = [], []
    for line in LIST.read_text().splitlines():
        if line.startswith("! "):
            allowed.append(line[2:].split(": ", 2))
        elif line and not line.startswith("#"):
            pattern, instead = line.split(" -> ")
            words.append((re.compile(rf"(?<![A-Za-z])(?:{pattern})(?![A-Za-z])", re.IGNORECASE), instead))
    return words, allowed


def files():
    out = subprocess.run(["git", "ls-files", "-z"], cwd=ROOT, check=True, capture_output=True, text=True).stdout
    return [name for name in out.split("\0") if name and not any(fnmatch.fnmatch(name, s) for s in SKIPPED)]


def main():
    words, allowed = rules()
    any_word = re.compile("|".join(word.pattern for word, _ in words), re.IGNORECASE)
    used = set()
    found = 0
    for name in files():
        for number, line in enumerate((ROOT / name).read_text(errors="replace").splitlines(), 1):
            text = line.replace("_", " ")
            if not any_word.search(text):
                continue
            for word, instead in words:
                match = word.search(text)
                if not match:
                    continue
                exceptions = [i for i, (glob, part, _) in enumerate(allowed) if fnmatch.fnmatch(name, glob) and part in line]
                used.update(exceptions)
                if not exceptions:
                    print(f'{name}:{number}: "{match.group()}": {instead}')
                    found += 1
    for i, (glob, part, _) in enumerate(allowed):
        if i not in used:
            print(f"words.txt: nothing needs the exception {glob}: {part}")
            found += 1
    return found > 0


sys.exit(main())
