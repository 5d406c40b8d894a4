"""Reads Android.bp, shd.rc, the ueventd lines and the contexts as Android's own readers would and
holds them against the code. Called by ctest; needs no device."""

import json
import re
import sys
import unittest

from project import ROOT, PackagingCase, System, compare, content, read, reasons

SYSTEM = System()
DAEMON = "/system/bin/shd"
SERVICE = f"service shd {DAEMON}"
SECTIONS = {"on post-fs-data", "on boot", "on property:init.svc.shd=stopped", SERVICE}
# The options of a service and the commands of an action, and what is right behind the word.
OPTIONS = {
    "class": "main", "user": "system", "group": "system", "capabilities": "",
    "socket": r"\w+ stream 0660 system system", "rlimit": "core unlimited unlimited",
    "restart_period": r"[6-9]\d\d|\d{4,}",  # a failing update is repeated as often
}
COMMANDS = {"mkdir": r"/\S+ 0770 system system", "chown": r"system system /\S+",
            "chmod": r"0220 /\S+", "write": r"/\S+ 1", "restorecon_recursive": r"/\S+"}


def check_rc(text):
    section, found, complaints = None, {}, []  # found: (section, word) to the lines' arguments
    for line in text.splitlines():
        words = line.split("#")[0].split()
        if line[:1].strip() and words:
            section = " ".join(words)
            complaints += compare("section", {section} - SECTIONS, [])
        elif words:
            where, known = section, OPTIONS if section == SERVICE else COMMANDS
            if words[0] == "onrestart":
                where, known = words.pop(0), COMMANDS
            word, arguments = words[0], " ".join(words[1:])
            if not re.fullmatch(known.get(word, "(?!)"), arguments):
                complaints.append(f"{section}: does not take '{word} {arguments}'")
            found.setdefault((where, word), []).append(arguments)

    def paths(section, word, position):
        return [arguments.split()[position] for arguments in found.get((section, word), [])]
    complaints += compare("socket", paths(SERVICE, "socket", 0), SYSTEM.sockets)
    complaints += compare("mkdir", paths("on post-fs-data", "mkdir", 0), SYSTEM.directories)
    complaints += compare("restorecon", paths("on post-fs-data", "restorecon_recursive", 0),
                          SYSTEM.calibration)
    complaints += compare("chown", paths("on boot", "chown", 2), SYSTEM.control_files)
    complaints += compare("chmod", paths("on boot", "chmod", 1), SYSTEM.control_files)
    for section in ("on boot", "onrestart", "on property:init.svc.shd=stopped"):
        complaints += compare(f"{section}: write", paths(section, "write", 0), {SYSTEM.low_power})
    complaints += compare("option", [w for s, w in found if s == SERVICE], OPTIONS)
    complaints += [f"{word} twice" for (section, word), lines in found.items()
                   if section == SERVICE and len(lines) > 1 and word != "socket"]
    return complaints + reasons("shd.rc", text, "(?!on |service|class|capabilities$|restart_period)")


def check_ueventd(text):
    complaints = [] if [line.split() for line in content(text)] == [
        [SYSTEM.uart, "0660", "system", "system"]] else ["ueventd: not the tty for its user alone"]
    return complaints + reasons("ueventd", text)


# What a line looks like, the pattern that it labels by, and what has to be labelled.
CONTEXTS = {
    "file_contexts": (r"(/\S+)\s+u:object_r:(\w+):s0", lambda match: match[1],
                      SYSTEM.owned() - SYSTEM.control_files | {DAEMON}),
    "genfs_contexts": (r"genfscon proc (/\S+) u:object_r:(\w+):s0",
                       lambda match: f"/proc{match[1]}/.*", SYSTEM.control_files),
    "property_contexts": (r"([\w.]+)\s+u:object_r:(\w+):s0( exact string)?",
                          lambda match: re.escape(match[1]) + ("" if match[3] else ".*"),
                          SYSTEM.properties),
}


def check_contexts(name, text):
    syntax, labelled, names = CONTEXTS[name]
    declared = set(re.findall(r"^type (\w+)", read("android/sepolicy/private/types.te"), re.M))
    complaints, patterns = [], []
    for line in content(text):
        match = re.fullmatch(syntax, line)
        if not match:
            complaints.append(f"{name}: not understood: {line}")
            continue
        patterns.append(labelled(match))
        complaints += compare(name, {match[2]} - declared, [])
    def any_matches(pairs):
        return any(re.fullmatch(pattern, path) for pattern, path in pairs)
    return complaints + compare(
        name, {n for n in names if any_matches((p, n) for p in patterns)} |
        {p for p in patterns if not any_matches((p, n) for n in names)}, names)


