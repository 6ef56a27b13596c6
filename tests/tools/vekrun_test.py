#!/usr/bin/env python3
"""Tests of vekrun: vekrun_test.py SUITE COMMAND..."""

import math
import os
import pathlib
import re
import subprocess
import tempfile

from vekrun_case import TYPES, VEKRUN, Case, f32, main, npy, png, product


class Usage(Case):
    def test_list_shows_every_layer_type_in_the_factory_order(self):
        result = self.vekrun("list")
        self.assertEqual(result.returncode, 0)
        types = [line.split(":")[0] for line in result.stdout.splitlines() if line[:1].isupper()]
        self.assertEqual(types, TYPES)

    def test_list_of_one_type_shows_attributes_and_defaults(self):
        result = self.vekrun("list", "ARGMAX")
        self.assertEqual(result.returncode, 0)
        self.assertIn("top_k", result.stdout)
        self.assertIn("default 1", result.stdout)
        self.assertNotIn("SOFTMAX", result.stdout)
        self.expect_usage_error("no layer type argmax", "list", "argmax")

    def test_completion_offers_what_the_tool_lists(self):
        script = os.path.join(os.path.dirname(__file__), "..", "..", "tools", "vekrun.bash-completion")
        # Stand-ins for the tool and for the frame that bash-completion gives.
        frame = f"""
            vekrun() {{ {" ".join(VEKRUN)} "$@"; }}
            _init_completion() {{ words=("${{COMP_WORDS[@]}}"); cword=$COMP_CWORD; cur=${{words[cword]}}; prev=${{words[cword-1]}}; }}
            compopt() {{ :; }}
            source {script}
            complete_after() {{ COMP_WORDS=(vekrun "$@"); COMP_CWORD=$#; _vekrun; echo "${{COMPREPLY[@]}}"; }}
            """

        def offered(*words):
            line = " ".join(f"'{word}'" for word in words)
            result = subprocess.run(["bash", "-c", f"{frame}\ncomplete_after {line}"], capture_output=True, text=True,
                                    check=True)
            return result.stdout.split()

        self.assertEqual(offered("r"), ["run", "replay"])
        self.assertEqual(offered("run", ""), TYPES)
        self.assertEqual(offered("list", "SPACE"), ["SPACETOBATCH", "SPACETODEPTH"])
        self.assertEqual(offered("list", "--j"), ["--json"])
        self.assertEqual(offered("run", "ARGMAX", "--se"), ["--seconds"])
        self.assertEqual(offered("run", "ARGMAX", "--attr", ""), ["axis=", "top_k=", "out_max_val="])
        self.assertEqual(offered("run", "ARGMAX", "--lo"), ["--log"])
        self.assertEqual(offered("certify", "--pr"), ["--print"])
        self.assertEqual(offered("certify", "--cases", "SOFT"), ["SOFTMAX"])
        self.assertEqual(offered("run", "ARGMAX", "--log", "W"), ["WARNING"])
        self.assertEqual(offered("co"), ["compare", "convert"])
        self.assertEqual(offered("compare", "a.npy", "b.npy", "--r"), ["--rtol", "--real"])
        self.assertEqual(offered("convert", "a.npy", "b.npy", "--round", ""), ["nearest", "zero"])

    def test_version_and_help(self):
        version = self.vekrun("--version")
        self.assertEqual(version.returncode, 0)
        self.assertRegex(version.stdout, r"^vekrun \d+\.\d+\.\d+\n$")
        help_text = self.vekrun("run", "--help")
        self.assertEqual(help_text.returncode, 0)
        self.assertIn("--attr", help_text.stdout)

    def test_wrong_usage(self):
        self.array("in.npy", "<f4", (1, 3, 1, 1))
        good = ["run", "SOFTMAX", "--in", "in.npy", "--out", "out.npy"]
        self.expect_usage_error("there is no command walk", "walk")
        self.expect_usage_error("TYPE", "run")
        self.expect_usage_error("--in", "run", "SOFTMAX", "--out", "out.npy")
        self.expect_usage_error("--out", "run", "SOFTMAX", "--in", "in.npy")
        self.expect_usage_error("no layer type softmax", "run", "softmax", *good[2:])
        self.expect_usage_error("key=value", *good, "--attr", "axis")
        self.expect_usage_error("given twice", *good, "--attr", "axis=1", "--attr", "axis=1")
        self.expect_usage_error("--log", *good, "--log", "info")
        self.expect_usage_error("--repeat", *good, "--repeat", "0")
        self.expect_usage_error("--repeat", *good, "--repeat", "many")
        self.expect_usage_error("--bogus", *good, "--bogus")

    def test_wrong_file_options(self):
        self.array("in.npy", "<f4", (1, 3, 1, 2))
        for option, text in (("pack=0", "pack=0"), ("pack=x", "pack=x"), ("line=7", "row of 8 bytes"),
                             ("line=8,plane=7", "less than its rows"), ("shape=1x3x3", "shape"),
                             ("shape=1x-3", "shape=1x-3"), ("shape=", "shape="), ("type=float65", "type=float65"),
                             ("type=float32", "tells its type itself"), ("lines=8", "unknown option 'lines'"),
                             ("zero=256", "zero=256"), ("plane=4294967295", "4 GiB")):
            self.expect_usage_error(text, "run", "SOFTMAX", "--in", "in.npy," + option, "--out", "out.npy")
        self.expect_usage_error("4 GiB", "run", "RESHAPE", "--attr", "pixelshuffler=1", "--in", "in.npy", "--out",
                                "out.npy,shape=70000x70000")

    def test_a_missing_plugin_is_told(self):
        self.array("in.npy", "<f4", (1, 3, 1, 1))
        self.expect_usage_error("cannot load the plug-in", "run", "SOFTMAX", "--in", "in.npy", "--out", "out.npy",
                                "--plugin", "./none.so")

    def test_refusal_passes_the_log_line_on_and_writes_nothing(self):
        self.array("in.npy", "<f4", (1, 3, 1, 1))
        self.write("out.npy", b"older")
        command = ["run", "SOFTMAX", "--attr", "axis=4", "--in", "in.npy", "--out", "out.npy"]
        result = self.vekrun(*command)
        self.assertEqual(result.returncode, 1)
        self.assertRegex(result.stdout,
                         r"^\[ERROR\] vek_softmax\.cpp:\d+: axis = 4, but should be in range \[0\.\.3\]\n$")
        self.assertEqual(result.stderr, "vekrun: SOFTMAX refused\n"
                         "  input 0     in.npy   1x3x1x1  float32  dense  12 bytes\n"
                         "  the output  out.npy  1x3x1x1  float32  dense  12 bytes\n"
                         "  SOFTMAX takes 1 input: float32, 4-D, planar, unpadded\n"
                         "  axis  default 1  0 to 3 for N, C, H, W\n")
        self.assertEqual(self.read("out.npy"), b"older")
        self.assertEqual(sorted(os.listdir(self.folder)), ["in.npy", "out.npy"])
        self.assertEqual(self.vekrun(*command, "--log", "NONE").stdout, "")

    def test_refusal_in_execute_is_a_refusal(self):
        self.array("in.npy", "<f4", (1, 3, 1, 1))
        result = self.vekrun("run", "RESHAPE", "--attr", "pixelshuffler=1", "--in", "in.npy", "--out",
                             "out.npy,shape=1x2x1x1")
        self.assertEqual(result.returncode, 1)
        self.assertIn("can't calculate Reshape", result.stdout)
        self.assertEqual(os.listdir(self.folder), ["in.npy"])

    def test_log_threshold_reaches_the_plugin(self):
        self.array("in.npy", "<f4", (1, 3, 1, 1))
        result = self.vekrun("run", "SOFTMAX", "--in", "in.npy", "--out", "out.npy", "--log", "INFO")
        self.assertRegex(result.stdout, r"^\[INFO\] vek_softmax\.cpp:\d+: 'axis' attribute not defined, using default")

    def test_repeat_prints_the_plugin_and_the_median_time(self):
        self.array("in.npy", "<f4", (1, 4, 1, 1))
        result = self.vekrun("run", "SOFTMAX", "--in", "in.npy", "--out", "out.npy", "--repeat", "7")
        time = r"\d+\.\d{3} us"
        self.assertRegex(result.stdout,
                         rf"^SOFTMAX: from /.*/libvekcustom\.so\n"
                         rf"SOFTMAX 1x4x1x1 float32: median {time}, min {time}, p95 {time}, p99 {time} "
                         rf"\(7 (runs|samples of \d+ runs), \d+ to warm up\), [\d.]+ GB/s "
                         rf"\(16 bytes in, 16 out\); memcpy of as many bytes {time}, which is [\d.]+ of it\n"
                         rf"SOFTMAX: out\.npy \(1x4x1x1 float32\)\n$")

    def test_a_layer_that_throws_is_a_refusal(self):
        self.array("in.npy", "<f4", (1, 1, 1, 1))
        result = self.vekrun("run", "BROADCAST", "--attr", "size=[a,b,c,d]", "--in", "in.npy", "--out", "out.npy")
        self.assertEqual(result.returncode, 1)
        self.assertEqual(result.stderr, "vekrun: BROADCAST threw an exception: stoi; 'a' in size=[a,b,c,d] is no number\n")
        self.assertEqual(os.listdir(self.folder), ["in.npy"])



