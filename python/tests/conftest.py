"""Fixtures of the binding's tests: a simulator on free loopback ports, a
scratch working directory for the library, and a callback object that
records everything."""

import os
import pathlib
import subprocess
import threading
import time

import pytest

import orvexmd

ROOT = pathlib.Path(__file__).resolve().parents[2]


def _sim_path():
    path = os.environ.get("ORVEX_SIM")
    if path:
        return path
    candidate = ROOT / "build" / "sim" / "qxdc-sim"
    return str(candidate)


class Sim:
    """qxdc-sim in a directory of its own; stops with the test."""

    def __init__(self, directory, *args, port=0):
        self.directory = directory
        self.args = list(args)
        self.port = port
        self.proc = None
        self.start()

    def start(self):
        ready = self.directory / "sim.ready"
        if ready.exists():
            ready.unlink()
        self.log = open(self.directory / "sim.log", "ab")
        self.proc = subprocess.Popen(
            [_sim_path(), "--port", str(self.port), "--file-port", "0", "--ready-file", str(ready), "--quiet"]
            + self.args,
            cwd=self.directory,
            stdout=subprocess.DEVNULL,
            stderr=self.log,
        )
        for _ in range(200):
            if ready.exists() and "file_port" in ready.read_text():
                break
            time.sleep(0.02)
        values = dict(line.split("=") for line in ready.read_text().split())
        self.port = int(values["quote_port"])
        self.front = "tcp://127.0.0.1:%d" % self.port
        self.file_front = "ftp://127.0.0.1:%s" % values["file_port"]

    def stop(self):
        if self.proc and self.proc.poll() is None:
            self.proc.terminate()
            self.proc.wait(10)
        self.log.close()


@pytest.fixture
def workdir(tmp_path, monkeypatch):
    """The library reads ./OrvexWiraMdApi.def and writes its files in the
    working directory: every test has its own."""
    lib = tmp_path / "app"
    lib.mkdir()
    monkeypatch.chdir(lib)
    return lib


@pytest.fixture
def sim(tmp_path):
    directory = tmp_path / "sim"
    directory.mkdir()
    s = Sim(directory, "--instruments", "60", "--rate", "400")
    yield s
    s.stop()


class Recorder(orvexmd.MdSpi):
    """Records every callback; logs in when linked."""

    def __init__(self, api, user="demo"):
        super().__init__()
        self.api = api
        self.user = user
        self.events = []
        self.depths = []
        self.logins = []
        self.instruments = []
        self.statuses = []
        self.lost = []
        self.cond = threading.Condition()

    def _add(self, name, store=None, value=None):
        with self.cond:
            self.events.append(name)
            if store is not None:
                store.append(value)
            self.cond.notify_all()

    def OnFrontLinked(self):
        self._add("linked")
        req = orvexmd.ReqUserLoginField(BrokerID="9999", UserID=self.user, Password="pw")
        self.api.ReqUserLogin(req, 7)

    def OnFrontLost(self, reason):
        self._add("lost", self.lost, reason)

    def OnLoginAnswer(self, login, info, request_id, is_last):
        self._add("login", self.logins, (login, info, request_id, is_last))

    def OnDepthMarketData(self, md):
        self._add("depth", self.depths, md)

    def OnStatusChange(self, status):
        self._add("status", self.statuses, status)

    def OnInstrumentAnswer(self, instrument, info, request_id, is_last):
        self._add("instrument", self.instruments, (instrument, info, request_id, is_last))

    def wait(self, predicate, timeout=10.0):
        with self.cond:
            return self.cond.wait_for(lambda: predicate(self), timeout)
