"""Layers: NumPy in, NumPy out."""

from __future__ import annotations

import ctypes
import difflib
import threading
from typing import Any, Iterable, Mapping, Optional, Sequence, Union

import numpy as np
import numpy.typing as npt

from . import _host
from ._plugin import Crashed, LogLine, Plugin, Refused, default_plugin, layer_types, parse_log, pass_on
from ._tensor import Tensor, address_of, fitting, format_of, strides_of

Attribute = Union[str, bool, int, float, Sequence[Any], npt.NDArray[Any]]
Operand = Union[npt.ArrayLike, Tensor]

_zeros = np.zeros
_ndarray = np.ndarray
_execute = _host.lib.vek_execute


def attribute_text(value: Attribute) -> str:
    """The text of an attribute, as layers read it. TypeError for what has none.

    >>> [attribute_text(value) for value in (3, True, 0.5, "0x10", [0, 2, 3, 1], np.arange(2))]
    ['3', '1', '0.5', '0x10', '[0,2,3,1]', '[0,1]']
    """
    if isinstance(value, str):
        return value
    if isinstance(value, (bool, np.bool_)):
        return "1" if value else "0"
    if isinstance(value, (int, np.integer)):
        return str(int(value))
    if isinstance(value, (float, np.floating)):
        return repr(float(value))
    if isinstance(value, np.ndarray):
        return attribute_text(value.tolist())
    if isinstance(value, (list, tuple)):
        return "[" + ",".join(attribute_text(entry) for entry in value) + "]"
    raise TypeError(f"an attribute is a text, a number, a bool or a list of these, not {type(value).__name__}")


class _Prepared:
    """A configured layer, for buffers of one description each."""

    __slots__ = ("keys", "layer", "value", "in_pointers", "out_pointers", "out_shape", "out_dtype", "out_format",
                 "out_size", "buffers")

    keys: list[Any]
    layer: _host.Handle
    value: int
    in_pointers: Any
    out_pointers: Any
    out_shape: tuple[int, ...]
    out_dtype: np.dtype[Any]
    out_format: _host.Format
    buffers: list[_host.Handle]


def _key(x: Any) -> Any:
    """What decides how a buffer is described; None where it must be copied first."""
    if type(x) is _ndarray:
        flags = x.flags
        if flags.c_contiguous and flags.aligned:
            return x.shape, x.dtype
        strides = strides_of(x)
        return None if strides is None else (x.shape, x.dtype, strides)
    return x._key if type(x) is Tensor else None


def _describe(x: npt.NDArray[Any] | Tensor, what: str) -> tuple[_host.Handle, _host.Format]:
    if isinstance(x, Tensor):
        return x._buffer, x._format
    fmt = format_of(x.dtype, what)
    line, plane = strides_of(x) or (0, 0)
    return _host.describe(x.shape, fmt, line, plane), fmt


