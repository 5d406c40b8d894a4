"""Records a session of a hub that it runs: the line, the clients' requests, and all that the daemon
gave. Run by scripts/session."""

import argparse
import os
import pathlib
import shlex
import signal
import socket
import subprocess
import sys
import time

import bench
import field
import play

QUIET_SEC = 0.06  # without anything new: the daemon has done what it was told
NOISE_SEC = 1.5  # a stream that never pauses is cut after this
PRELUDE = '''hub() { echo "$*" >&"$HUB_TO"; read -r answer <&"$HUB_FROM"; [ "$answer" = ok ]; }
export -f hub
'''
VERSION_REQUEST = bytes(12) + bytes([13]) + bytes(19)
SHORTENED = ("--boot-delay", "--flash-time-scale")  # to nothing
HELP = """commands find programs and tree in PATH and SHD_ROOT, and 'hub' with one of:
  events N         wait for N more events          log TEXT         wait for a line of the log
  put PATH FILE    put a file into the tree        remove PATH      take a file or directory away
  kill             kill the daemon                 start            start it
  ended            wait for its own end
The daemon is started before them, unless one of them is 'hub start' and there is no 'hub kill' or
'hub ended' before it."""


class Recorder(bench.Bench):
    def __init__(self, programs):
        super().__init__(programs)
        self.lines, self.notes = [], bench.Notes()
        self.line_rest, self.last_time, self.shown = b"", "0.000000", False
        self.log_seen, self.seats, self.clients_made = 0, {}, 0

    def control_path(self):
        return self.directory / "shdctl"

    def step(self, timeout=bench.GLANCE_SEC):
        """Notes what is new: the line behind what it may have caused, so that this never waits for
        what comes after it."""
        new = self.look()
        *steps, self.line_rest = (self.line_rest + self.record.read()).split(b"\n")
        for step in steps:
            if b" @ " in step:  # the time of day
                continue
            if self.shown and b" < " in step:
                self.lines.append(f"{self.last_time} ? go")
            self.shown = False
            self.lines.append(step.decode())
            self.last_time = step.split()[0].decode()
        for kind, item in new:
            self.shown = True
            if kind == "reply" and int(item.split()[0]) in self.seats:
                number, text = item.split()
                reply = bytes.fromhex(text).ljust(bench.REPLY_BYTES, b"\0")
                self.seats[int(number)].sendall(reply)
            self.lines.append(self.notes.text(kind, item))
        if not new and not steps:
            time.sleep(timeout)
        return new or steps

    def do(self, text):
        """Notes what is done to the daemon, when everything before has come to rest."""
        deadline = time.monotonic() + NOISE_SEC
        quiet = time.monotonic()
        while time.monotonic() < min(deadline, quiet + QUIET_SEC):
            if self.step() or not self.idle():
                quiet = time.monotonic()
        self.lines.append(f"#: {text}")
        self.shown = True

    def serve(self):
        """Hands on what clients ask: they connect to this program, and it to the daemon."""
        while bench.select.select([self.front], [], [], 0)[0]:
            seat = self.front.accept()[0]
            if not self.daemon:
                seat.close()
                continue
            self.clients_made += 1
            self.do(f"connect {self.clients_made}")
            self.connect(self.clients_made)
            self.seats[self.clients_made] = seat
        for number, seat in list(self.seats.items()):
            if number not in self.clients:
                self.seats.pop(number).close()
            elif bench.select.select([seat], [], [], 0)[0]:
                data = seat.recv(65536)
                self.do(f"send {number} {data.hex()}" if data else f"close {number}")
                if data:
                    self.clients[number][0].sendall(data)
                else:
                    self.close(number)
                    self.seats.pop(number).close()

    def until(self, condition):
        while not condition():
            if not self.step():
                self.serve()

    def obey(self, words):
        verb, *rest = words
        if verb == "events":
            wanted = len(self.got["event"]) + int(rest[0])
            self.until(lambda: len(self.got["event"]) >= wanted)
        elif verb == "log":
            self.until(lambda: self.logged(" ".join(rest)))
        elif verb == "ended":
            self.until(lambda: self.daemon is None)
        elif verb == "put":
            content = pathlib.Path(rest[1]).read_bytes()
            self.do(f"put {rest[0]} {bench.text_of(content)}")
            self.put(rest[0], content)
        elif verb in ("start", "kill", "remove"):
            self.do(" ".join(words))
            getattr(self, verb)(*rest)
        else:
            raise bench.Failure("not known; --help lists what is")

    def logged(self, text):
        for i, (_, line) in enumerate(self.got["log"][self.log_seen:], self.log_seen + 1):
            if text in line:
                self.log_seen = i
                return True
        return False

    def shell(self, commands, **options):
        environment = {**os.environ, "SHD_ROOT": str(self.root),
                       "PATH": f"{self.programs}:{os.environ['PATH']}"}
        prelude = self.directory / "prelude"
        prelude.write_text(PRELUDE + 'PS1="recording> "\n')
        if not commands:
            print(f"Recording; end with 'exit'. {HELP}", file=sys.stderr)
        command = ["bash", "-euc", PRELUDE + commands] if commands else ["bash", "--rcfile", prelude]
        options["env"] = {**environment, **options.get("env", {})}
        shell = subprocess.Popen(command, **options)
        self.processes.append(shell)
        return shell

    def run(self, before, options, commands):
        (self.root / "dev/socket").mkdir(parents=True)
        if before and self.shell(before).wait() != 0:
            raise bench.Failure("the commands before the start failed")
        for path in sorted(self.root.rglob("*")):
            if path.is_file():
                self.lines.append(
                    f"#: put {path.relative_to(self.root)} {bench.text_of(path.read_bytes())}")
        record = self.directory / "line"
        shortened = [f"{name}=0" for name in SHORTENED if name not in options]
        self.start_mcu(["--record", record, *options, *shortened])
        self.record = open(record, "rb")
        self.front = socket.socket(socket.AF_UNIX)
        self.front.bind(str(self.root / "dev/socket/shdctl"))
        self.front.listen()
        if not self.starts_itself(commands):
            self.obey(["start"])
            self.until(lambda: not self.daemon or self.logged("start loop"))
        (there, obeyed), (asked, here) = os.pipe(), os.pipe()
        shell = self.shell(commands, pass_fds=[there, here],
                           env={"HUB_FROM": str(there), "HUB_TO": str(here)})
        os.close(there), os.close(here)
        orders = os.fdopen(asked)
        while True:
            if bench.select.select([asked], [], [], 0)[0]:
                order = orders.readline()
                if not order:
                    break
                try:
                    self.obey(shlex.split(order))
                    os.write(obeyed, b"ok\n")
                except (bench.Failure, OSError, ValueError, IndexError) as failure:
                    print(f"hub {order.strip()}: {failure}", file=sys.stderr)
                    os.write(obeyed, b"no\n")
            elif not self.step():
                self.serve()
        if shell.wait() != 0:
            raise bench.Failure("the commands failed")
        self.finish()
        self.record.close(), self.front.close(), orders.close(), os.close(obeyed)

    @staticmethod
    def starts_itself(commands):
        orders = [line.split()[1] for line in commands.replace(";", "\n").split("\n")
                  if line.split()[:1] == ["hub"]]
        return next((o for o in orders if o in ("start", "kill", "ended")), "") == "start"

    def finish(self):
        """A last request, whose reply stands behind everything that the MCU has said before."""
        if self.daemon:
            number = self.clients_made + 1
            self.do(f"connect {number}")
            self.connect(number)
            self.lines.append(f"#: send {number} {VERSION_REQUEST.hex()}")
            self.clients[number][0].sendall(VERSION_REQUEST)
            self.until(lambda: any(r.startswith(f"{number} ") for r in self.got["reply"]))
            self.do("end")
        self.kill()
        self.lines += [f"#: file {text}" for text in self.files()]


