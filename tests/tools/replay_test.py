#!/usr/bin/env python3
"""Tests of vekrun replay: replay_test.py SUITE COMMAND..., where libvekrecord.so lies next to the tool that COMMAND runs."""

import base64
import collections
import html.parser
import json
import os
import pathlib
import re
import shlex
import shutil
import struct
import subprocess

from vekrun_case import VEKRUN, Case, main

RECORDER = str(pathlib.Path(VEKRUN[-1]).resolve().parent / "libvekrecord.so")
BAD = str(pathlib.Path(VEKRUN[-1]).resolve().parent / "tests/tools/libbad_plugin.so")
ROW = r"(?m)^{} +{} +(-|[\d.]+ us) +(-|[\d.]+ us)  {}$"


class Replay(Case):
    def record(self, folder, *arguments, **settings):
        """Runs a layer through the recorder, and keeps the recording of the first of the two guarded runs."""
        environment = {name: value for name, value in os.environ.items() if not name.startswith("VEK")}
        environment["VEKRECORD_FOLDER"] = self.path(folder)
        environment.update({f"VEKRECORD_{name}": str(value) for name, value in settings.items()})
        result = subprocess.run([*VEKRUN, "run", *arguments, "--out", "o.bin", "--plugin", RECORDER], cwd=self.folder,
                                env=environment, capture_output=True, text=True, check=False)
        # The layer by which the tool finds out whether there is such a type, and those of its two runs.
        asked, first, *second = sorted(pathlib.Path(self.path(folder)).iterdir())
        for other in (asked, *second):
            shutil.rmtree(other)
        first.rename(asked)
        return result

    def softmax(self, folder="r", **settings):
        self.array("x.npy", "<f4", (1, 4, 2, 3), [0.25 * i for i in range(24)])
        result = self.record(folder, "SOFTMAX", "--attr", "axis=1", "--in", "x.npy", **settings)
        self.assertEqual((result.returncode, result.stderr), (0, ""))

    def layer(self, folder="r", number=1):
        return sorted(pathlib.Path(self.path(folder)).iterdir())[number - 1]

    def replay(self, status, *arguments):
        result = self.vekrun("replay", *arguments)
        self.assertEqual(result.returncode, status, result.stdout + result.stderr)
        return result.stdout

    def change(self, path, old, new):
        text = path.read_text()
        self.assertIn(old, text)
        path.write_text(text.replace(old, new))


class ReplayEqual(Replay):
    def test_calls_as_recorded(self):
        self.softmax()
        out = self.replay(0, "r", "--json", "r.json")
        self.assertRegex(out, ROW.format("0001-SOFTMAX", "Configure 1", "equal"))
        self.assertRegex(out, ROW.format("", "Execute 1", "equal"))
        self.assertTrue(out.endswith("calls are equal\n"), out)
        report = json.loads(self.read("r.json"))
        self.assertEqual(report["exit_status"], 0)
        call = report["layers"][0]["calls"][1]
        self.assertEqual((call["function"], call["number"], call["equal"], call["difference"], call["compared_bytes"]),
                         ("Execute", 1, True, None, 96))

    def test_a_layer_alone(self):
        self.softmax()
        self.replay(0, "r/0001-SOFTMAX")
        self.replay(0, "r/0001-SOFTMAX/", "r")

    def test_refusals_with_their_lines(self):
        self.array("x.npy", "<f4", (1, 4))
        result = self.record("r", "SOFTMAX", "--in", "x.npy")
        self.assertEqual(result.returncode, 1)
        self.assertRegex(self.replay(0, "r"), ROW.format("0001-SOFTMAX", "Configure 1", "equal"))

    def test_line_numbers_do_not_count(self):
        self.array("x.npy", "<f4", (1, 4))
        self.record("r", "SOFTMAX", "--in", "x.npy")
        path = self.layer() / "layer.json"
        text = path.read_text()
        json_text = json.loads(text)
        line = json_text["configures"][0]["log"][0]
        file = line.split(":")[0]
        path.write_text(text.replace(line, file + ":99999:" + line.split(":", 2)[2]))
        self.replay(0, "r")

    def test_padding_is_the_hosts(self):
        self.array("x.npy", "|u1", (1, 2, 2, 3))
        result = self.record("r", "PERMUTE", "--attr", "param=[0,1,2,3]", "--in", "x.npy,line=8")
        self.assertIn(result.returncode, (0, 1))
        self.replay(0, "r")

    def test_hashes_with_the_bytes_from_elsewhere(self):
        self.softmax()
        self.softmax("h", TENSORS="hashes")
        self.assertRegex(self.replay(1, "h"), ROW.format("", "Execute 1", "not repeated: the bytes of its inputs are not recorded"))
        self.replay(0, "h", "r")
        path = self.layer("h") / "call-0001.json"
        call = json.loads(path.read_text())
        self.change(path, call["outputs"][0]["xxh64"], "0x0123456789abcdef")
        self.assertRegex(self.replay(1, "h", "r"), ROW.format("", "Execute 1", "output 0: its hash differs"))


