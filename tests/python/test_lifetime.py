"""How long processors, their tables and the library live, as a user hits it: LUT views used after
close() or after the session, close() while other threads transform, processors dropped without
close(). Each case runs in its own interpreter, so a crash is a failed case, not a lost run."""

import os
import shutil
import textwrap

import pytest

from conftest import SEED, run_python

# Code that ends a processor while views of its tables are kept: v (a whole table) and w (a slice).
VIEW_ENDINGS = {
    "close": """
        s = kc.Session().__enter__()
        p = kc.Processor(16, 16)
        v, w = p.input_luts[0], p.output_luts[2][10:20]
        p.close()
        """,
    "session exit": """
        with kc.Session():
            p = kc.Processor(16, 16)
            v, w = p.input_luts[0], p.output_luts[2][10:20]
        """,
    "processor dropped": """
        s = kc.Session().__enter__()
        v, w = kc.Processor(16, 16).input_luts[0], kc.Processor(12, 12).output_luts[2][10:20]
        """,
}

VIEW_USE = """
    import numpy as np
    import kelvane_color as kc
    {ending}
    v[:] = 7
    w[:] = 9
    assert int(v.sum()) == 7 * 65536 and w.tolist() == [9] * 10
    with kc.Session(), kc.Processor(8, 8) as q:  # the library works on
        assert q.transform(np.array([[1, 2, 3]], np.uint16)).tolist() == [[1, 2, 3]]
    del v, w
    print("views used")
    """


def view_script(ending):
    return textwrap.dedent(VIEW_USE).format(ending=textwrap.dedent(VIEW_ENDINGS[ending]))


@pytest.mark.parametrize("ending", VIEW_ENDINGS)
def test_views_keep_their_tables(ending):
    result = run_python(view_script(ending))
    assert result.returncode == 0 and "views used" in result.stdout, result.stderr


@pytest.mark.skipif(not shutil.which("valgrind"), reason="valgrind is not installed")
@pytest.mark.parametrize("ending", ["close", "session exit"])
def test_views_write_no_freed_memory_under_valgrind(ending):
    # Python's own allocator off, so that memcheck sees every block; leaks are not the subject.
    suppressions = os.path.join(os.path.dirname(os.path.abspath(__file__)), "loader.supp")
    result = run_python(view_script(ending), timeout=300, wrapper=[
        "valgrind", "--quiet", "--error-exitcode=99", "--errors-for-leak-kinds=none",
        f"--suppressions={suppressions}"], PYTHONMALLOC="malloc")
    assert result.returncode == 0 and "views used" in result.stdout, result.stderr[-3000:]


CLOSE_DURING_TRANSFORMS = """
    import threading
    import numpy as np
    import kelvane_color as kc

    rng = np.random.default_rng({seed})
    frame = rng.integers(0, 65536, (1 << 19, 3), dtype=np.uint16)
    for round in range(4):
        session = kc.Session().__enter__()
        p = kc.Processor(16, 16)
        p.append_matrix(rng.uniform(-1, 2, 9))  # not diagonal: every pixel reads the tables
        for lut in p.input_luts + p.output_luts:
            lut[:] = rng.integers(0, 65536, lut.size, dtype=np.uint32)
        del lut  # a kept view would keep the tables
        p.enable_input_luts(True, True, True)
        p.enable_output_luts(True, True, True)
        expected = p.transform(frame)
        counts = {{"right": 0, "wrong": 0, "refused": 0}}
        lock, busy = threading.Lock(), threading.Semaphore(0)

        def work():
            while True:
                try:
                    out = p.transform(frame)
                except ValueError as error:
                    assert "closed" in str(error), error
                    with lock:
                        counts["refused"] += 1
                    return
                with lock:
                    counts["right" if np.array_equal(out, expected) else "wrong"] += 1
                busy.release()

        threads = [threading.Thread(target=work) for _ in range(3)]
        for t in threads:
            t.start()
        for _ in range(3):
            busy.acquire()  # transforms have run: the threads are in their next ones now
        {ending}
        for t in threads:
            t.join()
        assert counts["wrong"] == 0 and counts["refused"] == 3, counts
    print("no crash")
    """


@pytest.mark.parametrize("ending", ["p.close()", "session.__exit__(None, None, None)"])
def test_closing_while_other_threads_transform(ending):
    # glibc fills freed memory with the perturb byte: a transform reading freed tables goes wrong.
    result = run_python(CLOSE_DURING_TRANSFORMS.format(seed=SEED, ending=ending),
                        MALLOC_PERTURB_="165")
    assert result.returncode == 0 and "no crash" in result.stdout, (SEED, result.stderr)


# 300 processors with 16-bit tables (1.5 MB each) ended one after the other, a way each.
ENDINGS_IN_A_LOOP = {
    "dropped unclosed": "kc.Processor().transform(f)",
    "closed, then its view dropped": "p = kc.Processor(); v = p.output_luts[1]; p.close(); "
                                     "v[:] = 1; del v, p",
    "a view kept past the processor": "v = kc.Processor().input_luts[2]; v[:] = 3",
    "inner sessions": "with kc.Session(): kc.Processor().transform(f)",
}


@pytest.mark.parametrize("step", ENDINGS_IN_A_LOOP)
def test_ended_processors_are_freed(step):
    result = run_python(f"""
        import resource
        import numpy as np
        import kelvane_color as kc

        def peak_kib():
            return resource.getrusage(resource.RUSAGE_SELF).ru_maxrss

        f = np.zeros((64, 3), np.uint16)
        with kc.Session():
            for _ in range(20):
                {ENDINGS_IN_A_LOOP[step]}
            before = peak_kib()
            for _ in range(300):
                {ENDINGS_IN_A_LOOP[step]}
            print((peak_kib() - before) // 1024)
        """)
    assert result.returncode == 0, result.stderr
    grown = int(result.stdout)
    assert grown < 40, f"the peak resident size grew by {grown} MiB over 300 processors"
