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

"""Proves that the host headers of the IHdmiUtil interface library declare
what the .hal files define: the same operations in the same order with the
same argument names and C++ types (as the HIDL code generator maps them), and
the same record fields in the same order with the same types.

Usage: check_interfaces.py [source root]   (default: the root above tests/)
Exits 1 and names every difference when they disagree.
"""

import os
import re
import sys

HAL_DIR = "interfaces"
HEADER_DIR = os.path.join("platform", "include", "vendor", "mirova", "hdmiutil")

# (.hal file, host header) pairs; the interface files are checked in this order.
INTERFACES = [
    ("provider/1.0/IHdmiUtil.hal", "provider/1.0/IHdmiUtil.h"),
    ("provider/1.0/IHdmiUtilCallback.hal", "provider/1.0/IHdmiUtilCallback.h"),
]
TYPES = ("common/1.0/types.hal", "common/1.0/types.h")

# HIDL scalars keep their names in C++ and are passed by value.
SCALARS = {
    "bool", "int8_t", "uint8_t", "int16_t", "uint16_t", "int32_t", "uint32_t",
    "int64_t", "uint64_t", "float", "double",
}


class CheckError(Exception):
    """A file that cannot be read as expected."""


# ---------------------------------------------------------------------------
# Text helpers


def strip_comments(text):
    text = re.sub(r"/\*.*?\*/", " ", text, flags=re.S)
    return re.sub(r"//[^\n]*", " ", text)


def split_top(text, separator):
    """Splits at `separator` where no bracket of any kind is open."""
    parts, depth, current = [], 0, []
    for ch in text:
        if ch in "([{<":
            depth += 1
        elif ch in ")]}>":
            depth -= 1
        if ch == separator and depth == 0:
            parts.append("".join(current))
            current = []
        else:
            current.append(ch)
    parts.append("".join(current))
    return [p.strip() for p in parts if p.strip()]


def block_after(text, start, what):
    """The text between the brace that follows `start` and its partner."""
    open_at = text.find("{", start)
    if open_at < 0:
        raise CheckError("no body found for %s" % what)
    depth = 0
    for i in range(open_at, len(text)):
        if text[i] == "{":
            depth += 1
        elif text[i] == "}":
            depth -= 1
            if depth == 0:
                return text[open_at + 1:i]
    raise CheckError("unbalanced braces in %s" % what)


def canonical(cpp_type):
    """One spelling per C++ type: no namespace qualifiers, no optional blanks."""
    t = re.sub(r"(?:::)?(?:\w+::)+(?=\w)", "", cpp_type)
    t = re.sub(r"\s+", " ", t).strip()
    t = re.sub(r"\s*([<>,&*])\s*", r"\1", t)
    return t.replace(",", ", ")


def split_param(param, what):
    match = re.fullmatch(r"(.*?[\w>&*\]])\s*\b(\w+)", param.strip(), flags=re.S)
    if not match:
        raise CheckError("cannot read parameter '%s' in %s" % (param.strip(), what))
    return match.group(1).strip(), match.group(2)


def remove_attributes(text):
    """Drops __attribute__((...)) with any nesting inside."""
    out, i = [], 0
    while True:
        at = text.find("__attribute__", i)
        if at < 0:
            out.append(text[i:])
            return "".join(out)
        out.append(text[i:at])
        j = text.index("(", at)
        depth = 0
        while True:
            if text[j] == "(":
                depth += 1
            elif text[j] == ")":
                depth -= 1
                if depth == 0:
                    break
            j += 1
        i = j + 1


# ---------------------------------------------------------------------------
# .hal files


def read_hal(path):
    with open(path, encoding="utf-8") as f:
        text = strip_comments(f.read())
    package = re.search(r"\bpackage\s+([\w.]+@[\d.]+)\s*;", text)
    if not package:
        raise CheckError("%s: no package line" % path)
    imports = re.findall(r"\bimport\s+([\w.@:]+)\s*;", text)
    decls = []
    for match in re.finditer(r"\b(interface|struct|enum|union|typedef)\s+(\w+)([^{;]*)", text):
        kind, name, tail = match.groups()
        if kind not in ("interface", "struct"):
            raise CheckError("%s: %s %s is not supported by this check" % (path, kind, name))
        body = block_after(text, match.end(), "%s %s" % (kind, name))
        decls.append((kind, name, tail.strip(), body))
    return package.group(1), imports, decls


