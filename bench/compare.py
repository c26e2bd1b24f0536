#!/usr/bin/python3
"""Runs every path of bench_paths (and bench_vxi11) beside its floor and
prints the table of ratios.

    bench/compare.py BUILD_DIR [--rounds N] [--quick] [--out DIR]

Each benchmark runs in its own mount and network namespace (tests/isolate.sh).
The timed paths run pinned to one CPU (client and simulator on the same CPU,
so the figures do not depend on where the scheduler puts the threads) and
once more unpinned.  A ratio is the median over the rounds of the per-round
ratio of medians; the spread is the lowest and highest per-round ratio.
Instruction counts come from callgrind (user space only, inclusive cost of
the entry point, divided by the number of calls): they are the stable figure
to track on a noisy machine.  With --out, the raw results go to
DIR/results.json and the plot to DIR/benchmarks.png.
"""
import json
import os
import re
import statistics
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
ISOLATE = os.path.join(HERE, "..", "tests", "isolate.sh")


def run(build, exe, args, pinned, env=None):
    cmd = (["taskset", "-c", "0"] if pinned else []) + ["sh", ISOLATE, os.path.join(build, "bench", exe), *args]
    p = subprocess.run(cmd, capture_output=True, text=True, env=env)
    if p.returncode != 0:
        sys.exit("%s failed:\n%s%s" % (" ".join(cmd), p.stdout, p.stderr))
    return [json.loads(line) for line in p.stdout.splitlines() if line.startswith("{")]


def rows(results, path):
    return [r for r in results if r["path"] == path]


def ratio(results, path, num, den):
    """Median and spread over the rounds of num/den."""
    v = [r[num] / r[den] for r in rows(results, path) if r[den] > 0]
    if not v:
        return None
    return statistics.median(v), min(v), max(v)


def fmt(r):
    return "n/a" if r is None else "%.2f (%.2f-%.2f)" % r


def callgrind(build, exe, args, functions, pinned=True, env=None):
    """Inclusive instruction counts of the given functions in one run."""
    with tempfile.NamedTemporaryFile(prefix="kvbench-cg.", delete=False) as f:
        out = f.name
    try:
        wrap = ["valgrind", "--tool=callgrind", "--callgrind-out-file=" + out]
        if env is not None and "BENCH_OPEN_WRAP" in env:
            env = dict(env, BENCH_OPEN_WRAP=" ".join(wrap))
            run(build, exe, args, pinned, env)
        else:
            cmd = (["taskset", "-c", "0"] if pinned else []) + ["sh", ISOLATE, *wrap,
                                                                os.path.join(build, "bench", exe), *args]
            p = subprocess.run(cmd, capture_output=True, text=True)
            if p.returncode != 0:
                sys.exit("callgrind run failed:\n" + p.stderr[-2000:])
        ann = subprocess.run(["callgrind_annotate", "--inclusive=yes", "--threshold=100", out],
                             capture_output=True, text=True).stdout
    finally:
        if os.path.exists(out):
            os.unlink(out)
    counts = {}
    for fn in functions:
        m = re.search(r"^\s*([\d,]+) \([^)]*\)\s+\S*:%s[ (\[]" % re.escape(fn), ann, re.M)
        counts[fn] = int(m.group(1).replace(",", "")) if m else None
    return counts


def split_by_object(build, exe, args, fn, n):
    """Instructions per call of fn spent in the program's own code and in the
    C library (system-call wrappers, semaphores, mutexes), counting only what
    runs inside fn."""
    with tempfile.NamedTemporaryFile(prefix="kvbench-cg.", delete=False) as f:
        out = f.name
    try:
        cmd = ["taskset", "-c", "0", "sh", ISOLATE, "valgrind", "--tool=callgrind", "--toggle-collect=" + fn,
               "--callgrind-out-file=" + out, os.path.join(build, "bench", exe), *args]
        subprocess.run(cmd, capture_output=True, text=True)
        ann = subprocess.run(["callgrind_annotate", "--threshold=100", out], capture_output=True, text=True).stdout
    finally:
        if os.path.exists(out):
            os.unlink(out)
    own = lib = 0
    for m in re.finditer(r"^\s*([\d,]+) \([^)]*\)\s+(\S+?):.*\[(\S+)\]\s*$", ann, re.M):
        c = int(m.group(1).replace(",", ""))
        if "libc.so" in m.group(3) or "libstdc++" in m.group(3):
            lib += c
        else:
            own += c
    return own / n, lib / n


def per(counts, fn, n):
    c = counts.get(fn)
    return None if c is None else c / n


