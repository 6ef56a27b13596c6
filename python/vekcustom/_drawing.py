"""Layouts, told and drawn."""

from __future__ import annotations

import html
import math
import os
import shutil
import subprocess
import tempfile
from typing import Any


class Layout:
    """Where a tensor's elements lie. `str` tells it, a notebook draws it with vekrun (package vekcustom-tools)."""

    def __init__(self, shape: tuple[int, ...], dtype: str, pack: int, line: int, plane: int, nbytes: int) -> None:
        self.shape, self.dtype, self.pack = shape, dtype, pack
        self.line, self.plane, self.nbytes = line, plane, nbytes

    def _options(self) -> list[str]:
        shape = (1, 1, 1, *self.shape)
        row = shape[-1] * self.pack * (1 if self.dtype in ("int8", "uint8") else 2 if "16" in self.dtype else 4)
        options = [f"pack={self.pack}"] if self.pack > 1 else []
        options += [f"line={self.line}"] if self.line != row else []
        options += [f"plane={self.plane}"] if self.plane != self.line * shape[-2] else []
        return options

    def __str__(self) -> str:
        shape = (1, 1, 1, *self.shape)
        planes = math.prod(shape[:-3]) * -(-shape[-3] // self.pack)
        name = "x".join(map(str, self.shape)) or "scalar"
        return (f"{name} {self.dtype}, {', '.join(self._options()) or 'dense'}: {planes} planes of {self.plane} bytes, "
                f"{shape[-2]} rows each, {self.nbytes} bytes")

    def __repr__(self) -> str:
        return f"<Layout {self}>"

    def svg(self) -> str | None:
        """The drawing of `vekrun layout`, or None where vekrun is not installed."""
        vekrun = shutil.which(os.environ.get("VEKRUN") or "vekrun")
        if vekrun is None or not self.shape:
            return None
        with tempfile.TemporaryDirectory() as folder:
            out = os.path.join(folder, "layout.svg")
            tensor = ",".join([f"ramp:{'x'.join(map(str, self.shape))}", f"type={self.dtype}", *self._options()])
            done = subprocess.run([vekrun, "layout", tensor, "--out", out], capture_output=True, check=False)
            if done.returncode != 0:
                return None
            with open(out, encoding="utf-8") as file:
                return file.read()

    def _repr_mimebundle_(self, include: Any = None, exclude: Any = None) -> dict[str, str]:
        """What a notebook shows: one of the two, as many prefer a text to a drawing where they have both."""
        drawing = self.svg()
        return {"image/svg+xml": drawing} if drawing else {"text/html": f"<pre>{html.escape(str(self))}</pre>"}
