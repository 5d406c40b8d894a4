"""Reads Android.bp, shd.rc, the ueventd lines and the contexts as Android's own readers would and
holds them against the code. Called by ctest; needs no device."""

import json
import re
import sys
import unittest

from project import ROOT, PackagingCase, System, compare, open_to_others, read, reasons

SYSTEM = System()
DAEMON = "/system/bin/shd"
ID = r"[a-z_]\w*"
MODE = r"0[0-7]{3}"

# The options of a service and the commands of an action: arguments behind the word.
OPTIONS = {
    "class": ID, "user": ID, "group": rf"{ID}( {ID})*", "capabilities": r"([A-Z_]+( [A-Z_]+)*)?",
    "socket": rf"{ID} (stream|dgram|seqpacket) {MODE} {ID} {ID}",
    "rlimit": r"[a-z]+ (unlimited|\d+) (unlimited|\d+)", "restart_period": r"[1-9]\d*",
    "onrestart": r"(?P<command>.+)",
}
COMMANDS = {
    "mkdir": rf"/\S+ {MODE} {ID} {ID}", "chown": rf"{ID} {ID} /\S+", "chmod": rf"{MODE} /\S+",
    "write": r"/\S+ \S+",
}
STOPPED = "property:init.svc.shd=stopped"
TRIGGERS = {"post-fs-data", "boot", STOPPED}


class Rc:
    """An init file: .commands are (trigger, word, arguments), .options (word, arguments)."""

    def __init__(self, text):
        self.commands, self.options, self.complaints = [], [], []
        self.service, trigger = None, None
        for number, line in enumerate(text.splitlines(), 1):
            where, words = f"shd.rc:{number}", line.split("#")[0].split()
            if not words:
                continue
            if not line[0].isspace():
                trigger = words[1] if words[0] == "on" and words[1] in TRIGGERS else None
                if words[0] == "service":
                    self.service = words[1:]
                elif trigger is None:
                    self.complaints.append(f"{where}: unknown section {line}")
            elif trigger is not None:
                self.add(where, COMMANDS, words, self.commands, trigger)
            else:
                self.add(where, OPTIONS, words, self.options)
                if words[0] == "onrestart":
                    self.add(where, COMMANDS, words[1:], self.commands, "onrestart")

    def add(self, where, known, words, to, *prefix):
        arguments = " ".join(words[1:])
        if words[0] not in known:
            self.complaints.append(f"{where}: unknown word {words[0]}")
        elif not re.fullmatch(known[words[0]], arguments):
            self.complaints.append(f"{where}: {words[0]} does not take '{arguments}'")
        else:
            to.append((*prefix, words[0], arguments))

    def paths(self, command, position):
        return [arguments.split()[position] for _, word, arguments in self.commands
                if word == command]


def check_rc(text):
    rc = Rc(text)
    complaints = rc.complaints
    if rc.service != ["shd", DAEMON]:
        complaints.append(f"service: not shd in {DAEMON}")
    sockets = [arguments.split() for word, arguments in rc.options if word == "socket"]
    complaints += compare("socket", [s[0] for s in sockets], SYSTEM.sockets)
    complaints += [f"socket: {s[0]} is no stream" for s in sockets if s[1] != "stream"]
    for path, mode in [s[:3:2] for s in sockets] + [c[2].split()[:2][::step] for c in rc.commands
                       for word, step in (("mkdir", 1), ("chmod", -1)) if c[1] == word]:
        complaints += open_to_others(path, mode)
    complaints += compare("mkdir", rc.paths("mkdir", 0), SYSTEM.directories)
    complaints += compare("chown", rc.paths("chown", 2), SYSTEM.control_files)
    complaints += compare("chmod", rc.paths("chmod", 1), SYSTEM.control_files)
    for trigger in ("boot", "onrestart", STOPPED):
        if (trigger, "write", f"{SYSTEM.low_power} 1") not in rc.commands:
            complaints.append(f"{trigger}: the low-power file is not given back")
    complaints += compare("write", rc.paths("write", 0), {SYSTEM.low_power})
    options = dict(rc.options)
    for word in OPTIONS:
        if word not in options:
            complaints.append(f"service: no {word}")
    if len(options) + len(SYSTEM.sockets) - 1 != len(rc.options):
        complaints.append("service: an option twice")
    if (options.get("user"), options.get("capabilities")) != ("system", ""):
        complaints.append("service: more rights than those of the user system")
    if options.get("rlimit") != "core unlimited unlimited":
        complaints.append("service: SetCoreDumpLimit finds a limit")
    if int(options.get("restart_period", 0)) < 600:
        complaints.append("service: a failing update is repeated too often")
    complaints += [f"mkdir: {c[2]} before there is /data" for c in rc.commands
                   if c[1] == "mkdir" and c[0] != "post-fs-data"]
    complaints += [f"socket: {s[0]} is not of the clients' group" for s in sockets
                   if s[3:] != ["system", "system"]]
    return complaints + reasons("shd.rc", text)


