"""Resource classes for VXI instruments reached through the tcpvxi backend.

PyVISA's own VXIInstrument is register-based only.  A message-based VXI
instrument (one whose device class is "message") also speaks Word Serial:
it opens as TcpVxiMessageInstrument, which adds write/read/query, read_stb,
assert_trigger and the termination and time-out attributes.
"""
from pyvisa import constants
from pyvisa.highlevel import ResourceManager
from pyvisa.resources.messagebased import MessageBasedResource
from pyvisa.resources.vxi import VXIInstrument

from .highlevel import TcpVxiVisaLibrary


class _Reconnect:
    def reconnect(self):
        """Re-establishes a lost connection (after VI_ERROR_CONN_LOST or
        VI_ERROR_IO): the bridge, or the LAN instrument, is connected again
        and the session can be used as before.  Raises VisaIOError when it
        cannot be reached."""
        return self.visalib.reconnect(self.session)


class TcpVxiInstrument(_Reconnect, VXIInstrument):
    """A register-based (or memory) VXI instrument behind a bridge."""


class TcpVxiMessageInstrument(_Reconnect, MessageBasedResource, VXIInstrument):
    """A message-based VXI instrument behind a bridge: register access and
    message-based I/O through Word Serial."""


TcpVxiMessageInstrument.visa_attributes_classes = set(
    getattr(VXIInstrument, "visa_attributes_classes", set())
)

_KEY = (constants.InterfaceType.vxi, "INSTR")
_plain = ResourceManager._resource_classes.get(_KEY, VXIInstrument)


class VXIInstrumentSelector:
    """Stands for VXI INSTR in PyVISA's table of resource classes and picks
    the class per resource: for this backend by the instrument's device
    class, for any other backend PyVISA's own VXIInstrument, unchanged."""

    def __new__(cls, resource_manager, resource_name):
        lib = resource_manager.visalib
        if isinstance(lib, TcpVxiVisaLibrary):
            pycls = TcpVxiMessageInstrument if lib.is_message_based(resource_name) else TcpVxiInstrument
        else:
            pycls = _plain
        return pycls(resource_manager, resource_name)


def install():
    # Written straight into the table: register_resource_class would warn
    # about replacing the entry, and the selector has no attributes of its own.
    ResourceManager._resource_classes[_KEY] = VXIInstrumentSelector
