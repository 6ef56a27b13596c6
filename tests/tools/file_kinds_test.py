#!/usr/bin/env python3
"""Tests of the files and inputs that vekrun reads and writes beside plain arrays: file_kinds_test.py SUITE COMMAND..."""

import io
import os
import struct
import subprocess
import zipfile
import zlib

from vekrun_case import VEKRUN, Case, f32, main, npy, png


def varint(number):
    number &= 2**64 - 1
    out = b""
    while number > 127:
        out += bytes([number & 127 | 128])
        number >>= 7
    return out + bytes([number])


def field(number, wire, data):
    return varint(number << 3 | wire) + (varint(len(data)) if wire == 2 else b"") + data


def onnx_tensor(kind, dims, raw=None, packed=None, single=None):
    """A TensorProto: its elements as raw bytes, as a packed field (number, bytes), or as single entries (number, wire,
    list of bytes)."""
    text = b"".join(field(1, 0, varint(d)) for d in dims) + field(2, 0, varint(kind)) + field(8, 2, b"name")
    if raw is not None:
        text += field(9, 2, raw)
    if packed is not None:
        text += field(packed[0], 2, packed[1])
    for entry in single[2] if single else []:
        text += field(single[0], single[1], entry)
    return text


def png16(width, height, channels, values):
    """A 16-bit PNG file."""
    plain = png(width, height, channels, [0] * (width * height * channels))
    header = struct.pack(">IIBBBBB", width, height, 16, {1: 0, 3: 2}[channels], 0, 0, 0)
    row = width * channels
    rows = b"".join(b"\0" + struct.pack(f">{row}H", *values[y * row:(y + 1) * row]) for y in range(height))

    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))

    return plain[:8] + chunk(b"IHDR", header) + chunk(b"IDAT", zlib.compress(rows)) + chunk(b"IEND", b"")


