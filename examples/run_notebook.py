"""Runs a notebook's cells one after the other, and prints what they say, or compares it with what the notebook shows.

    run_notebook.py NOTEBOOK [--drawings FOLDER]    # prints texts, cells and outputs; drawings go into the folder
    run_notebook.py NOTEBOOK --check                # status 1 where an output is not the stored one
    run_notebook.py NOTEBOOK --write                # stores the outputs

A notebook is JSON, and Python tells the last expression of a cell: so this needs none of Jupyter's packages, and Jupyter
runs the same cells.
"""

import argparse
import ast
import contextlib
import io
import json
import pathlib
import sys
import textwrap


def lines(text):
    """A text as notebooks store it."""
    return text.splitlines(keepends=True)


def shown(value):
    """What a notebook shows of a cell's value: by media type, like Jupyter."""
    data = dict(value._repr_mimebundle_()) if hasattr(value, "_repr_mimebundle_") else {}
    return {kind: lines(text) for kind, text in sorted({"text/plain": repr(value), **data}.items())}


def run(source, variables):
    """Runs a cell; its outputs as a notebook stores them, without the numbers of execution."""
    tree = ast.parse(source)
    last = tree.body.pop() if tree.body and isinstance(tree.body[-1], ast.Expr) else None
    printed = io.StringIO()
    value = None
    with contextlib.redirect_stdout(printed):
        exec(compile(tree, "<cell>", "exec"), variables)
        if last is not None:
            value = eval(compile(ast.Expression(last.value), "<cell>", "eval"), variables)
    outputs = []
    if printed.getvalue():
        outputs.append({"name": "stdout", "output_type": "stream", "text": lines(printed.getvalue())})
    if value is not None:
        outputs.append({"data": shown(value), "metadata": {}, "output_type": "execute_result"})
    return outputs


def tell(cell, outputs, drawings):
    """Prints a cell and its outputs."""
    source = "".join(cell["source"])
    if cell["cell_type"] != "code":
        for paragraph in source.split("\n\n"):
            print("\n" + textwrap.fill(paragraph.lstrip("# "), 118))
        print()
        return
    print(textwrap.indent(source, ">>> ", lambda line: True))
    for output in outputs:
        data = output.get("data", {})
        if "image/svg+xml" in data and drawings:
            path = pathlib.Path(drawings, f"{cell['id']}.svg")
            path.write_text("".join(data["image/svg+xml"]))
            print(f"Drawn in {path}")
        else:
            print("".join(output.get("text", data.get("text/plain", []))).rstrip("\n"))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("notebook", type=pathlib.Path)
    parser.add_argument("--drawings", metavar="FOLDER")
    parser.add_argument("--check", action="store_true")
    parser.add_argument("--write", action="store_true")
    chosen = parser.parse_args()
    notebook = json.loads(chosen.notebook.read_text())
    variables = {"__name__": "__main__"}
    number = 0
    differing = []
    for cell in notebook["cells"]:
        outputs = []
        if cell["cell_type"] == "code":
            number += 1
            outputs = run("".join(cell["source"]), variables)
            for output in outputs:
                if output["output_type"] == "execute_result":
                    output["execution_count"] = number
            if outputs != cell["outputs"]:
                differing.append(cell["id"])
            if chosen.check and outputs != cell["outputs"]:
                print(f"{cell['id']}: {json.dumps(outputs)[:2000]}\nstored: {json.dumps(cell['outputs'])[:2000]}")
            cell.update(execution_count=number, outputs=outputs)
        if not chosen.check and not chosen.write:
            tell(cell, outputs, chosen.drawings)
    if chosen.write:
        chosen.notebook.write_text(json.dumps(notebook, indent=1, sort_keys=True, ensure_ascii=False) + "\n")
    if chosen.check and differing:
        sys.exit(f"other outputs than stored: {', '.join(differing)}; {pathlib.Path(__file__).name} --write stores these")


if __name__ == "__main__":
    main()
