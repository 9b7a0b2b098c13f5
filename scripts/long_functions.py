#!/usr/bin/env python3
"""Lists the library's functions whose bodies exceed a number of lines.

Usage: scripts/long_functions.py [limit] [files...]
    limit  default 80; files default to every library source and header
           (engine, graph, colormodel, interface, support).
Prints "<lines> <file>:<line> <name>", longest first; exits 1 when any
function exceeds the limit. A plain brace-matching scan: a body is a brace
block whose opening line ends a signature (a closing parenthesis, maybe
followed by const/noexcept/override or a constructor's initialisers); blocks
nested in another function (lambdas, local classes) count towards it.
"""
import glob
import re
import sys

SIGNATURE = re.compile(r"\)\s*(const)?\s*(noexcept)?\s*(override)?\s*(->\s*[\w:<>*&]+)?\s*$")
CONTROL = re.compile(r"\b(if|for|while|switch|catch)\s*\(")
NAME = re.compile(r"([\w:~]+)\s*\((?:[^()]|\([^()]*\))*\)\s*(?:const)?\s*(?:noexcept)?\s*(?:override)?\s*$")


def strip(line):
    line = re.sub(r'"(\\.|[^"\\])*"', '""', line)
    line = re.sub(r"'(\\.|[^'\\])*'", "''", line)
    return re.sub(r"//.*", "", line)


def functions(path):
    lines = [strip(l) for l in open(path, encoding="utf-8").read().split("\n")]
    stack = []
    for i, code in enumerate(lines):
        for col, ch in enumerate(code):
            if ch == "{":
                k = i
                while k > 0 and i - k < 6 and not re.search(r"[;{}]\s*$", lines[k - 1]):
                    k -= 1
                head = " ".join(lines[k:i]) + " " + code[:col]
                # Constructor initialisers: look at the part before the ':'.
                sig = re.sub(r"\)\s*:\s*[\w\s(),:{}<>*&.\[\]-]*$", ")", head)
                last = sig.split(";")[-1]
                is_fn = bool(SIGNATURE.search(sig)) and not CONTROL.search(last)
                stack.append((i, is_fn, sig.strip()))
            elif ch == "}" and stack:
                start, is_fn, sig = stack.pop()
                if is_fn and not any(f for _, f, _ in stack):
                    m = NAME.search(sig)
                    yield i - start + 1, start + 1, m.group(1) if m else sig[:60]


def main():
    args = sys.argv[1:]
    limit = int(args.pop(0)) if args and args[0].isdigit() else 80
    files = args or sorted(
        f for d in ("engine", "graph", "colormodel", "interface", "support")
        for f in glob.glob(f"{d}/*.cpp") + glob.glob(f"{d}/*.h"))
    found = sorted(((n, f, s, name) for f in files for n, s, name in functions(f) if n > limit), reverse=True)
    for n, f, s, name in found:
        print(f"{n:5d} {f}:{s} {name}")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
