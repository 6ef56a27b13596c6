#!/usr/bin/env python3
"""Tests of vekrun info, convert and layout, with NumPy as the reference: look_test.py SUITE COMMAND..., as
vekrun_test.py."""

import json
import math
import os
import re
import sys
import unittest
import xml.etree.ElementTree

import numpy as np

from vekrun_case import Case

TYPES = ["?", "i1", "u1", "i2", "u2", "i4", "u4", "i8", "u8", "f2", "f4", "f8"]
NAMES = {t: np.dtype(t).name for t in TYPES}


class LookCase(Case):
    def save(self, name, array):
        np.save(self.path(name), array)
        return array

    def load(self, name):
        return np.load(self.path(name))

    def text(self, *arguments, status=0):
        result = self.vekrun(*arguments)
        self.assertEqual((result.returncode, result.stderr), (status, ""), result)
        return result.stdout


class Info(LookCase):
    def info(self, *arguments):
        text = self.text("info", *arguments, "--json", "info.json")
        return json.loads(self.read("info.json")), text.splitlines()

    def test_statistics_are_numpys(self):
        rng = np.random.default_rng(1)
        shape = (2, 3, 4, 5)
        names = []
        arrays = []
        for code in TYPES:
            dtype = np.dtype(code)
            if dtype.kind == "f":
                array = rng.standard_normal(shape).astype(dtype)
            elif dtype.kind == "b":
                array = rng.integers(0, 2, shape).astype(dtype)
            else:
                limits = np.iinfo(dtype)
                array = rng.integers(limits.min, limits.max, shape, dtype, endpoint=True)
            names.append(f"{dtype.name}.npy")
            arrays.append(self.save(names[-1], array))
        reports, _ = self.info(*names)
        for array, report in zip(arrays, reports):
            with self.subTest(type=array.dtype):
                wide = array.astype(np.longdouble)
                self.assertEqual((report["type"], report["shape"]), (array.dtype.name, list(shape)))
                self.assertEqual((report["elements"], report["zeros"], report["bytes"]),
                                 (120, int((array == 0).sum()), array.nbytes))
                self.assertEqual(report["min"], float(array.min()))
                self.assertEqual(report["max"], float(array.max()))
                self.assertEqual(report["min_index"], list(np.unravel_index(array.argmin(), shape)))
                self.assertEqual(report["max_index"], list(np.unravel_index(array.argmax(), shape)))
                self.assertTrue(math.isclose(report["mean"], wide.mean(), rel_tol=1e-12, abs_tol=1e-13))
                self.assertTrue(math.isclose(report["standard_deviation"], wide.std(), rel_tol=1e-12))
                self.assertEqual(sum(report["histogram"]["counts"]), 120)

    def test_histogram_is_numpys(self):
        array = self.save("a.npy", np.random.default_rng(2).integers(-500, 500, 3000).astype("f4") / 512)
        (report,), _ = self.info("a.npy")
        histogram = report["histogram"]
        counts, _ = np.histogram(array.astype("f8"), 60, (array.min(), array.max()))
        self.assertEqual((histogram["from"], histogram["to"]), (array.min(), array.max()))
        self.assertEqual(histogram["counts"], counts.tolist())

    def test_integers_have_bins_of_whole_values(self):
        array = self.save("a.npy", np.array([3, 3, 5, 9, 9, 9] * 4, "i2"))
        (report,), _ = self.info("a.npy")
        self.assertEqual(report["histogram"], {"from": 3, "to": 10, "counts": [8, 0, 4, 0, 0, 0, 12]})
        array = self.save("a.npy", np.arange(121, dtype="u1"))
        (report,), _ = self.info("a.npy")
        self.assertEqual(report["histogram"], {"from": 0, "to": 123, "counts": [3] * 40 + [1]})
        self.assertEqual(len(array), sum(report["histogram"]["counts"]))

    def test_histogram_in_the_terminal(self):
        self.save("a.npy", np.repeat(np.arange(4), [32, 8, 1, 16]).astype("u1"))
        os.environ["LC_ALL"] = "C.UTF-8"
        self.addCleanup(os.environ.pop, "LC_ALL")
        self.assertEqual(self.text("info", "a.npy").splitlines(), [
            "a.npy: 57 uint8, dense, 57 bytes",
            "  min 0 at [0], max 3 at [41], mean 1.01754, standard deviation 1.3044",
            "  elements 57, zeros 32", "  █", "  █", "  █  █", "  ██▁█", "  0  3"])
        os.environ["LC_ALL"] = "C"
        self.assertEqual(self.text("info", "a.npy").splitlines()[3:], ["  #", "  #", "  #  #", "  ##.#", "  0  3"])

    def test_few_elements_are_printed(self):
        self.save("a.npy", np.array([[0.1, -0.0, math.nan, math.inf]], "f4"))
        (report,), lines = self.info("a.npy")
        self.assertEqual(lines, ["a.npy: 1x4 float32, dense, 16 bytes",
                                 "  min -0 at [0,1], max 0.1 at [0,0], mean 0.05, standard deviation 0.05",
                                 "  elements 4, zeros 1, NaN 1, infinite 1", "  0.1 -0 nan inf"])
        self.assertEqual((report["nan"], report["infinite"]), (1, 1))
        self.save("a.npy", np.full(3, math.nan, "f4"))
        (report,), lines = self.info("a.npy")
        self.assertEqual(lines[1:], ["  elements 3, zeros 0, NaN 3, infinite 0", "  nan nan nan"])
        self.assertEqual((report["min"], report["mean"], report["min_index"]), (None, None, []))

    def test_extremes(self):
        self.save("a.npy", np.tile(np.array([-1.7e308, 1.7e308, 0]), 8))
        (report,), _ = self.info("a.npy")
        self.assertEqual([c for c in report["histogram"]["counts"] if c], [8, 8, 8])
        self.save("a.npy", np.full((2, 3, 4), 7, "u1"))
        (report,), _ = self.info("a.npy")
        self.assertEqual(report["histogram"], {"from": 7, "to": 7, "counts": [24]})

    def test_layout_and_fixed_point(self):
        self.write("a.bin", bytes(range(80)))
        (report,), lines = self.info("a.bin,type=u8,shape=1x6x2x3,pack=4,line=16,plane=40,zero=3,scale=0.5", "--real")
        self.assertEqual(lines[0], "a.bin: 1x6x2x3 uint8, pack=4, line=16, plane=40, zero=3, scale=0.5, 80 bytes")
        self.assertEqual((report["pack"], report["line"], report["plane"]), (4, 16, 40))
        # Of the slots only those of elements count: offsets 0 and, in the second plane, 40 + 16 + 2 * 4 + 1.
        self.assertEqual((report["min"], report["max"]), ((0 - 3) / 2, (65 - 3) / 2))
        self.save("i.npy", np.array([-8, 24], "i2"))
        (report,), lines = self.info("i.npy,exp=-4", "--real")
        self.assertEqual((report["min"], report["max"], report["exp"], lines[-1]), (-0.5, 1.5, -4, "  -0.5 1.5"))

    def test_json_on_standard_output(self):
        self.save("a.npy", np.array([1, 2], "u1"))
        result = self.vekrun("info", "a.npy", "--json", "-")
        self.assertEqual(json.loads(result.stdout)[0]["max"], 2)
        self.assertIn("max 2 at [1]", result.stderr)

    def test_wrong_usage(self):
        self.expect_usage_error("FILE is required", "info")
        self.expect_usage_error("missing.npy", "info", "missing.npy")