def check_rules(text):
    """Every rule of shd.te stands below a comment that names the code."""
    calls = read("mcu_link/serial_port.cpp") + read("update_mcu/bootloader_link.cpp")
    requests = {"tcflush": "TCFLSH", "tcgetattr": "TCGETS", "tcsetattr": "TCSETS"}
    return compare("ioctl", re.search(r"ioctl \{ (T.*) \}", text)[1].split(),
                   [requests[call] for call in re.findall(r"\btc(?!flag_t)\w+", calls)]
                   ) + reasons("shd.te", text, "(?!type )")


MODULES = {
    "cc_defaults": {"name", "cpp_std", "local_include_dirs", "cflags"},
    "cc_binary": {"name", "defaults", "srcs", "rtti", "shared_libs", "init_rc"},
    "cc_library_static": {"name", "defaults", "vendor_available", "host_supported", "srcs", "rtti",
                          "export_include_dirs"},
    "cc_test": {"name", "defaults", "host_supported", "device_supported", "srcs", "exclude_srcs",
                "local_include_dirs", "ldflags", "test_suites"},
}


def parse_bp(text):
    """The modules as (type, properties), by way of JSON. Raises ValueError."""
    def once(pairs):
        if len(dict(pairs)) < len(pairs):
            raise ValueError(f"a property twice: {pairs}")
        return dict(pairs)
    for pattern, new in ((r"//[^\n]*", ""), (r",(\s*[]}])", r"\1"), (r"(\w+):", r'"\1":'),
                         (r"^(\w+) \{", r'["\1", {'), (r"^\}", "}],")):
        text = re.sub(pattern, new, text, flags=re.M)
    return json.loads(f"[{text.strip().removesuffix(',')}]", object_pairs_hook=once)


def sources(module):
    def expand(patterns):
        return {str(path.relative_to(ROOT)) for pattern in patterns for path in ROOT.glob(pattern)}
    return expand(module["srcs"]) - expand(module.get("exclude_srcs", []))


def compiled(database, *patterns):
    """The sources of the ordinary build whose object file matches one of the patterns; what the build
    itself writes, as shdtool's page, is none."""
    return {str((ROOT / entry["file"]).relative_to(ROOT)) for entry in database
            if not entry["file"].startswith(entry["directory"])
            and any(pattern in entry["command"].split(" -o ")[1] for pattern in patterns)}


def check_bp(text, database):
    try:
        modules = parse_bp(text)
    except ValueError as error:
        return [f"Android.bp: {error}"]
    by_name = {properties.get("name"): properties for _, properties in modules}
    complaints = compare("Android.bp", by_name,
                         ["shd_defaults", "shd", "libshdclient", "shd_unit_tests"])
    for kind, properties in modules:
        complaints += compare(kind, set(properties) - MODULES.get(kind, set()), [])
    if complaints:
        return complaints
    all_sources = compiled(database, "/")
    daemon = {s for s in all_sources
              if not s.startswith(("tools/", "tests/", "bench/", "platform/host/"))}
    headers = set(re.findall(r"#include <(android|cutils|utils)/", "".join(map(read, daemon))
                             + read("platform/log.h")))
    libraries = {"android": "liblog", "cutils": "libcutils", "utils": "libutils"}
    tests = compiled(database, "/shd_unit_tests.dir/", "/shd_test_support.dir/")
    for what, have, want in (
            ("shd", sources(by_name["shd"]), daemon),
            ("libshdclient", sources(by_name["libshdclient"]),
             {s for s in all_sources if s.startswith("tools/client/")}),
            ("shd_unit_tests", sources(by_name["shd_unit_tests"]),
             tests | daemon - {"core/main.cpp", "platform/time_posix.cpp"}),
            ("ldflags", by_name["shd_unit_tests"].get("ldflags", []),
             {f"-Wl,--wrap={name}" for name in re.findall(r"\b__wrap_(\w+)\(",
                                                          read("tests/support/platform.cpp"))}),
            ("shared_libs", by_name["shd"].get("shared_libs", []), [libraries[h] for h in headers]),
            ("flag", [f"{name} {key}: {value}" for name, module in by_name.items()
                      for key, value in module.items() if isinstance(value, bool)],
             ["shd rtti: False", "libshdclient rtti: False", "libshdclient vendor_available: True",
              "libshdclient host_supported: True", "shd_unit_tests host_supported: True",
              "shd_unit_tests device_supported: False"]),
            ("init_rc", by_name["shd"].get("init_rc", []), ["android/shd.rc"])):
        complaints += compare(what, have, want)
    return complaints


