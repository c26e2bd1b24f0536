"""The PyVISA backend: VisaLibraryBase on top of libtcpvxi.so.

VXI resources (VXI<n>::<LA>::INSTR, VXI<n>::MEMACC) go through the driver's
vintf* entry points, interface n being the n-th bridge of the driver's
resource-manager file.  TCPIP resources (hislip, VXI-11 and SOCKET) go
through the library's own kvtcp transport, one connection record per session.
"""
import collections
import ctypes
import logging
import queue
import threading
import time

from pyvisa import constants, errors, rname
from pyvisa.highlevel import VisaLibraryBase
from pyvisa.util import LibraryPath

from . import _driver

logger = logging.getLogger("pyvisa_tcpvxi")

C = constants
SC = constants.StatusCode
A = constants.ResourceAttribute

IRQ_EVENT = C.VI_EVENT_VXI_VME_INTR
VI_NO_SEC_ADDR = 0xFFFF

# kvtcp_Read / Word Serial read results: bit 0 ended at the termination
# character, bit 1 ended at END.  Write flag: END with the last byte.
_END_BIT, _EOS_BIT = 2, 1
_FLAG_END = 0x0002

# Attributes that the driver answers from its resource records, with the
# width of the value it writes (0: a string).  The 32-bit VI_ATTR_MEM_BASE /
# VI_ATTR_MEM_SIZE ids are answered from their 64-bit forms.
_DRIVER_ATTRS = {
    0x3FFF006B: 2, 0x3FFF006C: 2, 0x3FFF0070: 2, 0x3FFF008B: 4, 0x3FFF008D: 4, 0x3FFF0094: 2,
    0x3FFF00D0: 8, 0x3FFF00D1: 8, 0x3FFF00D5: 2, 0x3FFF00D9: 2, 0x3FFF00DE: 2, 0x3FFF00DF: 2,
    0x3FFF00E8: 2, 0x3FFF0100: 2, 0x3FFF0194: 4,
    0xBFFF0072: 0, 0xBFFF0077: 0, 0xBFFF00E9: 0,
}
_ATTR_ALIAS = {0x3FFF00AD: 0x3FFF00D0, 0x3FFF00DD: 0x3FFF00D1}
_SIGNED_ATTRS = {0x3FFF006B, 0x3FFF0070, 0x3FFF0094, 0x3FFF00D5, 0x3FFF00E8}

# Settable attributes and their defaults, per session.
_DEFAULTS = {
    A.timeout_value: 2000,
    A.termchar: 0x0A,
    A.termchar_enabled: False,
    A.send_end_enabled: True,
    A.suppress_end_enabled: False,
    A.source_increment: 1,
    A.destination_increment: 1,
    A.source_access_private: C.VI_DATA_PRIV,
    A.destination_access_private: C.VI_DATA_PRIV,
    A.source_byte_order: C.VI_BIG_ENDIAN,
    A.destination_byte_order: C.VI_BIG_ENDIAN,
    A.dma_allow_enabled: False,
    A.io_prot: C.VI_PROT_NORMAL,
    A.max_queue_length: 50,
    A.user_data: 0,
}

_WIDTHS = {8: ctypes.c_uint8, 16: ctypes.c_uint16, 32: ctypes.c_uint32}



def _impl_version():
    # VISA's encoding: major in bits 20-31, minor in 8-19, sub-minor in 0-7.
    from . import __version__
    major, minor, sub = (int(x) for x in __version__.split(".")[:3])
    return major << 20 | minor << 8 | sub


def _fail(status):
    raise errors.VisaIOError(int(status))


def _ws_chunk(n):
    """Largest count up to n that the Word Serial read and write calls take
    as asked.  They move 256 bytes per bridge command and narrow a remainder
    below 256 to a signed byte, so a remainder of 128 to 255 would make them
    read or send a whole 256: such remainders go as 127 first."""
    if n >= 256:
        return n - n % 256
    return 127 if n >= 128 else n


