"""ONNX nodes through the module: the published node tests, and a model."""

import pathlib
import sys

import numpy as np
import pytest

onnx = pytest.importorskip("onnx")
DATA = pathlib.Path("/usr/share/libonnx-testdata/data/node")
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "onnx"))
import node_tests  # noqa: E402

from vekcustom.onnx import ARITHMETIC, OPERATORS, Node, run_model, run_node  # noqa: E402


@pytest.mark.skipif(not DATA.exists(), reason="libonnx-testdata is not installed")
def test_the_published_node_tests():
    expressed = set()
    for folder in sorted(DATA.glob("test_*")):
        try:
            test = node_tests.Published(folder)
        except (node_tests.mapping.CannotExpress, FileNotFoundError, TypeError):
            continue
        if test.node.op not in OPERATORS:
            continue
        report = run_node(Node(test.node.op, test.node.attrs, test.node.inputs), folder.name)
        if report.reason is not None:
            continue
        expressed.add(test.node.op)
        tolerance = 1e-5 if test.node.op in ARITHMETIC else 0
        for output, expected, difference in zip(report.outputs, test.outputs, report.differences, strict=True):
            np.testing.assert_allclose(output, expected, rtol=tolerance, atol=tolerance / 100, err_msg=report.name)
            largest = np.abs(expected.astype(np.float64)).max(initial=0)
            assert difference is not None and difference <= tolerance * max(1, largest), report
    assert expressed == set(OPERATORS) - {"Add"}  # the published ones add two tensors


def test_what_a_layer_cannot_express_is_named():
    x = np.ones((2, 2), np.float32)
    assert run_node(Node("Add", {}, [x, np.float32([2])])).layers == ["ELTWISE method=1 has_k=1 k=2.0"]
    assert run_node(Node("Add", {}, [x, x])).reason == "adds two tensors; the layer adds a constant"
    assert run_node(Node("Mul", {}, [x.astype(np.float64), x])).reason == "is not float32"


def test_a_model():
    helper = onnx.helper
    nodes = [
        helper.make_node("Softmax", ["x"], ["p"], axis=1),
        helper.make_node("Conv", ["p", "w"], ["c"], name="conv"),
        helper.make_node("Transpose", ["p"], ["t"], perm=[0, 2, 3, 1]),
        helper.make_node("Relu", ["c"], ["r"]),
    ]
    model = helper.make_model(helper.make_graph(nodes, "g", [], []))
    x, w = np.arange(8, dtype=np.float32).reshape(1, 2, 2, 2), np.zeros((1, 2, 1, 1), np.float32)
    softmax, conv, transpose, relu = run_model(model, {"x": x, "w": w})
    assert softmax.layers == ["SOFTMAX axis=1"] and softmax.differences[0] < 1e-6
    assert (conv.name, conv.reason) == ("conv", "is no operator that a layer has")
    assert transpose.differences == [0.0] and transpose.outputs[0].shape == (1, 2, 2, 2)
    assert relu.reason == "needs c, which is not known"
