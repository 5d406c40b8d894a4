"""Makes the seed corpora of the fuzz targets from a run of the hub: the daemon updates a simulated
MCU, streams every sensor and takes a core dump, and what went over the line and into files is cut
into small inputs. Called by scripts/fuzz --seeds; seeds of findings and hand-made ones stay.

usage: make_corpus.py DIRECTORY_OF_PROGRAMS CORPUS
"""
import glob
import os
import shutil
import struct
import subprocess
import sys
import tempfile
import time

PROGRAMS, CORPUS = os.path.abspath(sys.argv[1]), sys.argv[2]
SENSORS = {16: 0, 17: 5, 22: 6, 23: 25, 32: 10, 33: 9, 35: 11, 48: 19, 50: 21, 51: 26, 64: 27}
STATES = bytes(28)  # of the inbound target: nothing asked for
PACKET = 0x8000
COMMANDS = """enable accelerometer --rate 50 --batch 10
enable gyroscope --rate 25
enable pressure --rate 10
enable gravity --rate 25
enable linear-acceleration --rate 25
enable rotation-vector --rate 25
enable game-rotation-vector --rate 25
enable raw-25 --rate 25
enable heart-rate --period 1000
enable step-counter --period 1000
enable wrist-tilt
enable motion-health --period 1000 --batch 2
rawdata both
calibrate accelerometer
info accelerometer
version"""


def run(tree, program, *arguments):
    command = [os.path.join(PROGRAMS, program), "--root", tree, *arguments]
    return subprocess.run(command, capture_output=True, timeout=60, check=False)


def until(what, condition):
    for _ in range(600):
        if condition():
            return
        time.sleep(0.1)
    sys.exit("make_corpus.py: never happened: " + what)


def session(tree):
    """One run of the hub; leaves its recordings, files and log in the tree."""
    os.makedirs(tree + "/system/bin")
    os.makedirs(tree + "/data/mcudumplog")
    image = tree + "/system/bin/mcu.bin"
    run(tree, "shdtool", "image", "build", "--simulated-firmware", "--size", "1k", "--version",
        "SIM.900.0002", "-o", image)
    board = subprocess.Popen([PROGRAMS + "/mcusim", "--root", tree, "--record", tree + "/line",
                              "--boot-delay", "0", "--flash-time-scale", "0"],
                             stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
    until("the board serves", lambda: os.path.exists(tree + "/dev/socket/mcusim"))
    with open(tree + "/log", "wb") as log:
        daemon = subprocess.Popen([PROGRAMS + "/shd"], env={"SHD_ROOT": tree}, stderr=log,
                                  stdout=subprocess.DEVNULL)
    try:
        until("the daemon serves", lambda: b"start loop" in read(tree + "/log"))
        for command in COMMANDS.splitlines():
            run(tree, "shdtool", *command.split())
        for command in ("steps +3", "tilt", "log a line of the MCU"):
            run(tree, "mcusim", "--send", command)
        run(tree, "shdtool", "record", tree + "/events", "--seconds", "3")
        run(tree, "shdtool", "flush", "accelerometer")
        run(tree, "mcusim", "--send", "crash")
        until("a dump is there", lambda: os.path.exists(tree + "/data/mcudumplog/mcudump_0"))
        until("the MCU is back", lambda: read(tree + "/log").count(b"reboot") > 3)
    finally:
        for process in (daemon, board):
            process.terminate()
            process.wait()


def read(path):
    with open(path, "rb") as file:
        return file.read()


def seed(target, name, content):
    os.makedirs(os.path.join(CORPUS, target), exist_ok=True)
    with open(os.path.join(CORPUS, target, "run_" + name), "wb") as file:
        file.write(content)


def packets(stream):
    """The payloads of a stream's frames, whatever their check sequences."""
    for frame in stream.split(b"\x7e"):
        plain, escaped = bytearray(), False
        for byte in frame:
            if byte == 0x7D and not escaped:
                escaped = True
                continue
            plain.append(byte ^ 0x20 if escaped else byte)
            escaped = False
        if len(plain) > 2:
            yield bytes(plain[:-2])


def block(content, flag=0):
    return struct.pack("<H", flag | len(content)) + content


def inbound(said):
    kinds = {}
    for packet in packets(said):
        kind = packet[:3] if packet[0] < 2 else packet[:1]
        kinds.setdefault(kind.hex(), []).append(packet)
    for kind, found in kinds.items():
        some = b"".join(block(packet, PACKET) for packet in found[:3])
        seed("inbound", kind, STATES + some)
        seed("frame", kind, struct.pack("<HBBB", 1499, 0, 7, 255) + some)
        if kind.startswith("0102"):
            sensor = found[0][2]
            settings = struct.pack("<BBBii", 0, SENSORS.get(sensor, 0), 3, 20, 4)
            report = b"".join(bytes([sensor]) + block(packet[4:]) for packet in found[:3])
            seed("events", kind, settings + report + b"\x03\0\0\x10\0\x10" + report)
            flush = struct.pack("<BBi", 1, SENSORS.get(sensor, 0), 5)
            seed("events", kind + "_flush", settings + flush + report)


def main():
    tree = tempfile.mkdtemp(prefix="shd-seeds.")
    try:
        session(tree)
        for old in glob.glob(CORPUS + "/*/run_*"):
            os.remove(old)
        steps = [line.split() for line in read(tree + "/line").decode().splitlines()]
        said = b"".join(bytes.fromhex(s[2]) for s in steps if len(s) == 3 and s[1] == "<")
        inbound(said)
        seed("frame", "stream", struct.pack("<HBBB", 1499, 0, 7, 255) + block(said[-1200:]))
        image = read(tree + "/system/bin/mcu.bin")
        seed("image", "same", b"\x0cSIM.900.0002" + image)
        seed("image", "older", b"\x0cSIM.900.0001" + image)
        seed("bootloader", "acknowledged", b"\x04" + b"\x01\x79" * 14)
        seed("bootloader", "refused", b"\x04\x09\x02\0\x79" + b"\x01\x79" * 5 + b"\x01\x1f")
        seed("texts", "accelerometer", b"\0" + read(tree + "/nvdata/accclibration"))
        for number, text in ((1, b"-12\n"), (2, b"3"), (3, b"17")):
            seed("texts", str(number), bytes([number]) + text)
        recording = "\n".join(" ".join(s) for s in steps[:12] + steps[-8:]) + "\n"
        seed("line_recording", "session", recording.encode())
        seed("recording", "events", read(tree + "/events")[:2000])
        seed("dump", "raw", read(tree + "/data/mcudumplog/mcudump_0")[:1500])
        seed("dump_text", "base64", read(tree + "/data/mcudumplog/mcudumpbase64")[:1500])
        logs = tree + "/data/logdata/sensor/"
        seed("rawlog", "steps", b"\n".join(read(logs + "alg.txt").splitlines()[:20]))
        seed("rawlog", "heart", b"\n".join(read(logs + "hrm.txt").splitlines()[:20]))
        seed("log", "lines", read(tree + "/log")[:4000])
        seed("script", "steps", b"# walk\nat 1.5s hang\nevery 500ms steps +2\nat 1m crash 3\n")
        seed("signal", "rows", b"time_s,x,y,z\n0,0.1,-9.8,0\n0.5,1e1,2,3\n\n# end\n2,0,0,9.81\n")
    finally:
        shutil.rmtree(tree)


main()
