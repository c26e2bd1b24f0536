"""pyvisa.ResourceManager("@tcpvxi") against the simulated mainframe."""
import threading

import pytest
from pyvisa import constants as C
from pyvisa import errors

from conftest import RAW_PORT

A16, A24, A32 = C.VI_A16_SPACE, C.VI_A24_SPACE, C.VI_A32_SPACE

# The simulator's default mainframe: LA, resource class, model code.
INSTRUMENTS = [
    (0, "TcpVxiMessageInstrument", 0x001),
    (8, "TcpVxiInstrument", 0x210),
    (16, "TcpVxiMessageInstrument", 0x310),
    (24, "TcpVxiMessageInstrument", 0x420),
    (32, "TcpVxiMessageInstrument", 0x530),
    (40, "TcpVxiInstrument", 0x640),
]
IDN = {
    0: "Simulated,LAN-VXI Bridge,SIM0001,1.0",
    16: "Simulated,VXI Multimeter 6.5,SIM1016,2.1",
    24: "Simulated,VXI Counter 225MHz,SIM1024,1.3",
    32: "Simulated,VXI Switch 64ch,SIM1032,1.0",
}
MEMORY_CARD = 40  # 8 MiB in A32


def expect_error(statuses, call, *args):
    """call(*args) raises a VISA error with one of the statuses."""
    with pytest.raises(errors.VisaIOError) as e:
        call(*args)
    assert e.value.error_code & 0xFFFFFFFF in [st & 0xFFFFFFFF for st in statuses]


@pytest.fixture
def instr(rm, request):
    r = rm.open_resource("VXI0::%d::INSTR" % request.param)
    if hasattr(r, "read_termination"):
        r.read_termination = "\n"
    yield r
    r.close()


def test_list_resources(rm):
    assert rm.list_resources() == tuple("VXI0::%d::INSTR" % la for la, _, _ in INSTRUMENTS)
    assert rm.list_resources("VXI?*::MEMACC") == ("VXI0::MEMACC",)
    # LAN instruments only when asked for by name, and only when they answer.
    hislip = "TCPIP0::127.0.0.1::hislip0::INSTR"
    assert rm.list_resources(hislip) == (hislip,)
    assert rm.list_resources("TCPIP0::127.0.0.1::7::SOCKET") == ()


@pytest.mark.parametrize("la,pyclass,model", INSTRUMENTS)
def test_id_registers(rm, la, pyclass, model):
    r = rm.open_resource("VXI0::%d::INSTR" % la)
    try:
        assert type(r).__name__ == pyclass
        ident = r.read_memory(A16, 0, 16)
        assert ident & 0xFFF == r.manufacturer_id == 0xFFB
        assert ident >> 14 == r.get_visa_attribute(C.VI_ATTR_VXI_DEV_CLASS)
        assert r.read_memory(A16, 2, 16) & 0xFFF == r.model_code == model
        # The same register through the bus-wide resource, by absolute address.
        mem = rm.open_resource("VXI0::MEMACC")
        assert mem.read_memory(A16, 0xC000 + 0x40 * la, 16) == ident
        mem.close()
    finally:
        r.close()


