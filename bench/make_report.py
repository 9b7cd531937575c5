#!/usr/bin/env python3
"""Writes docs/benchmarks.md, and the data files the charts are drawn from, out of one vantor_bench run.

Inputs: the Google Benchmark JSON (--benchmark_out, with --benchmark_report_aggregates_only so that
each benchmark has a median) and the ratio table the program wrote (--ratios_out). The ratios are
computed by the program only, so that the console and the report cannot disagree.
Called by scripts/bench.sh; standard library only.
"""

import argparse
import csv
import json
import os
import platform
import re
import statistics
import subprocess
from collections import OrderedDict

EMISSION_LIBRARIES = [  # (benchmark family, column title)
    ("emit/vantor", "vantor Signal"),
    ("emit/floor", "floor: vector under a mutex"),
    ("emit/boost_signals2", "Boost.Signals2"),
    ("emit/sigc3_unlocked", "sigc++ 3 (no lock)"),
]
SLOT_COUNTS = [1, 8, 64]
SCALE_CASES = ["updateIpPortAllowed", "isIpSecured"]
SCALE_KEYS = [10, 10000, 1000000]

GROUP_TITLES = OrderedDict([
    ("emit", "Emission, Signal<bool>::emit (argument: connected slots)"),
    ("connect_disconnect", "Connect, then disconnect"),
    ("lock", "Lock and unlock, uncontended"),
    ("board", "Board round trips, 100 other keys on the board"),
    ("contention", "Contention (time per operation over all threads)"),
    ("scale", "Scale (argument: other keys on the board and in the floor's map)"),
    ("post_drain", "Mailbox post + drain (argument: calls posted per drain)"),
    ("mailbox_allocations", None),  # counts allocations once: its figures are in the ratios, its time means nothing
])


def command_output(command):
    try:
        return subprocess.run(command, check=True, capture_output=True, text=True).stdout.strip()
    except (OSError, subprocess.CalledProcessError):
        return ""


def package_version(name):
    return command_output(["dpkg-query", "-W", "-f=${Version}", name]) or "unknown"


def cpu_model():
    try:
        with open("/proc/cpuinfo", encoding="utf-8") as cpuinfo:
            for line in cpuinfo:
                if line.startswith("model name"):
                    return line.split(":", 1)[1].strip()
    except OSError:
        pass
    return platform.processor() or "unknown"


def compiler_version(build_dir):
    compiler = "c++"
    try:
        with open(os.path.join(build_dir, "CMakeCache.txt"), encoding="utf-8") as cache:
            for line in cache:
                if line.startswith("CMAKE_CXX_COMPILER:"):
                    compiler = line.split("=", 1)[1].strip()
    except OSError:
        pass
    first_line = command_output([compiler, "--version"]).splitlines()
    return first_line[0] if first_line else compiler


def git_description():
    commit = command_output(["git", "rev-parse", "--short", "HEAD"]) or "unknown"
    branch = command_output(["git", "rev-parse", "--abbrev-ref", "HEAD"]) or "unknown"
    dirty = command_output(["git", "status", "--porcelain", "--untracked-files=no", "--", "include", "src", "bench"])
    return f"commit `{commit}` (branch `{branch}`{', with uncommitted changes to the code' if dirty else ''})"


def load_medians(results):
    """Median and coefficient of variation of the time per iteration, in ns, by run name, over every
    run of that name (rounds and repetitions); from the medians alone when only aggregates were written.
    The time is the CPU time of the benchmark's thread, or wall time for the cases that ask for real
    time, as vantor_bench counts it. Also returns how many runs a name had at most."""
    scale = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}
    samples, aggregate_medians = OrderedDict(), OrderedDict()
    for entry in results["benchmarks"]:
        if entry.get("error_occurred"):
            continue
        name = entry.get("run_name", entry["name"])
        clock = "real_time" if "/real_time" in name else "cpu_time"
        value = entry[clock] * scale[entry["time_unit"]]
        if entry.get("run_type") == "aggregate":
            if entry["aggregate_name"] == "median":
                aggregate_medians.setdefault(name, []).append(value)
        else:
            samples.setdefault(name, []).append(value)
    medians, spreads = OrderedDict(), {}
    for name in list(samples) + [name for name in aggregate_medians if name not in samples]:
        values = samples.get(name) or aggregate_medians[name]
        medians[name] = statistics.median(values)
        if name in samples and len(values) > 1:
            spreads[name] = statistics.stdev(values) / statistics.mean(values)
    runs = max([len(values) for values in samples.values()] + [1])
    return medians, spreads, runs


def load_ratios(path):
    sections = OrderedDict()
    with open(path, encoding="utf-8", newline="") as table:
        for row in csv.reader(table, delimiter="\t", quoting=csv.QUOTE_NONE):
            row += [""] * (6 - len(row))
            section, label, value, target, verdict, note = row[:6]
            sections.setdefault(section, []).append((label, value, target, verdict, note))
    return sections


def number(value):
    if value is None:
        return "NaN"
    return f"{value:.6g}"


