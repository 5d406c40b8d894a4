"""Holds the units and the directories of a Linux board against the code, lets the service manager's
own tools judge them, and hands sockets over as it does. Called by ctest; needs no service manager."""

import os
import pathlib
import re
import socket
import stat
import subprocess
import sys
import tempfile
import time
import unittest

from project import ROOT, PackagingCase, System, compare, open_to_others, read, reasons

SYSTEM = System()
PROPERTIES = "/data/property"
REQUEST_BYTES = 80  # of an open request: its record, its node, what malloc adds
MAX_EXPOSURE = 30  # tenths, of systemd-analyze security
# What a unit grants; everything else in it only takes away.
GRANTS = ("DeviceAllow", "ReadWritePaths", "RestrictAddressFamilies", "LimitCORE", "LimitNOFILE",
          "TasksMax", "ProtectProc", "SystemCallFilter=@")


def settings(text):
    """(key, value, the comment above) of each setting."""
    comment, found = "", []
    for line in text.splitlines():
        if line.startswith("#"):
            comment += line
        else:
            key, _, value = line.partition("=")
            if value:
                found.append((key, value, comment))
            comment = ""
    return found


def check_service(text):
    complaints, found = [], settings(text)

    def values(key):
        return [v for k, value, _ in found if k == key for v in value.split()]
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
                      ("Restart", ["on-failure"])):
        if values(key) != want:
            complaints.append(f"shd.service: {key} is not {want}")
    most = int(re.search(r"kMaxOpenRequests = (\d+)", read("sockets/control_server.h"))[1])
    needed = int("".join(values("LimitNOFILE"))) * most * REQUEST_BYTES >> 20
    if int(values("MemoryMax")[0].removesuffix("M")) <= needed:
        complaints.append(f"shd.service: MemoryMax is below the {needed}M of all open requests")
    for key, value, comment in found:
        if f"{key}={value}".startswith(GRANTS):
            complaints += reasons(f"shd.service: {key}={value}", comment)
    return complaints


def check_socket(text):
    unit = {key: value for key, value, _ in settings(text)}
    name = unit.get("FileDescriptorName")
    complaints = compare("FileDescriptorName", [name], SYSTEM.sockets & {name} or {"a socket"})
    if unit.get("ListenStream") != f"/dev/socket/{name}":
        complaints.append(f"{name}: is not at /dev/socket/{name}")
    if unit.get("SocketGroup") != "sensors":
        complaints.append(f"{name}: is not of the clients' group")
    if unit.get("SocketMode") != "0660":
        complaints.append(f"{name}: is open to others")
    return complaints


