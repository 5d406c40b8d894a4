"""What was kept of a hub elsewhere: the recording of its line, its log and its events; and what was
done to its daemon, which is found in them. Read by field.py."""

import datetime
import pathlib
import re
import struct

import bench

LOG_LINE = re.compile(r"(\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}) +(\d+) +(\d+) (.*)")
TAGS = re.compile(r"\w (shd|shd_hdlc|shd_serial|update_mcu|mcu) *:")
LOG_SEC = 0.001  # between the times of two lines
ZONE_SEC = 900  # zones differ by a multiple of this
MATCH_SEC = 2

FRAMES = re.compile(r"(?:(?!7e)..)+(?:7e)?|7e")  # in hexadecimal

# Handle, by MCU sensor; the rotation vector's is shared by two.
HANDLES = {16: 0, 17: 5, 22: 6, 23: 25, 32: 10, 33: 9, 35: 11, 48: 19, 50: 21, 51: 26, 64: 27}
ROTATION, GAME_ROTATION = 11, 15
# Control command, by command of the line, and how many bytes of arguments both have.
COMMANDS = {0x00: (0, 0), 0x01: (1, 0), 0x02: (2, 4), 0x03: (10, 12), 0x04: (11, 0), 0x11: (3, 0),
            0x12: (5, 0), 0x13: (4, 6), 0x22: (12, 0)}
EVENT_BYTES = {0: 12, 5: 12, 6: 4, 9: 12, 10: 12, 11: 16, 15: 12, 17: 4, 18: 4, 19: 8, 21: 5,
               25: 10, 26: 4, 27: 16}  # by handle: what a recording keeps of an event's data

# Of the daemon's own requests at its start.
HANDSHAKE, LAST_PARAMETER, RAW_DATA = b"\0\0\0", b"\1\0\x11\x13", b"\1\0\x0d\1"

# A request that only the log tells of: it was answered, refused or dropped without the MCU.
LOGGED = [
    (re.compile(r"ProcessVirtualSensor type:(\d+) cmd:(\d+)"), lambda a, b: (int(a), int(b))),
    (re.compile(r"mcu in reboot ignore sensor +(-?\d+) ,command id = +(-?\d+)"),
     lambda a, b: (HANDLES.get(int(a), 1), int(b))),
    (re.compile(r"Invalid sensor +-?\d+ ,command id = +(-?\d+)"), lambda b: (1, int(b))),
    (re.compile(r"SHB_DEBUG_LOG flag:(\d+)"), lambda a: (0, 14, struct.pack("<H", int(a)))),
    (re.compile(r"SHB_MCU_SLEEP!"), lambda: (0, 40)),
    (re.compile(r"SHB_MCU_WAKEUP!"), lambda: (0, 41)),
    (re.compile(r"Deactive rotation sensor not all closed"), lambda: (ROTATION, 1)),
]


def request(handle, command, arguments=b""):
    return struct.pack("<4xi4xi16s", handle, command, arguments)


