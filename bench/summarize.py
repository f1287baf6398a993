#!/usr/bin/env python3
"""Turns the raw runs of scripts/bench into bench/results.md: machine facts,
the inputs with their per-slice cSYM counts, and per input the median wall
time and peak RSS of every command with the ratio of ours to each baseline.
Text below the ANALYSIS marker of an existing results.md is kept, so the
written analysis survives a re-run (and should then be re-read)."""

import argparse
import datetime
import os
import platform
import statistics
import subprocess

ANALYSIS = "<!-- analysis: written by hand, kept when the tables are regenerated -->"
ORDER = ["ours", "upload", "upload-received", "gsym", "debug-line", "gzip", "zlib-floor", "deflate-floor", "cat"]
DESCRIPTION = {
    "ours": "our conversion: cSYM of every slice + gzip",
    "upload": "symlift uploading the same dSYM to the stand-in on loopback",
    "upload-received": "the same upload to a stand-in that only receives (checks nothing)",
    "zlib-floor": "zlib level 6 alone on our cSYM files, over every core",
    "deflate-floor": "libdeflate level 6 alone on our cSYM files, over every core",
    "gsym": "llvm-gsymutil-14 --convert (all slices)",
    "debug-line": "llvm-dwarfdump-14 --debug-line",
    "gzip": "gzip -6 of our cSYM files",
    "cat": "cat of the DWARF file",
}


def targets(labels, runs, sizes, gzip_sizes):
    """The performance targets, checked on the medians of this run."""
    out = ["## Targets (medians of this run)", "", "| input | target | measured | met |", "|---|---|---|---|"]

    def med(label, cmd, i):
        values = runs.get((label, cmd))
        return statistics.median(v[i] for v in values) if values else None

    def row(label, target, value, limit):
        if value is None:
            return
        out.append(f"| {label} | {target} | {value:.2f}× | {'yes' if value <= limit else 'NO'} |")

    def ratios(label):
        ours = med(label, "ours", 0)
        if ours is None:
            return {}
        found = {}
        for cmd in ("gsym", "zlib-floor", "deflate-floor"):
            base = med(label, cmd, 0)
            if base:
                found[cmd] = ours / base
        return found

    for label in labels:
        if label.startswith("5mb"):
            continue
        ours = med(label, "ours", 0)
        gsym, floor, deflate = med(label, "gsym", 0), med(label, "zlib-floor", 0), med(label, "deflate-floor", 0)
        rss, gsym_rss = med(label, "ours", 1), med(label, "gsym", 1)
        if ours is None:
            continue
        row(label, "wall ≤ 0.4× llvm-gsymutil", ours / gsym if gsym else None, 0.4)
        row(label, "wall ≤ 0.6× zlib level-6 floor", ours / floor if floor else None, 0.6)
        row(label, "wall ≤ 1.3× libdeflate level-6 floor", ours / deflate if deflate else None, 1.3)
        row(label, "peak RSS ≤ 0.45× llvm-gsymutil", rss / gsym_rss if gsym_rss else None, 0.45)
        received = med(label, "upload-received", 0)
        row(label, "upload run, stand-in only receiving, ≤ 1.05× convert-only", received / ours if received else None, 1.05)
        if label in gzip_sizes:
            ours_gz, zlib_gz = gzip_sizes[label]
            row(label, f"gzip bytes ≤ zlib level 6's ({ours_gz:,} vs {zlib_gz:,})", ours_gz / zlib_gz, 1.0)
    per_mb = {}
    for label in labels:
        ours = med(label, "ours", 0)
        if ours is not None and label in ("50mb", "250mb") and int(sizes.get(label, 0)) > 0:
            per_mb[label] = ours / (int(sizes[label]) / 1e6)
    if len(per_mb) == 2:
        growth = per_mb["250mb"] / per_mb["50mb"]
        out.append(f"| 50→250mb | time per MB within 15% | {growth:.2f}× | {'yes' if abs(growth - 1) <= 0.15 else 'NO'} |")
    # The DWARF 5 input against the DWARF 4 input of the same size.
    for label in labels:
        if not label.endswith("-dwarf5"):
            continue
        twin = label[: -len("-dwarf5")]
        mine, theirs = ratios(label), ratios(twin)
        for cmd, value in mine.items():
            if cmd in theirs:
                change = value / theirs[cmd]
                out.append(f"| {label} | ours/{cmd} within 10% of {twin}'s ({value:.2f}× vs {theirs[cmd]:.2f}×) |"
                           f" {change:.2f}× | {'yes' if abs(change - 1) <= 0.1 else 'NO'} |")
    out.append("")
    return out


def machine_facts():
    cpu = "unknown"
    try:
        with open("/proc/cpuinfo") as f:
            for line in f:
                if line.startswith("model name"):
                    cpu = line.split(":", 1)[1].strip()
                    break
    except OSError:
        pass
    load = os.getloadavg()
    return [
        f"- date: {datetime.datetime.now(datetime.timezone.utc).strftime('%Y-%m-%d %H:%M UTC')}",
        f"- nproc: {os.cpu_count()} ({cpu}); kernel {platform.release()}",
        f"- load average when the summary was written: {load[0]:.2f} {load[1]:.2f} {load[2]:.2f}"
        " (the machine is shared; ratios from one interleaved series are the figures to trust)",
        f"- compiler of symlift: {subprocess.run(['c++', '--version'], capture_output=True, text=True).stdout.splitlines()[0]}",
    ]


def read_tsv(path):
    with open(path) as f:
        return [line.rstrip("\n").split("\t") for line in f if line.strip()]


