"""Buffers: NumPy arrays and tensors in the layouts that the runtime uses."""

from __future__ import annotations

from typing import Any

import numpy as np
import numpy.typing as npt

from . import _host
from ._drawing import Layout

# The element types of layers, and how a description says them.
_TYPES = {
    np.dtype(name): (bits, signed, name == "float32")
    for name, bits, signed in (
        ("float32", 32, False), ("int8", 8, True), ("uint8", 8, False), ("int16", 16, True), ("uint16", 16, False),
        ("int32", 32, True), ("uint32", 32, False),
    )
}


def fitting(what: str, dtype: np.dtype[Any], names: list[str] | None = None) -> TypeError:
    """The error for elements that do not fit; it says which do."""
    fit = names or [str(known) for known in _TYPES]
    last = f"{', '.join(fit[:-1])} and {fit[-1]}" if len(fit) > 1 else fit[0]
    fits = "fit" if len(fit) > 1 else "fits"
    return TypeError(f"{what} has {dtype} elements; {last} {fits}: x.astype(numpy.{fit[0]})")


def format_of(dtype: np.dtype[Any], what: str) -> _host.Format:
    """The format of such elements. TypeError where no layer takes them."""
    if dtype not in _TYPES:
        raise fitting(what, dtype)
    bits, signed, is_float = _TYPES[dtype]
    return _host.Format(bits, 1, 0, signed, is_float, 0, 0, 1.0)


def address_of(array: npt.NDArray[Any]) -> int:
    return int(array.__array_interface__["data"][0])


def strides_of(array: npt.NDArray[Any]) -> tuple[int, int] | None:
    """The line and plane strides (bytes, 0 for dense) with which a description tells where the array's elements lie.

    None where there are none: other orders of elements, or padding behind the end of the memory that the array is a view
    of.
    """
    if not array.flags.aligned:
        return None
    if array.flags.c_contiguous:
        return 0, 0
    shape = (1, 1, 1) + array.shape
    strides = (0, 0, 0) + array.strides
    row = shape[-1] * array.itemsize
    if shape[-1] > 1 and strides[-1] != array.itemsize:
        return None
    line = strides[-2] if shape[-2] > 1 else row
    plane = line * shape[-2]
    expected = None  # the stride of the next dimension outwards
    for extent, stride in zip(shape[-3::-1], strides[-3::-1]):
        if extent == 1:
            continue
        if expected is None:
            plane = expected = stride
        if stride != expected:
            return None
        expected *= extent
    if line < row or plane < line * shape[-2]:
        return None
    root = array
    while isinstance(root.base, np.ndarray):
        root = root.base
    planes = array.size // (shape[-1] * shape[-2]) if array.size else 0
    fits = root.flags.c_contiguous and address_of(array) + planes * plane <= address_of(root) + root.nbytes
    return (line, plane) if fits else None


