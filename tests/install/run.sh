#!/bin/bash
# make test-install: what a user gets from `make package`.  Installs the
# package tree into a temporary DESTDIR and checks, against that tree only:
# every public header compiles on its own, and the headers declare exactly
# what the library exports; a program builds through pkg-config and one
# through find_package(tcpvxi); the installed tcpvxi-host
# drives the installed simulator through the plug-in, and both programs run
# against it (isolated: fixed port and shared-memory names); the manual pages
# render; each .deb holds what it should and nothing outside /usr, every
# installed file is in exactly one of them, and lintian finds no error.
set -eu
root=$(cd "$(dirname "$0")/../.." && pwd)

if [ "${1:-}" = --run ]; then
  # Inside tests/isolate.sh: own loopback, /dev/shm and HOME.
  prefix=$2 libdir=$3 work=$4
  "$prefix/bin/tcpvxi-bridge-sim" -m "$prefix/share/tcpvxi/mainframes/default.ini" >"$work/sim.log" 2>&1 &
  sim=$!
  trap 'kill $sim 2>/dev/null || true' EXIT
  i=0
  until (exec 3<>/dev/tcp/127.0.0.1/4880) 2>/dev/null; do
    i=$((i + 1)); [ $i -le 200 ] || { cat "$work/sim.log"; exit 1; }
    sleep 0.05
  done
  mkdir -p "$HOME/.config/tarvelo/visa"
  printf '[COMMON]\nNumIntf=1\n[INTF1]\nINTF_NUM=1\nADDR=127.0.0.1\n' >"$HOME/.config/tarvelo/visa/resmantcpvxi.out"
  "$prefix/bin/tcpvxi-host" --lib "$prefix/$libdir/visa/libtcpvxi.so" -c 'start; open; list; in16 0 a16 0xC000; stop' \
    >"$work/host.out"
  grep -q 'VXI0::16::INSTR' "$work/host.out" || { cat "$work/host.out"; exit 1; }
  # The PyVISA backend installed beside the library, which the loader finds.
  PYTHONPATH=$(echo "$prefix"/lib/python3*/dist-packages) LD_LIBRARY_PATH="$prefix/$libdir" /usr/bin/python3 -c \
    'import pyvisa; print(pyvisa.ResourceManager("@tcpvxi").list_resources())' >"$work/py.out"
  grep -q 'VXI0::16::INSTR' "$work/py.out" || { cat "$work/py.out"; exit 1; }
  for p in pc-consumer cmake-consumer; do
    LD_LIBRARY_PATH="$prefix/$libdir" "$work/$p"
  done
  exit 0
fi

build=$(cd "${1:-build/package}" && pwd)
work=$(mktemp -d /tmp/kvinstall.XXXXXX)
trap 'rm -rf "$work"' EXIT
stage=$work/stage
DESTDIR=$stage cmake --install "$build" >/dev/null
prefix=$stage$(sed -n 's/^CMAKE_INSTALL_PREFIX:PATH=//p' "$build/CMakeCache.txt")
libdir=$(sed -n 's/^CMAKE_INSTALL_LIBDIR:PATH=//p' "$build/CMakeCache.txt")
inc=$prefix/include/tcpvxi
echo "== installed into $prefix"

for h in "$inc"/*.h; do
  echo "#include <$(basename "$h")>" | g++ -std=c++11 -Wall -Werror -fsyntax-only -I"$inc" -x c++ - ||
    { echo "header does not compile alone: $h"; exit 1; }
done

# What the headers declare is exactly what the library exports: a program
# never meets a declaration it cannot link against, and nothing exported
# goes undeclared.
for h in "$inc"/*.h; do echo "#include <$(basename "$h")>"; done |
  clang++ -std=c++17 -fsyntax-only -Xclang -ast-dump=json -I"$inc" -x c++ - |
  /usr/bin/python3 "$root/tests/install/declared.py" "$inc" >"$work/declared"
nm -D --defined-only -C "$prefix/$libdir/libtcpvxi.so" | sed -E 's/^[0-9a-f]+ [A-Za-z] //; s/\(.*//' |
  LC_ALL=C sort -u >"$work/exported"
