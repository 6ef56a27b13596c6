"""Tests of the recorder: recording_test.py SUITE LIBRARY RECORDER COMMAND...

COMMAND runs tests/record/record_host, under an emulator if need be. Needs nothing but Python's standard library.
"""

import collections
import json
import os
import pathlib
import re
import resource
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

LIBRARY, RECORDER, *HOST = sys.argv[2:]
EMULATED = len(HOST) > 1
TYPES = set(re.findall(r'ENTRY\("([A-Z_]+)"',
                       (pathlib.Path(__file__).parents[2] / "src/custom_ops/layer_types.h").read_text()))

WORD = (1 << 64) - 1
P1, P2, P3, P4, P5 = (0x9E3779B185EBCA87, 0xC2B2AE3D27D4EB4F, 0x165667B19E3779F9, 0x85EBCA77C2B2AE63,
                      0x27D4EB2F165667C5)


def rotate(value, bits):
    return (value << bits | value >> (64 - bits)) & WORD


def xxh64(data):
    """The hash of a recording, by its published definition, with seed 0."""
    def step(lane, word):
        return rotate((lane + word * P2) & WORD, 31) * P1 & WORD

    at = 0
    if len(data) >= 32:
        lanes = [(P1 + P2) & WORD, P2, 0, -P1 & WORD]
        while at + 32 <= len(data):
            for i in range(4):
                lanes[i] = step(lanes[i], int.from_bytes(data[at + 8 * i:at + 8 * i + 8], "little"))
            at += 32
        value = sum(rotate(lane, bits) for lane, bits in zip(lanes, (1, 7, 12, 18))) & WORD
        for lane in lanes:
            value = ((value ^ step(0, lane)) * P1 + P4) & WORD
    else:
        value = P5
    value = (value + len(data)) & WORD
    while at + 8 <= len(data):
        value = (rotate(value ^ step(0, int.from_bytes(data[at:at + 8], "little")), 27) * P1 + P4) & WORD
        at += 8
    if at + 4 <= len(data):
        value = (rotate(value ^ int.from_bytes(data[at:at + 4], "little") * P1 & WORD, 23) * P2 + P3) & WORD
        at += 4
    for byte in data[at:]:
        value = rotate(value ^ byte * P5 & WORD, 11) * P1 & WORD
    value = (value ^ value >> 33) * P2 & WORD
    value = (value ^ value >> 29) * P3 & WORD
    return value ^ value >> 32


class Recording(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name, "recording")
        self.pad = self.plain("one", "PAD")  # what one layer does and says
        self.assertRegex(self.pad, r"^\[ERROR\] vek_pad.cpp:\d+: Input buffer is NULL\nttft\n$")

    def environment(self, settings):
        clean = {name: value for name, value in os.environ.items() if not name.startswith("VEK")}
        return {**clean, **{"VEKRECORD_" + name: str(value) for name, value in settings.items()}}

    def run_host(self, *arguments, plugin=RECORDER, status=0, say=None, before=None, preload=None, **settings):
        """Runs the host; its standard output. `say`: what the recorder's one line matches, None for no line."""
        host = HOST
        if preload:
            variable = f"LD_PRELOAD={preload}"
            host = [HOST[0], "-E", variable, *HOST[1:]] if EMULATED else ["env", variable, *HOST]
        run = subprocess.run([*host, plugin, *arguments], env=self.environment(settings), capture_output=True, text=True,
                             preexec_fn=before, timeout=280)
        self.assertEqual(run.returncode, status, run.stderr)
        self.assertRegex(run.stderr, "^$" if say is None else f"^vekrecord: {say}\n$")
        return run.stdout

    def record(self, *arguments, **settings):
        return self.run_host(*arguments, FOLDER=self.folder, **settings)

    def plain(self, *arguments):
        return self.run_host(*arguments, plugin=LIBRARY)

    def assert_same(self, actual, expected):
        """Of long texts, the first line that differs."""
        for one, other in zip(actual.splitlines() + ["<end>"], expected.splitlines() + ["<end>"]):
            self.assertEqual(one[:200], other[:200])
        self.assertTrue(actual == expected)

    def layers(self):
        """(folder, layer.json, [call-N.json]) for each layer, after a look whether all that is there is whole."""
        layers = []
        for folder in sorted(self.folder.iterdir()):
            files = {path.name for path in folder.iterdir()}
            layer = json.loads((folder / "layer.json").read_text())
            calls = [json.loads((folder / name).read_text()) for name in sorted(files) if re.fullmatch(r"call-\d+\.json", name)]
            expected = {"layer.json"}
            for call in calls:
                expected.add(f"call-{call['call']:04}.json")
                for buffer in (call["inputs"] or []) + (call["outputs"] or []):
                    if buffer["file"] is None:
                        continue
                    expected.add(buffer["file"])
                    data = (folder / buffer["file"]).read_bytes()
                    self.assertEqual((len(data), f"{xxh64(data):#018x}"), (buffer["bytes"], buffer["xxh64"]), folder.name)
            self.assertEqual(files, expected)
            layers.append((folder, layer, calls))
        return layers


