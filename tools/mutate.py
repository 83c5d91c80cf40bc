#!/usr/bin/env python3
"""Sampled mutation run: how many planted faults the suite catches.

Plants one textual change at a time in the given sources (by default the
library: Vistrel/ and HDMIWrapper.cpp; --sources for others, such as the
transport and the daemon: platform/hidl emulator/daemon) (a flipped
comparison or logical operator, a boolean literal, an integer constant off by
one, a return of the type's default value), rebuilds incrementally and runs
the ctest suite, stopping at the first failure. A mutant is killed when the
suite fails or times out, survives when it passes, and is skipped when it does
not compile.

The sample is drawn once with a fixed seed and written to a file; later runs
read that file, so a run before and a run after a change to the tests measure
the same mutants. A mutant names its line by content, not by number, so edits
elsewhere in a file do not move it.

    tools/mutate.py --build build --sample tools/mutation-sample.tsv [--count 60]
    tools/mutate.py --sources platform/hidl emulator/daemon \
        --sample tools/mutation-sample-transport.tsv --count 40

Not part of `make test`: a run takes minutes per mutant batch.
"""
import argparse
import os
import random
import re
import signal
import subprocess
import sys

SOURCES = ["HDMIWrapper.cpp", "Vistrel"]

# (name, pattern, replacement function). Operators need spaces around them so
# that template brackets, arrows and shifts are left alone.
OPERATORS = [
    ("eq", re.compile(r" == "), lambda m: " != "),
    ("ne", re.compile(r" != "), lambda m: " == "),
    ("le", re.compile(r" <= "), lambda m: " < "),
    ("ge", re.compile(r" >= "), lambda m: " > "),
    ("lt", re.compile(r" < "), lambda m: " <= "),
    ("gt", re.compile(r" > "), lambda m: " >= "),
    ("and", re.compile(r" && "), lambda m: " || "),
    ("or", re.compile(r" \|\| "), lambda m: " && "),
    ("true", re.compile(r"\btrue\b"), lambda m: "false"),
    ("false", re.compile(r"\bfalse\b"), lambda m: "true"),
    ("const", re.compile(r"(?<![\w.])(\d+)(?![\w.])"), lambda m: str(int(m.group(1)) + 1)),
    ("return", re.compile(r"\breturn (?!\{\};)[^;]+;"), lambda m: "return {};"),
]

SKIP_LINE = re.compile(r"^\s*(//|#|\*|/\*)|ALOG|LOG_ALWAYS_FATAL|static_assert")


def source_files(root, sources):
    files = []
    for src in sources:
        path = os.path.join(root, src)
        if os.path.isfile(path):
            files.append(src)
        for base, _, names in os.walk(path):
            files += [os.path.relpath(os.path.join(base, n), root)
                      for n in names if n.endswith(".cpp")]
    return sorted(files)


def code_part(line):
    """The line with string literals blanked and any trailing comment removed."""
    line = re.sub(r'"(\\.|[^"\\])*"', lambda m: '"' + " " * (len(m.group(0)) - 2) + '"', line)
    cut = line.find("//")
    return line if cut < 0 else line[:cut]


def candidates(root, sources):
    """Every mutation site as (file, operator, line text, occurrence on that line)."""
    sites = []
    for path in source_files(root, sources):
        with open(os.path.join(root, path)) as f:
            for text in f.read().splitlines():
                if SKIP_LINE.search(text):
                    continue
                code = code_part(text)
                for name, pattern, _ in OPERATORS:
                    for occurrence, _ in enumerate(pattern.finditer(code)):
                        sites.append((path, name, text, occurrence))
    return sites


def apply(root, site):
    """Returns the file's original text after writing the mutant, or None if the line is gone."""
    path, name, text, occurrence = site
    full = os.path.join(root, path)
    with open(full) as f:
        original = f.read()
    lines = original.split("\n")
    if text not in lines:
        return None
    index = lines.index(text)
    pattern, replace = next((p, r) for n, p, r in OPERATORS if n == name)
    matches = list(pattern.finditer(code_part(text)))
    if occurrence >= len(matches):
        return None
    m = matches[occurrence]
    lines[index] = text[:m.start()] + replace(m) + text[m.end():]
    with open(full, "w") as f:
        f.write("\n".join(lines))
    return original


