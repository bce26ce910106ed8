"""orvexmd against qxdc-sim: the API from Python, records, threads."""

import struct
import sys
import threading
import time

import numpy as np
import pytest

import orvexmd
from conftest import Recorder

FORMATS = {"int": "<i", "double": "<d"}


def start(sim, spi_class=Recorder, config=None, deliver_snapshot=True, file_front=False):
    if config:
        open("OrvexWiraMdApi.def", "w").write(config)
    api = orvexmd.MdApi("", deliver_snapshot)
    spi = spi_class(api)
    api.RegisterSpi(spi)
    api.RegisterFront(sim.front)
    if file_front:
        api.RegisterFront(sim.file_front)
    api.Init()
    return api, spi


def field_values(record):
    """Every field of a record read from its raw bytes by its C layout."""
    raw = record.raw
    out = {}
    for name, offset, size, kind in type(record).fields():
        if kind in FORMATS:
            out[name] = struct.unpack_from(FORMATS[kind], raw, offset)[0]
        else:
            out[name] = raw[offset:offset + size].split(b"\0", 1)[0].decode("gbk", "replace")
    return out


def test_login_answer_fields(workdir, sim):
    api, spi = start(sim)
    try:
        assert spi.wait(lambda s: s.logins)
        login, info, request_id, is_last = spi.logins[0]
        # The answer that completes a second-form login carries no request id.
        assert (info.ErrorID, request_id, is_last) == (0, 0, True)
        assert (login.BrokerID, login.UserID, login.SystemName) == ("9999", "demo", "QXDC")
        assert len(login.TradingDay) == 8 and login.TradingDay == api.GetTradingDay()
        assert login.to_dict()["SHFETime"] == login.SHFETime
        assert len(login.raw) == 148
    finally:
        api.Release()


def test_depth_records_field_by_field_against_their_bytes(workdir, sim):
    api, spi = start(sim)
    try:
        assert spi.wait(lambda s: len(s.depths) > 100)
    finally:
        api.Release()
    records = spi.depths[:200]
    for md in records:
        assert len(md.raw) == 408
        assert md.to_dict() == field_values(md)
        assert md.PreDelta == orvexmd.DBL_MAX   # never filled
    # The same records through NumPy, without a Python object per record.
    rows = np.frombuffer(b"".join(md.raw for md in records), dtype=orvexmd.DEPTH_DTYPE)
    assert rows["LastPrice"].tolist() == [md.LastPrice for md in records]
    assert rows["BidVolume1"].tolist() == [md.BidVolume1 for md in records]
    assert [x.decode() for x in rows["InstrumentID"]] == [md.InstrumentID for md in records]


def test_instrument_query_names_in_gbk_arrive_as_str(workdir, sim):
    class Querying(Recorder):
        def OnLoginAnswer(self, login, info, request_id, is_last):
            super().OnLoginAnswer(login, info, request_id, is_last)
            self.api.ReqQryInstrument(orvexmd.QryInstrumentField(ExchangeID="SHFE"), 21)
            self.api.ReqQryInstrument(orvexmd.QryInstrumentField(ExchangeID="NOPE"), 22)

    api, spi = start(sim, Querying)
    try:
        assert spi.wait(lambda s: sum(1 for a in s.instruments if a[3]) >= 2, 15)
    finally:
        api.Release()
    shfe = [a for a in spi.instruments if a[2] == 21]
    assert shfe and shfe[-1][3]
    names = [inst.InstrumentName for inst, _, _, _ in shfe]
    assert all(isinstance(n, str) and n for n in names)
    assert any(ord(c) > 127 for n in names for c in n)   # Chinese names, decoded
    assert all("\ufffd" not in n for n in names)
    assert all(inst.ExchangeID == "SHFE" for inst, _, _, _ in shfe)
    # The unknown exchange: no record, the message as str.
    (inst, info, _, last), = [a for a in spi.instruments if a[2] == 22]
    assert inst is None and last
    assert info.ErrorID == 1 and info.ErrorMsg == "合约查询找不到指定市场"


