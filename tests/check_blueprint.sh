#!/bin/sh
# Android.bp files are as bpfmt leaves them, and each named Android module
# compiles exactly the sources the host build compiles for it, checked with
# Blueprint's own tools (bpfmt, bpmodify).
#
# usage: check_blueprint.sh SOURCE_ROOT [MODULE FILE... --]...
set -eu
cd "$1"
shift
status=0

unformatted=$(find . -name Android.bp -not -path './build*' -exec bpfmt -l {} +)
if [ -n "$unformatted" ]; then
    echo "not as bpfmt leaves them (bpfmt -w fixes them): $unformatted"
    status=1
fi

while [ $# -gt 0 ]; do
    module=$1
    shift
    files=
    while [ "$1" != -- ]; do files="$files $1"; shift; done
    shift
    # Adding every host source changes nothing: the module has them all.
    missing=$(bpmodify -d -m "$module" -property srcs -a "$files" Android.bp | grep '^+ ' || true)
    # Removing every host source leaves nothing: the module has no other.
    extra=$(bpmodify -m "$module" -property srcs -r "$files" Android.bp |
            sed -n "/name: \"$module\"/,/^}/p" | sed -n '/^    srcs: \[/,/\]/p' | grep '"' || true)
    if [ -n "$missing$extra" ]; then
        echo "$module: Android.bp lacks [$missing ] and has more [$extra ] than the host build"
        status=1
    fi
done
[ $status -eq 0 ] && echo "Android.bp: formatted, and its modules build the host's sources"
exit $status
