#!/usr/bin/env python3
"""Runs the benchmarks that were built and prints what they say beside their goals.

report.py BUILD_DIRECTORY [--short]: writes table.md and chart.svg there; exits with 1 when a goal is missed.
The short form only shows that everything runs: it repeats nothing and judges nothing.
"""
import json
import os
import statistics
import subprocess
import sys

BUILD = os.path.abspath(sys.argv[1])
SHORT = "--short" in sys.argv[2:]

# title, what is measured, its floor, goal for the ratio of the times
RATIO_ROWS = [
    ("buffer taken and given back, exempt caller", "slab/exempt", "slab/floor", 1.3),
    ("the same, any other caller", "slab/runtime", "slab/floor", 1.3),
    ("the same, two threads at once", "slab contended/runtime", "slab contended/floor", 1.2),
    ("message queued and taken out", "queue/runtime", "queue/floor", 1.3),
    ("message to another module and its answer", "wakeup/runtime", "wakeup/floor", 1.6),
    ("datagram of 46 bytes received", "receive/runtime/46", "receive/floor/46", 1 / 0.7),
    ("datagram of 1 KiB received", "receive/runtime/1024", "receive/floor/1024", 1 / 0.7),
    ("log line, tmpfs", "log/runtime/disk:0", "log/floor/disk:0", 1.25),
    ("log line, disk", "log/runtime/disk:1", "log/floor/disk:1", 1.25),
    ("scan of 64 timers, none due", "timers/runtime", "timers/floor", 1.5),
    ("largest command tree built and released", "tree/runtime", "tree/floor", 4),
    ("request to another process, default pace", "request/runtime", "request/floor", 1.05),
    ("request to another process, prompt pace", "prompt request/runtime", "prompt request/floor", 1.5),
]
# title, what is measured, its counter (None: the time itself), upper limit in microseconds
LIMIT_ROWS = [
    ("line of the largest tree matched and completed", "line/runtime", None, 50),
    ("request at the default pace, 99th percentile", "request/runtime", "p99_us", 52000),
    ("request at the prompt pace while 50000 datagrams a second arrive, 99th percentile",
     "request under load/runtime", "p99_us", 20000),
]
PEERS = ["ZeroMQ", "nng", "nanomsg", "sd-bus", "spdlog"]


def run_benchmark(name, *arguments):
    """Runs one program; returns benchmark name -> list of runs."""
    out = os.path.join(BUILD, name + "-" + "-".join(arguments) + ".json")
    how = ["--benchmark_min_time=0.01"] if SHORT else [
        "--benchmark_min_time=0.2", "--benchmark_repetitions=7", "--benchmark_enable_random_interleaving=true"]
    subprocess.run([os.path.join(BUILD, "bench", name), *arguments, *how, "--benchmark_out=" + out,
                    "--benchmark_out_format=json"], check=True, stdout=subprocess.DEVNULL,
                   stderr=subprocess.DEVNULL, timeout=900)
    found = {}
    with open(out, encoding="utf-8") as file:
        for entry in json.load(file)["benchmarks"]:
            if entry["run_type"] != "iteration":
                continue
            key = entry["name"].replace("/manual_time", "").split("/iterations:")[0]
            if entry.get("error_occurred"):
                sys.exit(f"{key}: {entry['error_message']}")
            found.setdefault(key, []).append(entry)
    return found


def times_us(runs):
    """The mean time of each repetition: a request's times lie a polling step apart, which makes medians jump."""
    return [1e6 / run["items_per_second"] for run in runs]


def span(values, digits=2):
    return f"{statistics.median(values):.{digits}f} [{min(values):.{digits}f} .. {max(values):.{digits}f}]"


