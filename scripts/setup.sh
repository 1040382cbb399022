#!/usr/bin/env bash
# Installs the Debian 12 packages that building and testing need; does nothing
# when they are all present. Run as root (or with sudo available).
set -euo pipefail
pkgs=(build-essential g++ cmake ninja-build clang-14 libclang-rt-14-dev
      libgtest-dev libgmock-dev libbenchmark-dev libfmt-dev libmnl-dev
      libcli11-dev nlohmann-json3-dev libvalijson-dev libyaml-cpp-dev libsystemd-dev systemd iproute2 tshark)
# Optional, for bench/realpath only (the tests do not need it): FRRouting's
# pimd as the peer column. PIMNBR_BENCH_PEER=1 scripts/setup.sh
[ "${PIMNBR_BENCH_PEER:-0}" = 1 ] && pkgs+=(frr)
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO=sudo
echo "setup: installing ${missing[*]}" >&2
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
echo "wireshark-common wireshark-common/install-setuid boolean false" | $SUDO debconf-set-selections
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
