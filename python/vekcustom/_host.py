"""The reference host's C interface (host/c/c_interface.h), through ctypes."""

from __future__ import annotations

import ctypes
from ctypes import POINTER, Structure, c_char_p, c_float, c_int, c_int32, c_size_t, c_uint8, c_uint32, c_void_p

DONE, REFUSED, THREW, CRASHED, SPOKE = 0, 1, 2, 3, 4
MAX_RANK = 64


class Format(Structure):
    """How elements are encoded."""

    _fields_ = [
        ("bitdepth", c_int32),
        ("plane_pack", c_int32),
        ("exp", c_int32),
        ("is_signed", c_uint8),
        ("is_float", c_uint8),
        ("q8a", c_uint8),
        ("q8a_zero", c_uint8),
        ("q8a_scale", c_float),
    ]


class Answers(Structure):
    """All answers of a description, as they were recorded."""

    _fields_ = [
        ("dims", POINTER(c_uint32)),
        ("dims_count", c_size_t),
        ("strides", POINTER(c_uint32)),
        ("strides_count", c_size_t),
        ("num_dims", c_uint32),
        ("size", c_uint32),
        ("nchw", c_uint32 * 4),
        ("line_stride", c_uint32),
        ("plane_stride", c_uint32),
        ("strided", c_uint8),
        ("interleaved", c_uint8),
        ("format", Format),
    ]


class Attributes(Structure):
    """Texts by key."""

    _fields_ = [("keys", POINTER(c_char_p)), ("values", POINTER(c_char_p)), ("count", c_size_t)]


lib = ctypes.CDLL("libvekcustom_c.so")  # which finds the plug-in beside it
for _name, _result, _arguments in (
    ("vek_error", c_char_p, []),
    ("vek_open", c_void_p, [c_char_p]),
    ("vek_plugin_path", c_char_p, [c_void_p]),
    ("vek_set_log_level", None, [c_void_p, c_char_p]),
    ("vek_layer_type", c_char_p, [c_size_t]),
    ("vek_element_types", c_char_p, [c_char_p]),
    ("vek_describe", c_void_p, [POINTER(c_uint32), c_size_t, POINTER(Format), c_uint32, c_uint32]),
    ("vek_describe_answers", c_void_p, [POINTER(Answers)]),
    ("vek_forget", None, [c_void_p]),
    ("vek_bytes", c_uint32, [c_void_p]),
    ("vek_line_stride", c_uint32, [c_void_p]),
    ("vek_plane_stride", c_uint32, [c_void_p]),
    ("vek_pack", None, [c_void_p, c_void_p, c_void_p]),
    ("vek_unpack", None, [c_void_p, c_void_p, c_void_p]),
    ("vek_output_shape", c_size_t,
     [c_char_p, POINTER(Attributes), POINTER(c_void_p), c_size_t, POINTER(c_uint32), c_size_t]),
    ("vek_make", c_void_p, [c_void_p, c_char_p]),
    ("vek_destroy", None, [c_void_p]),
    ("vek_configure", c_int,
     [c_void_p, POINTER(Attributes), POINTER(c_void_p), c_size_t, POINTER(c_void_p), c_size_t]),
    ("vek_execute", c_int, [c_void_p, c_void_p, c_void_p]),
    ("vek_execute_guarded", c_int, [c_void_p, c_void_p, c_void_p]),
    ("vek_log", c_char_p, [c_void_p]),
):
    _function = getattr(lib, _name)
    _function.restype = _result
    _function.argtypes = _arguments


def text(raw: bytes | None) -> str:
    """A text of the library; a byte above 127 is the character of the same number."""
    return (raw or b"").decode("latin-1")


def error() -> str:
    """Why the last function that failed in this thread did."""
    return text(lib.vek_error())


def attributes(texts: dict[str, str]) -> Attributes:
    """The C form of a map of attributes; it keeps what it refers to alive."""
    keys = (c_char_p * len(texts))(*(key.encode("latin-1") for key in texts))
    values = (c_char_p * len(texts))(*(value.encode("latin-1") for value in texts.values()))
    return Attributes(keys, values, len(texts))


class Handle:
    """Owns an object of the library."""

    __slots__ = ("value", "_end")

    def __init__(self, value: int | None, end: object) -> None:
        if value is None:
            raise ValueError(error())
        self.value = value
        self._end = end

    def __del__(self) -> None:
        value = getattr(self, "value", None)
        if value is not None:
            self._end(value)  # type: ignore[operator]


def describe(dims: tuple[int, ...], fmt: Format, line: int = 0, plane: int = 0) -> Handle:
    """A description of a buffer; strides in bytes, 0 for none. ValueError where there is no such layout."""
    if len(dims) > MAX_RANK or any(not 0 <= extent < 1 << 32 for extent in dims):
        raise ValueError(f"no layer takes the shape {dims}")
    return Handle(lib.vek_describe((c_uint32 * len(dims))(*dims), len(dims), fmt, line, plane), lib.vek_forget)


def handles(buffers: list[Handle | None]) -> ctypes.Array[c_void_p]:
    """The C array of handles; None is a null pointer."""
    return (c_void_p * len(buffers))(*(None if buffer is None else buffer.value for buffer in buffers))
