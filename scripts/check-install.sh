#!/usr/bin/env bash
# Installs a release build into a scratch prefix outside the tree and builds a host against it
# with the README's commands, through find_package(qor) and through pkg-config; runs both hosts
# against a loopback stand-in of a model server. Also compiles a translation unit that includes
# nothing but qor.h as C++17, checks the version it sees, and checks that libqor.so exports only
# the host's functions.
set -euo pipefail
cd "$(dirname "$0")/.."

# A build folder of its own, so that the check never races another build of the tree.
build=${QOR_CHECK_BUILD:-build/install-check}
[ -f "$build/build.ninja" ] ||
  cmake --preset release -B "$build" -DBUILD_TESTING=OFF -DQOR_BUILD_BENCHMARKS=OFF \
    -DQOR_BUILD_EXAMPLES=OFF >/dev/null
cmake --build "$build"

work=$(mktemp -d)
standin_pid=
cleanup() {
  [ -z "$standin_pid" ] || kill "$standin_pid" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
prefix="$work/prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null
fail() {
  echo "check-install: $*" >&2
  exit 1
}

# Exactly six exported functions of our own.
exported=$(nm -D --defined-only "$prefix/lib/libqor.so" | awk '{print $3}' | grep -v '^_init$\|^_fini$' | c++filt)
echo "$exported"
count=$(printf '%s\n' "$exported" | grep -c .)
[ "$count" -eq 6 ] || fail "libqor.so exports $count symbols, expected 6"
ldd "$prefix/lib/libyl.so" | grep libcurl >/dev/null || fail "libyl.so does not link libcurl"

# libcurl is libyl.so's own business: the package asks hosts for nothing but C++17.
! grep -rq 'CURL::\|find_dependency(' "$prefix/lib/cmake/qor/" || fail "the CMake package needs libcurl"
! grep -q '^Requires.*curl' "$prefix/lib/pkgconfig/yl.pc" || fail "yl.pc needs libcurl"
grep -q 'INTERFACE_COMPILE_FEATURES "cxx_std_17"' "$prefix/lib/cmake/qor/qorTargets.cmake" ||
  fail "qor::qor does not ask for C++17"
grep -q 'INTERFACE_COMPILE_FEATURES "cxx_std_17"' "$prefix/lib/cmake/qor/ylTargets.cmake" ||
  fail "yl::yl does not ask for C++17"

# The README's commands, with the prefix above.
export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
version=$(pkg-config --modversion qor)

# A translation unit that includes nothing but qor.h, as C++17: the version macros agree with the
# package, and the default user agent names the same version.
cat >"$work/alone.cpp" <<'CPP'
#include "qor.h"

static_assert(QOR_VERSION_MAJOR >= 0 && QOR_VERSION_MINOR >= 0 && QOR_VERSION_PATCH >= 0);

int main() {
  const std::string version = std::to_string(QOR_VERSION_MAJOR) + "." +
                              std::to_string(QOR_VERSION_MINOR) + "." +
                              std::to_string(QOR_VERSION_PATCH);
  if (version != QOR_VERSION_STRING || version != EXPECTED_VERSION) return 1;
  if (YLRestGlobalSettings().userAgent != "libqor/" + version) return 2;
  return QORCreateAssistant(static_cast<QORAssistantType>(9), nullptr, "", "", nullptr) ? 3 : 0;
}
CPP
c++ -std=c++17 -Wall -Wextra -Wpedantic -Werror -DEXPECTED_VERSION="\"$version\"" \
  "$work/alone.cpp" -o "$work/alone" \
  $(pkg-config --cflags --libs qor) -Wl,-rpath,"$(pkg-config --variable=libdir qor)"
"$work/alone" || fail "qor.h alone: check $? failed"

# The same host twice: through find_package, and through pkg-config as C++17.
mkdir -p "$work/host"
cp examples/chat.cpp "$work/host/"
cat >"$work/host/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(host CXX)
find_package(qor 0.1 REQUIRED)
add_executable(chat chat.cpp)
target_link_libraries(chat PRIVATE qor::qor)
CMAKE
cmake -S "$work/host" -B "$work/host/build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/host/build" >/dev/null
c++ -std=c++17 "$work/host/chat.cpp" -o "$work/host/chat-pkgconfig" \
  $(pkg-config --cflags --libs qor) -Wl,-rpath,"$(pkg-config --variable=libdir qor)"

# The stand-in of a local model server: it lists one model, answers the first chat with 503 (the
# example asks again), and puts the request's number and user agent into its answer.
cat >"$work/standin.cpp" <<'CPP'
#include <httplib.h>

#include <atomic>
#include <cstdio>
#include <string>

int main() {
  httplib::Server server;
  std::atomic<int> chats{0};
  server.Get("/api/tags", [](const httplib::Request&, httplib::Response& res) {
    res.set_content(R"({"models":[{"name":"stand-in"}]})", "application/json");
  });
  server.Post("/api/chat", [&chats](const httplib::Request& req, httplib::Response& res) {
    const int number = ++chats;
    if (number % 2 == 1) {
      res.status = 503;
      res.set_header("Retry-After", "0");
      res.set_content(R"({"error":"busy"})", "application/json");
    } else if (req.body.find("\"stand-in\"") == std::string::npos ||
               req.body.find("orders") == std::string::npos) {
      res.status = 400;
      res.set_content(R"({"error":"no model or no schema in the request"})", "application/json");
    } else {
      res.set_content(R"({"model":"stand-in","message":{"role":"assistant","content":")"
                      "SELECT MAX(total) FROM orders; -- answer to request " +
                          std::to_string(number) + " from " + req.get_header_value("User-Agent") +
                          R"("},"done":true})",
                      "application/json");
    }
  });
  const int port = server.bind_to_any_port("127.0.0.1");
  std::printf("%d\n", port);
  std::fflush(stdout);
  return server.listen_after_bind() ? 0 : 1;
}
CPP
c++ -std=c++17 "$work/standin.cpp" -o "$work/standin" -pthread $(pkg-config --cflags --libs cpp-httplib)
"$work/standin" >"$work/standin.port" &
standin_pid=$!
for _ in $(seq 100); do
  [ -s "$work/standin.port" ] && break
  sleep 0.05
