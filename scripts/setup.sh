#!/usr/bin/env bash
# Installs the Debian 12 packages that building and testing need; does nothing
# when they are all present. Run as root (or with sudo available).
set -euo pipefail
pkgs=(build-essential g++ cmake ninja-build clang-14 libclang-rt-14-dev
      libgtest-dev libgmock-dev libbenchmark-dev libfmt-dev libmnl-dev
      libcli11-dev nlohmann-json3-dev libvalijson-dev libyaml-cpp-dev libsystemd-dev systemd iproute2 tshark
      frr)
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
# FRRouting is a peer that the tests start per network namespace, with their
# own run directories; its packaged service must not come up in the host's
# namespace. A policy that refuses every start keeps the package scripts from
# starting it (only when no policy is in place already).
policy=/usr/sbin/policy-rc.d
if [[ " ${missing[*]} " == *" frr "* ]] && [ ! -e "$policy" ]; then
  printf '#!/bin/sh\nexit 101\n' | $SUDO tee "$policy" >/dev/null
  $SUDO chmod 755 "$policy"
  trap '$SUDO rm -f "$policy"' EXIT
fi
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
if [[ " ${missing[*]} " == *" frr "* ]]; then
  # Nor at boot; and if it came up anyway, stop it.
  if [ -d /run/systemd/system ]; then
    $SUDO systemctl disable --now frr.service >/dev/null 2>&1 || true
  else
    $SUDO update-rc.d frr disable >/dev/null 2>&1 || true
    if [ -e /var/run/frr/zebra.pid ]; then $SUDO /usr/lib/frr/frrinit.sh stop >/dev/null 2>&1 || true; fi
  fi
  host=$(readlink /proc/$$/ns/net)
  for d in watchfrr zebra staticd pimd; do
    for p in $(pgrep -x "$d" || true); do
      if [ "$($SUDO readlink "/proc/$p/ns/net" || true)" = "$host" ]; then
        echo "setup: FRR's $d (pid $p) still runs in the host's namespace" >&2
      fi
    done
  done
fi
