#!/bin/sh
# For KAL_BENCH_PROFILE with the daemon under callgrind: zeroes the daemon's
# counters when the measured case starts and dumps them when the benchmark
# stops it (SIGINT), so the dump holds that case alone. The pid comes last.
pid=$1
callgrind_control -z "$pid" >/dev/null 2>&1
trap 'callgrind_control -d "$pid" >/dev/null 2>&1; exit 0' INT TERM
while :; do sleep 0.2; done
