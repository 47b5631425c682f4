#!/usr/bin/env bash
# Installs the Debian 12 packages the project builds, tests and demos with;
# `install-deps.sh package` also what building the Debian packages takes
# (tools/package.sh), and `install-deps.sh browser` also the headless Chromium
# and its driver that the messages page's browser test uses (large, so only
# the test command asks for them). Idempotent: does nothing when everything is already
# there.
set -euo pipefail

# scdoc turns the man pages (man/*.scd) into roff: one small C program with
# no dependencies, whose markup is plain text a reviewer reads as it is.
packages=(
    g++ cmake ninja-build pkg-config clang-format scdoc
    libsystemd-dev libudev-dev libplist-dev
    libgtest-dev libgmock-dev libbenchmark-dev
    libsqlite3-dev libsndfile1-dev libsamplerate0-dev libinih-dev espeak-ng libcpp-httplib-dev
    dbus-daemon umockdev libumockdev-dev python3-dbusmock
    clang libclang-rt-14-dev
)
if [ "${1:-}" = package ]; then
    packages+=(build-essential dpkg-dev debhelper lintian)
fi
if [ "${1:-}" = browser ]; then
    packages+=(chromium chromium-driver)
fi

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q '^install ok installed$'; then
        missing+=("$p")
    fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO="sudo"
echo "Installing: ${missing[*]}"
$SUDO apt-get update -qq
DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
