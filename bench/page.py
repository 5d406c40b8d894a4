"""The page about the daemon's speed, from what measure.py has measured: goals, tables, picture."""

import dataclasses
import statistics
import textwrap

LABELS = {"shd": "shd", "relay": "relay", "relay256": "relay, 256 bytes a call",
          "ser2net": "ser2net", "gpsd": "gpsd"}
COLOURS = {"shd": "#c0392b", "relay": "#2c3e50", "ser2net": "#2980b9", "gpsd": "#27ae60"}


@dataclasses.dataclass
class Row:
    """One goal: met when the median of the values is at most the limit."""

    goal: str
    limit: float
    values: list
    digits: int = 2
    unit: str = ""
    reason: str = ""  # why it is not met
    least: float = 0  # that is possible

    @property
    def median(self):
        return statistics.median(self.values)

    def is_met(self):
        return self.median <= self.limit

    def is_sane(self):
        return bool(self.values) and self.least <= self.median < 1e6

    def show(self, value):
        return f"{value:.{self.digits}f}{self.unit}"

    def cells(self):
        low, high = middle_half(self.values)
        spread = f"{self.show(low)} … {self.show(high)}"
        verdict = "met" if self.is_met() else "**not met**"
        return [self.goal, f"≤ {self.show(self.limit)}", self.show(self.median), spread, verdict]


def middle_half(values):
    """Between which the middle half of them lies."""
    if len(values) < 2:
        return values[0], values[0]
    low, _, high = statistics.quantiles(values, n=4, method="inclusive")
    return low, high


def ratios(rounds_of, figure, over="relay"):
    """The daemon's figure over the other's, round by round."""
    return [a[figure] / max(b[figure], 1) for a, b in zip(rounds_of["shd"], rounds_of[over])]


def micros(rounds, figure="cpu_ns", per="delivered"):
    return [row[figure] / (row[per] if per else 1) / 1000 for row in rounds]


def growth(from_rounds, to_rounds):
    """Of the cost of a record, round by round."""
    return [b / a for a, b in zip(micros(from_rounds), micros(to_rounds))]


# What stands in the daemon's figures beyond the bare calls.
WORK = "the check of the frame, conversion, time stamps and two locks are in it"


def goals(results, pauses_ms):
    rows = []
    codec = results[("codec",)]
    if codec:
        for name, benchmark, limit in (("decode, byte by byte", "DecodeByteByByte", 2.4),
                                       ("encode", "Encode", 1.9)):
            values = [a / b for a, b in zip(codec[benchmark], codec["TableFcs"])]
            rows.append(Row(f"frame codec: {name}, over a bare table FCS", limit, values))
    cost = {key[1]: value for key, value in results.items() if key[0] == "cost" and key[2] == 10}
    batches = {key[2]: value for key, value in results.items() if key[0] == "cost" and key[1] == 8}
    for clients, rounds_of in cost.items():
        rows.append(Row(f"processor time of a record, {count(clients, 'client')}, over the relay",
                        1.05, ratios(rounds_of, "cpu_ns"), reason=WORK))
    for what, of, first in (("clients", cost, 64), ("samples a frame", batches, 100)):
        first = first if first in of else min(of)
        relay = statistics.median(growth(of[first]["relay"], of[max(of)]["relay"]))
        rows.append(Row(f"processor time of a record, {max(of)} {what} over {first}", 1.05,
                        growth(of[first]["shd"], of[max(of)]["shd"]),
                        reason=f"the relay's grows to {relay:.2f} times: it is the sockets' memory "
                               "that no longer fits the caches"))
    for key, rounds_of in results.items():
        if key[0] != "latency":
            continue
        for name, figure, limit in (("median", "median_ns", 1.1), ("p99", "p99_ns", 1.25)):
            rows.append(Row(f"latency, {name}, last of {count(key[1], 'client')}, over the relay", limit,
                            ratios(rounds_of, figure), reason=WORK))
    rows.append(Row("control round trip, median, over the echo", 1.1,
                    ratios(results[("control", 115200)], "median_ns"),
                    reason="the daemon hands a request from thread to thread, and the reply back"))
    updates = [value for key, value in results.items() if key[0] == "update"]
    if updates:
        rows.append(Row("200 KiB update, over the line's minimum", 1.02,
                        [shd / least for shd, least, _ in updates], 3,
                        reason="the reset pulse and the pause for the bootloader's first answer are "
                               "150 ms of it, each of 2,400 acknowledgements is a wake-up"))
        behind_ms = statistics.median(shd - other for shd, _, other in updates)
        rows.append(Row("200 KiB update, over `stm32flash`", 1.0,
                        [shd / other for shd, _, other in updates], 4,
                        reason=f"{behind_ms:.0f} ms of {updates[0][0] / 1000:.1f} s: the daemon looks for the "
                               "bootloader's first answer 50 ms after it asked, `stm32flash` at once"))
    # Of a daemon beside which there is no second one: two share what they have read from their file.
    idle = results[("idle",)]["shd"]
    rows.append(Row(f"private memory, {count(idle[0]['clients'], 'client')}", 512,
                    [row["private_kib"] for row in idle], 0, " KiB"))
    soak = results[("soak",)]["shd"]
    events = sum(row["delivered"] for row in soak[1:])
    rows.append(Row(f"private memory: growth over {events / 1e6:.3g} million events", 0,
                    [soak[-1]["private_kib"] - soak[0]["private_kib"]], 0, " KiB",
                    least=-soak[0]["private_kib"]))
    rows.append(Row(f"wake-ups in {idle[0]['wall_ns'] / 1e9:.0f} s without a byte", 0,
                    [row["switches"] for row in idle], 0))
    rows.append(Row("start-up, own share", 10,
                    [value - pauses_ms for value in results[("startups_ms",)]], 1, " ms",
                    reason="the loading of the program and its libraries is in it"))
    return rows