class Transparent(Recording):
    """A host sees the same with the recorder and without."""

    def test_results_log_lines_outputs_and_clones(self):
        plain = self.plain("all")
        self.assertGreater(len(plain), 10000)
        self.assert_same(self.record("all", CALLS="all"), plain)
        layers = self.layers()
        self.assertEqual({layer["type"] for _, layer, _ in layers}, TYPES)
        self.assertGreater(sum(call["outcome"] == "done" for _, _, calls in layers for call in calls), len(TYPES))

    def test_off_the_host_sees_the_same_and_nothing_is_written(self):
        self.assert_same(self.run_host("all"), self.plain("all"))
        with tempfile.TemporaryDirectory() as empty:
            os.chmod(empty, 0o500)
            self.assertEqual(self.run_host("one", "PAD", before=lambda: os.chdir(empty)), self.pad)
            self.assertEqual(os.listdir(empty), [])

    def test_threads(self):
        self.assertEqual(self.record("threads", CALLS="1"), "0 wrong\n")
        self.assertGreater(len(self.layers()), 100)

    def test_the_library_is_found_beside_it_or_by_its_variable(self):
        with tempfile.TemporaryDirectory() as device:
            installed = os.path.join(device, "libvekcustom.so")
            self.run_host("one", "PAD", plugin=RECORDER, LIBRARY=LIBRARY)
            os.symlink(os.path.realpath(LIBRARY), os.path.join(device, "libvekcustom.real.so"))
            pathlib.Path(installed).write_bytes(pathlib.Path(RECORDER).read_bytes())
            self.assertEqual(self.record("one", "PAD", plugin=installed), self.plain("one", "PAD"))
            self.assertEqual(self.layers()[0][1]["library"]["path"], os.path.join(device, "libvekcustom.real.so"))
            os.remove(os.path.join(device, "libvekcustom.real.so"))
            for environment, line in (({}, f"there are no layers: {installed} is the recorder itself; name the library "
                                           "in VEKRECORD_LIBRARY"),
                                      ({"LIBRARY": "none.so"}, "there are no layers: none.so: cannot open shared object "
                                                               "file: No such file or directory")):
                self.assertEqual(self.run_host("none", plugin=installed, say=re.escape(line), **environment), "null\n")

    def test_another_copy_that_the_host_links(self):
        """The loader takes the layers' functions from that one: it is heard, and named."""
        with tempfile.TemporaryDirectory() as folder:
            linked = os.path.join(folder, "libvekcustom.so")
            shutil.copy(LIBRARY, linked)
            self.assert_same(self.record("all", CALLS="all", preload=linked,
                                         say=f"the layers are those of {linked}, which the process had loaded for all"),
                             self.plain("all"))
            paths, heard = self.heard()
            self.assertEqual(paths, {linked})
            shutil.rmtree(self.folder)
            self.record("all", CALLS="all")
            self.assertEqual(heard, self.heard()[1])
            self.assertGreater(sum(map(len, heard)), 100)

    def heard(self):
        """The paths of the libraries, and the log lines of each call, one after the other."""
        layers = [json.loads(path.read_text()) for path in sorted(self.folder.glob("*/layer.json"))]
        calls = [json.loads(path.read_text()) for path in sorted(self.folder.glob("*/call-*.json"))]
        calls += [call for layer in layers for call in layer["configures"]]
        return {layer["library"]["path"] for layer in layers}, [call["log"] for call in calls]


