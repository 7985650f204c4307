#!/usr/bin/env bash
# Fails on a C++ file that clang-format would change, and on any clang-tidy finding of the checks
# chosen in .clang-tidy, over the code of the libraries and of qorchat.
set -euo pipefail
cd "$(dirname "$0")/.."

format=clang-format-14
tidy=clang-tidy-14
command -v "$format" >/dev/null || format=clang-format
command -v "$tidy" >/dev/null || tidy=clang-tidy

mapfile -t sources < <(git ls-files '*.cpp' '*.h')
"$format" --dry-run --Werror "${sources[@]}"
echo "clang-format: ${#sources[@]} files conform"

# clang-tidy reads the compile commands of a configured build; configuring is enough.
build=build/lint
cmake --preset dev -B "$build" -DQOR_BUILD_BENCHMARKS=OFF >/dev/null
mapfile -t checked < <(git ls-files 'libyl/src/*.cpp' 'libqor/src/*.cpp' 'tools/qorchat/*.cpp')
# g++-only warning options in the compile commands mean nothing to clang. clang-tidy counts the
# warnings it filtered out of system headers on stderr; those counts are dropped, findings are not.
printf '%s\n' "${checked[@]}" |
  xargs -P "$(nproc)" -n 4 "$tidy" -p "$build" --quiet --extra-arg=-Wno-unknown-warning-option \
    2> >(grep -v '^[0-9]* warnings\? generated\.$' >&2)
echo "clang-tidy: ${#checked[@]} files clean"
