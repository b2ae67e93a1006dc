#!/usr/bin/env python3
"""How figures are judged."""

import unittest

import goals
from goals import Goal, Measured


def judged(value, is_judged=True):
    goal = Goal("a figure", None, 10, 5, None, is_judged)
    measured = None if value is None else Measured(value)
    return goals.verdict(goal, measured), goals.is_failure(goal, measured)


class Verdicts(unittest.TestCase):
    def test_a_figure_within_its_must_is_no_failure(self):
        self.assertEqual(judged(5), ("aim", False))
        self.assertEqual(judged(10), ("must", False))

    def test_a_missed_must_is_a_failure(self):
        self.assertEqual(judged(10.1), ("MISSED", True))

    def test_a_figure_that_could_not_be_measured_is_a_failure(self):
        self.assertEqual(judged(None), ("NOT MEASURED", True))

    def test_a_time_is_never_a_failure(self):
        self.assertEqual(judged(1000, False), ("printed", False))
        self.assertEqual(judged(None, False), ("not offered", False))


class Growth(unittest.TestCase):
    def test_is_found_between_any_two_points(self):
        self.assertEqual(goals.worst_growth([4, 2, 3, 2]), 1.5)

    def test_is_below_1_where_every_point_is_below_those_before(self):
        self.assertEqual(goals.worst_growth([4, 2, 1]), 0.5)


class Memory(unittest.TestCase):
    class Process:
        def __init__(self, kilobytes):
            self.kilobytes = kilobytes

        def counter(self, _name, _key):
            return self.kilobytes

    def test_that_was_not_added_is_no_measurement(self):
        self.assertIsNone(goals.memory_per_thread(self.Process(-40)))
        self.assertIsNone(goals.memory_per_thread(self.Process(0)))

    def test_is_given_per_thread(self):
        self.assertEqual(goals.memory_per_thread(self.Process(5632)).value, 5.5)


class Table(unittest.TestCase):
    def test_every_aim_is_at_least_as_strict_as_its_must(self):
        for goal in goals.GOALS:
            self.assertLessEqual(goal.aim, goal.must or goal.aim, goal.figure)

    def test_every_judged_figure_has_a_must(self):
        for goal in goals.GOALS:
            self.assertTrue(goal.must is not None or not goal.judged, goal.figure)

    def test_figures_have_names_of_their_own(self):
        figures = [goal.figure for goal in goals.GOALS]
        self.assertEqual(len(figures), len(set(figures)))


if __name__ == "__main__":
    unittest.main()