def check_ueventd(text):
    lines = [line.split() for line in text.splitlines() if line and not line.startswith("#")]
    complaints = compare("ueventd", [line[0] for line in lines], {SYSTEM.uart})
    complaints += [f"ueventd: {line} is no PATH MODE USER GROUP" for line in lines
                   if not re.fullmatch(rf"/dev/\S+ {MODE} {ID} {ID}", " ".join(line))]
    for line in lines if not complaints else []:
        complaints += open_to_others("ueventd", line[1])
        if line[2:] != ["system", "system"]:
            complaints.append("ueventd: the daemon's user does not own the tty")
    return complaints + reasons("ueventd", text)


def check_contexts(files, genfs=None):
    genfs = read("android/sepolicy/private/genfs_contexts") if genfs is None else genfs
    declared = set(re.findall(r"^type (\w+)", read("android/sepolicy/private/types.te"), re.M))
    complaints, labels = [], []
    for name, text in (("file_contexts", files), ("genfs_contexts", genfs)):
        for line in text.splitlines():
            if not line or line.startswith("#"):
                continue
            match = re.fullmatch(r"(?:genfscon proc )?(/\S+)\s+u:object_r:(\w+):s0", line)
            if not match:
                complaints.append(f"{name}: not understood: {line}")
                continue
            path = "/proc" + match[1] + "/.*" if name == "genfs_contexts" else match[1]
            labels.append((name, path))
            if match[2] not in declared:
                complaints.append(f"{name}: nobody declares the type {match[2]}")
    paths = SYSTEM.owned() | {DAEMON}
    for name, pattern in labels:
        if not any(re.fullmatch(pattern, path) for path in paths):
            complaints.append(f"{name}: the code knows no {pattern}")
    for path in sorted(paths):
        if not any(re.fullmatch(pattern, path) for _, pattern in labels):
            complaints.append(f"contexts: {path} is missing")
    return complaints


def check_properties(text):
    prefixes, exact, complaints = [], [], []
    for line in filter(None, text.splitlines()):
        match = re.fullmatch(r"([\w.]+)\s+u:object_r:shd_prop:s0( exact string)?", line)
        if not match:
            complaints.append(f"property_contexts: not understood: {line}")
        else:
            (exact if match[2] else prefixes).append(match[1])
    for name in sorted(SYSTEM.properties):
        if name not in exact and not name.startswith(tuple(prefixes)):
            complaints.append(f"property_contexts: {name} is missing")
    for name in prefixes + exact:
        if not any(p == name or (name in prefixes and p.startswith(name))
                   for p in SYSTEM.properties):
            complaints.append(f"property_contexts: the code knows no {name}")
    return complaints


def check_rules(text):
    """Every rule of shd.te stands below a comment that names the code."""
    calls = "".join(read(path) for path in ("mcu_link/serial_port.cpp",
                                            "update_mcu/bootloader_link.cpp"))
    requests = {"tcflush": "TCFLSH", "tcgetattr": "TCGETS", "tcsetattr": "TCSETS"}
    complaints = compare("ioctl", re.search(r"ioctl \{ (T.*) \}", text)[1].split(),
                         [requests[call] for call in set(re.findall(r"\btc\w+", calls))
                          if call != "tcflag_t"])
    for block in re.split(r"\n\n+", text)[1:]:
        comment = " ".join(line for line in block.splitlines() if line.startswith("#"))
        rule = next(line for line in block.splitlines() if not line.startswith("#"))
        complaints += reasons(f"shd.te: '{rule}'", comment)
    return complaints


MODULES = {
    "cc_defaults": {"name", "cpp_std", "local_include_dirs", "cflags"},
    "cc_binary": {"name", "defaults", "srcs", "rtti", "shared_libs", "init_rc"},
    "cc_library_static": {"name", "defaults", "vendor_available", "host_supported", "srcs", "rtti",
                          "export_include_dirs"},
    "cc_test": {"name", "defaults", "host_supported", "device_supported", "srcs", "exclude_srcs",
                "local_include_dirs", "static_libs", "test_suites"},
}
TOKEN = re.compile(r'\s*(?://[^\n]*|("(?:[^"\\]|\\.)*")|([A-Za-z_]\w*)|([{}\[\]:,]))')