def main():
    args = sys.argv[1:]
    if not args:
        sys.exit(__doc__)
    build = args[0]
    rounds = args[args.index("--rounds") + 1] if "--rounds" in args else "5"
    quick = ["--quick"] if "--quick" in args else []
    outdir = args[args.index("--out") + 1] if "--out" in args else None
    common = ["--rounds", rounds] + quick

    res = {"pinned": {}, "unpinned": {}}
    for mode in ("reg", "block", "ws", "open"):
        print("running %s (pinned, then unpinned) ..." % mode, file=sys.stderr)
        res["pinned"][mode] = run(build, "paths/bench_paths", [mode] + common, True)
        res["unpinned"][mode] = run(build, "paths/bench_paths", [mode] + common, False)
    print("running multi (4 processes, unpinned) ...", file=sys.stderr)
    res["unpinned"]["multi"] = run(build, "paths/bench_paths", ["multi"] + common, False)
    vxi = os.path.join(build, "bench", "vxi11", "bench_vxi11")
    if os.path.exists(vxi):
        print("running vxi11 ...", file=sys.stderr)
        res["pinned"]["vxi11"] = run(build, "vxi11/bench_vxi11", common, True)
        res["unpinned"]["vxi11"] = run(build, "vxi11/bench_vxi11", common, False)

    print("counting instructions (callgrind) ...", file=sys.stderr)
    nreg, nblk, nws = 2000, 4, 3
    cg = {}
    cg["reg"] = callgrind(build, "paths/bench_paths", ["count", "reg", str(nreg)], ["vintfIn16", "floorIn16"])
    cg["block"] = callgrind(build, "paths/bench_paths", ["count", "block", str(nblk)],
                            ["vintfMoveOut32", "vintfMoveIn32", "floorMove32"])
    cg["ws"] = callgrind(build, "paths/bench_paths", ["count", "ws", str(nws)],
                         ["vintfWSwrt", "vintfWSrd", "floorWsWrite", "floorWsRead"])
    cg["open"] = callgrind(build, "paths/bench_paths", ["open", "--rounds", "1"],
                           ["vintfOpenDevice", "Ini_ReadGeneric", "drvReadInstruments", "Ini_Dispose",
                            "GetResmanText", "kvtcp_hislip_Connect"],
                           env=dict(os.environ, BENCH_OPEN_WRAP="1"))
    res["callgrind"] = cg
    own, lib = split_by_object(build, "paths/bench_paths", ["count", "reg", str(nreg)], "vintfIn16", nreg)
    res["callgrind_split"] = {"own": own, "libc": lib}

    P, U = res["pinned"], res["unpinned"]
    table = []

    def add(path, pinned, unpinned, instr, target):
        table.append((path, fmt(pinned), fmt(unpinned), instr, target))

    def inv(r):
        return None if r is None else (1 / r[0], 1 / r[2], 1 / r[1])

    reg = cg["reg"]
    add("vintfIn16 round trip p50 / floor receiving the design's way (poll + header + payload)",
        ratio(P["reg"], "reg", "driver", "floor_design"), ratio(U["reg"], "reg", "driver", "floor_design"),
        "%s / %s" % (num(per(reg, "vintfIn16", nreg)), num(per(reg, "floorIn16", nreg))), "<= 1.05; <= 500 instr")
    add("vintfIn16 round trip p50 / plain floor (send + header + payload)",
        ratio(P["reg"], "reg", "driver", "floor"), ratio(U["reg"], "reg", "driver", "floor"), "", "")
    add("design floor / plain floor (cost of the poll before each receive)",
        ratio(P["reg"], "reg", "floor_design", "floor"), ratio(U["reg"], "reg", "floor_design", "floor"), "", "")
    blk = cg["block"]
    mib = 1 << 20
    for d, fn in (("out", "vintfMoveOut32"), ("in", "vintfMoveIn32")):
        name = "MoveOut32" if d == "out" else "MoveIn32"
        big = rows(P["block"], "block_" + d)
        size = "%d MiB" % (big[0]["bytes"] / mib) if big else "?"
        add("%s %s throughput / floor" % (name, size), inv(ratio(P["block"], "block_" + d, "driver", "floor")),
            inv(ratio(U["block"], "block_" + d, "driver", "floor")),
            "%s per MiB (floor %s)" % (num(per(blk, fn, nblk)), num(per(blk, "floorMove32", 2 * nblk))),
            ">= 0.97")
        add("%s client CPU per move / floor" % name, ratio(P["block"], "block_" + d, "driver_cpu", "floor_cpu"),
            ratio(U["block"], "block_" + d, "driver_cpu", "floor_cpu"), "", "")
    ws = cg["ws"]
    add("Word Serial write 64 KiB throughput / floor receiving the design's way",
        inv(ratio(P["ws"], "ws", "driver_write", "floor_write_design")),
        inv(ratio(U["ws"], "ws", "driver_write", "floor_write_design")),
        "%s / %s per 64 KiB + *IDN?" % (num(per(ws, "vintfWSwrt", nws)), num(per(ws, "floorWsWrite", nws))),
        ">= 0.95")
    add("Word Serial write 64 KiB throughput / plain floor", inv(ratio(P["ws"], "ws", "driver_write", "floor_write")),
        inv(ratio(U["ws"], "ws", "driver_write", "floor_write")), "", "")
    add("Word Serial read 64 KiB throughput / floor receiving the design's way",
        inv(ratio(P["ws"], "ws", "driver_read", "floor_read_design")),
        inv(ratio(U["ws"], "ws", "driver_read", "floor_read_design")),
        "%s / %s per *IDN? read" % (num(per(ws, "vintfWSrd", nws)), num(per(ws, "floorWsRead", nws))), ">= 0.95")
    add("Word Serial read 64 KiB throughput / plain floor", inv(ratio(P["ws"], "ws", "driver_read", "floor_read")),
        inv(ratio(U["ws"], "ws", "driver_read", "floor_read")), "", "")
    add("Word Serial *IDN? latency / floor", ratio(P["ws"], "ws", "driver_idn", "floor_idn"),
        ratio(U["ws"], "ws", "driver_idn", "floor_idn"), "", "")
    op = cg["open"]
    ini = sum(op.get(k) or 0 for k in ("Ini_ReadGeneric", "drvReadInstruments", "Ini_Dispose"))
    add("first vintfOpenDevice, 32 bridges x 64 instruments / floor", ratio(P["open"], "open", "driver", "floor"),
        ratio(U["open"], "open", "driver", "floor"),
        "%s (INI reading and look-ups %s)" % (num(op.get("vintfOpenDevice")), num(ini)), "<= 1.3; < 60 M instr")
    add("4 processes doing vintfIn16 through one bridge / floor with a blocking semaphore", None,
        ratio(U["multi"], "multi", "driver", "floor"), "", "(kept: spinning mutex)")
    if "vxi11" in P:
        for path, label in (("vxi11_query", "VXI-11 kvtcp_Query *IDN? latency"),
                            ("vxi11_bulk", "VXI-11 bulk read time")):
            add(label + " / liblxi", ratio(P["vxi11"], path, "driver", "liblxi"),
                ratio(U["vxi11"], path, "driver", "liblxi"), "", "")
            add(label + " / plain-socket RPC floor", ratio(P["vxi11"], path, "driver", "floor"),
                ratio(U["vxi11"], path, "driver", "floor"), "", "")

    print("| path | driver / floor, pinned (spread) | unpinned (spread) | instructions per op, driver / floor | target |")
    print("|---|---|---|---|---|")
    for t in table:
        print("| %s | %s | %s | %s | %s |" % t)
    reg_abs = rows(P["reg"], "reg")
    if reg_abs:
        print("\nabsolute medians, pinned: vintfIn16 %.1f us, design floor %.1f us, plain floor %.1f us" % (
            statistics.median(r["driver"] for r in reg_abs) / 1000,
            statistics.median(r["floor_design"] for r in reg_abs) / 1000,
            statistics.median(r["floor"] for r in reg_abs) / 1000))
    print("instructions per vintfIn16: %s in the library's own code, %s in the C library "
          "(system-call wrappers, semaphore, mutex)" % (num(own), num(lib)))
    opn = rows(P["open"], "open")
    if opn:
        print("first open, pinned: driver %.1f ms, floor %.1f ms" % (
            statistics.median(r["driver"] for r in opn) / 1e6, statistics.median(r["floor"] for r in opn) / 1e6))
    if outdir:
        os.makedirs(outdir, exist_ok=True)
        with open(os.path.join(outdir, "results.json"), "w") as f:
            json.dump(res, f, indent=1)
        plot(res, os.path.join(outdir, "benchmarks.png"))


