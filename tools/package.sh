#!/usr/bin/env bash
# The package command: bash tools/package.sh. Builds the Debian packages
# (dpkg-buildpackage -b -us -uc) from a copy of this tree in build/package/src,
# so the packages (and the build's leftovers) land in build/package and not
# beside the checkout, then checks them with lintian.
set -euo pipefail
cd "$(dirname "$0")/.."

bash tools/install-deps.sh package

out=build/package
rm -rf "$out"
mkdir -p "$out/src"
tar --exclude=./build --exclude=./.git -cf - . | tar -C "$out/src" -xf -
(cd "$out/src" && dpkg-buildpackage -b -us -uc)
lintian --fail-on error --display-info "$out"/*.changes
ls "$out"/*.deb
