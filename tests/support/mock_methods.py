# Writes a GoogleMock method for every operation of a generated HIDL interface header.
#
# usage: mock_methods.py GENERATED_HEADER OUTPUT
#
# The test fake mocks whatever the .hal declares: an operation added to the contract is in the
# mock at the next build, with the generated signature, and nothing is written by hand.
import os
import sys

# The generated header is read as the transport's marshalling reads it.
sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "..", "platform", "interfaces"))
from remote_methods import OPERATION, split_parameters  # noqa: E402


def main(header, output):
    lines = []
    with open(header, encoding="utf-8") as source:
        for match in filter(None, map(OPERATION.match, source)):
            result, name, arguments = match.groups()
            # Each parameter type in parentheses keeps template commas whole in the macro.
            types = ", ".join(f"({kind})" for kind, _ in split_parameters(arguments))
            lines.append(f"MOCK_METHOD(::android::hardware::Return<{result}>, {name}, ({types}), "
                         "(override));")
    if not lines:
        sys.exit(f"{header}: no operations found")
    os.makedirs(os.path.dirname(output), exist_ok=True)
    with open(output, "w", encoding="utf-8") as out:
        out.write("// Generated from " + header + " by mock_methods.py.\n")
        out.write("#define VISTREL_MOCK_METHODS \\\n    " + " \\\n    ".join(lines) + "\n")


if __name__ == "__main__":
    main(*sys.argv[1:])
