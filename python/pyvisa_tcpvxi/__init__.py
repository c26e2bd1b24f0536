"""PyVISA backend for VXI instruments behind LAN-to-VXI bridges (libtcpvxi.so).

    import pyvisa
    rm = pyvisa.ResourceManager("@tcpvxi")            # library found by the loader
    rm = pyvisa.ResourceManager("/opt/x/lib/libtcpvxi.so@tcpvxi")
"""
from .highlevel import TcpVxiVisaLibrary
from .resources import TcpVxiInstrument, TcpVxiMessageInstrument, install as _install

__version__ = "1.0.0"

WRAPPER_CLASS = TcpVxiVisaLibrary

_install()

__all__ = ["TcpVxiVisaLibrary", "TcpVxiInstrument", "TcpVxiMessageInstrument", "WRAPPER_CLASS"]