class Format(Recording):
    """What is written."""

    def test_a_layer_and_its_calls(self):
        self.record("one", "SOFTMAX", CALLS=2)
        (folder, layer, calls), = self.layers()
        self.assertEqual(folder.name, "0001-SOFTMAX")
        library = pathlib.Path(LIBRARY).read_bytes()
        buffer = {"dims": [2, 5, 3, 7], "num_dims": 4, "size": 840,
                  "format": {"bitdepth": 32, "plane_pack": 1, "exp": 0, "signed": False, "float": True, "q8a": False,
                             "q8a_zero": 0, "q8a_scale": 1, "q8a_scale_bits": "0x3f800000"},
                  "nchw": [2, 5, 3, 7], "line_stride": 28, "plane_stride": 84, "strides": [420, 84, 28, 4],
                  "strided": False, "interleaved": False}
        configure, = layer.pop("configures")
        self.assertGreater(configure.pop("nanoseconds"), 0)
        self.assertEqual(configure, {"attributes": [["axis", "0"]], "inputs": [buffer], "outputs": [buffer],
                                     "outcome": "accepted", "threshold": 2, "log": []})
        self.assertGreater(layer.pop("process"), 0)
        self.assertRegex(layer.pop("created"), r"^20\d\d-\d\d-\d\dT\d\d:\d\d:\d\dZ$")
        path = layer["library"].pop("path")
        self.assertEqual(os.path.realpath(path), os.path.realpath(LIBRARY))
        self.assertEqual(layer, {"format": "vekrecord 1", "type": "SOFTMAX", "machine": layer["machine"],
                                 "library": {"bytes": len(library), "xxh64": f"{xxh64(library):#018x}"}})
        self.assertIn(layer["machine"], ("x86_64", "aarch64"))

        done, failed = calls
        self.assertEqual([done[key] for key in ("call", "configures", "outcome", "threshold", "log")],
                         [1, 1, "done", 2, []])
        self.assertEqual([(b["size"], b["bytes"], b["file"]) for b in done["inputs"] + done["outputs"]],
                         [(840, 840, "call-0001-in0.bin"), (840, 840, "call-0001-out0.bin")])
        self.assertNotEqual(done["inputs"][0]["address"], done["outputs"][0]["address"])
        self.assertEqual([failed[key] for key in ("call", "configures", "inputs", "outcome")], [2, 1, None, "failed"])
        self.assertEqual([re.sub(r"\d+", "N", line) for line in failed["log"]],
                         ["[ERROR] vek_softmax.cpp:N: Input buffer is NULL"])

    def test_refusals_texts_of_any_bytes_and_the_order_of_calls(self):
        self.record("all", CALLS="all")
        _, layer, calls = next(entry for entry in self.layers() if entry[1]["type"] == "SOFTMAX")
        refused, accepted = layer["configures"]
        self.assertEqual(refused["attributes"], [["?", "\x01\xff\"\\"]])
        self.assertEqual((refused["outcome"], accepted["outcome"]), ("refused", "accepted"))
        self.assertEqual((refused["threshold"], len(refused["log"])), (3, 1))
        self.assertEqual([(call["call"], call["configures"], call["outcome"]) for call in calls],
                         [(1, 0, "failed"), (2, 2, "done"), (3, 2, "done"), (4, 2, "failed")])
        self.assertEqual(calls[0]["inputs"], [])  # nothing is known of buffers before a Configure

    def test_a_description_that_promises_too_much(self):
        self.assertEqual(self.record("short"), self.plain("short"))
        (_, _, (call,)), = self.layers()
        for buffer in call["inputs"] + call["outputs"]:
            self.assertEqual((buffer["size"], buffer["bytes"]), (100000, 40))
        self.assertEqual(call["inputs"][0]["address"], call["outputs"][0]["address"])  # in place

    def test_later_recordings_go_behind_earlier_ones(self):
        for layer_type in ("PAD", "SOFTMAX"):
            self.record("one", layer_type)
        self.assertEqual(sorted(os.listdir(self.folder)), ["0001-PAD", "0002-SOFTMAX"])