done
port=$(cat "$work/standin.port")
[ -n "$port" ] || fail "the stand-in did not start"

run=0
for host in "$work/host/build/chat" "$work/host/chat-pkgconfig"; do
  run=$((run + 2))
  out=$(QOR_API_KEY= "$host" ollama "http://127.0.0.1:$port") || fail "$host failed: $out"
  echo "$out"
  grep -qx 'model: stand-in' <<<"$out" || fail "$host did not list the stand-in's model"
  grep -qx "SELECT MAX(total) FROM orders; -- answer to request $run from libqor/$version" <<<"$out" ||
    fail "$host did not get the stand-in's answer after one retry"
done
"$work/host/chat-pkgconfig" --help | grep '^usage: ' >/dev/null || fail "the example has no usage line"

# qorchat runs from the prefix with its sample, finding the libraries beside it.
"$prefix/bin/qorchat" --version
"$prefix/bin/qorchat" --print-request "Which customers never ordered?" 2>/dev/null |
  grep 'CREATE TABLE `order_items`' >/dev/null || fail "installed qorchat cannot read its sample"

# qorchat's manual page and shell completions land where man, bash-completion and zsh look.
[ -f "$prefix/share/man/man1/qorchat.1" ] || fail "the manual page is not installed"
man --warnings -l "$prefix/share/man/man1/qorchat.1" 2>&1 >/dev/null | { ! grep .; } ||
  fail "the manual page has warnings"
[ -f "$prefix/share/bash-completion/completions/qorchat" ] || fail "the bash completion is not installed"
[ -f "$prefix/share/zsh/site-functions/_qorchat" ] || fail "the zsh completion is not installed"
bash -n "$prefix/share/bash-completion/completions/qorchat" || fail "the bash completion does not parse"

echo "install check passed"
