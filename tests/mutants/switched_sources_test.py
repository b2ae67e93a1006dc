"""A program with all changes in it behaves, with each of them chosen, as the source with that change written into it."""

import os
import pathlib
import subprocess
import tempfile
import unittest

import mutant_generator
import switched_sources

SOURCE = """#include <cstdio>
struct Bits {
    unsigned low : 3, high : 5;
};
constexpr unsigned TABLE[] = {7, 9};
static unsigned f(unsigned a, unsigned b, bool c)
{
    unsigned sum = 0;
    Bits bits{a, b};
    for (unsigned i = 0; i < b && i < 5; i++)
        sum += a * i - (a & 3);
    if (a >= b || (!c && a != 2)) // either && or ||
        ++sum;
    const unsigned *at = TABLE;
    sum += *at++;
    sum |= bits.low << 2 | (bits.high == 1 ? 1u : 0x20u);
    const bool odd = sum % 2 == 1;
    return odd ? sum / 3 + *at : sum;
}
int main()
{
    for (unsigned a = 0; a < 4; a++)
        for (unsigned b = 0; b < 4; ++b)
            std::printf("%u %u\\n", f(a, b, true), f(a, b, false));
}
"""


def compiled(folder, text, *options):
    (folder / "a.cpp").write_text(text)
    built = subprocess.run(["g++", "-std=c++20", "-w", *options, "-o", folder / "a", folder / "a.cpp"],
                           stderr=subprocess.PIPE, text=True)  # fmt: skip
    assert built.returncode == 0, built.stderr
    return folder / "a"


def output_of(program, **settings):
    return subprocess.run([program], stdout=subprocess.PIPE, env=os.environ | settings, timeout=60, check=True).stdout


class switched_source(unittest.TestCase):
    def test_behaves_as_each_changed_source(self):
        changes = [change for change in mutant_generator.changes("a.cpp", SOURCE) if change.line != 5]
        numbers = {change: number for number, change in enumerate(changes, 1)}
        self.assertGreater(len(changes), 50)
        with tempfile.TemporaryDirectory() as name:
            folder = pathlib.Path(name)
            (folder / "switch.h").write_text(switched_sources.header())
            switched = switched_sources.Source(SOURCE, numbers).switched()
            found = switched_sources.numbers_in(switched)
            program = compiled(folder, switched, "-include", folder / "switch.h").rename(folder / "switched")
            unchanged = output_of(program)
            self.assertEqual(unchanged, output_of(compiled(folder, SOURCE)))
            reached = folder / "reached"
            reached.write_bytes(bytes(len(changes) + 1))
            output_of(program, QT_MUTANTS_REACHED=str(reached))
            for change, number in numbers.items():
                if change.token == "++" and number not in found:
                    self.assertEqual(change.line, 15)  # it is not the whole operand
                    continue
                expected = output_of(compiled(folder, change.apply(SOURCE)))
                with self.subTest(change):
                    chosen = output_of(program, QT_MUTANT=str(number))
                    self.assertEqual(chosen, expected)
                    if chosen != unchanged:
                        self.assertEqual(reached.read_bytes()[number], 3)

    def test_changes_of_a_line_are_named_by_it(self):
        numbers = {change: number for number, change in enumerate(mutant_generator.changes("a.cpp", SOURCE), 1)}
        line = switched_sources.Source(SOURCE, numbers).switched().splitlines()[16]
        self.assertEqual(switched_sources.numbers_in(line),
                         {number for change, number in numbers.items() if change.line == 17 and change.replacement in
                          ("!=", "/", "3", "2")})  # fmt: skip


if __name__ == "__main__":
    unittest.main()
