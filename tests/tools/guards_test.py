#!/usr/bin/env python3
"""Tests of what vekrun tells of layers that leave their buffers or crash: guards_test.py SUITE COMMAND..."""

import os
import pathlib
import pty
import signal
import subprocess
import time

from vekrun_case import VEKRUN, Case, main, wait_for

BAD = str(pathlib.Path(VEKRUN[-1]).resolve().parent / "tests/tools/libbad_plugin.so")
READ = "(read|touched memory)"  # which of the two, an emulator does not tell
WROTE = "(wrote|touched memory)"


def read_terminal(terminal):
    """What it was told, or nothing when nobody writes to it any more."""
    try:
        return os.read(terminal, 4096)
    except OSError:
        return b""


class Guards(Case):
    def bad(self, layer, *more):
        return self.vekrun("run", layer, "--plugin", BAD, "--in", "ramp:1x1x2x8,type=u8", "--out", "out.npy", *more)

    def expect_failure(self, layer, text):
        """Status 1, one line that matches the text, all that was printed, and no file."""
        result = self.bad(layer)
        self.assertEqual(result.returncode, 1, result)
        self.assertRegex(result.stderr, f"^vekrun: {layer} {text}\n$")
        self.assertEqual(result.stdout, "a line, and a part of one")
        self.assertEqual(os.listdir(self.folder), [])

    def test_accesses_outside_of_buffers(self):
        tail = r" input 0 \(ramp:1x1x2x8, 1x1x2x8 uint8, 16 bytes\): byte "
        self.expect_failure("READ_BEHIND", READ + " beyond" + tail + "5 behind its end")
        self.expect_failure("READ_FAR", READ + " beyond" + tail + "900000000 behind its end")
        tail = r" the output \(out.npy, 1x1x2x8 uint8, 16 bytes\): byte "
        self.expect_failure("WRITE_BEHIND", WROTE + " beyond" + tail + "0 behind its end")

    def test_accesses_ahead_of_buffers(self):
        # Seen by the second pass, or by the write into the rest of the first one's page.
        result = self.bad("READ_AHEAD")
        self.assertEqual(result.returncode, 1)
        self.assertRegex(result.stderr, f"^vekrun: READ_AHEAD {READ} ahead of input 0 .*: byte 3 before its start\n$")
        self.expect_failure("WRITE_AHEAD", r"wrote ahead of the output .*: byte 1 before its start")

    def test_other_crashes(self):
        self.expect_failure("NULL", "(wrote|touched) address (0x0|.nil.), which is in none of its buffers: a null pointer")
        self.expect_failure("WILD", "(wrote|touched) address 0x123450000, which is in none of its buffers")
        self.expect_failure("STACK", "(wrote|read|touched) address 0x[0-9a-f]+, which is in none of its buffers")
        self.expect_failure("DIVIDE", "crashed: division by zero")
        self.expect_failure("ABORT", "aborted")
        self.expect_failure("EXIT", "ended the process with status 7")
        self.expect_failure("THROW", "threw an exception: of its own")
        self.expect_failure("THROW_INT", "threw an exception: not a std::exception")

    def test_a_refusal_without_words(self):
        result = self.bad("REFUSE")
        self.assertEqual((result.returncode, result.stdout), (1, ""))
        self.assertTrue(result.stderr.startswith("vekrun: REFUSE refused\n  input 0     ramp:1x1x2x8  "), result.stderr)

    def test_what_was_never_written(self):
        result = self.bad("HALF")
        self.assertEqual(result.returncode, 0)
        self.assertEqual(result.stderr, "vekrun: warning: HALF left 8 of 16 elements of the output unwritten, the first "
                                        "at [0,0,1,0]; they read as 0\n")
        self.assertEqual(self.values("out.npy")[2], list(range(8)) + [0] * 8)

    def test_elements_that_are_written_with_the_fills_are_written(self):
        self.assertEqual(self.bad("FILL").stderr, "")
        self.assertEqual(self.values("out.npy")[2], [255] * 16)

    def test_two_plugins(self):
        pair = ["--plugin", BAD]
        self.assertIn("writes the same bytes as", self.bad("FILL", *pair).stdout)
        own = str(pathlib.Path(VEKRUN[-1]).resolve().parent / "libvekcustom.so")
        result = self.vekrun("run", "RESHAPE", "--attr", "pixelshuffler=1", "--plugin", own, "--plugin", BAD, "--in",
                             "ramp:1x1x2x8,type=u8", "--out", "out.npy")
        self.assertEqual(result.returncode, 1)
        self.assertRegex(result.stderr, "^vekrun: RESHAPE: .*libbad_plugin.so writes other bytes than .*libvekcustom.so, "
                                        "from byte 0 of the output on\n$")

    def test_padding_may_stay_unwritten(self):
        result = self.vekrun("run", "PERMUTE", "--attr", "axes=[0,2,3,1]", "--in", "random:1x3x4x5,type=u8,pack=4", "--out",
                             "out.bin,pack=16,line=512")
        self.assertEqual((result.returncode, result.stderr), (0, ""))


