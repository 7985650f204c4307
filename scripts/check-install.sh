#!/usr/bin/env bash
# Installs the release build into a scratch prefix and builds a host against it twice: through
# find_package(qor) and through pkg-config. Also checks that libqor.so exports only the host's
# functions.
set -euo pipefail
cd "$(dirname "$0")/.."

build=build/release
[ -f "$build/build.ninja" ] || cmake --preset release >/dev/null
cmake --build "$build"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >/dev/null

# Exactly six exported functions of our own.
exported=$(nm -D --defined-only "$work/prefix/lib/libqor.so" | awk '{print $3}' | grep -v '^_init$\|^_fini$' | c++filt)
echo "$exported"
count=$(printf '%s\n' "$exported" | grep -c .)
if [ "$count" -ne 6 ]; then
  echo "libqor.so exports $count symbols, expected 6" >&2
  exit 1
fi
ldd "$work/prefix/lib/libyl.so" | grep -q libcurl || { echo "libyl.so does not link libcurl" >&2; exit 1; }

mkdir -p "$work/host"
cp examples/chat.cpp "$work/host/"
cat >"$work/host/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(host CXX)
set(CMAKE_CXX_STANDARD 20)
find_package(qor REQUIRED)
add_executable(host chat.cpp)
target_link_libraries(host PRIVATE qor::qor)
CMAKE
cmake -S "$work/host" -B "$work/host/build" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/host/build" >/dev/null

PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig" \
  c++ -std=c++20 examples/chat.cpp -o "$work/host/pkgconfig-host" \
  $(PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig" pkg-config --cflags --libs qor)

# A host translation unit that includes nothing but qor.h.
echo '#include "qor.h"
int main() { return QORCreateAssistant(static_cast<QORAssistantType>(9), nullptr, "", "", nullptr) != nullptr; }' \
  >"$work/host/alone.cpp"
c++ -std=c++20 -Wall -Wextra -Wpedantic -Werror -I"$work/prefix/include" "$work/host/alone.cpp" \
  -L"$work/prefix/lib" -lqor -lyl -Wl,-rpath,"$work/prefix/lib" -o "$work/host/alone"
"$work/host/alone"

# qorchat runs from the prefix with its sample, finding the libraries beside it.
"$work/prefix/bin/qorchat" --version
"$work/prefix/bin/qorchat" --print-request "Which customers never ordered?" 2>/dev/null |
  grep -q 'CREATE TABLE `order_items`' || { echo "installed qorchat cannot read its sample" >&2; exit 1; }

echo "install check passed"
