"""Plays recorded sessions to the real daemon, side by side, and compares what it gives with what it
gave then. Run by ctest and by hand: play.py PROGRAMS [SESSION...]."""

import concurrent.futures
import itertools
import json
import os
import pathlib
import signal
import sys
import threading
import time

import bench

SIDE_BY_SIDE = 16
# Of the daemon's limits only that of its first request is short, 200 ms; the others are seconds.
FIRST_WORD_SEC = 10  # at most until the log says what became of it, either way
FIRST_WORD = " update_mcu:"
FIRST_TIMEOUT = "mcu serial select error or timeout"
STARVED_NS = 100_000_000  # without a processor, beside what the terminal itself may wait
STARTING = threading.Semaphore(os.cpu_count())
PATIENCE_SEC = float(os.environ.get("PATIENCE", 60))  # beyond the time that a session took
REPLAYED_OPTIONS = ("--firmware-version", "--seed")


class Session:
    """A session file: its head, and its steps up to the end."""

    def __init__(self, path):
        self.path, self.head, self.steps = path, {"mcusim": "", "gap": "0.1"}, []
        self.took_sec = 0
        for line in path.read_text().split("\n"):
            if line.startswith("#= "):
                name, text = line[3:].split(" ", 1)
                self.head[name] = text
            elif line.startswith("#: "):
                self.steps.append(tuple(line[3:].partition(" ")[::2]))
            elif " < " in line or line.endswith("? go"):
                self.steps.append(("part" if " < " in line else "go", ""))
            if line[:1].isdigit():
                self.took_sec = float(line.split()[0])

    def expected(self, kind):
        return [text for name, text in self.steps if name == kind]


class Starved(Exception):
    """The first reply was late because daemon or simulator had no processor."""


class Play(bench.Bench):
    def __init__(self, programs, session):
        super().__init__(programs)
        self.session, self.made_ns = session, [0]
        self.log_texts = [text.split(" ", 1)[1] for text in session.expected("log")]
        self.deadline = time.monotonic() + session.took_sec + PATIENCE_SEC

    def settle(self, wanted, parts):
        """Waits for as many outputs of each kind as were recorded up to here, and for the MCU."""
        while True:
            self.look()
            there = {kind: len(self.got[kind]) for kind in bench.OUTPUTS}
            done = all(there[kind] >= wanted[kind] for kind in bench.OUTPUTS)
            if done and parts == 0:
                return
            stats = json.loads(self.tell_mcu("stats")[3:])
            played = stats["parts"] >= parts and (parts < self.parts or stats["complete"])
            if done and played and self.idle():
                return
            if time.monotonic() > self.deadline:
                missing = [f"{wanted[kind] - there[kind]} of kind {kind}"
                           for kind in bench.OUTPUTS if there[kind] < wanted[kind]]
                raise bench.Failure(f"waited in vain for {', '.join(missing) or 'the daemon'}")
            time.sleep(bench.GLANCE_SEC)

    def begin(self):
        """Puts the files there and starts the simulator; returns the steps behind."""
        (self.root / "dev/socket").mkdir(parents=True)
        steps = list(self.session.steps)
        while steps[0][0] == "put":
            path, _, text = steps.pop(0)[1].partition(" ")
            self.put(path, bench.content_of(text))
        words = self.session.head["mcusim"].split()
        options = [f"{name}={value}" for name, value in zip(words, words[1:])
                   if name in REPLAYED_OPTIONS]
        self.start_mcu(["--replay", self.session.path, "--replay-gap", self.session.head["gap"],
                        *options])
        self.parts = len(self.session.expected("part"))
        return steps

    def run(self):
        steps = self.begin()
        wanted, parts = dict.fromkeys(bench.OUTPUTS, 0), 0
        for kind, text in steps:
            if kind in wanted:
                wanted[kind] += 1
            elif kind == "part":
                parts += 1
            elif kind != "file":
                self.settle(wanted, 0 if kind == "go" else parts)
                self.act(kind, text)
        self.settle(wanted, self.parts)

    def act(self, kind, text):
        first, _, rest = text.partition(" ")
        if kind == "go":
            self.tell_mcu("go")
        elif kind == "put":
            self.put(first, bench.content_of(rest))
        elif kind == "remove":
            self.remove(first)
        elif kind == "kill":
            self.kill()
        elif kind == "start":
            with STARTING:
                self.start()
                before, until = len(self.got["log"]), time.monotonic() + FIRST_WORD_SEC
                said = ""
                while not said and time.monotonic() < until:
                    time.sleep(bench.GLANCE_SEC)
                    self.look()
                    said = first_word(text for _, text in self.got["log"][before:])
            wanted = first_word(self.log_texts[before:])
            late = FIRST_TIMEOUT in said and said != wanted
            if late and self.starved_ns() >= STARVED_NS:
                raise Starved
        elif kind in ("connect", "close"):
            getattr(self, kind)(int(first))
        elif kind == "send":
            self.made_ns.append(bench.now_ns())
            self.clients[int(first)][0].sendall(bytes.fromhex(rest))

    def starved_ns(self):
        """For how long the two processes have waited for a processor since they began."""
        return sum(int(pathlib.Path(f"/proc/{process.pid}/schedstat").read_text().split()[1])
                   for process in (self.mcu, self.daemon) if process)

    def finish(self):
        """Ends all, and gives what differs as lines."""
        try:
            self.tell_mcu("quit")
        except OSError:
            pass  # it has ended, and says below why
        self.mcu.wait()
        self.kill()
        complaints = (self.directory / "mcusim.log").read_text().split("\n")
        different = [line for line in complaints if line]
        different += differences("reply", self.session.expected("reply"), self.got["reply"])
        different += differences("exit", self.session.expected("exit"), self.got["exit"])
        different += differences("file", self.session.expected("file"), self.files())
        different += self.log_differences()
        return different + self.event_differences()

    def event_differences(self):
        wanted, asked, requests = [], [], 0
        for kind, text in self.session.steps:
            requests += kind == "send"
            if kind == "event":
                wanted.append(text)
                asked.append(requests)
        stamps, got = bench.Stamps(), []
        for i, event in enumerate(self.got["event"]):
            expected = wanted[i].split(" ") if i < len(wanted) else [""]
            relation = stamps.relation(event, expected[0])
            if expected[1:2] == ["now"]:
                fresh = event.stamp >= self.made_ns[min(asked[i], len(self.made_ns) - 1)]
                relation += " now" if fresh else " old"
            if event.stamp > event.seen_ns:
                relation += " future"
            got.append(f"{relation} {event.text}")
        return differences("event", wanted, got)

    def log_differences(self):
        wanted = threads(text.split(" ", 1) for text in self.session.expected("log"))
        got = threads(self.got["log"])
        different = []
        for name in [*wanted, *(name for name in got if name not in wanted)]:
            different += differences(f"log of the thread that begins with '{name[0]}'",
                                     wanted.get(name, []), got.get(name, []))
        return different