EXAMPLES = {
    "SOFTMAX": ([], ["1x6x4x5"]),
    "DATA_STRIDE_CONV": ([], ["1x6x4x5,type=i16"]),
    "RESHAPE": (["pixelshuffler=2"], ["1x8x4x5,type=u8"]),
    "BROADCAST": (["size=[0,3,0,0]"], ["1x1x4x5,type=i16"]),
    "ARGMAX": (["axis=1"], ["1x6x4x5"]),
    "NORMALIZE": (["across_spatial=0"], ["1x6x4x5"]),
    "MATMUL": (["trans_b=0"], ["2x3x1x7", "2x7x1x5"]),
    "PERMUTE": (["axes=[0,2,3,1]"], ["1x6x4x5,type=u8"]),
    "SWCONCAT": (["axis=1"], ["1x6x4x5,type=u8", "1x3x4x5,type=u8"]),
    "DEPTHTOSPACE": (["block_size=2"], ["1x8x4x5,type=i32"]),
    "PAD": (["pad_mode=1", "pad=0", "pad_shape=[0,0,0,0,1,1,2,2]", "format=[0,1,2,3]"], ["1x6x4x5,type=u8"]),
    "GATHER": (["axis=0"], ["7x5,type=u16", "4,type=u32,max=6"]),
    "ELTWISE": (["method=0"], ["1x6x4x5", "1x6x4x5"]),
    "SPACETOBATCH": (["block_shape=[2,2]", "paddings=[1,1,1,0]"], ["1x6x4x5,type=u8"]),
    "SPACETODEPTH": (["block_size=2"], ["1x6x4x6,type=i16"]),
    "BATCHTOSPACE": (["block_shape=[2,2]", "crops=[1,0,0,1]"], ["4x6x4x5,type=u8"]),
}
LAYOUTS = ("line=128", "plane=1000", "pack=4", "pack=16", "pack=4,line=256")
# Of the layers that take more than dense buffers, the layouts of input and output.
RING = ("pack=1",) + LAYOUTS
TAKEN = ([("DATA_STRIDE_CONV", RING[i], RING[(i + step) % 6]) for i in range(6) for step in (1, 3)] +
         [("PERMUTE", a, b) for a, b in zip(LAYOUTS, LAYOUTS[1:] + LAYOUTS[:1])] +
         [("PAD", a, b) for a in LAYOUTS for b in ("line=128", "plane=1000")] +
         [("BROADCAST", "line=128", "pack=1"), ("MATMUL", "line=128", "pack=1"), ("MATMUL", "plane=1000", "pack=1")])