def count(number, thing):
    return f"{number} {thing}{'' if number == 1 else 's'}"


def table(head, rows):
    lines = ["| " + " | ".join(head) + " |", "|" + "---|" * len(head)]
    return "\n".join(lines + ["| " + " | ".join(map(str, row)) + " |" for row in rows])


def cost_table(results, first, keep, place):
    """Microseconds a record: a row for each key that keep takes, a column for each program."""
    rows = []
    for key, rounds_of in results.items():
        if key[0] != "cost" or not keep(key):
            continue
        cells = [key[place]]
        for program in COLOURS:
            values = micros(rounds_of[program]) if program in rounds_of else []
            cells.append("{:.2f} ({:.2f} … {:.2f})".format(statistics.median(values), *middle_half(values))
                         if values else "–")
        rows.append(cells)
    return table([first, *(LABELS[name] for name in COLOURS)], sorted(rows))


def picture(results, path):
    """False when there is nothing to draw with."""
    try:
        import matplotlib
    except ImportError:
        return False
    matplotlib.use("svg")
    matplotlib.rcParams.update({"svg.fonttype": "none", "svg.hashsalt": "shd", "font.size": 9})
    import matplotlib.pyplot as pyplot

    figure, panels = pyplot.subplots(1, 2, figsize=(9, 3.6), sharey=True)
    for panel, place, fixed, label in ((panels[0], 1, 2, "data clients (10 samples a frame)"),
                                       (panels[1], 2, 1, "samples a frame (8 clients)")):
        wanted = 10 if fixed == 2 else 8
        keys = sorted(key for key in results if key[0] == "cost" and key[fixed] == wanted)
        for program, colour in COLOURS.items():
            points = [(key[place], micros(results[key][program])) for key in keys
                      if program in results[key]]
            if not points:
                continue
            xs = [x for x, _ in points]
            panel.plot(xs, [statistics.median(values) for _, values in points], marker="o",
                       markersize=3.5, color=colour, label=LABELS[program])
            low, high = zip(*(middle_half(values) for _, values in points))
            panel.fill_between(xs, low, high, color=colour, alpha=0.15)
        panel.set_xscale("log", base=2 if place == 1 else 10)
        panel.set_yscale("log")
        ticks = [key[place] for key in keys]
        panel.set_xticks(ticks, map(str, ticks))
        panel.minorticks_off()
        panel.set_xlabel(label)
        panel.grid(alpha=0.25)
    low, high = panels[0].get_ylim()
    ticks = [tick for tick in (0.1, 0.2, 0.5, 1, 2, 5, 10, 20) if low <= tick <= high]
    panels[0].set_yticks(ticks, map(str, ticks))
    panels[0].set_ylabel("µs of processor time a record")
    panels[0].legend(frameon=False)
    figure.tight_layout()
    figure.savefig(path, metadata={"Date": None})
    return True


