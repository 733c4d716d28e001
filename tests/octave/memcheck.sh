#!/bin/sh
# Memory check of the MEX module under valgrind: one round of calls of every
# kind (dhc_memcheck_calls.m), then fifteen.  Fails when valgrind reports an
# invalid access or an uninitialised value, when a leak record names the
# module's code, or when the lost totals grow with the number of calls.
#   memcheck.sh OCTAVE ADDPATH_ARGUMENTS LOG_DIR
set -u
octave=$1
paths=$2
logs=$3
mkdir -p "$logs"

# Octave alone first: on some virtual CPUs a library Octave loads at start-up
# executes an instruction valgrind cannot decode (rdtscp hidden from cpuid),
# and nothing can be learnt about the module there.
valgrind --log-file="$logs/memcheck_octave.log" "$octave" --quiet --norc --no-window-system --eval "x = 1;" \
    > "$logs/memcheck_octave.out" 2>&1
if grep -q "Unrecognised instruction" "$logs/memcheck_octave.log"; then
    echo "skipped: valgrind cannot run Octave on this CPU:"
    grep -A1 "Unrecognised instruction" "$logs/memcheck_octave.log" | sed 's/^==[0-9]*== *//'
    exit 77
fi

run() {
    valgrind --leak-check=full --keep-debuginfo=yes --num-callers=30 --log-file="$logs/memcheck_$1.log" \
        "$octave" --quiet --norc --no-window-system --eval "addpath($paths); dhc_memcheck_calls($1)" \
        > "$logs/memcheck_$1.out" 2>&1
    if [ $? -ne 0 ]; then
        echo "the calls failed under valgrind ($1 rounds):"; cat "$logs/memcheck_$1.out"; exit 1
    fi
}
totals() { grep -E '(definitely|indirectly) lost:' "$logs/memcheck_$1.log" | sed 's/^==[0-9]*== *//'; }

run 1
run 15
status=0
if grep -qE 'Invalid (read|write|free)|uninitialised|Mismatched free' "$logs/memcheck_15.log"; then
    echo "valgrind reports invalid accesses, see $logs/memcheck_15.log"; status=1
fi
if grep -qE 'mexFunction|mxGrip|dhcConfig|DHC::|Potts' "$logs/memcheck_15.log"; then
    echo "a leak record names the module's code, see $logs/memcheck_15.log"; status=1
fi
if [ "$(totals 1)" != "$(totals 15)" ]; then
    echo "lost memory grows with the number of calls:"; totals 1; echo "--"; totals 15; status=1
fi
[ $status -eq 0 ] && { echo "150 calls: no leak of the module's memory, no invalid access"; totals 15; }
exit $status
