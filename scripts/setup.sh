#!/usr/bin/env bash
# Installs every Debian package that building and testing need. Idempotent, no input, run as root.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config git clang-format
  libcurl4-openssl-dev libssl-dev zlib1g-dev libbrotli-dev
  rapidjson-dev
  libgtest-dev libgmock-dev libcpp-httplib-dev libbenchmark-dev
  openssl ca-certificates locales
  libcli11-dev libedit-dev libsqlite3-dev sqlite3 tmux
  libpq-dev postgresql-15 libpg-query-dev
  clang-14 libclang-rt-14-dev clang-format-14 clang-tidy-14
  libsimdjson-dev
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done

if ((${#missing[@]})); then
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -q
  apt-get install -y -q --no-install-recommends "${missing[@]}"
fi

# A comma-decimal locale, so that the tests can show numbers are written the same under it.
if ! locale -a 2>/dev/null | grep -qi '^de_DE\.utf-\?8$'; then
  sed -i 's/^# *de_DE.UTF-8 UTF-8/de_DE.UTF-8 UTF-8/' /etc/locale.gen
  grep -q '^de_DE.UTF-8 UTF-8' /etc/locale.gen || echo 'de_DE.UTF-8 UTF-8' >>/etc/locale.gen
  locale-gen >/dev/null
fi