def check_tmpfiles(text):
    lines = [line.split() for line in text.splitlines() if line and not line.startswith("#")]

    def paths(kind):
        return [line[1] for line in lines if line[0] == kind]
    complaints = compare("tmpfiles: d", set(paths("d")) - {"/data"},
                         SYSTEM.directories | SYSTEM.calibration | {PROPERTIES})
    complaints += compare("tmpfiles: z", paths("z"), SYSTEM.control_files)
    for line in lines:
        if line[0] == "z" or line[1].startswith(("/data/m", "/data/l", "/nv")):
            complaints += open_to_others(f"tmpfiles: {line[1]}", line[2])
    complaints += compare("tmpfiles: w", paths("w"), [SYSTEM.low_power])
    return complaints + reasons("tmpfiles", text)


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
        self.assertEqual(check_service(read(service)), [])
        self.breaks(check_service, service, [
            ("DeviceAllow=/dev/ttyHSL1", "DeviceAllow=/dev/ttyS1", "DeviceAllow: /dev/ttyHSL1 is"),
            ("Paths=/nvdata", "Paths=/nvram", "ReadWritePaths: /nvdata is missing"),
            ("Paths=/data/logdata", "Paths=/data", "ReadWritePaths: the code knows no /data"),
            ("After=shd-control", "After=shd-cntrl", "After: shd-control.socket is missing"),
            ("ExecStartPre=", "# ", "the low-power file is not given back"),
            ("ProtectProc=", "ProcSubset=", "ProcSubset hides the control files"),
            ("MemoryMax=128M", "MemoryMax=64M", "MemoryMax is below"),
            ("NOFILE=256", "NOFILE=2048", "MemoryMax is below"),
            ("ExitStatus=255", "ExitStatus=254", "RestartPreventExitStatus is not"),
            ("BoundingSet=", "BoundingSet=CAP_KILL", "CapabilityBoundingSet is not"),
            ("shd-data.socket\n# The dir", "\n# The dir", "Sockets: shd-data.socket is missing"),
            ("property_set\n", "a_property\n", "properties.cpp has no a_property"),
            ("# core/startup.cpp: SetCoreDumpLimit\n", "", "LimitCORE=infinity: names no code"),
        ])
        for unit in ("shd-control", "shd-data"):
            path = f"packaging/systemd/{unit}.socket"
            self.assertEqual(check_socket(read(path)), [])
            self.breaks(check_socket, path, [
                ("Name=shd", "Name=mcu", "FileDescriptorName: "),
                ("Stream=/dev/socket", "Stream=/run", "is not at /dev/socket"),
                ("Group=sensors", "Group=root", "is not of the clients' group"),
                ("0660", "0666", "is open to others"),
            ])

    def test_directories_agree_with_the_code(self):
        path = "packaging/tmpfiles.conf"
        self.assertEqual(check_tmpfiles(read(path)), [])
        self.breaks(check_tmpfiles, path, [
            ("/data/mcudumplog ", "/data/dumps ", "tmpfiles: d: /data/mcudumplog is missing"),
            ("z /proc/mcu/gpio_mcu_reset", "#", "tmpfiles: z: /proc/mcu/gpio_mcu_reset is missing"),
            ("2750 shd  sensors", "2755 shd  sensors", "tmpfiles: /data/mcudumplog: is open to others"),
            ("0220 root", "0222 root", "tmpfiles: /proc/mcusleep/sleep: is open to others"),
            ("w /proc/mcusleep/lpm", "w /proc/mcusleep/sleep", "tmpfiles: w: /proc/mcusleep/lpm"),
        ])

    def test_the_service_manager_finds_the_units_sound_and_confined(self):
        self.run_tool("cmake", "--install", self.build, "--prefix", self.work, "--component",
                      "runtime")
        units = self.work / "lib/systemd/system"
        names = [str(units / f"{name}") for name in
                 ("shd.service", "shd-control.socket", "shd-data.socket")]
        done = subprocess.run(["systemd-analyze", "verify", "--man=no", *names], check=False,
                              capture_output=True, text=True, timeout=60)
        self.assertEqual((done.returncode, done.stdout + done.stderr), (0, ""))
        self.run_tool("systemd-analyze", "security", "--offline=true",
                      f"--threshold={MAX_EXPOSURE}", names[0])

    @unittest.skipIf(os.geteuid() != 0, "only root may give files away")
    def test_directories_and_control_files_get_their_owners(self):
        root = self.work
        for path in SYSTEM.control_files:
            (root / path[1:]).parent.mkdir(parents=True, exist_ok=True)
            (root / path[1:]).write_text("0")
        for folder in ("etc", "usr/lib/sysusers.d", "usr/lib/tmpfiles.d"):
            (root / folder).mkdir(parents=True)
        for tool in ("sysusers", "tmpfiles"):
            (root / f"usr/lib/{tool}.d/shd.conf").write_text(read(f"packaging/{tool}.conf"))
        self.run_tool("systemd-sysusers", f"--root={root}", "shd.conf")
        self.run_tool("systemd-tmpfiles", f"--root={root}", "--create", "shd.conf")
        shd = int(re.search(r"^shd:x:(\d+):", (root / "etc/passwd").read_text(), re.M)[1])
        shd_group = int(re.search(r"^shd:x:(\d+):", (root / "etc/group").read_text(), re.M)[1])
        for path in SYSTEM.directories | SYSTEM.calibration | {PROPERTIES}:
            self.assertEqual(os.stat(root / path[1:]).st_uid, shd, path)
        for path in SYSTEM.control_files:
            status = os.stat(root / path[1:])
            self.assertEqual((status.st_gid, stat.S_IMODE(status.st_mode)), (shd_group, 0o220), path)
        self.assertEqual((root / SYSTEM.low_power[1:]).read_text(), "1")

    def test_each_socket_keeps_its_name_whatever_their_order(self):
        child = ("import os, socket\n"
                 "for name in sorted(os.environ):\n"
                 "    if name.startswith('ANDROID_SOCKET_'):\n"
                 "        print(name, socket.socket(fileno=int(os.environ[name])).getsockname())\n"
                 "    assert not name.startswith('LISTEN_')\n")
        for order in (sorted(SYSTEM.sockets), sorted(SYSTEM.sockets, reverse=True)):
            paths = {name: str(self.work / name) for name in order}
            listen = [f"--listen={paths[name]}" for name in order]
            with subprocess.Popen(
                    ["systemd-socket-activate", *listen, "--fdname=" + ":".join(order),
                     str(ROOT / "packaging/shd-activate"), sys.executable, "-c", child],
                    stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True) as launcher:
                self.addCleanup(launcher.kill)
                with socket.socket(socket.AF_UNIX) as client:
                    # A socket that is bound but not listening yet refuses.
                    while client.connect_ex(paths[order[-1]]) != 0:
                        self.assertIsNone(launcher.poll())
                        time.sleep(0.01)
                    output = launcher.communicate(timeout=60)[0]
            self.assertEqual(output.splitlines(), [f"ANDROID_SOCKET_{name} {paths[name]}"
                                                   for name in sorted(order)])
            for path in paths.values():
                os.unlink(path)


if __name__ == "__main__":
    Board.build = sys.argv.pop(1)
    unittest.main()
