"""Recordings of libvekrecord.so (docs/recording.md), call by call."""

from __future__ import annotations

import ctypes
import json
import os
import pathlib
import re
from dataclasses import dataclass
from typing import Any, Iterator, Optional

import numpy as np
import numpy.typing as npt

from . import _host
from ._plugin import LogLine, Plugin, default_plugin, parse_log
from ._tensor import Tensor

_FILLS = (0x00, 0xFF)  # of outputs; a byte that keeps both was not written


@dataclass(frozen=True)
class Replay:
    """What repeating a call gave; true where it was as recorded.

    Attributes:
        outcome: "done", "failed" or "threw ...".
        lines: what the call logged.
        outputs: the bytes of each output.
        differences: in words, one for everything that is other than recorded.
    """

    outcome: str
    lines: list[LogLine]
    outputs: list[npt.NDArray[np.uint8]]
    differences: list[str]

    def __bool__(self) -> bool:
        return not self.differences

    def __repr__(self) -> str:
        return f"<Replay: {'; '.join(self.differences) or 'as recorded'}>"


class Call:
    """A recorded call of `Execute`.

    Attributes:
        folder: of its layer.
        layer: the layer's type.
        number: which call of this layer it is, from 1.
        attributes: the texts of the last call of `Configure` before it.
        outcome: "done", "failed" or "threw ..."; None where the process died in the call.
        log: the lines that the library printed in it, None where they could not be heard.
    """

    def __init__(self, folder: pathlib.Path, description: dict[str, Any], call: dict[str, Any]) -> None:
        self.folder = folder
        self._description, self._call = description, call
        self.layer: str = description["type"]
        self.number: int = call["call"]
        self._configures: list[dict[str, Any]] = description["configures"][: call["configures"]]
        self._accepted = next((c for c in reversed(self._configures) if c["outcome"] == "accepted"), None)
        self.attributes: dict[str, str] = (
            {key: value for key, value in self._configures[-1]["attributes"]} if self._configures else {})
        self.outcome: Optional[str] = call["outcome"]
        log = call.get("log")
        self.log: Optional[list[LogLine]] = None if log is None else parse_log("\n".join(log))

    def __repr__(self) -> str:
        return f"<Call {self.folder.name} {self.number}: {self.outcome}>"

    def inputs(self) -> list[Tensor]:
        """The recorded inputs. ValueError where their bytes were not recorded."""
        return self._tensors("inputs")

    def outputs(self) -> list[Tensor]:
        """The recorded outputs. ValueError where their bytes were not recorded."""
        return self._tensors("outputs")

    def replay(self, plugin: Optional[Plugin] = None) -> Replay:
        """Repeats the call with a new layer, after the calls of this layer that were recorded before it.

        It is made twice, over two fills of the outputs: bytes that a layer does not write are what the host had there, and
        are not compared. ValueError where the inputs' bytes were not recorded.
        """
        runs = [self._run(plugin or default_plugin(), fill) for fill in _FILLS]
        outcome, text, outputs = runs[0]
        differences = []
        if self.outcome is None:
            if not outcome.startswith("crashed"):
                differences.append(f"{outcome}, where the recorded process died")
        elif outcome != self.outcome:
            differences.append(f"{outcome} instead of {self.outcome}")
        lines = parse_log(text)
        if self.log is not None and _heard(lines, self._call.get("threshold", 2)) != self.log:
            differences.append("it logs other lines")
        for i, (first, second, recorded) in enumerate(zip(outputs, runs[1][2], self._call["outputs"] or [])):
            difference = self._difference(f"output {i}", first, first == second, recorded)
            if difference:
                differences.append(difference)
        return Replay(outcome, lines, outputs, differences)

    def _difference(self, name: str, actual: npt.NDArray[np.uint8], written: npt.NDArray[np.bool_],
                    recorded: dict[str, Any]) -> str:
        if recorded["file"] is None:
            return ""
        expected = np.fromfile(self.folder / recorded["file"], np.uint8)
        count = min(len(expected), len(actual))
        wrong = np.flatnonzero((actual[:count] != expected[:count]) & written[:count])
        return f"{name} differs in {len(wrong)} of {count} bytes, from byte {wrong[0]} on" if len(wrong) else ""

    def _tensors(self, side: str) -> list[Tensor]:
        tensors = []
        for i, recorded in enumerate(self._call[side] or []):
            assert self._accepted is not None
            buffer = self._accepted[side][i]
            fmt = buffer["format"]
            kind = "float" if fmt["float"] else "int" if fmt["signed"] else "uint"
            scale = np.uint32(int(fmt["q8a_scale_bits"], 16)).view(np.float32)
            tensors.append(Tensor(
                self._bytes(recorded), buffer["dims"], f"{kind}{fmt['bitdepth']}", pack=fmt["plane_pack"],
                line=buffer["line_stride"], plane=buffer["plane_stride"], exp=fmt["exp"],
                zero=fmt["q8a_zero"] if fmt["q8a"] else None, scale=float(scale) if fmt["q8a"] else None))
        return tensors

    def _bytes(self, recorded: dict[str, Any]) -> npt.NDArray[np.uint8]:
        """A new buffer that begins with the recorded bytes."""
        if recorded["file"] is None:
            if recorded["address"] != "0x0":
                raise ValueError(f"{self.folder.name}: the tensors' bytes were not recorded")
            return np.zeros(recorded["size"] // 4 + 1, np.uint32).view(np.uint8)[: recorded["size"]]
        found = np.fromfile(self.folder / recorded["file"], np.uint8)
        size = max(recorded["size"], len(found))
        memory = np.zeros(size // 4 + 1, np.uint32).view(np.uint8)[:size]  # aligned for any element
        memory[: len(found)] = found
        return memory

    def _run(self, plugin: Plugin, fill: int) -> tuple[str, str, list[npt.NDArray[np.uint8]]]:
        layer = _host.Handle(_host.lib.vek_make(plugin._value, self.layer.encode("latin-1")), _host.lib.vek_destroy)
        value = layer.value
        outcome, text = 0, ""
        outputs: list[npt.NDArray[np.uint8]] = []
        configured = 0
        for call in [*self._before(), self]:
            for configure in call._configures[configured:]:
                buffers = [[_as_recorded(buffer) for buffer in configure[side]] for side in ("inputs", "outputs")]
                ins, outs = (_host.handles(side) for side in buffers)
                texts: dict[str, str] = {key: value for key, value in configure["attributes"]}
                _host.lib.vek_configure(value, _host.attributes(texts), ins, len(ins), outs, len(outs))
            configured = len(call._configures)
            memories: dict[str, npt.NDArray[np.uint8]] = {}
            pointers: list[Any] = []
            outputs = []
            for side in ("inputs", "outputs"):
                tensors = call._call[side]
                if tensors is None and side == "outputs" and call.outcome is None and call._accepted is not None:
                    tensors = [{"address": f"output {i}", "size": buffer["size"], "file": None}
                               for i, buffer in enumerate(call._accepted["outputs"])]
                if tensors is None:
                    pointers.append(None)
                    continue
                array = (ctypes.c_void_p * max(1, len(tensors)))()
                for i, recorded in enumerate(tensors):
                    address = recorded["address"]
                    if address not in memories:  # equal addresses are one buffer
                        memories[address] = call._bytes(recorded) if side == "inputs" else np.full(
                            recorded["size"] // 4 + 1, fill * 0x01010101, np.uint32).view(np.uint8)[: recorded["size"]]
                    if address != "0x0":
                        array[i] = memories[address].__array_interface__["data"][0]
                    if side == "outputs":
                        outputs.append(memories[address])
                pointers.append(array)
            # One that ended its process is not to end this one.
            execute = _host.lib.vek_execute if call.outcome is not None else _host.lib.vek_execute_guarded
            outcome = execute(value, *pointers)
            text = _host.text(_host.lib.vek_log(value))
        kind = outcome & ~_host.SPOKE
        said = {_host.DONE: "done", _host.REFUSED: "failed", _host.THREW: f"threw {_host.error()}"}.get(
            kind, f"crashed: it {_host.error()}")
        if kind == _host.THREW and (self.outcome or "").startswith("threw"):
            said = self.outcome or said  # the recording names the type, the library the text
        return said, text, outputs

    def _before(self) -> list[Call]:
        return [call for call in _calls(self.folder) if call.number < self.number and call.outcome is not None]


def _heard(lines: list[LogLine], threshold: int) -> list[LogLine]:
    levels = ("NONE", "ERROR", "WARNING", "INFO", "DEBUG")
    return [line for line in lines if line.level not in levels or levels.index(line.level) <= threshold]


def _as_recorded(buffer: Optional[dict[str, Any]]) -> Optional[_host.Handle]:
    if buffer is None:
        return None
    fmt = buffer["format"]
    scale = np.uint32(int(fmt["q8a_scale_bits"], 16)).view(np.float32)
    dims, strides = ((ctypes.c_uint32 * max(1, len(buffer[key])))(*buffer[key]) for key in ("dims", "strides"))
    answers = _host.Answers(
        dims, len(buffer["dims"]), strides, len(buffer["strides"]), buffer["num_dims"], buffer["size"],
        (ctypes.c_uint32 * 4)(*buffer["nchw"]), buffer["line_stride"], buffer["plane_stride"], buffer["strided"],
        buffer["interleaved"],
        _host.Format(fmt["bitdepth"], fmt["plane_pack"], fmt["exp"], fmt["signed"], fmt["float"], fmt["q8a"],
                     fmt["q8a_zero"], float(scale)))
    return _host.Handle(_host.lib.vek_describe_answers(answers), _host.lib.vek_forget)


def _calls(folder: pathlib.Path) -> Iterator[Call]:
    description = json.loads((folder / "layer.json").read_text())
    if description["format"] != "vekrecord 1":
        raise ValueError(f"{folder}: the format {description['format']!r} is not known")
    for path in sorted(folder.glob("call-*.json")):
        if re.fullmatch(r"call-\d+\.json", path.name):
            yield Call(folder, description, json.loads(path.read_text()))


def recording(folder: str | os.PathLike[str]) -> Iterator[Call]:
    """The calls of a recording, layer by layer in the order in which layers were made.

    Args:
        folder: of the recording, or of one layer in it. FileNotFoundError where there is none.

    >>> for call in recording("captures"):              # doctest: +SKIP
    ...     print(call, call.replay())
    <Call 0001-SOFTMAX 1: done> <Replay: as recorded>
    """
    path = pathlib.Path(folder)
    if (path / "layer.json").exists():
        yield from _calls(path)
        return
    if not path.is_dir():
        raise FileNotFoundError(f"{path}: there is no such recording")
    for layer in sorted(path.iterdir()):
        if (layer / "layer.json").exists():
            yield from _calls(layer)
