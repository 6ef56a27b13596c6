#!/usr/bin/env python3
"""A table of calls of vekrun, good and bad, with their status and what they say: calls_test.py SUITE COMMAND..."""

import json
import os
import re
import shlex
import tempfile

from vekrun_case import TYPES, Case, main, npy, png

RUN = "run {} --out o.npy "
PAD = "run PAD --attr pad_mode=4 --attr pad_shape=[0,0,0,0,1,1,1,1] --attr format=[0,1,2,3] --out o.npy "
TABLE = [
    # Call, status, and parts of what goes to standard output and to standard error; "" is nothing at all.
    # --- First contact
    ("", 0, "Usage: vekrun", ""),
    ("--help", 0, "Usage: vekrun", ""),
    ("--version", 0, "vekrun 1", ""),
    ("run --help", 0, "--seconds", ""),
    ("walk", 2, "", "there is no command walk"),
    ("rnu SOFTMAX", 2, "", "there is no command rnu; did you mean run?"),
    ("list softmax", 2, "", "there is no layer type softmax; did you mean SOFTMAX?"),
    ("list SOFTMAX", 0, "SOFTMAX: softmax along one axis", ""),
    ("list nothing-like-it", 2, "", "there is no layer type nothing-like-it\n"),
    # --- The command line
    ("run", 2, "", "TYPE is required"),
    ("run SOFTMAX --in f.npy", 2, "", "--out is required, but to time a layer"),
    (RUN.format("SOFTMAX"), 2, "", "--in is required"),
    (RUN.format("softmax") + "--in f.npy", 2, "", "no layer type softmax; did you mean SOFTMAX?"),
    (RUN.format("MATMULL") + "--in f.npy", 2, "", "no layer type MATMULL; did you mean MATMUL?"),
    (RUN.format("SOFTMAX") + "--in f.npy --atr axis=1", 2, "", "vekrun run takes no --atr; did you mean --attr?"),
    (RUN.format("SOFTMAX") + "--in f.npy --attr axis", 2, "", "--attr takes key=value, not 'axis'"),
    (RUN.format("SOFTMAX") + "--in f.npy --attr axis=1 --attr axis=2", 2, "", "--attr axis is given twice"),
    (RUN.format("SOFTMAX") + "--in f.npy --cold", 2, "", "--cold is for --repeat or --seconds"),
    (RUN.format("SOFTMAX") + "--in f.npy --shape 1x2", 2, "", "--shape takes the place of {} in --in"),
    (RUN.format("SOFTMAX") + "--in f.npy --seconds 1 --repeat 2", 2, "", "--seconds"),
    (RUN.format("SOFTMAX") + "--in f.npy --plugin ./none.so", 2, "", "cannot load the plug-in: ./none.so"),
    # --- Files
    (RUN.format("SOFTMAX") + "--in f.npy", 0, "SOFTMAX: o.npy (1x3x1x2 float32)\n", ""),
    (RUN.format("SOFTMAX") + "--in f.npy,shape=1,2,3,1", 0, "(1x2x3x1 float32)", ""),
    (RUN.format("SOFTMAX") + "--in f.npy,shape=[1,2,3,1]", 0, "(1x2x3x1 float32)", ""),
    (RUN.format("SOFTMAX") + "--in f.npy,shape=1x2", 2, "", "f.npy holds 1x3x1x2, which shape=1x2 does not"),
    (RUN.format("SOFTMAX") + "--in f.npy,shape=1x6,shape=1x6", 2, "", "shape= is given twice"),
    (RUN.format("SOFTMAX") + "--in f.npy,type=f32", 2, "", "the file tells its type itself"),
    (RUN.format("SOFTMAX") + "--in f.npy,packs=4", 2, "", "unknown option 'packs'"),
    (RUN.format("SOFTMAX") + "--in f.npy,pack=0", 2, "", "cannot make sense of 'pack=0'"),
    (RUN.format("SOFTMAX") + "--in f.npy,line=7", 2, "", "line=7 is less than a row of 8 bytes"),
    (RUN.format("SOFTMAX") + "--in none.npy", 2, "", "cannot read none.npy: No such file or directory"),
    (RUN.format("SOFTMAX") + "--in folder", 2, "", "cannot read folder: Is a directory"),
    (RUN.format("SOFTMAX") + "--in d.npy", 2, "", "d.npy holds float64 elements, which no layer takes"),
    (RUN.format("SOFTMAX") + "--in be.npy", 2, "", "'>f4', big-endian float32"),
    (RUN.format("SOFTMAX") + "--in junk.npy", 2, "", "junk.npy is not a whole .npy file"),
    (RUN.format("SOFTMAX") + "--in junk.dat", 2, "", "bytes alone do not tell their type= and shape="),
    (RUN.format("SOFTMAX") + "--in junk.dat,type=f32,shape=1x1x1x1", 0, "(1x1x1x1 float32)", ""),
    (RUN.format("SOFTMAX") + "--in junk.dat,type=f32,shape=2x1x1x1", 2, "", "junk.dat has 4 bytes, the described buffer 8"),
    (RUN.format("SOFTMAX") + "--in junk.dat,type=f33,shape=1", 2, "", "types are float32 (f32), int8 (i8)"),
    (RUN.format("SOFTMAX") + "--in random:1x3", 1, "expects input buf dims >= 4", "four dimensions: random:1x3,shape=1x3x1x1"),
    (RUN.format("SOFTMAX") + "--in random:3xx", 2, "", "cannot make sense of the shape in random:3xx"),
    ("run SOFTMAX --in f.npy --out o.txt", 2, "", "the name of an output ends in .npy"),
    ("run SOFTMAX --in f.npy --out o.npz", 2, "", ".npz files are read, not written"),
    ("run SOFTMAX --in f.npy --out folder", 2, "", "the name of an output ends in .npy"),
    ("run SOFTMAX --in f.npy --out none/o.npy", 2, "", "cannot write none/o.npy: No such file or directory"),
    ("run SOFTMAX --in f.npy --out o.npy,type=f16", 2, "", "no layer writes float16"),
    ("run SOFTMAX --in f.npy --out o.png", 0, "SOFTMAX: o.png", ""),
    # --- What layers refuse, and what to give instead
    (RUN.format("SOFTMAX") + "--in f.npy --attr axis=7", 1, "axis = 7, but should be in range", "axis  default 1  0 to 3"),
    (RUN.format("SOFTMAX") + "--in f.npy --attr axsi=1", 1, "expected attribute: axis", "no attribute axsi; did you mean axis?"),
    (RUN.format("SOFTMAX") + "--in two.npy", 1, "[ERROR]", "give it four dimensions: two.npy,shape=2x10x1x1"),
    (RUN.format("SOFTMAX") + "--in random:2x10x3", 1, "[ERROR]", "give it a fourth dimension: random:2x10x3,shape=1x2x10x3"),
    (RUN.format("SOFTMAX") + "--in p.png", 1, "[ERROR]", "p.png holds uint8, SOFTMAX takes float32: p.png,type=float32"),
    (RUN.format("SOFTMAX") + "--in u.npy", 1, "[ERROR]", "'vekrun convert u.npy floats.npy,type=float32'"),
    (RUN.format("SOFTMAX") + "--in p.png,type=f32", 0, "(1x3x2x2 float32)", ""),
    (RUN.format("ARGMAX") + "--in f.npy --attr axis=1 --attr top_k=2", 1, "exactly one attribute",
     "it takes one attribute at a time: --attr axis=1 --then --attr top_k=2"),
    (RUN.format("ARGMAX") + "--in f.npy --attr axis=1 --then --attr top_k=2", 0, "(1x1x2x2 float32)", ""),
    (RUN.format("DEPTHTOSPACE") + "--in p.png --attr block_size=2", 1, "[ERROR]", "3 channels are not a multiple of 2 x 2"),
    (RUN.format("RESHAPE") + "--in p.png --attr pixelshuffler=2", 1, "[ERROR]", "3 channels are not a multiple of 2 x 2"),
    (RUN.format("SPACETODEPTH") + "--in f.npy --attr block_size=2", 1, "[ERROR]", "1 rows are not a multiple of 2"),
    (RUN.format("BATCHTOSPACE") + "--in f.npy --attr block_shape=[2,2] --attr crops=[0,0,0,0]", 0, "(0x3x2x4 float32)",
     "warning: input 0: 1 batch items are not a multiple of 2 x 2"),
    (RUN.format("SPACETOBATCH") + "--in f.npy --attr block_shape=[2,2] --attr paddings=[0,0,0,0]", 1, "[ERROR]",
     "1 rows with their padding are not a multiple of 2"),
    (RUN.format("BROADCAST") + "--in f.npy --attr size=[0,x,0,0]", 1, "", "stoi; 'x' in size=[0,x,0,0] is no number"),
    # --- What layers take, and should not
    (RUN.format("ELTWISE") + "--attr method=0 --in random:1x64x56x56 --in random:1x64x1x1", 1, "",
     "re:^vekrun: ELTWISE (read|touched memory) beyond input 1 \\(random:1x64x1x1, 1x64x1x1 float32, 256 bytes\\): byte \\d+ "
     "behind its end; to repeat it along H and W give broadcast_B=1 word_B=3\n$"),
    (RUN.format("ELTWISE") + "--attr method=0 --attr broadcast_B=1 --attr word_B=3 --in random:1x64x56x56 --in random:1x64x1x1",
     0, "(1x64x56x56 float32)", ""),
    (RUN.format("ELTWISE") + "--attr method=6 --in random:2x4x8x8 --in random:1x4x8x1", 1, "",
     "to repeat it along N and W give broadcast_B=1 word_B=9"),
    (RUN.format("ELTWISE") + "--attr method=6 --attr broadcast_B=1 --attr word_B=9 --in random:2x4x8x8 --in random:1x4x8x1",
     0, "(2x4x8x8 float32)", ""),
    (RUN.format("ELTWISE") + "--attr method=0 --in random:1x64x1x1 --in random:1x64x8x8", 0, "(1x64x1x1 float32)",
     "warning: input 0: to repeat it along H and W give broadcast_A=1 word_A=3"),
    (RUN.format("ELTWISE") + "--attr method=0 --attr broadcast_A=1 --attr word_A=3 --in random:1x64x1x1 --in random:1x64x8x8",
     0, "(1x64x8x8 float32)", ""),
    (RUN.format("ELTWISE") + "--attr method=0 --in random:1x1x8x8 --in random:1x64x8x8", 0, "(1x1x8x8 float32)",
     "swap the inputs; then, to repeat it along C give broadcast_B=1 word_B=4"),
    (RUN.format("ELTWISE") + "--attr method=6 --in random:1x1x8x8 --in random:1x64x8x8", 0, "(1x1x8x8 float32)",
     "to repeat it along C use BROADCAST first"),
    (RUN.format("ELTWISE") + "--attr method=6 --in random:1x3x4x4 --in random:1x3x4x5", 0, "",
     "W is 4 in A and 5 in B: it must be equal, or 1 and repeated"),
    (RUN.format("ELTWISE") + "--attr method=0 --attr broadcast_B=1 --attr word_B=1 --in random:1x1x4x4 --in random:1x1x4x4", 0,
     "", "word_B repeats B along W, where it has 4 values and not one"),
    (RUN.format("MATMUL") + "--attr trans_b=0 --in random:1x3x1x4 --in random:1x5x1x6", 0, "(1x3x1x6 float32)",
     "the inner sizes differ: a row of A is H x W = 4 values, B has C = 5 rows"),
    (RUN.format("MATMUL") + "--attr trans_b=0 --in random:1x3x1x400 --in random:1x5x1x6", 1, "",
     "re:MATMUL (read|touched memory) beyond input 1 .*; the inner sizes differ: a row of A is H x W = 400 values"),
    (RUN.format("MATMUL") + "--attr trans_b=0 --in random:1x3x1x400", 1, "", "trans_b=1 multiplies by the transposed"),
    (RUN.format("SWCONCAT") + "--attr axis=1 --in random:1x3x4x4 --in random:1x3x4x4,type=u8", 1, "",
     "re:SWCONCAT (read|touched memory) beyond input 1 .*; input 1 holds uint8, input 0 float32"),
    (RUN.format("SWCONCAT") + "--attr axis=1 --in u.npy,shape=1x3x2x1 --in f.npy", 1, "Input buffers occupy",
     "input 1 holds float32, input 0 uint8"),
    ("run SWCONCAT --attr axis=1 --in random:1x3x4x4,type=u8 --in random:1x3x4x4 --out o.npy,shape=1x15x4x4", 0, "",
     "SWCONCAT left 144 of 240 elements of the output unwritten, the first at [0,6,0,0]; they read as 0"),
    (RUN.format("SWCONCAT") + "--attr axis=1 --in random:1x3x4x4 --in random:1x3x4x5", 1, "Input buffers occupy",
     "input 1 is 1x3x4x5, input 0 1x3x4x4: only the axis 1 may differ"),
    (RUN.format("GATHER") + "--attr axis=0 --in random:10x4 --in ramp:3", 1, "Operation broken",
     "the indices, input 1, are float32, and their bytes are taken as uint32"),
    (RUN.format("GATHER") + "--attr axis=0 --in random:10x4 --in ramp:3,type=u32", 0, "(3x4 float32)", ""),
    (PAD + "--attr pad=7 --in random:1x1x4x4", 0, "(1x1x6x6 float32)",
     "pad=7 puts these bits into float32 elements: 9.8e-45. The bits of 7.0 are pad=1088421888"),
    (PAD + "--attr pad=1088421888 --in random:1x1x4x4", 0, "(1x1x6x6 float32)", ""),
    (PAD + "--attr pad=7 --in random:1x1x4x4,type=u8", 0, "(1x1x6x6 uint8)", ""),
    # --- Expectations
    ("run RESHAPE --attr pixelshuffler=1 --in f.npy --expect f.npy", 0, "6 of 6 elements are equal", ""),
    ("run SOFTMAX --in f.npy --expect f.npy", 1, "differ", ""),
    ("run SOFTMAX --in f.npy --expect f.npy --atol 10", 0, "", None),
    ("run SOFTMAX --in f.npy --expect none.npy", 2, "", "cannot read none.npy"),
]


