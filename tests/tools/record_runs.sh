#!/bin/bash
# Stands in for the program during an end-to-end run and records every
# invocation (test, arguments, output, status, digests of the files named in
# the arguments), so that two builds can be compared byte for byte with
# tests/tools/compare_runs.py. Set VONDRAL_BIN to this script,
# VONDRAL_REAL_BIN to the program and VONDRAL_RECORD_DIR to an empty
# directory. Tests that signal the process run it directly: a signal must
# reach the program, not this script.
real=${VONDRAL_REAL_BIN:?VONDRAL_REAL_BIN not set}
dir=${VONDRAL_RECORD_DIR:?VONDRAL_RECORD_DIR not set}
case "${PYTEST_CURRENT_TEST:-}" in
  *test_termination*) exec "$real" "$@" ;;
esac
run=$(mktemp -d "$dir/run.XXXXXXXX")
printf '%s\n' "${PYTEST_CURRENT_TEST:-}" > "$run/test"
printf '%s\n' "$@" > "$run/args"
"$real" "$@" > >(tee "$run/out") 2> >(tee "$run/err" >&2)
status=$?
echo "$status" > "$run/status"
for arg in "$@"; do
  [ -f "$arg" ] && printf '%s %s\n' "$(sha256sum < "$arg" | cut -c1-64)" "$arg"
done > "$run/files"
wait
exit "$status"
