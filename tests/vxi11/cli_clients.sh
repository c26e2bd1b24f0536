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
timeout 10 sh -c "until grep -q 'core port' '$out'; do sleep 0.1; done" ||
  { echo "simulator did not start:"; cat "$out"; exit 1; }
core=$(sed -n 's/.*core port \([0-9]*\),.*/\1/p' "$out")
abort=$(sed -n 's/.*abort port \([0-9]*\),.*/\1/p' "$out")

fail=0
check() {  # check EXPECTED-REGEX COMMAND...
  want=$1
  shift
  got=$(timeout 20 "$@" 2>&1)
  rc=$?
  if [ $rc -eq 0 ] && printf '%s\n' "$got" | grep -Eq "$want"; then
    echo "ok: $*" | head -1
  else
    printf 'FAIL: %s (exit %d), wanted /%s/, got:\n%s\n' "$(echo "$*" | head -1)" $rc "$want" "$got"
    fail=1
  fi
}

# No client here sends SET or UNSET to a remote portmapper: a raw datagram
# does, and the answer must be an accepted call saying FALSE.
setunset='
import socket, struct
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.settimeout(5)
for proc, name in ((1, "SET"), (2, "UNSET")):
    s.sendto(struct.pack(">14I", 7, 0, 2, 100000, 2, proc, 0, 0, 0, 0, 395183, 1, 6, 999), ("127.0.0.1", 111))
    w = struct.unpack(">7I", s.recv(100)[:28])
    print(name, "declined" if w[0] == 7 and w[5] == 0 and w[6] == 0 else "answered %r" % (w,), end=" ")
'
check "^SET declined UNSET declined" /usr/bin/python3 -c "$setunset"
check "^ +100000 +2 +tcp +111 " rpcinfo -p 127.0.0.1
check "^ +395183 +1 +tcp +$core( |\$)" rpcinfo -p 127.0.0.1
check "^ +395184 +1 +tcp +$abort( |\$)" rpcinfo -p 127.0.0.1
check "program 395183 version 1 ready and waiting" rpcinfo -t 127.0.0.1 395183 1
check "program 100000 version 2 ready and waiting" rpcinfo -u 127.0.0.1 100000 2
check "^vxi11-instrument-sim [0-9]+\\.[0-9]+" "$sim" --version
check "^KVSIM,VXI11-INSTRUMENT,0,1.0\$" lxi scpi -a 127.0.0.1 "*IDN?"
check "^hello there\$" lxi scpi -a 127.0.0.1 "ECHO? hello there"
exit $fail