def neighbours_table(results):
    rows = []
    idle = results[("idle",)]
    for program in COLOURS:
        if program not in idle:
            continue
        cells = [LABELS[program]]
        for key, rounds_of in results.items():
            if key[0] == "latency":
                cells += [f"{statistics.median(micros(rounds_of[program], figure, None)):.0f}"
                          for figure in ("median_ns", "p99_ns")]
        seconds = idle[program][0]["wall_ns"] / 1e9
        cells += [idle[program][0]["private_kib"], f"{idle[program][0]['switches'] / seconds:.1f}"]
        rows.append(cells)
    heads = [f"{figure}, {count(key[1], 'client')}" for key in results if key[0] == "latency"
             for figure in ("median", "p99")]
    clients = idle["shd"][0]["clients"]
    return table(["", *heads, f"KiB, {count(clients, 'client')}", "wake-ups a second, idle"], rows)


def reads(results):
    """Milliseconds of processor time a second on a full line: {program: median}."""
    return {program: statistics.median(row["cpu_ns"] / row["wall_ns"] * 1000 for row in rounds)
            for program, rounds in results[("full_line",)].items()}


def write(results, facts, pauses_ms, directory):
    """Writes performance.md and performance.svg; returns the goals' rows."""
    rows = goals(results, pauses_ms)
    met = sum(row.is_met() for row in rows)
    drawn = picture(results, directory / "performance.svg")
    read = reads(results)
    control = statistics.median(ratios(results[("control", 0)], "median_ns"))
    packages = facts["packages"]
    busy = "" if facts["others"] <= 0.05 else (
        "\n**The machine was busy. These figures are not to be relied on; run it again on an idle "
        "one.**\n")
    short = [f"- {row.goal}: {row.show(row.median)}, goal {row.show(row.limit)}"
             + (f"; {row.reason}" if row.reason else "") for row in rows if not row.is_met()]
    text = PAGE.format(
        met=met, goals=len(rows), rounds=len(results[("cost", 8, 10)]["shd"]), day=facts["day"], commit=facts["commit"], busy=busy,
        processor=facts["processor"], cores=count(facts["cores"], "core"), kernel=facts["kernel"],
        others=100 * facts["others"], compiler=packages["g++"], minutes=facts["minutes"],
        table=table(["", "goal", "median", "middle half", ""], [row.cells() for row in rows]),
        short="\n".join(short) if short else "Nothing does.",
        clients=cost_table(results, "clients", lambda key: key[2] == 10, 1),
        batches=cost_table(results, "samples a frame", lambda key: key[1] == 8, 2),
        picture="![Cost of a record](performance.svg)\n" if drawn else "",
        neighbours=neighbours_table(results), control=control, pauses=pauses_ms,
        gpsd=packages["gpsd"], ser2net=packages["ser2net"], stm32flash=packages["stm32flash"],
        shd=read["shd"], relay=read["relay"], relay256=read["relay256"],
        shd_share=read["shd"] / 10, extra=read["relay"] - read["relay256"],
        extra_share=(read["relay"] - read["relay256"]) / 10)
    (directory / "performance.md").write_text(text)
    return rows


