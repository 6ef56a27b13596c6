#!/usr/bin/env python3
"""The page of vekrun replay, looked at in Debian's Chromium: page_test.py SUITE COMMAND... as the other tests of vekrun.

Ends with status 77 where there is no browser.
"""

import json
import os
import pathlib
import re
import shutil
import subprocess
import sys

from vekrun_case import Case, main

BROWSER = shutil.which("chromium")
WIDTH, HEIGHT = 1000, 2000  # of the window

# Measures what is on the page, and writes it where the browser's dump of the document shows it.
MEASURE = """<script nonce="measure">
addEventListener("load", () => {
  const sizes = name => [...document.querySelectorAll(name)].map(element => {
    const box = element.getBoundingClientRect();
    return [Math.round(box.width), Math.round(box.height)];
  });
  const found = {
    requests: performance.getEntriesByType("resource").map(entry => entry.name).filter(name => !name.startsWith("data:")),
    pictures: [...document.images].map(image => [image.naturalWidth, image.naturalHeight]),
    hatch: document.querySelectorAll("#hatch").length,
    table: sizes("table"), rows: sizes("tr"), img: sizes("img"), bars: sizes("figure svg"), drawings: sizes("details svg"),
  };
  document.body.append(Object.assign(document.createElement("pre"), {id: "found", textContent: JSON.stringify(found)}));
});
</script></body>"""


class Page(Case):
    def browse(self, *arguments):
        """Runs the browser with a profile of its own; what it prints, and what the page says on the console."""
        run = subprocess.run(
            [BROWSER, "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
             "--disable-background-networking", "--disable-component-update", "--disable-sync", "--enable-logging=stderr",
             f"--user-data-dir={self.path('profile')}", f"--window-size={WIDTH},{HEIGHT}", *arguments],
            cwd=self.folder, capture_output=True, text=True, timeout=100, check=False)
        self.assertEqual(run.returncode, 0, run.stderr)
        return run.stdout, [line for line in run.stderr.splitlines() if "CONSOLE" in line]

    def page(self):
        """A page of two calls that differ, one in its output and one in its log, and of two that are equal."""
        self.array("x.npy", "<f4", (1, 2, 2, 3), range(12))
        for layer in ("DATA_STRIDE_CONV", "DATA_STRIDE_CONV"):
            run = self.vekrun("run", layer, "--in", "x.npy", "--out", "o.bin,pack=4,line=64", "--record", "r")
            self.assertEqual(run.returncode, 0, run.stderr)
        first, second = sorted(pathlib.Path(self.path("r")).iterdir())
        data = bytearray((first / "call-0001-out0.bin").read_bytes())
        data[3] ^= 0x40
        data[64 + 3] ^= 0x40
        (first / "call-0001-out0.bin").write_bytes(data)
        description = json.loads((second / "layer.json").read_text())
        description["configures"][0]["log"] = ["<b>&\u00e9"]
        (second / "layer.json").write_text(json.dumps(description))
        self.assertEqual(self.vekrun("replay", "r", "--html", "r.html").returncode, 1)
        return self.read("r.html").decode()

    def test_it_shows_all_and_asks_for_nothing(self):
        policy = "style-src 'unsafe-inline'"
        text = self.page()
        self.assertEqual((text.count(policy), text.count("</body>"), text.count("<script")), (1, 1, 0))
        text = text.replace(policy, policy + "; script-src 'nonce-measure'").replace("</body>", MEASURE)
        self.write("measured.html", text.encode())
        document, console = self.browse("--dump-dom", "measured.html")
        self.assertEqual(console, [])
        found = json.loads(re.search(r'<pre id="found">(.*?)</pre>', document)[1])
        self.assertEqual((found["requests"], found["hatch"]), ([], 1))
        # Two planes of 2 x 3 with a line between them, 32 pixels an element.
        self.assertEqual(found["pictures"], [[224, 64]])
        self.assertEqual(found["img"], found["pictures"])
        self.assertEqual([len(found[what]) for what in ("table", "rows", "bars", "drawings")], [1, 5, 3, 3])
        for what in ("table", "rows", "bars", "drawings"):
            for width, height in found[what]:
                self.assertTrue(width > 20 and height > 20, (what, found[what]))

    def seen(self, name):
        """The pixels of a page: red, green and blue."""
        _, console = self.browse(f"--screenshot={self.path('shot.png')}", name)
        self.assertEqual(console, [])
        run = self.vekrun("convert", "shot.png", "shot.npy")
        self.assertEqual((run.returncode, run.stderr), (0, ""))
        plane = HEIGHT * WIDTH
        planes = self.read("shot.npy")[-3 * plane:]
        return list(zip(planes[:plane], planes[plane:2 * plane], planes[2 * plane:]))

    def test_what_is_seen_without_scripts(self):
        text = self.page()
        self.assertIn("default-src 'none'", text)  # which allows none
        pixels = self.seen("r.html")
        # A row that differs; the map's equal elements, of which two differ; bars; cells of channel 0.
        for colour, least in (((253, 236, 234), 10000), ((18, 18, 24), 10 * 32 * 32), ((192, 57, 43), 2000),
                              ((200, 225, 255), 5000)):
            self.assertGreaterEqual(pixels.count(colour), least, colour)
        # The hatching of padding, which another part of the page defines: without it, other pixels.
        self.assertEqual(text.count('id="hatch"'), 1)
        self.write("plain.html", text.replace('id="hatch"', 'id="other"').encode())
        plain = self.seen("plain.html")
        self.assertGreater(sum(one != other for one, other in zip(pixels, plain)), 1000)

    def test_what_it_would_not_do_is_noticed(self):
        text = self.page().replace("<h1>", '<img src="https://vekcustom.example/x.png"><h1>')
        self.write("r.html", text.encode())
        _, console = self.browse("--dump-dom", "r.html")
        self.assertEqual(len(console), 1)
        self.assertIn("Content Security Policy", console[0])


if __name__ == "__main__":
    if BROWSER is None:
        print("There is no browser (Debian: chromium): the page was not looked at. scripts/check-page installs one.")
        sys.exit(77)
    os.environ.pop("DBUS_SESSION_BUS_ADDRESS", None)
    main()