def fmt_seconds(us):
    return f"{us / 1e6:.3f}"


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--raw", required=True)
    ap.add_argument("--headers", required=True)
    ap.add_argument("--sizes", required=True)
    ap.add_argument("--mode", required=True)
    ap.add_argument("--runs", required=True)
    ap.add_argument("--micro")
    ap.add_argument("--gzip-sizes")
    ap.add_argument("--out", required=True)
    args = ap.parse_args()

    runs = {}
    labels = []
    for label, cmd, _run, wall_us, rss_kb, user_s, sys_s in read_tsv(args.raw):
        if label not in labels:
            labels.append(label)
        cpu_us = round((float(user_s) + float(sys_s)) * 1e6)
        runs.setdefault((label, cmd), []).append((int(wall_us), int(rss_kb), cpu_us))
    sizes = dict(read_tsv(args.sizes))
    gzip_sizes = {}
    if args.gzip_sizes and os.path.exists(args.gzip_sizes):
        for label, ours_gz, zlib_gz in read_tsv(args.gzip_sizes):
            gzip_sizes[label] = (int(ours_gz), int(zlib_gz))

    out = ["# Benchmark results", "", "Written by `scripts/bench` (`make bench`); tables regenerated on every run.", ""]
    out += ["## Machine", ""] + machine_facts() + [""]
    out += [
        "## Method",
        "",
        f"- our conversion ran as: `{args.mode}`"
        + (" (generator + gzip in one process, the calls a convert-only run makes)" if args.mode == "bench-convert" else ""),
        f"- per input one warm-up round, then {args.runs} timed rounds; each round runs every command once, in the"
        " same order, so the series is interleaved; figures are medians of the timed rounds",
        "- wall time: nanosecond clock around the command; CPU time and peak RSS: `/usr/bin/time -f '%M %U %S'`"
        " (RSS of the largest process; CPU of all its threads, so CPU above wall means several cores were used)",
        "- llvm-gsymutil-14 converts every slice of a fat file (one `.gsym.<arch>` file each) with as many threads"
        " as cores; our conversion decodes each slice's units on every core and reads the next slice while the current one's text is written; each slice's text is gzipped with libdeflate (level 5, chunks of 1 to 4 MiB on every core, one gzip member) from the moment it exists",
        "- CPU ratios against a baseline of 30 ms CPU or less are shown as n/m (not measurable: 10 ms ticks)",
        "- inputs are served from the page cache (the warm-up reads them), so `cat` is a memory-bandwidth floor",
        "",
        "## Inputs",
        "",
        "Fat arm64 + x86_64 dSYMs made by `bench/gen` (clang -O1, ld64.lld, llvm-lipo, dsymutil). Counts are the"
        " cSYM header's files, symbols (functions) and ranges (line records) per slice.",
        "",
        "| input | DWARF file | slice | files | symbols | ranges |",
        "|---|---|---|---|---|---|",
    ]
    for row in read_tsv(args.headers):
        # label, then the header: code_mapping 1 type uuid arch files symbols ranges
        label, (_, _, _, uuid, arch, files, symbols, ranges) = row[0], row[1:]
        size = int(sizes.get(label, 0))
        out.append(f"| {label} | {size / 1e6:.1f} MB | {arch} {uuid[:8]}… | {files} | {symbols} | {ranges} |")
    out.append("")

    out += ["## Results", ""]
    for label in labels:
        ours = runs.get((label, "ours"))
        out += [
            f"### {label}",
            "",
            "| command | wall (s) | CPU user+sys (s) | peak RSS (MB) | ours / it: wall | CPU | RSS | runs |",
            "|---|---|---|---|---|---|---|---|",
        ]

        def med(values, i):
            return statistics.median(v[i] for v in values)

        def ratio(a, b, floor=0):
            # /usr/bin/time counts CPU in 10 ms ticks: a baseline under a few
            # ticks gives no meaningful ratio.
            return f"{a / b:.2f}×" if b > floor else "n/m"

        ow, orss, ocpu = med(ours, 0), med(ours, 1), med(ours, 2)
        for cmd in ORDER:
            values = runs.get((label, cmd))
            if not values:
                continue
            w, r, c = med(values, 0), med(values, 1), med(values, 2)
            ratios = ["—"] * 3 if cmd == "ours" else [ratio(ow, w), ratio(ocpu, c, 30000), ratio(orss, r)]
            out.append(
                f"| {DESCRIPTION[cmd]} | {fmt_seconds(w)} | {fmt_seconds(c)} | {r / 1024:.1f} | "
                + " | ".join(ratios)
                + f" | {len(values)} |"
            )
        out.append("")
        # The spread of our own runs, so a noisy series is visible.
        walls = sorted(v[0] for v in ours)
        out += [f"Our runs, wall (s): {', '.join(fmt_seconds(w) for w in walls)}", ""]

    out += targets(labels, runs, sizes, gzip_sizes)

    if args.micro and os.path.exists(args.micro):
        with open(args.micro) as f:
            text = f.read().strip()
        out += ["## Micro-benchmarks (first slice in the fat header of the first input)", "", "```", text, "```", ""]

    kept = ""
    if os.path.exists(args.out):
        with open(args.out) as f:
            previous = f.read()
        if ANALYSIS in previous:
            kept = previous.split(ANALYSIS, 1)[1].strip("\n")
    out += [ANALYSIS, "", kept, ""] if kept else [ANALYSIS, ""]
    with open(args.out, "w") as f:
        f.write("\n".join(out))
    print("\n".join(out))


if __name__ == "__main__":
    main()
