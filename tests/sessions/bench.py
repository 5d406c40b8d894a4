"""A daemon in a private directory tree beside mcusim, seen as a session sees it: what it logs, sends
and replies, in the texts of a session file. Used by play.py and record.py."""

import fcntl
import os
import pathlib
import re
import select
import shutil
import socket
import struct
import subprocess
import tempfile
import time

REPLY_BYTES = 272
EVENT = struct.Struct("<iiiiq64sI12s")
LOG_LINE = re.compile(r"\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} +\d+ +(\d+) (.*)")
TIME_TEXT = re.compile(rb"time:\d\d-\d\d \d\d:\d\d:\d\d ")
GLANCE_SEC = 0.01  # between two looks at files
MS = 1_000_000  # in ns
FRESH_NS = 4 * MS  # an event of this age is stamped with its arrival
ROUNDED_NS = 512  # at most is lost where a measured interval is rounded for a whole report
OUTPUTS = ("log", "event", "reply", "exit")


# A program ends with whoever started it.
BOUND = ["setpriv", "--pdeathsig", "KILL"]


class Failure(Exception):
    """The hub did not do what it should have done."""


def trimmed(data):
    """Hexadecimal without the zero bytes at the end."""
    return data.rstrip(b"\0").hex() or "00"


def text_of(content):
    """A file's content in one word, or in quotes."""
    if content and all(32 <= byte < 127 or byte == 10 for byte in content):
        return '"' + content.decode().encode("unicode_escape").decode() + '"'
    return content.hex() or '""'


def content_of(text):
    if text.startswith('"'):
        return text[1:-1].encode().decode("unicode_escape").encode()
    return bytes.fromhex(text)


def now_ns():
    return time.clock_gettime_ns(time.CLOCK_BOOTTIME)


class Event:
    """A record of the data socket. Its stamp is told by what the MCU's data determine of it."""

    def __init__(self, record, seen_ns):
        fields = EVENT.unpack(record)
        self.stamp, self.seen_ns, self.sensor = fields[4], seen_ns, fields[1:3]
        self.data = fields[5]
        self.flushed = struct.unpack_from("<4xi", self.data)[0] if fields[0] == 2 else None
        reserved = struct.pack("<iI12s", fields[3], fields[6], fields[7])
        rest = f" reserved {reserved.hex()}" if any(reserved) else ""
        self.text = f"{fields[0]} {fields[1]} {fields[2]} {trimmed(fields[5])}{rest}"


class Stamps:
    """The stamps of a session's events, each in relation to those before it: 0; same (as that of the
    event before it); +20ms (exactly, after the sensor's last one); even (as long after that as that
    after its own); any. With "now" behind it, it is not older than the request before it."""

    def __init__(self):
        self.last, self.of_sensor, self.steps = None, {}, {}

    def relation(self, event, expected=""):
        """How the stamp stands to those before it; as expected where that, too, is true."""
        stamp, last = event.stamp, self.last
        step = stamp - self.of_sensor.get(event.sensor, 0)
        change = abs(step - self.steps.get(event.sensor, 0))
        self.last, self.of_sensor[event.sensor], self.steps[event.sensor] = stamp, stamp, step
        if expected == "any" or (expected == "even" and change <= ROUNDED_NS):
            return expected
        if stamp in (0, last):
            return "same" if stamp else "0"
        if step % MS == 0:
            return f"{step // MS:+}ms"
        return "even" if change == 0 else "any"


class Notes:
    """What the daemon gives, in a session's words."""

    def __init__(self):
        self.threads, self.stamps = {}, Stamps()

    def text(self, kind, item):
        if kind == "event":
            fresh = item.stamp and item.seen_ns - item.stamp < FRESH_NS
            item = f"{self.stamps.relation(item)}{' now' if fresh else ''} {item.text}"
        elif kind == "log":
            item = f"{self.threads.setdefault(item[0], len(self.threads) + 1)} {item[1]}"
        return f"#: {kind} {item}"


def head_of(fields):
    """The first lines of a session file."""
    return [f"#= {name} {text.encode('unicode_escape').decode()}"
            for name, text in fields.items() if text]


