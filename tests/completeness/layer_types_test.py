"""Every layer type of the factory's list is everywhere it belongs, with every attribute key of its class.

    layer_types_test.py [FOLDER]     # FOLDER: the project's root, default the one that this file is in

The lists that do not derive from src/custom_ops/layer_types.h are read as text. docs/adding_an_operator.md tells what to
write in each.
"""

import pathlib
import re
import sys
import tempfile
import shutil
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]


def missing(root):
    """What is missing in the project at `root`, a line each."""
    root = pathlib.Path(root)
    text = lambda path: (root / path).read_text()
    entries = re.findall(r'ENTRY\("([A-Z_]+)", (\w+)\)', text("src/custom_ops/layer_types.h"))
    found = []

    def need(condition, what):
        if not condition:
            found.append(what)

    catalogue = {entry[1]: entry[0] for entry in re.findall(
        r'(^    \{"([A-Z_]+)",\n.*?)(?=^    \{"[A-Z_]+",\n|^\};|\Z)', text("tools/layer_catalog.cpp"), re.S | re.M)}
    sections = dict(re.findall(r"^## ([A-Z_]+)\n(.*?)(?=^## |\Z)", text("docs/operators.md"), re.S | re.M))
    makers = set(re.findall(r'^      \{"([A-Z_]+)",', text("tests/cases/setups.cpp"), re.M))
    models = set(re.findall(r'type == "([A-Z_]+)"', text("tests/model/model.cpp")))
    specimens = set(re.findall(r'"([A-Z_]{3,})"', text("tests/support/zoo.h")))
    benchmarks = set(re.findall(r'add\([^;]*?"([A-Z_]{3,})"', text("bench/layers_bench.cpp")))
    examples = set(re.findall(r'"([A-Z_]{3,})"', text("tests/tools/vekrun_test.py")))
    sources = {path.name: path.read_text() for path in (root / "src/custom_ops").glob("vek_*.cpp")}

    for name, layer in entries:
        need(name in catalogue, f"{name}: no entry in tools/layer_catalog.cpp")
        need(f'{{"{name}", ' in text("host/layer_rules.cpp"), f"{name}: no entry in host/layer_rules.cpp")
        need(f'Layer("{name}"' in text("tests/python/test_layers.py"), f"{name}: not in tests/python/test_layers.py")
        need(name in sections, f"{name}: no section in docs/operators.md")
        need(f"`{name}`" in text("README.md"), f"{name}: not in the table of README.md")
        need(f'"{name}"' in text("include/custom_ops/vek_common.h"), f"{name}: not named at create_object")
        need(name in makers, f"{name}: no setup in tests/cases/setups.cpp")
        need(name in models, f"{name}: no model in tests/model/model.cpp")
        need(name in specimens, f"{name}: no specimen in tests/support/zoo.h")
        need(name in benchmarks, f"{name}: no benchmark in bench/layers_bench.cpp")
        need(name in examples, f"{name}: no example in tests/tools/vekrun_test.py")
        need(f'<{layer}>("{name}")' in text("tests/unit/factory_test.cpp"), f"{name}: not in factory_test.cpp")
        need((root / "fuzz/corpus" / name).exists(), f"{name}: no corpus in fuzz/corpus")
        stems = [path for path, source in sources.items() if f"bool {layer}::Configure(" in source]
        need(len(stems) == 1, f"{name}: no source with {layer}::Configure")
        for source in stems:
            stem = source.removesuffix(".cpp")
            need((root / f"include/custom_ops/{stem}.h").exists(), f"{name}: no header include/custom_ops/{stem}.h")
            need((root / f"tests/model/{source}").exists(), f"{name}: no model in tests/model/{source}")
            for key in re.findall(rf'{layer}::k_expected_attr_\w* = "(\w+)"', sources[source]):
                need(f'{{"{key}",' in catalogue.get(name, ""), f"{name}: tools/layer_catalog.cpp lacks the key {key}")
                need(f'"{key}"' in sections.get(name, ""), f"{name}: docs/operators.md lacks the key {key}")
    for name in catalogue:
        need(name in dict(entries), f"{name}: in tools/layer_catalog.cpp, and not in the factory")
    need(len(entries) > 0, "no layer types in src/custom_ops/layer_types.h")
    return found


class Completeness(unittest.TestCase):
    def test_every_layer_type_is_everywhere(self):
        self.assertEqual(missing(ROOT), [])

    def test_a_forgotten_step_is_found(self):
        with tempfile.TemporaryDirectory() as folder:
            copy = pathlib.Path(folder)
            for part in ["src/custom_ops", "include", "tools", "docs", "tests", "bench", "fuzz", "host"]:
                shutil.copytree(ROOT / part, copy / part)
            shutil.copy(ROOT / "README.md", copy)
            listed = copy / "src/custom_ops/layer_types.h"
            listed.write_text(listed.read_text() + '#define MORE(ENTRY) ENTRY("FORGOTTEN", VekForgotten)\n')
            pad = copy / "src/custom_ops/vek_pad.cpp"
            pad.write_text(pad.read_text() + 'const std::string VekPad::k_expected_attr_new_ = "new_key";\n')
            found = missing(copy)
            self.assertEqual(len([line for line in found if line.startswith("FORGOTTEN:")]), 14)
            self.assertIn("PAD: tools/layer_catalog.cpp lacks the key new_key", found)
            self.assertIn("PAD: docs/operators.md lacks the key new_key", found)
            self.assertEqual(len(found), 16)


if __name__ == "__main__":
    unittest.main()
