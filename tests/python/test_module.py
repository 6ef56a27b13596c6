"""What the module does around the layers: texts, layouts, errors, threads, memory, time."""

import copy
import logging
import os
import pickle
import resource
import subprocess
import sys
import threading
import time

import numpy as np
import pytest
from hypothesis import given
from hypothesis import strategies as st

import vekcustom
from vekcustom import Layer, LogLine, Tensor, compare

X = np.arange(24, dtype=np.float32).reshape(1, 2, 3, 4)


# --- Views.


@given(st.tuples(*[st.integers(1, 4)] * 4), st.tuples(*[st.integers(0, 3)] * 3))
def test_a_padded_view_is_described_and_not_copied(shape, more):
    n, c, h, w = shape
    rows, columns, extra_channels = more
    whole = np.arange(n * c * (h + rows) * (w + columns), dtype=np.float32).reshape(n, c, h + rows, w + columns)
    view = whole[:, :, :h, :w]
    strides = vekcustom._tensor.strides_of(view)
    assert strides is not None
    line, plane = strides
    if h > 1:
        assert line in (0, (w + columns) * 4)
    y = Layer("DATA_STRIDE_CONV")(view)
    assert np.array_equal(y, view)
    out = np.zeros_like(whole)[:, :, :h, :w]
    assert Layer("DATA_STRIDE_CONV")(view, out=out) is out
    assert np.array_equal(out, view)


def test_a_layer_sees_the_padding_of_a_view():
    with pytest.raises(vekcustom.Refused) as refused:
        Layer("SOFTMAX", axis=1)(np.zeros((1, 2, 3, 5), np.float32)[..., :4])
    assert "SOFTMAX refused to configure" in str(refused.value)


@pytest.mark.parametrize("view", [
    X.transpose(0, 3, 1, 2), X[:, :, ::-1], X[..., ::2], np.broadcast_to(X[:, :1], X.shape),
    np.lib.stride_tricks.as_strided(X, (1, 2, 2, 4)), np.frombuffer(b"\0" + X.tobytes(), "<f4", offset=1).reshape(X.shape),
    X[:, :, :, 1:], X.byteswap().newbyteorder().astype("f4", copy=False), X[0, 0, 0, 0], X[:, :0],
])
def test_any_other_view_is_copied_or_described_right(view):
    if view.dtype.byteorder == ">":
        with pytest.raises(TypeError):
            Layer("RESHAPE", pixelshuffler=1)(view)
        return
    assert np.array_equal(Layer("RESHAPE", pixelshuffler=1)(np.array(view, order="C")), view)
    if view.ndim == 4 and view.size:
        assert np.array_equal(Layer("PERMUTE", axes=[0, 1, 2, 3])(view), view)


def test_an_output_that_cannot_be_described_is_filled_all_the_same():
    out = np.zeros((1, 4, 3, 2), np.float32).transpose(0, 3, 2, 1)
    assert Layer("SOFTMAX", axis=1)(X, out=out) is out
    assert np.array_equal(out, Layer("SOFTMAX", axis=1)(X))
    part = np.full((1, 2, 3, 8), -1, np.float32)
    Layer("SOFTMAX", axis=1)(X, out=part[..., ::2])
    assert (part[..., 1::2] == -1).all() and np.array_equal(part[..., ::2], out)


def test_outputs_that_do_not_fit():
    softmax = Layer("SOFTMAX", axis=1)
    frozen = np.zeros_like(X)
    softmax(X, out=frozen)
    frozen.flags.writeable = False
    for _ in range(2):
        with pytest.raises(ValueError, match="read-only"):
            softmax(X, out=frozen)
    with pytest.raises(TypeError, match="float64"):
        softmax(X, out=np.zeros(X.shape))
    with pytest.raises(TypeError, match="not list"):
        softmax(X, out=[])
    with pytest.raises(vekcustom.Refused):
        softmax(X, out=np.zeros((1, 2, 3, 3), np.float32))


# --- Tensors.


