#!/bin/sh
# Runs a test binary with umockdev's preload library, which sends /sys, /dev
# and uevents into the testbed the test builds. The preload library comes
# before the AddressSanitizer runtime in the library list, so ASan's check of
# that order is switched off; ThreadSanitizer is told about umockdev's own
# thread (tsan-umockdev.supp). Whatever else the *SAN_OPTIONS say is kept.
here=$(cd "$(dirname "$0")" && pwd)
ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}verify_asan_link_order=0"
TSAN_OPTIONS="${TSAN_OPTIONS:+$TSAN_OPTIONS:}suppressions=$here/tsan-umockdev.supp"
export ASAN_OPTIONS TSAN_OPTIONS
exec umockdev-wrapper "$@"