class Convert(LookCase):
    def convert(self, array, out, *options):
        self.save("in.npy", array)
        return self.text("convert", "in.npy", out, *options)

    def refuse(self, text, array, out, *options):
        self.save("in.npy", array)
        before = sorted(os.listdir(self.folder))
        result = self.vekrun("convert", "in.npy", out, *options)
        self.assertEqual((result.returncode, result.stdout), (1, ""), result)
        self.assertIn(text, result.stderr)
        self.assertEqual(result.stderr.count("\n"), 1)
        self.assertEqual(sorted(os.listdir(self.folder)), before)

    def test_exact_casts(self):
        small = np.array([[0, 1, 1], [1, 0, 0]])
        for source in TYPES:
            array = small.astype(source)
            for target in (TYPES if source in ("?", "i8", "f2") else ["f4"]):
                with self.subTest(source=source, target=target):
                    self.convert(array, f"out.npy,type={NAMES[target]}")
                    out = self.load("out.npy")
                    self.assertEqual(out.dtype, np.dtype(target))
                    self.assertEqual(out.tolist(), array.astype(target).tolist())

    def test_ends_of_the_ranges(self):
        for target in ("i1", "u1", "i2", "u2", "i4", "u4", "i8", "u8"):
            limits = np.iinfo(target)
            ends = np.array([limits.min, limits.max], "u8" if target == "u8" else "i8")
            self.convert(ends, f"out.npy,type={NAMES[target]}")
            self.assertEqual(self.load("out.npy").tolist(), [limits.min, limits.max])
            for beyond in (float(limits.max) + (1 if limits.bits <= 32 else 0), float(limits.min) - max(1, 2.0**(limits.bits - 53))):
                self.refuse(f"does not fit in {NAMES[target]}", np.array([beyond]), f"x.npy,type={NAMES[target]}")

    def test_refusals_name_the_first_element(self):
        self.refuse("in.npy: 2 elements, the first 300 at [1,0], do not fit in uint8; to cut such elements to its ends "
                    "give --saturate", np.array([[1, 2], [300, -1]], "i4"), "x.npy,type=u8")
        self.refuse("16777217 at [1] does not exist exactly in float32", np.array([1, 2**24 + 1]), "x.npy,type=f32")
        self.refuse("9007199254740993 at [0] does not exist exactly in float64", np.array([2**53 + 1]), "x.npy,type=f64")
        self.refuse("0.1 at [0] does not exist exactly in float32", np.array([0.1]), "x.npy,type=f32")
        self.refuse("0.5 at [0] does not exist exactly in int8", np.array([0.5], "f4"), "x.npy,type=i8")
        self.refuse("nan at [0] does not fit in int32", np.array([math.nan], "f4"), "x.npy,type=i32")
        self.refuse("inf at [0] does not fit in int32", np.array([math.inf], "f4"), "x.npy,type=i32")
        self.refuse("2 at [0] does not fit in bool", np.array([2], "u1"), "x.npy,type=bool")
        self.refuse("1e+300 at [0] does not fit in float32", np.array([1e300]), "x.npy,type=f32", "--round", "nearest")

    def test_floats_keep_what_is_no_number(self):
        array = np.array([math.nan, math.inf, -math.inf, -0.0])
        for target in ("f2", "f4", "f8"):
            self.convert(array, f"out.npy,type={NAMES[target]}")
            out = self.load("out.npy")
            np.testing.assert_array_equal(out, array.astype(target))
            self.assertTrue(np.signbit(out[3]))

    def test_every_half_precision_number(self):
        bits = np.arange(65536, dtype="u2")
        halves = bits.view("f2")
        self.convert(halves, "wide.npy,type=float32")
        wide = self.load("wide.npy")
        np.testing.assert_array_equal(wide, halves.astype("f4"))
        self.text("convert", "wide.npy", "back.npy,type=float16")
        numbers = ~np.isnan(halves)
        np.testing.assert_array_equal(self.load("back.npy").view("u2")[numbers], bits[numbers])

    def test_rounding_is_numpys(self):
        rng = np.random.default_rng(3)
        halves = np.arange(0, 0x7BFF, dtype="u2").view("f2").astype("f8")
        ties = (halves[:-1] + halves[1:]) / 2  # exactly between two neighbours
        wide = np.concatenate([ties, -ties, np.ldexp(rng.standard_normal(2000), rng.integers(-26, 15, 2000))])
        self.convert(wide, "out.npy,type=f16", "--round", "nearest")
        np.testing.assert_array_equal(self.load("out.npy"), wide.astype("f2"))
        wide = np.ldexp(rng.standard_normal(2000), rng.integers(-150, 120, 2000))
        self.convert(wide, "out.npy,type=f32", "--round", "nearest")
        np.testing.assert_array_equal(self.load("out.npy"), wide.astype("f4"))
        halves = np.array([-2.5, -1.5, -0.5, 0.5, 1.5, 2.5, 1.75, -1.75])
        self.convert(halves, "out.npy,type=i8", "--round", "nearest")
        self.assertEqual(self.load("out.npy").tolist(), np.rint(halves).tolist())
        self.convert(halves, "out.npy,type=i8", "--round", "zero")
        self.assertEqual(self.load("out.npy").tolist(), np.trunc(halves).tolist())

    def test_saturation(self):
        text = self.convert(np.array([300, -300, 5, math.nan, math.inf]), "out.npy,type=i8", "--saturate")
        self.assertEqual(self.load("out.npy").tolist(), [127, -128, 5, 0, 127])
        self.assertEqual(text, "out.npy (5 int8), 4 cut, first 300 at [0]\n")
        self.convert(np.array([1e300, -1e5]), "out.npy,type=f16", "--saturate")
        self.assertEqual(self.load("out.npy").tolist(), [65504, -65504])
        self.refuse("0.5 at [1] does not exist exactly", np.array([300, 0.5]), "x.npy,type=i8", "--saturate")

    def test_quantising(self):
        reals = np.array([0.1, -0.37, 1.5, -7.9, 7.9, 0.0625])
        text = self.convert(reals, "out.npy,type=i8,exp=-4", "--real")
        self.assertEqual(self.load("out.npy").tolist(), np.trunc(reals * 16).tolist())  # as layers do with a constant
        self.assertEqual(text, "out.npy (6 int8), 4 rounded\n")
        self.convert(reals, "out.npy,type=i8,exp=-4", "--real", "--round", "nearest")
        self.assertEqual(self.load("out.npy").tolist(), np.rint(reals * 16).tolist())
        self.convert(reals, "out.npy,type=u8,zero=128,scale=0.25", "--real")
        self.assertEqual(self.load("out.npy").tolist(), np.rint(reals / 0.25 + 128).tolist())
        self.refuse("2 elements, the first -7.9 at [3], do not fit in int8", reals, "x.npy,type=i8,exp=-5", "--real")

    def test_dequantising_and_from_one_format_to_another(self):
        stored = np.array([0, 100, 255], "u1")
        self.save("q.npy", stored)
        self.text("convert", "q.npy,zero=100,scale=0.5", "out.npy,type=f32", "--real")
        self.assertEqual(self.load("out.npy").tolist(), [-50, 0, 77.5])
        self.text("convert", "q.npy,zero=100,scale=0.5", "out.npy,type=i16,exp=-3", "--real")
        self.assertEqual(self.load("out.npy").tolist(), [-400, 0, 620])
        self.text("convert", "q.npy,zero=100,scale=0.5", "out.npy,type=i16")  # what is stored
        self.assertEqual(self.load("out.npy").tolist(), [0, 100, 255])

    def test_other_layouts(self):
        array = np.arange(36, dtype="u2").reshape(1, 6, 2, 3)
        self.convert(array, "out.bin,pack=4,line=32,plane=80")
        memory = np.zeros(80, "u2")
        for n, c, h, w in np.ndindex(array.shape):
            memory[c // 4 * 40 + h * 16 + w * 4 + c % 4] = array[n, c, h, w]
        self.assertEqual(self.read("out.bin"), memory.tobytes())
        self.text("convert", "out.bin,type=u16,shape=1x6x2x3,pack=4,line=32,plane=80", "back.npy,type=i64,shape=6x6")
        np.testing.assert_array_equal(self.load("back.npy"), array.reshape(6, 6).astype("i8"))

    def test_wrong_usage(self):
        self.save("in.npy", np.zeros(6, "f4"))
        self.expect_usage_error("which shape=4 does not", "convert", "in.npy", "out.npy,shape=4")
        self.expect_usage_error("--round", "convert", "in.npy", "out.npy", "--round", "up")
        self.expect_usage_error("OUT is required", "convert", "in.npy")


SVG = "{http://www.w3.org/2000/svg}"


class Layout(LookCase):
    def draw(self, *files):
        self.assertEqual(self.text("layout", *files, "--out", "drawing.svg"), "")
        root = xml.etree.ElementTree.fromstring(self.read("drawing.svg"))
        self.assertEqual(root.tag, SVG + "svg")
        self.assertTrue(root.find(SVG + "title").text)
        width, height = float(root.get("width")), float(root.get("height"))
        for rect in root.iter(SVG + "rect"):  # all within the picture
            self.assertLessEqual(float(rect.get("x")) + float(rect.get("width")), width)
            self.assertLessEqual(float(rect.get("y")) + float(rect.get("height")), height)
        return root

    @staticmethod
    def rects(root, kind):
        """Of the cells, those with a title: not the ones of the legend."""
        found = [r for r in root.iter(SVG + "rect") if r.get("class").split()[0] == kind]
        return [r for r in found if r.find(SVG + "title") is not None]

    @staticmethod
    def texts(root):
        return ["".join(t.itertext()) for t in root.iter(SVG + "text")]

    def cells(self, root):
        """Index: (byte, value, colour) of each cell."""
        cells = {}
        for rect in self.rects(root, "cell"):
            index, byte, value = re.fullmatch(r"\[([\d,]+)\] at byte (\d+): (.*)", rect.find(SVG + "title").text).groups()
            cells[tuple(int(i) for i in index.split(","))] = (int(byte), value, rect.get("class").split()[1])
        return cells

    def test_every_element_has_a_cell_at_its_byte(self):
        for element, name in ((1, "u8"), (4, "f32")):
            for pack, line, plane in ((1, 3, 6), (4, 16, 40), (2, 6, 12), (1, 5, 20), (3, 9, 18)):
                options = f"pack={pack},line={line * element},plane={plane * element}"
                root = self.draw(f"ramp:2x3x2x3,type={name},{options}")
                groups = -(-3 // pack)
                wanted = {}
                for value, (n, c, h, w) in enumerate(np.ndindex(2, 3, 2, 3)):
                    byte = ((n * groups + c // pack) * plane + h * line + w * pack + c % pack) * element
                    wanted[n, c, h, w] = (byte, str(value), f"c{c}")
                self.assertEqual(self.cells(root), wanted, options)
                planes = 2 * groups
                self.assertEqual(len(self.rects(root, "unused")), 2 * 6 * (groups * pack - 3))
                paddings = [r.find(SVG + "title").text for r in self.rects(root, "padding")]
                self.assertEqual(paddings.count("padding of the row"), 2 * planes if line > 3 * pack else 0)
                self.assertEqual(paddings.count("padding of the plane"), planes if plane > 2 * line else 0)

    def test_the_formula_has_the_numbers(self):
        texts = self.texts(self.draw("ramp:2x6x2x3,type=u16,pack=4,line=32,plane=80"))
        self.assertIn("byte of [n,c,h,w] = (n × 2 + ⌊c / 4⌋) × 80 + h × 32 + (w × 4 + c mod 4) × 2", texts)
        self.assertIn("[0,5,1,2]: 1 × 80 + 1 × 32 + (2 × 4 + 1) × 2 = 130", texts)
        self.assertIn("2x6x2x3 uint16, pack=4, line=32, plane=80: 320 bytes", texts)
        texts = self.texts(self.draw("ramp:1x3x4x5,type=u8"))
        self.assertIn("byte of [n,c,h,w] = c × 20 + h × 5 + w", texts)
        self.assertIn("[0,1,1,2]: 1 × 20 + 1 × 5 + 2 = 27", texts)
        self.assertIn("1x3x4x5 uint8, dense: 60 bytes", texts)
        for offset in (0, 5, 10, 15, 20, 25, 55):  # in front of the rows
            self.assertIn(str(offset), texts)

    def test_values_stand_in_the_cells_where_they_fit(self):
        self.save("a.npy", np.array([[[[0.25, -1.5, 3.14159]]]], "f4"))
        self.assertLessEqual({"0.25", "-1.5", "3.14"}, set(self.texts(self.draw("a.npy"))))
        self.save("a.npy", np.array([[[[123456, 2]]]], "i4"))
        self.assertNotIn("2", self.texts(self.draw("a.npy")))

    def test_large_shapes_are_abridged(self):
        root = self.draw("zeros:1x64x55x55,pack=16,line=4096")
        self.assertIn("drawn: 5 of 55 rows, 3 of 55 pixels, 9 of 16 channels of a pixel", self.texts(root))
        cells = self.cells(root)
        self.assertEqual(len(cells), 4 * 5 * 3 * 9)
        self.assertIn((0, 63, 54, 54), cells)
        self.assertNotIn((0, 63, 53, 54), cells)
        root = self.draw("zeros:1x64x3x100,type=u8")
        self.assertIn("drawn: 8 of 64 planes, 24 of 100 columns", self.texts(root))
        self.assertEqual({c for _, c, _, _ in self.cells(root)}, {0, 1, 2, 3, 4, 5, 6, 63})

    def test_other_ranks(self):
        for shape, count in (("5", 5), ("2x3", 6), ("2x3x4", 24), ("2x2x2x3x4", 96)):
            self.assertEqual(len(self.rects(self.draw(f"ramp:{shape},type=u8"), "cell")), count)

    def test_two_buffers_are_joined_where_values_are_equal(self):
        a = self.save("a.npy", np.arange(24, dtype="u1").reshape(1, 3, 2, 4))
        self.save("b.npy", np.repeat(a.transpose(0, 2, 3, 1), 2, axis=0))
        root = self.draw("a.npy", "b.npy")
        lines = [p for p in root.iter(SVG + "path") if (p.get("class") or "").startswith("line")]
        self.assertEqual(len(lines), 48)
        self.assertEqual([sum(p.get("class") == f"line l{c}" for p in lines) for c in range(3)], [16, 16, 16])
        # The right one's cells have the colours of the channels that they come from.
        self.assertEqual([v[2] for i, v in sorted(self.cells(root).items()) if i[0] == 1], ["c0", "c1", "c2"] * 8)
        self.save("a.npy", np.zeros((1, 3, 2, 4), "u1"))
        root = self.draw("a.npy", "b.npy")
        self.assertFalse([p for p in root.iter(SVG + "path") if (p.get("class") or "").startswith("line")])

    def test_names_are_escaped(self):
        self.save('a<&>".npy', np.zeros((1, 2), "u1"))
        self.assertIn('a<&>".npy', self.texts(self.draw('a<&>".npy')))

    def test_wrong_usage(self):
        self.save("a.npy", np.zeros((0, 2), "u1"))
        self.expect_usage_error("without elements", "layout", "a.npy", "--out", "x.svg")
        self.expect_usage_error("--out is required", "layout", "a.npy")
        self.expect_usage_error("", "layout", "a.npy", "a.npy", "a.npy", "--out", "x.svg")


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], sys.argv[1]])