def run(cmd, timeout):
    # A session of its own, so that a timeout ends what the tests started too.
    proc = subprocess.Popen(cmd, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                            start_new_session=True)
    try:
        return proc.wait(timeout)
    except subprocess.TimeoutExpired:
        os.killpg(proc.pid, signal.SIGKILL)
        proc.wait()
        return -1


def read_sample(path):
    with open(path) as f:
        rows = [line.rstrip("\n").split("\t") for line in f if line.strip()]
    return [(p, n, t.replace("\\t", "\t"), int(o)) for p, n, o, t in rows]


def write_sample(path, sample):
    with open(path, "w") as f:
        for p, n, t, o in sample:
            f.write(f"{p}\t{n}\t{o}\t{t.replace(chr(9), chr(92) + 't')}\n")


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--build", default="build", help="configured CMake build directory")
    ap.add_argument("--sources", nargs="+", default=SOURCES, metavar="PATH",
                    help="files and folders to draw a new sample from (default: the library)")
    ap.add_argument("--sample", default="tools/mutation-sample.tsv")
    ap.add_argument("--count", type=int, default=60, help="mutants to draw for a new sample")
    ap.add_argument("--seed", type=int, default=17)
    ap.add_argument("--test-timeout", type=int, default=30, help="seconds per test")
    ap.add_argument("--jobs", default=str(os.cpu_count() or 2))
    ap.add_argument("--killers", metavar="FILE",
                    help="run the whole suite for each mutant and write which tests failed")
    args = ap.parse_args()
    root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))

    if os.path.exists(args.sample):
        sample = read_sample(args.sample)
    else:
        sample = random.Random(args.seed).sample(candidates(root, args.sources), args.count)
        write_sample(args.sample, sample)

    build = ["cmake", "--build", args.build, "-j" + args.jobs]
    if run(build, 1800) != 0:
        sys.exit("mutate: the unmutated tree does not build")
    ctest = ["ctest", "--test-dir", args.build, "-j" + args.jobs, "--timeout",
             str(args.test_timeout)] + ([] if args.killers else ["--stop-on-failure"])
    if run(ctest, 1800) != 0:
        sys.exit("mutate: the suite fails on the unmutated tree")

    killers = open(args.killers, "w") if args.killers else None
    failed_log = os.path.join(args.build, "Testing", "Temporary", "LastTestsFailed.log")
    killed = survived = skipped = gone = 0
    for number, site in enumerate(sample, 1):
        original = apply(root, site)
        if original is None:
            verdict = "gone"
            gone += 1
        else:
            try:
                if run(build, 1800) != 0:
                    verdict = "no build"
                    skipped += 1
                elif run(ctest, 1800) != 0:
                    verdict = "killed"
                    killed += 1
                else:
                    verdict = "SURVIVED"
                    survived += 1
            finally:
                with open(os.path.join(root, site[0]), "w") as f:
                    f.write(original)
        print(f"{number:3} {verdict:9} {site[0]} [{site[1]}] {site[2].strip()}", flush=True)
        if killers:
            tests = []
            if verdict == "killed" and os.path.exists(failed_log):
                with open(failed_log) as f:
                    tests = [line.strip().split(":", 1)[-1] for line in f if line.strip()]
            killers.write(f"{number}\t{verdict}\t{' '.join(tests)}\n")
            killers.flush()

    run(build, 1800)
    compiled = killed + survived
    score = killed / compiled if compiled else 0.0
    print(f"killed {killed} of {compiled} compiled mutants ({score:.2f}); "
          f"{skipped} did not compile, {gone} no longer in the sources")


if __name__ == "__main__":
    main()
