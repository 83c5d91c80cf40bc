#!/usr/bin/env python3
#
# Copyright (C) 2026 The libVistrel Authors
#
# Licensed under the Apache License, Version 2.0 (the "License");
# you may not use this file except in compliance with the License.
# You may obtain a copy of the License at
#
#      http://www.apache.org/licenses/LICENSE-2.0
#
# Unless required by applicable law or agreed to in writing, software
# distributed under the License is distributed on an "AS IS" BASIS,
# WITHOUT WARRANTIES OR CONDITIONS OF ANY KIND, either express or implied.
# See the License for the specific language governing permissions and
# limitations under the License.

"""Proves that the host build and the Android build compile the same library:
VISTREL_SOURCES in CMakeLists.txt and the srcs of the libVistrel module in
Android.bp name the same files, every file they name exists, and every .cpp
under Vistrel/ (and HDMIWrapper.cpp) is in both.

Usage: check_build_lists.py [source root]   (default: the root above tests/)
Exits 1 and names every difference when they disagree.
"""

import os
import re
import sys

MODULE = "libVistrel"
CMAKE_LIST = "VISTREL_SOURCES"
ENTRY_FILE = "HDMIWrapper.cpp"
SOURCE_DIR = "Vistrel"


class CheckError(Exception):
    """A build file that cannot be read as expected."""


def cmake_sources(path):
    with open(path, encoding="utf-8") as f:
        text = re.sub(r"#[^\n]*", " ", f.read())
    if re.search(r"\b(?:list\s*\(\s*(?:APPEND|INSERT|REMOVE_ITEM)|target_sources\s*\(\s*Vistrel)\b",
                 text):
        raise CheckError("%s: the library's sources are changed outside set(%s ...)"
                         % (path, CMAKE_LIST))
    match = re.search(r"\bset\s*\(\s*%s\b([^)]*)\)" % CMAKE_LIST, text)
    if not match:
        raise CheckError("%s: no set(%s ...)" % (path, CMAKE_LIST))
    sources = []
    for item in match.group(1).split():
        item = item.strip('"')
        item = re.sub(r"^\$\{(?:CMAKE_SOURCE_DIR|CMAKE_CURRENT_SOURCE_DIR|PROJECT_SOURCE_DIR)\}/",
                      "", item)
        if "$" in item:
            raise CheckError("%s: cannot resolve '%s' in %s" % (path, item, CMAKE_LIST))
        sources.append(os.path.normpath(item))
    return sources


def strip_bp_comments(text):
    """Blueprint comments, leaving string literals alone."""
    out, i = [], 0
    while i < len(text):
        if text[i] == '"':
            end = text.index('"', i + 1)
            out.append(text[i:end + 1])
            i = end + 1
        elif text.startswith("//", i):
            i = text.find("\n", i)
            i = len(text) if i < 0 else i
        elif text.startswith("/*", i):
            i = text.index("*/", i) + 2
            out.append(" ")
        else:
            out.append(text[i])
            i += 1
    return "".join(out)


def scan(text, start=0):
    """(index, character, depth) for each character from `start` outside string
    literals; depth counts the {[ brackets open once the character is read."""
    depth, i = 0, start
    while i < len(text):
        ch = text[i]
        if ch == '"':
            i = text.index('"', i + 1) + 1
            continue
        if ch in "{[":
            depth += 1
        elif ch in "}]":
            depth -= 1
        yield i, ch, depth
        i += 1


def bp_modules(text, module_type):
    """(body) of each top-level `module_type { ... }` block."""
    for match in re.finditer(r"(?m)^\s*%s\s*\{" % re.escape(module_type), text):
        start = match.end() - 1
        for i, _, depth in scan(text, start):
            if depth == 0:  # the brace that closes the module
                yield text[start + 1:i]
                break