class Chosen(Recording):
    """How much is written."""

    def test_the_first_calls(self):
        for count in (0, 1, 2, "all"):
            self.record("one", "PAD", CALLS=count)
        self.record("one", "PAD")
        self.assertEqual([len(calls) for _, _, calls in self.layers()], [0, 1, 2, 3, 1])

    def test_those_that_fail(self):
        self.record("one", "PAD", WHICH="failed", CALLS="all")
        (_, _, (call,)), = self.layers()
        self.assertEqual((call["call"], call["outcome"]), (2, "failed"))

    def test_hashes_alone(self):
        self.record("one", "PAD")
        self.record("one", "PAD", TENSORS="hashes")
        (_, _, (whole,)), (folder, _, (hashed,)) = self.layers()
        self.assertEqual(sorted(os.listdir(folder)), ["call-0001.json", "layer.json"])
        for kind in ("inputs", "outputs"):
            self.assertEqual([(b["bytes"], b["xxh64"]) for b in hashed[kind]], [(b["bytes"], b["xxh64"]) for b in whole[kind]])

    def test_the_limit(self):
        plain = self.plain("all")
        self.assert_same(self.record("all", CALLS="all", LIMIT="100K",
                                     say="recording stops: VEKRECORD_LIMIT is reached, 102400 bytes"), plain)
        self.layers()
        total = sum(path.stat().st_size for path in self.folder.rglob("*") if path.is_file())
        self.assertTrue(50000 < total <= 102400, total)

    def test_settings_that_are_not_understood(self):
        for name, value in (("CALLS", "many"), ("CALLS", "-1"), ("WHICH", "last"), ("TENSORS", "some"), ("LIMIT", "5X"),
                            ("LIMIT", "99999999999G")):
            self.assertEqual(self.record("one", "PAD", **{name: value},
                                         say=f"recording stops: VEKRECORD_{name}={value} is not understood"), self.pad)
        self.assertFalse(self.folder.exists())