class Android(PackagingCase):
    database = []

    def test_shd_rc(self):
        self.holds(check_rc, "android/shd.rc", [
            ("restart_period", "restart_after", "does not take 'restart_after 600'"),
            ("period 600", "period 5", "does not take 'restart_period 5'"),
            ("on boot", "on the-beach", "section: the code knows no on the-beach"),
            ("mkdir /data/mcudumplog", "mkdir /data/mcudump", "mkdir: /data/mcudumplog is missing"),
            ("on post-fs-data", "on boot", "mkdir: /data/mcudumplog is missing"),
            ("    restorecon_recursive /nvdata", "", "restorecon: /nvdata is missing"),
            ("chmod 0220 /proc/mcu/gpio_mcu_reset\n", "\n", "chmod: /proc/mcu/gpio_mcu_reset is"),
            ("chown system system /proc/mcusleep/lpm", "", "chown: /proc/mcusleep/lpm is missing"),
            ("0220 /proc/mcusleep/lpm", "0222 /proc/mcusleep/lpm", "does not take 'chmod 0222"),
            ("    class main", "    user system\n    class main", "user twice"),
            ("    capabilities\n", "", "option: capabilities is missing"),
            ("socket shdctl", "socket shdcontrol", "socket: shdctl is missing"),
            ("onrestart write", "# onrestart write", "onrestart: write: /proc/mcusleep/lpm is"),
            ("wake.cpp: Sensor", "wake.cpp: Sensors", "wake.cpp has no SensorsWake"),
        ])

    def test_ueventd(self):
        self.holds(check_ueventd, "android/ueventd.shd.rc", [
            ("0660", "0666", "not the tty for its user alone"),
            ("OpenUart", "OpenTty", "bootloader_link.cpp has no OpenTty"),
        ])

    def test_contexts(self):
        for name, rows in (
                ("file_contexts", [
                    ("/dev/socket/shdctl ", "/dev/socket/shd ", "/dev/socket/shdctl is missing"),
                    ("mcu\\.bin", "mcu\\.img", "the code knows no /system/bin/mcu\\.img"),
                    ("shd_dump_file", "shd_dumps", "the code knows no shd_dumps"),
                    ("u:object_r:shd_exec", "object_r:shd_exec", "not understood")]),
                ("genfs_contexts", [("/mcusleep ", "/mcuwake ", "/proc/mcusleep/lpm is missing")]),
                ("property_contexts", [
                    ("mcu.version", "mcu.release", "persist.mcu.version is missing"),
                    ("velmar.shd.", "velmar.shd.x.", "the code knows no persist\\.velmar\\.shd\\.x"),
                    ("exact string", "exactly", "not understood")])):
            self.holds(lambda text, name=name: check_contexts(name, text),
                       f"android/sepolicy/private/{name}", rows)

    def test_every_rule_names_the_code_that_needs_it(self):
        self.holds(check_rules, "android/sepolicy/private/shd.te", [
            ("OpenImage", "OpenFirmware", "update_mcu/firmware_image.cpp has no OpenFirmware"),
            ("TCSETS TCFLSH", "TCFLSH", "ioctl: TCSETS is missing"),
            ("# update_mcu/gpio.cpp: ", "# for the lines, ", "names no code that needs it"),
        ])

    def test_android_bp(self):
        self.holds(lambda text: check_bp(text, self.database), "Android.bp", [
            ("cpp_std", "cxx_std", "cc_defaults: the code knows no cxx_std"),
            ('"sockets/*.cpp",', "", "shd: sockets/control_server.cpp is missing"),
            ('"platform/*.cpp"', '"platform/**/*.cpp"', "shd: the code knows no platform/host/"),
            ("tests/unit/core_test", "tests/unit/main_test", "tests/unit/core_test.cpp is missing"),
            ("android/shd.rc", "android/init.rc", "init_rc: android/shd.rc is missing"),
            ("rtti: false,", "", "flag: shd rtti: False is missing"),
            ("wrap=open", "wrap=close", "ldflags: -Wl,--wrap=open is missing"),
            ("rtti: false,", "rtti: ,", "Expecting value"),
            ("rtti: false,", "rtti: false, rtti: true,", "a property twice"),
            ('"liblog",', "", "shared_libs: liblog is missing"),
        ])


if __name__ == "__main__":
    with open(sys.argv.pop(1), encoding="utf-8") as file:
        Android.database = json.load(file)
    unittest.main()