@pytest.mark.parametrize("instr", [MEMORY_CARD], indirect=True)
@pytest.mark.parametrize("width,offset", [(8, 0x100001), (16, 0x200002), (32, 0)])
def test_block_round_trip_1mib(rm, instr, width, offset):
    n = (1 << 20) * 8 // width
    data = [(i * 2654435761 + width) & ((1 << width) - 1) for i in range(n)]
    instr.move_out(A32, offset, n, data, width)
    back = instr.move_in(A32, offset, n, width)
    bad = [i for i in range(n) if back[i] != data[i]]
    assert not bad, "first mismatch at element %d" % bad[0]
    # Window-relative offsets: the bus-wide resource sees the data at the
    # instrument's base address plus the offset.
    mem = rm.open_resource("VXI0::MEMACC")
    base = instr.get_visa_attribute(C.VI_ATTR_MEM_BASE)
    assert [mem.read_memory(A32, base + offset + k * width // 8, width) for k in range(3)] == data[:3]
    mem.close()


@pytest.mark.parametrize("instr", [MEMORY_CARD], indirect=True)
def test_single_access_and_window_bounds(instr):
    for width, value in ((8, 0xA5), (16, 0xBEEF), (32, 0xDEADBEEF)):
        instr.write_memory(A32, 0x40, value, width)
        assert instr.read_memory(A32, 0x40, width) == value
    size = instr.get_visa_attribute(C.VI_ATTR_MEM_SIZE)
    expect_error([C.VI_ERROR_INV_OFFSET], instr.read_memory, A32, size - 2, 32)
    expect_error([C.VI_ERROR_INV_SPACE], instr.read_memory, A24, 0, 16)  # the card has no A24 window


@pytest.mark.parametrize("instr", [16], indirect=True)
def test_status_byte_clear_trigger_timeout(instr):
    mav = 0x10
    instr.write("*IDN?")
    assert instr.read_stb() & mav
    instr.clear()  # empties the output queue
    assert not instr.read_stb() & mav
    instr.write("TRIG:SOUR BUS")
    instr.write("INIT")
    instr.assert_trigger()
    assert float(instr.query("FETC?")) == pytest.approx(1.2345)
    instr.timeout = 200
    expect_error([C.VI_ERROR_TMO], instr.read)  # nothing was asked: the instrument never has data


@pytest.mark.parametrize("instr", [24], indirect=True)
@pytest.mark.parametrize(
    "attr,expected",
    [
        (C.VI_ATTR_MANF_ID, 0xFFB),  # 16-bit, from the resource record
        (C.VI_ATTR_MODEL_CODE, 0x420),
        (C.VI_ATTR_SLOT, 4),
        (C.VI_ATTR_VXI_LA, 24),
        (C.VI_ATTR_MEM_SPACE, A32),
        (C.VI_ATTR_MEM_SIZE, 64 * 1024),  # 64-bit
        (C.VI_ATTR_INTF_TYPE, C.VI_INTF_VXI),
        (C.VI_ATTR_RSRC_NAME, "VXI0::24::INSTR"),  # strings
        (C.VI_ATTR_RSRC_CLASS, "INSTR"),
        (C.VI_ATTR_INTF_INST_NAME, "TCP-VXI0"),
        (C.VI_ATTR_TERMCHAR_EN, True),  # session state, boolean
        (C.VI_ATTR_TMO_VALUE, 2000),
    ],
)
def test_attributes(instr, attr, expected):
    assert instr.get_visa_attribute(attr) == expected


@pytest.mark.parametrize("instr", [24], indirect=True)
def test_attribute_errors_and_settable(instr):
    instr.timeout = 1234
    assert instr.get_visa_attribute(C.VI_ATTR_TMO_VALUE) == 1234
    expect_error([C.VI_ERROR_ATTR_READONLY], instr.set_visa_attribute, C.VI_ATTR_SLOT, 1)
    expect_error([C.VI_ERROR_NSUP_ATTR], instr.set_visa_attribute, C.VI_ATTR_GPIB_PRIMARY_ADDR, 1)
    expect_error([C.VI_ERROR_NSUP_ATTR], instr.get_visa_attribute, C.VI_ATTR_GPIB_PRIMARY_ADDR)


@pytest.mark.parametrize("instr", [8], indirect=True)
def test_interrupts_to_queue_and_handler(bridge, instr):
    ev = C.VI_EVENT_VXI_VME_INTR
    instr.enable_event(ev, C.VI_QUEUE)
    bridge.control("irq 2 0x3408")  # status/ID: cause 0x34 from LA 8
    bridge.control("irq 3 0x0018")  # another instrument's: not this session's
    got = instr.wait_on_event(ev, 2000)
    assert (got.event.status_id, got.event.level) == (0x3408, 2)
    assert instr.wait_on_event(ev, 100, capture_timeout=True).timed_out
    instr.disable_event(ev, C.VI_QUEUE)

    seen, done = [], threading.Event()

    def handler(resource, event, user_handle):
        # Handlers may use the driver: they do not run on its receive thread.
        seen.append((event.status_id, event.level, user_handle, resource.read_memory(A16, 0, 16) & 0xFFF))
        done.set()

    h = instr.wrap_handler(handler)
    user = instr.install_handler(ev, h, 7)
    instr.enable_event(ev, C.VI_HNDLR)
    bridge.control("irq 5 0x1208")
    assert done.wait(5)
    instr.disable_event(ev, C.VI_HNDLR)
    instr.uninstall_handler(ev, h, user)
    assert seen == [(0x1208, 5, 7, 0xFFB)]


# Word Serial instruments in the mainframe and the LAN instruments (HiSLIP,
# raw socket, VXI-11): a query, and the status byte and clear where there are.
@pytest.mark.parametrize(
    "name,answer",
    [("VXI0::%d::INSTR" % la, idn) for la, idn in sorted(IDN.items())]
    + [
        ("TCPIP0::127.0.0.1::hislip0::INSTR", IDN[0]),
        ("TCPIP0::127.0.0.1::%d::SOCKET" % RAW_PORT, IDN[0]),
        ("TCPIP0::127.0.0.1::inst0::INSTR", "KVSIM,VXI11-INSTRUMENT,0,1.0"),
    ],
)
def test_identity_query(rm, vxi11_sim, name, answer):
    r = rm.open_resource(name, read_termination="\n", write_termination="\n")
    try:
        assert r.query("*IDN?") == answer
        if r.resource_class == "INSTR":
            assert r.read_stb() in range(256)
            r.clear()
    finally:
        r.close()


@pytest.mark.parametrize("instr", [16], indirect=True)
def test_bridge_killed_and_reopened(bridge, instr):
    assert instr.query("*IDN?") == IDN[16]
    bridge.kill()
    expect_error([C.VI_ERROR_CONN_LOST, C.VI_ERROR_IO], instr.read_memory, A16, 0, 16)
    bridge.start()
    instr.reconnect()
    assert instr.read_memory(A16, 0, 16) & 0xFFF == 0xFFB
    assert instr.query("*IDN?") == IDN[16]


def test_driver_log_reaches_python_logging(rm, caplog):
    # The library's variadic hooks, formatted on the Python side.
    r = rm.open_resource("VXI0::8::INSTR")
    with caplog.at_level("DEBUG", logger="pyvisa_tcpvxi.driver"):
        r.read_memory(A16, 0, 16)
    r.close()
    assert any(m.endswith(") vintfIn16: intf0") for m in caplog.messages), caplog.messages