class Files(Case):
    def copy(self, source, target):
        return self.run_layer("RESHAPE", [source], target, "pixelshuffler=1")

    def test_every_element_type_survives(self):
        for descr, extremes in (("<f4", [-1.5, 3.0e38]), ("|i1", [-128, 127]), ("|u1", [0, 255]),
                                ("<i2", [-32768, 32767]), ("<u2", [0, 65535]), ("<i4", [-2**31, 2**31 - 1]),
                                ("<u4", [0, 2**32 - 1])):
            values = [f32(v) if descr == "<f4" else v for v in extremes + [1, 2, 3, 4]]
            self.array("in.npy", descr, (1, 2, 3), values)
            self.copy("in.npy", "out.npy")
            self.assertEqual(self.values("out.npy"), (descr, (1, 2, 3), values))

    def test_ranks_from_none_to_six_and_empty_arrays(self):
        for dims in ((), (3,), (2, 3), (1, 2, 1, 2, 1, 2), (1, 0, 2, 2)):
            self.array("in.npy", "<u2", dims)
            self.copy("in.npy", "out.npy")
            self.assertEqual(self.values("out.npy")[1:], (dims, list(range(product(dims)))))

    def test_column_major_arrays_are_read_in_their_order(self):
        self.write("in.npy", npy("<i2", (2, 3), [0, 3, 1, 4, 2, 5], order=True))
        self.copy("in.npy", "out.npy")
        self.assertEqual(self.values("out.npy"), ("<i2", (2, 3), [0, 1, 2, 3, 4, 5]))

    def test_unreadable_arrays(self):
        whole = npy("<f4", (1, 3, 1, 2), [0.0] * 6)
        for data in (b"", whole[:5], whole[:9], whole[:10], whole[:40], whole[:-1],
                     whole.replace(b"NUMPY", b"NOMPY"), whole.replace(b"descr", b"dascr"),
                     whole.replace(b"(1", b"[1")):
            self.write("in.npy", data)
            self.expect_usage_error("in.npy is not a whole .npy file", "run", "SOFTMAX", "--in", "in.npy", "--out",
                                    "out.npy")
        self.write("in.npy", npy("<f8", (2,), [0.0, 1.0]))
        self.expect_usage_error("in.npy holds float64 elements, which no layer takes", "run", "SOFTMAX", "--in", "in.npy", "--out", "out.npy")
        self.write("in.npy", npy(">f4", (2,), [0.0]))
        self.expect_usage_error("'>f4'", "run", "SOFTMAX", "--in", "in.npy", "--out", "out.npy")
        self.expect_usage_error("No such file", "run", "SOFTMAX", "--in", "none.npy", "--out", "out.npy")
        self.expect_usage_error("No such file", "run", "SOFTMAX", "--in", "none.png", "--out", "out.npy")
        self.expect_usage_error("No such file", "run", "SOFTMAX", "--in", "none.bin,type=int8,shape=1", "--out",
                                "out.npy")
        self.write("in.txt", b"1 2 3")
        self.expect_usage_error("bytes alone do not tell their type= and shape=; names of other files end in", "run", "SOFTMAX", "--in", "in.txt", "--out", "out.npy")

    def test_unreadable_pictures(self):
        whole = png(2, 2, 3, list(range(12)))
        for data in (b"", whole[:20], whole[:-20], b"GIF89a", whole.replace(b"IDAT", b"I\xa8\n\x1b")):
            self.write("in.png", data)
            self.expect_usage_error("in.png is not a whole PNG, PPM or PGM file", "run", "RESHAPE", "--attr", "pixelshuffler=1", "--in", "in.png",
                                    "--out", "out.npy")
        self.write("in.png", whole)
        self.expect_usage_error("uint8, uint16 or float32", "run", "RESHAPE", "--attr", "pixelshuffler=1", "--in",
                                "in.png,type=int16", "--out", "out.npy")

    def test_a_picture_becomes_planes_and_back(self):
        pixels = list(range(24))
        for channels in (1, 2, 3, 4):
            count = 6 * channels
            self.write("in.png", png(3, 2, channels, pixels[:count]))
            self.copy("in.png", "planes.npy")
            planes = [pixels[i * channels + c] for c in range(channels) for i in range(6)]
            self.assertEqual(self.values("planes.npy"), ("|u1", (1, channels, 2, 3), planes))
            self.copy("planes.npy", "out.png")
            self.copy("out.png", "again.npy")
            self.assertEqual(self.read("again.npy"), self.read("planes.npy"))

    def test_ppm_and_pgm(self):
        self.write("in.ppm", b"P6\n2 1\n255\n" + bytes([1, 2, 3, 4, 5, 6]))
        self.copy("in.ppm", "planes.npy")
        self.assertEqual(self.values("planes.npy")[1:], ((1, 3, 1, 2), [1, 4, 2, 5, 3, 6]))
        self.copy("planes.npy", "out.ppm")
        self.assertEqual(self.read("out.ppm"), self.read("in.ppm"))
        self.write("in.pgm", b"P5\n2 1\n255\n" + bytes([7, 8]))
        self.copy("in.pgm", "out.pgm")
        self.assertEqual(self.read("out.pgm"), self.read("in.pgm"))

    def test_float_pictures_run_from_0_to_1(self):
        self.write("in.png", png(4, 1, 1, [0, 51, 128, 255]))
        self.copy("in.png,type=float32", "out.npy")
        self.assertEqual(self.values("out.npy"), ("<f4", (1, 1, 1, 4), [f32(v / 255) for v in (0, 51, 128, 255)]))
        self.array("in.npy", "<f4", (1, 1, 1, 6), [-1.0, 0.5, 1.0, 7.0, float("nan"), 0.2])
        self.copy("in.npy", "out.pgm")
        self.assertEqual(self.read("out.pgm")[-6:], bytes([0, 128, 255, 255, 0, 51]))

    def test_pictures_hold_only_pictures(self):
        self.array("in.npy", "<i2", (1, 3, 2, 2))
        self.expect_usage_error("uint8, uint16 or float32", "run", "RESHAPE", "--attr", "pixelshuffler=1", "--in", "in.npy",
                                "--out", "out.png")
        for dims, name in (((1, 5, 2, 2), "out.png"), ((2, 3, 2, 2), "out.png"), ((1, 4, 2, 2), "out.ppm"),
                           ((1, 3, 0, 2), "out.png")):
            self.array("in.npy", "|u1", dims)
            self.expect_usage_error("a picture has", "run", "RESHAPE", "--attr", "pixelshuffler=1", "--in", "in.npy",
                                    "--out", name)

    def test_raw_bytes(self):
        self.write("in.bin", bytes(range(16)))
        self.copy("in.bin,type=uint8,shape=1x2x2x3,line=4", "out.npy")
        self.expect_usage_error("type= and shape=", "run", "RESHAPE", "--in", "in.bin", "--out", "out.npy")
        self.expect_usage_error("has 16 bytes, the described buffer 12", "run", "RESHAPE", "--in",
                                "in.bin,type=uint8,shape=1x2x2x3", "--out", "out.npy")

    def test_a_name_may_hold_commas(self):
        self.array("a,b=c,d.npy", "<u2", (1, 2))
        self.copy("a,b=c,d.npy,pack=1", "e,f.npy")
        self.assertEqual(self.values("e,f.npy")[1:], ((1, 2), [0, 1]))

    def test_an_output_that_cannot_be_written(self):
        self.array("in.npy", "<f4", (1, 3, 1, 1))
        self.expect_usage_error("cannot write none/out.npy: No such file", "run", "SOFTMAX", "--in", "in.npy",
                                "--out", "none/out.npy")
        with tempfile.TemporaryDirectory() as folder:
            os.mkdir(os.path.join(folder, "out.npy"))
            target = os.path.join(folder, "out.npy")
            self.expect_usage_error("cannot write", "run", "SOFTMAX", "--in", "in.npy", "--out", target)
            self.assertEqual(os.listdir(folder), ["out.npy"])

    def test_a_full_disk_leaves_nothing(self):
        self.array("in.npy", "|u1", (1, 1, 200, 200), [7] * 40000)
        limit = f"ulimit -f 8; exec {' '.join(VEKRUN)} run RESHAPE --attr pixelshuffler=1 --in in.npy --out out.npy"
        result = subprocess.run(["bash", "-c", "trap '' XFSZ; " + limit], cwd=self.folder, capture_output=True,
                                text=True, check=False)
        self.assertEqual(result.returncode, 2, result)
        self.assertIn("cannot write out.npy: File too large", result.stderr)
        self.assertEqual(os.listdir(self.folder), ["in.npy"])