class _Session:
    kind = "session"

    def __init__(self, lib, name):
        self.lib = lib
        self.name = name
        self.attrs = dict(_DEFAULTS)
        self.enabled = {}  # event type -> mechanisms
        self.events = collections.deque()
        self.cond = threading.Condition()
        self.handlers = []  # (event type, handler, user handle)
        self.suspended = collections.deque()

    @property
    def timeout(self):
        return int(self.attrs[A.timeout_value]) & 0xFFFFFFFF

    def info_attrs(self):
        return {}

    def close(self):
        pass


class _RM(_Session):
    kind = "rm"


class _Vxi(_Session):
    """VXI<n>::<LA>::INSTR: one instrument behind one bridge."""

    kind = "vxi"

    def __init__(self, lib, name, intf, idx, la, dev_class, space, base, size):
        super().__init__(lib, name)
        self.intf, self.idx, self.la = intf, idx, la
        self.message_based = dev_class == C.VI_VXI_CLASS_MESSAGE
        self.mem_space, self.mem_base, self.mem_size = space, base, size

    def window(self, space):
        if space == C.VI_A16_SPACE:
            return 0xC000 + 0x40 * self.la, 0x40
        if space in (C.VI_A24_SPACE, C.VI_A32_SPACE) and space == self.mem_space:
            return self.mem_base, self.mem_size
        _fail(SC.error_invalid_address_space)

    def info_attrs(self):
        return {A.resource_class: "INSTR", A.interface_type: int(C.InterfaceType.vxi), A.interface_number: self.intf}


class _Memacc(_Session):
    """VXI<n>::MEMACC: the whole bus, absolute addresses."""

    kind = "memacc"

    def __init__(self, lib, name, intf):
        super().__init__(lib, name)
        self.intf = intf

    def window(self, space):
        if space not in (C.VI_A16_SPACE, C.VI_A24_SPACE, C.VI_A32_SPACE):
            _fail(SC.error_invalid_address_space)
        return 0, 1 << {C.VI_A16_SPACE: 16, C.VI_A24_SPACE: 24, C.VI_A32_SPACE: 32}[space]

    def info_attrs(self):
        return {A.resource_class: "MEMACC", A.interface_type: int(C.InterfaceType.vxi), A.interface_number: self.intf,
                A.interface_instrument_name: "TCP-VXI%d" % self.intf}


class _Tcpip(_Session):
    """TCPIP INSTR (HiSLIP or VXI-11) and SOCKET through the library's transport."""

    kind = "tcpip"

    def __init__(self, lib, name, parsed):
        super().__init__(lib, name)
        self.parsed = parsed
        self.rec = _driver.new_connection_record()
        self.connected = False

    def connect(self):
        d, p = self.lib.drv, self.parsed
        host = p.host_address.encode()
        if p.resource_class == "SOCKET":
            st = d.kvtcp_sock_Connect(self.rec, host, int(p.port))
        elif p.lan_device_name.lower().startswith("hislip"):
            st = d.kvtcp_hislip_Connect(self.rec, host, p.lan_device_name.encode())
        else:
            st = d.kvtcp_vxi11_Connect(None, self.rec, host, p.lan_device_name.encode())
        if st < 0:
            d.kvtcp_Close(self.rec)
            _fail(st)
        self.connected = True
        return st

    def close(self):
        if self.connected:
            self.connected = False
            self.lib.drv.kvtcp_Close(self.rec)

    def info_attrs(self):
        p = self.parsed
        a = {A.resource_class: p.resource_class, A.interface_type: int(C.InterfaceType.tcpip),
             A.interface_number: int(p.board or 0), A.tcpip_address: p.host_address,
             A.tcpip_hostname: p.host_address}
        if p.resource_class == "SOCKET":
            a[A.tcpip_port] = int(p.port)
        else:
            a[A.tcpip_device_name] = p.lan_device_name
        return a


class _Context(_Session):
    """An event: what wait_on_event and handlers get."""

    kind = "event"

    def __init__(self, lib, event_type, status_id, level):
        super().__init__(lib, "event")
        self.attrs = {C.VI_ATTR_EVENT_TYPE: event_type, C.VI_ATTR_INTR_STATUS_ID: status_id,
                      C.VI_ATTR_RECV_INTR_LEVEL: level}