class Report:
    def __init__(self):
        self.lines = []
        self.missed = []
        self.bars = []

    def say(self, line=""):
        print(line, flush=True)
        self.lines.append(line)

    def verdict(self, title, holds):
        if SHORT:
            return ""
        if not holds:
            self.missed.append(title)
        return "holds" if holds else "MISSED"

    def ratios(self, runs):
        self.say("| path | floor, us | runtime, us | ratio | goal | |")
        self.say("|---|---|---|---|---|---|")
        for title, measured, floor, goal in RATIO_ROWS:
            base = statistics.median(times_us(runs[floor]))
            values = [value / base for value in times_us(runs[measured])]
            ratio = statistics.median(values)
            self.bars.append((title, ratio, goal))
            self.say(f"| {title} | {span(times_us(runs[floor]), 3)} | {span(times_us(runs[measured]), 3)} "
                     f"| {span(values)} | {goal:.2f} | {self.verdict(title, ratio <= goal)} |")
        self.say()

    def limits(self, runs):
        self.say("| limit | us | goal | |")
        self.say("|---|---|---|---|")
        for title, measured, counter, goal in LIMIT_ROWS:
            values = [run[counter] for run in runs[measured]] if counter else times_us(runs[measured])
            self.say(f"| {title} | {span(values)} | {goal} "
                     f"| {self.verdict(title, statistics.median(values) < goal)} |")
        self.say()

    def peers(self, runs):
        self.say("| beside others | us | ratio to the floor | |")
        self.say("|---|---|---|---|")
        for group in ("wakeup", "prompt request", "log"):
            for suffix in ("/disk:0", "/disk:1") if group == "log" else ("",):
                floor = statistics.median(times_us(runs[f"{group}/floor{suffix}"]))
                own = statistics.median(times_us(runs[f"{group}/runtime{suffix}"]))
                self.say(f"| {group}{suffix}: runtime | {own:.2f} | {own / floor:.2f} | |")
                for peer in PEERS:
                    key = f"{group}/{peer}{suffix}"
                    if key not in runs:
                        continue
                    its = statistics.median(times_us(runs[key]))
                    judged = self.verdict(key, own < its) if group == "prompt request" else ""
                    self.say(f"| {group}{suffix}: {peer} | {its:.2f} | {its / floor:.2f} | {judged} |")
        self.say()

    def processes(self):
        told = subprocess.run([os.path.join(BUILD, "bench", "bench_processes"), "2" if SHORT else "60"], check=True,
                              stdout=subprocess.PIPE, timeout=300).stdout
        figures = json.loads(told)
        start = figures.pop("start_ms")
        self.say(f"From the console's start to its prompt: {start[0]:.0f} ms [{start[1]:.0f} .. {start[2]:.0f}]")
        self.say()
        self.say("| idle | resident, KiB | processor time, ms a second | |")
        self.say("|---|---|---|---|")
        limit = figures["idle process, default pace"]["cpu_ms_per_s"] * 1.15  # two equal processes differ as much
        for name, figure in figures.items():
            judged = ""
            if name == "idle process, prompt pace":
                judged = self.verdict(name, figure["cpu_ms_per_s"] <= limit)
            self.say(f"| {name} | {figure['kib']} | {figure['cpu_ms_per_s']:.2f} | {judged} |")
        self.say()

    def sizes(self):
        for name in ("console/ks", "examples/mware"):
            program = os.path.join(BUILD, "small", name)
            if os.path.exists(program):
                subprocess.run(["strip", "-o", program + ".stripped", program], check=True)
                self.say(f"{name}, -Os and stripped: {os.path.getsize(program + '.stripped')} bytes")
        self.say()

    def chart(self):
        data = os.path.join(BUILD, "chart.dat")
        with open(data, "w", encoding="utf-8") as file:
            for place, (title, ratio, goal) in enumerate(reversed(self.bars)):
                file.write(f'{place} {ratio:.3f} {goal:.3f} "{title}"\n')
        svg = os.path.join(BUILD, "chart.svg")
        script = f"""
set terminal svg size 900,460 font "sans,12" background "white"
set output "{svg}"
set title "Time as a multiple of the floor measured in the same run"
set xrange [0:4.2]
set yrange [-0.7:{len(self.bars)}]
set grid xtics
set lmargin 48
set key top right
plot "{data}" using (0.5*$2):1:(0.5*$2):(0.33):ytic(4) with boxxyerror fill solid 0.7 linecolor rgb "#4477aa" \\
title "runtime", "" using 3:1 with points pointtype 9 linecolor rgb "#cc3311" title "goal"
"""
        subprocess.run(["gnuplot"], input=script.encode(), check=True)


def main():
    runs = {}
    for arguments in (["bench_runtime"], ["bench_request", "prompt"], ["bench_request", "default"]):
        runs.update(run_benchmark(*arguments))
    report = Report()
    report.ratios(runs)
    report.limits(runs)
    report.peers(runs)
    report.processes()
    report.sizes()
    with open(os.path.join(BUILD, "table.md"), "w", encoding="utf-8") as file:
        file.write("\n".join(report.lines) + "\n")
    report.chart()
    if report.missed:
        sys.exit("missed: " + "; ".join(report.missed))


main()
