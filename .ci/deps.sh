#!/bin/sh
# Installs what the build and the tests need on a fresh Debian machine.
# Does nothing when everything is already there.
set -e
need=""
for p in cmake ninja-build g++ clang libclang-rt-14-dev libgtest-dev libgmock-dev libbenchmark-dev \
         libtirpc-dev rpcbind tshark liblxi-dev lxi-tools iproute2 util-linux \
         help2man lintian man-db dpkg-dev pkgconf file \
         libcli11-dev libreadline-dev valgrind python3-matplotlib python3-pyvisa python3-pyvisa-py python3-pytest; do
  dpkg -s "$p" >/dev/null 2>&1 || need="$need $p"
done
[ -z "$need" ] && exit 0
if [ "$(id -u)" != 0 ]; then
  echo "missing packages:$need (run as root to install them)" >&2
  exit 1
fi
export DEBIAN_FRONTEND=noninteractive
apt-get update -q
# tshark asks whether non-root users may capture; the answer does not matter here.
echo "wireshark-common wireshark-common/install-setuid boolean false" | debconf-set-selections
apt-get install -y -q --no-install-recommends $need
