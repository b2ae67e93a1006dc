"""What a shell offers after the words typed so far.

    completions_test.py COMPLETIONS ZSH"""
import pathlib
import subprocess
import sys
import unittest

COMPLETIONS, ZSH = pathlib.Path(sys.argv[1]), sys.argv[2]
ASK = 'source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); "_$1"; printf "%s\\n" "${COMPREPLY[@]}"'


def offered(*words):
    """By bash, for the last word."""
    script = COMPLETIONS / words[0]
    run = subprocess.run(["bash", "-c", ASK, "bash", script, *words], cwd=pathlib.Path(__file__).parent,
                         stdout=subprocess.PIPE, text=True, check=True)  # fmt: skip
    return run.stdout.split()


class bash(unittest.TestCase):
    def test_completes_subcommands(self):
        self.assertEqual(offered("qtrace", "d"), ["dump", "diff"])
        self.assertEqual(offered("qtrace", "rec"), ["recover"])

    def test_completes_options_of_the_program_and_of_the_subcommand(self):
        self.assertEqual(offered("qtrace", "--v"), ["--version"])
        self.assertEqual(offered("qtrace", "dump", "--co"), ["--count"])
        self.assertEqual(offered("qtrace", "check", "trace0", "--ru"), ["--rules"])
        self.assertEqual(offered("replay", "--stop"), ["--stop-at-failure"])

    def test_completes_the_words_that_a_value_can_be(self):
        self.assertEqual(offered("qtrace", "dump", "--kind", "st"), ["store", "string"])

    def test_offers_nothing_where_a_number_belongs(self):
        self.assertEqual(offered("qtrace", "dump", "--count", ""), [])

    def test_completes_file_names(self):
        self.assertEqual(offered("qtrace", "info", "completions_t"), ["completions_test.py"])
        self.assertEqual(offered("replay", "completions_t"), ["completions_test.py"])


class zsh(unittest.TestCase):
    def test_scripts_are_well_formed_and_name_every_subcommand(self):
        for program in ("qtrace", "replay"):
            script = COMPLETIONS / f"_{program}"
            subprocess.run([ZSH, "-n", script], check=True)
            self.assertEqual(script.read_text().splitlines()[0], f"#compdef {program}")
        text = (COMPLETIONS / "_qtrace").read_text()
        for subcommand in ("info", "dump", "check", "stats", "diff", "recover"):
            self.assertIn(f"    {subcommand})\n", text)
        self.assertIn("'--explain[a legend first]'", text)

    def test_describes_options_of_every_length(self):
        self.assertNotIn("[]", (COMPLETIONS / "_qtrace").read_text())


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
