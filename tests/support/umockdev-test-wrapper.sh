#!/bin/sh
# Runs a test binary with umockdev's preload library, which sends /sys, /dev
# and uevents into the testbed the test builds. The preload library comes
# before the AddressSanitizer runtime in the library list; ASan's check of
# that order is switched off, everything else about ASAN_OPTIONS is kept.
ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}verify_asan_link_order=0"
export ASAN_OPTIONS
exec umockdev-wrapper "$@"