class Quiet(Case):
    """No false alarm: nothing is said of examples that are right, in any layout that the layer takes."""

    def example(self, call):
        layer, source, target = call
        attributes, inputs = EXAMPLES[layer]
        command = ["run", layer]
        for attribute in attributes:
            command += ["--attr", attribute]
        for one in inputs:
            command += ["--in", f"random:{one},{source}"]
        return self.vekrun(*command, "--out", f"{layer}{LAYOUTS.index(source) if source in LAYOUTS else ''}-"
                           f"{LAYOUTS.index(target) if target in LAYOUTS else ''}.bin,{target}")

    def test_examples(self):
        calls = [(layer, "pack=1", "pack=1") for layer in EXAMPLES] + TAKEN
        for call, result in zip(calls, self.at_once(self.example, calls)):
            self.assertEqual((result.returncode, result.stderr), (0, ""), (call, result))

    def test_every_layer_has_one(self):
        listed = [line.split(":")[0] for line in self.vekrun("list").stdout.splitlines() if line[:1].isupper()]
        self.assertEqual(list(EXAMPLES), listed)


class Interruptions(Case):
    def test_an_interrupted_run_leaves_nothing(self):
        """A fifo holds the run up while the output's temporary file is there."""
        os.mkfifo(self.path("slow"))
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            with subprocess.Popen([*VEKRUN, "run", "RESHAPE", "--attr", "pixelshuffler=1", "--in", "ramp:1x1x200x200",
                                   "--out", "first.npy", "--expect", "slow"], cwd=self.folder, stdout=subprocess.PIPE,
                                  stderr=subprocess.PIPE) as process:
                wait_for(lambda: any(".part-" in name for name in os.listdir(self.folder)))
                time.sleep(0.05)
                process.send_signal(number)
                process.communicate()
            self.assertIn(process.returncode, (-number, 128 + number))
            self.assertEqual(os.listdir(self.folder), ["slow"])

    def test_a_long_step_is_told_on_a_terminal(self):
        """From the second on, in one line that is gone afterwards; a pipe is told nothing."""
        command = [*VEKRUN, "run", "RESHAPE", "--attr", "pixelshuffler=1", "--in", "ramp:1x1x2x8", "--seconds", "1.5"]
        terminal, end = pty.openpty()
        with subprocess.Popen(command, cwd=self.folder, stdout=subprocess.DEVNULL, stderr=end) as process:
            os.close(end)
            told = b""
            while piece := read_terminal(terminal):
                told += piece
        os.close(terminal)
        line = b"\r\x1b[Kvekrun: timing RESHAPE ..."
        self.assertEqual((process.returncode, told.replace(line, b"")), (0, b"\r\x1b[K"), told)
        self.assertGreaterEqual(told.count(line), 1)
        piped = subprocess.run(command, cwd=self.folder, capture_output=True, check=False)
        self.assertEqual((piped.returncode, piped.stderr), (0, b""))

    def test_a_limit_of_size_is_an_error(self):
        command = f"ulimit -f 8; exec {' '.join(VEKRUN)} run RESHAPE --attr pixelshuffler=1 --in zeros:200x200 --out out.npy"
        result = subprocess.run(["bash", "-c", command], cwd=self.folder, capture_output=True, text=True, check=False)
        self.assertEqual((result.returncode, result.stderr), (2, "vekrun: cannot write out.npy: File too large\n"))
        self.assertEqual(os.listdir(self.folder), [])

    def test_devices_stay_devices(self):
        os.mkfifo(self.path("pipe.npy"))
        with subprocess.Popen(["cat", "pipe.npy"], cwd=self.folder, stdout=subprocess.PIPE) as reader:
            self.run_layer("RESHAPE", ["ramp:4,type=u8"], "pipe.npy", "pixelshuffler=1")
            self.assertEqual(reader.communicate()[0][-4:], bytes(range(4)))
        self.assertEqual(os.listdir(self.folder), ["pipe.npy"])


if __name__ == "__main__":
    main()
