#!/usr/bin/env python3
"""Measures the daemon beside the relay and its neighbours and writes the page about it.

Run by scripts/bench, and with --quick by ctest: then everything runs once and briefly, the figures
are not judged, and programs that are not installed are left out."""

import argparse
import concurrent.futures
import json
import os
import pathlib
import re
import resource
import shutil
import subprocess
import sys
import tempfile
import time

import page

SOURCE = pathlib.Path(__file__).resolve().parent.parent
LINE_RATE = 11520  # bytes a second that 115,200 bit/s carry
FIXED_PAUSES_MS = 2012  # the reset pulse, and the application's time to start behind it
CLIENTS = (1, 8, 64, 256, 512)  # each with 10 samples a frame
SAMPLES = (1, 100, 240)  # each with 8 clients
LATENCY_CLIENTS = (1, 64)


class Plan:
    """How much of everything; --quick only proves that it runs."""

    def __init__(self, quick):
        self.quick = quick
        self.clients = (1, 8) if quick else CLIENTS
        self.samples = (1,) if quick else SAMPLES
        # What is measured by turns is measured in many short rounds: most of what disturbs one is
        # over before the next.
        self.cost_rounds = 1 if quick else 61
        self.deliveries = 2_000 if quick else 50_000  # to a round
        self.rounds = 1 if quick else 7
        self.latency_frames = 20 if quick else 800
        self.requests = 10 if quick else 200
        self.hold_s = 0.2 if quick else 11  # the first one is the beginning
        self.soak_rounds = 2 if quick else 11  # the first one is the beginning
        self.soak_frames = 5 if quick else 4167  # of 240 samples: a million events to a round
        self.full_line_frames = 20 if quick else 500
        self.updates = 0 if quick else 3
        self.codec = ("0.01", "2") if quick else ("0.2", "31")


class Bench:
    def __init__(self, bin_dir, plan):
        self.bin = bin_dir
        self.plan = plan
        self.neighbours = [name for name in ("ser2net", "gpsd") if which(name)]
        self.startups_ms = []

    def load(self, programs, rounds, clients=(1,), samples=(1,), **options):
        """{(clients, samples): {program: [figures of a round]}}, all of them measured by turns."""
        command = [self.bin / "shd_load", "--rounds", str(rounds), "--clients", *map(str, clients),
                   "--samples", *map(str, samples)]
        for name in ("shd", "relay", "mcusim"):
            command += [f"--{name}", self.bin / ("shd_relay" if name == "relay" else name)]
        for name, value in options.items():
            command += ["--" + name.replace("_", "-"), str(value)]
        # A local socket's path is short, so its directory is not the build's.
        with tempfile.TemporaryDirectory(prefix="shd-bench-", dir="/tmp") as directory:
            command += ["--directory", directory, "--programs", *programs]
            run = subprocess.run(command, stdout=subprocess.PIPE, timeout=600, check=True, text=True)
        results = {}
        for line in run.stdout.splitlines():
            figures = json.loads(line)
            rounds_of = results.setdefault((figures["clients"], figures["samples"]), {})
            rounds_of.setdefault(figures["program"], []).append(figures)
            if figures["round"] == 0 and figures["startup_ns"]:
                self.startups_ms.append(figures["startup_ns"] / 1e6)
        return results

    def load_one(self, *arguments, **options):
        [rounds_of] = self.load(*arguments, **options).values()
        return rounds_of

    def codec(self):
        seconds, repetitions = self.plan.codec
        command = [self.bin / "frame_codec_bench", "--benchmark_format=json",
                   "--benchmark_enable_random_interleaving=true",
                   "--benchmark_min_time=" + seconds, "--benchmark_repetitions=" + repetitions]
        if not command[0].exists():
            return {("codec",): None}
        output = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=True)
        times = {}
        for row in json.loads(output.stdout)["benchmarks"]:
            if row["run_type"] == "iteration":
                times.setdefault(row["name"].split("/")[0], []).append(row["cpu_time"])
        return {("codec",): times}

    def cost(self, clients, samples):
        results = self.load(["shd", "relay", *self.neighbours], self.plan.cost_rounds, clients, samples,
                            deliveries=self.plan.deliveries)
        return {("cost", *key): rounds_of for key, rounds_of in results.items()}

    def latency(self):
        clients = [count for count in LATENCY_CLIENTS if count in self.plan.clients]
        results = self.load(["shd", "relay", *self.neighbours], self.plan.rounds, clients,
                            frames=self.plan.latency_frames, line_rate=LINE_RATE)
        return {("latency", count): rounds_of for (count, _), rounds_of in results.items()}

    def control(self, baud):
        return {("control", baud): self.load_one(["shd", "relay"], self.plan.rounds, baud=baud,
                                                 requests=self.plan.requests)}

    def full_line(self):
        return {("full_line",): self.load_one(["shd", "relay", "relay256"], self.plan.rounds,
                                              samples=[10], frames=self.plan.full_line_frames,
                                              line_rate=LINE_RATE)}

    def idle(self):
        clients = min(64, max(self.plan.clients))
        return {("idle",): self.load_one(["shd", "relay", *self.neighbours], 1, [clients],
                                         hold=self.plan.hold_s)}

    def soak(self):
        return {("soak",): self.load_one(["shd"], self.plan.soak_rounds, samples=[240],
                                         frames=self.plan.soak_frames)}

    def update(self, number):
        """One update: (ms, the line's minimum in ms, stm32flash's ms)."""
        script = SOURCE / "tests/integration/update_timing.sh"
        output = subprocess.run([script, self.bin, "200"], stdout=subprocess.PIPE, check=True, text=True)
        shd = re.search(r"shd: (\d+) ms; .* need (\d+) ms", output.stdout)
        other = re.search(r"stm32flash: (\d+) ms", output.stdout)
        return {("update", number): (int(shd[1]), int(shd[2]), int(other[1]))}

    def run(self):
        jobs = [(self.cost, self.plan.clients, (10,)), (self.cost, (8,), self.plan.samples),
                (self.latency,), (self.control, 115200), (self.control, 0), (self.codec,),
                (self.full_line,), (self.idle,), (self.soak,)]
        jobs += [(self.update, number) for number in range(self.plan.updates)]

        def measure(job):
            function, *arguments = job
            if not self.plan.quick:
                print(time.strftime("%H:%M:%S"), function.__name__, *arguments, flush=True)
            return function(*arguments)

        results = {}
        # What measures has the machine for itself.
        with concurrent.futures.ThreadPoolExecutor(8 if self.plan.quick else 1) as pool:
            for measured in pool.map(measure, jobs):
                results |= measured
        results[("startups_ms",)] = self.startups_ms
        return results


