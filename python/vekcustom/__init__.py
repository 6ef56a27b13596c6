"""The layers of libvekcustom on NumPy arrays, and on tensors as they lie in the runtime's memory.

>>> import numpy as np
>>> x = np.array([[2, 1, 3]], dtype=np.float32).reshape(1, 3, 1, 1)
>>> y = Layer("SOFTMAX", axis=1)(x)
>>> compare(y.sum(axis=1), np.ones((1, 1, 1)), atol=1e-6)
<Comparison: 1 element agrees; the largest difference is 0>
>>> Layer("SOFTMAX", axis=5)(x)  # doctest: +ELLIPSIS
Traceback (most recent call last):
    ...
vekcustom.Refused: SOFTMAX refused to configure: axis = 5, but should be in range [0..3] (vek_softmax.cpp:...)
"""

from ._compare import Comparison, compare
from ._drawing import Layout
from ._layer import Layer
from ._plugin import Crashed, LogLine, Plugin, Refused, default_plugin, layer_types
from ._recording import Call, Replay, recording
from ._tensor import Tensor

__all__ = [
    "Call", "Comparison", "Crashed", "Layer", "Layout", "LogLine", "Plugin", "Refused", "Replay", "Tensor", "compare",
    "default_plugin", "layer_types", "recording",
]