def test_subscriptions_filter_what_arrives(workdir, sim):
    class Subscribing(Recorder):
        def OnLoginAnswer(self, login, info, request_id, is_last):
            super().OnLoginAnswer(login, info, request_id, is_last)
            self.api.SubscribeMarketData(["cu2501.SHFE", "CFFEX"])

    api, spi = start(sim, Subscribing, config="[CONFIG]\nSubscribe=1\n")
    try:
        assert spi.wait(lambda s: len(s.depths) > 30, 15)
        api.UnSubscribeMarketData(["CFFEX"])
    finally:
        api.Release()
    assert {(md.ExchangeID, md.InstrumentID if md.ExchangeID == "SHFE" else "") for md in spi.depths} <= {
        ("SHFE", "cu2501"), ("CFFEX", "")}
    assert any(md.ExchangeID == "CFFEX" for md in spi.depths)


def test_front_lost_when_the_server_stops_and_the_reconnect(workdir, sim):
    api, spi = start(sim)
    try:
        assert spi.wait(lambda s: s.logins)
        sim.stop()
        assert spi.wait(lambda s: s.lost)
        assert spi.lost[0] in (0, 4097, 4098)   # closed, a read error, or a send that failed first
        sim.start()   # the same port
        # The library tries again every 10 s and logs in once more.
        assert spi.wait(lambda s: s.events.count("linked") >= 2 and len(s.logins) >= 2, 25)
    finally:
        api.Release()


def test_release_while_callbacks_run_then_every_call_raises(workdir, sim):
    class Slow(Recorder):
        def OnDepthMarketData(self, md):
            time.sleep(0.002)
            super().OnDepthMarketData(md)

    api, spi = start(sim, Slow)
    assert spi.wait(lambda s: len(s.depths) > 10)
    api.Release()   # waits for the callback in flight, the GIL released meanwhile
    count = len(spi.depths)
    time.sleep(0.3)
    assert len(spi.depths) == count
    for call in (api.Init, api.GetTradingDay, lambda: api.SubscribeMarketData(["x"]), api.Join):
        with pytest.raises(RuntimeError):
            call()
    api.Release()   # twice is harmless


def test_exception_in_a_callback_is_reported_and_delivery_goes_on(workdir, sim, monkeypatch):
    reported = []
    monkeypatch.setattr(sys, "unraisablehook", lambda u: reported.append(u))

    class Raising(Recorder):
        def OnDepthMarketData(self, md):
            super().OnDepthMarketData(md)
            if len(self.depths) <= 3:
                raise ValueError("boom %d" % len(self.depths))

    api, spi = start(sim, Raising)
    try:
        assert spi.wait(lambda s: len(s.depths) > 20)
    finally:
        api.Release()
    assert len(reported) == 3
    assert all(isinstance(u.exc_value, ValueError) for u in reported)


def test_context_manager_and_release_from_a_callback(workdir, sim):
    errors = []

    class ReleasingInside(Recorder):
        def OnLoginAnswer(self, login, info, request_id, is_last):
            try:
                self.api.Release()
            except RuntimeError as e:
                errors.append(str(e))
            super().OnLoginAnswer(login, info, request_id, is_last)

    with orvexmd.MdApi() as api:
        spi = ReleasingInside(api)
        api.RegisterSpi(spi)
        api.RegisterFront(sim.front)
        api.Init()
        assert spi.wait(lambda s: s.logins)
        assert not api.released
    assert api.released
    assert errors and "callback" in errors[0]
    with pytest.raises(RuntimeError):
        api.GetTradingDay()


def test_join_returns_when_another_thread_releases(workdir, sim):
    api, spi = start(sim)
    assert spi.wait(lambda s: s.logins)
    threading.Timer(0.3, api.Release).start()
    t0 = time.monotonic()
    assert api.Join() == 0
    assert time.monotonic() - t0 < 5


