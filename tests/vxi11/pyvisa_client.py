#!/usr/bin/python3
"""PyVISA's pure-Python backend against the VXI-11 simulator: identity, status
byte, device clear and a 1 MiB binary block.  usage: pyvisa_client.py SIMULATOR (isolated)"""
import subprocess
import sys

import pyvisa

BLOCK = 1 << 20

sim = subprocess.Popen([sys.argv[1], "--portmap", "own"], stdout=subprocess.PIPE, text=True)
try:
    sim.stdout.readline()  # the start-up line: listening from here on
    rm = pyvisa.ResourceManager("@py")
    inst = rm.open_resource("TCPIP::127.0.0.1::inst0::INSTR", timeout=10000, read_termination="\n",
                            write_termination="\n")
    assert inst.query("*IDN?") == "KVSIM,VXI11-INSTRUMENT,0,1.0", "identity"

    inst.write("STB 16")
    assert inst.read_stb() == 16, "status byte"

    inst.write("ECHO? left behind")
    inst.clear()  # empties the output queue
    assert inst.query("*OPC?") == "1", "clear"

    data = inst.query_binary_values("DATA? %d" % BLOCK, datatype="B", container=bytes)
    want = bytes(ord("A") + i % 26 for i in range(BLOCK))
    assert data == want, "binary block of %d bytes" % len(data)
    rm.close()
finally:
    sim.terminate()
    sim.wait(timeout=10)
print("pyvisa-py: identity, status byte, clear and a 1 MiB block: ok")