def hal_fields(name, body):
    fields = []
    for statement in split_top(body, ";"):
        hal_type, field = split_param(statement, "struct %s" % name)
        fields.append((hal_type, field))
    return fields


def hal_operations(name, body):
    ops = []
    pattern = re.compile(r"(oneway\s+)?(\w+)\s*\((.*?)\)\s*(?:generates\s*\((.*)\))?\s*$", re.S)
    for statement in split_top(body, ";"):
        match = pattern.fullmatch(statement)
        if not match:
            raise CheckError("cannot read operation '%s' of %s" % (statement, name))
        oneway, op, args, results = match.groups()
        what = "%s::%s" % (name, op)
        ops.append({
            "name": op,
            "oneway": bool(oneway),
            "args": [split_param(a, what) for a in split_top(args, ",")],
            "results": [split_param(r, what) for r in split_top(results or "", ",")],
        })
    return ops


class TypeMap:
    """Maps HIDL types to the C++ types the code generator uses."""

    def __init__(self, structs, interfaces):
        self.structs = structs
        self.interfaces = interfaces

    def element(self, hal_type):
        t = hal_type.strip()
        array = re.fullmatch(r"(.+?)((?:\[\s*\d+\s*\])+)", t)
        if array:
            sizes = re.findall(r"\d+", array.group(2))
            return "hidl_array<%s, %s>" % (self.element(array.group(1)), ", ".join(sizes))
        vec = re.fullmatch(r"vec\s*<(.+)>", t)
        if vec:
            return "hidl_vec<%s>" % self.element(vec.group(1))
        if t in SCALARS:
            return t
        if t == "string":
            return "hidl_string"
        if t == "handle":
            return "hidl_handle"
        if t in self.interfaces:
            return "sp<%s>" % t
        if t in self.structs:
            return t
        raise CheckError("unknown HIDL type '%s'" % t)

    def parameter(self, hal_type):
        """How an argument (or a result handed to a callback) is passed."""
        cpp = self.element(hal_type)
        return cpp if cpp in SCALARS else "const %s&" % cpp


# ---------------------------------------------------------------------------
# Host headers


def header_namespaces(text):
    return re.findall(r"\bnamespace\s+(\w+)\s*\{", text)


def header_structs(path):
    with open(path, encoding="utf-8") as f:
        text = strip_comments(f.read())
    structs = []
    for match in re.finditer(r"\bstruct\s+(\w+)\s+(?:final\s*)?\{", text):
        name = match.group(1)
        body = remove_attributes(block_after(text, match.start(), "struct %s" % name))
        fields = []
        for statement in split_top(body, ";"):
            cpp_type, field = split_param(statement, "struct %s" % name)
            fields.append((canonical(cpp_type), field))
        structs.append((name, fields))
    return text, structs


def header_interface(path, name):
    with open(path, encoding="utf-8") as f:
        text = strip_comments(f.read())
    match = re.search(r"\bstruct\s+%s\s*:\s*public\s+([\w:]+)\s*\{" % name, text)
    if not match:
        raise CheckError("%s: no 'struct %s : public ...' found" % (path, name))
    base = canonical(match.group(1))
    body = block_after(text, match.start(), "struct %s" % name)
    callbacks, aliases, ops = {}, {}, []
    for statement in split_top(body, ";"):
        statement = re.sub(r"\s+", " ", statement)
        function = re.fullmatch(r"using (\w+) = std::function<void\((.*)\)>", statement)
        alias = re.fullmatch(r"using (\w+) = ([\w:]+)", statement)
        virtual = re.fullmatch(r"virtual (.+?) (\w+)\((.*)\)( const)?(?: override)? = 0", statement)
        if function:
            what = "%s::%s" % (name, function.group(1))
            callbacks[function.group(1)] = [
                (canonical(t), n)
                for t, n in (split_param(p, what) for p in split_top(function.group(2), ","))
            ]
        elif alias:
            aliases[alias.group(1)] = alias.group(2)
        elif virtual:
            what = "%s::%s" % (name, virtual.group(2))
            ops.append({
                "name": virtual.group(2),
                "result": canonical(virtual.group(1)),
                "const": bool(virtual.group(4)),
                "args": [(canonical(t), n)
                         for t, n in (split_param(p, what)
                                      for p in split_top(virtual.group(3), ","))],
            })
        elif statement.startswith("virtual"):
            raise CheckError("%s: cannot read '%s'" % (path, statement))
    return text, base, callbacks, aliases, ops


