#!/usr/bin/env python3
"""Fault injection: proves that the test suite catches realistic faults.

Each fault in faults/*.fault names a file, an exact text to find and its replacement (one or more
such hunks). The runner copies the committed tree into a scratch folder (never the working tree),
builds it once and runs the suite to make sure the clean copy passes, then for each fault: applies
it, rebuilds (ccache keeps the unchanged units cheap), runs ctest with a time limit and stops at
the first failing test, prints "caught" or "missed", and puts the file back.

A hunk whose text is not found exactly once marks the fault "stale" (the code moved on; update
the fault) rather than "missed". A fault that does not compile is "broken", not "caught".

    run.sh [--only NAME[,NAME...]] [--list] [--check] [--ref REF] [--work DIR] [--skip-baseline]
           [--test-timeout S] [--table FILE]
"""
import argparse
import os
import re
import shutil
import signal
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
FAULTS = os.path.join(HERE, "faults")


class FaultError(Exception):
    pass


def parse_fault(path):
    """Returns {name, description, hunks: [(file, find, replace)]}."""
    name = os.path.splitext(os.path.basename(path))[0]
    description, hunks = [], []
    current_file, block, kind, find = None, None, None, None
    with open(path, encoding="utf-8") as f:
        lines = f.read().split("\n")
    if lines and lines[-1] == "":
        lines.pop()

    def close_block():
        nonlocal find, block, kind
        if kind == "find":
            find = "\n".join(block)
        elif kind == "replace":
            if find is None:
                raise FaultError(f"{path}: a replace block without a find block")
            hunks.append((current_file, find, "\n".join(block)))
            find = None
        block, kind = None, None

    for number, line in enumerate(lines, 1):
        if line.startswith("@@ "):
            close_block()
            kind = line[3:].strip()
            if kind not in ("find", "replace"):
                raise FaultError(f"{path}:{number}: expected '@@ find' or '@@ replace'")
            if current_file is None:
                raise FaultError(f"{path}:{number}: no 'file:' line before the first hunk")
            block = []
        elif kind is not None:
            block.append(line)
        elif line.startswith("file:"):
            current_file = line[5:].strip()
        elif line.startswith("#"):
            description.append(line.lstrip("# ").rstrip())
        elif line.strip():
            raise FaultError(f"{path}:{number}: unexpected text outside a block")
    close_block()
    if find is not None:
        raise FaultError(f"{path}: a find block without its replace block")
    if not hunks:
        raise FaultError(f"{path}: no hunks")
    return {"name": name, "description": " ".join(description), "hunks": hunks}


def load_faults(only):
    faults = [parse_fault(os.path.join(FAULTS, f)) for f in sorted(os.listdir(FAULTS))
              if f.endswith(".fault")]
    # Faults in the pipeline header rebuild all 96 kernel units: they go last.
    faults.sort(key=lambda f: any(h[0] == "kernels/pixel_pipeline.h" for h in f["hunks"]))
    if only:
        wanted = set(only.split(","))
        unknown = wanted - {f["name"] for f in faults}
        if unknown:
            sys.exit(f"unknown fault(s): {', '.join(sorted(unknown))} (see --list)")
        faults = [f for f in faults if f["name"] in wanted]
    return faults


def run(command, log, timeout=None, cwd=None):
    """Runs a command with output appended to log; returns (exit code or None on timeout)."""
    with open(log, "a", encoding="utf-8") as out:
        out.write(f"\n$ {' '.join(command)}\n")
        out.flush()
        try:
            return subprocess.run(command, stdout=out, stderr=subprocess.STDOUT, cwd=cwd,
                                  timeout=timeout).returncode
        except subprocess.TimeoutExpired:
            out.write(f"timed out after {timeout} s\n")
            return None


def first_failure(log):
    """The first failed test ctest reported in the log, for the table."""
    with open(log, encoding="utf-8", errors="replace") as f:
        text = f.read()
    m = re.search(r"\d+/\d+ Test +#\d+: (.+?) \.{3,}\*{0,3}(Failed|Exception|Timeout|Subprocess aborted|[A-Za-z ]*Fault)",
                  text)
    if m:
        name = m.group(1).split("  #")[0].strip()  # without gtest's "# GetParam() = ..."
        return f"{name} ({m.group(2).strip()})"
    return "see log"


