#!/usr/bin/env python3
"""kelvane-color interrupted in the middle of a batch by SIGINT, SIGTERM and SIGHUP: the moment a
temporary appears in the output folder the signal is sent; the program must die of that signal,
leave no temporary, and every target it finished must be whole.

Usage: interrupted_batch.py KELVANE_COLOR WORK_FOLDER
"""
import os
import shutil
import signal
import subprocess
import sys
import time

WIDTH, HEIGHT, INPUTS = 1024, 1024, 40


def write_inputs(folder):
    header = b"P6\n%d %d\n65535\n" % (WIDTH, HEIGHT)
    body = bytes(range(256)) * (WIDTH * HEIGHT * 6 // 256)
    names = []
    for i in range(INPUTS):
        name = os.path.join(folder, "in%02d.ppm" % i)
        with open(name, "wb") as f:
            f.write(header + body)
        names.append(name)
    return names, len(header) + len(body)


def interrupt_once(tool, folder, inputs, whole_size, number):
    out = os.path.join(folder, "out")
    shutil.rmtree(out, ignore_errors=True)
    os.makedirs(out)
    run = subprocess.Popen([tool, *inputs, "--output-dir", out, "--output-type", "ppm",
                            "--bits", "16", "-q"])
    deadline = time.monotonic() + 60
    seen = None
    while seen is None and run.poll() is None and time.monotonic() < deadline:
        seen = next((n for n in os.listdir(out) if n.endswith(".kv-partial")), None)
    if seen is None:
        run.kill()
        run.wait()
        return "the run ended before a temporary was seen (exit %s)" % run.returncode
    run.send_signal(number)
    code = run.wait(timeout=60)
    names = os.listdir(out)
    left = [n for n in names if n.endswith(".kv-partial")]
    broken = [n for n in names if not n.endswith(".kv-partial")
              and os.path.getsize(os.path.join(out, n)) != whole_size]
    problems = []
    if code != -number:
        problems.append("ended with %s, not by signal %d" % (code, number))
    if left:
        problems.append("temporaries left: %s" % left)
    if broken:
        problems.append("targets not whole: %s" % broken)
    print("%s: signal after %s appeared, %d targets finished%s" % (
        signal.Signals(number).name, seen, len(names) - len(left),
        "" if not problems else "; " + "; ".join(problems)))
    return "; ".join(problems)


def main():
    tool, folder = sys.argv[1], sys.argv[2]
    shutil.rmtree(folder, ignore_errors=True)
    os.makedirs(folder)
    inputs, whole_size = write_inputs(folder)
    failures = [f for f in (interrupt_once(tool, folder, inputs, whole_size, n)
                            for n in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)) if f]
    shutil.rmtree(folder, ignore_errors=True)
    print("%d passed, %d failed" % (3 - len(failures), len(failures)))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
