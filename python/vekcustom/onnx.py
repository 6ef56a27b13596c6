"""ONNX nodes, run by the layers that can express them.

>>> import numpy as np
>>> x = np.float32([[1, 2], [3, 4]])
>>> report = run_node(Node("Transpose", {"perm": [1, 0]}, [x]))
>>> report
<Report Transpose: PERMUTE axes=[1,0]; equal to NumPy>
>>> report.outputs[0].tolist()
[[1.0, 3.0], [2.0, 4.0]]
>>> run_node(Node("Conv", {}, [x])).reason
'is no operator that a layer has'
"""

from __future__ import annotations

import math
from dataclasses import dataclass, field
from typing import Any, Callable, Iterator, Mapping, Optional, Sequence

import numpy as np
import numpy.typing as npt

Array = npt.NDArray[Any]
# Runs a layer: its type, the attributes of each Configure, inputs, the output's shape and type.
Run = Callable[[str, Sequence[Mapping[str, Any]], Sequence[Array], "tuple[int, ...]", "np.dtype[Any]"], Array]


class CannotExpress(ValueError):
    """No layer does what a node wants; the text says what that is."""


@dataclass
class Node:
    """An ONNX node with its inputs: texts among the attributes are bytes, as ONNX has them."""

    op: str
    attrs: Mapping[str, Any]
    inputs: Sequence[Array]

    def axis(self, default: int) -> int:
        """The axis, counted from the outermost dimension."""
        axis = int(self.attrs.get("axis", default))
        return axis + self.inputs[0].ndim if axis < 0 else axis


def express(node: Node, run: Run) -> list[Array]:
    """The node's outputs, by layers that `run` runs. CannotExpress where there are none."""
    _require(node.op in OPERATORS, "is no operator that a layer has")
    return OPERATORS[node.op](node, run)


@dataclass
class Report:
    """What became of a node.

    Attributes:
        name, op: the node's.
        layers: the layers that ran for it, with their attributes, in words.
        outputs: what they gave.
        reason: why no layer can express it; None where one can.
        differences: for each output the largest difference from the reference, None where there is no reference.
    """

    name: str
    op: str
    layers: list[str] = field(default_factory=list)
    outputs: list[Array] = field(default_factory=list)
    reason: Optional[str] = None
    differences: list[Optional[float]] = field(default_factory=list)

    def __repr__(self) -> str:
        if self.reason is not None:
            return f"<Report {self.name}: {self.op} {self.reason}>"
        if None in self.differences:
            told = "no reference"
        else:
            largest = max([d for d in self.differences if d is not None], default=0.0)
            told = "equal to NumPy" if largest == 0 else f"up to {largest:.3g} from NumPy"
        return f"<Report {self.name}: {'; '.join(self.layers)}; {told}>"


def run_node(node: Node, name: str = "") -> Report:
    """Runs a node by layers and compares it with NumPy."""
    from ._compare import compare
    from ._layer import Layer, attribute_text

    report = Report(name or node.op, node.op)

    def run(layer: str, configurations: Sequence[Mapping[str, Any]], inputs: Sequence[Array], shape: tuple[int, ...],
            dtype: np.dtype[Any]) -> Array:
        made, told = Layer(layer), []
        for attributes in configurations:
            made = made.configure(**attributes)
            told.append(" ".join(f"{key}={attribute_text(value)}" for key, value in attributes.items()))
        report.layers.append(f"{layer} {' then '.join(told)}")
        result: Array = made(*inputs, shape=shape, dtype=dtype, guard=True)
        return result

    try:
        report.outputs = express(node, run)
    except (CannotExpress, TypeError, ValueError, RuntimeError) as error:
        report.reason = str(error)
        return report
    expected = reference(node)
    for i, output in enumerate(report.outputs):
        report.differences.append(None if expected is None else compare(output, expected[i]).largest)
    return report


def run_model(model: Any, feeds: Mapping[str, Array]) -> Iterator[Report]:
    """Runs each node of a model whose inputs are known: from `feeds`, the model's constants, and what earlier nodes gave.

    Args:
        model: an `onnx.ModelProto` or a path (needs Debian's python3-onnx).
        feeds: arrays by name; outputs of nodes that no layer expresses may be among them.
    """
    import onnx
    from onnx import numpy_helper

    if not isinstance(model, onnx.ModelProto):
        model = onnx.load(model)
    known: dict[str, Array] = {tensor.name: numpy_helper.to_array(tensor) for tensor in model.graph.initializer}
    known.update(feeds)
    for proto in model.graph.node:
        name = proto.name or f"{proto.op_type} of {', '.join(proto.output)}"
        missing = [text for text in proto.input if text and text not in known]
        if missing:
            yield Report(name, proto.op_type, reason=f"needs {', '.join(missing)}, which is not known")
            continue
        attrs = {a.name: onnx.helper.get_attribute_value(a) for a in proto.attribute}
        report = run_node(Node(proto.op_type, attrs, [known[text] for text in proto.input if text]), name)
        for text, output in zip(proto.output, report.outputs):
            known.setdefault(text, output)
        yield report