class Failures(Recording):
    """Whatever fails, the network is not disturbed, and what was written stays."""

    def test_killed_in_the_middle(self):
        whole = 0
        for _ in range(2):
            host = subprocess.Popen([*HOST, RECORDER, "forever"], stdout=subprocess.DEVNULL,
                                    env=self.environment({"FOLDER": self.folder, "CALLS": "all"}))
            enough = time.monotonic() + 60
            before = len(list(self.folder.iterdir())) if self.folder.exists() else 0
            while time.monotonic() < enough and (not self.folder.exists() or len(list(self.folder.iterdir())) < before + 20):
                time.sleep(0.01)
            host.kill()
            self.assertEqual(host.wait(), -signal.SIGKILL)
            # Only the last layer may have files of a call or a text that was not yet complete.
            last = sorted(self.folder.iterdir())[-1]
            named = set()
            for path in list(last.iterdir()):
                if re.fullmatch(r"call-\d+\.json", path.name):
                    call = json.loads(path.read_text())
                    named |= {path.name, *(b["file"] for b in (call["inputs"] or []) + (call["outputs"] or []))}
            for path in list(last.iterdir()):
                if path.name != "layer.json" and path.name not in named:
                    path.unlink()
            if not (last / "layer.json").exists():
                last.rmdir()
            whole = len(self.layers())
        self.assertGreaterEqual(whole, 38)

    def test_a_crash_leaves_the_inputs_of_the_call(self):
        run = subprocess.run([*HOST, RECORDER, "crash"], env=self.environment({"FOLDER": self.folder}), capture_output=True)
        self.assertNotEqual(run.returncode, 0)
        (folder, _, (call,)), = self.layers()
        self.assertEqual((call["outcome"], call["outputs"]), (None, None))
        self.assertEqual((folder / "call-0001-in0.bin").stat().st_size, 4 * 64 * 64)

    def test_a_file_that_must_not_grow(self):
        def limit_files():
            resource.setrlimit(resource.RLIMIT_FSIZE, (2000, 2000))  # a further byte raises a signal
        self.assert_same(self.record("all", CALLS="all", before=limit_files,
                                     say=r"recording stops: .*/\d+-[A-Z]+/[\w.-]+: File too large"), self.plain("all"))
        self.assertGreater(len(self.layers()), 0)

    def test_a_full_disk(self):
        """In a file system of a few pages, which the host alone sees."""
        mount = ["unshare", "--mount", "--map-root-user", "sh", "-c", 'mount -t tmpfs -o size=64k none "$0" && exec "$@"',
                 str(self.folder)]
        self.folder.mkdir()
        if subprocess.run([*mount, "true"], capture_output=True, check=False).returncode != 0:
            self.skipTest("nothing may be mounted here")
        run = subprocess.run([*mount, *HOST, RECORDER, "all"], env=self.environment({"FOLDER": self.folder, "CALLS": "all"}),
                             capture_output=True, text=True, timeout=280, check=False)
        self.assertEqual(run.returncode, 0)
        self.assertRegex(run.stderr, r"^vekrecord: recording stops: .*/\d+-[A-Z]+/[\w.-]+: No space left on device\n$")
        self.assert_same(run.stdout, self.plain("all"))

    @unittest.skipIf(EMULATED, "the emulator needs some itself")
    def test_no_descriptors_left(self):
        def limit_descriptors():
            resource.setrlimit(resource.RLIMIT_NOFILE, (4, 4))
        self.assertEqual(self.record("one", "PAD", before=limit_descriptors,
                                     say="recording stops: .*: Too many open files"), self.pad)

    def test_folders_that_cannot_be_written(self):
        for folder, reason in (("/proc/recording", "No such file or directory"), ("/dev/null/recording", "Not a directory")):
            self.assertEqual(self.run_host("one", "PAD", FOLDER=folder, say=f"recording stops: {folder}: {reason}"),
                             self.pad)

    def test_standard_error_that_nobody_reads(self):
        reader, writer = os.pipe()
        os.close(reader)
        run = subprocess.run([*HOST, RECORDER, "one", "PAD"], env=self.environment({"FOLDER": "/proc/recording"}),
                             stdout=subprocess.PIPE, stderr=writer, text=True,
                             preexec_fn=lambda: signal.signal(signal.SIGPIPE, signal.SIG_DFL))
        os.close(writer)
        self.assertEqual((run.returncode, run.stdout), (0, self.pad))

    def test_allocations(self):
        plain = collections.Counter(self.plain("allocations").split())
        self.assertEqual(plain["tttt"], 1)
        self.assertGreater(len(plain), 2)  # a failing create, a failing Configure, and none
        run = subprocess.run([*HOST, RECORDER, "allocations"], env=self.environment({"FOLDER": self.folder}),
                             capture_output=True, text=True, timeout=280)
        recorded = collections.Counter(run.stdout.split())
        # The layer's own failures reach the host, the recorder's do not.
        successes = recorded.pop("tttt")
        self.assertEqual(recorded, plain - collections.Counter(["tttt"]))
        lines = run.stderr.splitlines()
        self.assertEqual(set(lines), {"vekrecord: recording stops: out of memory"})
        self.assertEqual(len(lines), successes - 1)
        self.assertGreater(len(lines), 100)

    def test_a_host_that_goes_elsewhere_and_closes_files(self):
        self.assertEqual(self.run_host("moved", FOLDER=os.path.relpath(self.folder)), self.plain("one", "SOFTMAX"))
        self.assertEqual([len(calls) for _, _, calls in self.layers()], [0, 1])

    def test_a_child_process_is_not_recorded(self):
        self.record("child")
        self.assertEqual([layer["type"] for _, layer, _ in self.layers()], ["SOFTMAX", "ELTWISE"])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:2])