class TcpVxiVisaLibrary(VisaLibraryBase):
    """PyVISA backend driving VXI instruments behind LAN-to-VXI bridges
    through libtcpvxi.so, and LAN instruments through its transport.

    Open with ``pyvisa.ResourceManager("@tcpvxi")`` (the library found by the
    dynamic loader) or ``pyvisa.ResourceManager("/path/libtcpvxi.so@tcpvxi")``.
    """

    @staticmethod
    def get_library_paths():
        return tuple(LibraryPath(p, "tcpvxi") for p in _driver.library_candidates())

    @staticmethod
    def get_debug_info():
        return {"library candidates": _driver.library_candidates()}

    def _init(self):
        self.drv = _driver.Driver.get(self.library_path.path)
        self.sessions = {}
        self._next = 1
        self._lock = threading.Lock()
        self._dispatch = queue.Queue()
        self.drv.irq_listeners.append(self._on_irq)
        threading.Thread(target=self._dispatcher, name="tcpvxi-events", daemon=True).start()

    def _add(self, s):
        with self._lock:
            sid = self._next
            self._next += 1
            self.sessions[sid] = s
        return sid

    def _get(self, session, *kinds):
        s = self.sessions.get(session)
        if s is None or (kinds and s.kind not in kinds):
            _fail(SC.error_invalid_object)
        return s

    # ------------------------------------------------ resource manager

    def open_default_resource_manager(self):
        return self._add(_RM(self, "")), SC.success

    def _vxi_names(self):
        names = []
        d = self.drv
        for intf in range(d.n_intf):
            n = ctypes.c_uint32(0)
            if d.vintfGetNumRsrc(intf, ctypes.byref(n)) < 0:
                continue
            for idx in range(n.value):
                names.append("VXI%d::%d::INSTR" % (intf, self._rsrc_int(intf, idx, A.vxi_logical_address)))
            names.append("VXI%d::MEMACC" % intf)
        return names

    def list_resources(self, session, query="?*::INSTR"):
        self._get(session, "rm")
        found = rname.filter(self._vxi_names(), query)
        # LAN instruments cannot be discovered; one that is asked for by its
        # exact name is listed when it answers.
        if not found and not any(ch in query for ch in "?*[]|()+\\"):
            try:
                p = rname.parse_resource_name(query)
            except rname.InvalidResourceName:
                p = None
            if p is not None and p.interface_type_const == C.InterfaceType.tcpip:
                probe = _Tcpip(self, query, p)
                try:
                    probe.connect()
                    found = [str(p)]
                except errors.VisaIOError:
                    pass
                finally:
                    probe.close()
        # Like the other backends: nothing found is an empty answer, not an error.
        return tuple(found)

    def _rsrc_raw(self, intf, idx, attr, width):
        buf = ctypes.create_string_buffer(256)
        st = self.drv.vintfGetRsrcAttr(intf, idx, attr, buf)
        if st < 0:
            _fail(st)
        if width == 0:
            return buf.value.decode("latin-1")
        v = int.from_bytes(buf.raw[:width], "little")
        if attr in _SIGNED_ATTRS and v >= 1 << (8 * width - 1):
            v -= 1 << (8 * width)
        return v

    def _rsrc_int(self, intf, idx, attr):
        return self._rsrc_raw(intf, idx, attr, _DRIVER_ATTRS[attr])

    def open(self, session, resource_name, access_mode=C.AccessModes.no_lock, open_timeout=C.VI_TMO_IMMEDIATE):
        self._get(session, "rm")
        try:
            p = rname.parse_resource_name(resource_name)
        except rname.InvalidResourceName:
            return 0, SC.error_invalid_resource_name
        if p.interface_type_const == C.InterfaceType.tcpip and p.resource_class in ("INSTR", "SOCKET"):
            s = _Tcpip(self, str(p), p)
            s.connect()
            return self._add(s), SC.success
        if p.interface_type_const != C.InterfaceType.vxi or p.resource_class not in ("INSTR", "MEMACC"):
            _fail(SC.error_resource_not_found)
        intf = int(p.board or 0)
        if intf >= self.drv.n_intf:
            _fail(SC.error_resource_not_found)
        if p.resource_class == "MEMACC":
            return self._add(_Memacc(self, str(p), intf)), SC.success
        la = int(p.vxi_logical_address)
        idx = self._instrument_index(intf, la)
        if idx is None:
            _fail(SC.error_resource_not_found)
        s = _Vxi(self, str(p), intf, idx, la,
                 self._rsrc_int(intf, idx, A.vxi_device_class),
                 self._rsrc_int(intf, idx, A.memory_space),
                 self._rsrc_int(intf, idx, A.memory_base),
                 self._rsrc_int(intf, idx, A.memory_size))
        return self._add(s), SC.success

    def _instrument_index(self, intf, la):
        """Index of the instrument at logical address la behind interface
        intf in the driver's records, None if there is none."""
        if intf >= self.drv.n_intf:
            return None
        n = ctypes.c_uint32(0)
        self.drv.vintfGetNumRsrc(intf, ctypes.byref(n))
        for idx in range(n.value):
            if self._rsrc_int(intf, idx, A.vxi_logical_address) == la:
                return idx
        return None

    def is_message_based(self, resource_name):
        """Whether a VXI INSTR resource is a message-based instrument (opens
        with the message-based resource class)."""
        try:
            p = rname.parse_resource_name(resource_name)
            intf, la = int(p.board or 0), int(p.vxi_logical_address)
        except (rname.InvalidResourceName, AttributeError, ValueError):
            return False
        idx = self._instrument_index(intf, la)
        return idx is not None and self._rsrc_int(intf, idx, A.vxi_device_class) == C.VI_VXI_CLASS_MESSAGE

    def close(self, session):
        s = self.sessions.pop(session, None)
        if s is None:
            return SC.error_invalid_object
        if s.kind == "rm":
            for sid, other in list(self.sessions.items()):
                if other.kind != "event":
                    self.close(sid)
        s.close()
        with s.cond:
            s.cond.notify_all()
        return SC.success

    def reconnect(self, session):
        """Re-establishes the connection behind a session after it was lost
        (VI_ERROR_CONN_LOST, VI_ERROR_IO): for a VXI resource the bridge is
        reconnected and locked again, for a TCPIP resource the instrument.
        Raises VisaIOError when it cannot be reached.  A failed reconnect of a
        bridge leaves the driver's lock to expire: the next VXI call then
        waits a few seconds before it proceeds."""
        s = self._get(session, "vxi", "memacc", "tcpip")
        if s.kind == "tcpip":
            s.close()
            s.rec = _driver.new_connection_record()
            return self.handle_return_value(session, s.connect())
        return self.handle_return_value(session, self.drv.vintfTryReopenDevice(s.intf))

    # ------------------------------------------------------ attributes

    def get_attribute(self, session, attribute):
        s = self._get(session)
        attribute = int(attribute)
        if attribute in s.attrs:
            return s.attrs[attribute], SC.success
        info = s.info_attrs()
        if attribute in info:
            return info[attribute], SC.success
        if s.kind != "event":
            common = {A.resource_name: s.name, A.resource_manufacturer_name: "tcpvxi",
                      A.resource_impl_version: _impl_version(), A.resource_spec_version: 0x00500800,
                      A.resource_lock_state: C.AccessModes.no_lock}
            if attribute in common:
                return common[attribute], SC.success
        if s.kind == "vxi":
            attribute = _ATTR_ALIAS.get(attribute, attribute)
            if attribute in _DRIVER_ATTRS:
                return self._rsrc_raw(s.intf, s.idx, attribute, _DRIVER_ATTRS[attribute]), SC.success
            if attribute == A.is_4882_compliant:
                return s.message_based, SC.success
        return _fail(SC.error_nonsupported_attribute)

    def set_attribute(self, session, attribute, attribute_state):
        s = self._get(session)
        attribute = int(attribute)
        if attribute in s.attrs and s.kind != "event":
            s.attrs[attribute] = attribute_state
            return SC.success
        if s.kind == "vxi":
            st = self.drv.vintfSetRsrcAttr(s.intf, s.idx, _ATTR_ALIAS.get(attribute, attribute), 0)
            return self.handle_return_value(session, st)
        if attribute in s.info_attrs() or attribute == A.resource_name:
            _fail(SC.error_attribute_read_only)
        _fail(SC.error_nonsupported_attribute)

    # ------------------------------------------------- register access

    def _bus(self, s, space, offset, nbytes):
        base, size = s.window(int(space))
        if offset < 0 or offset + nbytes > size:
            _fail(SC.error_invalid_offset)
        return base + offset

    @staticmethod
    def _width(width):
        w = int(width)
        if w == 64:
            _fail(SC.error_nonsupported_width)
        if w not in _WIDTHS:
            _fail(SC.error_invalid_width)
        return w

    @staticmethod
    def _swap(values, w, order):
        if order != C.VI_LITTLE_ENDIAN or w == 8:
            return values
        n = w // 8
        return [int.from_bytes(int(v).to_bytes(n, "big"), "little") for v in values]

    def read_memory(self, session, space, offset, width, extended=False):
        s = self._get(session, "vxi", "memacc")
        w = self._width(width)
        addr = self._bus(s, space, offset, w // 8)
        v = _WIDTHS[w]()
        st = getattr(self.drv, "vintfIn%d" % w)(s.intf, int(s.attrs[A.source_access_private]), int(space), addr,
                                               ctypes.byref(v))
        self.handle_return_value(session, st)
        return self._swap([v.value], w, s.attrs[A.source_byte_order])[0], SC.success

    def write_memory(self, session, space, offset, data, width, extended=False):
        s = self._get(session, "vxi", "memacc")
        w = self._width(width)
        addr = self._bus(s, space, offset, w // 8)
        data = self._swap([data], w, s.attrs[A.destination_byte_order])[0]
        st = getattr(self.drv, "vintfOut%d" % w)(s.intf, int(s.attrs[A.destination_access_private]), int(space),
                                                addr, data & ((1 << w) - 1))
        return self.handle_return_value(session, st)

    def move_in(self, session, space, offset, length, width, extended=False):
        s = self._get(session, "vxi", "memacc")
        w = self._width(width)
        inc = 1 if s.attrs[A.source_increment] else 0
        addr = self._bus(s, space, offset, (length if inc else 1) * w // 8)
        buf = (_WIDTHS[w] * length)()
        st = getattr(self.drv, "vintfMoveIn%d" % w)(s.intf, int(s.attrs[A.source_access_private]), int(space), inc,
                                                   addr, length, buf)
        self.handle_return_value(session, st)
        return self._swap(list(buf), w, s.attrs[A.source_byte_order]), SC.success

    def move_out(self, session, space, offset, length, data, width, extended=False):
        s = self._get(session, "vxi", "memacc")
        w = self._width(width)
        if length > len(data):
            _fail(SC.error_invalid_length)
        inc = 1 if s.attrs[A.destination_increment] else 0
        addr = self._bus(s, space, offset, (length if inc else 1) * w // 8)
        data = self._swap(data[:length], w, s.attrs[A.destination_byte_order])
        buf = (_WIDTHS[w] * length)(*data)
        st = getattr(self.drv, "vintfMoveOut%d" % w)(s.intf, int(s.attrs[A.destination_access_private]),
                                                    int(space), inc, addr, length, buf)
        return self.handle_return_value(session, st)

    # ------------------------------------------------- message-based I/O

    def _message(self, session):
        s = self._get(session, "vxi", "tcpip")
        if s.kind == "vxi" and not s.message_based:
            _fail(SC.error_nonsupported_operation)
        return s

    def write(self, session, data):
        s = self._message(session)
        data = bytes(data)
        end = bool(s.attrs[A.send_end_enabled])
        # Word Serial writes may read up to 256 bytes behind the chunk they
        # are given, raw-socket writes put a NUL behind the data: give both
        # room to spare.
        buf = ctypes.create_string_buffer(data, len(data) + 257)
        done, ret = 0, ctypes.c_int32(0)
        d = self.drv
        while True:
            left = len(data) - done
            n = left if s.kind == "tcpip" or s.la == 0 else _ws_chunk(left)
            flags = _FLAG_END if end and n == left else 0
            ptr = ctypes.byref(buf, done)
            ret.value = 0
            if s.kind == "tcpip":
                st = d.kvtcp_Write(s.rec, s.timeout, ptr, n, flags, ctypes.byref(ret))
            else:
                st = d.vintfWSwrt(s.intf, s.idx, s.timeout, ptr, n, flags, ctypes.byref(ret))
            if st < 0:
                _fail(st)
            done += max(0, min(ret.value, n))
            if done >= len(data) or n == 0:
                break
            if ret.value <= 0:  # a peer that takes nothing must not hold us here
                _fail(SC.error_io)
        return done, self.handle_return_value(session, SC.success)

    def read(self, session, count):
        s = self._message(session)
        flags = 0 if s.attrs[A.suppress_end_enabled] else _END_BIT
        eos = b"\n"
        if s.attrs[A.termchar_enabled]:
            flags |= _EOS_BIT
            eos = bytes([int(s.attrs[A.termchar]) & 0xFF])
        buf = ctypes.create_string_buffer(count + 257)
        got, ret = 0, ctypes.c_int32(0)
        d = self.drv
        status = SC.success_max_count_read
        while got < count:
            left = count - got
            n = left if s.kind == "tcpip" or s.la == 0 else _ws_chunk(left)
            ptr = ctypes.byref(buf, got)
            ret.value = 0
            if s.kind == "tcpip":
                st = d.kvtcp_Read(s.rec, s.timeout, ptr, n, flags, eos, ctypes.byref(ret))
            else:
                st = d.vintfWSrd(s.intf, s.idx, s.timeout, ptr, n, flags, eos, ctypes.byref(ret))
            if st < 0:
                _fail(st)
            got += max(0, min(ret.value, n))
            if flags & _END_BIT and st & _END_BIT:
                status = SC.success
                break
            if flags & _EOS_BIT and st & _EOS_BIT:
                status = SC.success_termination_character_read
                break
            if ret.value <= 0 and got < count:  # neither data nor an end: never loop on it
                _fail(SC.error_io)
        return buf.raw[:got], self.handle_return_value(session, status)

    def read_stb(self, session):
        s = self._message(session)
        stb = ctypes.c_uint16(0)
        if s.kind == "tcpip":
            st = self.drv.kvtcp_ReadSTB(s.rec, s.timeout, ctypes.byref(stb))
        else:
            st = self.drv.vintfWSreadSTB(s.intf, s.idx, s.timeout, ctypes.byref(stb))
        self.handle_return_value(session, st)
        return stb.value & 0xFF, SC.success

    def clear(self, session):
        s = self._message(session)
        if s.kind == "tcpip":
            st = self.drv.kvtcp_Clear(s.rec, s.timeout)
        else:
            st = self.drv.vintfWSclr(s.intf, s.idx, s.timeout)
        return self.handle_return_value(session, st)

    def assert_trigger(self, session, protocol):
        s = self._message(session)
        if s.kind != "vxi":
            _fail(SC.error_nonsupported_operation)
        return self.handle_return_value(session, self.drv.vintfWStrg(s.intf, s.idx, s.timeout))

    def flush(self, session, mask):
        self._message(session)
        return SC.success

    # ------------------------------------------------------------ events

    def _on_irq(self, event_type, intf, instr, status_id, line):
        # On the library's receive thread: queue the event and return; handlers
        # run on the dispatcher thread, where they may call the driver again.
        for sid, s in list(self.sessions.items()):
            if s.kind != "vxi" or s.intf != intf or s.idx != instr:
                continue
            mech = s.enabled.get(IRQ_EVENT, 0)
            ev = (event_type, int(status_id), int(line))
            if mech & C.VI_QUEUE:
                with s.cond:
                    if len(s.events) < int(s.attrs[A.max_queue_length]):
                        s.events.append(ev)
                        s.cond.notify_all()
            if mech & C.VI_HNDLR:
                self._dispatch.put((sid, ev))
            elif mech & C.VI_SUSPEND_HNDLR:
                s.suspended.append(ev)

    def _dispatcher(self):
        while True:
            sid, (event_type, status_id, line) = self._dispatch.get()
            s = self.sessions.get(sid)
            if s is None:
                continue
            for et, handler, user_handle in list(s.handlers):
                if et != event_type:
                    continue
                ctx = self._add(_Context(self, event_type, status_id, line))
                try:
                    handler(sid, event_type, ctx, user_handle)
                except Exception:
                    logger.exception("event handler failed")
                finally:
                    self.sessions.pop(ctx, None)

    @staticmethod
    def _check_event(event_type, mechanism=C.VI_QUEUE):
        if int(event_type) not in (IRQ_EVENT, C.VI_ALL_ENABLED_EVENTS):
            _fail(SC.error_invalid_event)
        if int(mechanism) & ~(C.VI_QUEUE | C.VI_HNDLR | C.VI_SUSPEND_HNDLR):
            _fail(SC.error_invalid_mechanism)

    def enable_event(self, session, event_type, mechanism, context=None):
        s = self._get(session, "vxi")
        self._check_event(event_type, mechanism)
        mech = int(mechanism)
        if mech & C.VI_HNDLR and mech & C.VI_SUSPEND_HNDLR:
            _fail(SC.error_invalid_mechanism)
        old = s.enabled.get(IRQ_EVENT, 0)
        s.enabled[IRQ_EVENT] = old | mech
        if mech & C.VI_HNDLR:
            s.enabled[IRQ_EVENT] &= ~C.VI_SUSPEND_HNDLR
            while s.suspended:
                self._dispatch.put((session, s.suspended.popleft()))
        return SC.success

    def disable_event(self, session, event_type, mechanism):
        s = self._get(session)
        if s.kind != "vxi":
            return SC.success_event_already_disabled
        self._check_event(event_type, mechanism if int(mechanism) != C.VI_ALL_MECH else C.VI_QUEUE)
        s.enabled[IRQ_EVENT] = s.enabled.get(IRQ_EVENT, 0) & ~int(mechanism)
        return SC.success

    def discard_events(self, session, event_type, mechanism):
        s = self._get(session)
        with s.cond:
            s.events.clear()
        s.suspended.clear()
        return SC.success

    def wait_on_event(self, session, in_event_type, timeout):
        s = self._get(session, "vxi")
        self._check_event(in_event_type)
        if not s.enabled.get(IRQ_EVENT, 0) & C.VI_QUEUE:
            _fail(SC.error_not_enabled)
        infinite = timeout is None or int(timeout) == C.VI_TMO_INFINITE
        deadline = None if infinite else time.monotonic() + int(timeout) / 1000.0
        with s.cond:
            while not s.events:
                left = None if deadline is None else deadline - time.monotonic()
                if (left is not None and left <= 0) or session not in self.sessions:
                    _fail(SC.error_timeout)
                s.cond.wait(left)
            event_type, status_id, line = s.events.popleft()
        ctx = self._add(_Context(self, event_type, status_id, line))
        return constants.EventType(event_type), ctx, self.handle_return_value(session, SC.success)

    def install_handler(self, session, event_type, handler, user_handle):
        s = self._get(session, "vxi")
        self._check_event(event_type)
        entry = (int(event_type), handler, user_handle)
        s.handlers.append(entry)
        return handler, user_handle, entry, SC.success

    def uninstall_handler(self, session, event_type, handler, user_handle=None):
        s = self._get(session)
        if handler in s.handlers:
            s.handlers.remove(handler)
        return SC.success
