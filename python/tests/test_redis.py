"""orvexmd.redis against a redis-server of its own (no persistence), filled
with the layout md-record writes."""

import datetime
import itertools
import os
import shutil
import socket
import subprocess
import sys
import threading
import time

import pytest

import orvexmd

redis = pytest.importorskip("redis")
from orvexmd import redis as mdredis  # noqa: E402

REDIS_SERVER = os.environ.get("ORVEX_REDIS_SERVER") or (
    "/usr/bin/redis-server" if os.path.exists("/usr/bin/redis-server") else shutil.which("redis-server"))

pytestmark = pytest.mark.skipif(not REDIS_SERVER, reason="no redis-server")


def _free_port():
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class Server:
    """redis-server on a free loopback port, or on a unix socket only."""

    def __init__(self, directory, password=None, unix=False):
        args = [REDIS_SERVER, "--save", "", "--appendonly", "no", "--dir", str(directory), "--bind", "127.0.0.1"]
        if unix:
            self.socket = str(directory / "redis.sock")
            args += ["--port", "0", "--unixsocket", self.socket, "--unixsocketperm", "700"]
            self.url = "unix://" + self.socket
            kw = {"unix_socket_path": self.socket}
        else:
            self.port = _free_port()
            args += ["--port", str(self.port)]
            self.url = "redis://127.0.0.1:%d" % self.port
            kw = {"host": "127.0.0.1", "port": self.port}
        if password:
            args += ["--requirepass", password]
        self.log = open(directory / "redis.log", "wb")
        self.proc = subprocess.Popen(args, stdout=self.log, stderr=subprocess.STDOUT)
        self.client = redis.Redis(password=password, **kw)
        deadline = time.monotonic() + 10
        while True:
            try:
                self.client.ping()
                break
            except redis.exceptions.ConnectionError:
                if self.proc.poll() is not None or time.monotonic() > deadline:
                    raise RuntimeError("redis-server did not start: %s" % (directory / "redis.log").read_text())
                time.sleep(0.02)

    def stop(self):
        self.client.close()
        self.proc.terminate()
        self.proc.wait(10)
        self.log.close()


@pytest.fixture
def server(tmp_path):
    s = Server(tmp_path)
    yield s
    s.stop()


# ---- the recorder's layout ----

