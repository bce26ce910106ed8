"""Journals from Python: read_journal and ReplayApi against a session that
md-record recorded from the simulator."""

import json
import os
import pathlib
import subprocess
import sys
import threading

import numpy as np
import pytest

import orvexmd

from conftest import ROOT, Sim


def _tool(name, env):
    return os.environ.get(env) or str(ROOT / "build" / "tools" / name)


MD_RECORD = _tool("md-record", "ORVEX_MD_RECORD")
MD_JOURNAL = _tool("md-journal", "ORVEX_MD_JOURNAL")


@pytest.fixture(scope="module")
def journal(tmp_path_factory):
    """Two seconds of a simulator session with instrument answers and
    template packages, recorded by md-record."""
    root = tmp_path_factory.mktemp("recorded")
    sim_dir = root / "sim"
    sim_dir.mkdir()
    subprocess.run([os.environ.get("ORVEX_SIM") or str(ROOT / "build" / "sim" / "qxdc-sim"), "--write-templates",
                    str(root / "qxdctrans.xml")], check=True)
    sim = Sim(sim_dir, "--instruments", "40", "--rate", "2000", "--index-every", "40")
    try:
        subprocess.run([MD_RECORD, "--front", sim.front, "--file-front", sim.file_front, "--query", "--journal",
                        str(root / "j"), "--duration", "2"], cwd=root, check=True, capture_output=True)
    finally:
        sim.stop()
    return root / "j"


def _jsonl(journal, *args):
    out = subprocess.run([MD_JOURNAL, "cat", str(journal)] + list(args), check=True, capture_output=True)
    return [json.loads(line) for line in out.stdout.decode().splitlines()]


def test_read_journal_gives_every_record_exactly(journal):
    j = orvexmd.read_journal(journal)
    lines = _jsonl(journal)
    depth_lines = [x for x in lines if x["kind"] == "depth"]
    assert len(j.depth) == len(depth_lines) > 500
    assert j.depth.dtype == orvexmd.JOURNAL_DEPTH_DTYPE and j.depth.dtype.itemsize == 416
    assert j.torn == 0
    # Field by field against md-journal's text, doubles to the last bit.
    for row, line in zip(j.depth, depth_lines):
        assert row["time"] == line["time"]
        for name in orvexmd.DEPTH_DTYPE.names:
            value = row[name]
            if isinstance(value, bytes):
                assert value.decode() == line[name], name
            else:
                assert value == line[name], name
    assert len(j.instrument) == 40
    time, inst, info, request_id, is_last = j.instrument[-1]
    assert isinstance(inst, orvexmd.InstrumentField) and info.ErrorID == 0 and is_last
    assert [x["InstrumentID"] for x in lines if x["kind"] == "instrument"] == [i[1].InstrumentID for i in j.instrument]
    assert len(j.login) == 1 and j.login[0][1].TradingDay == j.depth[0]["TradingDay"].decode()
    assert len(j.linked) == 1 and j.status and j.template
    assert {len(t[2]) for t in j.template} == {100}
    assert j.templates and "qxpacket" in j.templates[0]


def test_replay_through_python_matches_the_recording_byte_for_byte(journal):
    j = orvexmd.read_journal(journal)

    class Spi(orvexmd.MdSpi):
        def __init__(self, api):
            super().__init__()
            self.api = api
            self.raw, self.events, self.templates = [], [], []

        def OnFrontLinked(self):
            self.events.append("linked")
            self.api.ReqUserLogin(orvexmd.ReqUserLoginField(UserID="demo"), 5)

        def OnLoginAnswer(self, rsp, info, request_id, is_last):
            self.events.append(("login", rsp.TradingDay, info.ErrorID, request_id))
            self.api.ReqQryInstrument(orvexmd.QryInstrumentField(ExchangeID="SHFE"), 6)

        def OnInstrumentAnswer(self, inst, info, request_id, is_last):
            self.events.append(("instrument", inst.InstrumentID, request_id, is_last))

        def OnDepthMarketData(self, md):
            self.raw.append(md.raw)

        def OnTemplateData(self, package_id, data):
            self.templates.append((package_id, data))

    with orvexmd.ReplayApi(journal, speed=0) as api:
        spi = Spi(api)
        api.RegisterSpi(spi)
        api.RegisterFront("tcp://127.0.0.1:1")
        api.Init()
        api.Join()
        assert api.GetTradingDay() == j.login[0][1].TradingDay
    recorded = j.depth.tobytes()
    assert b"".join(spi.raw) == b"".join(recorded[i * 416:i * 416 + 408] for i in range(len(j.depth)))
    assert spi.templates == [(t[1], t[2]) for t in j.template]
    assert spi.events[0] == "linked"
    assert spi.events[1] == ("login", j.login[0][1].TradingDay, 0, 5)
    shfe = [i[1].InstrumentID for i in j.instrument if i[1].ExchangeID == "SHFE"]
    assert [e[1] for e in spi.events[2:]] == shfe
    assert spi.events[-1][2:] == (6, True)


def test_replay_subscriptions_filter(journal):
    j = orvexmd.read_journal(journal)
    wanted = j.depth[-1]["InstrumentID"].decode()

    class Spi(orvexmd.MdSpi):
        def __init__(self, api):
            super().__init__()
            self.api = api
            self.ids = []

        def OnFrontLinked(self):
            self.api.SubscribeMarketData([wanted])

        def OnDepthMarketData(self, md):
            self.ids.append(md.InstrumentID)

    with orvexmd.ReplayApi(journal) as api:
        spi = Spi(api)
        api.RegisterSpi(spi)
        api.Init()
        api.Join()
    assert spi.ids == [wanted] * int((j.depth["InstrumentID"] == wanted.encode()).sum())


def test_paced_replay_release_and_errors(journal, tmp_path):
    with pytest.raises(RuntimeError, match="no journal files|No such file"):
        orvexmd.ReplayApi(tmp_path / "missing")
    newer = tmp_path / "newer.mdj"
    data = bytearray(pathlib.Path(orvexmd.read_journal(journal).files[0]).read_bytes())
    data[8] = 2
    newer.write_bytes(bytes(data))
    with pytest.raises(RuntimeError, match="journal format version 2 is not supported"):
        orvexmd.ReplayApi(newer)
    with pytest.raises(RuntimeError, match="journal format version 2"):
        orvexmd.read_journal(newer)
    with pytest.raises(ValueError):
        orvexmd.ReplayApi(journal, speed=-1)
    # At the recorded pace the two seconds are not over when Release comes.
    seen = threading.Event()

    class Spi(orvexmd.MdSpi):
        def OnDepthMarketData(self, md):
            seen.set()

    api = orvexmd.ReplayApi(journal, speed=1.0)
    spi = Spi()
    api.RegisterSpi(spi)
    api.Init()
    assert seen.wait(5)
    api.Release()
    assert api.released


def test_pandas_example(journal):
    pytest.importorskip("pandas")
    out = subprocess.run([sys.executable, str(ROOT / "python" / "examples" / "journal_to_pandas.py"), str(journal)],
                         check=True, capture_output=True, env=dict(os.environ))
    text = out.stdout.decode()
    assert "records" in text and "1 s bars" in text