class Kinds(Case):
    def copy(self, source, target="out.npy"):
        self.run_layer("RESHAPE", [source], target, "pixelshuffler=1")
        return self.values("out.npy") if target == "out.npy" else None

    def refuse(self, text, source, target="out.npy"):
        self.expect_usage_error(text, "run", "RESHAPE", "--attr", "pixelshuffler=1", "--in", source, "--out", target)

    # --- .npy

    def test_versions_2_and_3_of_npy(self):
        one = npy("<i2", (2, 3), list(range(6)))
        length = struct.unpack("<H", one[8:10])[0]
        for version in (2, 3):
            self.write("in.npy", one[:6] + bytes([version, 0]) + struct.pack("<I", length) + one[10:])
            self.assertEqual(self.copy("in.npy")[1:], ((2, 3), list(range(6))))
        self.write("in.npy", one[:6] + bytes([4, 1]) + one[8:])
        self.refuse("in.npy is a .npy file of version 4.1; read are 1.0, 2.0 and 3.0", "in.npy")

    def test_headers_as_others_write_them(self):
        for header in ("{'shape':(2,3),'fortran_order':False,'descr':'<i2'}", '{"descr": "=i2", "fortran_order": False, "shape": (2L, 3L)}\n'):
            self.write("in.npy", b"\x93NUMPY\1\0" + struct.pack("<H", len(header)) + header.encode() +
                       struct.pack("<6h", *range(6)))
            self.assertEqual(self.copy("in.npy"), ("<i2", (2, 3), list(range(6))))

    def test_types_that_no_layer_takes(self):
        for code, name in (("<f8", "float64"), ("<f2", "float16"), ("<i8", "int64"), ("<u8", "uint64"), ("|b1", "bool")):
            self.write("in.npy", npy(code, (1,), []) + bytes(8))
            self.refuse(f"in.npy holds {name} elements, which no layer takes", "in.npy")
        for code, name in ((">f4", "'>f4', big-endian float32"), ("<c8", "'<c8', complex numbers"),
                           ("<U7", "'<U7', texts"), ("|O", "'|O', Python objects")):
            self.write("in.npy", npy(code, (1,), []) + bytes(32))
            self.refuse(f"in.npy holds elements of type {name}; read are float32", "in.npy")
        self.write("in.npy", npy("<f4", (1,), [0.0]).replace(b"'<f4'", b"[('a', '<f4')]"))
        self.refuse("in.npy holds records, [('a', '<f4')]", "in.npy")

    def test_column_major_of_three_dimensions(self):
        values = [h + 2 * (w + 3 * c) for c in range(2) for h in range(2) for w in range(3)]
        # Element (c, h, w) lies at c + 2 (h + 2 w).
        memory = [0] * 12
        for c in range(2):
            for h in range(2):
                for w in range(3):
                    memory[c + 2 * (h + 2 * w)] = values[(c * 2 + h) * 3 + w]
        self.write("in.npy", npy("|u1", (2, 2, 3), memory, order=True))
        self.assertEqual(self.copy("in.npy")[2], values)

    # --- .npz

    def archive(self, name, members, compression):
        data = io.BytesIO()
        with zipfile.ZipFile(data, "w", compression) as archive:
            for member, content in members.items():
                archive.writestr(member + ".npy", content)
        self.write(name, data.getvalue())

    def test_members_of_an_archive(self):
        members = {"a": npy("<u2", (2, 3), list(range(6))), "b": npy("|u1", (300,), [7] * 300)}
        for compression in (zipfile.ZIP_STORED, zipfile.ZIP_DEFLATED):
            self.archive("in.npz", members, compression)
            for source in ("in.npz:a", "in.npz,member=a", "in.npz:a.npy"):
                self.assertEqual(self.copy(source), ("<u2", (2, 3), list(range(6))))
            self.assertEqual(self.copy("in.npz:b,shape=3x100"), ("|u1", (3, 100), [7] * 300))
            self.refuse("in.npz: which member? in.npz:a takes one of a, b", "in.npz")
            self.refuse("in.npz has no member c; it has a, b", "in.npz:c")
            self.refuse("member= is given twice", "in.npz:a,member=a")
        self.archive("one.npz", {"arr_0": members["a"]}, zipfile.ZIP_STORED)
        self.assertEqual(self.copy("one.npz")[2], list(range(6)))
        self.refuse(".npz files are read, not written", "one.npz", "out.npz")

    def test_archives_that_are_none(self):
        self.archive("in.npz", {"a": npy("|u1", (3000,), list(range(250)) * 12)}, zipfile.ZIP_DEFLATED)
        whole = self.read("in.npz")
        middle = len(whole) // 3
        for data in (b"", b"PK\3\4", whole[:-30], whole[:middle] + b"\0\0\0\0" + whole[middle + 4:]):
            self.write("in.npz", data)
            self.refuse("in.npz is not a whole .npz file", "in.npz:a")

    # --- ONNX

    def test_onnx_tensors(self):
        floats = [0.5, -2.0, 3.0]
        for tensor in (onnx_tensor(1, (1, 3), raw=struct.pack("<3f", *floats)),
                       onnx_tensor(1, (1, 3), packed=(4, struct.pack("<3f", *floats))),
                       onnx_tensor(1, (1, 3), single=(4, 5, [struct.pack("<f", v) for v in floats]))):
            self.write("in.pb", tensor)
            self.assertEqual(self.copy("in.pb"), ("<f4", (1, 3), floats))
        integers = b"".join(map(varint, [1, 0, 120]))
        for kind, descr in ((2, "|u1"), (3, "|i1"), (4, "<u2"), (5, "<i2"), (6, "<i4")):
            self.write("in.pb", onnx_tensor(kind, (3,), packed=(5, integers)))
            self.assertEqual(self.copy("in.pb"), (descr, (3,), [1, 0, 120]))
        self.write("in.pb", onnx_tensor(6, (2,), packed=(5, varint(-1) + varint(5))))
        self.assertEqual(self.copy("in.pb"), ("<i4", (2,), [-1, 5]))
        self.write("in.pb", onnx_tensor(12, (2,), packed=(11, varint(2**32 - 1) + varint(5))))
        self.assertEqual(self.copy("in.pb"), ("<u4", (2,), [2**32 - 1, 5]))

    def test_onnx_tensors_are_written(self):
        self.array("in.npy", "<i2", (2, 1, 3))
        self.copy("in.npy", "out.pb")
        self.assertEqual(self.read("out.pb"), b"".join(field(1, 0, varint(d)) for d in (2, 1, 3)) +
                         field(2, 0, varint(5)) + field(9, 2, struct.pack("<6h", *range(6))))
        self.run_layer("DATA_STRIDE_CONV", ["in.npy"], "strided.pb,line=16")
        self.assertEqual(self.read("strided.pb"), self.read("out.pb"))

    def test_onnx_tensors_that_are_none(self):
        whole = onnx_tensor(1, (1, 3), raw=bytes(12))
        for data in (b"", b"\xff", whole[:-1], onnx_tensor(1, (1, 4), raw=bytes(12)), onnx_tensor(1, (2,)),
                     b"PK\3\4 not at all"):
            self.write("in.pb", data)
            self.refuse("in.pb is not a whole ONNX tensor", "in.pb")
        self.write("in.pb", onnx_tensor(8, (1,)))
        self.refuse("elements of ONNX type 8; read are float32", "in.pb")
        self.write("in.pb", onnx_tensor(7, (1,), raw=bytes(8)))
        self.refuse("holds int64 elements", "in.pb")
        self.write("in.pb", onnx_tensor(1, (1,)) + field(13, 2, b""))
        self.refuse("only tells where its data lies", "in.pb")

    # --- Raw files

    def test_any_name_is_raw_with_type_and_shape(self):
        self.write("dump.dat", bytes(range(24)))
        self.assertEqual(self.copy("dump.dat,type=u8,shape=2x12"), ("|u1", (2, 12), list(range(24))))
        self.refuse("dump.dat: bytes alone do not tell their type= and shape=", "dump.dat")
        self.copy("dump.dat,type=u8,shape=2x12", "out.dat,type=u8,shape=2x12")
        self.assertEqual(self.read("out.dat"), bytes(range(24)))
        self.refuse("the name of an output ends in .npy", "dump.dat,type=u8,shape=2x12", "out.dat")

    def test_offset(self):
        self.write("dump.npy", bytes(range(24)))
        for offset, values in ((0, [0, 1, 2, 3]), (7, [7, 8, 9, 10]), (20, [20, 21, 22, 23])):
            self.assertEqual(self.copy(f"dump.npy,type=u8,shape=4,offset={offset}")[2], values)
        self.refuse("has 24 bytes, the described buffer 4 from byte 21 on", "dump.npy,type=u8,shape=4,offset=21")
        self.refuse("has 24 bytes", "dump.npy,type=u8,shape=4,offset=18446744073709551615")
        self.refuse("type= and shape=", "dump.npy,offset=4")
        self.refuse("offset= is for inputs", "dump.npy,type=u8,shape=4,offset=0", "out.bin,offset=4")

    def test_a_name_without_an_ending_is_read_by_its_first_bytes(self):
        self.array("array", "<u2", (2, 2))
        self.write("picture", png(1, 2, 1, [3, 4]))
        self.assertEqual(self.copy("array")[1:], ((2, 2), [0, 1, 2, 3]))
        self.assertEqual(self.copy("picture")[1:], ((1, 1, 2, 1), [3, 4]))

    # --- Pictures of 16 bits

    def test_png_of_16_bits(self):
        values = [0, 1, 255, 256, 40000, 65535]
        self.write("in.png", png16(1, 2, 3, values))
        planes = [values[i * 3 + c] for c in range(3) for i in range(2)]
        self.assertEqual(self.copy("in.png"), ("<u2", (1, 3, 2, 1), planes))
        self.copy("in.png", "out.png")
        self.assertEqual(self.copy("out.png")[2], planes)
        self.assertEqual(self.copy("in.png,type=f32")[2], [f32(v / 65535) for v in planes])
        self.refuse("has 16 bits a value, which uint8 does not hold", "in.png,type=uint8")

    def test_pgm_of_16_bits(self):
        self.write("in.pgm", b"P5\n# of a camera\n3 1\n4095\n" + struct.pack(">3H", 0, 300, 4095))
        self.assertEqual(self.copy("in.pgm"), ("<u2", (1, 1, 1, 3), [0, 300, 4095]))
        self.assertEqual(self.copy("in.pgm,type=f32")[2], [0, f32(f32(300) / f32(4095)), 1])
        self.copy("in.pgm", "out.pgm")
        self.assertEqual(self.read("out.pgm"), b"P5\n3 1\n65535\n" + struct.pack(">3H", 0, 300, 4095))

    def test_palettes_and_single_bits(self):
        def chunk(kind, data):
            return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))

        def picture(depth, colour, row, *more):
            return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", 4, 1, depth, colour, 0, 0, 0)) +
                    b"".join(more) + chunk(b"IDAT", zlib.compress(b"\0" + row)) + chunk(b"IEND", b""))

        self.write("in.png", picture(1, 0, bytes([0b01100000])))
        self.assertEqual(self.copy("in.png"), ("|u1", (1, 1, 1, 4), [0, 255, 255, 0]))
        palette = chunk(b"PLTE", bytes([1, 2, 3, 40, 50, 60]))
        self.write("in.png", picture(8, 3, bytes([0, 1, 1, 0]), palette))
        self.assertEqual(self.copy("in.png"), ("|u1", (1, 3, 1, 4), [1, 40, 40, 1, 2, 50, 50, 2, 3, 60, 60, 3]))

    def test_an_8_bit_picture_as_uint16(self):
        self.write("in.png", png(2, 1, 1, [3, 200]))
        self.assertEqual(self.copy("in.png,type=u16"), ("<u2", (1, 1, 1, 2), [3, 200]))

    # --- Options

    def test_shapes_and_types_as_others_write_them(self):
        self.array("in.npy", "<i2", (24,))
        for shape in ("1x2x3x4", "1,2,3,4", "[1,2,3,4]", "[1, 2, 3, 4]"):
            self.assertEqual(self.copy(f"in.npy,shape={shape},pack=1")[1], (1, 2, 3, 4))
        self.write("in.bin", bytes(range(8)))
        for name, descr in (("f32", "<f4"), ("i8", "|i1"), ("u8", "|u1"), ("i16", "<i2"), ("u16", "<u2"),
                            ("i32", "<i4"), ("u32", "<u4"), ("float32", "<f4")):
            size = struct.calcsize("<" + {"f4": "f", "i1": "b", "u1": "B", "i2": "h", "u2": "H", "i4": "i",
                                          "u4": "I"}[descr[1:]])
            self.assertEqual(self.copy(f"in.bin,shape={8 // size},type={name}")[0], descr)

    def test_an_option_given_twice(self):
        self.array("in.npy", "<i2", (24,))
        self.refuse("shape= is given twice in in.npy,shape=24,shape=24", "in.npy,shape=24,shape=24")
        self.refuse("shape= is given twice", "zeros:3,shape=3")
        self.refuse("line= is given twice", "in.npy", "out.npy,line=48,pack=1,line=48")

    def test_a_directory(self):
        os.mkdir(self.path("folder.npy"))
        result = self.vekrun("run", "SOFTMAX", "--in", "folder.npy", "--out", "out.npy")
        self.assertEqual((result.returncode, result.stderr), (2, "vekrun: cannot read folder.npy: Is a directory\n"))
        self.array("in.npy", "<f4", (1, 3, 1, 1))
        result = self.vekrun("run", "SOFTMAX", "--in", "in.npy", "--out", "folder.npy")
        self.assertEqual((result.returncode, result.stderr), (2, "vekrun: cannot write folder.npy: Is a directory\n"))

    # --- Pipes

    def test_standard_output_and_input(self):
        self.array("in.npy", "<f4", (1, 2, 1, 2))
        command = [*VEKRUN, "run", "ELTWISE", "--attr", "method=1", "--attr", "has_k=1", "--attr", "k=2"]
        result = subprocess.run([*command, "--in", "in.npy", "--out", "-"], cwd=self.folder, capture_output=True,
                                check=True)
        self.write("first.npy", result.stdout)
        self.assertEqual(self.values("first.npy"), ("<f4", (1, 2, 1, 2), [2.0, 3.0, 4.0, 5.0]))
        self.assertEqual(result.stderr, b"ELTWISE: - (1x2x1x2 float32)\n")
        command = [*VEKRUN, "run", "SOFTMAX", "--in", "-", "--out", "-", "--log", "INFO"]
        again = subprocess.run(command, input=result.stdout, cwd=self.folder,
                               capture_output=True, check=True)
        self.write("again.npy", again.stdout)
        self.assertEqual(self.values("again.npy")[:2], ("<f4", (1, 2, 1, 2)))
        self.assertIn(b"[INFO]", again.stderr)
        self.assertEqual(sorted(os.listdir(self.folder)), ["again.npy", "first.npy", "in.npy"])