class Tensor:
    """A tensor in the runtime's memory: any layout, any fixed-point format. The memory is shared, not copied.

    Args:
        memory: the bytes, from the first element on: an array, `bytes`, an `mmap` and whatever else has a buffer.
        shape: the extents, outermost first.
        dtype: of the elements, or its name: float32, int8, uint8, int16, uint16, int32, uint32.
        pack: channels interleaved in one plane.
        line: bytes from one row to the next; None for rows without padding.
        plane: bytes from one plane to the next; None for planes without padding.
        exp: of fixed-point integers; v stands for v * 2**exp.
        zero, scale: of asymmetric 8-bit elements; q stands for (q - zero) * scale.

    ValueError where the memory is too short or there is no such layout, TypeError for elements that no layer takes.

    >>> t = Tensor(bytes(range(8)), shape=(1, 3, 1, 2), dtype="uint8", pack=4, exp=-1)
    >>> t.numpy().tolist()
    [[[[0, 4]], [[1, 5]], [[2, 6]]]]
    >>> t.real()[0, :, 0, 1].tolist()
    [2.0, 2.5, 3.0]
    """

    def __init__(
        self,
        memory: Any,
        shape: tuple[int, ...] | list[int],
        dtype: npt.DTypeLike = "float32",
        *,
        pack: int = 1,
        line: int | None = None,
        plane: int | None = None,
        exp: int = 0,
        zero: int | None = None,
        scale: float | None = None,
    ) -> None:
        self.memory: npt.NDArray[np.uint8] = (
            np.frombuffer(memory, np.uint8) if memoryview(memory).nbytes else np.empty(0, np.uint8))
        self.shape = tuple(int(extent) for extent in shape)
        self.dtype = np.dtype(dtype)
        self.pack = pack
        self.exp = exp
        fmt = format_of(self.dtype, "the tensor")
        fmt.plane_pack = pack
        fmt.exp = exp
        self.zero: int | None = None
        self.scale: float | None = None
        if zero is not None or scale is not None:
            if self.dtype != np.uint8:
                raise fitting("a tensor with a zero point", self.dtype, ["uint8"])
            self.zero, self.scale = zero or 0, float(np.float32(1 if scale is None else scale))
            if not 0 <= self.zero <= 255:
                raise ValueError(f"the zero point {self.zero} is not one of 0 to 255")
            fmt.q8a, fmt.q8a_zero, fmt.q8a_scale = 1, self.zero, self.scale
        self._format = fmt
        self._buffer = _host.describe(self.shape, fmt, line or 0, plane or 0)
        self.nbytes: int = _host.lib.vek_bytes(self._buffer.value)
        self.line: int = _host.lib.vek_line_stride(self._buffer.value)
        self.plane: int = _host.lib.vek_plane_stride(self._buffer.value)
        if self.memory.size < self.nbytes:
            raise ValueError(f"the memory has {self.memory.size} bytes, and the tensor takes {self.nbytes}")
        self._address = address_of(self.memory)
        if self._address % self.dtype.itemsize != 0:
            raise ValueError(f"the memory does not begin at a multiple of {self.dtype.itemsize} bytes")
        self._key = (self.shape, self.dtype, pack, self.line, self.plane, exp, self.zero, self.scale)

    @classmethod
    def laid_out(cls, values: npt.ArrayLike, *, pack: int = 1, line: int | None = None, plane: int | None = None,
                 exp: int = 0, zero: int | None = None, scale: float | None = None) -> Tensor:
        """A new tensor with these elements in that layout; its padding is 0.

        >>> Tensor.laid_out(np.arange(4, dtype=np.uint8).reshape(1, 2, 1, 2), pack=2).memory.tolist()
        [0, 2, 1, 3]
        """
        dense = np.ascontiguousarray(values)
        fmt = format_of(dense.dtype, "the array")
        fmt.plane_pack = pack
        buffer = _host.describe(dense.shape, fmt, line or 0, plane or 0)
        memory = np.zeros(_host.lib.vek_bytes(buffer.value) // dense.itemsize + 1, dense.dtype)
        _host.lib.vek_pack(buffer.value, address_of(dense), address_of(memory))
        return cls(memory.view(np.uint8)[: _host.lib.vek_bytes(buffer.value)], dense.shape, dense.dtype, pack=pack,
                   line=line, plane=plane, exp=exp, zero=zero, scale=scale)

    def numpy(self) -> npt.NDArray[Any]:
        """The elements as they are stored, in a new array of this shape."""
        dense = np.empty(self.shape, self.dtype)
        _host.lib.vek_unpack(self._buffer.value, self._address, address_of(dense))
        return dense

    def real(self) -> npt.NDArray[np.float64]:
        """What the elements stand for, exactly, in a new array of float64."""
        values = self.numpy().astype(np.float64)
        if self.zero is not None and self.scale is not None:
            return (values - self.zero) * self.scale
        return np.ldexp(values, self.exp)

    def layout(self) -> Layout:
        """Where the elements lie; a notebook draws it.

        >>> print(Tensor(bytes(32), shape=(1, 3, 2, 2), dtype="uint8", pack=2, line=8).layout())
        1x3x2x2 uint8, pack=2, line=8: 2 planes of 16 bytes, 2 rows each, 32 bytes
        """
        return Layout(self.shape, str(self.dtype), self.pack, self.line, self.plane, self.nbytes)

    def _repr_mimebundle_(self, include: Any = None, exclude: Any = None) -> dict[str, str]:
        return self.layout()._repr_mimebundle_(include, exclude)

    def __array__(self, dtype: npt.DTypeLike = None) -> npt.NDArray[Any]:
        return self.numpy() if dtype is None else self.numpy().astype(dtype)

    def __repr__(self) -> str:
        fixed = f", exp={self.exp}" if self.exp else ""
        fixed += f", zero={self.zero}, scale={self.scale}" if self.zero is not None else ""
        return f"<Tensor {self.layout()}{fixed}>"