PAGE = textwrap.dedent("""\
    # What the daemon costs

    This page is written by `scripts/bench`. {met} of {goals} goals are met.

    Measured {day} at {commit}: {processor}, {cores}, {kernel}; release build,
    g++ {compiler}. In the {minutes:.0f} minutes all other processes took {others:.1f} % of the machine.
    {busy}
    {table}

    Each figure is the median of its rounds, beside the two between which their middle half lies. In
    one round every program is measured once, in turn, in an order that is reversed from round to
    round; a ratio is taken within its round. The cost of a record has {rounds} rounds, and short ones:
    it differs by a tenth and more from one to the next. A ratio is to a program of ours,
    `bench/relay.cpp`, which does the least that anybody could do in the daemon's place: it reads one
    byte a call from the same kind of pseudo terminal and, at the end of a frame, sends as many
    records of 104 bytes as the frame has samples to each client, over the same kind of socket. It
    decodes, checks, converts, stamps and locks nothing.

    ## What falls short

    {short}

    ## The cost of a record

    Microseconds of processor time, the system's share included, that a program uses to deliver one
    sample to one client. A frame of accelerometer samples is written at once; the next one follows
    when every client has all of it. 10 samples a frame:

    {clients}

    8 clients:

    {batches}

    {picture}
    One frame is read and decoded once, however many clients there are: with one client that is most
    of the cost, with many it is the `send` to each. A batch saves the wake-up and the seven bytes
    around each sample.

    ## The one-byte reads

    The daemon takes one byte a call from the line. On a full one (11,520 bytes a second, frames of
    10 samples, one client) that is:

    | | ms of processor time a second |
    |---|---|
    | shd | {shd:.1f} |
    | relay, one byte a call | {relay:.1f} |
    | relay, up to 256 bytes a call | {relay256:.1f} |

    So the daemon uses {shd_share:.1f} % of one core of this machine while the line is full, and the
    one-byte reads are {extra:.1f} ms a second of it, {extra_share:.1f} % of a core. A watch's line is
    seldom full, and a silent one costs nothing. They stay because of what they keep simple:

    - Every message has its whole effect (its events sent, its reply queued, its bytes in the file)
      before the next byte leaves the line, so effects come in the order of the bytes, and a sample
      goes out as soon as its last byte is in.
    - What the daemon has not acted on yet is in the tty and nowhere else. Flushing the tty therefore
      drops all that came before a reset, and whoever takes the line over, for an update or a
      recovery, finds the reader between two bytes and every later byte still there to be read.

    ## Beside others

    `gpsd` {gpsd} and `ser2net` {ser2net} from Debian also carry what a serial port says to many
    clients. What is not the same:

    - `ser2net` gets the same bytes on the same kind of pseudo terminal and gives them on as they are,
      over the same kind of local socket: 104 bytes of event are 6 bytes of sample there. It reads
      and sends whole buffers, so a batch costs it hardly more than a sample. Its delay for collecting
      characters is switched off.
    - `gpsd` takes no bytes but those of receivers it knows, so each sample is a sentence of NMEA 0183
      of 19 bytes for it (`$GPHDT`), which it parses and gives on as it is. Its clients use TCP on the
      loopback interface, and there are at most 64.

    Latency is in microseconds, from the write of a frame of one sample until the client that was
    connected last has it, at the line's full rate; memory is what the process has for itself.

    {neighbours}

    `stm32flash` {stm32flash} is given the same payload, the same simulated bootloader and the
    daemon's own reset pulse.

    ## What stands behind the other rows

    - Frame codec: 64 random bytes; Google Benchmark, repetitions interleaved at random.
    - Control round trip: the version request against `mcusim` at 115,200 bit/s. The echo does the same
      in one thread: request, wake-up file, frame, answer byte by byte, log line, reply. On a line
      whose bytes take no time the ratio is {control:.2f}: the daemon hands a request from thread to
      thread twice.
    - Update: erase and programming times of the part's data sheet and 11 bits a byte are the line's
      minimum; the reset and the wait for the bootloader are the daemon's.
    - Wake-ups: switches of context of all threads, {pauses} ms of the start-up are the fixed pauses of
      the reset, which no daemon can spare. The MCU answers at once there.

    `scripts/bench` repeats all of this on an idle machine; it installs the neighbours from Debian,
    starts each as a child on a pseudo terminal of its own and needs nobody beside it.
    `scripts/bench --quick` runs everything briefly and only tells whether it runs, as ctest does.
    """)
