"""Holds the units and the directories of a Linux board against the code, lets the service manager's
own tools judge them, and hands sockets over as it does. Called by ctest; needs no service manager."""

import os
import pathlib
import re
import stat
import subprocess
import sys
import tempfile
import unittest

from project import ROOT, PackagingCase, System, compare, content, read, reasons

SYSTEM = System()
PROPERTIES = "/data/property"
REQUEST_BYTES = 80  # of an open request: its record, its node, what malloc adds
IMAGE_BYTES = 1 << 20  # of the largest MCU that one would put an image into
MAX_EXPOSURE = 6  # tenths, of systemd-analyze security: what the unit has, so that it loses nothing
# What a unit grants; everything else in it only takes away.
GRANTS = ("(ExecStartPre=[+]|User|DeviceAllow|ReadWritePaths|Limit|MemoryMax|"
          "TasksMax|ProtectProc|SystemCallFilter=@|UMask)")


def check_service(text):
    complaints = reasons("shd.service", text, GRANTS)

    def values(key):
        return [value for line in content(text) if line.startswith(key + "=")
                for value in line.partition("=")[2].split()]
    complaints += compare("DeviceAllow", values("DeviceAllow"), [SYSTEM.uart, "rw"])
    raw_data = {d for d in SYSTEM.directories
                if any(d.startswith(other + "/") for other in SYSTEM.directories)}
    complaints += compare("ReadWritePaths", values("ReadWritePaths"),
                          SYSTEM.directories - raw_data | SYSTEM.calibration | {PROPERTIES})
    complaints += compare("Sockets", values("Sockets"), ["shd-control.socket", "shd-data.socket"])
    complaints += compare("After", values("After"), values("Sockets") + ["dev-ttyHSL1.device"])
    if values("ExecStartPre") != ["+systemd-tmpfiles", "--create", "shd.conf"]:
        complaints.append("shd.service: the low-power file is not given back")
    if values("ProcSubset"):
        complaints.append("shd.service: ProcSubset hides the control files")
    for key, want in (("RestartPreventExitStatus", ["255"]), ("CapabilityBoundingSet", []),
                      ("RestrictAddressFamilies", ["none"]),
                      ("Restart", ["on-failure"])):
        if values(key) != want:
            complaints.append(f"shd.service: {key} is not {want}")
    erase = int(re.search(r"kMassEraseTimeout\{(\d+)\}", read("update_mcu/bootloader_commands.h"))[1])
    failing = int(values("StartLimitBurst")[0]) * (erase + IMAGE_BYTES * 11 // 115200)
    if int(values("StartLimitIntervalSec")[0].removesuffix("min")) * 60 < 2 * failing:
        complaints.append("shd.service: failing updates that take long go on for ever")
    most = int(re.search(r"kMaxOpenRequests = (\d+)", read("sockets/control_server.h"))[1])
    needed = int("".join(values("LimitNOFILE"))) * most * REQUEST_BYTES >> 20
    if int(values("MemoryMax")[0].removesuffix("M")) <= needed:
        complaints.append(f"shd.service: MemoryMax is below the {needed}M of all open requests")
    return complaints


def check_socket(text):
    unit = dict(line.split("=", 1) for line in content(text) if "=" in line)
    name = unit.get("FileDescriptorName")
    complaints = compare("FileDescriptorName", [name], SYSTEM.sockets & {name} or {"a socket"})
    if unit.get("ListenStream") != f"/dev/socket/{name}":
        complaints.append(f"{name}: is not at /dev/socket/{name}")
    if unit.get("SocketGroup") != "sensors":
        complaints.append(f"{name}: is not of the clients' group")
    if unit.get("SocketMode") != "0660":
        complaints.append(f"{name}: is open to others")
    if unit.get("FlushPending") != "yes":
        complaints.append(f"{name}: one client repeats a failing update")
    return complaints


def check_tmpfiles(text):
    lines = [line.split() for line in content(text)]

    def paths(kind):
        return [line[1] for line in lines if line[0] == kind]
    complaints = compare("tmpfiles: d", set(paths("d")) - {"/data"},
                         SYSTEM.directories | SYSTEM.calibration | {PROPERTIES})
    complaints += compare("tmpfiles: z", paths("z"), SYSTEM.control_files)
    complaints += compare("tmpfiles: w", paths("w"), [SYSTEM.low_power])
    complaints += [f"tmpfiles: {path} is open to others" for kind, path, mode, *_ in lines
                   if path not in ("/data", PROPERTIES) and kind != "w" and mode[-1] != "0"]
    return complaints + reasons("tmpfiles", text, "(?!d /data )")


def check_udev(text):
    rule = f'SUBSYSTEM=="tty", KERNEL=="{pathlib.Path(SYSTEM.uart).name}", GROUP="shd", MODE="0660"'
    return compare("udev", content(text), [rule]) + reasons("udev", text)


class Board(PackagingCase):
    build = None

    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)
        self.work = pathlib.Path(self.folder.name)

    def run_tool(self, *command, **options):
        done = subprocess.run(command, capture_output=True, text=True, timeout=100, check=False,
                              **options)
        self.assertEqual(done.returncode, 0, f"{command}: {done.stdout}{done.stderr}")
        return done.stdout

    def test_units_agree_with_the_code(self):
        service = "packaging/systemd/shd.service.in"
        self.holds(check_service, service, [
            ("DeviceAllow=/dev/ttyHSL1", "DeviceAllow=/dev/ttyS1", "DeviceAllow: /dev/ttyHSL1 is"),
            ("Paths=/nvdata", "Paths=/nvram", "ReadWritePaths: /nvdata is missing"),
            ("Paths=/data/logdata", "Paths=/data", "ReadWritePaths: the code knows no /data"),
            ("After=shd-control", "After=shd-cntrl", "After: shd-control.socket is missing"),
            ("ExecStartPre=", "# ", "the low-power file is not given back"),
            ("ProtectProc=", "ProcSubset=", "ProcSubset hides the control files"),
            ("MemoryMax=128M", "MemoryMax=64M", "MemoryMax is below"),
            ("NOFILE=256", "NOFILE=2048", "MemoryMax is below"),
            ("IntervalSec=60min", "IntervalSec=10min", "failing updates that take long go on"),
            ("ExitStatus=255", "ExitStatus=254", "RestartPreventExitStatus is not"),
            ("BoundingSet=", "BoundingSet=CAP_KILL", "CapabilityBoundingSet is not"),
            ("Families=none", "Families=AF_UNIX", "RestrictAddressFamilies is not"),
            ("shd-data.socket\n# As root", "\n# As root", "Sockets: shd-data.socket is missing"),
            ("property_set\n", "a_property\n", "properties.cpp has no a_property"),
            ("# core/startup.cpp: SetCoreDumpLimit\n", "", "'LimitCORE=infinity' names no code"),
        ])
        for unit in ("shd-control", "shd-data"):
            path = f"packaging/systemd/{unit}.socket"
            self.holds(check_socket, path, [
                ("Name=shd", "Name=mcu", "FileDescriptorName: "),
                ("Stream=/dev/socket", "Stream=/run", "is not at /dev/socket"),
                ("Group=sensors", "Group=root", "is not of the clients' group"),
                ("0660", "0666", "is open to others"),
                ("FlushPending=yes", "", "one client repeats a failing update"),
            ])

    def test_directories_and_the_tty_agree_with_the_code(self):
        self.holds(check_tmpfiles, "packaging/tmpfiles.conf", [
            ("/data/mcudumplog ", "/data/dumps ", "tmpfiles: d: /data/mcudumplog is missing"),
            ("z /proc/mcu/gpio_mcu_reset", "#", "tmpfiles: z: /proc/mcu/gpio_mcu_reset is missing"),
            ("2750 shd  sensors", "2755 shd  sensors", "/data/mcudumplog is open"),
            ("0220 root", "0222 root", "/proc/mcusleep/sleep is open"),
            ("w /proc/mcusleep/lpm", "w /proc/mcusleep/sleep", "tmpfiles: w: /proc/mcusleep/lpm"),
        ])
        self.holds(check_udev, "packaging/udev.rules", [
            ('KERNEL=="ttyHSL1"', 'KERNEL=="ttyHSL2"', 'udev: SUBSYSTEM=="tty", KERNEL=="ttyHSL1"'),
            ("OpenDevice", "OpenTty", "mcu_link/serial_port.cpp has no OpenTty"),
        ])

    def test_the_service_manager_finds_the_units_sound_and_confined(self):
        install = ("cmake", "--install", self.build, "--prefix", self.work, "--component", "runtime")
        done = subprocess.run(install, check=False, capture_output=True, text=True, umask=0o027)
        self.assertIn("umask 0027", done.stderr)
        self.run_tool(*install, umask=0o022)
        units = self.work / "lib/systemd/system"
        names = [str(units / f"{name}") for name in
                 ("shd.service", "shd-control.socket", "shd-data.socket")]
        done = subprocess.run(["systemd-analyze", "verify", "--man=no", *names], check=False,
                              capture_output=True, text=True, timeout=60)
        self.assertEqual((done.returncode, done.stdout + done.stderr), (0, ""))
        analyse = ("systemd-analyze", "security", "--offline=true", f"--threshold={MAX_EXPOSURE}")
        self.run_tool(*analyse, names[0])
        text = read(names[0])
        for line in re.findall(r"^\w+=yes\n", text, re.M):
            pathlib.Path(names[0]).write_text(text.replace(line, ""))
            self.assertEqual(subprocess.run([*analyse, names[0]], check=False, capture_output=True)
                             .returncode, 1, f"not missed: {line}")

    @unittest.skipIf(os.geteuid() != 0, "only root may give files away")
    def test_directories_and_control_files_get_their_owners(self):
        root = self.work
        (root / "etc").mkdir()
        (root / "data").mkdir(mode=0o711)  # of whoever else keeps something there
        for path in SYSTEM.control_files:
            (root / path[1:]).parent.mkdir(parents=True, exist_ok=True)
            (root / path[1:]).write_text("0")
        for tool, *options in (("sysusers",), ("tmpfiles", "--create")):
            (root / f"usr/lib/{tool}.d").mkdir(parents=True)
            (root / f"usr/lib/{tool}.d/shd.conf").write_text(read(f"packaging/{tool}.conf"))
            self.run_tool(f"systemd-{tool}", f"--root={root}", *options, "shd.conf")
        shd = int(re.search(r"^shd:x:(\d+):", (root / "etc/passwd").read_text(), re.M)[1])
        shd_group = int(re.search(r"^shd:x:(\d+):", (root / "etc/group").read_text(), re.M)[1])
        for path in SYSTEM.directories | SYSTEM.calibration | {PROPERTIES}:
            self.assertEqual(os.stat(root / path[1:]).st_uid, shd, path)
        for path in SYSTEM.control_files:
            status = os.stat(root / path[1:])
            self.assertEqual((status.st_gid, stat.S_IMODE(status.st_mode)), (shd_group, 0o220), path)
        self.assertEqual((root / SYSTEM.low_power[1:]).read_text(), "1")
        self.assertEqual(stat.S_IMODE(os.stat(root / "data").st_mode), 0o711)

    def test_each_socket_keeps_its_name_whatever_their_order(self):
        for order in (sorted(SYSTEM.sockets), sorted(SYSTEM.sockets, reverse=True)):
            given = self.run_tool(ROOT / "packaging/shd-activate", "env", env={
                **os.environ, "LISTEN_FDS": "2", "LISTEN_FDNAMES": ":".join(order)})
            self.assertEqual(sorted(re.findall("^(?:ANDROID_SOCKET|LISTEN)_.*", given, re.M)),
                             sorted(f"ANDROID_SOCKET_{n}={3 + i}" for i, n in enumerate(order)))


if __name__ == "__main__":
    Board.build = sys.argv.pop(1)
    unittest.main()