def num(v):
    if v is None:
        return "n/a"
    if v >= 1e6:
        return "%.1f M" % (v / 1e6)
    return "{:,.0f}".format(v)


def plot(res, png):
    try:
        import matplotlib
        matplotlib.use("Agg")
        import matplotlib.pyplot as plt
    except ImportError:
        print("matplotlib missing (python3-matplotlib): no plot", file=sys.stderr)
        return
    fig, (a, b) = plt.subplots(1, 2, figsize=(12, 4.5))
    pct = {}
    for r in rows(res["pinned"]["reg"], "reg_pct"):
        pct.update(r)
    labels = ["p50", "p90", "p99", "p999"]
    for key, name in (("driver", "driver vintfIn16"), ("floor_design", "floor, design's receive"),
                      ("floor", "plain floor")):
        a.plot(labels, [pct.get("%s_%s" % (key, l), 0) / 1000 for l in labels], marker="o", label=name)
    a.set_ylabel("round trip (us)")
    a.set_title("Register read latency percentiles (pinned)")
    a.legend()
    a.grid(alpha=0.3)
    for d in ("out", "in"):
        sw = rows(res["pinned"]["block"], "block_%s_sweep" % d)
        sizes = sorted({r["bytes"] for r in sw})
        for who, style in (("driver", "-"), ("floor", "--")):
            mbs = [statistics.median(s / (r[who] / 1e9) / 1e6 for r in sw if r["bytes"] == s) for s in sizes]
            b.plot([s / 1024 for s in sizes], mbs, style, marker="o",
                   label="%s %s" % ("MoveOut32" if d == "out" else "MoveIn32", who))
    b.set_xscale("log", base=2)
    b.set_xlabel("block size (KiB)")
    b.set_ylabel("MB/s")
    b.set_title("Block move throughput (pinned)")
    b.legend()
    b.grid(alpha=0.3)
    fig.tight_layout()
    fig.savefig(png, dpi=110)


if __name__ == "__main__":
    main()