# ---------------------------------------------------------------------------
# Comparison


def fmt_params(params):
    return "(%s)" % ", ".join("%s %s" % p for p in params)


def expected_operation(op, types):
    """The C++ declaration the generator makes of one HIDL operation."""
    args = [(canonical(types.parameter(t)), n) for t, n in op["args"]]
    results = op["results"]
    callback = None
    if not results:
        result = "Return<void>"
    elif len(results) == 1 and types.element(results[0][0]) in SCALARS:
        result = "Return<%s>" % types.element(results[0][0])
    else:
        result = "Return<void>"
        callback = [(canonical(types.parameter(t)), n) for t, n in results]
        args.append(("%s_cb" % op["name"], "_hidl_cb"))
    return result, args, callback


def package_namespaces(package):
    name, version = package.split("@")
    return name.split(".") + ["V" + version.replace(".", "_")]


def compare_interface(root, hal_rel, header_rel, types, problems):
    hal_path = os.path.join(root, HAL_DIR, hal_rel)
    header_path = os.path.join(root, HEADER_DIR, header_rel)
    package, imports, decls = read_hal(hal_path)
    interfaces = [d for d in decls if d[0] == "interface"]
    if len(interfaces) != 1:
        raise CheckError("%s: expected one interface, found %d" % (hal_path, len(interfaces)))
    _, name, tail, body = interfaces[0]
    hal_ops = hal_operations(name, body)
    text, base, callbacks, aliases, ops = header_interface(header_path, name)
    where = os.path.relpath(header_path, root)

    if header_namespaces(text) != package_namespaces(package):
        problems.append("%s: namespaces %s do not match package %s"
                        % (where, "::".join(header_namespaces(text)), package))
    parent = tail.split()[-1].split("::")[-1] if tail.startswith("extends") else "IBase"
    if base != parent:
        problems.append("%s: %s derives from %s, the .hal says %s" % (where, name, base, parent))

    for imported in imports:
        if "::" not in imported:
            continue
        imported_package, record = imported.split("::")
        target = aliases.get(record)
        expected = "::" + "::".join(package_namespaces(imported_package) + [record])
        if target != expected:
            problems.append("%s: %s should be 'using %s = %s;' (found %s)"
                            % (where, record, record, expected, target))

    hal_names = [op["name"] for op in hal_ops]
    names = [op["name"] for op in ops]
    for i, op_name in enumerate(hal_names):
        if op_name not in names:
            problems.append("%s: %s operation %d '%s' is missing from the header"
                            % (where, name, i + 1, op_name))
    for i, op_name in enumerate(names):
        if op_name not in hal_names:
            problems.append("%s: %s operation '%s' (the header's operation %d) is not in %s"
                            % (where, name, op_name, i + 1, hal_rel))
    hal_common = [n for n in hal_names if n in names]
    common = [n for n in names if n in hal_names]
    if hal_common != common:
        first = next((i for i, (a, b) in enumerate(zip(hal_common, common)) if a != b),
                     min(len(hal_common), len(common)))
        problems.append("%s: %s operations are out of order from '%s' on:\n"
                        "      header: %s ...\n      .hal:   %s ..."
                        % (where, name, hal_common[first], ", ".join(common[first:first + 4]),
                           ", ".join(hal_common[first:first + 4])))

    declared = {op["name"]: op for op in ops}
    for hal_op in hal_ops:
        op = declared.get(hal_op["name"])
        if hal_op["oneway"] and hal_op["results"]:
            problems.append("%s: oneway operation %s generates results" % (hal_rel, hal_op["name"]))
        if op is None:
            continue
        try:
            result, args, callback = expected_operation(hal_op, types)
        except CheckError as error:
            problems.append("%s: %s::%s: %s" % (hal_rel, name, hal_op["name"], error))
            continue
        if op["const"]:
            problems.append("%s: %s::%s must not be const" % (where, name, op["name"]))
        if op["result"] != result or op["args"] != args:
            problems.append("%s: %s::%s is declared\n      %s %s%s\n    but the .hal makes it\n"
                            "      %s %s%s" % (where, name, op["name"], op["result"], op["name"],
                                              fmt_params(op["args"]), result, op["name"],
                                              fmt_params(args)))
        cb_name = "%s_cb" % op["name"]
        if callback is not None:
            if callbacks.get(cb_name) != callback:
                found = callbacks.get(cb_name)
                problems.append("%s: %s should be std::function<void%s> (found %s)"
                                % (where, cb_name, fmt_params(callback),
                                   "nothing" if found is None else
                                   "std::function<void%s>" % fmt_params(found)))
        elif cb_name in callbacks:
            problems.append("%s: %s is declared but %s hands back no record"
                            % (where, cb_name, op["name"]))

    known = {"%s_cb" % op["name"] for op in hal_ops}
    for extra in sorted(set(callbacks) - known):
        problems.append("%s: callback type %s belongs to no operation" % (where, extra))
    return len(hal_ops)