class ReplayDiffers(Replay):
    def test_promised_and_not_there(self):
        """Nothing lies behind what was there, so the two buffers do not overlap, and reading on is a stray access."""
        self.softmax()
        path = self.layer() / "call-0001.json"
        call = json.loads(path.read_text())
        (given,), (written,) = call["inputs"], call["outputs"]
        given.update(address="0x7f0000002000", bytes=92)
        written.update(address="0x7f0000000000", size=0xffffffff)
        data = path.with_name("call-0001-in0.bin")
        data.write_bytes(data.read_bytes()[:92])
        path.write_text(json.dumps(call))
        # Which of the two it is, an emulator does not tell.
        self.assertRegex(self.replay(1, "r"),
                         r"  (read|touched memory) beyond input 0 \(1x4x2x3, 96 bytes\): byte 0 behind its end\n")

    def test_a_changed_byte(self):
        self.softmax()
        path = self.layer() / "call-0001-out0.bin"
        data = bytearray(path.read_bytes())
        # Channel 2, row 1, column 0: the sign bit.
        data[4 * (2 * 6 + 3) + 3] ^= 0x80
        path.write_bytes(data)
        value, = struct.unpack("<f", data[60:64])
        result = self.vekrun("replay", "r")
        self.assertEqual(result.returncode, 1)
        self.assertRegex(result.stdout, r"output 0: 1 of 24 elements differs, the first at \[0,2,1,0\]: "
                         rf"0\.\d+ \(0x[0-9a-f]{{8}}\), recorded -0\.\d+ \(0x{struct.unpack('<I', data[60:64])[0]:08x}\)\n")
        self.assertLess(value, 0)
        self.assertIn("call-0001-out0.bin has changed since it was recorded", result.stderr)

    def test_along_the_axes(self):
        self.softmax()
        path = self.layer() / "call-0001-out0.bin"
        data = bytearray(path.read_bytes())
        for i in range(6):
            data[4 * (3 * 6 + i)] ^= 1
        path.write_bytes(data)
        out = self.replay(1, "r")
        self.assertIn("6 of 24 elements differ, the first at [0,3,0,0]: ", out)
        self.assertRegex(out, r"\n +channel 3 has all of them\n +all 2 rows: 3 in each\n +all 3 columns: 2 in each\n")

    def test_outcomes_and_lines(self):
        self.array("x.npy", "<f4", (1, 4))
        self.record("r", "SOFTMAX", "--in", "x.npy")
        path = self.layer() / "layer.json"
        self.change(path, "expects", "wants")
        self.assertRegex(self.replay(1, "r"), r'log line 1: "\[ERROR\] vek_softmax.cpp: .*expects.*", recorded: ".* wants .*"')
        self.change(path, '"refused"', '"accepted"')
        self.assertIn("refused, recorded: accepted\n", self.replay(1, "r"))

    def test_a_crash_is_told(self):
        self.array("x.npy", "|u1", (1, 1, 2, 8))
        self.record("r", "READ_BEHIND", "--in", "x.npy", LIBRARY=BAD)
        out = self.replay(1, "r", "--plugin", BAD)
        self.assertRegex(out, r"(read|touched memory) beyond input 0 \(1x1x2x8, 16 bytes\): byte 5 behind its end\n")

    def test_a_call_that_died_there_alone(self):
        self.array("x.npy", "|u1", (1, 1, 2, 8))
        self.record("r", "WILD", "--in", "x.npy", LIBRARY=BAD)
        self.change(self.layer() / "layer.json", '"WILD"', '"FINE"')
        self.assertIn("done, but the recorded process died in this call\n", self.replay(1, "r", "--plugin", BAD))

    def test_exceptions(self):
        self.array("x.npy", "|u1", (1, 1, 2, 8))
        self.record("r", "THROW", "--in", "x.npy", LIBRARY=BAD)
        self.assertRegex(self.replay(0, "r", "--plugin", BAD), ROW.format("", "Execute 1", "equal"))
        self.change(self.layer() / "layer.json", '"THROW"', '"THROW_INT"')
        self.assertIn("threw int, recorded: threw std::runtime_error\n", self.replay(1, "r", "--plugin", BAD))

    def test_what_is_written_is_compared(self):
        self.array("x.npy", "|u1", (1, 1, 2, 8))
        self.record("r", "HALF", "--in", "x.npy", LIBRARY=BAD)
        path = self.layer() / "call-0001-out0.bin"
        whole = path.read_bytes()
        path.write_bytes(whole[:8] + bytes(b ^ 1 for b in whole[8:]))
        self.replay(0, "r", "--plugin", BAD, "--json", "r.json")
        self.assertEqual(json.loads(self.read("r.json"))["layers"][0]["calls"][1]["compared_bytes"], 8)
        path.write_bytes(whole[:7] + bytes([whole[7] ^ 1]) + whole[8:])
        self.assertIn("1 of 16 elements differs, the first at [0,0,0,7]: 7, recorded 6\n", self.replay(1, "r", "--plugin", BAD))

    def test_damaged_recordings(self):
        self.expect_usage_error("none", "replay", "none")
        os.mkdir(self.path("empty"))
        result = self.vekrun("replay", "empty")
        self.assertEqual((result.returncode, result.stderr), (2, "vekrun: empty holds no recording\n"))
        self.softmax()
        path = self.layer() / "call-0001.json"
        whole = path.read_text()
        for old, new, text in [('"call"', '"cal"', "key 'call' not found"), ("call-0001-in0.bin", "../x", "lies in another folder"),
                               ('"configures": 1', '"configures": 2', "fewer calls of Configure"), ("}", "", "parse error")]:
            path.write_text(whole.replace(old, new))
            result = self.vekrun("replay", "r")
            self.assertEqual(result.returncode, 2)
            self.assertIn(text, result.stderr)
            self.assertEqual(result.stderr.count("\n"), 1)
        path.write_text(whole)
        (self.layer() / "call-0001-in0.bin").write_bytes(b"x")
        self.assertIn("has 1 bytes instead of 96", self.vekrun("replay", "r").stderr)

    def test_a_page(self):
        self.softmax()
        path = self.layer() / "call-0001-out0.bin"
        data = bytearray(path.read_bytes())
        for i in range(6):
            data[4 * (3 * 6 + i)] ^= 1
        path.write_bytes(data)
        self.change(self.layer() / "layer.json", '"log": []', '"log": ["a < b & \\u00e9"]')
        self.assertIn(r'log line 1: nothing, recorded: "a < b & \xe9"', self.replay(1, "r", "--html", "r.html"))
        text = self.read("r.html").decode()
        self.assertTrue(text.startswith("<!DOCTYPE html>"))
        page = html.parser.HTMLParser()
        opened, seen, names = [], collections.Counter(), collections.Counter()
        page.handle_starttag = lambda tag, attrs: (seen.update([tag]), names.update(value for key, value in attrs if key == "id"),
                                                    tag in ("meta", "img") or opened.append(tag))
        page.handle_endtag = lambda tag: self.assertEqual(opened.pop(), tag)
        page.handle_startendtag = lambda tag, attrs: seen.update([tag])
        page.feed(text)
        self.assertEqual(opened, [])
        self.assertEqual((seen["table"], seen["tr"], seen["figure"], seen["details"], seen["script"], seen["link"], seen["img"]),
                         (1, 3, 4, 3, 0, 0, 1))
        self.assertEqual(names, {"hatch": 1})
        self.assertEqual((text.count("<style>"), re.findall(r"(?:src|href)=\"(?!data:)", text)), (2, []))
        self.assertIn("<h1>0 of 2 calls are equal</h1>", text)
        self.assertIn("a &lt; b &amp; &#233;", text)
        self.assertIn("channels 0 to 3: channel 3 has all of them</figcaption>", text)
        # Four planes of 2 x 3 in two rows of two, a line between them, each element a square of 32 pixels a side at most.
        png = base64.b64decode(re.search(r'width="224" height="160" src="data:image/png;base64,([\w+/]+=*)"', text)[1])
        self.write("map.png", png)
        self.assertEqual(self.vekrun("convert", "map.png", "map.ppm").returncode, 0)
        pixels = self.read("map.ppm").removeprefix(b"P6\n224 160\n255\n")
        self.assertEqual(len(pixels), 3 * 224 * 160)
        for y in range(160):
            for x in range(224):
                colour = tuple(pixels[3 * (224 * y + x):][:3])
                between = y // 32 == 2 or x // 32 == 3
                if not between and y // 32 > 2 and x // 32 > 3:  # channel 3
                    self.assertGreater(colour[0], 90)
                else:
                    self.assertEqual(colour, (96, 96, 104) if between else (18, 18, 24), (x, y))
        # The one bar of channel 3 of 4, as high as can be.
        self.assertIn('<rect x="72" y="1" width="23" height="60"/></svg>', text)
        line = re.search("To repeat it</h4>\n<pre>(.*)</pre>", text)[1]
        command = shlex.split(line)
        self.assertEqual(command[:2], ["vekrun", "run"])
        self.assertEqual(self.vekrun(*command[1:]).returncode, 1)

    def test_the_smallest_call(self):
        self.softmax()
        own = str(pathlib.Path(VEKRUN[-1]).resolve().parent / "libvekcustom.so")
        out = self.replay(1, "r", "--plugin", BAD, "--against", own, "--shrink", "small")
        self.assertIn("the smallest call is in small/0001-SOFTMAX:\n", out)
        command = shlex.split(out.split("0001-SOFTMAX:\n")[1].splitlines()[0])
        options = ",type=float32,shape=1x1x1x1"
        self.assertEqual(command, ["vekrun", "run", "SOFTMAX", "--attr", "axis=1", "--in",
                                   "small/0001-SOFTMAX/call-0001-in0.bin" + options, "--out", "out0.bin" + options, "--bits",
                                   "--expect", "small/0001-SOFTMAX/call-0001-out0.bin" + options, "--plugin", BAD])
        self.assertEqual(self.read("small/0001-SOFTMAX/call-0001-in0.bin"), bytes(4))
        self.assertEqual(self.read("small/0001-SOFTMAX/call-0001-out0.bin"), struct.pack("<f", 1))
        self.assertEqual(self.vekrun(*command[1:]).returncode, 1)
        self.assertEqual(self.vekrun(*command[1:-2]).returncode, 0)
        self.replay(0, "small")

    def test_the_smallest_crash(self):
        self.array("x.npy", "|u1", (1, 3, 2, 8))
        self.record("r", "READ_BEHIND", "--in", "x.npy,pack=2,line=20", LIBRARY=BAD)
        out = self.replay(1, "r", "--plugin", BAD, "--shrink", "small")
        self.assertIn("--in small/0001-READ_BEHIND/call-0001-in0.bin,type=uint8,shape=1x1x1x1,pack=2,line=6 ", out)
        self.assertIn(" beyond input 0 (1x1x1x1, ", self.replay(1, "small", "--plugin", BAD))
        self.softmax("s")
        path = self.layer("s") / "call-0001-out0.bin"
        path.write_bytes(bytes(96))
        result = self.vekrun("replay", "s", "--shrink", "none")
        self.assertIn("0001-SOFTMAX is not made smaller: it does not crash; --against names a plug-in", result.stderr)


