"""Random calls in small numbers, and the same ones in every run."""

import hypothesis

hypothesis.settings.register_profile("tests", max_examples=40, deadline=None, derandomize=True, database=None)
hypothesis.settings.load_profile("tests")