def pause(text):
    seconds = float(text)
    if not 0 <= seconds <= 3600:
        raise argparse.ArgumentTypeError("0 to 3600 seconds")
    return seconds


def main():
    parser = argparse.ArgumentParser(prog="scripts/session", epilog=HELP, description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("name", help="of the session, or of its file")
    parser.add_argument("--title", default="", help="what happens, in a line")
    parser.add_argument("--before", default="", help="commands before everything starts")
    parser.add_argument("--mcusim", default="", help="options for the simulated MCU")
    parser.add_argument("--gap", type=pause, default=0.1, help="longest pause kept at play, in s")
    parser.add_argument("--again", action="store_true", help="as its file was recorded before")
    parser.add_argument("commands", nargs="*", help="default: a shell")
    brought = parser.add_argument_group("of a hub elsewhere, whose daemon was started meanwhile")
    brought.add_argument("--line", metavar="FILE", help="its line: shdtool tap -o FILE")
    brought.add_argument("--log", metavar="FILE", help="its log, as logcat -v threadtime has it")
    brought.add_argument("--events", metavar="FILE", help="its events: shdtool record FILE")
    brought.add_argument("--tree", metavar="DIR", help="files that were there before it")
    arguments = parser.parse_intermixed_args()
    if (arguments.line is None) != (arguments.log is None):
        parser.error("--line and --log go together")
    here = pathlib.Path(__file__).parent
    path = pathlib.Path(arguments.name)
    if path.suffix != ".session":
        path = here / (arguments.name + ".session")
    if path.exists() and not arguments.again:
        parser.error(f"{path} exists: remove it, take another name, or record it --again")
    if not path.parent.is_dir():
        parser.error(f"there is no directory {path.parent}")
    if arguments.tree and not os.path.isdir(arguments.tree):
        parser.error(f"there is no directory {arguments.tree}")
    fields = {"title": arguments.title, "before": arguments.before, "mcusim": arguments.mcusim,
              "gap": str(arguments.gap), "commands": "\n".join(arguments.commands)}
    if arguments.again:
        for line in path.read_text().split("\n"):
            words = line.split(" ", 2)
            if words[0] == "#=":
                fields[words[1]] = words[2].encode().decode("unicode_escape")
        if not fields["commands"]:
            parser.error(f"{path} does not say how it was recorded")
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda *_: sys.exit(1))
    if arguments.line:
        said = field.make(os.environ["PROGRAMS"], path, fields, arguments.line, arguments.log,
                          arguments.events, arguments.tree)
        print("\n       ".join([f"{path}: against what was brought", *said]))
    else:
        with Recorder(os.environ["PROGRAMS"]) as recorder:
            recorder.run(fields["before"], shlex.split(fields["mcusim"]), fields["commands"])
            path.write_text("\n".join(bench.head_of(fields) + recorder.lines) + "\n")
    different = play.play(os.environ["PROGRAMS"], path)
    print(f"{path}: {len(path.read_text().splitlines())} lines; see that they are right before you keep them")
    if different:
        sys.exit("\n".join(["scripts/session: it does not give the same again:", *different]))


if __name__ == "__main__":
    try:
        main()
    except (bench.Failure, OSError) as failure:
        sys.exit(f"scripts/session: {failure}")
    except KeyboardInterrupt:
        sys.exit(130)
