"""The notebook in examples/ says what it shows, and names the wrong layer."""

import json
import os
import pathlib
import subprocess
import sys

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
NOTEBOOK = ROOT / "examples/wrong_layer.ipynb"
RUN = [sys.executable, str(ROOT / "examples/run_notebook.py")]

pytestmark = pytest.mark.skipif(not (os.environ.get("VEKRECORD") and os.environ.get("VEKRUN")),
                                reason="there is no recorder, or no vekrun")


def test_the_outputs_are_those_of_the_cells():
    done = subprocess.run([*RUN, str(NOTEBOOK), "--check"], capture_output=True, text=True, check=False)
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")


def test_it_shows_what_it_is_for():
    cells = json.loads(NOTEBOOK.read_text())["cells"]
    said = {cell["id"]: "".join("".join(out.get("text", [])) for out in cell.get("outputs", [])) for cell in cells}
    assert said["replay"].count("as recorded") == said["replay"].count("\n") == 4
    assert said["name"].startswith("The wrong layer is 0003-SOFTMAX with {'axis': '3'}\n")
    (drawing,) = (out["data"]["image/svg+xml"] for cell in cells for out in cell.get("outputs", [])
                  if "image/svg+xml" in out.get("data", {}))
    assert any('class="padding"' in line for line in drawing)


def test_another_output_is_noticed(tmp_path):
    changed = tmp_path / "changed.ipynb"
    text = NOTEBOOK.read_text()
    assert text.count("0003-SOFTMAX with") == 1
    changed.write_text(text.replace("0003-SOFTMAX with", "0002-RESHAPE with"))
    done = subprocess.run([*RUN, str(changed), "--check"], capture_output=True, text=True, check=False)
    assert done.returncode == 1 and done.stderr.startswith("other outputs than stored: name;")