def test_a_tensor_shares_its_memory():
    raw = np.zeros(2 * 32, np.uint8)
    t = Tensor(raw, shape=(1, 3, 2, 2), dtype="int8", pack=4, line=16, exp=-2)
    raw[16 + 4 + 2] = 256 - 6  # row 1, pixel 1, channel 2
    assert t.numpy()[0, 2, 1, 1] == -6 and t.real()[0, 2, 1, 1] == -1.5
    assert (t.line, t.plane, t.nbytes) == (16, 32, 32)
    assert t.numpy().sum() == -6


def test_asymmetric_elements():
    t = Tensor(bytes([0, 128, 255]), shape=(3,), dtype="uint8", zero=128, scale=0.5)
    assert t.real().tolist() == [-64.0, 0.0, 63.5]


def test_a_layer_keeps_the_fixed_point_of_tensors():
    t = Tensor(np.arange(4, dtype=np.int16), shape=(1, 4, 1, 1), dtype="int16", exp=-3)
    y = Layer("PERMUTE", axes=[0, 2, 3, 1])(t)
    assert isinstance(y, Tensor) and y.exp == -3 and y.shape == (1, 1, 1, 4)
    assert y.real().ravel().tolist() == [0, 0.125, 0.25, 0.375]


@pytest.mark.parametrize("arguments, error, text", [
    ((bytes(7), (2, 4), "uint8"), ValueError, "has 7 bytes, and the tensor takes 8"),
    ((bytes(8), (2,), "float64"), TypeError, "the tensor has float64 elements; float32, int8"),
    ((bytes(8), (2, 2**31), "uint8"), ValueError, "below 4 GiB"),
    ((bytes(8), (-1,), "uint8"), ValueError, "no layer takes the shape"),
    ((np.zeros(9, np.uint8)[1:], (2,), "float32"), ValueError, "multiple of 4"),
])
def test_tensors_that_there_are_not(arguments, error, text):
    with pytest.raises(error, match=text):
        Tensor(*arguments)


def test_strides_that_are_too_small():
    with pytest.raises(ValueError, match="line stride of 3 bytes is less than the 4"):
        Tensor(bytes(64), (1, 1, 2, 4), "uint8", line=3)
    with pytest.raises(ValueError, match="plane stride of 7 bytes is less than the 8"):
        Tensor(bytes(64), (1, 1, 2, 4), "uint8", plane=7)


def test_a_tensor_draws_itself():
    t = Tensor(bytes(64), shape=(1, 6, 2, 2), dtype="uint8", pack=4, line=16)
    if os.environ.get("VEKRUN"):
        (kind, drawing), = t._repr_mimebundle_().items()  # a notebook prefers a text to a drawing
        assert kind == "image/svg+xml" and drawing.startswith("<svg")


def test_a_tensor_that_nothing_draws_is_told(monkeypatch):
    monkeypatch.setenv("VEKRUN", "/nowhere/vekrun")
    t = Tensor(bytes(64), shape=(1, 6, 2, 2), dtype="uint8", pack=4, line=16)
    assert t._repr_mimebundle_() == {
        "text/html": "<pre>1x6x2x2 uint8, pack=4, line=16: 2 planes of 32 bytes, 2 rows each, 64 bytes</pre>"}


# --- Errors.


def test_a_refusal_tells_all():
    with pytest.raises(vekcustom.Refused) as caught:
        Layer("SOFTMAX", axis=7)(X)
    refused = caught.value
    assert isinstance(refused, ValueError)
    assert (refused.layer, refused.stage) == ("SOFTMAX", "configure")
    line = refused.lines[-1]
    assert isinstance(line, LogLine) and line.level == "ERROR" and line.file == "vek_softmax.cpp" and line.line > 0
    assert line.text in str(refused)
    assert pickle.loads(pickle.dumps(refused)).lines == refused.lines


def test_a_refused_execute_tells_its_stage():
    with pytest.raises(vekcustom.Refused) as refused:
        Layer("GATHER", axis=1)(X, np.array([5], np.uint32))
    assert refused.value.stage == "execute" and refused.value.lines[-1].file == "vek_gather.cpp"


