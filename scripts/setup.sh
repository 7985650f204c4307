#!/usr/bin/env bash
# Installs every Debian package that building and testing need. Idempotent, no input, run as root.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config git clang-format
  libcurl4-openssl-dev libssl-dev zlib1g-dev libbrotli-dev
  rapidjson-dev
  libgtest-dev libgmock-dev libcpp-httplib-dev libbenchmark-dev
  openssl ca-certificates
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
