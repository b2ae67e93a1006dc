"""The generator of random mutants finds each token that can be changed, and none in comments, strings and types; changes
that are listed as without effect are among those that it draws."""

import contextlib
import io
import tempfile
import time
import unittest
from pathlib import Path

import mutant_generator
import random_mutants


def changed(source, file="a.cpp"):
    return [(change.line, change.token, change.replacement) for change in mutant_generator.changes(file, source)]


class cpp(unittest.TestCase):
    def test_comparisons_become_their_neighbours(self):
        self.assertEqual(changed("    if (a < b)\n"), [(1, "<", "<="), (1, "<", ">")])
        self.assertEqual(changed("    if (a == b)\n"), [(1, "==", "!=")])

    def test_numbers_become_their_neighbours_in_their_notation(self):
        self.assertEqual(changed("int x = 0x1fu;\n"), [(1, "0x1fu", "0x20u"), (1, "0x1fu", "0x1eu")])
        self.assertEqual(changed("int x = 0;\n"), [(1, "0", "1")])
        self.assertEqual(changed("int x = 1'000;\n"), [(1, "1'000", "1001"), (1, "1'000", "999")])

    def test_negations_vanish_and_words_are_exchanged(self):
        self.assertEqual(changed("    return !done || true;\n"),
                         [(1, "!", ""), (1, "||", "&&"), (1, "true", "false")])  # fmt: skip

    def test_types_are_left_alone(self):
        self.assertEqual(changed("std::vector<int> f(const T &x, T *y, T &&z);\n"), [])

    def test_comments_strings_and_directives_are_left_alone(self):
        self.assertEqual(changed('// a < 1\n/* 2 &&\n 3 */\nf("4 + 5", \'6\');\n#if 7 > 8\nR"(9 < 1)";\nR"js(2\n)"(3))js";\n'), [])

    def test_lines_are_counted_over_comments(self):
        self.assertEqual(changed("/* a\n b */\nx += y;\n"), [(3, "+=", "-="), (3, "+=", "=")])

    def test_identifiers_with_digits_are_no_numbers(self):
        self.assertEqual(changed("uint64_t crc32c(x1);\n"), [])

    def test_applying_changes_one_place(self):
        source = "a = 1;\nb = 1;\n"
        change = mutant_generator.changes("a.cpp", source)[2]
        self.assertEqual(change.apply(source), "a = 1;\nb = 2;\n")
        self.assertEqual(change.key(source), ("a.cpp", "b = 1;", "b = 2;"))


class python(unittest.TestCase):
    def test_operators_words_and_numbers(self):
        self.assertEqual(changed("if not a and b >= 2:\n    pass\n", "a.py"),
                         [(1, "not", ""), (1, "and", "or"), (1, ">=", ">"), (1, ">=", "=="), (1, "2", "3"),
                          (1, "2", "1")])  # fmt: skip

    def test_comments_strings_and_definitions_are_left_alone(self):
        self.assertEqual(changed('# 1 < 2\n"""3 and 4"""\ndef f(a=1):\n    pass\n', "a.py"), [])


class changes_without_effect(unittest.TestCase):
    def test_listed_ones_can_be_drawn(self):
        listed = random_mutants.read_equivalent()
        self.assertGreater(len(listed), 5)
        for file in {key[0] for key in listed}:
            source = (random_mutants.ROOT / file).read_text()
            drawn = {key for change in mutant_generator.changes(file, source)
                     for key in (change.key(source), change.key_in_place(source))}  # fmt: skip
            self.assertEqual([key for key in listed if key[0] == file and key not in drawn], [])

    def test_are_passed_over_unless_they_are_drawn_alone(self):
        everything, alone = (random_mutants.Round(1, 2, ("trace_codec.cpp",), listed) for listed in (False, True))
        change = alone.next()
        self.assertIn(change.key(alone.sources[change.file]), random_mutants.read_equivalent())
        self.assertEqual([drawing.is_to_be_tried(change) for drawing in (everything, alone)], [False, True])

    def test_are_told_apart_by_the_line_before(self):
        source = "a();\nif (b > 0)\n    c();\nd();\nif (b > 0)\n    e();\n"
        drawing = random_mutants.Round(1, 2, ("trace_codec.cpp",))
        drawing.sources["a.cpp"] = source
        drawing.reasons = {("a.cpp", "if (b > 0)", "if (b >= 0)", "d();"): "never 0 there"}
        self.assertEqual([(change.line, drawing.reason(change)) for change in mutant_generator.changes("a.cpp", source)
                          if change.replacement == ">="], [(2, None), (5, "never 0 there")])  # fmt: skip

    def test_one_that_a_test_notices_is_wrong(self):
        drawing = random_mutants.Round(1, 2, ("trace_codec.cpp",), True)
        first, second = drawing.next(), drawing.next()
        with contextlib.redirect_stdout(io.StringIO()) as out:
            drawing.record(first, "a_test", 0)
            drawing.record(second, None, 0)
        self.assertIn("noticed by a_test, although it is listed as without effect", out.getvalue())
        self.assertEqual([change for change, _ in drawing.wrong], [first])
        self.assertEqual((drawing.noticed, drawing.without_effect, drawing.survivors), (1, 1, []))
        self.assertIsNone(drawing.next())


class tests_of_a_mutant(unittest.TestCase):
    def test_leave_no_process_with_a_session_of_its_own(self):
        with tempfile.TemporaryDirectory() as folder:
            place = random_mutants.Place(Path(folder), [])
            place.build.mkdir()
            number = Path(folder) / "number"
            group = random_mutants.Group("g", ["sh", "-c", f"setsid sleep 1000 & echo $! > {number}; sleep 0.3; exit 1"], [], [], "")
            self.assertTrue(group.fails(place, place, 5))
            left = Path("/proc") / number.read_text().strip() / "stat"
            deadline = time.monotonic() + 5
            while self.runs(left) and time.monotonic() < deadline:
                time.sleep(0.01)
            self.assertFalse(self.runs(left))

    @staticmethod
    def runs(stat):
        try:
            return stat.read_text().rsplit(")", 1)[1].split()[0] != "Z"
        except OSError:
            return False


if __name__ == "__main__":
    unittest.main()
