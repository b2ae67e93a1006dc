"""The manual pages name the options and subcommands that the programs' --help names, and no others.

    man_pages_test.py PROGRAMS SCDOC

A page's options are the lines that begin with *-x* or *--word*. Under "# OPTIONS" they are the program's, under
"# COMMON OPTIONS" those of each subcommand, under "## PROGRAM SUBCOMMAND" that one's own; a subcommand whose text names
*CHOOSING RECORDS* or *NAMES OF ADDRESSES* has those of that section too."""
import pathlib
import re
import subprocess
import sys
import unittest

PAGES = pathlib.Path(__file__).parents[2] / "docs/man"
PROGRAMS, SCDOC = pathlib.Path(sys.argv[1]), sys.argv[2]
SKIPPED = 77  # exit status


def help_of(*command):
    command = [PROGRAMS / command[0], *command[1:], "--help"]
    return subprocess.run(command, capture_output=True, text=True, check=True).stdout


def options_in_help(text):
    rows = re.findall(r"^  (-.*?)(?:  |$)", section(text, "Options"), re.M)
    return {option for row in rows for option in re.findall(r"(?<![\w-])--?[a-z][a-z-]*", row)}


def subcommands_in_help(text):
    return re.findall(r"^  ([a-z]+) ", section(text, "Subcommands"), re.M)


def section(text, name):
    found = re.search(rf"^{name}:\n((?:  .*\n)*)", text, re.M)
    return found[1] if found else ""


class Page:
    def __init__(self, program):
        self.text = (PAGES / f"{program}.1.scd").read_text()
        self.sections = dict(re.findall(r"^#+ (.*)\n((?:(?!#).*\n?)*)", self.text, re.M))

    def options(self, *sections):
        lines = [line for name in sections for line in re.findall(r"^\*-.*", self.sections.get(name, ""), re.M)]
        return {option for line in lines for option in re.findall(r"\*(--?[a-z][a-z-]*)\*", line)}


class man_pages(unittest.TestCase):
    def test_replay_has_the_options_of_its_help(self):
        options = options_in_help(help_of("replay"))
        self.assertIn("--stop-at-failure", options)
        self.assertEqual(Page("replay").options("OPTIONS"), options)

    def test_replay_has_the_commands_of_the_console(self):
        console = (PAGES.parent / "console.md").read_text()
        table = re.search(r"^## Commands\n(.*?)(?=^##)", console, re.M | re.S)[1]
        commands = {row.strip() for row in re.findall(r"^\| `([a-z ]+)", table, re.M)}
        self.assertIn("plugin load", commands)
        page = re.findall(r"^\*([a-z ]+)\*", Page("replay").sections["COMMANDS"], re.M)
        self.assertEqual(sorted(page), sorted(commands))

    def test_qtrace_has_the_options_of_its_help(self):
        self.assertEqual(Page("qtrace").options("OPTIONS"), options_in_help(help_of("qtrace")))

    def test_qtrace_has_the_subcommands_of_its_help(self):
        subcommands = subcommands_in_help(help_of("qtrace"))
        self.assertIn("info", subcommands)
        page = Page("qtrace")
        self.assertEqual([name.split()[1] for name in page.sections if name.startswith("qtrace ")], subcommands)
        self.assertEqual(re.findall(r"\*qtrace\* \*([a-z]+)\*", page.sections["SYNOPSIS"]), subcommands)

    def test_subcommands_have_the_options_of_their_help(self):
        page = Page("qtrace")
        for subcommand in subcommands_in_help(help_of("qtrace")):
            with self.subTest(subcommand):
                options = options_in_help(help_of("qtrace", subcommand))
                sections = ["COMMON OPTIONS", f"qtrace {subcommand}"]
                if "*CHOOSING RECORDS*" in page.sections[sections[1]]:
                    sections.append("CHOOSING RECORDS")
                if re.search(r"\*NAMES OF\s+ADDRESSES\*", page.sections[sections[1]]):
                    sections.append("NAMES OF ADDRESSES")
                self.assertEqual(page.options(*sections), options)

    def test_pages_render(self):
        for path in sorted(PAGES.glob("*.scd")):
            with self.subTest(path.name):
                page = subprocess.run([SCDOC], input=path.read_text(), capture_output=True, text=True)
                self.assertEqual((page.returncode, page.stderr), (0, ""))
                self.assertTrue(page.stdout.count(".SH"))


if __name__ == "__main__":
    if SCDOC.endswith("-NOTFOUND"):
        print("skipped: no scdoc")
        sys.exit(SKIPPED)
    unittest.main(argv=sys.argv[:1])
