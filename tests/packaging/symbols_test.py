"""The trace library offers the names that the Debian package promises, no fewer and no more, and each is declared in a
public header. When a function is added on purpose: a line in debian/libqtrace0.symbols. When one is taken away or
changed: a new version in SOVERSION and in the package's name.

    symbols_test.py LIBRARY NM READELF"""
import pathlib
import re
import subprocess
import sys
import unittest

ROOT = pathlib.Path(__file__).parents[2]
LIBRARY, NM, READELF = sys.argv[1:4]
HEADERS = ("qtrace/src/qtrace.h", "qtrace/lib/*.h")


def output_of(*command):
    return subprocess.run(command, stdout=subprocess.PIPE, text=True, check=True).stdout


class symbols(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.promise, *lines = (ROOT / "debian/libqtrace0.symbols").read_text().splitlines()
        cls.promised = {line.split("@")[0].strip() for line in lines}
        cls.offered = {line.split()[-1] for line in output_of(NM, "-D", "--defined-only", LIBRARY).splitlines()}

    def test_are_those_of_the_package(self):
        self.assertGreaterEqual(len(self.promised), 30)
        self.assertEqual(self.offered, self.promised)

    def test_are_declared_in_public_headers(self):
        headers = "".join(path.read_text() for pattern in HEADERS for path in ROOT.glob(pattern))
        for name in self.offered:
            self.assertRegex(headers, rf"\b{name}\(")

    def test_library_has_the_version_of_the_package(self):
        soname = re.search(r"SONAME.*\[(.*)\]", output_of(READELF, "-d", LIBRARY))[1]
        self.assertEqual(soname, "libqtrace.so.0")
        self.assertEqual(self.promise, f"{soname} libqtrace0 #MINVER#")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