def request_of(packet, rotation):
    """The client's request that a packet on the line carries out; None for the daemon's own."""
    if len(packet) < 4 or packet[:2] != b"\1\0":
        return None
    service, command, data = packet[2], packet[3], packet[4:]
    if (service, command) == (12, 1):
        return request(0, 9, struct.pack("<I", struct.unpack("<Q", data)[0] // 1000))
    if (service, command) == (64, 0x20):
        return request(0, 8, struct.pack("<IIII", *struct.unpack("<BBHH", data)))
    if service == 13:
        return request(0, (6, 7)[command], data)
    if service == 15:
        return request(0, 13, struct.pack("<H", command))
    if service not in HANDLES or command not in COMMANDS:
        return None
    number, size = COMMANDS[command]
    handle = rotation if HANDLES[service] == ROTATION else HANDLES[service]
    return request(handle, number, data[:size])


class Step:
    """A line of the recording that is played; at: in seconds since its beginning."""

    def __init__(self, at, sign, rest):
        self.at, self.sign, self.rest = at, sign, rest
        self.bytes = bytes.fromhex(rest) if sign in "<>" else b""

    def text(self):
        return f"{self.at:.6f} {self.sign} {self.rest}"


class Frames:
    """Takes a direction's bytes apart into packets, whatever their check sequences."""

    def __init__(self):
        self.rest = b""

    def push(self, data):
        *whole, self.rest = (self.rest + data).split(b"\x7e")
        for frame in whole:
            head, *escaped = frame.split(b"\x7d")
            yield (head + b"".join(bytes([e[0] ^ 0x20]) + e[1:] for e in escaped if e))[:-2]


class Line:
    def __init__(self, path):
        self.steps, self.walls, begin = [], [], None
        *whole, _ = pathlib.Path(path).read_text("latin-1").split("\n")  # the last may be cut off
        for number, line in enumerate(whole, 1):
            words = line.split(None, 2)
            if len(words) < 3 or line.startswith("#"):
                continue
            try:
                at = float(words[0])
                if words[1] == "@":
                    self.walls.append((at, float(words[2].split()[0]) - at))
                elif words[1] in "<>!":
                    begin = at if begin is None else begin
                    # A reply and what is said behind it may have come together.
                    pieces = FRAMES.findall(words[2]) if words[1] == "<" else words[2:]
                    self.steps += [Step(at - begin, words[1], piece) for piece in pieces]
            except ValueError:
                raise bench.Failure(f"{path}:{number}: damaged, or no recording") from None
        if not self.steps or not self.walls:
            raise bench.Failure(f"{path}: no steps, or none that tells the time of day")
        self.walls = [(at - begin, ahead + begin) for at, ahead in self.walls]
        self.requests, self.version = [], None  # (step's number, packet)
        host, mcu, bootloader, boot0 = Frames(), Frames(), False, "0"
        for i, step in enumerate(self.steps):
            step.reports = False  # whether the MCU begins to say something unasked
            if step.sign == "!":
                pin, level = step.rest.split()
                boot0 = level if pin == "boot0" else boot0
                if (pin, level) == ("reset", "1"):
                    host, mcu, bootloader = Frames(), Frames(), boot0 == "1"
            elif not bootloader and step.sign == ">":
                self.requests += [(i, packet) for packet in host.push(step.bytes)]
            elif not bootloader:
                step.reports = not mcu.rest and not (step.bytes[0] < 2 and step.bytes[1:2] == b"\1")
                for packet in mcu.push(step.bytes):
                    if packet.startswith(b"\1\1\x0f\0") and self.version is None:
                        self.version = packet[4:].rstrip(b"\0").decode("latin-1")

    def wall(self, at):
        """The time of day at a step, in seconds since 1970."""
        ahead = next((a for begin, a in reversed(self.walls) if begin <= at), self.walls[0][1])
        return at + ahead

    def here(self, wall):
        """The other way round."""
        at = wall - self.walls[0][1]
        return wall - (self.wall(at) - at)


class LogLine:
    def __init__(self, clock, process, thread, text):
        self.clock, self.process, self.thread, self.text = clock, process, thread, text
        self.at = 0.0  # in the line's time


def read_log(path, line):
    """The daemon's lines, with the line's times."""
    year = datetime.datetime.fromtimestamp(line.wall(0), datetime.timezone.utc).year
    lines = []
    for text in pathlib.Path(path).read_bytes().split(b"\n"):
        found = LOG_LINE.fullmatch(text.decode("latin-1").rstrip("\r"))
        # Here the sockets are inherited, as from init; not so by a daemon started by hand.
        if found and TAGS.match(found[4]) and "from environment" not in found[4]:
            clock = datetime.datetime.strptime(f"{year}-{found[1]} +0000",
                                               "%Y-%m-%d %H:%M:%S.%f %z")
            lines.append(LogLine(clock.timestamp(), found[2], found[3],
                                 found[4].encode("unicode_escape").decode()))
    # A log has local time: found by what both have seen, the first handshake or an update's pin.
    said = [entry.clock for entry in lines
            if "Send Handshake to" in entry.text or "set mcu to update mode!" in entry.text]
    did = [line.wall(line.steps[i].at) for i, packet in line.requests if packet == b"\0\0\0"]
    did += [line.wall(step.at) for step in line.steps if step.rest == "boot0 1"]
    zones = [zone for clock in said for wall in did
             for zone in [round((clock - wall) / ZONE_SEC) * ZONE_SEC]
             if abs(clock - wall - zone) < MATCH_SEC]
    if not zones:
        raise bench.Failure(f"{path}: not the log of a daemon that has started on this line")
    zone = max(zones, key=zones.count)
    for entry in lines:
        entry.at = line.here(entry.clock - zone)
    return [entry for entry in lines if entry.at > line.steps[0].at - MATCH_SEC]


def read_events(path):
    """(handle, data without zeros at the end, number of the gap before it) of each event of a
    recording; a flush as handle + 64."""
    data, at, events, gaps = pathlib.Path(path).read_bytes(), 32, [], 0
    if not data.startswith(b"SHDREC\x1a\n"):
        raise bench.Failure(f"{path}: no recording of events")

    def skip_number():
        nonlocal at
        while data[at] & 0x80:
            at += 1
        at += 1

    try:
        while data[at] != 0xFF:
            code, at = data[at], at + 1
            skip_number()
            gaps += code in (0x80, 0x82)  # the connection was lost, or events
            if code in (0x82, 0x83) or code < 0x40:
                skip_number()
            if code < 0x40:
                size = EVENT_BYTES[code]
                events.append((code, data[at:at + size].rstrip(b"\0"), gaps))
                at += size
            elif code < 0x80:
                events.append((code, b"", gaps))
    except IndexError:
        pass  # it was cut off
    return events


def actions_of(line, log, rotation):
    """What was done to the daemon: (number of the step before which, lines of the log before it,
    kind, text)."""
    own, found, alive = [], [], False
    for process in dict.fromkeys(entry.process for entry in log):
        mine = [entry for entry in log if entry.process == process]
        # It asks for the version before it says anything.
        first = max((i for i, packet in line.requests if packet[:4] == b"\1\0\x0f\0"
                     and line.steps[i].at < mine[0].at), default=0)
        # A log's milliseconds are too coarse for its end: that is after the parameters.
        texts = " ".join(entry.text for entry in mine)
        last = [HANDSHAKE, LAST_PARAMETER] + [RAW_DATA] * ("Raw data Log Level" in texts)
        end = max((i for i, packet in line.requests if line.steps[i].at <= mine[-1].at), default=0)
        for i, packet in line.requests:
            if i >= first and last and packet.startswith(last[0]):
                last.pop(0)
                end = i if not last else end
        own.append((line.steps[first].at, line.steps[end].at))
        logs = log.index(mine[0])
        if alive:
            found.append((first, logs, "kill", ""))
        found.append((first if alive else 0, logs, "start", ""))
        alive = True
    begin = None
    for entry in log:
        if "SensorWakeLockAcquiredLocked :1" in entry.text:
            begin = entry.at
        elif "SensorWakeLockAcquiredLocked :0" in entry.text and begin is not None:
            own.append((begin, entry.at + LOG_SEC))
            begin = None
    if begin is not None:
        own.append((begin, line.steps[-1].at))

    for i, packet in line.requests:
        at = line.steps[i].at
        sent = request_of(packet, rotation)
        if sent and not any(b <= at <= e for b, e in own):
            found.append((i, sum(entry.at < at - LOG_SEC for entry in log), "send", sent.hex()))
    for number, entry in enumerate(log):
        for form, arguments in LOGGED:
            if match := form.search(entry.text):
                step = next((i for i, s in enumerate(line.steps) if s.at > entry.at),
                            len(line.steps))
                found.append((step, number, "send", request(*arguments(*match.groups())).hex()))
    return sorted(found, key=lambda action: action[:2])
