"""Every layer against NumPy, on random shapes, types and attributes."""

import numpy as np
import pytest
from hypothesis import given
from hypothesis import strategies as st

import vekcustom
from vekcustom import Layer

WORDS = ["float32", "int8", "uint8", "int16", "uint16", "int32", "uint32"]
COVERED = set()


def extents(least=1, most=5):
    return st.tuples(*[st.integers(least, most)] * 4)


def values(shape, dtype, seed):
    """Distinct bit patterns where the type has enough of them; floats of both signs."""
    rng = np.random.default_rng(seed)
    if dtype == "float32":
        return rng.permutation(np.arange(np.prod(shape), dtype=np.float32) - np.prod(shape) // 2).reshape(shape) / 4
    return rng.integers(np.iinfo(dtype).min, np.iinfo(dtype).max, shape, dtype, endpoint=True)


def run(layer, *inputs, **keywords):
    COVERED.add(layer.type)
    return layer(*inputs, **keywords)


def same(actual, expected):
    assert actual.dtype == expected.dtype
    assert actual.shape == expected.shape
    np.testing.assert_array_equal(actual, expected)


seeds = st.integers(0, 2**32 - 1)
word_types = st.sampled_from(WORDS)


@given(extents(), st.integers(0, 3), seeds)
def test_softmax(shape, axis, seed):
    x = values(shape, "float32", seed)
    e = np.exp((x - x.max(axis=axis, keepdims=True)).astype(np.float64))
    y = run(Layer("SOFTMAX", axis=axis), x)
    assert y.dtype == np.float32 and y.shape == shape
    np.testing.assert_allclose(y, e / e.sum(axis=axis, keepdims=True), rtol=3e-6, atol=1e-30)


@given(extents(), word_types, seeds, st.integers(0, 3), st.integers(0, 9))
def test_data_stride_conv_pads_rows_and_planes(shape, dtype, seed, columns, bytes_of_plane):
    x = values(shape, dtype, seed)
    item = x.itemsize
    row, line = shape[3] * item, (shape[3] + columns) * item
    target = vekcustom.Tensor.laid_out(np.zeros_like(x), line=line, plane=shape[2] * line + bytes_of_plane * item)
    y = run(Layer("DATA_STRIDE_CONV"), x, out=target)
    assert y is target and target.line == line >= row
    same(y.numpy(), x)


@given(extents(most=9), st.sampled_from(["float32", "int8", "uint16"]), seeds, st.sampled_from([1, 2, 4, 16]))
def test_data_stride_conv_packs(shape, dtype, seed, pack):
    x = values(shape, dtype, seed)
    target = vekcustom.Tensor.laid_out(np.zeros_like(x), pack=pack)
    run(Layer("DATA_STRIDE_CONV"), x, out=target)
    same(target.numpy(), x)
    padded = np.zeros((shape[0], -(-shape[1] // pack) * pack, *shape[2:]), x.dtype)
    padded[:, : shape[1]] = x
    by_hand = padded.reshape(shape[0], -1, pack, *shape[2:]).transpose(0, 1, 3, 4, 2)
    same(target.memory.view(x.dtype), by_hand.ravel())


@given(extents(), word_types, seeds)
def test_reshape(shape, dtype, seed):
    x = values(shape, dtype, seed)
    n, c, h, w = shape
    same(run(Layer("RESHAPE", pixelshuffler=1), x, shape=(w, n, c * h)), x.reshape(w, n, c * h))


@given(extents(), word_types, seeds, st.integers(2, 3))
def test_reshape_shuffles(shape, dtype, seed, r):
    n, c, h, w = shape
    x = values((n, c * r * r, h, w), dtype, seed)
    expected = x.reshape(n, c, r, r, h, w).transpose(0, 1, 4, 2, 5, 3).reshape(n, c, h * r, w * r)
    same(run(Layer("RESHAPE", pixelshuffler=r), x), expected)


@given(extents(), word_types, seeds, st.tuples(*[st.booleans()] * 3))
def test_broadcast(shape, dtype, seed, repeated):
    full = (1, *shape[1:])
    x = values([1 if again else extent for again, extent in zip((False, *repeated), full)], dtype, seed)
    if not any(repeated):
        return  # nothing is written then
    size = [extent if again else 0 for again, extent in zip((False, *repeated), full)]
    if repeated[0] and (repeated[1] != repeated[2]):
        return  # the first plane counts as dense H x W elements: see docs/operators.md
    same(run(Layer("BROADCAST", size=size), x), np.broadcast_to(x, full).copy())


@given(extents(), st.integers(1, 3), seeds)
def test_argmax(shape, axis, seed):
    x = values((1, *shape[1:]), "float32", seed)
    same(run(Layer("ARGMAX", axis=axis), x), x.argmax(axis=axis, keepdims=True).astype(np.float32))


@given(extents(), st.integers(1, 3), seeds, st.data())
def test_argmax_top_k_values(shape, axis, seed, data):
    x = values((1, *shape[1:]), "float32", seed)
    k = data.draw(st.integers(2, max(2, shape[axis])))
    if k > shape[axis]:
        return
    y = run(Layer("ARGMAX").configure(axis=axis).configure(top_k=k).configure(out_max_val=True), x)
    best = np.moveaxis(-np.sort(-x, axis=axis).take(range(k), axis=axis), axis, -1)
    same(y, np.ascontiguousarray(best))


@given(extents(), st.booleans(), seeds)
def test_normalize(shape, across, seed):
    x = values(shape, "float32", seed) + 1
    axes = (1, 2, 3) if across else (2, 3)
    norm = np.sqrt((x.astype(np.float64) ** 2).sum(axis=axes, keepdims=True))
    expected = x / np.where(norm == 0, 1, norm)
    np.testing.assert_allclose(run(Layer("NORMALIZE", across_spatial=across), x), expected, rtol=1e-5, atol=1e-7)


@given(extents(), st.integers(1, 5), seeds)
def test_matmul(shape, columns, seed):
    n, m, _, k = shape
    a, b = values((n, m, 1, k), "float32", seed), values((n, k, 1, columns), "float32", seed + 1)
    y = run(Layer("MATMUL", trans_b=False), a, b)
    np.testing.assert_allclose(y[:, :, 0], a[:, :, 0] @ b[:, :, 0], rtol=1e-5, atol=1e-5)


@given(extents(), seeds)
def test_matmul_with_its_transpose(shape, seed):
    a = values((1, *shape[1:]), "float32", seed)
    rows = a.reshape(shape[1], -1)
    y = run(Layer("MATMUL", trans_b=True), a)
    np.testing.assert_allclose(y.reshape(shape[1], -1), rows @ rows.T, rtol=1e-5, atol=1e-5)


@given(extents(), word_types, seeds, st.permutations(range(4)))
def test_permute(shape, dtype, seed, axes):
    x = values(shape, dtype, seed)
    same(run(Layer("PERMUTE", axes=axes), x), np.ascontiguousarray(x.transpose(axes)))


@given(st.lists(st.integers(1, 4), min_size=1, max_size=6), seeds, st.data())
def test_permute_any_rank(shape, seed, data):
    x = values(tuple(shape), "float32", seed)
    axes = data.draw(st.permutations(range(len(shape))))
    same(run(Layer("PERMUTE", axes=axes), x), np.ascontiguousarray(x.transpose(axes)))


@given(extents(), st.sampled_from(WORDS[:5]), seeds, st.integers(1, 3), st.lists(st.integers(1, 4), min_size=1, max_size=4))
def test_swconcat(shape, dtype, seed, axis, lengths):
    parts = [values((*shape[:axis], length, *shape[axis + 1:]), dtype, seed + i) for i, length in enumerate(lengths)]
    same(run(Layer("SWCONCAT", axis=axis), *parts), np.concatenate(parts, axis=axis))


@given(extents(), word_types, seeds, st.integers(1, 3))
def test_depthtospace(shape, dtype, seed, b):
    n, c, h, w = shape
    x = values((n, c * b * b, h, w), dtype, seed)
    expected = x.reshape(n, b, b, c, h, w).transpose(0, 3, 4, 1, 5, 2).reshape(n, c, h * b, w * b)
    same(run(Layer("DEPTHTOSPACE", block_size=b), x), expected)


@given(extents(), word_types, seeds, st.integers(1, 3))
def test_spacetodepth(shape, dtype, seed, b):
    n, c, h, w = shape
    x = values((n, c, h * b, w * b), dtype, seed)
    expected = x.reshape(n, c, h, b, w, b).transpose(0, 3, 5, 1, 2, 4).reshape(n, c * b * b, h, w)
    same(run(Layer("SPACETODEPTH", block_size=b), x), expected)


@given(extents(), st.sampled_from(["float32", "int8", "uint16", "int32"]), seeds, st.sampled_from([1, 2, 3, 4]),
       st.tuples(*[st.integers(0, 3)] * 4))
def test_pad(shape, dtype, seed, mode, pads):
    x = values(shape, dtype, seed)
    h, w = shape[2:]
    most = {1: (h - 1, w - 1), 3: (h, w)}.get(mode, (9, 9))  # NumPy mirrors again beyond, the layer does not
    top, bottom, left, right = (min(pad, most[i // 2]) for i, pad in enumerate(pads))
    y = run(Layer("PAD", pad_mode=mode, pad=0, pad_shape=[0, 0, 0, 0, top, bottom, left, right], format=[0, 1, 2, 3]), x)
    name = {1: "reflect", 2: "edge", 3: "symmetric", 4: "constant"}[mode]
    same(y, np.pad(x, [(0, 0), (0, 0), (top, bottom), (left, right)], mode=name))


@given(extents(), st.sampled_from(WORDS[:5]), seeds, st.integers(0, 3), st.integers(1, 6))
def test_gather(shape, dtype, seed, axis, count):
    x = values(shape, dtype, seed)
    indices = np.random.default_rng(seed).integers(0, shape[axis], count).astype(np.uint32)
    same(run(Layer("GATHER", axis=axis), x, indices), x.take(indices, axis=axis))


@given(extents(), seeds, st.tuples(*[st.booleans()] * 4), st.sampled_from([0, 6]))
def test_eltwise_of_two(shape, seed, repeated, method):
    a = values(shape, "float32", seed)
    b = values([1 if again else extent for again, extent in zip(repeated, shape)], "float32", seed + 1) + 0.125
    word = int("".join(str(int(again)) for again in repeated), 2)
    y = run(Layer("ELTWISE", method=method, broadcast_B=any(repeated), word_B=word), a, b)
    same(y, a * b if method == 0 else a / b)


@given(extents(), seeds, st.floats(-4, 4, width=32))
def test_eltwise_with_a_constant(shape, seed, k):
    a = values(shape, "float32", seed)
    same(run(Layer("ELTWISE", method=1, has_k=True, k=k), a), a + np.float32(k))
    positive = np.abs(a) + 1
    y = run(Layer("ELTWISE", method=7, has_k=True, k=k), positive)
    np.testing.assert_allclose(y, positive.astype(np.float64) ** k, rtol=1e-6)


@given(extents(), word_types, seeds, st.tuples(*[st.integers(1, 3)] * 2), st.tuples(*[st.integers(0, 2)] * 2))
def test_spacetobatch_and_back(shape, dtype, seed, block, before):
    bh, bw = block
    n, c = shape[:2]
    top, left = before
    x = values(shape, dtype, seed)
    bottom, right = -(shape[2] + top) % bh, -(shape[3] + left) % bw
    padded = np.pad(x, [(0, 0), (0, 0), (top, bottom), (left, right)])
    h, w = padded.shape[2] // bh, padded.shape[3] // bw
    expected = padded.reshape(n, c, h, bh, w, bw).transpose(3, 5, 0, 1, 2, 4).reshape(bh * bw * n, c, h, w)
    y = run(Layer("SPACETOBATCH", block_shape=block, paddings=[top, bottom, left, right]), x)
    same(y, expected)
    same(run(Layer("BATCHTOSPACE", block_shape=block, crops=[top, bottom, left, right]), expected), x)


def test_all_layers_were_covered():
    if len(COVERED) < 2:
        pytest.skip("run alone")
    assert COVERED == set(vekcustom.layer_types())
