#!/bin/sh
# Builds the libFuzzer targets with clang into build-fuzz, replays every kept
# regression input, then fuzzes each target for FUZZ_SECONDS (default 30)
# starting from its seed corpus. Exits non-zero on any crash, sanitizer
# report, leak, time-out or failed check, naming the saved input.
#
#   FUZZ_SECONDS=3600 tests/fuzz/run.sh            a long run
#   FUZZ_TARGETS="listing ctar_header" tests/fuzz/run.sh
#   FUZZ_SECONDS=0 tests/fuzz/run.sh               regressions and seeds only
set -u

here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
build=${FUZZ_BUILD:-$root/build-fuzz}
seconds=${FUZZ_SECONDS:-30}
targets=${FUZZ_TARGETS:-"reply_reader pasv_reply listing ctar_header match_path_file restore_reply restore_driver ctar_survey"}
jobs=${FUZZ_JOBS:-$(nproc 2>/dev/null || echo 2)}

# Longest input worth trying per target: a few reply buffers' worth of
# server bytes; a reply line; listing lines around the 4096-byte carry
# buffer; one header block and a size byte; a path and a path file; a reply;
# archives of a few blocks for the restore driver and for ctar's survey.
max_len() {
  case $1 in
    reply_reader) echo 16384 ;;
    pasv_reply) echo 4200 ;;
    listing) echo 20000 ;;
    ctar_header) echo 513 ;;
    match_path_file) echo 12000 ;;
    restore_reply) echo 512 ;;
    restore_driver) echo 8192 ;;
    ctar_survey) echo 16384 ;;
    *) echo 4096 ;;
  esac
}

if ! command -v clang++ >/dev/null 2>&1; then
  echo "fuzz: clang++ not found; install clang and libclang-rt-14-dev (tools/install-deps.sh)" >&2
  exit 1
fi

mkdir -p "$build"
if ! CXX=clang++ cmake -S "$here" -B "$build" -DCMAKE_BUILD_TYPE= >"$build/configure.log" 2>&1; then
  cat "$build/configure.log" >&2
  echo "fuzz: configuring $build failed" >&2
  exit 1
fi
if ! cmake --build "$build" -j"$jobs" >"$build/build.log" 2>&1; then
  cat "$build/build.log" >&2
  echo "fuzz: building the fuzz targets failed" >&2
  exit 1
fi

# Leaks are findings; undefined behaviour stops at the first report.
ASAN_OPTIONS="detect_leaks=1:allocator_may_return_null=0:symbolize=1"
UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
export ASAN_OPTIONS UBSAN_OPTIONS
if [ -x /usr/lib/llvm-14/bin/llvm-symbolizer ]; then
  ASAN_SYMBOLIZER_PATH=/usr/lib/llvm-14/bin/llvm-symbolizer
  export ASAN_SYMBOLIZER_PATH
fi

# Shows the sanitizer or check report of a failed run and where libFuzzer
# kept the input.
report() {
  grep -E "ERROR: (AddressSanitizer|LeakSanitizer|UndefinedBehaviorSanitizer|libFuzzer)|runtime error:|FUZZ CHECK FAILED|SUMMARY:|Test unit written to|ALARM|out-of-memory" "$1" | head -20 >&2
  echo "fuzz: full log: $1" >&2
}

# First figure of the named statistic in a libFuzzer log.
figure() {
  sed -n "s/^stat::$2: *\([0-9]*\).*/\1/p" "$1" | head -1
}

failed=0
summary="$build/summary.txt"
printf '%-16s %12s %8s %10s %14s %10s  %s\n' target executions seconds "exec/s" "coverage" "new units" result >"$summary"
for t in $targets; do
  bin="$build/fuzz_$t"
  log="$build/fuzz_$t.log"
  if [ ! -x "$bin" ]; then
    echo "fuzz: no target $t" >&2
    failed=1
    continue
  fi

  # Every input that once made a finding must keep passing.
  regressions=$(find "$here/regressions/$t" -type f ! -name README.md ! -name '.*' 2>/dev/null | sort)
  if [ -n "$regressions" ]; then
    # shellcheck disable=SC2086
    if ! "$bin" $regressions >"$build/regress_$t.log" 2>&1; then
      echo "fuzz: $t: a kept regression input fails again" >&2
      report "$build/regress_$t.log"
      failed=1
      continue
    fi
    echo "fuzz: $t: $(echo "$regressions" | wc -l) regression inputs pass"
  fi

  # New inputs go to a working corpus in the build tree; the seeds in the
  # source tree are only read.
  work="$build/corpus/$t"
  artifacts="$build/artifacts/$t"
  mkdir -p "$work" "$artifacts"
  if [ "$seconds" -le 0 ]; then
    if ! "$bin" "$here/corpus/$t"/* >"$log" 2>&1; then
      echo "fuzz: $t: a seed input fails" >&2
      report "$log"
      failed=1
    fi
    continue
  fi
  # The words of each format (reply codes, month names, phrases) help the
  # mutations past the first comparisons.
  dict=""
  [ -f "$here/dict/$t.dict" ] && dict="-dict=$here/dict/$t.dict"
  # shellcheck disable=SC2086
  "$bin" -max_total_time="$seconds" -max_len="$(max_len "$t")" -timeout=10 -rss_limit_mb=2048 \
    -print_final_stats=1 -artifact_prefix="$artifacts/" $dict "$work" "$here/corpus/$t" >"$log" 2>&1
  status=$?

  executions=$(figure "$log" number_of_executed_units)
  new_units=$(figure "$log" new_units_added)
  taken=$(sed -n 's/^Done [0-9]* runs in \([0-9]*\) second.*/\1/p' "$log" | tail -1)
  start_cov=$(sed -n 's/.*INITED cov: \([0-9]*\).*/\1/p' "$log" | head -1)
  end_cov=$(sed -n 's/.* cov: \([0-9]*\).*/\1/p' "$log" | tail -1)
  : "${executions:=?}" "${new_units:=?}" "${taken:=?}" "${start_cov:=0}" "${end_cov:=0}"
  rate="?"
  if [ "$taken" != "?" ] && [ "$taken" -gt 0 ] && [ "$executions" != "?" ]; then
    rate=$((executions / taken))
  fi
  result=ok
  [ $status -eq 0 ] || result="FAILED ($status)"
  printf '%-16s %12s %8s %10s %14s %10s  %s\n' "$t" "$executions" "$taken" "$rate" \
    "$start_cov->$end_cov(+$((end_cov - start_cov)))" "$new_units" "$result" | tee -a "$summary"
  if [ $status -ne 0 ]; then
    echo "fuzz: $t found a fault" >&2
    report "$log"
    saved=$(sed -n 's/.*Test unit written to \(.*\)$/\1/p' "$log" | tail -1)
    [ -n "$saved" ] && echo "fuzz: $t: crashing input saved at $saved" >&2
    failed=1
  fi
done

if [ "$seconds" -gt 0 ]; then
  echo
  cat "$summary"
fi
[ $failed -eq 0 ] && echo "fuzz: all targets passed" || echo "fuzz: FAILED" >&2
exit $failed