def top_level_property(body, name):
    """The text of `name: <value>` at the module's own level (not in arch: {...})."""
    for i, _, depth in scan(body):
        if depth == 0 and re.match(r"\b%s\s*:" % name, body[i:]) and (
                i == 0 or not (body[i - 1].isalnum() or body[i - 1] == "_")):
            value_start = body.index(":", i) + 1
            end = next((j for j, ch, inner in scan(body, value_start) if ch == "," and inner == 0),
                       len(body))
            return body[value_start:end].strip()
    return None


def blueprint_sources(path):
    with open(path, encoding="utf-8") as f:
        text = strip_bp_comments(f.read())
    bodies = [b for b in bp_modules(text, "cc_library_shared")
              if top_level_property(b, "name") == '"%s"' % MODULE]
    if len(bodies) != 1:
        raise CheckError("%s: expected one cc_library_shared named %s, found %d"
                         % (path, MODULE, len(bodies)))
    # Sources added per architecture or target would make the two builds differ
    # in ways this check cannot follow.
    if len(re.findall(r"\b(?:exclude_)?srcs\s*:", re.sub(r'"[^"]*"', "", bodies[0]))) != 1:
        raise CheckError("%s: %s adds or removes sources outside its top-level srcs"
                         % (path, MODULE))
    value = top_level_property(bodies[0], "srcs")
    if value is None:
        raise CheckError("%s: %s has no srcs" % (path, MODULE))
    if not re.fullmatch(r"\[[^\]]*\]", value, flags=re.S):
        raise CheckError("%s: srcs of %s is not a plain list: %s" % (path, MODULE, value))
    inner = value[1:-1]
    leftover = re.sub(r'"[^"]*"', "", inner).replace(",", "").strip()
    if leftover:
        raise CheckError("%s: srcs of %s holds more than strings: %s" % (path, MODULE, leftover))
    sources = re.findall(r'"([^"]*)"', inner)
    for source in sources:
        if any(c in source for c in "*?{}"):
            raise CheckError("%s: srcs of %s uses a pattern: %s" % (path, MODULE, source))
    return [os.path.normpath(s) for s in sources]


def duplicates(items):
    seen, repeated = set(), []
    for item in items:
        if item in seen and item not in repeated:
            repeated.append(item)
        seen.add(item)
    return repeated


def library_files(root):
    found = [ENTRY_FILE]
    for directory, _, files in os.walk(os.path.join(root, SOURCE_DIR)):
        for name in files:
            if name.endswith(".cpp"):
                found.append(os.path.relpath(os.path.join(directory, name), root))
    return sorted(os.path.normpath(f) for f in found)


def main(argv):
    here = os.path.dirname(os.path.abspath(__file__))
    root = argv[1] if len(argv) > 1 else os.path.dirname(here)
    try:
        lists = {
            "CMakeLists.txt (%s)" % CMAKE_LIST: cmake_sources(os.path.join(root, "CMakeLists.txt")),
            "Android.bp (%s srcs)" % MODULE: blueprint_sources(os.path.join(root, "Android.bp")),
        }
    except (CheckError, OSError, ValueError) as error:
        print("build lists: %s" % error, file=sys.stderr)
        return 1

    problems = []
    (cmake_name, cmake), (bp_name, bp) = lists.items()
    for name, sources in lists.items():
        for repeated in duplicates(sources):
            problems.append("%s names %s more than once" % (name, repeated))
        for source in sources:
            if not os.path.isfile(os.path.join(root, source)):
                problems.append("%s names %s, which does not exist" % (name, source))
    for source in sorted(set(cmake) - set(bp)):
        problems.append("%s is in %s but missing from %s" % (source, cmake_name, bp_name))
    for source in sorted(set(bp) - set(cmake)):
        problems.append("%s is in %s but missing from %s" % (source, bp_name, cmake_name))
    for source in library_files(root):
        for name, sources in lists.items():
            if source not in sources:
                problems.append("%s is a library source but not in %s" % (source, name))

    if problems:
        print("build lists: the library's source lists disagree:", file=sys.stderr)
        for problem in problems:
            print("  " + problem, file=sys.stderr)
        return 1
    print("build lists: %d sources match" % len(set(cmake)))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
