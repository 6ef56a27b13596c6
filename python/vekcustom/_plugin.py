"""The loaded plug-in, and the log."""

from __future__ import annotations

import logging
import os
import re
from typing import NamedTuple

from . import _host

_LOGGER = logging.getLogger("vekcustom")
_LEVELS = {"ERROR": logging.ERROR, "WARNING": logging.WARNING, "INFO": logging.INFO, "DEBUG": logging.DEBUG}


class LogLine(NamedTuple):
    """A line that a layer logged.

    >>> LogLine("ERROR", "vek_softmax.cpp", 22, "expected 1 attribute, but got 2").text
    'expected 1 attribute, but got 2'
    """

    level: str
    file: str
    line: int
    text: str


def parse_log(text: str) -> list[LogLine]:
    """The lines of a log; a line of another form has no level, no file and the number 0."""
    lines = []
    for line in text.splitlines():
        match = re.fullmatch(r"\[(\w+)\] ([^:]*):(\d+): (.*)", line)
        lines.append(LogLine(match[1], match[2], int(match[3]), match[4]) if match else LogLine("", "", 0, line))
    return lines


def pass_on(lines: list[LogLine]) -> None:
    """Hands the lines of a call that succeeded to Python's logging."""
    for line in lines:
        _LOGGER.log(_LEVELS.get(line.level, logging.INFO), "%s:%d: %s", line.file, line.line, line.text)


class Refused(ValueError):
    """A layer refused.

    Attributes:
        layer: its type, such as "SOFTMAX".
        stage: "configure" or "execute".
        lines: what it logged, a list of LogLine; the last of level ERROR is the reason.
    """

    __module__ = "vekcustom"

    def __init__(self, layer: str, stage: str, lines: list[LogLine], reason: str = "") -> None:
        self.layer = layer
        self.stage = stage
        self.lines = lines
        said = "; ".join(f"{line.text} ({line.file}:{line.line})" for line in lines if line.level != "DEBUG")
        super().__init__(f"{layer} refused to {stage}: {reason or said or 'it logged nothing'}")

    def __reduce__(self) -> tuple[object, ...]:
        return Refused, (self.layer, self.stage, self.lines)


class Crashed(RuntimeError):
    """A guarded call would have brought down the process, or read or written beyond a buffer.

    Attributes:
        layer: its type.
        lines: what it logged before.
    """

    __module__ = "vekcustom"

    def __init__(self, layer: str, lines: list[LogLine], what: str) -> None:
        self.layer = layer
        self.lines = lines
        self.what = what
        super().__init__(f"{layer} {what}")

    def __reduce__(self) -> tuple[object, ...]:
        return Crashed, (self.layer, self.lines, self.what)


class Plugin:
    """A loaded plug-in: the library, another build of it, or the recorder. It stays loaded.

    Args:
        path: of the shared library; a name without a slash is left to the dynamic loader. OSError where it cannot be
            loaded.

    >>> import os.path
    >>> os.path.basename(Plugin("libvekcustom.so").path)
    'libvekcustom.so'
    """

    def __init__(self, path: str | os.PathLike[str]) -> None:
        value = _host.lib.vek_open(os.fsencode(path))
        if value is None:
            raise OSError(f"cannot load the plug-in: {_host.error()}")
        self._value = value

    @property
    def path(self) -> str:
        """The file that the dynamic loader took."""
        return os.fsdecode(_host.lib.vek_plugin_path(self._value))

    def set_log_level(self, level: str) -> None:
        """Sets what the plug-in logs: "NONE", "ERROR", "WARNING", "INFO" (at first) or "DEBUG"."""
        if level not in ("NONE", *_LEVELS):
            raise ValueError(f"no log level {level!r}; there are NONE, {', '.join(_LEVELS)}")
        _host.lib.vek_set_log_level(self._value, level.encode())


_default: Plugin | None = None


def default_plugin() -> Plugin:
    """The plug-in of layers that name no other: $VEKCUSTOM_LIBRARY, else libvekcustom.so as the loader finds it."""
    global _default
    if _default is None:
        _default = Plugin(os.environ.get("VEKCUSTOM_LIBRARY") or "libvekcustom.so")
    return _default


def layer_types() -> list[str]:
    """All layer types.

    >>> layer_types()[:3]
    ['SOFTMAX', 'DATA_STRIDE_CONV', 'RESHAPE']
    """
    types: list[str] = []
    while (name := _host.lib.vek_layer_type(len(types))) is not None:
        types.append(name.decode())
    return types
