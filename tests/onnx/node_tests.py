#!/usr/bin/env python3
"""Runs the ONNX project's published node tests through the plug-in.

usage: node_tests.py DATA -- VEKRUN...

DATA is the folder of the node tests (Debian: libonnx-testdata); VEKRUN... the command that runs vekrun, an emulator
included. Each test of an operator below is turned into one run of one layer and compared with the published output;
tests that no layer can express are listed with the reason. Ends with "N passed, N failed".
"""

import math
import pathlib
import subprocess
import sys
import tempfile

import numpy as np
import onnx
from onnx import numpy_helper


class CannotExpress(Exception):
    pass


def require(condition, reason):
    if not condition:
        raise CannotExpress(reason)


class Node:
    """One node test: attributes, inputs and outputs as arrays."""

    def __init__(self, folder):
        model = onnx.load(folder / "model.onnx")
        require(len(model.graph.node) == 1, "is a graph of several nodes")
        node = model.graph.node[0]
        self.op = node.op_type
        if self.op not in OPERATORS:
            return
        self.attrs = {a.name: onnx.helper.get_attribute_value(a) for a in node.attribute}
        data = folder / "test_data_set_0"
        self.inputs = [self._read(data / f"input_{i}.pb") for i in range(len(model.graph.input))]
        self.outputs = [self._read(data / f"output_{i}.pb") for i in range(len(model.graph.output))]

    @staticmethod
    def _read(path):
        tensor = onnx.TensorProto()
        tensor.ParseFromString(path.read_bytes())
        return numpy_helper.to_array(tensor)

    def axis(self, default):
        axis = int(self.attrs.get("axis", default))
        return axis + self.inputs[0].ndim if axis < 0 else axis


def split(shape, axis):
    """Elements before the axis, along it, and after it."""
    return math.prod(shape[:axis]), shape[axis], math.prod(shape[axis + 1 :])


def as_4d(array):
    require(array.ndim <= 4, "has more than four dimensions")
    return array.reshape((1,) * (4 - array.ndim) + array.shape)


def require_float(*arrays):
    require(all(a.dtype == np.float32 for a in arrays), "is not float32")


class Run:
    """One run of vekrun."""

    def __init__(self, command):
        self.command = command

    def __call__(self, layer, configurations, inputs, shape, dtype):
        with tempfile.TemporaryDirectory() as folder:
            arguments = [*self.command, "run", layer]
            for i, attrs in enumerate(configurations):
                arguments += ["--then"] if i else []
                for key, value in attrs.items():
                    arguments += ["--attr", f"{key}={value}"]
            for i, array in enumerate(inputs):
                np.save(f"{folder}/in{i}.npy", np.ascontiguousarray(array))
                arguments += ["--in", f"{folder}/in{i}.npy"]
            dims = "x".join(map(str, shape))
            arguments += ["--out", f"{folder}/out.npy,shape={dims},type={np.dtype(dtype).name}"]
            done = subprocess.run(arguments, capture_output=True, text=True)
            assert done.returncode == 0, done.stdout + done.stderr
            return np.load(f"{folder}/out.npy")


# --- One function per operator: the layer's results, one per published output, in the published shapes.


def softmax(node, run):
    x = node.inputs[0]
    require_float(x)
    outer, length, inner = split(x.shape, node.axis(-1))
    y = run("SOFTMAX", [{"axis": 1}], [x.reshape(outer, length, inner, 1)], (outer, length, inner, 1), x.dtype)
    return [y.reshape(x.shape)]


def argmax(node, run):
    x = node.inputs[0]
    require_float(x)
    outer, length, inner = split(x.shape, node.axis(0))
    if not node.attrs.get("select_last_index", 0):
        flat = x.reshape(outer, length, inner)
        ties = (flat == flat.max(axis=1, keepdims=True)).sum(axis=1).max() > 1
        require(not ties, "wants the first of equal values; the layer gives the last")
    y = run("ARGMAX", [{"axis": 2}], [x.reshape(1, outer, length, inner)], (1, outer, 1, inner), x.dtype)
    return [y.reshape(node.outputs[0].shape)]


