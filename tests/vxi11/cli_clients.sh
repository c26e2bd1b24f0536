#!/bin/sh
# Command-line clients written elsewhere (rpcinfo from rpcbind, lxi from
# lxi-tools) against the VXI-11 simulator and its own portmapper: each row
# runs one command and names a line its output must hold.
# usage: cli_clients.sh SIMULATOR   (needs port 111: run it isolated)
set -u
sim=$1
out=$(mktemp)
"$sim" --portmap own >"$out" 2>&1 &
pid=$!
trap 'kill $pid 2>/dev/null; wait $pid 2>/dev/null; rm -f "$out"' EXIT
i=0
until grep -q 'core port' "$out"; do
  i=$((i + 1))
  [ $i -gt 100 ] && { echo "simulator did not start:"; cat "$out"; exit 1; }
  sleep 0.1
done
core=$(sed -n 's/.*core port \([0-9]*\),.*/\1/p' "$out")
abort=$(sed -n 's/.*abort port \([0-9]*\),.*/\1/p' "$out")

fail=0
check() {  # check EXPECTED-REGEX COMMAND...
  want=$1
  shift
  got=$(timeout 20 "$@" 2>&1)
  rc=$?
  if [ $rc -ne 0 ] || ! printf '%s\n' "$got" | grep -Eq "$want"; then
    echo "FAIL: $* (exit $rc), wanted /$want/, got:"
    printf '%s\n' "$got"
    fail=1
  else
    echo "ok: $*"
  fi
}

check "^ +100000 +2 +tcp +111 " rpcinfo -p 127.0.0.1
check "^ +395183 +1 +tcp +$core( |\$)" rpcinfo -p 127.0.0.1
check "^ +395184 +1 +tcp +$abort( |\$)" rpcinfo -p 127.0.0.1
check "program 395183 version 1 ready and waiting" rpcinfo -t 127.0.0.1 395183 1
check "program 100000 version 2 ready and waiting" rpcinfo -u 127.0.0.1 100000 2
check "^vxi11-instrument-sim [0-9]+\\.[0-9]+" "$sim" --version
check "^KVSIM,VXI11-INSTRUMENT,0,1.0\$" lxi scpi -a 127.0.0.1 "*IDN?"
check "^hello there\$" lxi scpi -a 127.0.0.1 "ECHO? hello there"
exit $fail