def parse_bp(text):
    """The modules as (type, properties). Raises ValueError."""
    tokens, at = [], 0
    text = text.rstrip()
    while at < len(text):
        match = TOKEN.match(text, at)
        if not match:
            raise ValueError(f"Android.bp: not understood: {text[at:at + 30]!r}")
        at = match.end()
        tokens += [token for token in match.groups() if token]
    tokens.reverse()

    def take(expected=None):
        token = tokens.pop() if tokens else "the end"
        if expected and token != expected:
            raise ValueError(f"Android.bp: {token} where {expected} should be")
        return token

    def value():
        token = take()
        if token == "[":
            items = []
            while tokens and tokens[-1] != "]":
                items.append(value())
                if tokens[-1:] != ["]"]:
                    take(",")
            take("]")
            return items
        if token in ("true", "false"):
            return token == "true"
        if not token.startswith('"'):
            raise ValueError(f"Android.bp: {token} is no value")
        return json.loads(token)

    modules = []
    while tokens:
        kind, properties = take(), {}
        take("{")
        while tokens and tokens[-1] != "}":
            key = take()
            take(":")
            if key in properties:
                raise ValueError(f"Android.bp: {key} twice")
            properties[key] = value()
            if tokens[-1:] != ["}"]:
                take(",")
        take("}")
        modules.append((kind, properties))
    return modules


def sources(module):
    def expand(patterns):
        return {str(path.relative_to(ROOT)) for pattern in patterns for path in ROOT.glob(pattern)}
    return expand(module["srcs"]) - expand(module.get("exclude_srcs", []))


def compiled(database, *patterns):
    """The sources of the ordinary build whose object file matches one of the patterns."""
    return {str((ROOT / entry["file"]).relative_to(ROOT)) for entry in database
            if any(pattern in entry["command"].split(" -o ")[1] for pattern in patterns)}


def check_bp(text, database):
    try:
        modules = parse_bp(text)
    except ValueError as error:
        return [str(error)]
    complaints, by_name = [], {}
    for kind, properties in modules:
        for key in sorted(set(properties) - MODULES.get(kind, set())):
            complaints.append(f"Android.bp: unknown property {key} of {kind}")
        by_name[properties.get("name")] = properties
    complaints += compare("Android.bp", by_name,
                          ["shd_defaults", "shd", "libshdclient", "shd_unit_tests"])
    if complaints:
        return complaints
    all_sources = compiled(database, "/")
    daemon = {s for s in all_sources
              if not s.startswith(("tools/", "tests/", "bench/", "platform/host/"))}
    complaints += compare("shd", sources(by_name["shd"]), daemon)
    headers = set(re.findall(r"#include <(android|cutils|utils)/", "".join(map(read, daemon))
                             + read("platform/log.h")))
    libraries = {"android": "liblog", "cutils": "libcutils", "utils": "libutils"}
    complaints += compare("shd: shared_libs", by_name["shd"].get("shared_libs", []),
                          [libraries[name] for name in headers])
    complaints += compare("libshdclient", sources(by_name["libshdclient"]),
                          {s for s in all_sources if s.startswith("tools/client/")})
    tests = compiled(database, "/shd_unit_tests.dir/", "/shd_test_support.dir/")
    complaints += compare("shd_unit_tests", sources(by_name["shd_unit_tests"]),
                          tests | daemon - {"core/main.cpp", "platform/time_posix.cpp"})
    for name, module in by_name.items():
        for path in module.get("init_rc", []):
            if not (ROOT / path).is_file():
                complaints.append(f"{name}: there is no {path}")
    return complaints


