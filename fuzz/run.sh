#!/usr/bin/env bash
# Runs every fuzz target over its whole committed corpus, then fuzzes it for a fixed time; fails
# on the first finding. Nothing is written into fuzz/corpus/: new inputs go to a scratch folder.
#
#   fuzz/run.sh [BUILD_DIR] [SECONDS_PER_TARGET] [TARGET...]
#
# BUILD_DIR is a build of the fuzz preset (default build/fuzz), SECONDS_PER_TARGET defaults to 60,
# and the targets default to all of them. A finding leaves its input in the scratch folder, whose
# name is printed; copy it to fuzz/corpus/<target>/regression-<what> once it is fixed.
set -euo pipefail
cd "$(dirname "$0")/.."

build=${1:-build/fuzz}
seconds=${2:-60}
shift $(($# > 2 ? 2 : $#))
targets=("$@")
((${#targets[@]})) || targets=(json digest reply stream)

scratch=$(mktemp -d "${TMPDIR:-/tmp}/qor-fuzz.XXXXXX")
echo "fuzz: scratch folder $scratch"
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

for target in "${targets[@]}"; do
  binary="$build/fuzz/${target}_fuzzer"
  corpus="fuzz/corpus/$target"
  [[ -x $binary ]] || { echo "fuzz: $binary is missing; build the fuzz preset first" >&2; exit 2; }
  mkdir -p "$scratch/$target/new" "$scratch/$target/findings"
  log="$scratch/$target/log"
  options=(-dict="fuzz/corpus/$target.dict" -timeout=25 -rss_limit_mb=3072 -print_final_stats=1
           -artifact_prefix="$scratch/$target/findings/")

  # Every committed input once: the seeds and the regression inputs of past findings.
  echo "fuzz: $target: the corpus ($(find "$corpus" -type f | wc -l) inputs)"
  if ! "$binary" "${options[@]}" -runs=0 "$corpus" >"$log.corpus" 2>&1; then
    tail -n 60 "$log.corpus" >&2
    echo "fuzz: $target fails on its corpus; see $scratch/$target" >&2
    exit 1
  fi

  # New inputs for a fixed time, grown from the corpus.
  echo "fuzz: $target: ${seconds}s of fuzzing"
  if ! "$binary" "${options[@]}" -max_total_time="$seconds" "$scratch/$target/new" "$corpus" \
      >"$log" 2>&1; then
    tail -n 60 "$log" >&2
    echo "fuzz: $target found something; the input is in $scratch/$target/findings" >&2
    exit 1
  fi
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
  echo "fuzz: $target: ${runs:-?} executions without a finding"
done
rm -rf "$scratch"