class ReplayWritten(Replay):
    """Recordings that vekrun run writes."""

    def members(self, value):
        """The value with every number and text replaced by its type."""
        if isinstance(value, dict):
            return {key: self.members(inner) for key, inner in value.items()}
        if isinstance(value, list):
            return [self.members(inner) for inner in value]
        return type(value)

    def test_as_the_recorder(self):
        self.softmax("theirs")
        # The very file that the recorder stood in front of, not the variant that the loader would take.
        own = str(pathlib.Path(VEKRUN[-1]).resolve().parent / "libvekcustom.so")
        result = self.vekrun("run", "SOFTMAX", "--attr", "axis=1", "--in", "x.npy", "--record", "ours", "--plugin", own)
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        self.assertIn("SOFTMAX: recorded in ours/0001-SOFTMAX\n", result.stdout)
        for name in ("layer.json", "call-0001.json"):
            ours, theirs = (json.loads((self.layer(folder) / name).read_text()) for folder in ("ours", "theirs"))
            self.assertEqual(self.members(ours), self.members(theirs))
            self.assertEqual(list(ours), list(theirs))
            for member in ("type", "library", "machine", "configures"):
                if name == "layer.json" and member != "configures":
                    self.assertEqual(ours[member], theirs[member])
        for name in ("call-0001-in0.bin", "call-0001-out0.bin"):
            self.assertEqual(self.read(f"ours/0001-SOFTMAX/{name}"), (self.layer("theirs") / name).read_bytes())
        self.replay(0, "ours")

    def test_refusals_and_crashes(self):
        self.array("x.npy", "<f4", (1, 4))
        self.assertEqual(self.vekrun("run", "SOFTMAX", "--in", "x.npy", "--record", "r").returncode, 1)
        self.array("b.npy", "|u1", (1, 1, 2, 8))
        self.assertEqual(self.vekrun("run", "WILD", "--in", "b.npy", "--record", "r", "--plugin", BAD).returncode, 1)
        self.assertEqual(os.listdir(self.path("r/0001-SOFTMAX")), ["layer.json"])
        self.replay(0, "r/0001-SOFTMAX")
        self.assertIsNone(json.loads(self.read("r/0002-WILD/call-0001.json"))["outcome"])

    def test_attributes_in_turns(self):
        self.array("x.npy", "<f4", (1, 4, 2, 3))
        for i in range(2):
            result = self.vekrun("run", "ARGMAX", "--attr", "axis=1", "--then", "--attr", "top_k=2", "--in", "x.npy", "--record", "r")
            self.assertEqual(result.returncode, 0)
        self.assertEqual(sorted(os.listdir(self.path("r"))), ["0001-ARGMAX", "0002-ARGMAX"])
        self.assertTrue(self.replay(0, "r").endswith("\n6 of 6 calls are equal\n"))


if __name__ == "__main__":
    main()
