"""How the package finds the library, and what it believes about it."""
import os
import pathlib
import re
from unittest import mock

import traced_streams
from traced_streams import PROGRAMS, ROOT, InFolder

from qtrace import _library

HEADER = (ROOT / "qtrace/lib/qtrace_columns.h").read_text()


class Library(InFolder):
    # ---- Where it is ----

    def candidates(self, package, **environment):
        with mock.patch.object(_library, "__file__", str(package / "_library.py")), mock.patch.dict(os.environ, environment):
            return list(_library.candidates())

    def test_the_named_library_is_the_only_one(self):
        self.assertEqual(self.candidates(pathlib.Path("/a/qtrace"), QTRACE_LIBRARY="/x/y.so"), ["/x/y.so"])

    def test_libraries_of_the_build_come_before_those_of_the_installed_tree_and_the_system(self):
        prefix = self.folder.resolve() / "usr"
        for name in ("lib/libqtrace.so", "lib/libqtrace.so.0", "lib/machine/libqtrace.so.0", "lib64/libqtrace.so.0", "lib/libqtrace.so.1"):
            path = prefix / name
            path.parent.mkdir(parents=True, exist_ok=True)
            path.touch()
        package = prefix / "lib/python3/dist-packages/qtrace"
        package.mkdir(parents=True)
        self.assertEqual(self.candidates(package, QTRACE_LIBRARY=""), [
            str(prefix / "lib/python3/build/release/bin/libqtrace.so"), str(prefix / "lib/libqtrace.so.0"),
            str(prefix / "lib64/libqtrace.so.0"), str(prefix / "lib/machine/libqtrace.so.0"), str(prefix / "lib/libqtrace.so"),
            "libqtrace.so.0", "libqtrace.so",
        ])  # fmt: skip
        self.assertEqual(self.candidates(pathlib.Path("/qtrace"), QTRACE_LIBRARY="")[-2:], ["libqtrace.so.0", "libqtrace.so"])

    def test_the_first_library_that_loads_is_taken(self):
        places = ["/nowhere/libqtrace.so", str(PROGRAMS / "libqtrace.so"), "/nowhere/else.so"]
        with mock.patch.object(_library, "candidates", lambda: iter(places)):
            library = _library.load()
        self.assertEqual(library._name, places[1])
        self.assertEqual(library.qtrace_kind_name.argtypes, [_library.c_uint32])
        self.assertEqual(library.qtrace_kind_name.restype, _library.c_char_p)
        with mock.patch.object(_library, "candidates", lambda: iter([places[0], places[2]])):
            with self.assertRaisesRegex(ImportError, r"QTRACE_LIBRARY may name it \(/nowhere/lib.*; /nowhere/else.*\)"):
                _library.load()

    # ---- What it is like ----

    def test_columns_have_the_bits_of_the_header(self):
        bits = {name.lower(): 1 << int(bit) for name, bit in re.findall(r"QTRACE_COLUMN_(\w+) = 1 << (\d+)", HEADER)}
        self.assertEqual(len(bits), 18)
        self.assertEqual(_library.COLUMN_BITS, bits)

    def test_constants_are_those_of_the_header(self):
        self.assertEqual(_library.MAX_REGISTERS, int(re.search(r"#define QTRACE_MAX_REGISTERS (\d+)", HEADER)[1]))
        self.assertEqual(_library.NO_CONTEXT, (1 << 32) - 1)
        classes = re.findall(r"QTRACE_CLASS_(\w+) = (\d)", HEADER)
        self.assertEqual([(name.upper(), str(i)) for i, name in enumerate(_library.REGISTER_CLASSES)], classes)

    def test_kinds_are_bits(self):
        names = ("load", "store", "branch", "taken", "string", "call", "return", "system_call", "cache", "error")
        self.assertEqual(_library.KIND_BITS, {name: 1 << bit for bit, name in enumerate(names)})

    def test_images_have_the_sizes_of_their_structures(self):
        self.assertEqual((_library.HEADER_SIZE, _library.Item.header.size, _library.Item.record.size), (368, 368, 2936))
        self.assertEqual(_library.Item.discontinuity.offset, 8 + 368 + 2936)

    # ---- Calls ----

    def test_an_error_is_raised_with_its_reason(self):
        reader = _library.Reader.__new__(_library.Reader)
        reader.name, reader.handle = "trace0", None
        with mock.patch.object(_library, "LIBRARY") as library:
            for text, told in ((b"why", "^why$"), (b"", "^trace0: out of memory$")):
                library.qtrace_error.return_value = text
                with self.assertRaisesRegex(OSError, told):
                    reader.checked(4)
        self.assertEqual([reader.checked(kind) for kind in (0, 1, 2, 3)], [0, 1, 2, 3])

    def test_a_closed_reader_may_be_closed_again(self):
        for name, error in ((self.folder / "nothing", FileNotFoundError), (ROOT / "README.md", OSError)):
            with self.assertRaises(error):
                _library.Reader(name)
        reader = _library.Reader(ROOT / "tests/golden/format/several-blocks.trace")
        self.assertEqual([reader.seek(record) for record in (0, 7, 8, 1 << 63)], [True, True, False, False])
        self.assertEqual([(block.first_record, block.records) for block in reader.blocks()], [(0, 2), (2, 2), (4, 2), (6, 2)])
        reader.close()
        reader.close()
        self.assertIsNone(reader.handle)

    def test_memory_that_is_not_there_is_an_error(self):
        with mock.patch.object(_library, "LIBRARY") as library:
            library.qtrace_translations_new.return_value = None
            with self.assertRaises(MemoryError):
                _library.Translations()


if __name__ == "__main__":
    traced_streams.main()