class Layer:
    """A layer of the plug-in.

    Calling it configures it for the shapes at hand, once for equal ones in a row, and executes it. Distinct layers may run
    in threads at once; calls of one wait for each other. No other Python code waits: the interpreter's lock is free
    while a layer computes.

    Args:
        type: such as "SOFTMAX"; ValueError for one that the plug-in does not have.
        plugin: the plug-in that has it; None for the library.
        attributes: those of the first `Configure`. Lists, bools and numbers become texts.

    >>> x = np.arange(4, dtype=np.float32).reshape(1, 4, 1, 1)
    >>> Layer("SOFTMAX", axis=1)(x).ravel()
    array([0.0320586 , 0.08714432, 0.23688284, 0.6439143 ], dtype=float32)
    """

    def __init__(self, type: str, /, *, plugin: Plugin | None = None, **attributes: Attribute) -> None:
        self.type = type
        self.plugin = plugin or default_plugin()
        texts = {key: attribute_text(value) for key, value in attributes.items()}
        self.configurations: tuple[dict[str, str], ...] = (texts,) if texts else ()
        self._prepared: _Prepared | None = None
        self._lock = threading.Lock()
        names = _host.lib.vek_element_types(type.encode())
        if names is None:
            try:
                self._make()  # one that another plug-in has
            except ValueError as error:
                near = difflib.get_close_matches(type.upper(), layer_types(), 1, 0.5)
                raise ValueError(f"{error}{f'; did you mean {near[0]}?' if near else ''}") from None
        self._element_types: list[str] | None = names.decode().split() if names else None

    def configure(self, **attributes: Attribute) -> Layer:
        """The layer with a further call of `Configure`; this one stays as it is.

        >>> x = np.array([3, 1, 4, 2], np.float32).reshape(1, 4, 1, 1)
        >>> Layer("ARGMAX").configure(axis=1).configure(top_k=2)(x).ravel()
        array([2., 0.], dtype=float32)
        """
        further = Layer(self.type, plugin=self.plugin)
        texts = {key: attribute_text(value) for key, value in attributes.items()}
        further.configurations = (*self.configurations, texts)
        return further

    def __repr__(self) -> str:
        parts = [repr(self.type)] + [f"{key}={value!r}" for texts in self.configurations[:1] for key, value in texts.items()]
        more = ["".join(f".configure({', '.join(f'{k}={v!r}' for k, v in texts.items())})")
                for texts in self.configurations[1:]]
        return f"Layer({', '.join(parts)}){''.join(more)}"

    def __reduce__(self) -> tuple[Any, ...]:
        return _restore, (self.type, self.configurations)

    def __call__(
        self,
        *inputs: Any,
        out: Any = None,
        shape: Optional[Iterable[int]] = None,
        dtype: npt.DTypeLike = None,
        guard: bool = False,
    ) -> Any:
        """Runs the layer.

        Args:
            inputs: arrays, whatever makes one, or tensors. Views whose rows or planes have padding are described with
                it and not copied; views in any other order are copied.
            out: an array or a tensor that takes the result; None for a new one, zeros to begin with. What lies between
                its rows and planes is padding, which some layers write.
            shape: of a new result; None for the one that follows from attributes and inputs.
            dtype: of a new result; None for that of the first input.
            guard: run in a process of its own, on copies between pages that nobody may touch. What would crash Python,
                read beyond an input or write beyond an output raises `Crashed` instead.

        Returns:
            `out`, or a new array; a new dense tensor where the first input is one.

        Raises:
            Refused: the layer refused to be configured or executed.
            TypeError: elements that the layer does not take; the text says which it takes.
            ValueError: no tensor may have such a shape or layout.
            Crashed: with `guard`.
            RuntimeError: the layer let an exception through.
        """
        if out is not None and not (out.memory if isinstance(out, Tensor) else np.asarray(out)).flags.writeable:
            raise ValueError("the output is read-only")
        if shape is not None:
            shape = tuple(shape)
        with self._lock:
            # The way of a call that is like the one before, as straight as can be.
            keys: list[Any] = [shape, dtype]
            for x in inputs:
                keys.append(_key(x))
            keys.append(None if out is None else _key(out))
            prepared = self._prepared
            if prepared is None or prepared.keys != keys or None in keys[2:-1] or (out is not None and keys[-1] is None):
                inputs, out_now = self._arrays(inputs, out)
                keys = [shape, dtype, *(_key(x) for x in inputs), None if out_now is None else _key(out_now)]
                if prepared is None or prepared.keys != keys:
                    self._prepared = None
                    prepared = self._prepare(keys, inputs, out_now, shape, dtype)
                    self._prepared = prepared
            else:
                out_now = out
            pointers = prepared.in_pointers
            for i, x in enumerate(inputs):
                pointers[i] = x.__array_interface__["data"][0] if type(x) is _ndarray else x._address
            if out_now is None:
                result: Any = _zeros(prepared.out_shape, prepared.out_dtype)
                if type(inputs[0]) is Tensor:
                    result = _dense_tensor(result, prepared.out_format)
            else:
                result = out_now
            prepared.out_pointers[0] = (
                result.__array_interface__["data"][0] if type(result) is _ndarray else result._address)
            if guard:
                outcome = _host.lib.vek_execute_guarded(prepared.value, pointers, prepared.out_pointers)
            else:
                outcome = _execute(prepared.value, pointers, prepared.out_pointers)
            if outcome != 0:
                self._tell(outcome, "execute", prepared.value)
        if out is not None and out is not result:
            out[...] = result
            return out
        return result

    def _arrays(self, inputs: tuple[Any, ...], out: Any) -> tuple[tuple[Any, ...], Any]:
        """Inputs and output that can be described."""
        if not inputs:
            raise TypeError(f"{self.type} takes at least one input")
        arrays = []
        for i, x in enumerate(inputs):
            if not isinstance(x, Tensor):
                x = np.asarray(x)
                self._check(x, i)
                x = x if _key(x) is not None else np.array(x, order="C")
            else:
                self._check(x, i)
            arrays.append(x)
        if out is None:
            return tuple(arrays), None
        if isinstance(out, Tensor):
            return tuple(arrays), out
        if type(out) is not _ndarray:
            raise TypeError(f"an output is an array or a Tensor, not {type(out).__name__}")
        format_of(out.dtype, "the output")
        return tuple(arrays), out if _key(out) is not None else np.array(out, order="C")

    def _check(self, x: npt.NDArray[Any] | Tensor, i: int) -> None:
        what = f"input {i} of {self.type}"
        if i == 0 and self._element_types is not None and str(x.dtype) not in self._element_types:
            raise fitting(what, x.dtype, self._element_types)
        if i == 1 and self.type == "GATHER" and str(x.dtype) not in ("uint32", "int32"):
            raise fitting(what, x.dtype, ["uint32", "int32"])
        format_of(x.dtype, what)

    def _prepare(self, keys: list[Any], inputs: tuple[Any, ...], out: Any, shape: Optional[Iterable[int]],
                 dtype: npt.DTypeLike) -> _Prepared:
        descriptions, formats = zip(*(_describe(x, f"input {i} of {self.type}") for i, x in enumerate(inputs)))
        in_buffers = _host.handles(list(descriptions))
        prepared = _Prepared()
        prepared.keys = keys
        if out is not None:
            out_buffer, prepared.out_format = _describe(out, "the output")
            prepared.out_shape, prepared.out_dtype = out.shape, out.dtype
        else:
            prepared.out_shape = self._shape(in_buffers) if shape is None else tuple(int(e) for e in shape)
            prepared.out_dtype = np.dtype(inputs[0].dtype if dtype is None else dtype)
            fmt = format_of(prepared.out_dtype, "the output")
            if prepared.out_dtype == inputs[0].dtype:
                first = formats[0]
                fmt.exp, fmt.q8a, fmt.q8a_zero, fmt.q8a_scale = first.exp, first.q8a, first.q8a_zero, first.q8a_scale
            prepared.out_format = fmt
            out_buffer = _host.describe(prepared.out_shape, fmt)
        out_buffers = _host.handles([out_buffer])
        prepared.buffers = [*descriptions, out_buffer]
        prepared.layer = self._configured(in_buffers, out_buffers)
        assert prepared.layer.value is not None
        prepared.value = prepared.layer.value
        prepared.in_pointers = (ctypes.c_void_p * len(inputs))()
        prepared.out_pointers = (ctypes.c_void_p * 1)()
        return prepared

    def _make(self) -> _host.Handle:
        return _host.Handle(_host.lib.vek_make(self.plugin._value, self.type.encode()), _host.lib.vek_destroy)

    def _configured(self, in_buffers: Any, out_buffers: Any) -> _host.Handle:
        # A new layer each time: some keep what earlier calls of Configure told them.
        layer = self._make()
        assert layer.value is not None
        for texts in self.configurations or ({},):
            outcome = _host.lib.vek_configure(layer.value, _host.attributes(texts), in_buffers, len(in_buffers),
                                              out_buffers, len(out_buffers))
            if outcome != 0:
                self._tell(outcome, "configure", layer.value)
        return layer

    def _shape(self, in_buffers: Any) -> tuple[int, ...]:
        merged: dict[str, str] = {}
        for texts in self.configurations:
            merged |= texts
        dims = (ctypes.c_uint32 * _host.MAX_RANK)()
        rank = _host.lib.vek_output_shape(self.type.encode(), _host.attributes(merged), in_buffers, len(in_buffers),
                                          dims, len(dims))
        return tuple(dims[:rank])

    def _tell(self, outcome: int, stage: str, value: int) -> None:
        """Raises what the outcome of a call calls for, and passes on what it logged otherwise."""
        lines: list[LogLine] = parse_log(_host.text(_host.lib.vek_log(value)))
        kind = outcome & ~_host.SPOKE
        if kind == _host.REFUSED:
            raise Refused(self.type, stage, lines)
        if kind == _host.THREW:
            raise RuntimeError(f"{self.type} threw an exception in {stage}: {_host.error()}")
        if kind == _host.CRASHED:
            raise Crashed(self.type, lines, _host.error())
        pass_on(lines)


def _restore(type: str, configurations: tuple[Mapping[str, str], ...]) -> Layer:
    layer = Layer(type)
    layer.configurations = tuple(dict(texts) for texts in configurations)
    return layer


def _dense_tensor(array: npt.NDArray[Any], fmt: _host.Format) -> Tensor:
    zero, scale = (fmt.q8a_zero, fmt.q8a_scale) if fmt.q8a else (None, None)
    return Tensor(array.reshape(-1), array.shape, array.dtype, exp=fmt.exp, zero=zero, scale=scale)