def depth(instrument, exchange, n, when):
    return orvexmd.DepthMarketDataField(
        TradingDay="20250102", InstrumentID=instrument, ExchangeID=exchange, ExchangeInstID=instrument,
        LastPrice=70000.0 + n * 10 + len(instrument), Volume=float(100 + n), BidPrice1=69990.0 + n,
        BidVolume1=n + 1, AskPrice1=70010.0 + n, AskVolume1=2 * n + 1, UpdateTime=when.strftime("%H:%M:%S"),
        UpdateMillisec=when.microsecond // 1000, ActionDay="20250102")


def status(exchange, n, when):
    return orvexmd.MarketStatusField(ExchangeID=exchange, TradingDay="20250102", SecondDay="20250103",
                                     UpdateTime=when.strftime("%H:%M:%S"), MarketStatus="2" if n % 2 else "3")


def publish(client, record, rt_ns, prefix="md"):
    """What md-record writes for one record: the exchange stream, the
    instrument stream of a depth record, the exchange set. Returns the
    entry's ID."""
    is_depth = isinstance(record, orvexmd.DepthMarketDataField)
    exchange = record.ExchangeID
    if is_depth:
        t = "%s.%03d" % (record.UpdateTime, record.UpdateMillisec)
        instrument = record.InstrumentID
    else:
        t = record.UpdateTime
        instrument = ""
    fields = {"k": "depth" if is_depth else "status", "i": instrument, "x": exchange, "t": t,
              "d": record.TradingDay, "rt": str(rt_ns), "r": record.raw}
    ms = rt_ns // 1000000
    key = "%s:{%s}" % (prefix, exchange)
    entry_id = client.xadd(key, fields, id="%d-*" % ms).decode()
    if is_depth:
        client.xadd("%s:%s" % (key, instrument), fields, id=entry_id)
    client.sadd(prefix + ":exchanges", exchange)
    return entry_id


def fill(client, base, prefix="md"):
    """Records of SHFE (cu2501, al2502 and status reports) and DCE (m2505)
    7 ms apart from ``base`` (a datetime), two at a time on some
    milliseconds. Returns [(stream key, entry ID, rt, record)] in order."""
    out = []
    base_ns = int(base.timestamp()) * 1000000000 + base.microsecond * 1000
    for n in range(60):
        rt = base_ns + (n - 1 if n % 5 == 1 else n) * 7000000 + n
        when = base + datetime.timedelta(microseconds=(rt - base_ns) // 1000)
        which = n % 6
        if which in (0, 2, 4):
            rec = depth("cu2501", "SHFE", n, when)
        elif which == 1:
            rec = depth("al2502", "SHFE", n, when)
        elif which == 3:
            rec = status("SHFE", n, when)
        else:
            rec = depth("m2505", "DCE", n, when)
        out.append(("%s:{%s}" % (prefix, rec.ExchangeID), publish(client, rec, rt, prefix), rt, rec))
    out.sort(key=lambda e: (e[0], tuple(int(x) for x in e[1].split("-"))))
    return out


def base_time():
    """Half a second before a whole second, an hour ago but today (local
    time), so that "HH:MM:SS" means the same day and the records are in the
    past."""
    now = datetime.datetime.now()
    midnight = datetime.datetime.combine(now.date(), datetime.time())
    base = max(midnight + datetime.timedelta(seconds=2), now - datetime.timedelta(hours=1))
    return base.replace(microsecond=800000)


def expect(entries, stream=None, instrument=None, kinds=(orvexmd.DepthMarketDataField,), after_ms=None):
    out = []
    for key, entry_id, rt, rec in entries:
        if stream is not None and key != stream:
            continue
        if instrument is not None and getattr(rec, "InstrumentID", None) != instrument:
            continue
        if not isinstance(rec, kinds):
            continue
        if after_ms is not None and int(entry_id.split("-")[0]) < after_ms:
            continue
        out.append((entry_id, rt, rec.raw))
    return out


def collect(gen, timeout=5.0):
    """list(gen), failing instead of waiting without end."""
    out, errors = [], []

    def run():
        try:
            out.extend(gen)
        except Exception as e:  # pragma: no cover - reported below
            errors.append(e)

    t = threading.Thread(target=run, daemon=True)
    t.start()
    t.join(timeout)
    assert not t.is_alive(), "still waiting after %.1f s with %d records" % (timeout, len(out))
    assert not errors, errors
    return out


def got(entries):
    return [(e.id, e.time, e.record.raw) for e in entries]


# ---- the package without redis ----

def test_import_without_redis():
    code = "import sys; sys.modules['redis'] = None; import orvexmd, orvexmd.redis; print('ok')"
    out = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, env=os.environ)
    assert out.returncode == 0, out.stderr
    assert out.stdout.strip() == "ok"


# ---- reading ----

def test_follow_instrument(server):
    entries = fill(server.client, base_time())
    want = expect(entries, instrument="cu2501")
    assert len(want) == 30
    res = list(mdredis.follow(server.url, instrument="cu2501.SHFE", since="start", block_ms=None))
    assert got(res) == want
    assert all(e.stream == "md:{SHFE}:cu2501" for e in res)
    assert all(isinstance(e.record, orvexmd.DepthMarketDataField) for e in res)
    # The same with the exchange given apart.
    res2 = list(mdredis.follow(server.url, instrument="cu2501", exchange="SHFE", since=0, block_ms=None))
    assert got(res2) == want


def test_follow_exchange(server):
    entries = fill(server.client, base_time())
    res = list(mdredis.follow(server.url, exchange="SHFE", since="start", block_ms=None))
    want = expect(entries, stream="md:{SHFE}")
    assert len(want) == 40
    assert got(res) == want
    res = list(mdredis.follow(server.url, exchange="SHFE", since="start", block_ms=None, status=True))
    want = expect(entries, stream="md:{SHFE}", kinds=(orvexmd.DepthMarketDataField, orvexmd.MarketStatusField))
    assert len(want) == 50
    assert got(res) == want
    statuses = [e.record for e in res if isinstance(e.record, orvexmd.MarketStatusField)]
    assert len(statuses) == 10 and all(s.ExchangeID == "SHFE" for s in statuses)


def test_follow_everything(server):
    entries = fill(server.client, base_time())
    res = list(mdredis.follow(server.url, since="start", block_ms=None, batch=4))
    assert sorted({e.stream for e in res}) == ["md:{DCE}", "md:{SHFE}"]
    for stream in ("md:{DCE}", "md:{SHFE}"):
        assert got(e for e in res if e.stream == stream) == expect(entries, stream=stream)
    assert len(res) == 50


def test_prefix(server):
    entries = fill(server.client, base_time(), prefix="feed")
    fill(server.client, base_time())  # another recorder's, under md
    res = list(mdredis.follow(server.url, exchange="DCE", since="start", block_ms=None, prefix="feed"))
    assert got(res) == expect(entries, stream="feed:{DCE}")


def test_since(server):
    entries = fill(server.client, base_time())
    shfe = expect(entries, stream="md:{SHFE}")
    # From a record's own millisecond: it is included, the one before not.
    ms = [int(x[0].split("-")[0]) for x in shfe]
    i = next(i for i in range(30, len(shfe)) if ms[i] > ms[i - 1])
    cut_id, cut_rt, _ = shfe[i]
    cut_ms = ms[i]
    assert cut_ms % 1000 >= 100  # in the second after the first records'
    want = expect(entries, stream="md:{SHFE}", after_ms=cut_ms)
    assert want[0][0] == cut_id and len(want) < len(shfe)
    cut = datetime.datetime.fromtimestamp(cut_ms / 1000)
    for since in (cut, cut_ms / 1000, cut.strftime("%H:%M:%S.%f")[:-3], cut.isoformat()):
        res = list(mdredis.follow(server.url, exchange="SHFE", since=since, block_ms=None))
        assert got(res) == want, since
    # A whole second: every entry of that second on.
    second = datetime.datetime.fromtimestamp(cut_ms // 1000)
    res = list(mdredis.follow(server.url, exchange="SHFE", since=second.strftime("%H:%M:%S"), block_ms=None))
    want_second = expect(entries, stream="md:{SHFE}", after_ms=(cut_ms // 1000) * 1000)
    assert 0 < len(want_second) < len(shfe) and len(want_second) > len(want)
    assert got(res) == want_second
    # After a stream ID.
    res = list(mdredis.follow(server.url, exchange="SHFE", since=cut_id, block_ms=None))
    assert got(res) == want[1:]
    with pytest.raises(ValueError):
        mdredis.follow(server.url, exchange="SHFE", since="yesterday")


def test_count(server):
    entries = fill(server.client, base_time())
    want = expect(entries, instrument="cu2501")
    res = list(mdredis.follow(server.url, instrument="cu2501.SHFE", since="start", count=3, block_ms=None))
    assert got(res) == want[:3]
    # count with the reads blocking: it stops by itself.
    res = list(mdredis.follow(server.url, exchange="SHFE", since="start", count=7, block_ms=5000, batch=3))
    assert got(res) == expect(entries, stream="md:{SHFE}")[:7]


def test_new_entries_only_and_blocking(server):
    fill(server.client, base_time())
    before = server.client.info("commandstats").get("cmdstat_xread", {}).get("calls", 0)
    gen = mdredis.follow(server.url, exchange="SHFE", count=2, block_ms=200)
    now = datetime.datetime.now()
    fresh = [depth("cu2501", "SHFE", 1000 + n, now) for n in range(2)]

    def later():
        time.sleep(0.7)
        for n, rec in enumerate(fresh):
            publish(server.client, rec, time.time_ns() + n)

    t = threading.Thread(target=later)
    t.start()
    start = time.monotonic()
    res = collect(gen)
    waited = time.monotonic() - start
    t.join()
    assert [e.record.raw for e in res] == [r.raw for r in fresh]
    assert waited >= 0.6
    # Blocking reads of 200 ms for 0.7 s: a handful, not a busy loop.
    calls = server.client.info("commandstats")["cmdstat_xread"]["calls"] - before
    assert 3 <= calls <= 8


def test_until_ends_a_quiet_follow(server):
    fill(server.client, base_time())
    start = time.monotonic()
    res = collect(mdredis.follow(server.url, exchange="SHFE", block_ms=0, until=time.time() + 0.4))
    took = time.monotonic() - start
    assert res == [] and 0.3 <= took < 2.0
    # The records before it, then the end.
    start = time.monotonic()
    res = collect(mdredis.follow(server.url, since="start", block_ms=5000, until=time.time() + 0.5))
    assert len(res) == 50 and time.monotonic() - start < 2.0
    # A time already past: nothing.
    assert list(mdredis.follow(server.url, since="start", until=time.time() - 1)) == []


def test_discovers_new_exchange(server):
    fill(server.client, base_time())
    gen = mdredis.follow(server.url, block_ms=100, discover_every=0.2, count=1)
    rec = depth("SR505", "CZCE", 1, datetime.datetime.now())

    def later():
        time.sleep(0.3)
        publish(server.client, rec, time.time_ns())

    t = threading.Thread(target=later)
    t.start()
    res = collect(gen)
    t.join()
    assert [(e.stream, e.record.raw) for e in res] == [("md:{CZCE}", rec.raw)]


def test_unix_socket(tmp_path):
    s = Server(tmp_path, unix=True)
    try:
        entries = fill(s.client, base_time())
        want = expect(entries, stream="md:{DCE}")
        for url in (s.socket, "unix://" + s.socket):
            assert got(mdredis.follow(url, exchange="DCE", since="start", block_ms=None)) == want
    finally:
        s.stop()


# ---- passwords ----

def test_password(tmp_path, monkeypatch):
    s = Server(tmp_path, password="s3cret")
    try:
        entries = fill(s.client, base_time())
        want = expect(entries, stream="md:{DCE}")
        monkeypatch.delenv(mdredis.PASSWORD_ENV, raising=False)
        with pytest.raises(mdredis.AuthenticationError, match="(?i)authentication"):
            mdredis.follow(s.url, exchange="DCE", since="start", block_ms=None)
        with pytest.raises(mdredis.AuthenticationError, match="(?i)authentication failed"):
            mdredis.follow(s.url, exchange="DCE", since="start", block_ms=None, password="wrong")
        bad_url = s.url.replace("redis://", "redis://:wrong@")
        with pytest.raises(mdredis.AuthenticationError) as e:
            mdredis.follow(bad_url, exchange="DCE", since="start", block_ms=None)
        assert "wrong" not in str(e.value)
        # The right one: given, in the URL, in the environment.
        assert got(mdredis.follow(s.url, exchange="DCE", since="start", block_ms=None, password="s3cret")) == want
        assert got(mdredis.follow(s.url.replace("redis://", "redis://:s3cret@"), exchange="DCE", since="start",
                                  block_ms=None)) == want
        # The argument wins over the URL.
        assert got(mdredis.follow(bad_url, exchange="DCE", since="start", block_ms=None, password="s3cret")) == want
        monkeypatch.setenv(mdredis.PASSWORD_ENV, "s3cret")
        assert got(mdredis.follow(s.url, exchange="DCE", since="start", block_ms=None)) == want
        monkeypatch.setenv(mdredis.PASSWORD_ENV, "nope")
        with pytest.raises(mdredis.AuthenticationError):
            mdredis.follow(s.url, exchange="DCE", since="start", block_ms=None)
    finally:
        s.stop()


# ---- consumer groups ----

def test_group_shares_entries_once(server):
    entries = fill(server.client, base_time())
    want = expect(entries, stream="md:{SHFE}", kinds=(orvexmd.DepthMarketDataField, orvexmd.MarketStatusField))
    taken = {name: [] for name in ("c0", "c1", "c2")}
    errors = []
    ready = threading.Barrier(3)

    def consume(name):
        try:
            gen = mdredis.follow(server.url, exchange="SHFE", since="start", block_ms=None, group="workers",
                                 consumer=name, status=True, batch=2)
            ready.wait()
            for e in gen:
                taken[name].append((e.id, e.time, e.record.raw))
                time.sleep(0.003)
        except Exception as e:  # pragma: no cover - reported below
            errors.append(e)

    threads = [threading.Thread(target=consume, args=(n,)) for n in taken]
    for t in threads:
        t.start()
    for t in threads:
        t.join(30)
    assert not errors
    every = [x for name in taken for x in taken[name]]
    assert sorted(every) == sorted(want)
    assert len(set(x[0] for x in every)) == len(want)
    assert sum(1 for name in taken if taken[name]) >= 2
    for name in taken:  # each consumer got its share in stream order
        assert taken[name] == sorted(taken[name], key=lambda x: tuple(int(v) for v in x[0].split("-")))
    assert server.client.xpending("md:{SHFE}", "workers")["pending"] == 0


def test_group_redelivers_unacknowledged(server):
    entries = fill(server.client, base_time())
    want = expect(entries, stream="md:{DCE}")
    gen = mdredis.follow(server.url, exchange="DCE", since="start", group="g", consumer="a", block_ms=None, batch=1)
    first = next(gen)
    gen.close()  # stopped before it was done with the entry
    pending = server.client.xpending("md:{DCE}", "g")
    assert pending["pending"] == 1 and pending["min"].decode() == first.id
    # Another consumer gets the rest, not that one.
    rest = got(mdredis.follow(server.url, exchange="DCE", group="g", consumer="b", block_ms=None))
    assert rest == want[1:]
    # The same consumer, started again, gets it first.
    again = got(mdredis.follow(server.url, exchange="DCE", group="g", consumer="a", block_ms=None))
    assert again == want[:1]
    assert server.client.xpending("md:{DCE}", "g")["pending"] == 0


def test_group_since_time_and_new(server):
    entries = fill(server.client, base_time())
    shfe = expect(entries, instrument="cu2501")
    cut_ms = int(shfe[10][0].split("-")[0])
    res = got(mdredis.follow(server.url, instrument="cu2501.SHFE", since=cut_ms / 1000, group="g", consumer="a",
                             block_ms=None))
    assert res == expect(entries, instrument="cu2501", after_ms=cut_ms)
    # A group made without since starts at the end.
    assert list(mdredis.follow(server.url, instrument="al2502.SHFE", group="h", consumer="a", block_ms=None)) == []
    rec = depth("al2502", "SHFE", 500, datetime.datetime.now())
    publish(server.client, rec, time.time_ns())
    res = list(mdredis.follow(server.url, instrument="al2502.SHFE", group="h", consumer="b", block_ms=None))
    assert [e.record.raw for e in res] == [rec.raw]


def test_arguments(server):
    with pytest.raises(ValueError):
        mdredis.follow(server.url, group="g")
    with pytest.raises(ValueError):
        mdredis.follow(server.url, instrument="cu2501")
    with pytest.raises(ValueError):
        mdredis.follow(server.url, exchange="SHFE", block_ms=-1)


def test_follow_what_md_record_published(server, tmp_path):
    """md-record against the simulator, publishing into this server and
    journaling at the same time: follow() gives back the journal's records
    of an instrument and of an exchange, byte for byte, in order."""
    from conftest import ROOT, Sim

    tools = ROOT / "build" / "tools"
    md_record = os.environ.get("ORVEX_MD_RECORD") or str(tools / "md-record")
    sim_dir = tmp_path / "sim"
    sim_dir.mkdir()
    sim = Sim(sim_dir, "--instruments", "20", "--rate", "1000")
    try:
        subprocess.run([md_record, "--front", sim.front, "--journal", str(tmp_path / "j"), "--redis", server.url,
                        "--duration", "1.5"], cwd=tmp_path, check=True, capture_output=True)
    finally:
        sim.stop()
    j = orvexmd.read_journal(tmp_path / "j")
    rows = j.depth.tobytes()
    records = [rows[i * 416:i * 416 + 408] for i in range(len(j.depth))]
    shfe = [r for r, x in zip(records, j.depth["ExchangeID"]) if x == b"SHFE"]
    assert len(shfe) > 50
    got_shfe = [e.record.raw for e in orvexmd.redis.follow(server.url, exchange="SHFE", since="start", block_ms=None)]
    assert got_shfe == shfe
    one = j.depth[-1]["InstrumentID"].decode()
    mine = [r for r, x in zip(records, j.depth["InstrumentID"]) if x == one.encode()]
    got = list(orvexmd.redis.follow(server.url, instrument=one + ".SHFE" if j.depth[-1]["ExchangeID"] == b"SHFE"
                                    else one + "." + j.depth[-1]["ExchangeID"].decode(), since="start", block_ms=None))
    assert [e.record.raw for e in got] == mine
    assert [e.time for e in got] == [int(t) for t, x in zip(j.depth["time"], j.depth["InstrumentID"]) if x == one.encode()]
    # Status reports come with status=True, in the exchange's order.
    statuses = [s for t, s in j.status if s.ExchangeID == "SHFE"]
    got_status = [e.record for e in orvexmd.redis.follow(server.url, exchange="SHFE", since="start", block_ms=None,
                                                          status=True)
                  if isinstance(e.record, orvexmd.MarketStatusField)]
    assert [s.raw for s in got_status] == [s.raw for s in statuses]


@pytest.mark.parametrize("grouped", [False, True])
def test_follow_goes_on_after_redis_restarts(tmp_path, grouped):
    """Redis killed and started again (empty, on the same socket): the
    follower waits, reconnects, makes its group again and yields what the
    new server gets."""
    first = Server(tmp_path, unix=True)
    base = base_time()
    base_ns = int(base.timestamp()) * 1000000000

    def record(n):
        return depth("cu2501", "SHFE", n, base + datetime.timedelta(seconds=n))

    publish(first.client, record(1), base_ns + 1000000000)
    kw = {"group": "g", "consumer": "c"} if grouped else {}
    gen = orvexmd.redis.follow(first.url, instrument="cu2501.SHFE", since="start", block_ms=100, **kw)
    got = [next(gen).record.Volume]
    first.proc.kill()
    first.proc.wait(10)
    first.client.close()
    first.log.close()
    results = []
    reader = threading.Thread(target=lambda: results.extend(e.record.Volume for e in itertools.islice(gen, 2)))
    reader.start()
    time.sleep(0.5)   # the follower is failing to read meanwhile
    second = Server(tmp_path, unix=True)
    try:
        for n in (2, 3):
            publish(second.client, record(n), base_ns + n * 1000000000)
        reader.join(15)
        assert not reader.is_alive()
        assert got + results == [record(n).Volume for n in (1, 2, 3)]
    finally:
        gen.close()
        second.stop()