def which(program):
    return shutil.which(program, path=os.environ.get("PATH", "") + ":/usr/sbin:/sbin")


class Others:
    """What processes that are not ours take of the machine, from its making on."""

    def __init__(self):
        self.busy_s, self.all_s, self.own_s = self.look()

    @staticmethod
    def look():
        ticks = os.sysconf("SC_CLK_TCK")
        fields = pathlib.Path("/proc/stat").read_text().split("\n", 1)[0].split()[1:9]
        times = [int(field) / ticks for field in fields]
        own = [resource.getrusage(who) for who in (resource.RUSAGE_SELF, resource.RUSAGE_CHILDREN)]
        idle = times[3] + times[4]
        return sum(times) - idle, sum(times), sum(use.ru_utime + use.ru_stime for use in own)

    def share(self):
        busy_s, all_s, own_s = self.look()
        return (busy_s - self.busy_s - (own_s - self.own_s)) / (all_s - self.all_s)


def machine():
    def package(name):
        query = ["dpkg-query", "-W", "-f", "${Version}", name]
        return subprocess.run(query, capture_output=True, text=True).stdout or "not installed"

    def output(*command):
        return subprocess.run(command, capture_output=True, text=True, cwd=SOURCE).stdout.strip()

    model = re.search(r"model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text())
    return {
        "processor": model[1] if model else os.uname().machine,
        "cores": os.cpu_count(),
        "kernel": f"{os.uname().sysname} {os.uname().release} {os.uname().machine}",
        "day": time.strftime("%Y-%m-%d"),
        "commit": output("git", "rev-parse", "--short", "HEAD"),
        "packages": {name: package(name) for name in ("g++", "gpsd", "ser2net", "stm32flash")},
    }


def main():
    parser = argparse.ArgumentParser(description="measure, and write the page")
    parser.add_argument("--bin", type=pathlib.Path, required=True, help="the programs' directory")
    parser.add_argument("--output", type=pathlib.Path, required=True, help="the pages' directory")
    parser.add_argument("--quick", action="store_true", help="run everything briefly")
    options = parser.parse_args()
    os.environ["PATH"] = os.environ.get("PATH", "") + ":/usr/sbin:/sbin"
    facts = machine()
    bench = Bench(options.bin.resolve(), Plan(options.quick))
    started = time.monotonic()
    others = Others()
    results = bench.run()
    facts["others"] = max(0, others.share())
    facts["minutes"] = (time.monotonic() - started) / 60
    options.output.mkdir(parents=True, exist_ok=True)
    (options.bin / "performance.json").write_text(  # what the page was made of
        json.dumps({" ".join(map(str, key)): value for key, value in results.items()}))
    rows = page.write(results, facts, FIXED_PAUSES_MS, options.output)
    insane = [row.goal for row in rows if not row.is_sane()]
    if insane:
        sys.exit("bench: not possible: " + "; ".join(insane))


if __name__ == "__main__":
    main()