def first_word(texts):
    """What became of a daemon's first request; before that it tells of the files that it has read."""
    return next((text for text in texts if FIRST_WORD in text), "")


def threads(lines):
    """The lines of each thread, by its first line and the count of such threads before it."""
    by_thread = {}
    for thread, text in lines:
        by_thread.setdefault(thread, []).append(text)
    named = {}
    for texts in by_thread.values():
        number = next(n for n in itertools.count() if (texts[0], n) not in named)
        named[texts[0], number] = texts
    return named


def differences(kind, wanted, got):
    """The first difference, as lines."""
    for i, (w, g) in enumerate(itertools.zip_longest(wanted, got, fillvalue="(nothing)")):
        if w != g:
            return [f"{kind} {i + 1}:", f"  expected {w}", f"  got      {g}"]
    return []


def play(programs, path):
    """What differs in one session, as lines."""
    while True:
        with Play(programs, Session(path)) as session:
            problem = []
            try:
                session.run()
            except Starved:
                print(f"anew   {path.stem}: no processor for the first reply", flush=True)
                continue
            except (bench.Failure, OSError) as failure:
                problem = [str(failure)]
            return problem + session.finish()


def main():
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda *_: sys.exit(1))
    programs, *names = sys.argv[1:]
    here = pathlib.Path(__file__).parent
    paths = [pathlib.Path(n) if n.endswith(".session") else here / f"{n}.session" for n in names]
    paths = paths or sorted(here.glob("*.session"), key=lambda path: -path.stat().st_size)
    failed = 0
    with concurrent.futures.ThreadPoolExecutor(SIDE_BY_SIDE) as pool:
        began = time.monotonic()
        played = {pool.submit(play, programs, path): path for path in paths}
        for future in concurrent.futures.as_completed(played):
            different = future.result()
            failed += bool(different)
            print(f"{'FAILED' if different else 'ok    '} {time.monotonic() - began:6.1f} s "
                  f"{played[future].stem}", *different, sep="\n       ", flush=True)
    print(f"{len(paths)} sessions, {failed} failed")
    return failed > 0 or not paths


if __name__ == "__main__":
    try:
        sys.exit(main())
    except KeyboardInterrupt:
        sys.exit(130)
