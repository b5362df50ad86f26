#!/bin/bash
# Stands in for the program during an end-to-end run and records every
# invocation (test, arguments, output, status, digests of the files named in
# the arguments), so that two builds can be compared byte for byte with
# tests/tools/compare_runs.py. Link this script under the program's name
# (vondral, ctar) and point VONDRAL_BIN / CTAR_BIN at the links; the program
# run is the one of that name in VONDRAL_REAL_DIR, and the records go to
# VONDRAL_RECORD_DIR. Tests that signal the process run it directly: a
# signal must reach the program, not this script.
real=${VONDRAL_REAL_DIR:?VONDRAL_REAL_DIR not set}/$(basename "$0")
dir=${VONDRAL_RECORD_DIR:?VONDRAL_RECORD_DIR not set}
case "${PYTEST_CURRENT_TEST:-}" in
  *test_termination*|*sigterm*|*write_fault*) exec "$real" "$@" ;;
esac
run=$(mktemp -d "$dir/run.XXXXXXXX")
printf '%s\n' "${PYTEST_CURRENT_TEST:-}" > "$run/test"
printf '%s\n' "$(basename "$0")" "$@" > "$run/args"
"$real" "$@" > >(tee "$run/out") 2> >(tee "$run/err" >&2)
status=$?
echo "$status" > "$run/status"
for arg in "$@"; do
  [ -f "$arg" ] && printf '%s %s\n' "$(/usr/bin/python3 "$(dirname "$(readlink -f "$0")")/archive_digest.py" "$arg")" "$arg"
done > "$run/files"
wait
exit "$status"