class Calls(Case):
    def call(self, row):
        """Runs it in a folder of its own; what is wrong, or None."""
        text, status, output, error = row
        with tempfile.TemporaryDirectory() as folder:
            os.mkdir(os.path.join(folder, "folder"))
            for name, data in FILES.items():
                with open(os.path.join(folder, name), "wb") as file:
                    file.write(data)
            before = set(os.listdir(folder))
            result = self.vekrun(*shlex.split(text), folder=folder)
            new = sorted(set(os.listdir(folder)) - before)
        wrong = []
        if result.returncode != status:
            wrong.append(f"status {result.returncode}, not {status}")
        # A call that fails leaves no file, one that does writes its output.
        if (status != 0 and new) or any(".part-" in name for name in new):
            wrong.append(f"files {new}")
        for wanted, got in ((output, result.stdout), (error, result.stderr)):
            if wanted is None:
                continue
            if wanted.startswith("re:"):
                fits = re.search(wanted[3:], got) is not None
            elif wanted:
                fits = wanted in got
            else:
                fits = got == "" or (got is result.stdout and status == 0)
            if not fits:
                wrong.append(f"{got!r} has no {wanted!r}")
        # Wrong usage is one line.
        if status == 2 and (result.stderr.count("\n") != 1 or not result.stderr.startswith("vekrun: ")):
            wrong.append(f"not one line: {result.stderr!r}")
        return f"{text}: {'; '.join(wrong)}" if wrong else None

    def test_the_table(self):
        self.assertGreaterEqual(len(TABLE), 60)
        wrong = [text for text in self.at_once(self.call, TABLE) if text]
        self.assertEqual(wrong, [], "\n" + "\n".join(wrong))


