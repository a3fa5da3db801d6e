"""A frame cut into stripes of whole pixels, transformed at once on several threads: the library's
calls release the GIL, so each stripe runs on a core of its own."""

import os
import threading

# Below this many pixels a stripe is not worth a thread (as in the C++ header's transform_striped).
MIN_STRIPE_PIXELS = 65536
MAX_THREADS = 1024


def cores():
    """The cores this process may run on."""
    try:
        return len(os.sched_getaffinity(0))
    except AttributeError:  # not on Linux
        return os.cpu_count() or 1


def count(threads, pixels, interleaved):
    """How many stripes: threads (None for every core) but no more than cores, nor so many that a
    stripe holds fewer than MIN_STRIPE_PIXELS. Only frames interleaved on both sides can be cut:
    a plane's spacing is the frame's pixel count, so part of a planar frame is no frame at all."""
    if not interleaved:
        return 1
    wanted = cores() if threads is None else min(threads, cores())
    return max(1, min(wanted, pixels // MIN_STRIPE_PIXELS))


def run(call, pixels, stripes):
    """call(first pixel, pixel count) for each of the stripes, stripe 0 on this thread; the
    statuses in stripe order. A thread that cannot be started leaves its stripe to this one."""
    statuses, failures = [0] * stripes, []

    def one(s):
        first = pixels * s // stripes
        try:
            statuses[s] = call(first, pixels * (s + 1) // stripes - first)
        except BaseException as error:  # raised on the calling thread below
            failures.append(error)

    workers = []
    try:
        for s in range(1, stripes):
            worker = threading.Thread(target=one, args=(s,), name=f"kelvane_color stripe {s}")
            try:
                worker.start()
            except RuntimeError:  # no thread to be had
                one(s)
            else:
                workers.append(worker)
        one(0)
    finally:
        for worker in workers:  # never leave while a stripe still writes the output
            worker.join()
    if failures:
        raise failures[0]
    return statuses