def top_k(node, run):
    x, k = node.inputs[0], int(node.inputs[1][0])
    require_float(x)
    require(node.attrs.get("largest", 1), "wants the smallest")
    outer, length, inner = split(x.shape, node.axis(-1))
    x = x.reshape(1, outer, length, inner)
    settings = [{"axis": 2}, {"top_k": k}]
    results = []
    for configurations in (settings + [{"out_max_val": 1}], settings):
        y = run("ARGMAX", configurations, [x], (1, outer, inner, k), x.dtype)
        results.append(y.reshape(outer, inner, k).swapaxes(1, 2).reshape(node.outputs[0].shape))
    return results


def product_or_quotient(node, run):
    a, b = node.inputs
    require_float(a, b)
    method = {"Mul": 0, "Div": 6}[node.op]
    if node.op == "Mul" and a.size < b.size:
        a, b = b, a
    require(a.shape == node.outputs[0].shape, "repeats the dividend, or both operands")
    a4, b4 = as_4d(a), as_4d(b)
    repeats = [1 if x == 1 and y != 1 else 0 for x, y in zip(b4.shape, a4.shape)]
    attrs = {"method": method}
    if any(repeats):
        attrs |= {"broadcast_B": 1, "word_B": int("".join(map(str, repeats)), 2)}
    return [run("ELTWISE", [attrs], [a4, b4], a4.shape, a.dtype).reshape(a.shape)]


def add(node, run):
    a, b = node.inputs
    require(b.size == 1, "adds two tensors; the layer adds a constant")
    require_float(a, b)
    attrs = {"method": 1, "has_k": 1, "k": repr(float(b.flat[0]))}
    return [run("ELTWISE", [attrs], [as_4d(a)], as_4d(a).shape, a.dtype).reshape(a.shape)]


def power(node, run):
    x, k = node.inputs
    require(k.size == 1, "has an exponent per element; the layer has one for all")
    require_float(x)
    attrs = {"method": 7, "has_k": 1, "k": repr(float(k.flat[0]))}
    return [run("ELTWISE", [attrs], [as_4d(x)], as_4d(x).shape, x.dtype).reshape(x.shape)]


def reciprocal(node, run):
    x = node.inputs[0]
    attrs = {"method": 7, "has_k": 1, "k": -1}
    return [run("ELTWISE", [attrs], [as_4d(x)], as_4d(x).shape, x.dtype).reshape(x.shape)]


def matmul(node, run):
    a, b = node.inputs
    require_float(a, b)
    require(a.shape[:-2] == b.shape[:-2], "repeats one operand's batch")
    n, m, k, p = math.prod(a.shape[:-2]), a.shape[-2], a.shape[-1], b.shape[-1]
    y = run("MATMUL", [{"trans_b": 0}], [a.reshape(n, m, 1, k), b.reshape(n, k, 1, p)], (n, m, 1, p), a.dtype)
    return [y.reshape(node.outputs[0].shape)]


def reshape(node, run):
    shape = node.outputs[0].shape
    return [run("RESHAPE", [{"pixelshuffler": 1}], [node.inputs[0]], shape, node.inputs[0].dtype)]


def transpose(node, run):
    x = node.inputs[0]
    require_float(x)
    axes = list(node.attrs.get("perm", range(x.ndim)[::-1]))
    text = "[" + ",".join(map(str, axes)) + "]"
    return [run("PERMUTE", [{"axes": text}], [x], [x.shape[axis] for axis in axes], x.dtype)]


def expand(node, run):
    x, y = as_4d(node.inputs[0]), as_4d(node.outputs[0])
    repeats = [1 if a != b else 0 for a, b in zip(x.shape, y.shape)]
    require(not repeats[0], "repeats the batch")
    text = "[" + ",".join(map(str, repeats)) + "]"
    return [run("BROADCAST", [{"size": text}], [x], y.shape, x.dtype).reshape(node.outputs[0].shape)]


def concat(node, run):
    axis = node.axis(0)
    parts = [split(x.shape, axis) for x in node.inputs]
    inputs = [x.reshape(1, *part) for x, part in zip(node.inputs, parts)]
    shape = (1, parts[0][0], sum(part[1] for part in parts), parts[0][2])
    y = run("SWCONCAT", [{"axis": 2}], inputs, shape, inputs[0].dtype)
    return [y.reshape(node.outputs[0].shape)]


