"""Fixtures: the bridge simulator and the VXI-11 instrument simulator as child
processes, and a resource manager on the real library.  The session runs
isolated (tests/isolate.sh): fixed port 4880 and shared-memory names."""

import os
import socket
import subprocess
import time

import pytest

BUILD = os.environ.get("KV_BUILD_DIR", "")
LIB = os.path.join(BUILD, "libtcpvxi.so")
BRIDGE_SIM = os.path.join(BUILD, "tools", "bridge-sim", "tcpvxi-bridge-sim")
VXI11_SIM = os.path.join(BUILD, "tools", "vxi11-sim", "vxi11-instrument-sim")
CONTROL_PORT = 4881
RAW_PORT = 5025


def pytest_configure(config):
    if os.environ.get("KV_ISOLATED") != "1":
        raise pytest.UsageError("run through tests/isolate.sh (fixed port and shared-memory names)")


def wait_port(port, proc):
    for _ in range(200):
        if proc.poll() is not None:
            raise RuntimeError("simulator exited with %s" % proc.returncode)
        try:
            socket.create_connection(("127.0.0.1", port), 0.1).close()
            return
        except OSError:
            time.sleep(0.02)
    raise RuntimeError("nothing listens on port %d" % port)


class Bridge:
    """The bridge simulator process, which a test may kill and start again."""

    def __init__(self):
        self.proc = None

    def start(self):
        self.proc = subprocess.Popen([BRIDGE_SIM, "--port", "4880", "--control-port", str(CONTROL_PORT),
                                      "--raw-port", str(RAW_PORT), "-q"])
        wait_port(4880, self.proc)
        wait_port(CONTROL_PORT, self.proc)

    def kill(self):
        self.proc.kill()
        self.proc.wait()

    def control(self, line):
        with socket.create_connection(("127.0.0.1", CONTROL_PORT), 2) as s:
            s.sendall(line.encode() + b"\n")
            reply = b""
            while b"OK" not in reply and b"ERR" not in reply:
                reply += s.recv(4096)
        assert b"OK" in reply, reply
        return reply.decode()


@pytest.fixture(scope="session")
def bridge():
    conf = os.path.join(os.environ["HOME"], ".config", "tarvelo", "visa")
    os.makedirs(conf, exist_ok=True)
    with open(os.path.join(conf, "resmantcpvxi.out"), "w") as f:
        f.write("[COMMON]\nNumIntf=1\n[INTF1]\nINTF_NUM=1\nADDR=127.0.0.1\nDEVNAME=simulated mainframe\n")
    b = Bridge()
    b.start()
    yield b
    b.kill()


@pytest.fixture(scope="session")
def vxi11_sim():
    p = subprocess.Popen([VXI11_SIM, "--portmap", "own", "--core-port", "4882"])
    wait_port(4882, p)
    yield p
    p.kill()
    p.wait()


@pytest.fixture(scope="session")
def rm(bridge):
    import pyvisa

    manager = pyvisa.ResourceManager(LIB + "@tcpvxi")
    yield manager
    manager.close()