class Bench:
    """Everything of one session. Removes it again when it is left."""

    def __init__(self, programs):
        self.programs = pathlib.Path(programs)
        self.directory = pathlib.Path(tempfile.mkdtemp(prefix="shd-session."))
        self.root = self.directory / "root"
        self.processes, self.listening, self.clients = [], {}, {}
        self.got = {kind: [] for kind in OUTPUTS}
        self.uart, self.daemon, self.data, self.log_rest, self.event_rest = None, None, None, b"", b""
        self.log = open(self.directory / "shd.log", "wb+")
        self.reading = open(self.directory / "shd.log", "rb")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for process in self.processes:
            if process.poll() is None:
                process.kill()
            process.wait()
        for end in [self.data, self.log, self.reading, self.uart, *self.listening.values(),
                    *(client[0] for client in self.clients.values())]:
            if end:
                end.close()
        shutil.rmtree(self.directory)

    def start_mcu(self, options):
        self.errors = open(self.directory / "mcusim.log", "wb")
        self.mcu = subprocess.Popen([*BOUND, self.programs / "mcusim", "--root", self.root, *options],
                                    stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                    stderr=self.errors)
        self.errors.close()
        self.processes.append(self.mcu)
        while True:
            try:
                self.channel = socket.socket(socket.AF_UNIX)
                self.channel.connect(str(self.root / "dev/socket/mcusim"))
                break
            except OSError:
                self.channel.close()
            if self.mcu.poll() is not None:
                raise Failure("mcusim: " + (self.directory / "mcusim.log").read_text())
            time.sleep(GLANCE_SEC)
        self.answers = self.channel.makefile("r")
        self.uart = open(self.root / "dev/ttyHSL1", "rb", buffering=0,
                         opener=lambda path, flags: os.open(path, flags | os.O_NOCTTY))
        for name, path in (("shdctl", self.control_path()),
                           ("shddata", self.root / "dev/socket/shddata")):
            self.listening[name] = socket.socket(socket.AF_UNIX)
            self.listening[name].bind(str(path))
            self.listening[name].listen()

    def control_path(self):
        """Where the daemon serves requests."""
        return self.root / "dev/socket/shdctl"

    def tell_mcu(self, command):
        self.channel.sendall(command.encode() + b"\n")
        return self.answers.readline()

    def start(self):
        """The daemon, as init does it. Its client for events is the first to connect."""
        names = {f"ANDROID_SOCKET_{name}": str(end.fileno())
                 for name, end in self.listening.items()}
        self.data, self.event_rest = socket.socket(socket.AF_UNIX), b""
        self.data.connect(str(self.root / "dev/socket/shddata"))
        fcntl.fcntl(self.log, fcntl.F_SETFL, fcntl.fcntl(self.log, fcntl.F_GETFL) | 0o2000)
        self.daemon = subprocess.Popen(
            [*BOUND, self.programs / "shd"], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
            stderr=self.log, env={**os.environ, "SHD_ROOT": str(self.root), **names},
            pass_fds=[end.fileno() for end in self.listening.values()])
        self.processes.append(self.daemon)

    def kill(self):
        daemon, self.daemon = self.daemon, None
        if daemon:
            daemon.kill()
            daemon.wait()
        self.look()
        self.gone()

    def gone(self):
        self.daemon = None
        for number in list(self.clients):
            self.close(number)
        if self.data:
            self.data.close()
        self.data = None

    def put(self, path, content):
        target = self.root / path
        target.parent.mkdir(parents=True, exist_ok=True)
        new = target.with_name(target.name + ".new")
        new.write_bytes(content)
        new.rename(target)

    def remove(self, path):
        target = self.root / path
        target.rmdir() if target.is_dir() else target.unlink()

    def connect(self, number):
        self.clients[number] = [socket.socket(socket.AF_UNIX), b""]
        self.clients[number][0].connect(str(self.control_path()))

    def close(self, number):
        if number in self.clients:
            self.clients.pop(number)[0].close()

    def idle(self):
        """The daemon has read all that the MCU has sent, and each of its threads sleeps."""
        if not self.daemon:
            return True
        # A poll waits for what is on its way through the terminal.
        waiting = select.select([self.uart], [], [], 0)[0]
        try:
            states = [(task / "stat").read_text().rpartition(") ")[2][0]
                      for task in pathlib.Path(f"/proc/{self.daemon.pid}/task").iterdir()]
        except OSError:
            return False  # a thread has just ended
        return not waiting and all(state == "S" for state in states)

    def look(self):
        """Takes up what the daemon has given since the last time: pairs of kind and text, events
        and log lines as objects."""
        new = []
        exit_code = self.daemon.poll() if self.daemon else None
        *lines, self.log_rest = (self.log_rest + self.reading.read()).split(b"\n")
        for line in lines:
            found = LOG_LINE.fullmatch(line.decode("latin-1"))
            thread, text = found.groups() if found else ("", line.decode("latin-1"))
            new.append(("log", (thread, text.encode("unicode_escape").decode())))
        for number, client in list(self.clients.items()):
            client[1] += received(client[0])
            while len(client[1]) >= REPLY_BYTES:
                reply, client[1] = client[1][:REPLY_BYTES], client[1][REPLY_BYTES:]
                new.append(("reply", f"{number} {trimmed(reply)}"))
        if self.data:
            self.event_rest += received(self.data)
            while len(self.event_rest) >= EVENT.size:
                record, self.event_rest = self.event_rest[:EVENT.size], self.event_rest[EVENT.size:]
                new.append(("event", Event(record, now_ns())))
        if exit_code is not None:
            new.append(("exit", str(exit_code)))
            self.gone()
        for kind, item in new:
            self.got[kind].append(item)
        return new

    def files(self):
        """What stands in the daemon's directories: path, mode and content."""
        found = []
        for directory in ("data", "nvdata"):
            for path in sorted((self.root / directory).rglob("*")):
                if path.is_file():
                    content = TIME_TEXT.sub(b"time:MM-DD hh:mm:ss ", path.read_bytes())
                    found.append(f"{path.relative_to(self.root)} {path.stat().st_mode & 0o777:o} "
                                 f"{text_of(content)}")
        return found


def received(end):
    """What has come on a socket; nothing when that is closed."""
    data = b""
    while select.select([end], [], [], 0)[0]:
        try:
            piece = end.recv(65536)
        except ConnectionError:
            piece = b""
        if not piece:
            break
        data += piece
    return data
