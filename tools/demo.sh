#!/bin/bash
# make demo: starts the simulated LAN-to-VXI bridge on 127.0.0.1:4880 with its
# default mainframe, points the resource-manager file at it, and runs a host
# session through tcpvxi-host (which loads libtcpvxi.so as a VISA library does).
#
# As root it runs in a private mount and network namespace (tests/isolate.sh),
# so the fixed port and the driver's shared-memory names cannot clash with
# anything on the machine; otherwise it runs with a temporary HOME.
set -e
build=${1:-build/release}
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "$build" && pwd)

if [ "$(id -u)" = 0 ] && [ "$KV_ISOLATED" != 1 ] && command -v unshare >/dev/null 2>&1; then
  exec "$root/tests/isolate.sh" /bin/bash "$0" "$build"
fi
if [ "$KV_ISOLATED" != 1 ]; then
  HOME=$(mktemp -d /tmp/kvdemo.XXXXXX)
  export HOME
  trap 'rm -rf "$HOME"' EXIT
fi

sim="$build/tools/bridge-sim/tcpvxi-bridge-sim"
host="$build/tools/tcpvxi-host/tcpvxi-host"
lib="$build/libtcpvxi.so"

echo "== simulated bridge: $sim"
"$sim" --help | head -3
"$sim" --address 127.0.0.1 --port 4880 -v >"$HOME/bridge.log" 2>&1 &
simpid=$!
trap 'kill $simpid 2>/dev/null; wait $simpid 2>/dev/null; [ "$KV_ISOLATED" = 1 ] || rm -rf "$HOME"' EXIT
# Wait until the bridge listens.
i=0
until (exec 3<>/dev/tcp/127.0.0.1/4880) 2>/dev/null; do
  i=$((i + 1)); [ $i -gt 100 ] && { echo "bridge did not start"; cat "$HOME/bridge.log"; exit 1; }
  sleep 0.05
done

conf="$HOME/.config/tarvelo/visa"
mkdir -p "$conf"
cat >"$conf/resmantcpvxi.out" <<'INI'
[COMMON]
NumIntf=1
[INTF1]
INTF_NUM=1
ADDR=127.0.0.1
DEVNAME=simulated mainframe
INI
echo "== resource-manager file $conf/resmantcpvxi.out"
cat "$conf/resmantcpvxi.out"
echo "== set-up check (tcpvxi-host check)"
"$host" --lib "$lib" check || true
echo "== host session (tcpvxi-host --script tools/demo.tcpvxi)"
# The script reads one address where no device answers on purpose, so the
# tool reports a failed command; that is part of the demonstration.
rc=0
(cd "$HOME" && "$host" --lib "$lib" --keep-going --script "$root/tools/demo.tcpvxi") || rc=$?
[ $rc = 0 ] || echo "== tcpvxi-host exit status $rc (some commands failed, see above)"
echo "== bridge log (last lines)"
tail -15 "$HOME/bridge.log"
