"""What the tests of vekrun share: SUITE COMMAND... on the command line, where COMMAND runs the tool, under an emulator
if need be; arrays and pictures, written and read by hand with nothing but Python's standard library.
"""

import ast
import concurrent.futures
import math
import os
import pathlib
import re
import struct
import subprocess
import sys
import tempfile
import time
import unittest
import zlib

VEKRUN = sys.argv[2:]
TYPES = re.findall(r'ENTRY\("([A-Z_]+)"', (pathlib.Path(__file__).parents[2] / "src/custom_ops/layer_types.h").read_text())
CODES = {"<f4": "f", "|i1": "b", "|u1": "B", "<i2": "h", "<u2": "H", "<i4": "i", "<u4": "I"}


def product(dims):
    return math.prod(dims)


def npy(descr, dims, values, order=False):
    """The bytes of a .npy file."""
    shape = "(" + "".join(f"{d}, " for d in dims) + ")"
    header = f"{{'descr': '{descr}', 'fortran_order': {order}, 'shape': {shape}, }}"
    header += " " * (-(len(header) + 11) % 64) + "\n"
    data = struct.pack(f"<{len(values)}{CODES.get(descr, 'd')}", *values)
    return b"\x93NUMPY\x01\x00" + struct.pack("<H", len(header)) + header.encode() + data


def png(width, height, channels, pixels):
    """The bytes of an 8-bit PNG file."""
    colour = {1: 0, 2: 4, 3: 2, 4: 6}[channels]
    stride = width * channels
    rows = b"".join(b"\0" + bytes(pixels[y * stride:(y + 1) * stride]) for y in range(height))

    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))

    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, 8, colour, 0, 0, 0)) +
            chunk(b"IDAT", zlib.compress(rows)) + chunk(b"IEND", b""))


def f32(value):
    """The value rounded to single precision."""
    return struct.unpack("<f", struct.pack("<f", value))[0]


def wait_for(condition, seconds=60):
    """Returns when the condition holds; fails after a while."""
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            raise TimeoutError(condition)
        time.sleep(0.005)


class Case(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name

    def path(self, name):
        return os.path.join(self.folder, name)

    def write(self, name, data):
        with open(self.path(name), "wb") as file:
            file.write(data)

    def read(self, name):
        with open(self.path(name), "rb") as file:
            return file.read()

    def array(self, name, descr, dims, values=None):
        """Writes an array, by default a ramp."""
        self.write(name, npy(descr, dims, list(range(product(dims))) if values is None else values))

    def values(self, name):
        """Reads an array: (descr, dims, values)."""
        data = self.read(name)
        self.assertEqual(data[:8], b"\x93NUMPY\x01\x00")
        start = 10 + struct.unpack("<H", data[8:10])[0]
        self.assertEqual(start % 64, 0)
        header = ast.literal_eval(data[10:start].decode())
        self.assertFalse(header["fortran_order"])
        code = CODES[header["descr"]]
        count = product(header["shape"])
        self.assertEqual(len(data) - start, count * struct.calcsize(code))
        return header["descr"], header["shape"], list(struct.unpack(f"<{count}{code}", data[start:]))

    def vekrun(self, *arguments, folder=None):
        return subprocess.run([*VEKRUN, *arguments], cwd=folder or self.folder, capture_output=True, text=True, check=False)

    @staticmethod
    def at_once(call, items):
        """What the call returns for each item; several run at a time."""
        with concurrent.futures.ThreadPoolExecutor(max(2, os.cpu_count() or 2)) as pool:
            return list(pool.map(call, items))

    def run_layer(self, layer, inputs, output, *attributes):
        """Runs a layer that succeeds."""
        command = ["run", layer]
        for attribute in attributes:
            command += ["--then"] if attribute == "--then" else ["--attr", attribute]
        for name in inputs:
            command += ["--in", name]
        result = self.vekrun(*command, "--out", output)
        self.assertEqual((result.returncode, result.stderr), (0, ""), result.stdout)
        return result.stdout

    def expect_usage_error(self, text, *arguments):
        """Status 2, one line that holds the text, and no file appears or changes."""
        before = {name: self.read(name) for name in os.listdir(self.folder)}
        result = self.vekrun(*arguments)
        self.assertEqual(result.returncode, 2, result)
        self.assertEqual(result.stdout, "")
        self.assertEqual(result.stderr.count("\n"), 1, result.stderr)
        self.assertTrue(result.stderr.startswith("vekrun: "), result.stderr)
        self.assertIn(text, result.stderr)
        self.assertEqual({name: self.read(name) for name in os.listdir(self.folder)}, before)


def main():
    unittest.main(argv=[sys.argv[0], sys.argv[1]])