class Layouts(Case):
    def raw(self, options):
        """The memory of a 1 x 6 x 2 x 3 ramp in the given layout, as stride conversion writes it."""
        self.array("in.npy", "|u1", (1, 6, 2, 3))
        self.run_layer("DATA_STRIDE_CONV", ["in.npy"], "out.bin," + options)
        return list(self.read("out.bin"))

    @staticmethod
    def laid_out(pack, line, plane):
        """The same, by the formula of the memory layout."""
        memory = [0] * (-(-6 // pack) * plane)
        for c in range(6):
            for h in range(2):
                for w in range(3):
                    memory[c // pack * plane + h * line + w * pack + c % pack] = (c * 2 + h) * 3 + w
        return memory

    def test_outputs_are_laid_out_as_asked(self):
        self.assertEqual(self.raw("pack=1"), self.laid_out(1, 3, 6))
        self.assertEqual(self.raw("line=8"), self.laid_out(1, 8, 16))
        self.assertEqual(self.raw("line=8,plane=32"), self.laid_out(1, 8, 32))
        self.assertEqual(self.raw("pack=4"), self.laid_out(4, 12, 24))
        self.assertEqual(self.raw("pack=4,line=16,plane=40"), self.laid_out(4, 16, 40))
        self.assertEqual(self.raw("pack=16,line=64"), self.laid_out(16, 64, 128))

    def test_inputs_are_laid_out_as_asked(self):
        for options in ("pack=4", "pack=4,line=32", "pack=3,line=20,plane=100", "line=16", "line=16,plane=64",
                        "pack=16"):
            self.array("in.npy", "<i2", (2, 6, 2, 3))
            self.run_layer("DATA_STRIDE_CONV", ["in.npy," + options], "out.npy")
            self.assertEqual(self.values("out.npy")[1:], ((2, 6, 2, 3), list(range(72))), options)

    def test_raw_memory_is_read_as_described(self):
        memory = self.raw("pack=4,line=16,plane=40")
        self.write("in.bin", bytes(memory))
        self.run_layer("DATA_STRIDE_CONV", ["in.bin,type=uint8,shape=1x6x2x3,pack=4,line=16,plane=40"], "out.npy")
        self.assertEqual(self.values("out.npy")[2], list(range(36)))

    def test_the_layer_sees_padding_and_interleaving(self):
        self.array("in.npy", "<f4", (1, 4, 2, 2))
        for options, text in (("line=12", "strided data detected on input"),
                              ("plane=20", "strided data detected on input"), ("pack=4", "unexpected input buffer format")):
            result = self.vekrun("run", "SOFTMAX", "--in", "in.npy," + options, "--out", "out.npy")
            self.assertEqual(result.returncode, 1)
            self.assertIn(text, result.stdout)

    def test_the_layer_sees_the_format(self):
        self.array("in.npy", "|u1", (1, 4, 2, 2))
        result = self.vekrun("run", "SOFTMAX", "--in", "in.npy,exp=-3,zero=7,scale=0.5", "--out", "out.npy", "--log",
                             "INFO")
        self.assertEqual(result.returncode, 1)
        self.assertIn("bitdepth=8, plane_pack=1, exp=-3, signed=0, float=0, q8a=1, q8a_zero=7, q8a_scale=0.500000",
                      result.stdout)

    def test_a_write_outside_the_output_is_told(self):
        self.array("in.npy", "|u1", (1, 1, 4, 4))
        result = self.vekrun("run", "PAD", "--attr", "pad_mode=4", "--attr", "pad=1", "--attr",
                             "pad_shape=[0,0,0,0,1,1,1,1]", "--attr", "format=[0,1,2,3]", "--in", "in.npy", "--out",
                             "out.npy,shape=1x1x4x4")
        self.assertEqual(result.returncode, 1)
        self.assertRegex(result.stderr, r"^vekrun: PAD (wrote|touched memory) beyond the output "
                                        r"\(out.npy, 1x1x4x4 uint8, 16 bytes\): byte \d+ behind its end\n$")
        self.assertEqual(os.listdir(self.folder), ["in.npy"])


class Layers(Case):
    """One example of each type; the output's shape is left to the tool."""

    def example(self, layer, inputs, attributes, dims, values):
        """inputs: (descr, dims[, values]) each; checks the output's type, shape and values."""
        names = []
        for i, one in enumerate(inputs):
            names.append(f"in{i}.npy")
            self.array(names[-1], *one)
        self.run_layer(layer, names, "out.npy", *attributes)
        got_descr, got_dims, got_values = self.values("out.npy")
        self.assertEqual((got_descr, got_dims), (inputs[0][0], tuple(dims)))
        if got_descr == "<f4":
            self.assertEqual(len(got_values), len(values))
            for got, wanted in zip(got_values, values):
                self.assertAlmostEqual(got, wanted, places=5)
        else:
            self.assertEqual(got_values, values)

    def test_softmax(self):
        powers = [math.exp(v) for v in (0.0, 1.0, 2.0)]
        self.example("SOFTMAX", [("<f4", (1, 3, 1, 1))], ["axis=1"], (1, 3, 1, 1), [p / sum(powers) for p in powers])

    def test_data_stride_conv(self):
        self.example("DATA_STRIDE_CONV", [("<u2", (2, 3, 2, 2))], [], (2, 3, 2, 2), list(range(24)))

    def test_data_stride_conv_of_other_ranks_with_padding(self):
        for dims in ((5,), (2, 5), (3, 2, 5), (2, 3, 2, 2, 5)):
            for source, target in (("line=16", "line=12"), ("line=12", "line=16"), ("line=16,plane=64", "line=10"),
                                   ("line=12", "line=12,plane=100")):
                with self.subTest(dims=dims, source=source, target=target):
                    self.array("in.npy", "<u2", dims)
                    self.run_layer("DATA_STRIDE_CONV", ["in.npy," + source], "out.npy," + target)
                    self.assertEqual(self.values("out.npy")[1:], (dims, list(range(product(dims)))))

    def test_reshape_and_pixel_shuffle(self):
        self.example("RESHAPE", [("|u1", (1, 8, 1, 1))], ["pixelshuffler=2"], (1, 2, 2, 2), list(range(8)))
        self.array("in.npy", "<f4", (1, 2, 3, 4))
        self.run_layer("RESHAPE", ["in.npy"], "out.npy,shape=1x24", "pixelshuffler=1")
        self.assertEqual(self.values("out.npy")[1:], ((1, 24), list(range(24))))

    def test_broadcast(self):
        self.example("BROADCAST", [("<i2", (1, 1, 1, 2), [5, 6])], ["size=[0,3,0,0]"], (1, 3, 1, 2), [5, 6] * 3)

    def test_argmax(self):
        data = ("<f4", (1, 4, 1, 2), [1, 9, 5, 2, 5, 2, 2, 9])
        self.example("ARGMAX", [data], ["axis=1"], (1, 1, 1, 2), [2, 3])
        self.example("ARGMAX", [data], ["axis=1", "--then", "top_k=2"], (1, 1, 2, 2), [2, 1, 3, 0])
        self.example("ARGMAX", [data], ["axis=1", "--then", "out_max_val=1"], (1, 1, 1, 2), [5, 9])

    def test_argmax_writes_each_batch_item_twice(self):
        self.example("ARGMAX", [("<f4", (2, 1, 1, 2))], ["axis=3"], (4, 1, 1, 1), [1, 1, 1, 1])

    def test_normalize(self):
        self.example("NORMALIZE", [("<f4", (1, 2, 1, 2), [3, 4, 0, 0])], ["across_spatial=0"], (1, 2, 1, 2),
                     [0.6, 0.8, 0, 0])

    def test_matmul(self):
        a = ("<f4", (1, 2, 1, 3), [1, 2, 3, 4, 5, 6])
        self.example("MATMUL", [a], ["trans_b=1"], (1, 2, 1, 2), [14, 32, 32, 77])
        self.example("MATMUL", [a, ("<f4", (1, 3, 1, 1), [1, 0, 2])], ["trans_b=0"], (1, 2, 1, 1), [7, 16])

    def test_permute(self):
        self.example("PERMUTE", [("|u1", (1, 3, 2, 2))], ["axes=[0,2,3,1]"], (1, 2, 2, 3),
                     [c * 4 + p for p in range(4) for c in range(3)])
        self.example("PERMUTE", [("<f4", (2, 3))], ["axes=[1]"], (3, 2), [0, 3, 1, 4, 2, 5])

    def test_swconcat(self):
        self.example("SWCONCAT", [("|u1", (1, 1, 2, 2)), ("|u1", (1, 2, 2, 2))], ["axis=1"], (1, 3, 2, 2),
                     [0, 1, 2, 3] + list(range(8)))

    def test_depthtospace(self):
        self.example("DEPTHTOSPACE", [("<i4", (1, 8, 1, 1))], ["block_size=2"], (1, 2, 2, 2), [0, 2, 4, 6, 1, 3, 5, 7])

    def test_pad(self):
        self.example("PAD", [("|u1", (1, 1, 1, 3), [1, 2, 3])],
                     ["pad_mode=1", "pad=0", "pad_shape=[0,0,0,0,0,0,2,2]", "format=[0,1,2,3]"], (1, 1, 1, 7),
                     [3, 2, 1, 2, 3, 2, 1])

    def test_gather(self):
        self.example("GATHER", [("<u2", (3, 2)), ("<u4", (2,), [2, 0])], ["axis=0"], (2, 2), [4, 5, 0, 1])

    def test_eltwise(self):
        a = ("<f4", (1, 2, 1, 2), [1, 2, 3, 4])
        self.example("ELTWISE", [a], ["method=1", "has_k=1", "k=0.5"], (1, 2, 1, 2), [1.5, 2.5, 3.5, 4.5])
        self.example("ELTWISE", [a, a], ["method=6"], (1, 2, 1, 2), [1, 1, 1, 1])
        self.example("ELTWISE", [("<f4", (1, 2, 1, 1), [2, 10]), a], ["method=0", "broadcast_A=1", "word_A=3"],
                     (1, 2, 1, 2), [2, 4, 30, 40])

    def test_spacetobatch(self):
        self.example("SPACETOBATCH", [("|u1", (1, 1, 1, 2), [5, 6])], ["block_shape=[1,2]", "paddings=[1,0,0,0]"],
                     (2, 1, 2, 1), [0, 5, 0, 6])

    def test_spacetodepth(self):
        self.example("SPACETODEPTH", [("<i2", (1, 2, 2, 2))], ["block_size=2"], (1, 8, 1, 1), [0, 4, 1, 5, 2, 6, 3, 7])

    def test_batchtospace(self):
        self.example("BATCHTOSPACE", [("|u1", (2, 1, 2, 1), [0, 5, 0, 6])], ["block_shape=[1,2]", "crops=[1,0,0,0]"],
                     (1, 1, 1, 2), [5, 6])

    def test_every_type_has_an_example(self):
        names = " ".join(name for name in dir(self) if name.startswith("test_")).replace("_", "")
        for layer in TYPES:
            self.assertIn(layer.lower().replace("_", ""), names)


class Certificate(Case):
    """vekrun certify; that a build gives the recorded certificate is a test of its own."""

    RECORD = pathlib.Path(__file__).parents[2] / "tools/certificate.txt"

    @staticmethod
    def rows(text):
        """Name: the words that follow it, of each line."""
        lines = [line.split(maxsplit=3) for line in text.splitlines() if not line.startswith("#")]
        return {line[0]: line[1:] for line in lines}

    def record(self, change, *types):
        self.write("record.txt", change(self.RECORD.read_text()).encode())
        return self.vekrun("certify", *types, "--record", "record.txt")

    def test_every_type_is_recorded_with_hundreds_of_calls(self):
        rows = self.rows(self.RECORD.read_text())
        self.assertEqual(list(rows), TYPES + ["all"])
        for calls, digits in rows.values():
            self.assertGreaterEqual(int(calls), 500)
            self.assertRegex(digits, "^[0-9a-f]{16}$")
        self.assertEqual(int(rows["all"][0]), sum(int(rows[name][0]) for name in TYPES))
        self.assertEqual(len({digits for _, digits in rows.values()}), len(rows))

    def test_print_writes_the_record(self):
        result = self.vekrun("certify", "PAD", "GATHER", "--print")
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        self.assertEqual(result.stdout, "".join(line for line in self.RECORD.read_text().splitlines(True)
                                                if line.split()[0] in ("#", "PAD", "GATHER")))

    def test_a_difference_names_the_layer(self):
        right = self.rows(self.RECORD.read_text())["PAD"][1]
        wrong = right[:-1] + ("0" if right[-1] != "0" else "1")
        result = self.record(lambda text: text.replace(right, wrong), "PAD", "GATHER", "SWCONCAT")
        self.assertEqual((result.returncode, result.stderr), (1, ""))
        rows = self.rows(result.stdout)
        self.assertEqual(rows.pop("PAD")[1:], [right, f"differs, recorded {wrong}"])
        self.assertEqual(rows.pop("layer"), ["calls", "hash"])
        self.assertEqual(list(rows), ["SWCONCAT", "GATHER"])
        self.assertEqual({row[2] for row in rows.values()}, {"equal"})

    def test_another_number_of_calls_is_a_difference(self):
        calls, digits = self.rows(self.RECORD.read_text())["GATHER"]
        result = self.record(lambda text: re.sub(r"(GATHER +)\d+", r"\g<1>7", text), "GATHER")
        self.assertEqual(result.returncode, 1)
        self.assertEqual(self.rows(result.stdout)["GATHER"],
                         [calls, digits, f"differs, recorded {digits} of 7 calls"])

    def test_a_layer_that_is_not_recorded(self):
        result = self.record(lambda text: "".join(line for line in text.splitlines(True) if "GATHER" not in line),
                             "GATHER")
        self.assertEqual(result.returncode, 1)
        self.assertEqual(self.rows(result.stdout)["GATHER"][2], "not recorded")

    def test_cases_of_a_layer(self):
        result = self.vekrun("certify", "--cases", "ARGMAX")
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        lines = result.stdout.splitlines()
        for i, line in enumerate(lines):
            self.assertRegex(line, rf"^ *{i}  [0-9a-f]{{16}}  [tfx]+ ")
        # Cases that run to their end, and refused ones.
        self.assertGreater(sum(line.split()[2].strip("t") == "" for line in lines), len(lines) // 2)
        self.assertGreater(sum("f" in line.split()[2] for line in lines), 50)
        # Every case is another one.
        self.assertGreater(len({line.split()[1] for line in lines}), len(lines) * 3 // 4)

    def test_wrong_usage(self):
        self.expect_usage_error("missing.txt", "certify", "--record", "missing.txt")
        self.expect_usage_error("no layer type softmax", "certify", "--cases", "softmax")
        self.expect_usage_error("--cases", "certify", "--print", "--cases", "SOFTMAX")
        self.expect_usage_error("missing.so", "certify", "--plugin", "./missing.so")
        self.write("text", b"SOFTMAX many\n")
        self.expect_usage_error("text is no certificate: SOFTMAX many", "certify", "--record", "text")


if __name__ == "__main__":
    main()
