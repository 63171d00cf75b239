#!/usr/bin/env python3
"""Holds the README's layout table to the repository: every file git tracks
is named in the first column of a row, and every path named there exists.
Paths are written in backticks, with {a,b} groups as a shell expands them; a
path that ends in '/' names a folder, which must hold tracked files, and
stands for none of them. Run from anywhere; the first argument is the project
root. Outside a git checkout there is nothing to compare with: exit 77 (skip)."""
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else pathlib.Path(__file__).resolve().parents[1])
SKIP = 77


def expand(pattern):
    """Shell brace expansion: 'a/{b,c}.h' gives a/b.h and a/c.h; groups may be empty or nest."""
    depth, start = 0, -1
    for i, c in enumerate(pattern):
        if c == "{":
            if depth == 0:
                start = i
            depth += 1
        elif c == "}" and depth:
            depth -= 1
            if depth == 0:
                inner, parts, level, begin = pattern[start + 1:i], [], 0, 0
                for j, d in enumerate(inner):
                    level += d == "{"
                    level -= d == "}"
                    if d == "," and level == 0:
                        parts.append(inner[begin:j])
                        begin = j + 1
                parts.append(inner[begin:])
                head, tail = pattern[:start], pattern[i + 1:]
                return [x for p in parts for x in expand(head + p + tail)]
    return [pattern]


def layout_paths(readme):
    """The paths in the first cell of each row of the table under '## Layout'."""
    section = re.search(r"^## Layout\n(.*?)(?=^## |\Z)", readme, re.S | re.M)
    if not section:
        sys.exit("README.md has no '## Layout' section")
    paths = []
    for line in section.group(1).splitlines():
        cells = line.split("|")
        if len(cells) < 3 or set(cells[1].strip()) <= set("-"):
            continue
        for token in re.findall(r"`([^`]+)`", cells[1]):
            for path in token.split(", "):
                paths.extend(expand(path.strip()))
    return paths


def main():
    try:
        tracked = subprocess.run(["git", "-C", str(ROOT), "ls-files"], check=True, capture_output=True,
                                 text=True).stdout.split("\n")
    except (OSError, subprocess.CalledProcessError):
        print("not a git checkout: nothing to compare the layout with")
        return SKIP
    tracked = {t for t in tracked if t}
    if "README.md" not in tracked:
        print("the project root is not the top of a git checkout: nothing to compare the layout with")
        return SKIP
    folders = {str(pathlib.PurePosixPath(t).parent) + "/" for t in tracked}
    folders |= {f.split("/", 1)[0] + "/" for f in folders}
    named = layout_paths((ROOT / "README.md").read_text(encoding="utf-8"))
    errors = []
    for path in named:
        if path.endswith("/"):
            if path not in folders:
                errors.append(f"the layout names folder {path}, which holds no tracked file")
        elif path not in tracked:
            errors.append(f"the layout names {path}, which git does not track")
    named_files = {p for p in named if not p.endswith("/")}
    for path in sorted(tracked - named_files):
        errors.append(f"{path} is tracked but not in the README's layout table")
    for e in errors:
        print(e)
    print(f"{len(tracked)} tracked files, {len(named_files)} named in the layout table")
    return 1 if errors else 0


if __name__ == "__main__":
    sys.exit(main())
