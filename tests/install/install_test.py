"""Installs the build into a folder, moves it, and works with what is there: traces a stream with the installed replay
and plugin, builds a C reader by pkg-config and a C++ reader by find_package, and runs all on the trace.

    install_test.py BUILD CMAKE GENERATOR C_COMPILER CXX_COMPILER PKG_CONFIG"""
import json
import os
import pathlib
import re
import shlex
import subprocess
import sys
import tempfile
import unittest

HERE = pathlib.Path(__file__).parent
SAMPLE = HERE.parents[1] / "streams/sample.jsonl"
BUILD, CMAKE, GENERATOR, CC, CXX, PKG_CONFIG = sys.argv[1:7]
ENVIRONMENT = {name: value for name, value in os.environ.items() if name not in ("LD_LIBRARY_PATH", "PYTHONPATH")}


class installed_tree(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.work = pathlib.Path(folder.name)
        cls.run_in_work(CMAKE, "--install", BUILD, "--prefix", cls.work / "first")
        cls.tree = (cls.work / "first").rename(cls.work / "moved")
        cls.library = next(cls.tree.glob("**/libqtrace.so")).parent
        cls.trace_the_sample()

    @classmethod
    def run_in_work(cls, *command, **environment):
        run = subprocess.run(list(map(str, command)), cwd=cls.work, env=ENVIRONMENT | environment, text=True,
                             capture_output=True)  # fmt: skip
        assert run.returncode == 0, f"{command}: {run.stdout}{run.stderr}"
        return run.stdout

    @classmethod
    def trace_the_sample(cls):
        plugin = pathlib.Path(cls.variable("plugindir")) / "plugin_qtbin.so"
        signal = "plugin signal plugin_qtbin.so"
        script = f'plugin load "{plugin}"\n{signal} start trace\nrun\n{signal} stop\n'
        (cls.work / "console").write_text(script)
        cls.run_in_work(cls.tree / "bin/replay", "-e", SAMPLE, "console")

    @classmethod
    def pkg_config(cls, *options):
        return cls.run_in_work(PKG_CONFIG, *options, "qtrace", PKG_CONFIG_PATH=str(cls.library / "pkgconfig"))

    @classmethod
    def variable(cls, name):
        return cls.pkg_config(f"--variable={name}").strip().replace("\\ ", " ")  # it is printed for a shell

    def test_tools_read_the_trace_that_the_installed_plugin_wrote(self):
        [info] = map(json.loads, self.run_in_work(self.tree / "bin/qtrace", "info", "--json", "trace0").splitlines())
        self.assertEqual(info["records"], 2000)

    def test_programs_are_bound_to_the_installed_library(self):
        for program in ("qtrace", "replay"):
            bound = self.run_in_work("ldd", self.tree / "bin" / program)
            self.assertIn(str(self.library.name), bound)
            self.assertNotIn(BUILD, bound)
            self.assertIn(str(self.work), bound)

    def test_a_c_reader_builds_with_pkg_config(self):
        flags = shlex.split(self.pkg_config("--cflags", "--libs"))
        self.run_in_work(CC, "-std=c11", "-Wall", "-Werror", HERE / "count_records.c", *flags, "-o", "count_records")
        counted = self.run_in_work("./count_records", "trace0", LD_LIBRARY_PATH=str(self.library))
        self.assertEqual(counted, "1 headers, 2000 records, 0 discontinuities\n")

    def test_a_cpp_reader_builds_with_find_package(self):
        self.run_in_work(CMAKE, "-G", GENERATOR, "-S", HERE / "package", "-B", "package",
                         f"-DCMAKE_PREFIX_PATH={self.tree}", f"-DCMAKE_CXX_COMPILER={CXX}")  # fmt: skip
        self.run_in_work(CMAKE, "--build", "package")
        address = self.run_in_work("package/last_address", "trace0")
        last = self.run_in_work(self.tree / "bin/qtrace", "dump", "--json", "--from", 1999, "trace0")
        self.assertEqual("0x" + address.strip(), json.loads(last.splitlines()[-1])["address"])

    def test_the_plain_python_reader_reads_the_trace(self):
        module = self.variable("pythondir")
        program = "from qtrace import plain; print(sum(isinstance(i, plain.Record) for i in plain.Trace('trace0')))"
        self.assertEqual(self.run_in_work(sys.executable, "-c", program, PYTHONPATH=module), "2000\n")

    def test_the_python_package_finds_the_installed_library(self):
        module = self.variable("pythondir")
        program = (
            "import qtrace, qtrace._library as l; print(len(qtrace.frame('trace0')), l.LIBRARY._name);"
            "import qtrace.dask as d; print(d.stats('trace0')[0]['instructions'], d._tool())"
        )
        output = self.run_in_work(sys.executable, "-c", program, PYTHONPATH=module)
        self.assertEqual(re.sub(r" .+", "", output), "2000\n2000\n")
        for place in re.findall(r" (.+)", output):
            self.assertTrue(pathlib.Path(place).resolve().is_relative_to(self.tree.resolve()), place)

    def test_every_header_compiles_alone(self):
        flags = shlex.split(self.pkg_config("--cflags"))
        headers = sorted(path.name for path in self.tree.glob("include/qtrace/*.h"))
        wanted = ["commit_stream_writer.h", "plugin_api.h", "plugin_basic.h", "plugin_qtbin.h", "qtrace.h", "qtrace_columns.h",
                  "qtrace_jobs.h", "qtrace_reader.h", "qtrace_schema.h", "qtrace_t.h"]  # fmt: skip
        self.assertEqual(headers, wanted)
        for header in headers:
            with self.subTest(header):
                (self.work / "alone.c").write_text(f"#include <{header}>\n")
                self.run_in_work(CC, "-std=c11", "-Wall", "-Werror", "-fsyntax-only", *flags, "alone.c")

    def test_completions_are_there(self):
        for name in ("bash-completion/completions/qtrace", "bash-completion/completions/replay",
                     "zsh/site-functions/_qtrace", "zsh/site-functions/_replay"):  # fmt: skip
            self.assertGreater((self.tree / "share" / name).stat().st_size, 200, name)

    def test_pages_and_documents_are_there(self):
        self.assertTrue(list(self.tree.glob("share/doc/*/trace-format.md")))
        pages = sorted(path.name for path in self.tree.glob("share/man/man*/*"))
        self.assertEqual(pages, ["qtrace-trace.5", "qtrace.1", "replay.1"])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
