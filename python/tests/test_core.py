"""The common client behaviour: errors, connect/close, the context manager."""

import pytest

import tarvik


def test_error_message_and_version():
    assert tarvik.error_message(0x040000) == "TCP/IP timeout occured"
    assert tarvik.__version__.count(".") == 2


def test_connect_to_nothing_raises_with_code(sim):
    # No DIO listens at port index 7 of this address.
    client = tarvik.DIO(sim.host, port_index=7, timeout_ms=500)
    with pytest.raises(tarvik.TarvikError) as caught:
        client.connect()
    assert caught.value.code in (0x020000, 0x030000, 0x040000)
    assert caught.value.message == tarvik.error_message(caught.value.code)
    assert not client.connected


@pytest.mark.parametrize("family", [tarvik.SPI, tarvik.DIO, tarvik.CAN])
@pytest.mark.parametrize("argument,value", [("port_index", -1), ("port_index", 100), ("port", 65536)])
def test_a_port_outside_the_gateways_range_is_refused_by_name(family, argument, value):
    with pytest.raises(ValueError, match="%s must be .*, got %d" % (argument, value)):
        family("127.0.0.1", **{argument: value})


def test_calls_without_connection_raise_not_connected():
    client = tarvik.DIO("127.0.0.1", port_index=7)
    with pytest.raises(tarvik.TarvikError) as caught:
        client.read()
    assert caught.value.code == 0x030000


def test_context_manager_connects_and_closes(sim):
    with tarvik.DIO(sim.host) as dio:
        assert dio.connected
        info = dio.info()
        assert len(info["raw"]) == 20
        assert isinstance(dio.status(), str)
    assert not dio.connected


def test_device_error_code_carries_device_type(sim):
    with tarvik.CAN(sim.host) as can:
        with pytest.raises(tarvik.TarvikError) as caught:
            can.set_globals(12345)   # not a bit rate the gateway knows
        assert caught.value.code == 0x0224
        assert "baudrate" in caught.value.message


def test_dio_round_trip(sim):
    with tarvik.DIO(sim.host) as dio:
        dio.write(0x5A)
        inputs, outputs = dio.read()
        assert outputs == 0x5A


def test_stubs_name_every_public_method():
    import ast
    import os
    tree = ast.parse(open(os.path.join(os.path.dirname(tarvik.__file__), "__init__.pyi")).read())
    stubs = {}
    for node in tree.body:
        if isinstance(node, ast.ClassDef):
            stubs[node.name] = {m.name for m in node.body if isinstance(m, ast.FunctionDef)} | \
                {m.target.id for m in node.body if isinstance(m, ast.AnnAssign)}
    for name in dir(tarvik._tarvik):
        cls = getattr(tarvik._tarvik, name)
        if isinstance(cls, type) and not issubclass(cls, BaseException):
            missing = {m for m in dir(cls) if not m.startswith("_")} - stubs.get(name, set()) - stubs["_Client"]
            assert name in stubs and not missing, (name, missing)
