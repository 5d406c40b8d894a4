"""Makes a session of what was kept of a hub elsewhere: today's daemon is asked again what was asked
then, while mcusim plays the line. Run by record.py for scripts/session --line."""

import collections
import json
import pathlib
import time

import bench
import play
from brought import GAME_ROTATION, ROTATION, Line, actions_of, read_events, read_log

PATIENCE_SEC = 45  # for a line of the log, the longest silence being that of an erase
ENDING_SEC = 1  # of a daemon that has said its last
PAUSE_SEC = 0.06  # in which a daemon does what a report asks for


def draft(line, actions):
    """The steps of the session to be, without what the daemon gives: (kind, text, log lines)."""
    steps, waiting, connected, before = [], list(actions), False, None
    for i in range(len(line.steps) + 1):
        while waiting and waiting[0][0] == i:
            _, logs, kind, text = waiting.pop(0)
            if kind == "send" and not connected:
                steps.append(("connect", "1", logs))
                connected = True
            connected = connected and kind != "kill"
            steps.append((kind, f"1 {text}" if kind == "send" else text, logs))
        if i == len(line.steps):
            break
        step = line.steps[i]
        pause = step.at - before.at if before else 0
        # What a reply has changed, or a pause has left time for, is done before the next report.
        if step.reports and before and (not before.reports or pause > PAUSE_SEC):
            steps.append(("go", f"{before.at:.6f} ? go", 0))
        steps.append(("line", step.text(), 0))
        before = step
    return steps


class Capture(play.Play):
    """Plays the line and asks what was asked, and notes what the daemon gives."""

    def __init__(self, programs, path, lines, log):
        super().__init__(programs, play.Session(path))
        self.log_texts = [entry.text for entry in log]
        self.lines, self.notes, self.new = lines, bench.Notes(), []
        self.patient = True

    def look(self):
        new = super().look()
        self.new += new
        return new

    def rest(self, parts, logs):
        """Until the MCU has said all that it had said, and the log has come as far."""
        since = None
        while True:
            self.look()
            stats = json.loads(self.tell_mcu("stats")[3:])
            played = stats["parts"] >= parts and (parts < self.parts or stats["complete"])
            now = time.monotonic()
            since = (since or now) if played and self.idle() else None
            if since and (len(self.got["log"]) >= logs or not self.patient):
                break
            if since and now - since > PATIENCE_SEC:
                self.patient = False  # it is another daemon: its log says nothing about the time
            if now > self.deadline:
                raise bench.Failure(f"waited in vain for the daemon to do what it did then; "
                                    f"{stats['parts']} of {self.parts} parts were played\n"
                                    + (self.directory / "mcusim.log").read_text())
            time.sleep(bench.GLANCE_SEC)
        self.note()

    def note(self):
        """What came up to here."""
        self.look()
        self.lines += [self.notes.text(kind, item) for kind, item in self.new]
        self.new = []

    def ended(self):
        """Whether it ends by itself, as after a failed update."""
        deadline = time.monotonic() + ENDING_SEC
        while self.daemon and time.monotonic() < deadline:
            self.look()
            time.sleep(bench.GLANCE_SEC)
        self.note()
        return self.daemon is None

    def capture(self, steps, logs):
        self.begin()
        parts = 0
        for kind, text, wanted in steps:
            if kind == "line":
                parts += " < " in text
                self.lines.append(text)
                continue
            self.rest(parts, wanted)
            if kind == "kill" and self.ended():
                continue
            self.lines.append(text if kind == "go" else f"#: {kind} {text}".rstrip())
            self.act(kind, text)
        self.rest(self.parts, logs)
        self.lines.append("#: end")
        self.kill()
        self.lines += [f"#: file {text}" for text in self.files()]


def contains(whole, part):
    """Whether part stands in it without a gap."""
    return any(whole[begin:begin + len(part)] == part for begin in range(len(whole)))


def compared(log, events, capture):
    """How what the daemon gives today stands to what was brought, as lines."""
    wanted = play.threads(((e.process, e.thread), e.text) for e in log)
    got = play.threads(capture.got["log"])
    said = [text for name in wanted for text in
            play.differences(f"log of the thread that begins with '{name[0]}'", wanted[name],
                             got.get(name, []))]
    said = said or [f"all {len(log)} lines of the log came again"]
    if events:
        there = collections.defaultdict(list)
        for event in capture.got["event"]:
            if event.flushed is None:
                there[event.sensor[0]].append(event.data.rstrip(b"\0"))
            else:
                there[event.flushed | 0x40].append(b"")
        brought = collections.defaultdict(list)
        for name, data, gap in events:
            brought[name, gap].append(data)
        missing = dict.fromkeys(name for (name, _), data in brought.items()
                                if not contains(there[name], data))
        said.append(f"all {len(events)} events came again" if not missing else
                    "not all events came again, or others between them: of handle " +
                    ", ".join(f"{n & 0x3F} (flushed)" if n & 0x40 else str(n) for n in missing))
    return said


def make(programs, path, fields, line_path, log_path, events_path, tree):
    """Writes the session and returns how it stands to what was brought, as lines."""
    line = Line(line_path)
    log = read_log(log_path, line)
    events = read_events(events_path) if events_path else []
    seen = {handle for handle, _, _ in events}
    rotation = GAME_ROTATION if GAME_ROTATION in seen and ROTATION not in seen else ROTATION
    steps = draft(line, actions_of(line, log, rotation))
    puts = [f"#: put {file.relative_to(tree)} {bench.text_of(file.read_bytes())}"
            for file in sorted(pathlib.Path(tree).rglob("*")) if file.is_file()] if tree else []
    if line.version and not fields["mcusim"]:
        fields["mcusim"] = f"--firmware-version {line.version}"
    head = bench.head_of(fields)
    # A first draft, which is what the simulator plays.
    texts = [text if kind in ("go", "line") else f"#: {kind} {text}".rstrip()
             for kind, text, _ in steps]
    path.write_text("\n".join(head + puts + texts) + "\n")
    while True:
        lines = head + puts
        with Capture(programs, path, lines, log) as capture:
            try:
                capture.capture(steps, len(log))
            except play.Starved:
                continue
            said = compared(log, events, capture)
        path.write_text("\n".join(lines) + "\n")
        return said
