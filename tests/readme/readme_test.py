"""What the README says is true: its command lines run as they stand, its example prints what it promises.

    readme_test.py BUILD     # BUILD: the folder with libvekcustom.so and vekrun, which stands for build/native

Lines that build the project are not run: it is asked that their scripts, presets and targets exist. The C++ example is
examples/short_host.cpp, as another test compares.
"""

import importlib.util
import json
import math
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import textwrap
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(sys.argv.pop(1)).resolve()
README = (ROOT / "README.md").read_text()
LINES = [line for block in re.findall(r"^```sh\n(.*?)^```", README, re.M | re.S) for line in block.splitlines()]


def builds(line):
    """Whether the line builds the project, which takes minutes."""
    return line.startswith(("scripts/", "cmake "))


class Readme(unittest.TestCase):
    def test_every_line_runs(self):
        lines = [line for line in LINES if not builds(line)]
        self.assertGreater(len(lines), 5)
        with tempfile.TemporaryDirectory() as clone:  # as scripts/demo leaves it
            for name in ("examples", "host", "include"):
                os.symlink(ROOT / name, pathlib.Path(clone, name))
            os.makedirs(pathlib.Path(clone, "out"))
            os.makedirs(pathlib.Path(clone, "build"))
            os.symlink(BUILD, pathlib.Path(clone, "build/native"))
            script = "\n".join(line.replace("g++ ", '"$CXX" ', 1) if line.startswith("g++ ") else line for line in lines)
            run = subprocess.run(["bash", "-euo", "pipefail", "-c", script], cwd=clone, capture_output=True, text=True)
            self.assertEqual((run.returncode, run.stderr), (0, ""))
            named = set(re.findall(r"out/[\w.-]+", script))
            self.assertEqual({f"out/{name}" for name in os.listdir(pathlib.Path(clone, "out"))}, named)

        # The example comes last. A softmax, by its formula.
        exponentials = [math.exp(score) for score in range(10)]
        expected = [f"{value / sum(exponentials):.6f}" for value in exponentials]
        self.assertEqual(run.stdout.splitlines()[-10:], expected)
        first, last = re.search(r"ten probabilities, ([\d.]+) first and ([\d.]+) last", README).groups()
        self.assertEqual((first, last), (expected[0], expected[-1]))

    @unittest.skipUnless(importlib.util.find_spec("numpy"), "NumPy is not installed")
    def test_the_story_from_a_recording_to_the_wrong_layer(self):
        story, said = re.search(r"^```python\n(.*?)^```\n.*?((?:^ {4}[^\n]*\n)+)", README, re.M | re.S).groups()
        self.assertEqual(len(story.splitlines()), 10)
        environment = {"LD_LIBRARY_PATH": str(BUILD), "PYTHONPATH": str(ROOT / "python"), "PYTHONDONTWRITEBYTECODE": "1"}
        with tempfile.TemporaryDirectory() as clone:
            os.symlink(ROOT / "examples", pathlib.Path(clone, "examples"))
            run = subprocess.run([sys.executable, "-c", story], cwd=clone, capture_output=True, text=True, check=False,
                                 env={**os.environ, **environment})
        self.assertEqual((run.returncode, run.stderr, run.stdout), (0, "", textwrap.dedent(said)))

    def test_lines_that_build_name_what_there_is(self):
        presets = {preset["name"] for preset in json.loads((ROOT / "CMakePresets.json").read_text())["configurePresets"]}
        lines = [line for line in LINES if builds(line)]
        self.assertGreater(len(lines), 2)
        for line in lines:
            with self.subTest(line):
                if line.startswith("scripts/"):
                    self.assertTrue(os.access(ROOT / line.split()[0], os.X_OK))
                self.assertLessEqual(set(re.findall(r"--preset (\w+)", line)), presets)
                self.assertLessEqual(set(re.findall(r"--target (\w+)", line)), {"vekcustom"})

    def test_it_names_the_packages_and_the_version_of_cmake(self):
        demo = (ROOT / "scripts/demo").read_text()
        needed = re.findall(r"\blib[\w-]+-dev\b", demo)
        self.assertTrue(needed)
        for package in needed:
            self.assertIn(package, README)
        minimum = re.search(r"cmake_minimum_required\(VERSION ([\d.]+)\)", (ROOT / "CMakeLists.txt").read_text())[1]
        self.assertIn(f"CMake {minimum}", README)

    def test_paths_and_links_lead_somewhere(self):
        for document in [ROOT / "README.md", ROOT / "CONTRIBUTING.md", *sorted((ROOT / "docs").glob("*.md"))]:
            prose = re.sub(r"^```.*?^```", "", document.read_text(), flags=re.M | re.S)
            for link in re.findall(r"\]\(([^)#:]+)(?:#[^)]*)?\)", prose):
                self.assertTrue((document.parent / link).exists(), f"{document.name}: {link}")
        for path in re.findall(r"`((?:docs|examples|tools|host|include|src|tests|fuzz|bench|scripts)/[\w./-]*)`", README):
            self.assertTrue((ROOT / path).exists(), path)

    def test_quoted_log_lines_are_printed_by_the_library(self):
        quoted = re.findall(r"^ {4}\[(?:ERROR|INFO)\] (\w+\.cpp):\d+: (.*)$",
                            (ROOT / "docs/troubleshooting.md").read_text(), re.M)
        self.assertGreater(len(quoted), 3)
        for file, text in quoted:
            source = re.sub(r'"\s*"', "", (ROOT / "src/custom_ops" / file).read_text())
            formats = re.findall(r'"((?:[^"\\]|\\.)*)"', source)
            patterns = [re.sub(r"%[a-z]+", ".*", re.escape(words).replace("\\%", "%")) for words in formats]
            self.assertTrue(any(re.fullmatch(pattern, text) for pattern in patterns if len(pattern) > 9), text)


if __name__ == "__main__":
    unittest.main()