def apply_fault(src, fault):
    """Applies every hunk, or raises FaultError (stale) leaving nothing changed."""
    originals, changed = {}, {}
    for file, find, replace in fault["hunks"]:
        path = os.path.join(src, file)
        if path not in changed:
            if not os.path.exists(path):
                raise FaultError(f"{file} does not exist")
            with open(path, encoding="utf-8") as f:
                originals[path] = f.read()
            changed[path] = originals[path]
        count = changed[path].count(find)
        if count != 1:
            raise FaultError(f"{file}: the text to find occurs {count} times, not once")
        changed[path] = changed[path].replace(find, replace)
    for path, text in changed.items():
        with open(path, "w", encoding="utf-8") as f:
            f.write(text)
    return originals


def restore(originals):
    for path, text in originals.items():
        with open(path, "w", encoding="utf-8") as f:
            f.write(text)


def sync_tree(incoming, src):
    """Makes src hold exactly incoming's files (src/build aside), touching only what differs."""
    wanted = set()
    for folder, _, files in os.walk(incoming):
        for name in files:
            relative = os.path.relpath(os.path.join(folder, name), incoming)
            wanted.add(relative)
            source, target = os.path.join(incoming, relative), os.path.join(src, relative)
            with open(source, "rb") as f:
                data = f.read()
            if os.path.isfile(target) and not os.path.islink(target):
                with open(target, "rb") as f:
                    if f.read() == data:
                        continue
            os.makedirs(os.path.dirname(target), exist_ok=True)
            if os.path.lexists(target):
                os.remove(target)
            with open(target, "wb") as f:
                f.write(data)
            shutil.copymode(source, target)
    for folder, _, files in os.walk(src):
        if os.path.relpath(folder, src).split(os.sep)[0] == "build":
            continue
        for name in files:
            relative = os.path.relpath(os.path.join(folder, name), src)
            if relative not in wanted:
                os.remove(os.path.join(src, relative))


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--only", help="comma-separated fault names")
    parser.add_argument("--list", action="store_true", help="list the faults and exit")
    parser.add_argument("--check", action="store_true",
                        help="only check that every fault still applies to the working tree")
    parser.add_argument("--ref", default="HEAD", help="the commit to copy (default HEAD)")
    parser.add_argument("--work", default="/tmp/kv-mutation", help="scratch folder")
    parser.add_argument("--skip-baseline", action="store_true",
                        help="do not check that the clean copy passes first")
    parser.add_argument("--test-timeout", type=int, default=900, help="seconds per test")
    parser.add_argument("--suite-timeout", type=int, default=2400, help="seconds per ctest run")
    parser.add_argument("--jobs", type=int, default=2)
    parser.add_argument("--label", help="run only the tests of this CTest label (ctest -L)")
    parser.add_argument("--table", help="also write the summary table (Markdown) here")
    args = parser.parse_args()

    faults = load_faults(args.only)
    if args.list:
        for f in faults:
            files = sorted({h[0] for h in f["hunks"]})
            print(f"{f['name']:32} {', '.join(files)}\n{'':32} {f['description']}")
        return 0

    repo = subprocess.run(["git", "-C", HERE, "rev-parse", "--show-toplevel"], check=True,
                          capture_output=True, text=True).stdout.strip()
    if args.check:
        stale = 0
        for fault in faults:
            for file, find, _ in fault["hunks"]:
                path = os.path.join(repo, file)
                count = open(path, encoding="utf-8").read().count(find) if os.path.exists(path) else 0
                if count != 1:
                    stale += 1
                    print(f"{fault['name']}: {file}: the text to find occurs {count} times, not once")
        print(f"{len(faults) - stale} of {len(faults)} faults apply")
        return 1 if stale else 0
    work = os.path.abspath(args.work)
    if os.path.realpath(work).startswith(os.path.realpath(repo) + os.sep):
        sys.exit("the scratch folder must lie outside the repository")
    # The build folder sits where the preset puts it, inside the copy: ccache rewrites paths
    # relative to the source tree, so only there do the copy's compile lines match the ones a
    # clone builds with, and the 96 kernel units come from the cache.
    src = os.path.join(work, "src")
    build = os.path.join(src, "build", "release")
    logs = os.path.join(work, "logs")
    os.makedirs(logs, exist_ok=True)
    os.makedirs(src, exist_ok=True)
    # The commit is unpacked aside and only the files whose content differs are written into the
    # copy: they get a new time, so the build sees them (git archive dates every file to the
    # commit, older than objects built from a fault), and unchanged units are not rebuilt.
    incoming = os.path.join(work, "incoming")
    shutil.rmtree(incoming, ignore_errors=True)
    os.makedirs(incoming)
    archive = subprocess.Popen(["git", "-C", repo, "archive", args.ref], stdout=subprocess.PIPE)
    subprocess.run(["tar", "-x", "-C", incoming], stdin=archive.stdout, check=True)
    if archive.wait() != 0:
        sys.exit(f"git archive {args.ref} failed")
    sync_tree(incoming, src)
    shutil.rmtree(incoming)
    commit = subprocess.run(["git", "-C", repo, "rev-parse", "--short", args.ref], check=True,
                            capture_output=True, text=True).stdout.strip()
    print(f"scratch copy of {commit} in {src}; logs in {logs}", flush=True)

    configure = ["cmake", "--preset", "release"]
    build_cmd = ["cmake", "--build", build, "-j", str(args.jobs)]
    test_cmd = ["ctest", "--test-dir", build, "-j", str(args.jobs), "--stop-on-failure",
                "--timeout", str(args.test_timeout), "--output-on-failure"]
    if args.label:
        test_cmd += ["-L", args.label]
    started = time.time()
    base_log = os.path.join(logs, "baseline.log")
    open(base_log, "w").close()
    if run(configure, base_log, cwd=src) != 0 or run(build_cmd, base_log) != 0:
        sys.exit(f"the clean copy does not build: see {base_log}")
    if not args.skip_baseline:
        if run(test_cmd, base_log, timeout=args.suite_timeout) != 0:
            sys.exit(f"the clean copy fails its own suite ({first_failure(base_log)}): "
                     f"see {base_log}")
        print(f"baseline: builds and passes ({time.time() - started:.0f} s)", flush=True)

    results = []
    for fault in faults:
        t0 = time.time()
        log = os.path.join(logs, fault["name"] + ".log")
        open(log, "w").close()
        try:
            originals = apply_fault(src, fault)
        except FaultError as e:
            results.append((fault, "stale", str(e), 0))
            print(f"{fault['name']:32} stale   {e}", flush=True)
            continue
        try:
            if run(build_cmd, log) != 0:
                outcome, detail = "broken", "does not compile"
            else:
                code = run(test_cmd, log, timeout=args.suite_timeout)
                if code == 0:
                    outcome, detail = "missed", ""
                elif code is None:
                    outcome, detail = "caught", "suite timed out"
                else:
                    outcome, detail = "caught", first_failure(log)
        finally:
            restore(originals)
        seconds = time.time() - t0
        results.append((fault, outcome, detail, seconds))
        print(f"{fault['name']:32} {outcome:7} {seconds:5.0f} s  {detail}", flush=True)

    # Leave the build matching the clean copy for the next run.
    run(build_cmd, base_log)
    total = time.time() - started
    lines = ["| fault | file | result | first failing test | time |", "|---|---|---|---|---|"]
    for fault, outcome, detail, seconds in results:
        files = ", ".join(sorted({h[0] for h in fault["hunks"]}))
        lines.append(f"| {fault['name']} | {files} | {outcome} | {detail} | {seconds:.0f} s |")
    counts = {k: sum(1 for r in results if r[1] == k) for k in ("caught", "missed", "stale",
                                                                 "broken")}
    summary = (f"{counts['caught']} caught, {counts['missed']} missed, {counts['stale']} stale, "
               f"{counts['broken']} broken of {len(results)} faults on {commit} in {total:.0f} s")
    print("\n" + "\n".join(lines) + "\n\n" + summary)
    if args.table:
        with open(args.table, "w", encoding="utf-8") as f:
            f.write("\n".join(lines) + "\n\n" + summary + "\n")
    return 1 if counts["missed"] or counts["broken"] else 0


if __name__ == "__main__":
    # A run stopped from outside still puts the faulted file back (the finally blocks run).
    signal.signal(signal.SIGTERM, lambda *_: sys.exit("stopped"))
    try:
        sys.exit(main())
    except FaultError as e:
        sys.exit(str(e))
