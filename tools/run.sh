#!/usr/bin/env bash
# What `make run` shows: the library against an emulated 4K HDR TV (the
# built-in EDID of vistrelctl), its state, its capabilities and its formats.
set -euo pipefail
build=${1:-build}
ctl="$build/tools/vistrelctl/vistrelctl"
for command in status caps formats; do
    echo "== vistrelctl $command"
    "$ctl" "$command"
    echo
done
echo "More: $ctl --help"
