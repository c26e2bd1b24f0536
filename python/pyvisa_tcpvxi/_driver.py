"""libtcpvxi.so as a host sees it: loaded with ctypes, entry points resolved
by their exported names, the two logging hooks and the interrupt callback
supplied from Python.
"""
import atexit
import ctypes
import ctypes.util
import logging
import os
import re
import struct
import threading

logger = logging.getLogger("pyvisa_tcpvxi.driver")

LIBRARY_NAME = "libtcpvxi.so"

c_int = ctypes.c_int
c_int16 = ctypes.c_int16
c_int32 = ctypes.c_int32
c_uint16 = ctypes.c_uint16
c_uint32 = ctypes.c_uint32
c_uint64 = ctypes.c_uint64
c_char_p = ctypes.c_char_p
c_void_p = ctypes.c_void_p
P = ctypes.POINTER

# Entry points with plain names: name -> (argument types, result type).
_PLAIN = {
    "tcpvxi_start": ([], None),
    "tcpvxi_stop": ([], None),
    "vintfOpenDevice": ([P(c_uint16)], c_int32),
    "vintfCloseDevice": ([], c_int32),
    "vintfGetNumRsrc": ([c_uint16, P(c_uint32)], c_int32),
    "vintfGetRsrcAttr": ([c_uint16, c_uint32, c_uint32, c_void_p], c_int32),
    "vintfSetRsrcAttr": ([c_uint16, c_uint32, c_uint32, c_uint64], c_int32),
    "vintfSetExtIntf": ([c_uint16, c_uint16], c_int32),
    "vintfUserIRQCallback": ([c_void_p], c_int32),
    "vintfTestIRQ": ([c_uint16, c_uint16], c_int32),
}
for _w, _t in ((8, ctypes.c_uint8), (16, c_uint16), (32, c_uint32)):
    _PLAIN["vintfIn%d" % _w] = ([c_uint16, c_uint32, c_uint16, c_uint64, P(_t)], c_int32)
    _PLAIN["vintfOut%d" % _w] = ([c_uint16, c_uint32, c_uint16, c_uint64, _t], c_int32)
    _blk = [c_uint16, c_uint32, c_uint16, c_uint16, c_uint64, c_uint64, c_void_p]
    _PLAIN["vintfMoveIn%d" % _w] = (_blk, c_int32)
    _PLAIN["vintfMoveOut%d" % _w] = (_blk, c_int32)

# Entry points exported under C++ names.  The type encoding is part of the
# contract: a symbol with the same base name but another encoding has another
# signature, and calling it through these argument types would be wrong.
_KVTCP = c_void_p  # pointer to a connection record
_CPP = {
    "vintfTryReopenDevice": ("_Z20vintfTryReopenDevicei", [c_int], c_int32),
    "vintfWScmd": ("_Z10vintfWScmdtjjttPt", [c_uint16, c_uint32, c_uint32, c_uint16, c_uint16, P(c_uint16)], c_int32),
    "vintfWSreadSTB": ("_Z14vintfWSreadSTBtjjPt", [c_uint16, c_uint32, c_uint32, P(c_uint16)], c_int32),
    "vintfWSrd": ("_Z9vintfWSrdtjjPcitcPi",
                  [c_uint16, c_uint32, c_uint32, c_void_p, c_int32, c_uint16, ctypes.c_char, P(c_int32)], c_int32),
    "vintfWSwrt": ("_Z10vintfWSwrttjjPcitPi",
                   [c_uint16, c_uint32, c_uint32, c_void_p, c_int32, c_uint16, P(c_int32)], c_int32),
    "vintfWStrg": ("_Z10vintfWStrgtjj", [c_uint16, c_uint32, c_uint32], c_int32),
    "vintfWSclr": ("_Z10vintfWSclrtjj", [c_uint16, c_uint32, c_uint32], c_int32),
    "kvtcp_hislip_Connect": ("_Z20kvtcp_hislip_ConnectP10_KvTcpInfoPKcS2_", [_KVTCP, c_char_p, c_char_p], c_int32),
    "kvtcp_vxi11_Connect": ("_Z19kvtcp_vxi11_ConnectP10_KvTcpInfoS0_PKcS2_",
                            [_KVTCP, _KVTCP, c_char_p, c_char_p], c_int32),
    "kvtcp_sock_Connect": ("_Z18kvtcp_sock_ConnectP10_KvTcpInfoPKct", [_KVTCP, c_char_p, c_uint16], c_int32),
    "kvtcp_Close": ("_Z11kvtcp_CloseP10_KvTcpInfo", [_KVTCP], None),
    "kvtcp_Read": ("_Z10kvtcp_ReadP10_KvTcpInfojPcitcPi",
                   [_KVTCP, c_uint32, c_void_p, c_int32, c_uint16, ctypes.c_char, P(c_int32)], c_int32),
    "kvtcp_Write": ("_Z11kvtcp_WriteP10_KvTcpInfojPcitPi",
                    [_KVTCP, c_uint32, c_void_p, c_int32, c_uint16, P(c_int32)], c_int32),
    "kvtcp_ReadSTB": ("_Z13kvtcp_ReadSTBP10_KvTcpInfojPt", [_KVTCP, c_uint32, P(c_uint16)], c_int32),
    "kvtcp_Clear": ("_Z11kvtcp_ClearP10_KvTcpInfoj", [_KVTCP, c_uint32], c_int32),
}

