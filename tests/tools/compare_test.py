#!/usr/bin/env python3
"""Tests of vekrun compare, with NumPy as the reference: compare_test.py SUITE COMMAND..., as vekrun_test.py."""

import json
import math
import sys
import unittest

import numpy as np

from vekrun_case import Case


def pack(array, channels, line=None, plane=None):
    """The bytes of a 4-D array with so many channels interleaved, by the formula of the memory layout."""
    N, C, H, W = array.shape
    size = array.itemsize
    line = line or W * channels * size
    plane = plane or H * line
    groups = -(-C // channels)
    memory = bytearray(N * groups * plane)
    for n, c, h, w in np.ndindex(array.shape):
        at = (n * groups + c // channels) * plane + h * line + (w * channels + c % channels) * size
        memory[at:at + size] = array[n, c, h, w].tobytes()
    return bytes(memory)


class Compare(Case):
    def save(self, name, array):
        np.save(self.path(name), array)
        return array

    def compare(self, *arguments, status):
        result = self.vekrun("compare", *arguments)
        self.assertEqual((result.returncode, result.stderr), (status, ""), result)
        return result.stdout.splitlines()

    def report(self, *arguments, status):
        lines = self.compare(*arguments, "--json", "report.json", status=status)
        return json.loads(self.read("report.json")), lines

    def test_statistics_are_numpys(self):
        rng = np.random.default_rng(1)
        shape = (2, 3, 4, 5)
        pairs = [(rng.standard_normal(shape).astype("f4"), rng.standard_normal(shape).astype("f4")),
                 (rng.integers(-128, 128, shape, "i1"), rng.integers(0, 256, shape, "u1")),
                 (rng.standard_normal(shape), rng.standard_normal(shape).astype("f2")),
                 (rng.integers(0, 2**64, shape, "u8"), rng.integers(-2**63, 2**63, shape, "i8")),
                 (rng.integers(0, 2, shape, "i4"), rng.integers(0, 2, shape).astype("?"))]
        for a, b in pairs:
            with self.subTest(a=a.dtype, b=b.dtype):
                self.save("a.npy", a)
                self.save("b.npy", b)
                report, _ = self.report("a.npy", "b.npy", status=1)
                x, y = a.astype(np.longdouble), b.astype(np.longdouble)
                apart = np.abs(x - y)
                self.assertEqual(report["elements"], 120)
                self.assertEqual(report["equal"], int((x == y).sum()))
                self.assertEqual(report["beyond"], int((x != y).sum()))
                self.assertEqual(report["first"], [int(i) for i in np.argwhere(x != y)[0]])
                self.assertEqual(report["largest"]["index"], list(np.unravel_index(apart.argmax(), shape)))
                for key, wanted in (("mean_difference", apart.mean()),
                                    ("rms_difference", np.sqrt((apart**2).mean())),
                                    ("cosine", (x * y).sum() / np.sqrt((x * x).sum() * (y * y).sum())),
                                    ("snr_decibel", 10 * np.log10((y * y).sum() / (apart**2).sum()))):
                    self.assertTrue(math.isclose(report[key], wanted, rel_tol=1e-12, abs_tol=1e-13), key)
                self.assertTrue(math.isclose(report["largest"]["difference"], apart.max(), rel_tol=1e-15))
                for axis, entry in enumerate(report["by_axis"]):
                    others = tuple(i for i in range(4) if i != axis)
                    counts = {c["index"]: c["beyond"] for c in entry["counts"]}
                    wanted = (x != y).sum(axis=others)
                    self.assertEqual([counts.get(i, 0) for i in range(shape[axis])], wanted.tolist())

    def test_equal_tensors(self):
        self.save("a.npy", np.arange(6, dtype="f4").reshape(2, 3))
        report, lines = self.report("a.npy", "a.npy", status=0)
        self.assertEqual(lines, ["A: a.npy (2x3 float32)", "B: a.npy (2x3 float32)", "6 of 6 elements are equal"])
        self.assertTrue(report["agree"])
        self.assertIsNone(report["snr_decibel"])
        self.assertIsNone(report["largest"])

    def test_integers_of_64_bits_are_compared_exactly(self):
        self.save("a.npy", np.array([2**53, 2**63 - 1, -2**63], "i8"))
        self.save("b.npy", np.array([2**53 + 1, 2**63 - 2, -2**63], "i8"))
        report, lines = self.report("a.npy", "b.npy", status=1)
        self.assertEqual(report["beyond"], 2)
        self.assertIn("largest difference 1 at [0]: A 9007199254740992, B 9007199254740993", lines)

    def test_tolerances_reach_exactly_to_their_ends(self):
        self.save("a.npy", np.array([1.5, 10, -3], "f4"))
        self.save("b.npy", np.array([1.0, 8, -3], "f4"))
        self.compare("a.npy", "b.npy", "--atol", "2", status=0)
        report, lines = self.report("a.npy", "b.npy", "--atol", "1.9990", status=1)
        self.assertEqual((report["equal"], report["beyond"], report["first"]), (1, 1, [1]))
        self.assertIn("1 of 3 elements are equal, 2 differ, 1 of them beyond atol 1.999", lines)
        self.compare("a.npy", "b.npy", "--rtol", "0.5", status=0)
        self.compare("a.npy", "b.npy", "--rtol", "0.4999", status=1)  # of 1.0, not of 1.5
        self.compare("a.npy", "b.npy", "--rtol", "0.25", "--atol", "0.25", status=0)
        self.expect_usage_error("--atol", "compare", "a.npy", "b.npy", "--atol", "-1")

    def test_units_in_the_last_place(self):
        for dtype in ("f2", "f4", "f8"):
            one = np.array([1.0, -0.0, 5.0], dtype)
            tiny = np.nextafter(np.array(0, dtype), np.array(1, dtype))
            self.save("a.npy", one)
            self.save("b.npy", np.array([np.nextafter(np.nextafter(one[0], one[1]), one[1]), -tiny, 5], dtype))
            report, lines = self.report("a.npy", "b.npy", "--ulp", "2", status=0)
            self.assertEqual((report["equal"], report["largest_ulp"]), (1, 2))
            self.assertTrue(any(line.endswith("; at most 2 ulp") for line in lines), lines)
            self.compare("a.npy", "b.npy", "--ulp", "1", status=1)
            self.save("b.npy", np.array([1, tiny, 5], dtype))  # across zero
            self.compare("a.npy", "b.npy", "--ulp", "1", status=0)
        self.save("i.npy", np.array([1, 0, 5], "i4"))
        self.expect_usage_error("--ulp compares elements of one type; A is float64, B int32", "compare", "a.npy",
                                "i.npy", "--ulp", "1")

    def test_nan_zeros_and_infinities(self):
        nan, inf = math.nan, math.inf
        self.save("a.npy", np.array([nan, 0.0, inf, -inf], "f4"))
        self.save("b.npy", np.array([nan, -0.0, inf, -inf], "f4"))
        report, lines = self.report("a.npy", "b.npy", status=0)
        self.assertEqual((report["nan"], report["infinite"]), ({"a": 1, "b": 1, "both": 1}, {"a": 2, "b": 2}))
        self.assertIn("NaN: 1 in A, 1 in B, 1 at the same place", lines)
        report, _ = self.report("a.npy", "b.npy", "--bits", status=1)
        self.assertEqual((report["beyond"], report["first"]), (1, [1]))
        # What only one side has is beyond every tolerance.
        for other in ([1, 0, inf, -inf], [nan, 0, 3e38, -inf], [nan, 0, inf, inf], [nan, nan, inf, -inf]):
            self.save("b.npy", np.array(other, "f4"))
            report, lines = self.report("a.npy", "b.npy", "--atol", "1e308", "--rtol", "10", "--ulp", "1e308", status=1)
            self.assertEqual(report["beyond"], 1, other)
            self.assertTrue(any(line.startswith("largest difference inf at") for line in lines), lines)
            self.assertEqual(report["largest"]["difference"], None)

    def test_differences_by_axis(self):
        zeros = np.zeros((2, 64, 40, 56), "f4")
        self.save("b.npy", zeros)

        def spread(*places):
            a = zeros.copy()
            for place in places:
                a[place] += 1
            self.save("a.npy", a)
            return [line[2:] for line in self.compare("a.npy", "b.npy", status=1) if line.startswith("  ")]

        every = slice(None)
        self.assertEqual(spread((0, 17, slice(0, 36), 55), (1, 3, 3, 55)), [
            "item 0 has 36 of the 37 differences, 1 other item has 1",
            "channel 17 has 36 of the 37 differences, 1 other channel has 1",
            "rows 0 to 35: 1 to 2 in each", "column 55 has all of them"])
        self.assertEqual(spread((0, slice(3, None, 4), 0, 0), (0, 5, 1, 1)), [
            "item 0 has all of them", "17 of 64 channels, between 3 and 63: 1 in each",
            "row 0 has 16 of the 17 differences, 1 other row has 1",
            "column 0 has 16 of the 17 differences, 1 other column has 1"])
        self.assertEqual(spread((every, slice(3, None, 4), slice(0, 20), 0), (0, 5, 1, 0)), [
            "item 0 has 321 of the 641 differences, 1 other item has 320",
            "every 4th of the channels 3 to 63: 40 in each, 1 elsewhere",
            "rows 0 to 19: 32 to 33 in each", "column 0 has all of them"])
        self.assertEqual(spread((0, 0, every, every)), [
            "item 0 has all of them", "channel 0 has all of them", "all 40 rows: 56 in each",
            "all 56 columns: 40 in each"])
        self.assertEqual(spread((1, 2, 3, 4)), [])  # one difference: its place is told

    def test_axes_of_other_ranks(self):
        for shape, names in (((4,), ["positions 1 to 2"]), ((4, 2), ["rows 1 to 2", "all 2 columns"]),
                             ((2, 2, 2, 4, 2), ["all 2 slices of axis 0", "all 2 slices of axis 1", "all 2 channels",
                                                "rows 1 to 2", "all 2 columns"])):
            a = np.zeros(shape, "u1")
            a[slice(1, 3) if len(shape) == 1 else (..., slice(1, 3), slice(None))] = 1
            self.save("a.npy", a)
            self.save("b.npy", np.zeros(shape, "u1"))
            lines = [line[2:].split(":")[0] for line in self.compare("a.npy", "b.npy", status=1) if line[:2] == "  "]
            self.assertEqual(lines, names)

    def hint(self, a, b, *options):
        for name, side in (("a.npy", a), ("b.npy", b)):
            if isinstance(side, np.ndarray):
                self.save(name, side)
        names = [name if isinstance(side, np.ndarray) else side for name, side in (("a.npy", a), ("b.npy", b))]
        lines = self.compare(*names, *options, status=1)
        found = [line for line in lines if " when " in line]
        return found[0] if found else None

    def test_other_layouts_are_recognised(self):
        rng = np.random.default_rng(2)
        good = rng.integers(0, 256, (1, 64, 3, 6), "u1")
        for channels in (2, 4, 8, 16, 32):
            packed = np.frombuffer(pack(good, channels), "u1").reshape(good.shape)
            self.assertEqual(self.hint(packed, good), f"equal when A is read as pack={channels}")
            self.assertEqual(self.hint(good, packed), f"equal when B is read as pack={channels}")
        good = rng.standard_normal((2, 6, 4, 4)).astype("f4")
        self.assertEqual(self.hint(good.transpose(0, 2, 3, 1).copy().reshape(good.shape), good),
                         "equal when A is read as channel-last, N H W C")
        self.assertEqual(self.hint(good, good.transpose(0, 2, 3, 1).copy().reshape(good.shape)),
                         "equal when B is read as channel-last, N H W C")
        self.assertEqual(self.hint(good.transpose(0, 1, 3, 2).copy(), good),
                         "equal when A is read with rows and columns transposed")
        self.assertEqual(self.hint(good.transpose(1, 0, 2, 3).copy().reshape(good.shape), good),
                         "equal when A is read in the order C N H W")
        self.assertEqual(self.hint(np.roll(good, 2, 3), good), "equal when A is read with the halves of its columns swapped")
        self.assertEqual(self.hint(good[:, ::-1].copy(), good), "equal when A is read with its channels in reverse order")
        self.assertEqual(self.hint(good.byteswap(), good), "equal when A is read with the bytes of each element reversed")
        self.assertEqual(self.hint(good.view("i4"), good), "equal when A is read as type=float32")
        self.assertEqual(self.hint(good + np.float32(1e-3), good.byteswap(), "--atol", "0.01"),
                         "equal when B is read with the bytes of each element reversed")

    def test_padded_lines_are_recognised(self):
        good = np.random.default_rng(3).integers(1, 256, (1, 8, 3, 6), "u1")
        self.write("a.bin", pack(good, 1, line=8))
        # Read with other padding of the same number of bytes.
        self.assertEqual(self.hint("a.bin,type=u8,shape=1x8x3x6,plane=24", good), "equal when A is read as line=8")
        # Cut: the end of the tensor is not in its bytes.
        cut = np.frombuffer(self.read("a.bin")[:good.size], "u1").reshape(good.shape)
        reached = sum(c * 24 + h * 8 + w < good.size for _, c, h, w in np.ndindex(good.shape))
        self.assertEqual(self.hint(cut, good), f"equal when A is read as line=8, as far as its bytes reach: {reached} elements")
        self.write("a.bin", pack(good, 4, line=32))
        self.assertEqual(self.hint("a.bin,type=u8,shape=1x8x3x6,line=8", good), "equal when A is read as pack=4,line=32")

    def test_a_layout_is_recognised_beside_a_few_wrong_elements(self):
        good = np.random.default_rng(4).integers(0, 256, (1, 8, 5, 5), "u1")
        packed = np.frombuffer(pack(good, 8), "u1").copy()
        packed[7] ^= 1
        self.assertEqual(self.hint(packed.reshape(good.shape), good), "only 1 differs when A is read as channel-last, N H W C")

    def test_numeric_differences_are_no_layout(self):
        good = np.random.default_rng(5).standard_normal((1, 8, 5, 5)).astype("f4")
        bad = good.copy()
        bad[0, 3] += 1
        self.assertIsNone(self.hint(bad, good))
        zeros = np.zeros((1, 8, 3, 6), "u1")
        last = zeros.copy()
        last[0, 7, 2, 5] = 1
        self.assertIsNone(self.hint(last, zeros))

    def test_shapes_that_differ(self):
        good = np.random.default_rng(6).standard_normal((1, 3, 4, 5)).astype("f4")
        self.assertEqual(self.hint(good.transpose(0, 2, 3, 1).copy(), good), "equal when A is permuted by axes=[0,3,1,2]")
        self.assertEqual(self.hint(good.reshape(3, 20), good), "equal when A is given the shape 1x3x4x5")
        self.assertIsNone(self.hint(good[:, :2].copy(), good))
        report, lines = self.report("a.npy", "b.npy", status=1)
        self.assertIn("the shapes differ", lines)
        self.assertEqual((report["agree"], report["a"]["shape"], report["b"]["shape"]), (False, [1, 2, 4, 5], [1, 3, 4, 5]))
        self.assertNotIn("equal", report)

    def test_fixed_point_as_real_values(self):
        stored = np.array([[0, 64, 128, 255]], "u1")
        self.save("q.npy", stored)
        self.save("f.npy", (stored.astype("f4") - 64) * np.float32(0.5))
        self.compare("q.npy,zero=64,scale=0.5", "f.npy", "--real", status=0)
        self.compare("q.npy,zero=64,scale=0.5", "f.npy", status=1)
        self.save("i.npy", np.array([[-3, 5]], "i2"))
        self.save("f.npy", np.array([[-0.1875, 0.3125]], "f4"))
        self.compare("i.npy,exp=-4", "f.npy", "--real", status=0)
        lines = self.compare("i.npy,exp=-3", "f.npy", "--real", status=1)
        self.assertIn("largest difference 0.3125 at [0,1]: A 0.625, B 0.3125", lines)
        self.expect_usage_error("--bits compares what is stored", "compare", "i.npy", "i.npy", "--real", "--bits")

    def test_layouts_of_files_do_not_count(self):
        good = np.random.default_rng(7).integers(0, 256, (2, 6, 2, 3), "u1")
        self.save("good.npy", good)
        self.write("a.bin", pack(good, 4, line=16, plane=40))
        self.compare("a.bin,type=u8,shape=2x6x2x3,pack=4,line=16,plane=40", "good.npy", status=0)

    def test_picture_of_the_differences(self):
        b = np.zeros((1, 2, 2, 3), "f4")
        a = b.copy()
        a[0, 0, 1, 2] = 4
        a[0, 1, 0, 0] = 1
        a[0, 1, 1, 1] = math.nan
        self.save("a.npy", a)
        self.save("b.npy", b)
        self.compare("a.npy", "b.npy", "--picture", "diff.ppm", status=1)
        data = self.read("diff.ppm")
        magic, width, height, depth = data.split(maxsplit=4)[:4]
        self.assertEqual((magic, depth), (b"P6", b"255"))
        width, height = int(width), int(height)
        pixels = np.frombuffer(data[-3 * width * height:], "u1").reshape(height, width, 3)
        # The planes lie side by side or one below the other, with a gap, every element a square of the same size.
        cell = 32
        self.assertIn((height, width), [(2 * cell, 7 * cell), (5 * cell, 3 * cell)])
        down, right = (0, 4) if width == 7 * cell else (3, 0)

        def colour(y, x):
            square = pixels[y * cell:(y + 1) * cell, x * cell:(x + 1) * cell].reshape(-1, 3)
            self.assertTrue((square == square[0]).all())
            return tuple(square[0].tolist())

        equal, largest, small = colour(0, 0), colour(1, 2), colour(down, right)
        self.assertEqual(colour(0, 1), equal)
        self.assertGreater(sum(largest), sum(small))
        self.assertGreater(sum(small), sum(equal))
        self.assertEqual(len({equal, largest, small, colour(down + 1, right + 1)}), 4)
        self.expect_usage_error("ends in .png or .ppm", "compare", "b.npy", "b.npy", "--picture", "diff.txt")

    def test_wrong_usage(self):
        self.save("a.npy", np.zeros(3, "f4"))
        self.expect_usage_error("B is required", "compare", "a.npy")
        self.expect_usage_error("missing.npy", "compare", "a.npy", "missing.npy")


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], sys.argv[1]])