def test_nothing_reaches_standard_output():
    program = ("import numpy as np, vekcustom\n"
               "try: vekcustom.Layer('SOFTMAX', axis=7)(np.zeros((1, 1, 1, 1), np.float32))\n"
               "except vekcustom.Refused as refused: assert refused.lines\n")
    done = subprocess.run([sys.executable, "-c", program], capture_output=True, text=True, check=True)
    assert (done.stdout, done.stderr) == ("", "")


def test_lines_of_calls_that_succeed_go_to_logging(caplog):
    with caplog.at_level(logging.INFO, "vekcustom"):
        Layer("SOFTMAX")(X)
    assert any("using default (1)" in record.getMessage() and record.levelname == "INFO" for record in caplog.records)


def test_wrong_elements():
    with pytest.raises(TypeError, match=r"input 0 of SOFTMAX has float64 elements; float32 fits: x.astype\(numpy.float32\)"):
        Layer("SOFTMAX", axis=1)(X.astype(np.float64))
    with pytest.raises(TypeError, match="int16 and uint16 fit"):
        Layer("SWCONCAT", axis=1)(X.astype(np.int32))
    with pytest.raises(TypeError, match="input 1 of GATHER has int64 elements; uint32 and int32 fit"):
        Layer("GATHER", axis=1)(X, np.array([0]))
    with pytest.raises(TypeError, match="bool"):
        Layer("RESHAPE", pixelshuffler=1)(X > 1)


def test_types_that_there_are_not():
    with pytest.raises(ValueError, match="no layer type SOFTMAXX; did you mean SOFTMAX?"):
        Layer("SOFTMAXX")
    with pytest.raises(TypeError, match="not NoneType"):
        Layer("SOFTMAX", axis=None)
    with pytest.raises(TypeError, match="at least one input"):
        Layer("SOFTMAX", axis=1)()
    with pytest.raises(OSError, match="cannot load the plug-in"):
        vekcustom.Plugin("/nowhere/libvekcustom.so")


def test_an_exception_of_a_layer():
    with pytest.raises(RuntimeError, match="BROADCAST threw an exception in configure: stoi"):
        Layer("BROADCAST", size="[0,x,0,0]")(X)


def test_a_guarded_call_that_would_read_beyond_its_input():
    a, short = np.zeros((1, 64, 1, 64), np.float32), np.zeros((1, 64, 1, 16), np.float32)
    out = np.full((1, 64, 1, 64), 7, np.float32)
    with pytest.raises(vekcustom.Crashed, match=r"MATMUL read beyond input 1 \(4096 bytes\): byte \d+ behind its end"):
        Layer("MATMUL", trans_b=0)(a, short.reshape(1, 16, 1, 64), out=out, guard=True)
    assert (out == 7).all()


def test_a_guarded_call_that_goes_well_gives_the_same():
    softmax = Layer("SOFTMAX", axis=1)
    assert np.array_equal(softmax(X, guard=True), softmax(X))
    with pytest.raises(vekcustom.Refused) as refused:
        Layer("GATHER", axis=1)(X, np.array([5], np.uint32), guard=True)
    assert refused.value.stage == "execute" and refused.value.lines


# --- The object.


def test_configure_makes_a_further_layer():
    one = Layer("ARGMAX", axis=1)
    two = one.configure(top_k=2)
    x = np.array([3, 1, 4, 2], np.float32).reshape(1, 4, 1, 1)
    assert two(x).ravel().tolist() == [2, 0]
    assert one(x).ravel().tolist() == [2]
    assert repr(two) == "Layer('ARGMAX', axis='1').configure(top_k='2')"
    assert copy.copy(two)(x).ravel().tolist() == pickle.loads(pickle.dumps(two))(x).ravel().tolist() == [2, 0]


def test_a_layer_follows_its_shapes():
    concat = Layer("SWCONCAT", axis=1)
    for parts in (2, 1, 3, 3):
        assert np.array_equal(concat(*[X] * parts), np.concatenate([X] * parts, axis=1))
    assert np.array_equal(concat(X[:, :1].copy()), X[:, :1])


