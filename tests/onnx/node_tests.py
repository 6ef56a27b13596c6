#!/usr/bin/env python3
"""Runs the ONNX project's published node tests through the plug-in.

usage: node_tests.py DATA -- VEKRUN...

DATA is the folder of the node tests (Debian: libonnx-testdata); VEKRUN... the command that runs vekrun, an emulator
included. Each test of an operator below is turned into one run of one layer and compared with the published output;
tests that no layer can express are listed with the reason. Ends with "N passed, N failed".
"""

import importlib.util
import pathlib
import subprocess
import sys
import tempfile

import numpy as np
import onnx
from onnx import numpy_helper

# vekcustom.onnx by its file: the rest of the module loads libraries of this machine's architecture.
_path = pathlib.Path(__file__).resolve().parents[2] / "python/vekcustom/onnx.py"
_spec = importlib.util.spec_from_file_location("vekcustom_onnx", _path)
mapping = importlib.util.module_from_spec(_spec)
sys.modules[_spec.name] = mapping
_spec.loader.exec_module(mapping)


class Published:
    """One node test: the node with its inputs, and the outputs."""

    def __init__(self, folder):
        model = onnx.load(folder / "model.onnx")
        mapping._require(len(model.graph.node) == 1, "is a graph of several nodes")
        node = model.graph.node[0]
        self.node, self.outputs = mapping.Node(node.op_type, {}, []), []
        if node.op_type not in mapping.OPERATORS:
            return
        self.node.attrs = {a.name: onnx.helper.get_attribute_value(a) for a in node.attribute}
        data = folder / "test_data_set_0"
        self.node.inputs = [self._read(data / f"input_{i}.pb") for i in range(len(model.graph.input))]
        self.outputs = [self._read(data / f"output_{i}.pb") for i in range(len(model.graph.output))]

    @staticmethod
    def _read(path):
        tensor = onnx.TensorProto()
        tensor.ParseFromString(path.read_bytes())
        return numpy_helper.to_array(tensor)


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
                    arguments += ["--attr", f"{key}={str(value).replace(' ', '')}"]
            for i, array in enumerate(inputs):
                np.save(f"{folder}/in{i}.npy", np.ascontiguousarray(array))
                arguments += ["--in", f"{folder}/in{i}.npy"]
            dims = "x".join(map(str, shape))
            arguments += ["--out", f"{folder}/out.npy,shape={dims},type={np.dtype(dtype).name}"]
            done = subprocess.run(arguments, capture_output=True, text=True)
            assert done.returncode == 0, done.stdout + done.stderr
            return np.load(f"{folder}/out.npy")


def main():
    data, separator, *command = sys.argv[1:]
    assert separator == "--", __doc__
    run = Run(command)
    passed, failed = 0, 0
    for folder in sorted(pathlib.Path(data).glob("test_*")):
        try:
            test = Published(folder)
        except (mapping.CannotExpress, FileNotFoundError, TypeError):
            continue  # several nodes, or sequences and optional values: none of the operators above
        if test.node.op not in mapping.OPERATORS:
            continue
        name = folder.name
        try:
            results = mapping.express(test.node, run)
            tolerance = {"rtol": 1e-5, "atol": 1e-7} if test.node.op in mapping.ARITHMETIC else {"rtol": 0, "atol": 0}
            for result, expected in zip(results, test.outputs, strict=True):
                assert result.shape == expected.shape
                np.testing.assert_allclose(result, expected, **tolerance)
        except mapping.CannotExpress as reason:
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
