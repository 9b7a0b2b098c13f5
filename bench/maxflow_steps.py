#!/usr/bin/env python3
"""Splits a callgrind run's band max-flow instructions into growth,
augmentation and adoption (see bench/maxflow_steps.sh, which runs it).

  maxflow_steps.py [--lines] LIBRARY SOLVER_CORE_H CALLGRIND_OUT [CALLGRIND_OUT...]

The runs must have been made with --dump-instr=yes. Every instruction of
LIBRARY that executed is mapped with addr2line to its chain of inlined calls
(innermost first). An instruction belongs to the band solver when a frame of
its chain is the band solver (a BandTopology instantiation, or solvePiece,
into which the band's serial loop is inlined), to the grid solver when a frame
is a GridTopology instantiation or a VELDSEGraph solver member. Within a
solver:
  augmentation  a frame in augmentPath or pushHalf;
  adoption      a frame in adoptOrphan, or a serialLoop line of the loop that
                takes orphans from the queue (from its `while
                (!exitRequested())` to the time-limit check after it);
  growth        the rest of serialLoop: taking the active node, scanning its
                neighbours, growing, the check after each visit;
  clock         the clock reads after a visit (stopAfterVisit), made only
                once the limit's watcher thread has woken: under callgrind
                that depends on the real time the run takes, so they are
                kept apart from growth;
  other         the rest (tree set-up, write-back, threads).
Prints "phase solver instructions" lines, summed over every file (thread)
given, "caller processSegment N" for the inclusive count of processSegment
in the files whose name ends in -01 (the calling thread), and "all threads
N" for every instruction of every file.
"""
import re
import subprocess
import sys


def parse_position(token, last):
    if token == "*":
        return last
    if token[0] in "+-":
        return last + int(token, 0)
    return int(token, 0)


def read_callgrind(path, self_costs, inclusive):
    """Adds the self cost of each instruction address (per object name) of
    one callgrind file to self_costs; returns processSegment's inclusive
    cost in this file (the calls made from it plus its own)."""
    names = {"ob": {}, "fn": {}, "cob": None, "cfn": None}
    ob = fn = None
    positions = ["line"]
    last = {}
    skip_next = False
    call_target_fn = None
    proc_self = 0
    proc_calls = 0
    # callgrind shares one name table for ob/cob and one for fn/cfn.
    tables = {"ob": {}, "fl": {}, "fn": {}}
    kind_table = {"ob": "ob", "cob": "ob", "fl": "fl", "fi": "fl", "fe": "fl", "cfi": "fl", "cfl": "fl",
                  "fn": "fn", "cfn": "fn"}
    name_re = re.compile(r"^\((\d+)\)(?: (.*))?$")
    cob = None
    with open(path, errors="replace") as f:
        for line in f:
            line = line.rstrip("\n")
            if not line:
                continue
            c = line[0]
            if c.isdigit() or c in "+-*":
                fields = line.split()
                pos = []
                for k, name in enumerate(positions):
                    value = parse_position(fields[k], last.get(name, 0))
                    last[name] = value
                    pos.append(value)
                cost = int(fields[len(positions)]) if len(fields) > len(positions) else 0
                if skip_next:
                    skip_next = False
                    if fn is not None and (fn.startswith("processSegment(") or fn.startswith("_Z14processSegment")):
                        proc_calls += cost
                    continue
                if "instr" in positions and ob is not None:
                    addr = pos[positions.index("instr")]
                    d = self_costs.setdefault(ob, {})
                    d[addr] = d.get(addr, 0) + cost
                if fn is not None and (fn.startswith("processSegment(") or fn.startswith("_Z14processSegment")):
                    proc_self += cost
                continue
            if line.startswith("positions:"):
                positions = line.split()[1:]
                continue
            if line.startswith("calls="):
                # The call's target position follows the count; the next cost
                # line is the call's inclusive cost at the call site.
                fields = line[len("calls="):].split()
                for k, name in enumerate(positions):
                    if 1 + k < len(fields):
                        # Target positions are not compressed against the
                        # cost lines' positions in callgrind's own reader;
                        # they are read here without updating them.
                        pass
                skip_next = True
                continue
            m = re.match(r"^(ob|cob|fl|fi|fe|cfi|cfl|fn|cfn)=(.*)$", line)
            if m:
                kind, rest = m.group(1), m.group(2)
                table = tables[kind_table[kind]]
                nm = name_re.match(rest)
                if nm:
                    if nm.group(2) is not None:
                        table[nm.group(1)] = nm.group(2)
                    value = table.get(nm.group(1), rest)
                else:
                    value = rest
                if kind == "ob":
                    ob = value
                elif kind == "fn":
                    fn = value
                continue
    return proc_self + proc_calls