# A connection record of the transport is owned by its caller.  Python does
# not know the record's layout beyond its first field (the int `Connected`);
# it hands the library a zeroed, 8-byte aligned block comfortably larger than
# the record.
KVTCP_RECORD_BYTES = 16384


def new_connection_record():
    return (c_uint64 * (KVTCP_RECORD_BYTES // 8))()


def record_connected(rec):
    return ctypes.cast(rec, P(c_int32))[0] != 0


# ------------------------------------------------------------ symbol table

def dynamic_symbols(path):
    """Names of the symbols that the ELF file at path defines in its dynamic
    symbol table (.dynsym), read straight from the file."""
    with open(path, "rb") as f:
        data = f.read()
    if data[:4] != b"\x7fELF":
        raise OSError("%s is not an ELF file" % path)
    is64 = data[4] == 2
    end = "<" if data[5] == 1 else ">"
    if is64:
        shoff, = struct.unpack_from(end + "Q", data, 0x28)
        shentsize, shnum = struct.unpack_from(end + "HH", data, 0x3A)
        shdr, sym, symsize = end + "IIQQQQIIQQ", end + "IBBHQQ", 24
    else:
        shoff, = struct.unpack_from(end + "I", data, 0x20)
        shentsize, shnum = struct.unpack_from(end + "HH", data, 0x2E)
        shdr, sym, symsize = end + "IIIIIIIIII", end + "IIIBBH", 16
    sections = [struct.unpack_from(shdr, data, shoff + i * shentsize) for i in range(shnum)]
    names = set()
    for s in sections:
        if s[1] != 11:  # SHT_DYNSYM
            continue
        off, size, link = (s[4], s[5], s[6]) if is64 else (s[4], s[5], s[6])
        strtab = sections[link]
        stroff = strtab[4]
        for k in range(1, size // symsize):  # entry 0 is the null symbol
            e = struct.unpack_from(sym, data, off + k * symsize)
            name_off, shndx = e[0], (e[3] if is64 else e[5])
            if shndx == 0:  # undefined here: imported, not exported
                continue
            stop = data.index(b"\0", stroff + name_off)
            names.add(data[stroff + name_off:stop].decode("ascii", "replace"))
    return names


def cpp_base_name(mangled):
    """'vintfWSrd' for '_Z9vintfWSrdtjjPcitcPi'; None for other names."""
    m = re.match(r"_Z(\d+)", mangled)
    if not m:
        return None
    n = int(m.group(1))
    return mangled[m.end():m.end() + n]


class _DlInfo(ctypes.Structure):
    _fields_ = [("dli_fname", c_char_p), ("dli_fbase", c_void_p), ("dli_sname", c_char_p), ("dli_saddr", c_void_p)]


def loaded_file_of(cdll, symbol):
    """The file from which the loader took cdll (it may have been found
    through LD_LIBRARY_PATH or the cache, so ask the loader)."""
    libc = ctypes.CDLL(None)
    dladdr = libc.dladdr
    dladdr.argtypes = [c_void_p, P(_DlInfo)]
    info = _DlInfo()
    addr = ctypes.cast(getattr(cdll, symbol), c_void_p)
    if not dladdr(addr, ctypes.byref(info)) or not info.dli_fname:
        raise OSError("cannot tell which file %s came from" % cdll._name)
    return os.fsdecode(info.dli_fname)


def library_candidates():
    """Where to look when the resource-manager string names no file: the
    ordinary loader search first (LD_LIBRARY_PATH, the cache, the system
    directories), then the library directory the package was installed
    beside (written into _libdir.py by the CMake install)."""
    found = [LIBRARY_NAME]
    try:
        from ._libdir import LIBDIR
    except ImportError:
        LIBDIR = None
    if LIBDIR:
        found.append(os.path.join(LIBDIR, LIBRARY_NAME))
    return found


# ----------------------------------------------------------- logging hooks
#
# The library calls its hooks as C variadic functions:
#     pkvFSpyLog(int level, const char* format, ...)
#     pkvFRSpyLog(int level1, int level2, const char* format, ...)
# A ctypes callback cannot be variadic.  On the ABIs this runs on (x86-64
# and AArch64 System V) integer and pointer arguments of a variadic call are
# passed exactly as for a prototyped call, in the integer registers first and
# then in 8-byte stack slots, so a callback declared with a fixed tail of
# word-sized arguments receives every integer and pointer argument the caller
# passed.  Tail slots the caller did not fill hold whatever lies there (the
# caller's own frame, always mapped memory); the formatter reads only as many
# as the format consumes, so they are never looked at.  Floating-point values
# travel in other registers and cannot be recovered this way: the library's
# formats use none, and a stray %f/%g prints as "?" without consuming a word.
_TAIL_WORDS = 10
_SPYLOG = ctypes.CFUNCTYPE(None, c_int, c_char_p, *([c_uint64] * _TAIL_WORDS))
_RSPYLOG = ctypes.CFUNCTYPE(None, c_int, c_int, c_char_p, *([c_uint64] * (_TAIL_WORDS - 1)))
_IRQ = ctypes.CFUNCTYPE(None, c_uint32, c_uint16, c_uint32, c_uint64, c_uint64)

_CONV = re.compile(r"%([-+ #0]*)(\d+|\*)?(?:\.(\d+|\*))?(hh|h|ll|l|z|j|t)?([diouxXcspfFeEgG%])")


def format_c(fmt, words):
    """printf-style formatting of the integer/pointer arguments in words."""
    out, pos, it = [], 0, iter(words)

    def nxt():
        return next(it, 0) or 0

    for m in _CONV.finditer(fmt):
        out.append(fmt[pos:m.start()])
        pos = m.end()
        flags, width, prec, length, conv = m.groups()
        if conv == "%":
            out.append("%")
            continue
        if width == "*":
            width = str(ctypes.c_int32(nxt()).value)
        if prec == "*":
            prec = str(ctypes.c_int32(nxt()).value)
        fmt_head = "%" + flags + (width or "") + ("." + prec if prec else "")
        if conv in "fFeEgG":
            out.append("?")
            continue
        w = nxt()
        if conv == "s":
            s = ctypes.string_at(w).decode("latin-1") if w else "(null)"
            out.append((fmt_head + "s") % s)
        elif conv == "c":
            out.append((fmt_head + "c") % chr(w & 0xFF))
        elif conv == "p":
            out.append(hex(w))
        else:
            wide = length in ("l", "ll", "z", "j", "t")
            v = w if wide else w & 0xFFFFFFFF
            if conv in "di":
                bits = 64 if wide else 32
                if v >= 1 << (bits - 1):
                    v -= 1 << bits
            out.append((fmt_head + ("d" if conv in "diu" else conv)) % v)
    out.append(fmt[pos:])
    return "".join(out)


def _emit(level, fmt, words):
    if not logger.isEnabledFor(logging.DEBUG):
        return
    try:
        text = format_c(fmt.decode("latin-1") if fmt else "", words)
    except Exception:  # a log line must never take the caller down
        text = repr(fmt)
    logger.debug("[%#x] %s", level, text.rstrip("\n"))


@_SPYLOG
def _spylog(level, fmt, *words):
    _emit(level, fmt, words)


@_RSPYLOG
def _rspylog(level1, level2, fmt, *words):
    _emit(level2, fmt, words)


# ------------------------------------------------------------------ driver

class Driver:
    """One loaded, started library.  The driver's state is per process, so
    there is one Driver per library file, started once and stopped at exit."""

    _loaded = {}
    _lock = threading.Lock()

    @classmethod
    def get(cls, path):
        with cls._lock:
            lib = ctypes.CDLL(path)
            # Keyed by the file the loader took: "libtcpvxi.so" found through
            # LD_LIBRARY_PATH and its full path are the same driver.
            where = os.path.realpath(loaded_file_of(lib, "tcpvxi_start"))
            drv = cls._loaded.get(where)
            if drv is None:
                drv = cls._loaded[where] = Driver(lib, where)
            return drv

    def __init__(self, lib, path):
        self.lib, self.path = lib, path
        exported = dynamic_symbols(self.path)
        missing = []
        for name, (args, res) in _PLAIN.items():
            if name not in exported:
                missing.append(name)
                continue
            fn = getattr(self.lib, name)
            fn.argtypes, fn.restype = args, res
            setattr(self, name, fn)
        by_base = {}
        for s in exported:
            b = cpp_base_name(s)
            if b:
                by_base.setdefault(b, []).append(s)
        for name, (mangled, args, res) in _CPP.items():
            if mangled not in exported:
                found = by_base.get(name)
                missing.append("%s (as %s%s)" % (name, mangled, ", found " + ", ".join(found) if found else ""))
                continue
            fn = getattr(self.lib, mangled)
            fn.argtypes, fn.restype = args, res
            setattr(self, name, fn)
        for hook in ("pkvFSpyLog", "pkvFRSpyLog"):
            if hook not in exported:
                missing.append(hook)
        if missing:
            raise OSError("%s lacks: %s" % (self.path, "; ".join(missing)))

        self._spy = c_void_p.in_dll(self.lib, "pkvFSpyLog")
        self._rspy = c_void_p.in_dll(self.lib, "pkvFRSpyLog")
        self._spy.value = ctypes.cast(_spylog, c_void_p).value
        self._rspy.value = ctypes.cast(_rspylog, c_void_p).value
        self.irq_listeners = []
        self._irq = _IRQ(self._on_irq)  # kept referenced for the library's lifetime
        self.tcpvxi_start()
        self.vintfUserIRQCallback(ctypes.cast(self._irq, c_void_p))
        n = c_uint16(0)
        self.vintfOpenDevice(ctypes.byref(n))
        self.n_intf = n.value
        # The interrupt callback names an interface by the number the host
        # gave it; give each its own index so that VXI<n> is interface n.
        for i in range(self.n_intf):
            self.vintfSetExtIntf(i, i)
        self.stopped = False
        atexit.register(self.stop)

    def _on_irq(self, event_type, intf, instr, status_id, line):
        # Runs on the library's receive thread: hand over and return at once.
        for fn in list(self.irq_listeners):
            try:
                fn(event_type, intf, instr, status_id, line)
            except Exception:
                logger.exception("interrupt listener failed")

    def stop(self):
        if self.stopped:
            return
        self.stopped = True
        self.vintfUserIRQCallback(None)
        self.tcpvxi_stop()
        # Nothing of the library runs any more; the optional hook goes, the
        # mandatory one stays (its callback object lives as long as the module).
        self._spy.value = None
