#!/usr/bin/env bash
# Installs the Debian packages named as arguments that are not installed yet.
# Mirrors sometimes sync while we ask, so the package index is fetched with
# retries. Runs apt-get directly as root, through sudo otherwise.
set -euo pipefail

missing=()
for pkg in "$@"; do
    if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$pkg")
    fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

as_root=()
if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || { echo "deps: need root (or sudo) to install: ${missing[*]}" >&2; exit 1; }
    as_root=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive

# Architectures the packages ask for (name:arch) must be known to dpkg first.
for pkg in "${missing[@]}"; do
    case "$pkg" in
        *:*) arch=${pkg##*:}
             if ! dpkg --print-foreign-architectures | grep -qx "$arch" &&
                [ "$arch" != "$(dpkg --print-architecture)" ]; then
                 "${as_root[@]}" dpkg --add-architecture "$arch"
             fi ;;
    esac
done

echo "deps: installing ${missing[*]}"
for attempt in 1 2 3 4 5; do
    if "${as_root[@]}" apt-get update -qq &&
       "${as_root[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"; then
        exit 0
    fi
    echo "deps: attempt $attempt failed; the mirror may be syncing, retrying" >&2
    sleep $((attempt * 10))
done
echo "deps: could not install ${missing[*]}" >&2
exit 1
