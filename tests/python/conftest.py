"""Shared fixtures of the kelvane_color tests: one library session, and the seed of every random
choice (KELVANE_TEST_SEED, printed in the report header and in every failure message)."""

import os
import subprocess
import sys
import textwrap

import numpy as np
import pytest

import kelvane_color as kc

SEED = int(os.environ.get("KELVANE_TEST_SEED", "20261123"))


def pytest_report_header(config):
    return f"random seed: {SEED} (set KELVANE_TEST_SEED to repeat another)"


@pytest.fixture(scope="session")
def session():
    with kc.Session() as s:
        yield s


@pytest.fixture
def rng(request):
    """A generator seeded from SEED and the test's name, so each test repeats on its own."""
    return np.random.default_rng([SEED, sum(map(ord, request.node.name))])


def random_frame(rng, pixels, layout, high=65536):
    """A uint16 frame of the given pixel count, shaped as the layout wants."""
    values = rng.integers(0, high, size=3 * pixels, dtype=np.uint16)
    return values.reshape((3, pixels) if layout == kc.Layout.BGR_PLANES else (pixels, 3))


def run_python(code, timeout=120, wrapper=(), **environment):
    """Runs code in a fresh interpreter (the loader's environment is read at process start),
    under wrapper (a command and its options) if given."""
    env = dict(os.environ, **environment)
    return subprocess.run([*wrapper, sys.executable, "-c", textwrap.dedent(code)], env=env,
                          capture_output=True, text=True, timeout=timeout)