def write_chart_data(medians, data_dir):
    with open(os.path.join(data_dir, "emission.dat"), "w", encoding="utf-8") as data:
        data.write("# slots " + " ".join(f'"{title}"' for _, title in EMISSION_LIBRARIES) + "\n")
        for slots in SLOT_COUNTS:
            data.write(f"{slots} " + " ".join(number(medians.get(f"{family}/{slots}"))
                                              for family, _ in EMISSION_LIBRARIES) + "\n")
    with open(os.path.join(data_dir, "board-keys.dat"), "w", encoding="utf-8") as data:
        data.write("# keys " + " ".join(f"{case}/vantor {case}/floor" for case in SCALE_CASES) + "\n")
        for keys in SCALE_KEYS:
            values = []
            for case in SCALE_CASES:
                values += [medians.get(f"scale/{case}/vantor/{keys}"), medians.get(f"scale/{case}/floor/{keys}")]
            data.write(f"{keys} " + " ".join(number(value) for value in values) + "\n")


def markdown_escape(text):
    return text.replace("|", "\\|").replace("<", "&lt;").replace(">", "&gt;")


def ratio_tables(sections):
    lines = []
    for section, rows in sections.items():
        lines += [f"**{markdown_escape(section)}**", "", "| Ratio | Value | Target | |", "|---|---:|---|---|"]
        for label, value, target, verdict, note in rows:
            shown_label = markdown_escape(label) + (f" <br>*{markdown_escape(note)}*" if note else "")
            shown_verdict = {"meets": "meets", "MISSES": "**misses**"}.get(verdict, "")
            shown_target = target.replace("<=", "≤").replace(">=", "≥")
            lines.append(f"| {shown_label} | {value} | {shown_target} | {shown_verdict} |")
        lines.append("")
    return lines


