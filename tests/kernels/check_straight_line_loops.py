#!/usr/bin/env python3
"""Checks that pixel kernels run straight-line loops.

Disassembles a sample of pixel_kernel instances (the simplest, the fullest and random ones; or
all 62,208 with --all) from the kernel library and fails if a kernel's pixel loop holds any
conditional jump besides the loop's own end test, or any call.

    check_straight_line_loops.py [--sample N] [--seed S] [--all] [--objdump PATH] libkv_kernels.a
"""
import argparse
import os
import random
import re
import subprocess
import sys
import tempfile

RADIX = [2, 3, 2, 2, 2, 2, 2, 2, 3, 3, 3, 2, 3]
NAMES = ["width", "in", "bi", "gi", "ri", "bo", "go", "ro", "bs", "gs", "rs", "fourth", "out"]
KERNELS = 62208
PER_UNIT = 648  # kernels below one level 3 node of the tree

SYMBOL = re.compile(r"^[0-9a-f]+ <(\S+)>:$")
KERNEL = re.compile(r"pixel_kernelILj(\d+)EE")
INSN = re.compile(r"^\s*([0-9a-f]+):\s+(\S+)\s*(.*)$")


def describe(code):
    digits = []
    for radix in reversed(RADIX):
        digits.append(code % radix)
        code //= radix
    digits.reverse()
    digits[0] = 16 if digits[0] else 8
    return " ".join(f"{n}={d}" for n, d in zip(NAMES, digits))


def disassemble(objdump, archive, member, workdir):
    path = os.path.join(workdir, member)
    with open(path, "wb") as out:
        subprocess.run(["ar", "p", archive, member], stdout=out, check=True)
    text = subprocess.run([objdump, "-d", "--no-show-raw-insn", path], check=True,
                          capture_output=True, text=True).stdout
    functions, current = {}, None
    for line in text.splitlines():
        m = SYMBOL.match(line)
        if m:
            k = KERNEL.search(m.group(1))
            current = int(k.group(1)) if k else None
            if current is not None:
                functions[current] = []
            continue
        m = INSN.match(line)
        if m and current is not None:
            functions[current].append((int(m.group(1), 16), m.group(2), m.group(3)))
    return functions


def jump_target(operands):
    m = re.match(r"([0-9a-f]+)\b", operands)
    return int(m.group(1), 16) if m else None


def check(instructions):
    """Returns a list of problems with the kernel's loop."""
    backward = [(addr, mnem, jump_target(ops)) for addr, mnem, ops in instructions
                if mnem.startswith("j") and jump_target(ops) is not None
                and jump_target(ops) <= addr]
    if len(backward) != 1:
        return [f"expected one loop, found {len(backward)} backward jumps"]
    end, mnem, start = backward[0]
    problems = []
    if mnem == "jmp":
        problems.append("the loop does not end with a conditional test")
    for addr, m, ops in instructions:
        if start <= addr < end:
            if m.startswith("call"):
                problems.append(f"call at {addr:#x}: {m} {ops}")
            elif m.startswith("j") and m != "jmp":
                problems.append(f"conditional jump at {addr:#x}: {m} {ops}")
            elif m == "jmp" and "*" in ops:
                problems.append(f"indirect jump at {addr:#x}: {m} {ops}")
    return problems


def self_test():
    """The checker itself must see what it is looking for."""
    loop = [(0x10, "mov", "(%rdi),%eax"), (0x12, "add", "$0x1,%rax"),
            (0x16, "cmp", "%rax,%rdx"), (0x19, "jne", "10 <k+0x10>"), (0x1b, "ret", "")]
    branchy = loop[:2] + [(0x14, "je", "16 <k+0x16>")] + loop[2:]
    calling = loop[:2] + [(0x14, "call", "0 <memcpy>")] + loop[2:]
    no_loop = [(0x10, "ret", "")]
    assert check(loop) == [], check(loop)
    assert any("conditional" in p for p in check(branchy))
    assert any("call" in p for p in check(calling))
    assert check(no_loop) != []
    print("self-test passed")
    return 0


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("archive", nargs="?", help="the kernel library (libkv_kernels.a)")
    parser.add_argument("--self-test", action="store_true", help="check the checker and exit")
    parser.add_argument("--sample", type=int, default=40, help="random kernels besides the extremes")
    parser.add_argument("--seed", type=int, default=20261123, help="seed of the random sample")
    parser.add_argument("--all", action="store_true", help="check all 62,208 kernels")
    parser.add_argument("--objdump", default="objdump")
    args = parser.parse_args()
    if args.self_test:
        return self_test()
    if args.archive is None:
        parser.error("the kernel library is required")

    seed = args.seed
    print(f"sample seed {seed} (--seed picks another)")
    rng = random.Random(seed)
    if args.all:
        codes = list(range(KERNELS))
    else:
        simplest = 0                # 8-bit, planes, no LUT, no shift, three elements, planes
        fullest = KERNELS - 1       # 16-bit, every LUT, right shifts, fourth element, RGB
        codes = [simplest, fullest] + rng.sample(range(KERNELS), args.sample)
    by_unit = {}
    for code in codes:
        by_unit.setdefault(code // PER_UNIT, []).append(code)

    failures, checked = 0, 0
    with tempfile.TemporaryDirectory() as workdir:
        for unit, unit_codes in sorted(by_unit.items()):
            functions = disassemble(args.objdump, args.archive, f"kernel_unit_{unit:02d}.cpp.o",
                                    workdir)
            for code in unit_codes:
                checked += 1
                if code not in functions:
                    print(f"FAIL kernel {code} ({describe(code)}): not found in unit {unit} "
                          f"(seed {seed})")
                    failures += 1
                    continue
                problems = check(functions[code])
                if problems:
                    failures += 1
                    print(f"FAIL kernel {code} ({describe(code)}, seed {seed}):")
                    for p in problems:
                        print(f"    {p}")
    print(f"checked {checked} kernels (seed {seed}): {checked - failures} straight-line loops")
    print(f"{checked - failures} passed, {failures} failed")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
