"""What the packaging has to agree with: the names in protocol/system.h, the code that a permission
is given for, and a test case that breaks a file on purpose. Used by the tests beside it."""

import functools
import pathlib
import re
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]


def read(path):
    return (ROOT / path).read_text()


class System:
    """The names of protocol/system.h, sorted by what they name."""

    def __init__(self):
        names = dict(re.findall(r'inline constexpr char k(\w+)\[\] = "([^"]*)";',
                                read("protocol/system.h")))
        self.sockets = {v for k, v in names.items() if k.endswith("SocketName")}
        self.properties = {v for k, v in names.items() if k.endswith("Property")}
        self.directories = {v.rstrip("/") for k, v in names.items() if k.endswith("Dir")}
        self.files = {v for k, v in names.items() if k.endswith("Path")}
        self.control_files = {v for v in self.files if v.startswith("/proc/")}
        self.low_power = names["McuLowPowerPath"]
        self.uart = names["UartPath"]
        self.image = names["FirmwareImagePath"]
        # Calibration lies in a directory that the hub shares with others, usually a partition.
        self.calibration = {str(pathlib.PurePath(v).parent) for v in self.files if "nvdata" in v}
        sorted_names = (self.sockets | self.properties | self.directories | self.files |
                        {names["DumpName"], names["DumpBase64Name"]})
        unsorted = set(v.rstrip("/") for v in names.values()) - sorted_names
        assert not unsorted, f"protocol/system.h: of no known kind: {unsorted}"

    def owned(self):
        """Every path that the daemon opens, sockets included."""
        return self.files | self.directories | {f"/dev/socket/{name}" for name in self.sockets}


def compare(what, have, want):
    """One complaint for each member of the one set that the other lacks."""
    have, want = set(have), set(want)
    return ([f"{what}: {name} is missing" for name in sorted(want - have)] +
            [f"{what}: the code knows no {name}" for name in sorted(have - want)])


def content(text):
    """The lines that are neither empty nor a comment."""
    return [line.strip() for line in text.splitlines() if not re.match(r"\s*(#|$)", line)]


REASON = re.compile(r"([\w/]+\.(?:cpp|h|rc)): (\w+(?:, \w+)*)")


@functools.cache
def code(path):
    return read(path) if (ROOT / path).is_file() else ""


def reasons(where, text, grants=""):
    """Complaints about the lines that match grants: above each, with neither an empty line nor another
    comment between, stands a comment that names the code that needs it, and that code is there."""
    complaints, comment, last = [], "", ""
    for line in map(str.strip, text.splitlines()):
        if line.startswith("#"):
            comment = (comment if last.startswith("#") else "") + line + " "
        elif not line:
            comment = ""
        elif re.match(grants, line):
            found = REASON.findall(comment)
            if not found:
                complaints.append(f"{where}: '{line}' names no code that needs it")
            complaints += [f"{where}: {path} has no {name}" for path, names in found
                           for name in names.split(", ")
                           if not re.search(rf"\b{name}\b", code(path))]
        last = line
    return complaints


class PackagingCase(unittest.TestCase):
    def holds(self, check, path, rows):
        """The file is right, and each row (old text, new text, complaint) a fault that check names."""
        text = read(path)
        self.assertEqual(check(text), [])
        for old, new, complaint in rows:
            with self.subTest(fault=complaint):
                self.assertIn(old, text)
                complaints = check(text.replace(old, new, 1))
                self.assertTrue(any(complaint in c for c in complaints),
                                f"wanted '{complaint}', got {complaints}")
