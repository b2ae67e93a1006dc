"""Every test has a name of its own that any terminal shows: no control character, no bytes of a structure in memory.

    test_names_test.py CTEST BUILD"""
import collections
import subprocess
import sys
import unittest

CTEST, BUILD = sys.argv[1:3]


class test_names(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        listed = subprocess.run([CTEST, "--test-dir", BUILD, "-N"], stdout=subprocess.PIPE, check=True).stdout
        cls.names = [line.split(b": ", 1)[1] for line in listed.splitlines() if b"Test " in line and b": " in line]

    def test_are_printable(self):
        self.assertGreater(len(self.names), 500)
        for name in self.names:
            self.assertTrue(all(0x20 <= byte <= 0x7E for byte in name), name)
            self.assertNotIn(b"-byte object <", name)

    def test_are_unique(self):
        self.assertEqual([name for name, count in collections.Counter(self.names).items() if count > 1], [])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