def reference(node: Node) -> Optional[list[Array]]:
    """The node's outputs by NumPy, or None where there is no formula for it here."""
    x = node.inputs[0]
    others = list(node.inputs[1:])
    if node.op == "Softmax":
        axis = node.axis(-1)
        e = np.exp(x.astype(np.float64) - x.max(axis=axis, keepdims=True))
        return [e / e.sum(axis=axis, keepdims=True)]
    if node.op == "ArgMax":
        axis = node.axis(0)
        if node.attrs.get("select_last_index", 0):
            best = x.shape[axis] - 1 - np.flip(x, axis).argmax(axis)
        else:
            best = x.argmax(axis)
        return [np.expand_dims(best, axis) if node.attrs.get("keepdims", 1) else best]
    if node.op in ("Mul", "Div", "Add", "Pow", "MatMul"):
        formula: Callable[[Array, Array], Array] = {  # type: ignore[assignment]
            "Mul": np.multiply, "Div": np.divide, "Add": np.add, "Pow": np.power, "MatMul": np.matmul}[node.op]
        return [formula(x, others[0])]
    if node.op == "Reciprocal":
        return [1 / x]
    if node.op == "Transpose":
        return [x.transpose(node.attrs.get("perm", range(x.ndim)[::-1]))]
    if node.op == "Concat":
        return [np.concatenate(node.inputs, axis=node.axis(0))]
    if node.op == "Gather":
        return [x.take(others[0], axis=node.axis(0))]
    if node.op == "Expand":
        return [x * np.ones(tuple(int(extent) for extent in others[0]), x.dtype)]
    if node.op == "Reshape":
        zero = node.attrs.get("allowzero", 0)
        return [x.reshape([int(e) if e or zero else x.shape[i] for i, e in enumerate(others[0])])]
    if node.op in ("DepthToSpace", "SpaceToDepth"):
        b, (n, c, h, w) = node.attrs["blocksize"], x.shape
        if node.op == "SpaceToDepth":
            blocks = x.reshape(n, c, h // b, b, w // b, b).transpose(0, 3, 5, 1, 2, 4)
            return [blocks.reshape(n, c * b * b, h // b, w // b)]
        if node.attrs.get("mode", b"DCR") == b"DCR":
            blocks = x.reshape(n, b, b, c // b**2, h, w).transpose(0, 3, 4, 1, 5, 2)
        else:
            blocks = x.reshape(n, c // b**2, b, b, h, w).transpose(0, 1, 4, 2, 5, 3)
        return [blocks.reshape(n, c // b**2, h * b, w * b)]
    if node.op == "TopK":
        axis = node.axis(-1)
        order = np.argsort(-x, axis=axis, kind="stable").take(range(int(others[0][0])), axis=axis)
        return [np.take_along_axis(x, order, axis=axis), order]
    if node.op == "Pad":
        pads, mode = [int(p) for p in others[0]], node.attrs.get("mode", b"constant").decode()
        value = {"constant_values": others[1]} if mode == "constant" and len(others) > 1 else {}
        return [np.pad(x, list(zip(pads[: x.ndim], pads[x.ndim :])), mode=mode, **value)]
    return None


def _require(condition: Any, reason: str) -> None:
    if not condition:
        raise CannotExpress(reason)


def _split(shape: tuple[int, ...], axis: int) -> tuple[int, int, int]:
    """Elements before the axis, along it, and after it."""
    return math.prod(shape[:axis]), shape[axis], math.prod(shape[axis + 1 :])


def _as_4d(array: Array) -> Array:
    _require(array.ndim <= 4, "has more than four dimensions")
    return array.reshape((1,) * (4 - array.ndim) + array.shape)


def _require_float(*arrays: Array) -> None:
    _require(all(a.dtype == np.float32 for a in arrays), "is not float32")


# --- One function per operator: the layers' results, one per output of the node, in the shapes that ONNX gives them.


def _softmax(node: Node, run: Run) -> list[Array]:
    x = node.inputs[0]
    _require_float(x)
    outer, length, inner = _split(x.shape, node.axis(-1))
    y = run("SOFTMAX", [{"axis": 1}], [x.reshape(outer, length, inner, 1)], (outer, length, inner, 1), x.dtype)
    return [y.reshape(x.shape)]


def _argmax(node: Node, run: Run) -> list[Array]:
    x = node.inputs[0]
    _require_float(x)
    outer, length, inner = _split(x.shape, node.axis(0))
    if not node.attrs.get("select_last_index", 0):
        flat = x.reshape(outer, length, inner)
        ties = (flat == flat.max(axis=1, keepdims=True)).sum(axis=1).max() > 1
        _require(not ties, "wants the first of equal values; the layer gives the last")
    y = run("ARGMAX", [{"axis": 2}], [x.reshape(1, outer, length, inner)], (1, outer, 1, inner), x.dtype)
    axis, kept = node.axis(0), (1,) if node.attrs.get("keepdims", 1) else ()
    shape = x.shape[:axis] + kept + x.shape[axis + 1 :]
    return [y.reshape(shape)]


def _top_k(node: Node, run: Run) -> list[Array]:
    x, k = node.inputs[0], int(node.inputs[1][0])
    _require_float(x)
    _require(node.attrs.get("largest", 1), "wants the smallest")
    axis = node.axis(-1)
    outer, length, inner = _split(x.shape, axis)
    shape = (*x.shape[:axis], k, *x.shape[axis + 1 :])
    x = x.reshape(1, outer, length, inner)
    settings = [{"axis": 2}, {"top_k": k}]
    results = []
    for configurations in (settings + [{"out_max_val": 1}], settings):
        y = run("ARGMAX", configurations, [x], (1, outer, inner, k), x.dtype)
        results.append(y.reshape(outer, inner, k).swapaxes(1, 2).reshape(shape))
    return results


def _product_or_quotient(node: Node, run: Run) -> list[Array]:
    a, b = node.inputs
    _require_float(a, b)
    method = {"Mul": 0, "Div": 6}[node.op]
    if node.op == "Mul" and a.size < b.size:
        a, b = b, a
    _require(a.shape == np.broadcast_shapes(a.shape, b.shape), "repeats the dividend, or both operands")
    a4, b4 = _as_4d(a), _as_4d(b)
    repeats = [1 if x == 1 and y != 1 else 0 for x, y in zip(b4.shape, a4.shape)]
    attrs = {"method": method}
    if any(repeats):
        attrs |= {"broadcast_B": 1, "word_B": int("".join(map(str, repeats)), 2)}
    return [run("ELTWISE", [attrs], [a4, b4], a4.shape, a.dtype).reshape(a.shape)]


def _add(node: Node, run: Run) -> list[Array]:
    a, b = node.inputs
    _require(b.size == 1, "adds two tensors; the layer adds a constant")
    _require_float(a, b)
    attrs = {"method": 1, "has_k": 1, "k": repr(float(b.flat[0]))}
    return [run("ELTWISE", [attrs], [_as_4d(a)], _as_4d(a).shape, a.dtype).reshape(a.shape)]


def _power(node: Node, run: Run) -> list[Array]:
    x, k = node.inputs
    _require(k.size == 1, "has an exponent per element; the layer has one for all")
    _require_float(x)
    attrs = {"method": 7, "has_k": 1, "k": repr(float(k.flat[0]))}
    return [run("ELTWISE", [attrs], [_as_4d(x)], _as_4d(x).shape, x.dtype).reshape(x.shape)]


def _reciprocal(node: Node, run: Run) -> list[Array]:
    x = node.inputs[0]
    attrs = {"method": 7, "has_k": 1, "k": -1}
    return [run("ELTWISE", [attrs], [_as_4d(x)], _as_4d(x).shape, x.dtype).reshape(x.shape)]


def _matmul(node: Node, run: Run) -> list[Array]:
    a, b = node.inputs
    _require_float(a, b)
    _require(a.shape[:-2] == b.shape[:-2], "repeats one operand's batch")
    n, m, k, p = math.prod(a.shape[:-2]), a.shape[-2], a.shape[-1], b.shape[-1]
    y = run("MATMUL", [{"trans_b": 0}], [a.reshape(n, m, 1, k), b.reshape(n, k, 1, p)], (n, m, 1, p), a.dtype)
    return [y.reshape(*a.shape[:-1], p)]


def _reshape(node: Node, run: Run) -> list[Array]:
    x, wanted = node.inputs
    shape = [int(extent) for extent in wanted]
    if not node.attrs.get("allowzero", 0):
        shape = [extent or x.shape[i] for i, extent in enumerate(shape)]
    return [run("RESHAPE", [{"pixelshuffler": 1}], [x], x.reshape(shape).shape, x.dtype)]


def _transpose(node: Node, run: Run) -> list[Array]:
    x = node.inputs[0]
    _require_float(x)
    axes = list(node.attrs.get("perm", range(x.ndim)[::-1]))
    return [run("PERMUTE", [{"axes": axes}], [x], tuple(x.shape[axis] for axis in axes), x.dtype)]


def _expand(node: Node, run: Run) -> list[Array]:
    shape = np.broadcast_shapes(node.inputs[0].shape, tuple(int(extent) for extent in node.inputs[1]))
    _require(len(shape) <= 4, "has more than four dimensions")
    x, full = _as_4d(node.inputs[0]), (1,) * (4 - len(shape)) + shape
    repeats = [1 if a != b else 0 for a, b in zip(x.shape, full)]
    _require(not repeats[0], "repeats the batch")
    return [run("BROADCAST", [{"size": repeats}], [x], full, x.dtype).reshape(shape)]


def _concat(node: Node, run: Run) -> list[Array]:
    axis = node.axis(0)
    parts = [_split(x.shape, axis) for x in node.inputs]
    inputs = [x.reshape(1, *part) for x, part in zip(node.inputs, parts)]
    shape = (1, parts[0][0], sum(part[1] for part in parts), parts[0][2])
    y = run("SWCONCAT", [{"axis": 2}], inputs, shape, inputs[0].dtype)
    first = node.inputs[0].shape
    return [y.reshape(*first[:axis], shape[2], *first[axis + 1 :])]


def _depth_to_space(node: Node, run: Run) -> list[Array]:
    block, mode = node.attrs["blocksize"], node.attrs.get("mode", b"DCR")
    n, c, h, w = node.inputs[0].shape
    shape = (n, c // block**2, h * block, w * block)
    layer, key = ("DEPTHTOSPACE", "block_size") if mode == b"DCR" else ("RESHAPE", "pixelshuffler")
    return [run(layer, [{key: block}], node.inputs, shape, node.inputs[0].dtype)]


def _space_to_depth(node: Node, run: Run) -> list[Array]:
    block = node.attrs["blocksize"]
    n, c, h, w = node.inputs[0].shape
    shape = (n, c * block**2, h // block, w // block)
    return [run("SPACETODEPTH", [{"block_size": block}], node.inputs, shape, node.inputs[0].dtype)]


def _gather(node: Node, run: Run) -> list[Array]:
    x, indices = node.inputs
    _require((indices >= 0).all(), "counts indices from the end; the layer's are unsigned")
    _require_float(x)
    axis = node.axis(0)
    outer, length, inner = _split(x.shape, axis)
    shape = (outer, indices.size, inner, 1)
    inputs = [x.reshape(outer, length, inner, 1), indices.reshape(-1).astype(np.uint32)]
    return [run("GATHER", [{"axis": 1}], inputs, shape, x.dtype).reshape(
        *x.shape[:axis], *indices.shape, *x.shape[axis + 1 :])]


def _pad(node: Node, run: Run) -> list[Array]:
    x, pads = node.inputs[0], [int(p) for p in node.inputs[1]]
    mode = {b"reflect": 1, b"edge": 2, b"constant": 4}[node.attrs.get("mode", b"constant")]
    value = float(node.inputs[2]) if len(node.inputs) > 2 and mode == 4 else 0.0
    _require(value >= 0 and value == int(value), "pads with a number that is no unsigned integer")
    _require(x.ndim == 4 and min(pads) >= 0, "does not pad four dimensions")
    shape = [p for before_after in zip(pads[:4], pads[4:]) for p in before_after]
    attrs = {"pad_mode": mode, "pad": int(value), "pad_shape": shape}
    # The order [0,2,3,1] takes the constant as a float.
    attrs["format"] = [0, 2, 3, 1] if x.dtype == np.float32 else [0, 1, 2, 3]
    _require(x.dtype in (np.float32, np.uint8, np.int16, np.int32), "is of a type that no layer has")
    padded = tuple(extent + sum(p) for extent, p in zip(x.shape, zip(pads[:4], pads[4:])))
    return [run("PAD", [attrs], [x], padded, x.dtype)]


OPERATORS: dict[str, Callable[[Node, Run], list[Array]]] = {
    "Softmax": _softmax,
    "ArgMax": _argmax,
    "TopK": _top_k,
    "Mul": _product_or_quotient,
    "Div": _product_or_quotient,
    "Add": _add,
    "Pow": _power,
    "Reciprocal": _reciprocal,
    "MatMul": _matmul,
    "Reshape": _reshape,
    "Transpose": _transpose,
    "Expand": _expand,
    "Concat": _concat,
    "DepthToSpace": _depth_to_space,
    "SpaceToDepth": _space_to_depth,
    "Gather": _gather,
    "Pad": _pad,
}

# Those that compute, and are not exact.
ARITHMETIC = {"Softmax", "Mul", "Div", "Add", "Pow", "Reciprocal", "MatMul"}