def test_records_and_the_depth_dtype_follow_the_c_layout():
    fields = orvexmd.DepthMarketDataField.fields()
    assert orvexmd.DepthMarketDataField.size == 408 == orvexmd.DEPTH_DTYPE.itemsize
    for name, offset, size, kind in fields:
        assert orvexmd.DEPTH_DTYPE.fields[name][1] == offset
        assert orvexmd.DEPTH_DTYPE.fields[name][0].itemsize == size
    names = [f[0] for f in fields]
    assert names[:5] == ["TradingDay", "InstrumentID", "ExchangeID", "ExchangeInstID", "LastPrice"]
    assert dict((f[0], f[1]) for f in fields)["ActionDay"] == 392
    # Request records: keyword construction, GBK texts, bounds.
    req = orvexmd.ReqUserLoginField(BrokerID="9999", UserID="交易员", Password="p")
    assert req.raw[9:14] == b"9999\0"
    assert req.raw[20:27] == "交易员".encode("gbk") + b"\0"
    assert req.UserID == "交易员"
    with pytest.raises(ValueError):
        orvexmd.ReqUserLoginField(BrokerID="x" * 11)
    with pytest.raises(TypeError):
        orvexmd.QryInstrumentField(NoSuchField="x")
    assert orvexmd.RspInfoField().ErrorMsg == ""


def test_from_raw_builds_the_record_of_its_bytes():
    d = orvexmd.DepthMarketDataField(TradingDay="20250102", InstrumentID="cu2501", ExchangeID="SHFE",
                                     LastPrice=70120.0, Volume=1234.0, BidVolume1=8, UpdateTime="10:15:00",
                                     UpdateMillisec=500)
    back = orvexmd.DepthMarketDataField.from_raw(d.raw)
    assert back.raw == d.raw
    assert back.to_dict() == d.to_dict() == field_values(back)
    assert back.InstrumentID == "cu2501" and back.BidVolume1 == 8 and back.LastPrice == 70120.0
    # Another record's bytes give another record; a copy, not a view.
    buf = bytearray(d.raw)
    other = orvexmd.DepthMarketDataField.from_raw(buf)
    buf[:6] = b"999999"
    assert other.raw == d.raw
    assert orvexmd.DepthMarketDataField.from_raw(memoryview(d.raw)).raw == d.raw
    s = orvexmd.MarketStatusField(ExchangeID="SHFE", TradingDay="20250102", UpdateTime="10:15:00",
                                  MarketStatus="2")
    assert len(s.raw) == orvexmd.MarketStatusField.size == 37
    back = orvexmd.MarketStatusField.from_raw(s.raw)
    assert back.raw == s.raw and back.MarketStatus == "2" and back.UpdateTime == "10:15:00"


def test_from_raw_wants_exactly_the_record_size():
    raw = orvexmd.DepthMarketDataField(InstrumentID="cu2501").raw
    for bad in (raw[:-1], raw + b"\0", b""):
        with pytest.raises(ValueError, match="408"):
            orvexmd.DepthMarketDataField.from_raw(bad)
    with pytest.raises(ValueError, match="37"):
        orvexmd.MarketStatusField.from_raw(raw)
    with pytest.raises(TypeError):
        orvexmd.MarketStatusField.from_raw("x" * 37)


def test_template_records_arrive_as_the_bytes_of_their_layout(workdir, sim):
    import subprocess
    import conftest
    subprocess.run([conftest._sim_path(), "--write-templates", "qxdctrans.xml"], check=True)
    assert orvexmd.template_sizes() == {901: 100}
    got = []

    class Templates(Recorder):
        def OnTemplateData(self, package_id, data):
            self._add("template", got, (package_id, data))

    api, spi = start(sim, Templates)   # made after the file is there: the library reads it
    try:
        assert spi.wait(lambda s: len(got) >= 4, 20)
    finally:
        api.Release()
    package_id, data = got[0]
    assert package_id == 901 and len(data) == 100
    markets = {d[:9].split(b"\0")[0].decode() for _, d in got}
    assert markets <= {"SHFE", "DCE", "CZCE", "CFFEX"} and markets
    index = struct.unpack_from("<d", data, 9)[0]
    assert 90000 < index < 110000
