#!/usr/bin/env python3
"""Holds tests/failure_rows.tsv to the effect: every text that plugin/ logs
through LOG_ERROR or LOG_ERROR_IN has a row, and every row names a test that
exists and whose file mentions the row's text. Run from anywhere; the first
argument is the project root. Texts are compared as written in C++ source."""
import pathlib
import re
import sys

ROOT = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else pathlib.Path(__file__).resolve().parents[1])
TOKEN = re.compile(r'"(?:[^"\\\n]|\\.)*"|\'(?:[^\'\\\n]|\\.)*\'|//[^\n]*|/\*.*?\*/', re.S)
LITERAL = re.compile(r'"((?:[^"\\\n]|\\.)*)"')
IDENT = re.compile(r'[A-Za-z_]\w*')


def clean(text):
    """The source without comments, adjacent literals joined as the compiler does."""
    out, pos, lit_end = "", 0, -1
    for m in TOKEN.finditer(text):
        out += text[pos:m.start()]
        pos, tok = m.end(), m.group()
        if tok[0] == "/":
            out += " "
            continue
        if tok[0] == '"' and lit_end >= 0 and not out[lit_end:].strip():
            out = out[:lit_end - 1] + tok[1:]
        else:
            out += tok
        lit_end = len(out) if tok[0] == '"' else -1
    return out + text[pos:]


def call_args(text, open_paren):
    """The top-level arguments of the call whose '(' is at open_paren."""
    args, depth, cur = [], 0, ""
    for m in re.finditer(r'"(?:[^"\\\n]|\\.)*"|\'(?:[^\'\\\n]|\\.)*\'|[(),]|[^"\'(),]+', text[open_paren:]):
        tok = m.group()
        if tok == "(":
            depth += 1
            if depth == 1:
                continue
        elif tok == ")":
            depth -= 1
            if depth == 0:
                return args + [cur.strip()]
        elif tok == "," and depth == 1:
            args.append(cur.strip())
            cur = ""
            continue
        cur += tok
    return args


def first_literal(args):
    for arg in args:
        m = LITERAL.search(arg)
        if m:
            return m.group(1)
    return None


def forwarded_texts(sources, path, at, name):
    """Texts behind a logged variable: a parameter's literals at the enclosing
    function's call sites, or a local's literal where it was last assigned."""
    before = sources[path][:at]
    heads = [h for h in re.finditer(r"(\w+)\s*\(([^()]*)\)\s*(?:const\s*)?(?:noexcept\s*)?\{", before)
             if h.group(1) not in ("if", "for", "while", "switch", "catch")]
    if heads and re.search(rf"\b{name}\s*$", heads[-1].group(2)):
        function, texts = heads[-1].group(1), []
        for other, text in sources.items():
            for call in re.finditer(rf"\b{function}\s*\(", text):
                if (other, call.start()) != (path, heads[-1].start()):
                    texts.append((other, first_literal(call_args(text, call.end() - 1))))
        return texts
    assigned = list(re.finditer(rf"\b{name}\s*=(?!=)([^;]*);", before))
    return [(path, first_literal([assigned[-1].group(1)]))] if assigned else []


def logged_texts(sources):
    """(file, text) of every fixed text the effect logs as an error."""
    found = []
    for path, text in sources.items():
        for m in re.finditer(r"\bLOG_ERROR(_IN)?\s*\(", text):
            args = call_args(text, m.end() - 1)[1 if m.group(1) else 0:]
            literal = first_literal(args)
            if literal is not None:
                found.append((path, literal))
            elif len(args) == 1 and IDENT.fullmatch(args[0]):
                found += forwarded_texts(sources, path, m.start(), args[0])
    return [(path, t) for path, t in found if t]


def main():
    sources = {p.relative_to(ROOT).as_posix(): clean(p.read_text())
               for p in sorted((ROOT / "plugin").rglob("*")) if p.suffix in (".cpp", ".h")}
    tests = {}
    for p in sorted((ROOT / "tests").rglob("*")):
        if p.suffix in (".cpp", ".h"):
            text = clean(p.read_text())
            for m in re.finditer(r"\bTEST(?:_F|_P)?\s*\(\s*(\w+)\s*,\s*(\w+)\s*\)", text):
                tests[f"{m.group(1)}.{m.group(2)}"] = (p.relative_to(ROOT).as_posix(), text)

    table = ROOT / "tests" / "failure_rows.tsv"
    lines = table.read_text().splitlines()
    errors, rows = [], []
    for number, line in enumerate(lines[1:], start=2):
        cells = line.split("\t")
        if len(cells) != 4 or not all(cells[:3]):
            errors.append(f"row {number}: wants failure, text, code and test, tab-separated: {line!r}")
            continue
        failure, text, code, test = cells
        rows.append(text)
        where = f"row {number} ({failure})"
        if not test:
            errors.append(f"{where}: names no test")
        elif test not in tests:
            errors.append(f"{where}: no TEST, TEST_F or TEST_P defines {test}")
        elif text not in tests[test][1]:
            errors.append(f"{where}: {tests[test][0]}, where {test} lives, never mentions \"{text}\"")

    for path, text in dict.fromkeys(logged_texts(sources)):
        if text not in rows:
            errors.append(f"{path} logs \"{text}\", which no row of {table.name} holds")

    for e in errors:
        print(e)
    print(f"{len(rows)} rows, {len(errors)} problems")
    return 1 if errors else 0


if __name__ == "__main__":
    sys.exit(main())