def random_words(seed, count):
    """SplitMix64, as published."""
    mask = 2**64 - 1
    words = []
    state = seed
    for _ in range(count):
        state = (state + 0x9E3779B97F4A7C15) & mask
        z = state
        z = ((z ^ (z >> 30)) * 0xBF58476D1CE4E5B9) & mask
        z = ((z ^ (z >> 27)) * 0x94D049BB133111EB) & mask
        words.append(z ^ (z >> 31))
    return words


class Generated(Case):
    def make(self, source):
        self.run_layer("RESHAPE", [source], "out.npy", "pixelshuffler=1")
        return self.values("out.npy")

    def refuse(self, text, source):
        self.expect_usage_error(text, "run", "RESHAPE", "--attr", "pixelshuffler=1", "--in", source, "--out", "out.npy")

    def test_the_generator_is_the_published_one(self):
        # The first numbers of seed 1234567, from the description of SplitMix64.
        self.assertEqual(random_words(1234567, 3), [6457827717110365317, 3203168211198807973, 9817491932198370423])

    def test_random_integers(self):
        words = random_words(7, 12)
        self.assertEqual(self.make("random:1x3x2x2,type=uint8,seed=7"),
                         ("|u1", (1, 3, 2, 2), [(w >> 32) * 256 >> 32 for w in words]))
        self.assertEqual(self.make("random:12,type=i16,seed=7")[2], [((w >> 32) * 65536 >> 32) - 32768 for w in words])
        self.assertEqual(self.make("random:12,type=u32,seed=7")[2], [w >> 32 for w in words])
        self.assertEqual(self.make("random:12,type=u32,seed=7,min=3,max=5")[2],
                         [3 + ((w >> 32) * 3 >> 32) for w in words])

    def test_random_floats(self):
        words = random_words(0, 6)
        self.assertEqual(self.make("random:6"), ("<f4", (6,), [f32(-1 + 2 * ((w >> 40) / 2**24)) for w in words]))
        self.assertEqual(self.make("random:6,min=0,max=10")[2], [f32(10 * ((w >> 40) / 2**24)) for w in words])

    def test_ramp_zeros_const(self):
        self.assertEqual(self.make("ramp:2x3"), ("<f4", (2, 3), [0.0, 1.0, 2.0, 3.0, 4.0, 5.0]))
        self.assertEqual(self.make("ramp:300,type=u8")[2], [i % 256 for i in range(300)])
        self.assertEqual(self.make("ramp:300,type=i8")[2], [(i + 128) % 256 - 128 for i in range(300)])
        self.assertEqual(self.make("zeros:[2,2],type=i32"), ("<i4", (2, 2), [0] * 4))
        self.assertEqual(self.make("const:3,value=2.5")[2], [2.5] * 3)
        self.assertEqual(self.make("const:3,value=-7,type=i8")[2], [-7] * 3)

    def test_layouts_are_those_of_files(self):
        self.run_layer("DATA_STRIDE_CONV", ["ramp:1x2x1x3,type=u8,line=8"], "out.bin,pack=2")
        self.assertEqual(self.read("out.bin"), bytes([0, 3, 1, 4, 2, 5]))

    def test_what_makes_no_input(self):
        self.refuse("cannot make sense of the shape in random:1x", "random:1x")
        self.refuse("const: which value?", "const:3")
        self.refuse("value= is not a value of the type", "const:3,value=256,type=u8")
        self.refuse("value= is not a value of the type", "const:3,value=1.5,type=i32")
        self.refuse("min= is above max=", "random:3,min=2,max=1")
        self.refuse("seed=, min= and max= are for random:", "zeros:3,seed=1")
        self.refuse("value= is for const:", "ramp:3,value=1")
        self.refuse("cannot make sense of 'seed=-1'", "random:3,seed=-1")
        self.refuse("float16", "random:3,type=f16")
        self.array("in.npy", "<f4", (1, 3))
        self.refuse("seed= is for generated inputs", "in.npy,seed=1")
        self.expect_usage_error("random: is for inputs", "run", "SOFTMAX", "--in", "in.npy", "--out", "random:1x3")


if __name__ == "__main__":
    main()