def test_an_output_is_new_each_time_and_begins_as_zeros():
    pad = Layer("PAD", pad_mode=9, pad=0, pad_shape=[0] * 7 + [1], format=[0, 1, 2, 3])  # leaves the border as it is
    first, second = pad(X), pad(X)
    assert first is not second and (first[..., -1] == 0).all()


def test_lists_are_inputs():
    assert Layer("RESHAPE", pixelshuffler=1)(np.float32([[1, 2], [3, 4]]).tolist() and np.float32([1, 2])).tolist() == [1, 2]
    with pytest.raises(TypeError, match="float64"):
        Layer("RESHAPE", pixelshuffler=1)([1.0, 2.0])


def test_comparisons():
    assert compare(X, X) and compare([np.nan, np.inf], [np.nan, np.inf])
    found = compare(X, X + np.float32(0.5) * (X == 7))
    assert not found and (found.differing, found.largest, found.at) == (1, 0.5, (0, 0, 1, 3))
    assert compare([100.0], [101.0], rtol=0.01) and not compare([100.0], [101.0], rtol=0.009)
    assert compare([np.nan], [1.0], atol=9).largest == np.inf and not compare([np.inf], [np.nan])
    assert not compare([np.inf], [1.0], rtol=1) and not compare([1.0], [np.inf], rtol=1)
    with pytest.raises(ValueError, match="shapes differ"):
        compare([1.0], [1.0, 1.0])


# --- Threads, memory, time.


def test_layers_in_threads():
    expected = Layer("SOFTMAX", axis=1)(X)
    shared, wrong = Layer("SOFTMAX", axis=1), []

    def work():
        own = Layer("SOFTMAX", axis=1)
        for _ in range(200):
            if not (np.array_equal(own(X), expected) and np.array_equal(shared(X), expected)):
                wrong.append(1)
            try:
                Layer("SOFTMAX", axis=7)(X)
            except vekcustom.Refused as refused:
                wrong.extend(line for line in refused.lines if line.file != "vek_softmax.cpp")

    threads = [threading.Thread(target=work) for _ in range(4)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert not wrong


def test_guarded_calls_beside_threads():
    concat, softmax, running = Layer("SWCONCAT", axis=1), Layer("SOFTMAX", axis=1), [True]

    def work():
        while running:
            softmax(X)

    thread = threading.Thread(target=work)
    thread.start()
    try:
        assert all(np.array_equal(concat(X, X, guard=True), np.concatenate((X, X), axis=1)) for _ in range(10))
    finally:
        running.clear()
        thread.join()


def test_python_runs_while_a_layer_computes():
    x = np.ones((1, 1200, 1, 1200), np.float32)
    matmul, counted = Layer("MATMUL", trans_b=1), [0]
    worker = threading.Thread(target=matmul, args=(x,))
    worker.start()
    while worker.is_alive():
        counted[0] += 1
    assert counted[0] > 1000


def peak_kilobytes():
    return resource.getrusage(resource.RUSAGE_SELF).ru_maxrss


def test_nothing_leaks():
    calls = int(os.environ.get("VEK_PYTHON_CALLS", "20000"))
    softmax, small, other = Layer("SOFTMAX", axis=1), X, np.zeros((1, 2, 1, 1), np.float32)

    def call(times):
        for i in range(times):
            softmax(small)
            if i % 16 == 0:
                softmax(other)  # configures anew
                try:
                    Layer("SOFTMAX", axis=7)(small)
                except vekcustom.Refused:
                    pass

    call(2000)
    before = peak_kilobytes()
    call(calls)
    assert peak_kilobytes() - before < 1024


def test_a_small_call_is_cheap():
    softmax, out = Layer("SOFTMAX", axis=1), np.zeros_like(X)
    best = {}
    for name, call in (("new", lambda: softmax(X)), ("out", lambda: softmax(X, out=out))):
        call()
        best[name] = 1e9
        for _ in range(30):  # the best of many: other programs run here, too
            start = time.perf_counter()
            for _ in range(200):
                call()
            best[name] = min(best[name], (time.perf_counter() - start) / 200)
    print({name: f"{seconds * 1e6:.2f} us" for name, seconds in best.items()})
    assert max(best.values()) < 10e-6
