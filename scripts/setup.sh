#!/usr/bin/env bash
# Installs everything the build, the tests, the benchmarks and the demo need
# on a Debian 12 machine. Safe to run again: only missing packages are
# installed, and the package lists are refreshed once, only when needed.
set -euo pipefail

packages=(
  build-essential cmake pkg-config clang-format
  libmariadb-dev libssl-dev mariadb-server mariadb-client
  galera-4 rsync iproute2
  libgmime-3.0-dev libidn-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  clang libclang-rt-14-dev
  postfix lintian
  python3
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ "${#missing[@]}" -eq 0 ]; then
  echo "setup: all packages present"
  exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi

echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
# Postfix is installed for a test that runs a private instance of it; the
# machine's own instance stays unconfigured (no main.cf) and is not started.
if [[ " ${missing[*]} " == *" postfix "* ]]; then
  echo "postfix postfix/main_mailer_type select No configuration" | $SUDO debconf-set-selections
fi
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
echo "setup: done"