def time_tables(medians, spreads):
    groups = OrderedDict((group, []) for group in GROUP_TITLES)
    for name, value in medians.items():
        groups.setdefault(name.split("/", 1)[0], []).append((name, value))
    lines = []
    for group, rows in groups.items():
        if not rows or group in GROUP_TITLES and GROUP_TITLES[group] is None:
            continue
        lines += [f"**{markdown_escape(GROUP_TITLES.get(group, group))}**", "",
                  "| Benchmark | Median | Spread (CV over rounds) |", "|---|---:|---:|"]
        for name, value in rows:
            spread = spreads.get(name)
            shown_spread = f"{spread * 100:.1f} %" if spread is not None else ""
            lines.append(f"| `{name}` | {value:,.1f} ns | {shown_spread} |")
        lines.append("")
    return lines


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--json", required=True)
    parser.add_argument("--ratios", required=True)
    parser.add_argument("--build-dir", required=True)
    parser.add_argument("--data-dir", required=True, help="where the chart data files go")
    parser.add_argument("--output", required=True, help="the Markdown report")
    parser.add_argument("--emission-chart", required=True, help="file name of the chart, relative to the report")
    parser.add_argument("--keys-chart", required=True)
    parser.add_argument("--min-time", required=True)
    parser.add_argument("--seconds", required=True, help="wall time of the benchmark program")
    arguments = parser.parse_args()

    with open(arguments.json, encoding="utf-8") as source:
        results = json.load(source)
    context = results["context"]
    medians, spreads, runs = load_medians(results)
    sections = load_ratios(arguments.ratios)
    write_chart_data(medians, arguments.data_dir)

    load = ", ".join(f"{value:.2f}" for value in context.get("load_avg", []))
    build_type = context.get("library_build_type", "unknown")
    date = re.sub(r"T(\d\d:\d\d).*", r" \1 UTC", context.get("date", ""))
    report = [
        "# Benchmarks",
        "",
        f"Made by `bash scripts/bench.sh` on {date} from {git_description()}. Rerun the script to",
        "refresh this page and its charts; do not edit it by hand.",
        "",
        "## Machine and run",
        "",
        "| | |",
        "|---|---|",
        f"| CPU | {markdown_escape(cpu_model())}, {context.get('num_cpus', '?')} cores at "
        f"{context.get('mhz_per_cpu', '?')} MHz as reported, shared with other users |",
        f"| Load average when the run began | {load} |",
        f"| Compiler | {markdown_escape(compiler_version(arguments.build_dir))}, `release` preset (-O3, NDEBUG) |",
        f"| Libraries | Google Benchmark {package_version('libbenchmark-dev')} (Debian), "
        f"Boost {package_version('libboost-dev')}, libsigc++ {package_version('libsigc++-3.0-dev')} |",
        f"| Run | {runs} rounds of at least {arguments.min_time} s per benchmark; medians of the time "
        f"per iteration; {arguments.seconds} s in all |",
        "",
        "## How it measures",
        "",
        "- One process runs every benchmark, so each figure has its baseline measured beside it on the same "
        "machine state. The ratios matter more than the absolute times on this shared machine.",
        "- **Rounds**: the benchmarks compared in a ratio form a group (say a round trip and its floor), and "
        "the group is measured in rounds: each member once, in turn, then again, so that both sides of a "
        "ratio are sampled across the same stretch of time. The machine's speed changes from round to round "
        "(by up to 1.8x in some runs, in CPU time too) but alike for both sides within a round, so each "
        "ratio is the median of its per-round ratios. The times below are medians over the rounds, and the "
        "spread is their coefficient of variation, which includes those changes. (Google Benchmark's own "
        "repetitions run back to back, so a burst of load from another user could fall on one side only; "
        "two runs made that way disagreed by up to 1.7x on the same ratio.)",
        "- **Time**: single-threaded cases count the CPU time of their thread, since on this shared machine "
        "the scheduler now and then runs another process instead, which inflates wall time but not CPU time. "
        "The two-thread cases count wall time, since a thread that waits for a lock sleeps.",
        "- As a host runs: one extra, idle thread lives throughout (glibc skips the locked instructions of its "
        "mutexes and of malloc while a process has one thread), and every board case keeps about 100 other "
        "keys on the board (libstdc++'s `unordered_map::find` compares keys one by one, without hashing, "
        "while a map holds 20 elements or fewer).",
        "- **Floor of emission**: a `std::vector<std::function<void(bool)>>` walked under a `std::mutex`. "
        "Every library calls the same one-pointer callback.",
        "- **Floor of a board round trip**: build the key afresh as the board's key reads "
        "(`CyberSecurity:IP:198.51.100.4:17161`), lock a `std::mutex`, look it up once in a "
        "`std::unordered_map<std::string, std::function<...>>`, copy the function, unlock and call the copy. "
        "For `updateSecured` and `updateAboutNewCreds` that call makes as many callback calls as the signal "
        "has callbacks; `updateIpAllPortsAllowed` (the address, then 7 ports) is compared with 8 floor round "
        "trips.",
        "- **Scale**: the other keys are distinct address keys published through `updateIpPortAllowed`; "
        "the floor's map holds the same keys. All sizes form one group, so each round grows the board from "
        "10 to 1 000 000 keys and the next shrinks it back. A scale case first withdraws the pairs the other cases left, so "
        "besides the other keys a map holds only the case's own keys and a few of the contract's: at 10 other "
        "keys both maps stay at or under libstdc++'s 20-element threshold and are searched one key at a "
        "time. Each round trip hits the same key again and again, so "
        "its path stays in cache: the figures show what the size of the map costs a warm key (longer bucket "
        "walks, a larger heap), not cache misses on keys untouched for a while.",
        "- **Heap bytes per key**: a replaced global `operator new`/`delete` in the benchmark counts the net "
        "`malloc_usable_size` of what the first fill from 10 000 to 1 000 000 keys leaves allocated, divided "
        "by the keys it added; the hash tables' bucket arrays (grown by that fill) are included.",
        "- **Contention**: the time per operation over both threads (wall time divided by all operations "
        "done), against the same case on one thread: 0.5x would be perfect scaling, 1x fully serialised, "
        "above 1x the two threads slow each other down. With two cores shared by other users, a thread can "
        "lose its core while it holds the lock, and the other then waits: these figures move with the "
        "machine's load more than any other.",
        "- **sigc++ 3 is not thread-safe**: its `sigc::signal` takes no lock, so it shows what a signal "
        "costs without one; it is not a contender for a multi-threaded host.",
        "- **Floor of a mailbox**: a `std::deque<std::function<void()>>` behind a `std::mutex`; a post "
        "locks and appends, a drain swaps the whole queue out under the lock into a deque it keeps, runs "
        "the calls and clears it (so in the steady state it allocates nothing for a call that fits "
        "`std::function`'s small buffer). Each iteration posts a batch of one-pointer calls and drains "
        "them on the same thread. **Allocations per call** are counted by the replaced `operator new` "
        "over 1024 calls posted in batches of 64, each drained before the next, after two batches to "
        "warm up.",
        "",
        "## Ratios",
        "",
        "Targets: board round trips at most 1.3x their floor; emission at most 1.1x its floor and at least 5x "
        "faster than Boost.Signals2; the scale round trips within 1.5x of each other across sizes and within "
        "1.3x of the floor map at each size; a mailbox's post + drain at most 1.5x its floor, with at most "
        "one allocation per call. Ratios without a target are reported as they are.",
        "",
    ]
    report += ratio_tables(sections)
    report += [
        "## Charts",
        "",
        f"![Emission cost against connected slots, for each signal library]({arguments.emission_chart})",
        "",
        f"![Board round-trip cost against the number of other keys, board and floor]({arguments.keys_chart})",
        "",
        "## Median times",
        "",
    ]
    report += time_tables(medians, spreads)
    report += [
        "## About the DEBUG warning",
        "",
        "Every run prints `***WARNING*** Library was built as DEBUG. Timings may be affected.` "
        f"(the JSON context says `library_build_type: {build_type}`). It is about Debian's Google Benchmark "
        "library, which Debian compiles without `NDEBUG`; it adds assertion checks to the harness's own code "
        "between batches of iterations. The timed loops are inlined into `vantor_bench`, which, like "
        "the library, is built by the `release` preset with optimisation and `NDEBUG`. The program says so "
        "under the warning.",
        "",
    ]
    with open(arguments.output, "w", encoding="utf-8") as output:
        output.write("\n".join(report))


if __name__ == "__main__":
    main()