class Android(PackagingCase):
    database = []

    def test_shd_rc(self):
        self.assertEqual(check_rc(read("android/shd.rc")), [])
        self.breaks(check_rc, "android/shd.rc", [
            ("restart_period", "restart_after", "unknown word restart_after"),
            ("on boot", "on the-beach", "unknown section on the-beach"),
            ("0770 system", "770 system", "mkdir does not take"),
            ("mkdir /data/mcudumplog", "mkdir /data/mcudump", "mkdir: /data/mcudumplog is missing"),
            ("mkdir /data/logdata ", "mkdir /data/else ", "mkdir: the code knows no /data/else"),
            ("chmod 0220 /proc/mcu/gpio_mcu_reset\n", "\n", "chmod: /proc/mcu/gpio_mcu_reset is"),
            ("shddata stream 0660", "shddata stream 0666", "shddata: is open to others"),
            ("0220 /proc/mcusleep/lpm", "0222 /proc/mcusleep/lpm", "lpm: is open to others"),
            ("0770 system system\n\n", "0777 system system\n\n", "sensor: is open to others"),
            ("user system", "user root", "more rights than those of the user system"),
            ("capabilities\n", "capabilities SYS_RAWIO\n", "more rights than those of the user"),
            ("    class main", "    user root\n    class main", "an option twice"),
            ("core unlimited", "nofile unlimited", "SetCoreDumpLimit finds a limit"),
            ("period 600", "period 5", "a failing update is repeated too often"),
            ("on post-fs-data", "on boot", "mkdir: /data/mcudumplog 0770 system system before"),
            ("0660 system system", "0660 root root", "socket: shdctl is not of the clients' group"),
            ("svc.shd=stopped", "svc.hub=stopped", "unknown section on property:init.svc.hub"),
            ("socket shdctl", "socket shdcontrol", "socket: shdctl is missing"),
            ("onrestart write", "# onrestart write", "onrestart: the low-power file is not given"),
            ("wake.cpp: Sensor", "wake.cpp: Sensors", "wake.cpp has no SensorsWake"),
        ])

    def test_ueventd(self):
        self.assertEqual(check_ueventd(read("android/ueventd.shd.rc")), [])
        self.breaks(check_ueventd, "android/ueventd.shd.rc", [
            ("/dev/ttyHSL1 ", "/dev/ttyHSL2 ", "ueventd: /dev/ttyHSL1 is missing"),
            ("0660", "rw", "is no PATH MODE USER GROUP"),
            ("0660", "0666", "ueventd: is open to others"),
            ("system ", "root ", "the daemon's user does not own the tty"),
        ])

    def test_contexts(self):
        path = "android/sepolicy/private/file_contexts"
        self.assertEqual(check_contexts(read(path)), [])
        self.breaks(check_contexts, path, [
            ("/dev/socket/shdctl ", "/dev/socket/shd ", "contexts: /dev/socket/shdctl is missing"),
            ("/nvdata(", "/nvram(", "contexts: /nvdata/BARO is missing"),
            ("mcu\\.bin", "mcu\\.img", "file_contexts: the code knows no /system/bin/mcu\\.img"),
            ("shd_dump_file", "shd_dumps", "nobody declares the type shd_dumps"),
            ("u:object_r:shd_exec", "object_r:shd_exec", "not understood"),
        ])
        genfs = "android/sepolicy/private/genfs_contexts"
        self.breaks(lambda text: check_contexts(read(path), text), genfs, [
            ("/mcusleep ", "/mcuwake ", "contexts: /proc/mcusleep/lpm is missing"),
        ])
        path = "android/sepolicy/private/property_contexts"
        self.assertEqual(check_properties(read(path)), [])
        self.breaks(check_properties, path, [
            ("mcu.version", "mcu.release", "persist.mcu.version is missing"),
            ("velmar.shd.", "velmar.shd.x.", "the code knows no persist.velmar.shd.x."),
            ("exact string", "exactly", "not understood"),
        ])

    def test_every_rule_names_the_code_that_needs_it(self):
        self.assertEqual(check_rules(read("android/sepolicy/private/shd.te")), [])
        self.breaks(check_rules, "android/sepolicy/private/shd.te", [
            ("OpenImage", "OpenFirmware", "update_mcu/firmware_image.cpp has no OpenFirmware"),
            ("TCSETS TCFLSH", "TCFLSH", "ioctl: TCSETS is missing"),
            ("# update_mcu/gpio.cpp: ", "# for the lines, ", "names no code that needs it"),
        ])

    def test_android_bp(self):
        def check(text):
            return check_bp(text, self.database)
        self.assertEqual(check(read("Android.bp")), [])
        self.breaks(check, "Android.bp", [
            ("cpp_std", "cxx_std", "unknown property cxx_std of cc_defaults"),
            ('"sockets/*.cpp",', "", "shd: sockets/control_server.cpp is missing"),
            ('"platform/*.cpp"', '"platform/**/*.cpp"', "shd: the code knows no platform/host/"),
            ("exclude_srcs", "include_srcs", "unknown property include_srcs of cc_test"),
            ("tests/unit/core_test", "tests/unit/main_test", "tests/unit/core_test.cpp is missing"),
            ("android/shd.rc", "android/init.rc", "there is no android/init.rc"),
            ("rtti: false,", "rtti: ,", "is no value"),
            ('"liblog",', "", "shd: shared_libs: liblog is missing"),
            ('"libutils",\n    ],', '"libutils",\n', "init_rc is no value"),
        ])


if __name__ == "__main__":
    with open(sys.argv.pop(1), encoding="utf-8") as file:
        Android.database = json.load(file)
    unittest.main()