def depth_to_space(node, run):
    block, mode = node.attrs["blocksize"], node.attrs.get("mode", b"DCR")
    shape = node.outputs[0].shape
    if mode == b"DCR":
        return [run("DEPTHTOSPACE", [{"block_size": block}], node.inputs, shape, node.inputs[0].dtype)]
    return [run("RESHAPE", [{"pixelshuffler": block}], node.inputs, shape, node.inputs[0].dtype)]


def space_to_depth(node, run):
    attrs = {"block_size": node.attrs["blocksize"]}
    return [run("SPACETODEPTH", [attrs], node.inputs, node.outputs[0].shape, node.inputs[0].dtype)]


def gather(node, run):
    x, indices = node.inputs
    require((indices >= 0).all(), "counts indices from the end; the layer's are unsigned")
    require_float(x)
    outer, length, inner = split(x.shape, node.axis(0))
    shape = (outer, indices.size, inner, 1)
    inputs = [x.reshape(outer, length, inner, 1), indices.reshape(-1).astype(np.uint32)]
    return [run("GATHER", [{"axis": 1}], inputs, shape, x.dtype).reshape(node.outputs[0].shape)]


def pad(node, run):
    x, pads = node.inputs[0], [int(p) for p in node.inputs[1]]
    mode = {b"reflect": 1, b"edge": 2, b"constant": 4}[node.attrs.get("mode", b"constant")]
    value = float(node.inputs[2]) if len(node.inputs) > 2 and mode == 4 else 0.0
    require(value >= 0 and value == int(value), "pads with a number that is no unsigned integer")
    require(x.ndim == 4 and min(pads) >= 0, "does not pad four dimensions")
    shape = [p for before_after in zip(pads[:4], pads[4:]) for p in before_after]
    attrs = {"pad_mode": mode, "pad": int(value), "pad_shape": "[" + ",".join(map(str, shape)) + "]"}
    # The order [0,2,3,1] takes the constant as a float.
    attrs["format"] = "[0,2,3,1]" if x.dtype == np.float32 else "[0,1,2,3]"
    require(x.dtype in (np.float32, np.uint8, np.int16, np.int32), "is of a type that no layer has")
    return [run("PAD", [attrs], [x], node.outputs[0].shape, x.dtype)]


OPERATORS = {
    "Softmax": softmax,
    "ArgMax": argmax,
    "TopK": top_k,
    "Mul": product_or_quotient,
    "Div": product_or_quotient,
    "Add": add,
    "Pow": power,
    "Reciprocal": reciprocal,
    "MatMul": matmul,
    "Reshape": reshape,
    "Transpose": transpose,
    "Expand": expand,
    "Concat": concat,
    "DepthToSpace": depth_to_space,
    "SpaceToDepth": space_to_depth,
    "Gather": gather,
    "Pad": pad,
}
ARITHMETIC = {"Softmax", "Mul", "Div", "Add", "Pow", "Reciprocal", "MatMul"}


def main():
    data, separator, *command = sys.argv[1:]
    assert separator == "--", __doc__
    run = Run(command)
    passed, failed = 0, 0
    for folder in sorted(pathlib.Path(data).glob("test_*")):
        try:
            node = Node(folder)
        except (CannotExpress, FileNotFoundError, TypeError):
            continue  # several nodes, or sequences and optional values: none of the operators above
        if node.op not in OPERATORS:
            continue
        name = folder.name
        try:
            results = OPERATORS[node.op](node, run)
            tolerance = {"rtol": 1e-5, "atol": 1e-7} if node.op in ARITHMETIC else {"rtol": 0, "atol": 0}
            for result, expected in zip(results, node.outputs, strict=True):
                np.testing.assert_allclose(result, expected, **tolerance)
        except CannotExpress as reason:
            print(f"not expressed: {name} {reason}")
        except AssertionError as difference:
            failed += 1
            print(f"FAILED: {name}: {difference}")
        else:
            passed += 1
            print(f"passed: {name}")
    print(f"{passed} passed, {failed} failed")
    return 1 if failed or not passed else 0


if __name__ == "__main__":
    sys.exit(main())
