# Writes the host transport's marshalling for the interfaces of one HIDL package: the
# methods of each interface's socket proxy, each interface's dispatch function on the
# serving side, and the field lists of the package's structures.
#
# usage: remote_methods.py OUTPUT TYPES_HEADER HAL_DIR INTERFACE_HEADER...
#
# Everything comes from hidl-gen's headers (signatures, structure fields, in declaration
# order) and from the .hal files (which methods are oneway), so an operation added to the
# contract crosses between processes at the next build with nothing written by hand.
# Transaction codes follow the declaration order from 1, as in HIDL.
import glob
import os
import re
import sys

OPERATION = re.compile(r"^\s*virtual ::android::hardware::Return<(.+?)> (\w+)\((.*)\) = 0;$")
CALLBACK = re.compile(r"^\s*using (\w+_cb) = std::function<void\((.*)\)>;$")
STRUCT = re.compile(r"^struct (\w+) final \{$")
FIELD = re.compile(r"^\s+(.+?) (\w+) __attribute__ \(\(aligned\(\d+\)\)\);$")
NAMESPACE = re.compile(r"^namespace (\w+) \{$")
ONEWAY = re.compile(r"\boneway\s+(\w+)\s*\(")


def split_parameters(text):
    # "type name" pairs, keeping template commas whole.
    parameters, depth, current = [], 0, ""
    for c in text + ",":
        depth += {"<": 1, ">": -1}.get(c, 0)
        if c == "," and depth == 0:
            if current.strip():
                kind, name = current.strip().rsplit(" ", 1)
                parameters.append((kind, name))
            current = ""
        else:
            current += c
    return parameters


def value_type(kind):
    # The type a received argument is held in: no const, no reference.
    return re.sub(r"^const ", "", kind).rstrip("&").strip()


def structures(types_header):
    out, namespaces, current = [], [], None
    with open(types_header, encoding="utf-8") as source:
        for line in source:
            if m := NAMESPACE.match(line):
                namespaces.append(m.group(1))
            elif m := STRUCT.match(line):
                current = ("::" + "::".join(namespaces) + "::" + m.group(1), [])
            elif current and line.startswith("};"):
                out.append(current)
                current = None
            elif current and (m := FIELD.match(line)):
                current[1].append(m.group(2))
    return out


def interface(header, oneway):
    name = os.path.basename(header)[:-2]
    callbacks, operations = {}, []
    with open(header, encoding="utf-8") as source:
        for line in source:
            if m := CALLBACK.match(line):
                callbacks[m.group(1)] = m.group(2)
            elif m := OPERATION.match(line):
                result, method, parameters = m.groups()
                operations.append((result, method, split_parameters(parameters)))
    if not operations:
        sys.exit(f"{header}: no operations found")
    return name, callbacks, operations, oneway


def proxy_methods(name, callbacks, operations, oneway):
    lines = []
    for code, (result, method, parameters) in enumerate(operations, 1):
        signature = ", ".join(f"{k} {n}" for k, n in parameters)
        args = [n for k, n in parameters if k not in callbacks]
        if parameters and parameters[-1][0] in callbacks:
            call = f"transactResults({', '.join([str(code), parameters[-1][1]] + args)})"
        elif method in oneway:
            call = f"transactOneway({', '.join([str(code)] + args)})"
        else:
            call = f"transact<{result}>({', '.join([str(code)] + args)})"
        lines.append(f"::android::hardware::Return<{result}> {method}({signature}) override "
                     f"{{ return {call}; }}")
    return f"#define VISTREL_REMOTE_{name}_METHODS \\\n    " + " \\\n    ".join(lines) + "\n"


def dispatch_function(name, callbacks, operations, oneway):
    out = [f"static ::android::status_t dispatch{name}({name}* target, uint32_t code, "
           "::android::hardware::host::WireIn& in, ::android::hardware::host::WireOut* out, "
           "const ::android::hardware::host::CallContext& context) {",
           "    using namespace ::android::hardware::host;",
           "    (void)context;",
           "    switch (code) {"]
    for code, (result, method, parameters) in enumerate(operations, 1):
        cb = parameters[-1][0] if parameters and parameters[-1][0] in callbacks else None
        args = [(value_type(k), n) for k, n in parameters if k not in callbacks]
        out.append(f"        case {code}: {{ /* {method} */")
        for kind, arg in args:
            out.append(f"            {kind} {arg}{{}};")
        # Bytes or descriptors left over make the frame malformed, as a short one does.
        if args:
            reads = ", ".join(f"&{a}" for _, a in args)
            out.append(f"            if (!readAll(in, {reads}) || !in.finished()) "
                       "return ::android::BAD_VALUE;")
        else:
            out.append("            if (!in.finished()) return ::android::BAD_VALUE;")
        for kind, arg in args:
            if arg == "pid" and kind == "int32_t":
                out.append("            pid = context.callerPid; /* the kernel's word, not the caller's */")
        call_args = ", ".join(a for _, a in args)
        if cb:
            results = split_parameters(callbacks[cb])
            lambda_args = ", ".join(f"{k} {n}" for k, n in results)
            names = ", ".join(n for _, n in results)
            sep = ", " if call_args else ""
            out.append(f"            return replyWithResults(out, target->{method}({call_args}{sep}"
                       f"[out]({lambda_args}) {{ writeResults(out, {names}); }}));")
        else:
            out.append(f"            return reply(out, target->{method}({call_args}));")
        out.append("        }")
    # Ends in a declaration that wants the caller's semicolon, so that the use reads as one.
    out += ["        default:", "            return ::android::UNKNOWN_TRANSACTION;", "    }", "}",
            "static_assert(true, \"\")"]
    return f"#define VISTREL_REMOTE_{name}_DISPATCH \\\n" + " \\\n".join(out) + "\n"


def main(output, types_header, hal_dir, *headers):
    oneway = set()
    for hal in glob.glob(os.path.join(hal_dir, "**", "*.hal"), recursive=True):
        with open(hal, encoding="utf-8") as source:
            oneway.update(ONEWAY.findall(source.read()))
    text = ["// Generated by remote_methods.py from hidl-gen's headers. Not to be edited.", ""]
    # The field lists live beside their structures, where argument lookup finds them.
    for struct, fields in structures(types_header):
        namespace, name = struct[2:].rsplit("::", 1)
        body = " ".join(f"f(s.{field});" for field in fields)
        for const in ("const ", ""):
            text.append(f"namespace {namespace} {{ template <typename F> "
                        f"void forEachField({const}{name}& s, F&& f) {{ {body} }} }}")
    text.append("")
    for header in headers:
        parsed = interface(header, oneway)
        text.append(proxy_methods(*parsed))
        text.append(dispatch_function(*parsed))
    os.makedirs(os.path.dirname(output), exist_ok=True)
    with open(output, "w", encoding="utf-8") as out:
        out.write("\n".join(text))


if __name__ == "__main__":
    main(*sys.argv[1:])
