#!/usr/bin/env python3
"""Runs the examples in docs/operators.md: operators_doc_test.py Examples COMMAND..., as vekrun_test.py.

The last example block of each section holds commands, the inputs' elements, NumPy's way to the same result, and the
output's elements. All of them must agree.
"""

import pathlib
import re
import shlex
import sys
import unittest

import numpy as np

from vekrun_case import TYPES, Case

DOCUMENT = pathlib.Path(__file__).parents[2] / "docs/operators.md"


def numbers(text):
    return [float(word) for word in text.split()]


class Examples(Case):
    def stored(self, argument):
        """The tensor that an --in or --out names."""
        if argument.endswith(".npy"):
            return np.load(self.path(argument))
        if ".bin" in argument:
            return np.frombuffer(self.read(argument.split(",")[0]), np.uint8)
        self.assertEqual(self.vekrun("convert", argument, "x.npy").returncode, 0)
        return np.load(self.path("x.npy"))

    def run_example(self, layer, block):
        commands = block.replace("\\\n", " ").splitlines()
        notes = dict(re.findall(r"^# (x|y|NumPy|out): +(.*)$", block, re.MULTILINE))
        words = shlex.split(commands[0], comments=True)
        self.assertEqual(words[:3], ["vekrun", "run", layer])
        result = self.vekrun(*words[1:])
        self.assertEqual((result.returncode, result.stderr), (0, ""), result)

        inputs = [self.stored(words[i + 1]) for i, word in enumerate(words) if word == "--in"]
        self.assertEqual([i.ravel().tolist() for i in inputs], [numbers(notes[key]) for key in ("x", "y") if key in notes])
        out = self.stored(words[words.index("--out") + 1])
        # Every digit counts: the document's texts are the shortest that give the element.
        np.testing.assert_array_equal(out.ravel(), np.array(numbers(notes["out"]), out.dtype))
        names = {"numpy": np, **dict(zip("xy", inputs))}
        likewise = eval(notes["NumPy"], names)  # pylint: disable=eval-used
        np.testing.assert_allclose(np.asarray(likewise).ravel(), out.ravel(), rtol=1e-6)
        if ".bin" not in words[words.index("--out") + 1]:
            self.assertEqual(np.asarray(likewise).size, out.size)

    def test_every_layer_has_an_example_that_holds(self):
        sections = re.split(r"^## ", DOCUMENT.read_text(), flags=re.MULTILINE)[1:]
        self.assertEqual(sorted(section.split("\n")[0] for section in sections), sorted(TYPES))
        for section in sections:
            layer = section.split("\n")[0]
            with self.subTest(layer):
                rows = dict(re.findall(r"^\| (ONNX|NumPy) \| (.*) \|$", section, re.MULTILINE))
                listed = self.vekrun("list", layer).stdout
                self.assertIn(f"  ONNX: {rows['ONNX']}\n  NumPy: {rows['NumPy']}\n", listed)
                self.run_example(layer, re.findall(r"```sh\n(.*?)```", section, re.DOTALL)[-1])


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], sys.argv[1]])
