# Writes a GoogleMock method for every operation of a generated HIDL interface header.
#
# usage: mock_methods.py GENERATED_HEADER OUTPUT
#
# The test fake mocks whatever the .hal declares: an operation added to the contract is in the
# mock at the next build, with the generated signature, and nothing is written by hand.
import os
import re
import sys

OPERATION = re.compile(r"^\s*virtual (::android::hardware::Return<\w+>) (\w+)\((.*)\) = 0;$")


def argument_types(arguments):
    # The parameters' types, each in parentheses to keep template commas whole in the macro.
    types, depth, current = [], 0, ""
    for c in arguments + ",":
        depth += {"<": 1, ">": -1}.get(c, 0)
        if c == "," and depth == 0:
            if current.strip():
                types.append("(" + current.strip().rsplit(" ", 1)[0] + ")")  # without the name
            current = ""
        else:
            current += c
    return ", ".join(types)


def main(header, output):
    lines = []
    with open(header, encoding="utf-8") as source:
        for match in filter(None, map(OPERATION.match, source)):
            result, name, arguments = match.groups()
            lines.append(f"MOCK_METHOD({result}, {name}, ({argument_types(arguments)}), (override));")
    if not lines:
        sys.exit(f"{header}: no operations found")
    os.makedirs(os.path.dirname(output), exist_ok=True)
    with open(output, "w", encoding="utf-8") as out:
        out.write("// Generated from " + header + " by mock_methods.py.\n")
        out.write("#define VISTREL_MOCK_METHODS \\\n    " + " \\\n    ".join(lines) + "\n")


if __name__ == "__main__":
    main(*sys.argv[1:])