def compare_records(root, problems):
    hal_path = os.path.join(root, HAL_DIR, TYPES[0])
    header_path = os.path.join(root, HEADER_DIR, TYPES[1])
    package, _, decls = read_hal(hal_path)
    hal_structs = [(name, hal_fields(name, body)) for kind, name, _, body in decls]
    if any(kind != "struct" for kind, _, _, _ in decls):
        raise CheckError("%s: only structs are expected" % hal_path)
    text, structs = header_structs(header_path)
    where = os.path.relpath(header_path, root)

    if header_namespaces(text) != package_namespaces(package):
        problems.append("%s: namespaces %s do not match package %s"
                        % (where, "::".join(header_namespaces(text)), package))
    types = TypeMap({name for name, _ in hal_structs}, set())
    hal_names = [name for name, _ in hal_structs]
    names = [name for name, _ in structs]
    if hal_names != names:
        problems.append("%s: records are\n      %s\n    but %s defines\n      %s"
                        % (where, ", ".join(names), TYPES[0], ", ".join(hal_names)))
    header_by_name = dict(structs)
    for name, fields in hal_structs:
        if name not in header_by_name:
            continue
        try:
            expected = [(canonical(types.element(t)), f) for t, f in fields]
        except CheckError as error:
            problems.append("%s: struct %s: %s" % (TYPES[0], name, error))
            continue
        found = header_by_name[name]
        if expected != found:
            lines = []
            for i in range(max(len(expected), len(found))):
                want = "%s %s" % expected[i] if i < len(expected) else "(nothing)"
                got = "%s %s" % found[i] if i < len(found) else "(nothing)"
                if want != got:
                    lines.append("      field %d: header has '%s', .hal has '%s'" % (i, got, want))
            problems.append("%s: struct %s differs:\n%s" % (where, name, "\n".join(lines)))
    return hal_names


def main(argv):
    here = os.path.dirname(os.path.abspath(__file__))
    root = argv[1] if len(argv) > 1 else os.path.dirname(here)
    problems = []
    try:
        records = compare_records(root, problems)
        interfaces = set()
        for hal_rel, _ in INTERFACES:
            _, _, decls = read_hal(os.path.join(root, HAL_DIR, hal_rel))
            interfaces.update(name for kind, name, _, _ in decls if kind == "interface")
        types = TypeMap(set(records), interfaces)
        operations = 0
        for hal_rel, header_rel in INTERFACES:
            operations += compare_interface(root, hal_rel, header_rel, types, problems)
    except (CheckError, OSError) as error:
        print("interfaces: %s" % error, file=sys.stderr)
        return 1
    if problems:
        print("interfaces: the host headers do not match the .hal files:", file=sys.stderr)
        for problem in problems:
            print("  " + problem, file=sys.stderr)
        return 1
    print("interfaces: %d operations, %d records match" % (operations, len(records)))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