FILES = {
    "f.npy": npy("<f4", (1, 3, 1, 2), [1.0, 2.0, 3.0, 4.0, 5.0, 6.0]),
    "two.npy": npy("<f4", (2, 10), [0.5] * 20),
    "u.npy": npy("|u1", (1, 6, 1, 1), list(range(6))),
    "d.npy": npy("<f8", (2,), [0.0, 1.0]),
    "be.npy": npy(">f4", (1,), []) + bytes(4),
    "junk.npy": b"none",
    "junk.dat": bytes(4),
    "p.png": png(2, 2, 3, list(range(12))),
}


class Reports(Case):
    """--json."""

    def test_list(self):
        result = self.vekrun("list", "--json")
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        layers = json.loads(result.stdout)
        self.assertEqual([layer["type"] for layer in layers], TYPES)
        argmax = layers[TYPES.index("ARGMAX")]
        self.assertEqual([(a["key"], a["default"], a["mandatory"]) for a in argmax["attributes"]],
                         [("axis", "0", False), ("top_k", "1", False), ("out_max_val", "0", False)])
        self.assertEqual(layers[TYPES.index("RESHAPE")]["attributes"][0]["default"], None)
        self.assertEqual(len(json.loads(self.vekrun("list", "--json", "PAD").stdout)), 1)

    def report(self, status, *arguments):
        result = self.vekrun("run", *arguments, "--json", "report.json")
        self.assertEqual(result.returncode, status, result)
        with open(self.path("report.json"), encoding="utf-8") as file:
            report = json.load(file)
        self.assertEqual(report["exit_status"], status)
        return report["runs"]

    def test_a_run(self):
        (run,) = self.report(0, "SOFTMAX", "--in", "ramp:1x6x1x2", "--out", "o.npy", "--log", "INFO")
        self.assertEqual(run["layer"], "SOFTMAX")
        self.assertEqual(run["status"], "done")
        self.assertEqual(run["inputs"], [{"file": "ramp:1x6x1x2", "shape": [1, 6, 1, 2], "type": "float32", "pack": 1,
                                          "line": 8, "plane": 8, "exp": 0, "bytes": 48}])
        self.assertEqual(run["outputs"][0]["file"], "o.npy")
        self.assertEqual({k: run["log"][0][k] for k in ("level", "file")}, {"level": "INFO", "file": "vek_softmax.cpp"})
        self.assertTrue(run["log"][0]["text"].startswith("'axis' attribute not defined"))
        self.assertTrue(run["plugin"][0].endswith("libvekcustom.so"))

    def test_what_went_wrong(self):
        (run,) = self.report(1, "SOFTMAX", "--attr", "axis=9", "--in", "ramp:1x6x1x2", "--out", "o.npy")
        self.assertEqual((run["status"], run["message"], run["attributes"]), ("refused", "SOFTMAX refused", [{"axis": "9"}]))
        self.assertEqual(run["log"][0]["text"], "axis = 9, but should be in range [0..3]")
        self.assertIsInstance(run["log"][0]["line"], int)
        (run,) = self.report(1, "ELTWISE", "--attr", "method=0", "--in", "ramp:1x2x3x3", "--in", "ramp:1x2x1x1", "--out",
                             "o.npy")
        self.assertEqual(run["status"], "failed")
        self.assertIn("beyond input 1", run["message"])
        (run,) = self.report(0, "MATMUL", "--attr", "trans_b=0", "--in", "ramp:1x2x1x2", "--in", "ramp:1x3x1x2", "--out",
                             "o.npy")
        self.assertEqual(len(run["warnings"]), 1)

    def test_times(self):
        runs = self.report(0, "SOFTMAX", "--in", "random:{}", "--shape", "1x3x1x1", "--shape", "1x700x1x1", "--seconds", "0.01")
        self.assertEqual([run["inputs"][0]["shape"] for run in runs], [[1, 3, 1, 1], [1, 700, 1, 1]])
        for run in runs:
            for times in (run["times"][0], run["memcpy"]):
                self.assertGreater(times["samples"], 0)
                self.assertGreater(times["min_s"], 0)
                self.assertLessEqual(times["min_s"], times["median_s"])
                self.assertLessEqual(times["median_s"], times["p95_s"])
                self.assertLessEqual(times["p95_s"], times["p99_s"])
        (run,) = self.report(0, "SOFTMAX", "--in", "random:1x5x1x1", "--repeat", "3", "--cold")
        self.assertEqual((run["times"][0]["samples"], run["times"][0]["runs_per_sample"]), (3, 1))

    def test_standard_output(self):
        result = self.vekrun("run", "SOFTMAX", "--in", "ramp:1x6x1x2", "--out", "o.npy", "--json", "-")
        self.assertEqual(json.loads(result.stdout)["exit_status"], 0)
        self.assertEqual(result.stderr, "SOFTMAX: o.npy (1x6x1x2 float32)\n")


if __name__ == "__main__":
    main()
