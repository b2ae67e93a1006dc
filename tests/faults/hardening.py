"""What the optimized programs are protected with, read from the files themselves."""

import json
import re
import subprocess

import faults

PRODUCTS = ["plugin_qtbin.so", "libqtrace.so", "replay", "qtrace"]


def readelf(option, name):
    return subprocess.run(["readelf", "-W", option, str(faults.BIN / name)], check=True, stdout=subprocess.PIPE,
                          text=True).stdout


class Hardening(faults.Fault_Test):
    def test_relocations_are_read_only_from_the_start(self):
        for name in PRODUCTS:
            self.assertIn("GNU_RELRO", readelf("-l", name))
            self.assertRegex(readelf("-d", name), r"BIND_NOW|FLAGS_1.* NOW")

    def test_stack_is_not_executable(self):
        for name in PRODUCTS:
            stack = next(line for line in readelf("-l", name).splitlines() if "GNU_STACK" in line)
            self.assertIn(" RW ", stack)

    def test_stack_protector_is_used(self):
        for name in PRODUCTS:
            self.assertIn("__stack_chk_fail", readelf("--dyn-syms", name), name)

    def test_fortified_functions_are_used(self):
        for name in ("plugin_qtbin.so", "replay"):  # the others call none that needs a check
            self.assertRegex(readelf("--dyn-syms", name), r"__\w+_chk@", name)

    def test_all_sources_are_compiled_with_protection(self):
        for entry in json.loads((faults.BIN.parent / "compile_commands.json").read_text()):
            if re.search("/(common|qtrace|replay|tools)/[^/]+/?[^/]*$", entry["file"]):
                for flag in ("-D_FORTIFY_SOURCE=2", "-fstack-protector-strong", "-Wconversion", "-Wshadow", "-Werror"):
                    self.assertIn(flag, entry["command"], entry["file"])

    def test_programs_are_position_independent(self):
        for name in PRODUCTS:
            self.assertRegex(readelf("-h", name), r"Type: +DYN")


if __name__ == "__main__":
    faults.main()
