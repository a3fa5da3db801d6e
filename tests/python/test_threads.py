"""Transforms on several threads at once, on one processor, give what they give alone."""

import threading

import numpy as np

import kelvane_color as kc
from conftest import SEED, random_frame


def test_threads_share_a_processor(session, rng):
    with kc.Processor(16, 16) as p:
        p.append_matrix(rng.uniform(-1, 2, 9))
        for lut in p.input_luts + p.output_luts:
            lut[:] = rng.integers(0, 65536, lut.size, dtype=np.uint32)
        p.enable_input_luts(True, False, True)
        p.enable_output_luts(False, True, True)
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