def classify(library, source, addresses):
    src = open(source).read().split("\n")
    # serialLoop's orphan loop, by its text.
    loop_begin = loop_end = None
    in_serial = False
    for n, text in enumerate(src, 1):
        if "float serialLoop(" in text:
            in_serial = True
        if in_serial and "while (!exitRequested())" in text and loop_begin is None:
            loop_begin = n
        if loop_begin is not None and loop_end is None and n > loop_begin and "limit.stop()" in text:
            loop_end = n
    if loop_begin is None or loop_end is None:
        sys.exit("maxflow_steps: orphan loop of serialLoop not found in " + source)
    result = {}
    if not addresses:
        return result
    text = "\n".join("0x%x" % a for a in addresses) + "\n"
    out = subprocess.run(["addr2line", "-a", "-f", "-i", "-C", "-e", library], input=text,
                         capture_output=True, text=True, check=True).stdout.split("\n")
    chains = {}
    current = None
    k = 0
    while k < len(out):
        line = out[k]
        if re.match(r"^0x[0-9a-f]+$", line):
            current = int(line, 16)
            chains[current] = []
            k += 1
            continue
        if current is not None and k + 1 < len(out):
            chains[current].append((line, out[k + 1]))
            k += 2
            continue
        k += 1
    for addr, chain in chains.items():
        names = [fn for fn, _ in chain]
        joined = " ".join(names)
        if "BandTopology" in joined or "solvePiece" in joined:
            solver = "band"
        elif "GridTopology" in joined or "VELDSEGraph::maxFlow" in joined or "VELDSEGraph::AugmentPath" in joined \
                or "VELDSEGraph::Process" in joined:
            solver = "grid"
        else:
            result[addr] = None
            continue
        phase = None
        if any(re.search(r"\bstopAfterVisit\b", fn) for fn in names):
            # Reading the clock after a visit: only once the limit watcher has
            # woken, which depends on how long the run took in real time.
            result[addr] = (solver, "clock", chain[0][1].split("/")[-1].split(" ")[0])
            continue
        for fn, where in chain:  # innermost first
            if re.search(r"\baugmentPath\b|\bpushHalf\b", fn):
                phase = "augmentation"
                break
            if re.search(r"\badoptOrphan\b", fn):
                phase = "adoption"
                break
            if re.search(r"\bserialLoop\b", fn):
                m = re.search(r"solver_core\.h:(\d+)", where)
                line = int(m.group(1)) if m else 0
                phase = "adoption" if loop_begin <= line < loop_end else "growth"
                break
        result[addr] = (solver, phase or "other", chain[0][1].split("/")[-1].split(" ")[0])
    return result


def main():
    args = sys.argv[1:]
    lines = None
    if args and args[0] == "--lines":
        # Also the band solver's 60 costliest source lines (innermost frame).
        lines = {}
        args = args[1:]
    library, source = args[0], args[1]
    files = args[2:]
    self_costs = {}
    caller = 0
    for path in files:
        inc = read_callgrind(path, self_costs, True)
        if path.endswith("-01"):
            caller += inc
    lib_name = None
    for ob in self_costs:
        if ob.endswith(library.split("/")[-1]):
            lib_name = ob
    totals = {}
    if lib_name is not None:
        costs = self_costs[lib_name]
        kinds = classify(library, source, sorted(costs))
        for addr, cost in costs.items():
            kind = kinds.get(addr)
            if kind is None:
                continue
            totals[kind[:2]] = totals.get(kind[:2], 0) + cost
            if lines is not None and kind[0] == "band":
                lines[kind[1:]] = lines.get(kind[1:], 0) + cost
    if lines:
        for (phase, where), cost in sorted(lines.items(), key=lambda item: -item[1])[:60]:
            print("line %-12s %-28s %d" % (phase, where, cost))
    for solver in ("band", "grid"):
        for phase in ("growth", "augmentation", "adoption", "clock", "other"):
            print("%s %s %d" % (phase, solver, totals.get((solver, phase), 0)))
    print("caller processSegment %d" % caller)
    print("all threads %d" % sum(sum(d.values()) for d in self_costs.values()))


if __name__ == "__main__":
    main()
