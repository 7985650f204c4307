#!/usr/bin/env bash
# Installs the Debian packages that building and running qorchat need; with --tests, also those of
# the tests, benchmarks, sanitizer and fuzz builds and the lint. Idempotent, run as root.
#   usage: scripts/setup.sh [--tests]
set -euo pipefail

tests=false
case "${1:-}" in
"") ;;
--tests) tests=true ;;
*)
  echo "usage: $0 [--tests]" >&2
  exit 2
  ;;
esac

# The compiler and build tools, libcurl and RapidJSON under the library, CLI11, libedit, SQLite
# (and its shell, which builds the sample), libpq, PostgreSQL's parser and md4c under qorchat, and
# the certificates HTTPS needs.
packages=(
  build-essential cmake ninja-build pkg-config
  libcurl4-openssl-dev rapidjson-dev ca-certificates
  libcli11-dev libedit-dev libsqlite3-dev sqlite3
  libpq-dev libpg-query-dev libmd4c-dev
)
# GoogleTest and a real HTTP(S) server for the tests (with openssl to make certificates), Google
# Benchmark and simdjson for the benchmarks, a throwaway PostgreSQL cluster, clang-14 and its
# sanitizer and fuzzer runtime, the lint, tmux to drive the real program, man to check the manual
# page, and locales.
test_packages=(
  git openssl locales tmux man-db
  libgtest-dev libgmock-dev libcpp-httplib-dev libssl-dev zlib1g-dev libbrotli-dev
  libbenchmark-dev libsimdjson-dev
  postgresql-15
  clang-14 libclang-rt-14-dev clang-format clang-format-14 clang-tidy-14
)
if $tests; then packages+=("${test_packages[@]}"); fi
# Node and npm run the official MCP client against qorchat --mcp; a node already on the machine is
# kept.
if $tests && ! command -v node >/dev/null; then
  packages+=(nodejs npm)
elif $tests && ! command -v npm >/dev/null; then
  packages+=(npm)
fi

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep 'install ok installed' >/dev/null || missing+=("$p")
done

if ((${#missing[@]})); then
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -q
  apt-get install -y -q --no-install-recommends "${missing[@]}"
fi

# A comma-decimal locale, so that the tests can show numbers are written the same under it.
if $tests && ! locale -a 2>/dev/null | grep -i '^de_DE\.utf-\?8$' >/dev/null; then
  sed -i 's/^# *de_DE.UTF-8 UTF-8/de_DE.UTF-8 UTF-8/' /etc/locale.gen
  grep -q '^de_DE.UTF-8 UTF-8' /etc/locale.gen || echo 'de_DE.UTF-8 UTF-8' >>/etc/locale.gen
  locale-gen >/dev/null
fi
