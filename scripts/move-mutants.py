#!/usr/bin/env python3
"""Moves a sample of mutants (the mutants.json of ../shared/tools/mutate.py)
from the checkout it was drawn from onto a later one, so that two versions
of the suite are scored on the same faults:

    scripts/move-mutants.py OLD_CHECKOUT NEW_CHECKOUT OLD_MUTANTS NEW_MUTANTS

Each mutant's text is looked for in the new file with its surroundings
(whitespace may differ, as formatting moves lines), first with a wide window
and then narrower ones; where several places match, one in the function of
the same name is preferred, then the one nearest the old position in
proportion to the file. A deletion keeps the new
text's line count, so that recorded lines stay put. Mutants that cannot be
placed are listed.
"""
import json
import re
import sys


def pattern(text):
    return "".join(r"\s+" if part.isspace() else re.escape(part)
                   for part in re.split(r"(\s+)", text) if part)


def function_at(text, pos):
    """The name of the function whose definition last began before pos."""
    names = re.findall(r"(?m)^[A-Za-z][^;\n]*?\b(\w+)\(", text[:pos])
    return names[-1] if names else ""


def place(old, new, mutant):
    start, end = mutant["start"], mutant["end"]
    for width in (120, 80, 50, 30, 15, 0):
        rx = re.compile(pattern(old[max(0, start - width):start]) + "(" + pattern(mutant["orig"]) +
                        ")" + pattern(old[end:end + width]))
        hits = list(rx.finditer(new))
        if hits:
            wanted = start * len(new) / max(1, len(old))
            function = function_at(old, start)
            return min(hits, key=lambda hit: (function_at(new, hit.start(1)) != function,
                                              abs(hit.start(1) - wanted)))
    return None


def main():
    old_root, new_root, src, dst = sys.argv[1:5]
    data = json.load(open(src))
    moved, lost = [], []
    for mutant in data["mutants"]:
        old = open(f"{old_root}/{mutant['file']}").read()
        new = open(f"{new_root}/{mutant['file']}").read()
        hit = place(old, new, mutant)
        if hit is None:
            lost.append(mutant["id"])
            continue
        out = dict(mutant, start=hit.start(1), end=hit.end(1), orig=hit.group(1))
        if out["op"] == "delete" and out["repl"].startswith("{}"):
            out["repl"] = "{}" + "\n" * out["orig"].count("\n")
        elif mutant["orig"] in mutant["repl"]:
            out["repl"] = mutant["repl"].replace(mutant["orig"], out["orig"])
        out["line"] = new.count("\n", 0, out["start"]) + 1
        moved.append(out)
    data["mutants"] = moved
    json.dump(data, open(dst, "w"), indent=1)
    print(f"moved {len(moved)}, not placed {len(lost)}: {' '.join(lost)}")


if __name__ == "__main__":
    main()
