"""Transforms on several threads at once, on one processor, give what they give alone; a frame
cut into stripes on every core gives what one thread gives; the library call releases the GIL."""

import sys
import threading

import numpy as np
import pytest

import kelvane_color as kc
from conftest import SEED, random_frame


def configured(rng, output_lut_bits):
    """A processor with a random matrix and random tables, four of the six LUTs on."""
    p = kc.Processor(16, output_lut_bits)
    p.append_matrix(rng.uniform(-1, 2, 9))
    for lut in p.input_luts + p.output_luts:
        lut[:] = rng.integers(0, 1 << output_lut_bits, lut.size, dtype=np.uint32)
    p.enable_input_luts(True, False, True)
    p.enable_output_luts(False, True, True)
    return p


def test_threads_share_a_processor(session, rng):
    with configured(rng, 16) as p:
        frames = [random_frame(rng, 20000 + 7 * k, kc.Layout.BGR) for k in range(8)]
        settings = dict(bits=8, channels=4, output_layout=kc.Layout.RGB, shifts=(0, -3, 2))
        alone = [p.transform(f, **settings) for f in frames]

        together = [None] * len(frames)
        failures = []

        def work(k):
            try:
                for _ in range(5):
                    together[k] = p.transform(frames[k], **settings)
            except Exception as error:  # reported below, with the seed
                failures.append(error)

        threads = [threading.Thread(target=work, args=(k,)) for k in range(len(frames))]
        for t in threads:
            t.start()
        for t in threads:
            t.join()
        assert not failures, f"seed {SEED}: {failures}"
        for k, (a, b) in enumerate(zip(alone, together)):
            np.testing.assert_array_equal(a, b, err_msg=f"seed {SEED}, frame {k}")


@pytest.fixture
def many_cores(monkeypatch):
    """As on a machine of 64 cores, with stripes down to a pixel: every thread count cuts."""
    monkeypatch.setattr(kc._stripes, "cores", lambda: 64)
    monkeypatch.setattr(kc._stripes, "MIN_STRIPE_PIXELS", 1)


@pytest.mark.parametrize("layouts", [(kc.Layout.BGR, kc.Layout.RGB), (kc.Layout.RGB, kc.Layout.RGB),
                                     (kc.Layout.BGR_PLANES, kc.Layout.BGR),
                                     (kc.Layout.BGR, kc.Layout.BGR_PLANES)],
                         ids=["bgr-rgb", "rgb-rgb", "planes-bgr", "bgr-planes"])
def test_any_thread_count_gives_the_same_frame(session, rng, layouts, many_cores):
    with configured(rng, 12) as p:
        for pixels in (0, 1, 2, 7, 1000, 100003):
            frame = random_frame(rng, pixels, layouts[0])
            settings = dict(bits=8, channels=4, input_layout=layouts[0], output_layout=layouts[1],
                            clamp=(0, 4095), shifts=(1, 0, -2))
            one = p.transform(frame, threads=1, **settings)
            for threads in (None, 2, 3, 64):
                np.testing.assert_array_equal(p.transform(frame, threads=threads, **settings), one,
                                              err_msg=f"seed {SEED}, {pixels} pixels, {threads}")


def test_a_refused_striped_transform_writes_nothing(session, many_cores):
    with kc.Processor() as p:
        frame = np.zeros((1000, 3), np.uint16)
        out = np.full((1000, 3), 77, np.uint16)
        with pytest.raises(kc.StatusError, match="KV_STATUS_INVALID_SHIFT"):
            p.transform(frame, shifts=(0, 16, 0), out=out, threads=4)
        assert (out == 77).all()
        with pytest.raises(ValueError, match="threads: 0 is not an integer from 1"):
            p.transform(frame, threads=0)


def ran_during(call):
    """Whether a watcher thread, woken just before call(), ran while call() had not returned.
    With a switch interval of 100 s a thread waiting for the GIL gets it only when the running
    one lets go of it, so True means call() released the GIL."""
    go, seen, state = threading.Event(), [], {"returned": False}

    def watch():
        go.wait()
        seen.append(not state["returned"])

    watcher = threading.Thread(target=watch)
    watcher.start()
    interval = sys.getswitchinterval()
    sys.setswitchinterval(100)
    try:
        go.set()
        call()
        state["returned"] = True
        watcher.join()
    finally:
        sys.setswitchinterval(interval)
    return seen[0]


def test_the_library_call_lets_other_threads_run(session):
    # The watcher may not be scheduled in time on a loaded machine: each attempt is a new chance
    # (a transform of 4 Mpix, scalar); with the GIL held during the call, none could succeed.
    frame = np.zeros((1 << 22, 3), np.uint16)
    with kc.Processor(tier=kc.Tier.SCALAR) as p:
        attempts = [ran_during(lambda: p.transform(frame, threads=1)) for _ in range(10)]
    assert any(attempts), "the watcher never ran during a transform: the GIL was held"
