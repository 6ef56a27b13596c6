"""How far one tensor is from another."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Any, Optional

import numpy as np
import numpy.typing as npt

from ._tensor import Tensor


@dataclass(frozen=True)
class Comparison:
    """What `compare` found; true where all elements agree.

    Attributes:
        elements: how many there are.
        differing: how many of them are beyond the tolerance.
        largest: the largest difference; infinite where a NaN or an infinity stands on one side alone.
        at: where the largest difference is beyond the tolerance, its index; None where all agree.
    """

    elements: int
    differing: int
    largest: float
    at: Optional[tuple[int, ...]]

    def __bool__(self) -> bool:
        return self.differing == 0

    def __repr__(self) -> str:
        if self:
            what = "1 element agrees" if self.elements == 1 else f"{self.elements} elements agree"
            return f"<Comparison: {what}; the largest difference is {self.largest:.7g}>"
        return (f"<Comparison: {self.differing} of {self.elements} elements differ; the largest difference is "
                f"{self.largest:.7g}, at {list(self.at or ())}>")


def compare(actual: npt.ArrayLike | Tensor, expected: npt.ArrayLike | Tensor, *, atol: float = 0,
            rtol: float = 0) -> Comparison:
    """Compares what elements stand for: |actual - expected| <= atol + rtol * |expected|. NaNs agree with NaNs.

    Of a Tensor, its real values. ValueError where the shapes differ: nothing is repeated.

    >>> compare([1.0, 2.0, 4.0], [1.0, 2.5, 4.0], atol=0.1)
    <Comparison: 1 of 3 elements differ; the largest difference is 0.5, at [1]>
    >>> bool(compare([1.0, 2.0], [1.0, 2.5], atol=0.5))
    True
    """
    a, b = _values(actual), _values(expected)
    if a.shape != b.shape:
        raise ValueError(f"the shapes differ: {a.shape} and {b.shape}")
    with np.errstate(invalid="ignore", over="ignore"):
        difference = np.where((a == b) | (np.isnan(a) & np.isnan(b)), 0.0, np.abs(a - b))
        difference = np.where(np.isnan(difference), np.inf, difference)
        beyond = ~(difference <= atol + rtol * np.where(np.isfinite(b), np.abs(b), 0.0))
    differing = int(beyond.sum())
    largest = float(difference.max()) if difference.size else 0.0
    at = None
    if differing:
        at = tuple(int(i) for i in np.unravel_index(int(np.where(beyond, difference, -1.0).argmax()), a.shape))
        largest = float(difference[at])
    return Comparison(int(a.size), differing, largest, at)


def _values(x: npt.ArrayLike | Tensor) -> npt.NDArray[Any]:
    return x.real() if isinstance(x, Tensor) else np.asarray(x).astype(np.float64)
