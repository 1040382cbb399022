#!/usr/bin/env bash
# A LAN of network namespaces to run pimnbrd on: routers pnl-r1..pnl-rN,
# each with one leg (eth0) on a bridge in the switch namespace pnl-sw,
# addresses 198.18.0.<i>/24 and 2001:db8::<i>/64, and a configuration file
# per router in $PNL_DIR (default /tmp/pnl).
#
#   scripts/netns-lab.sh up [N]   # N routers, default 2
#   scripts/netns-lab.sh down     # removes every namespace it made
# Run as root.
set -euo pipefail
dir=${PNL_DIR:-/tmp/pnl}
cmd=${1:-}
case "$cmd" in
up)
  n=${2:-2}
  ip netns add pnl-sw
  ip -n pnl-sw link set lo up
  ip -n pnl-sw link add br0 type bridge
  ip -n pnl-sw link set br0 up
  mkdir -p "$dir"
  for i in $(seq 1 "$n"); do
    r=pnl-r$i
    ip netns add "$r"
    ip netns exec "$r" sysctl -qw net.ipv6.conf.all.accept_dad=0 net.ipv6.conf.default.accept_dad=0
    ip -n "$r" link set lo up
    ip link add eth0 netns "$r" type veth peer name leg$i netns pnl-sw
    ip -n pnl-sw link set leg$i master br0 up
    ip -n "$r" addr add 198.18.0.$i/24 dev eth0
    ip -n "$r" addr add 2001:db8::$i/64 dev eth0 nodad
    ip -n "$r" link set eth0 up
    cat > "$dir/$r.yaml" <<YAML
address-families: [ipv4, ipv6]
vrfs:
  default:
    interfaces:
      eth0:
        hello-interval: 1
        dr-priority: $i
YAML
    echo "ip netns exec $r pimnbrd -c $dir/$r.yaml --state-dir $dir/$r"
  done
  ;;
down)
  for ns in $(ip netns list | awk '{print $1}' | grep -E '^pnl-(sw|r[0-9]+)$' || true); do
    ip netns del "$ns"
  done
  rm -f "$dir"/pnl-r*.yaml
  ;;
*)
  echo "usage: $0 up [N] | down" >&2
  exit 2
  ;;
esac