diff "$work/declared" "$work/exported" >"$work/decl.diff" || {
  echo "headers and exports differ (<: declared but not exported, >: exported but not declared):"
  cat "$work/decl.diff"; exit 1; }

export PKG_CONFIG_PATH="$prefix/$libdir/pkgconfig"
[ "$(pkg-config --modversion tcpvxi)" = "$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")" ]
# shellcheck disable=SC2046
g++ -std=c++17 -Wall -Werror "$root/tests/install/consumer.cpp" $(pkg-config --cflags --libs tcpvxi) -o "$work/pc-consumer"
mkdir -p "$work/cm"
cp "$root/tests/install/consumer.cpp" "$work/cm/"
cp "$root/tests/install/CMakeLists.txt.in" "$work/cm/CMakeLists.txt"
cmake -S "$work/cm" -B "$work/cm/build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cm/build" >/dev/null
cp "$work/cm/build/consumer" "$work/cmake-consumer"
echo "== consumers built (pkg-config, find_package)"

"$root/tests/isolate.sh" /bin/bash "$0" --run "$prefix" "$libdir" "$work"
echo "== installed host, simulator and consumers ran"

for m in "$prefix"/share/man/man*/*; do
  [ "$(MANWIDTH=80 man -l "$m" 2>/dev/null | wc -l)" -gt 10 ] || { echo "man page does not render: $m"; exit 1; }
done
echo "== $(ls "$prefix"/share/man/man*/* | wc -l) man pages render"

# Each package holds its own files, its copyright, nothing outside /usr, and
# passes lintian without error; every installed file is in exactly one.
check_package() {  # the package, then files it must hold
  local pkg=$1 deb
  shift
  deb=$(ls "$build/${pkg}_"*.deb)
  dpkg-deb -c "$deb" | awk '{print $6}' >"$work/$pkg.contents"
  for f in "$@" "./usr/share/doc/$pkg/copyright"; do
    grep -qx "$f" "$work/$pkg.contents" || { echo "missing from $pkg: $f"; exit 1; }
  done
  if grep -v -e '^\./$' -e '^\./usr/' "$work/$pkg.contents"; then echo "$pkg installs outside /usr"; exit 1; fi
  lintian --fail-on error "$deb" >"$work/lintian" 2>&1 || { cat "$work/lintian"; exit 1; }
  grep -v 'root privileges' "$work/lintian" || true
  echo "== $(basename "$deb"): $(grep -cv '/$' "$work/$pkg.contents") files, depends: $(dpkg-deb -f "$deb" Depends)"
}
check_package libtcpvxi1 "./usr/$libdir/libtcpvxi.so.1" "./usr/$libdir/visa/libtcpvxi.so"
check_package libtcpvxi-dev ./usr/include/tcpvxi/tcpvxi.h "./usr/$libdir/pkgconfig/tcpvxi.pc" "./usr/$libdir/libtcpvxi.so"
check_package tcpvxi-tools ./usr/bin/tcpvxi-host ./usr/bin/tcpvxi-bridge-sim ./usr/bin/vxi11-instrument-sim \
  ./usr/share/man/man5/resmantcpvxi.out.5.gz ./usr/share/man/man1/tcpvxi-host.1.gz
check_package python3-pyvisa-tcpvxi ./usr/lib/python3/dist-packages/pyvisa_tcpvxi/__init__.py
dpkg-deb -f "$build"/tcpvxi-tools_*.deb Depends | grep -q libtirpc
cat "$work"/*.contents | grep -v '/$' | LC_ALL=C sort >"$work/packaged"
(cd "$stage" && find . ! -type d | LC_ALL=C sort) >"$work/installed"
diff "$work/installed" "$work/packaged" || { echo "installed and packaged files differ (<: installed only)"; exit 1; }
echo "== every installed file in exactly one package; lintian: no errors"
