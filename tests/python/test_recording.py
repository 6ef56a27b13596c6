"""Recordings of libvekrecord.so, read and replayed."""

import json
import os
import pathlib
import shutil
import subprocess
import sys

import numpy as np
import pytest

import vekcustom

RECORDER = os.environ.get("VEKRECORD")
pytestmark = pytest.mark.skipif(not RECORDER, reason="there is no recorder")

NETWORK = """
import sys, numpy as np, vekcustom
recorder = vekcustom.Plugin(sys.argv[1])
x = np.arange(24, dtype=np.float32).reshape(1, 2, 3, 4)
packed = vekcustom.Tensor.laid_out(np.arange(24, dtype=np.int8).reshape(1, 2, 3, 4), pack=4, line=32, exp=-3)
dense = vekcustom.Tensor.laid_out(np.zeros((1, 2, 3, 4), np.int8), exp=-3)
vekcustom.Layer("SOFTMAX", plugin=recorder, axis=1)(x)
vekcustom.Layer("DATA_STRIDE_CONV", plugin=recorder)(packed, out=dense)
vekcustom.Layer("SWCONCAT", plugin=recorder, axis=1)(x, x, x)
try: vekcustom.Layer("GATHER", plugin=recorder, axis=1)(x, np.array([1, 9], np.uint32))
except vekcustom.Refused as refused: assert refused.lines
pad = vekcustom.Layer("PAD", plugin=recorder, pad_mode=4, pad=0, pad_shape=[0]*8, format=[0,1,2,3])
for _ in range(3): pad(x)
"""


@pytest.fixture(scope="module")
def captures(tmp_path_factory):
    folder = tmp_path_factory.mktemp("recording") / "captures"
    environment = {**os.environ, "VEKRECORD_FOLDER": str(folder), "VEKRECORD_CALLS": "all"}
    subprocess.run([sys.executable, "-c", NETWORK, RECORDER], env=environment, check=True)
    return folder


def test_all_calls_in_order(captures):
    calls = list(vekcustom.recording(captures))
    assert [(call.layer, call.number, call.outcome) for call in calls] == [
        ("SOFTMAX", 1, "done"), ("DATA_STRIDE_CONV", 1, "done"), ("SWCONCAT", 1, "done"), ("GATHER", 1, "failed"),
        ("PAD", 1, "done"), ("PAD", 2, "done"), ("PAD", 3, "done")]
    assert calls[0].attributes == {"axis": "1"}
    assert calls[3].log[-1].file == "vek_gather.cpp"
    assert len(list(vekcustom.recording(calls[4].folder))) == 3


def test_every_call_replays(captures):
    for call in vekcustom.recording(captures):
        replay = call.replay()
        assert replay, (call, replay)
        assert replay.outcome == call.outcome


def test_what_was_recorded(captures):
    calls = list(vekcustom.recording(captures))
    x = np.arange(24, dtype=np.float32).reshape(1, 2, 3, 4)
    assert np.array_equal(calls[0].inputs()[0].numpy(), x)
    assert np.array_equal(calls[0].outputs()[0].numpy(), vekcustom.Layer("SOFTMAX", axis=1)(x))
    packed, = calls[1].inputs()
    assert (packed.pack, packed.line, packed.exp) == (4, 32, -3)
    assert np.array_equal(packed.real(), x / 8)


def changed(captures, tmp_path, change):
    folder = tmp_path / "changed"
    shutil.copytree(captures / "0001-SOFTMAX", folder)
    change(folder)
    call, = vekcustom.recording(folder)
    return call.replay()


def test_differences_are_found(captures, tmp_path):
    def flip(folder):
        data = bytearray((folder / "call-0001-out0.bin").read_bytes())
        data[5] ^= 1
        (folder / "call-0001-out0.bin").write_bytes(data)

    replay = changed(captures, tmp_path, flip)
    assert not replay and replay.differences == ["output 0 differs in 1 of 96 bytes, from byte 5 on"]


def test_other_outcomes_and_logs_are_found(captures, tmp_path):
    def edit(folder):
        call = json.loads((folder / "call-0001.json").read_text())
        call["outcome"], call["log"] = "failed", ["[ERROR] vek_softmax.cpp:1: no"]
        (folder / "call-0001.json").write_text(json.dumps(call))

    assert changed(captures, tmp_path, edit).differences == ["done instead of failed", "it logs other lines"]


def test_hashes_alone_cannot_be_replayed(tmp_path):
    environment = {**os.environ, "VEKRECORD_FOLDER": str(tmp_path / "h"), "VEKRECORD_TENSORS": "hashes"}
    subprocess.run([sys.executable, "-c", NETWORK, RECORDER], env=environment, check=True)
    with pytest.raises(ValueError, match="were not recorded"):
        next(vekcustom.recording(tmp_path / "h")).replay()


def test_no_recording():
    with pytest.raises(FileNotFoundError):
        next(vekcustom.recording(pathlib.Path("nowhere")))
