"""The helpers for 64-bit unsigned numbers, at the places where numpy and pandas go wrong."""
import unittest

import traced_streams

import numpy as np
import pandas as pd
import qtrace

HIGH = 0xC000_0000_0000_0001  # not exact as a float


class Numbers(unittest.TestCase):
    def test_pages(self):
        series = pd.Series([HIGH, 0x1FFF], index=[7, 8], name="data", dtype="u8")
        expected = pd.Series([0xC_0000_0000_0000, 1], index=[7, 8], name="data", dtype="u8")
        pd.testing.assert_series_equal(qtrace.page(series), expected)
        self.assertEqual(qtrace.page(np.array([0x12345], "u8"), bits=16).tolist(), [1])
        self.assertEqual(qtrace.page(2**64 - 1, bits=63), 1)
        self.assertEqual(qtrace.page(np.array([3], "i4")).dtype, np.uint64)
        self.assertEqual(qtrace.page(series, 0).tolist(), series.tolist())
        for bits in (-1, 64):
            with self.assertRaises(ValueError):
                qtrace.page(series, bits)

    def test_distances_are_signed_and_exact(self):
        one, other = pd.Series([HIGH, 0, 2**64 - 1], dtype="u8"), pd.Series([HIGH - 8, 1, 0], dtype="u8")
        pd.testing.assert_series_equal(qtrace.distance(one, other), pd.Series([8, -1, -1]))
        self.assertEqual(qtrace.distance(HIGH, HIGH + 4), -4)
        self.assertEqual(qtrace.distance(one, HIGH).tolist(), [0, 2**62 - 1, 2**62 - 2])

    def test_texts(self):
        self.assertEqual(qtrace.hex(HIGH), "0xc000000000000001")
        self.assertEqual(qtrace.hex(5, digits=4), "0x0005")
        series = pd.Series([HIGH, 10], index=[3, 4], dtype="u8")
        self.assertEqual(qtrace.hex(series).to_dict(), {3: "0xc000000000000001", 4: "0xa"})
        self.assertEqual(qtrace.hex(np.array([255], "u4")).tolist(), ["0xff"])

    def test_floats_are_refused(self):
        for function in (qtrace.page, qtrace.hex, lambda values: qtrace.distance(values, 0)):
            with self.assertRaises(TypeError):
                function(pd.Series([1.0]))

    def test_negative_numbers_keep_their_bits(self):
        self.assertEqual(qtrace.hex(np.array([-1], "i8")).tolist(), ["0xffffffffffffffff"])


if __name__ == "__main__":
    traced_streams.main()
