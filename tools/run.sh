#!/usr/bin/env bash
# What `make run` shows: the library against an emulated TV.
set -euo pipefail
build=${1:-build}
ctl="$build/tools/vistrelctl/vistrelctl"
"$ctl" status
"$ctl" caps
"$ctl" formats
