"""Depth records and market status reports from the Redis streams md-record
fills, as records of this package.

    from orvexmd.redis import follow

    for e in follow("redis://127.0.0.1:6379", instrument="cu2501.SHFE", since="10:15:00"):
        print(e.time, e.id, e.record.LastPrice)

The layout, under a key prefix (``md`` unless told otherwise):

- ``md:{SHFE}``: every depth record and status report of the exchange SHFE,
  in the order received;
- ``md:{SHFE}:cu2501``: the depth records of one instrument;
- ``md:exchanges``: a set of the exchange codes that have streams.

An entry's ID is ``<receive time in ms>-<seq>`` and its fields are ``k``
(``depth`` or ``status``), ``i`` (InstrumentID), ``x`` (ExchangeID), ``t``
(update time), ``d`` (trading day), ``rt`` (receive time, nanoseconds since
the epoch, decimal) and ``r`` (the record's exact bytes).

The password comes from ``password=``, else the URL, else the environment
variable ORVEX_REDIS_PASSWORD.

This module needs the ``redis`` package (redis-py) only when it connects:
``import orvexmd`` works without it.
"""

import collections
import datetime as _dt
import os
import re
import time as _time
import urllib.parse

__all__ = ["AuthenticationError", "Entry", "connect", "follow", "start_id"]

#: What follow yields.
#:
#: time: the receive time, integer nanoseconds since the epoch (the entry's
#:     ``rt``);
#: id: the entry's stream ID, a str such as ``"1735712100123-0"``;
#: record: a DepthMarketDataField or a MarketStatusField;
#: stream: the key of the stream it came from, a str (IDs are per stream).
Entry = collections.namedtuple("Entry", ["time", "id", "record", "stream"])

PASSWORD_ENV = "ORVEX_REDIS_PASSWORD"

# The largest sequence number of an entry ID: "<ms - 1>-<MAX_SEQ>" is the
# last possible ID before millisecond ms.
_MAX_SEQ = 2**64 - 1
_STREAM_ID = re.compile(r"^\d+-\d+$")


class AuthenticationError(PermissionError):
    """Redis refused the password (or wanted one and got none)."""


def _where(url):
    """The URL without a password, for messages."""
    parts = urllib.parse.urlsplit(url)
    if parts.password is None:
        return url
    netloc = parts.hostname or ""
    if parts.port:
        netloc += ":%d" % parts.port
    if parts.username:
        netloc = parts.username + "@" + netloc
    return urllib.parse.urlunsplit((parts.scheme, netloc, parts.path, parts.query, parts.fragment))


def connect(url, password=None):
    """A redis.Redis client of ``url`` that has answered a PING.

    ``url``: ``redis://HOST:PORT[/DB]``, ``rediss://...``, ``unix:///path``
    (``?db=N`` for a database) or a bare socket path ``/path/to/redis.sock``.
    The password: ``password`` if given, else the URL's, else
    $ORVEX_REDIS_PASSWORD. A refused password raises AuthenticationError.
    """
    import redis

    if password is None:
        url_has_password = "://" in url and urllib.parse.urlsplit(url).password is not None
        if not url_has_password:
            password = os.environ.get(PASSWORD_ENV) or None
    if "://" in url:
        client = redis.Redis.from_url(url)
        if password is not None:
            # from_url lets the URL's password win over a keyword; the
            # explicit argument should win.
            client.connection_pool.connection_kwargs["password"] = password
    else:
        client = redis.Redis(unix_socket_path=url, password=password)
    try:
        client.ping()
    except redis.exceptions.AuthenticationError as e:
        client.close()
        raise AuthenticationError("Redis authentication failed at %s: %s (the password comes from password=, the "
                                  "URL or $%s)" % (_where(url), e, PASSWORD_ENV)) from e
    except redis.exceptions.ResponseError as e:
        client.close()
        if "AUTH" in str(e) or "password" in str(e):
            raise AuthenticationError("Redis authentication failed at %s: %s" % (_where(url), e)) from e
        raise
    return client


def _ms_of(since):
    """Milliseconds since the epoch of a datetime, epoch seconds, or a time
    of day (today, local time) / an ISO date and time as text."""
    if isinstance(since, _dt.datetime):
        return int(round(since.timestamp() * 1000))
    if isinstance(since, (int, float)) and not isinstance(since, bool):
        return int(round(since * 1000))
    if isinstance(since, str):
        text = since.strip()
        for fmt in ("%H:%M:%S.%f", "%H:%M:%S", "%H:%M"):
            try:
                clock = _dt.datetime.strptime(text, fmt).time()
            except ValueError:
                continue
            return _ms_of(_dt.datetime.combine(_dt.date.today(), clock))
        try:
            return _ms_of(_dt.datetime.fromisoformat(text))
        except ValueError:
            pass
    raise ValueError("since: None, 0, 'start', a datetime, epoch seconds, 'HH:MM:SS' or a stream ID, not %r" %
                     (since,))


def start_id(since):
    """The stream ID to read after (XREAD, XGROUP CREATE) for ``since``:
    ``"$"`` for None, ``"0-0"`` for 0 or "start", the ID itself for a
    stream ID ``"<ms>-<seq>"`` (the entries after it), and for a time the
    last possible ID before its millisecond, so that the entries received
    from that time on follow."""
    if since is None:
        return "$"
    if isinstance(since, str) and since.strip() in ("start", "0", "0-0"):
        return "0-0"
    if isinstance(since, (int, float)) and not isinstance(since, bool) and since == 0:
        return "0-0"
    if isinstance(since, str) and _STREAM_ID.match(since.strip()):
        return since.strip()
    ms = _ms_of(since)
    if ms <= 0:
        return "0-0"
    return "%d-%d" % (ms - 1, _MAX_SEQ)


def _as_list(value):
    if value is None:
        return []
    if isinstance(value, (str, bytes)):
        return [value]
    return list(value)


def _text(v):
    return v.decode() if isinstance(v, bytes) else str(v)


class _Follower:
    def __init__(self, client, keys, prefix, since, count, block_ms, group, consumer, status, discover_every,
                 batch, until):
        self.client = client
        self.fixed = keys is not None
        self.prefix = prefix
        self.since = since
        self.count = count
        self.block_ms = block_ms
        self.group = group
        self.consumer = consumer
        self.status = status
        self.discover_every = discover_every
        self.batch = batch
        # Wall clock seconds at which to stop, or None.
        self.until = until
        # Stream key -> the ID to read after (XREAD), or "0" while the
        # group's entries pending for this consumer are read again, then ">".
        self.ids = {}
        self.started_ms = int(_time.time() * 1000)
        self.discovered_at = None
        for key in keys or []:
            self._add(key, initial=True)
        if not self.fixed:
            self._discover(initial=True)

    def _add(self, key, initial):
        if key in self.ids:
            return
        if self.since is None and not initial:
            # An exchange that appeared after the start: its entries from
            # the start on are new.
            first = "%d-%d" % (self.started_ms - 1, _MAX_SEQ)
        elif self.since is None:
            first = self._last_id(key)
        else:
            first = start_id(self.since)
        if self.group is None:
            self.ids[key] = first
            return
        import redis

        try:
            self.client.xgroup_create(key, self.group, id=first, mkstream=True)
        except redis.exceptions.ResponseError as e:
            if not str(e).startswith("BUSYGROUP"):
                raise
        # The entries this consumer took before and did not acknowledge
        # come first.
        self.ids[key] = "0"

    def _last_id(self, key):
        """The newest entry's ID, "0-0" for an empty or missing stream: the
        entries after it are the new ones, even those added before the
        first XREAD."""
        if self.group is not None:
            return "$"
        last = self.client.xrevrange(key, count=1)
        return _text(last[0][0]) if last else "0-0"

    def _discover(self, initial=False):
        self.discovered_at = _time.monotonic()
        names = sorted(_text(x) for x in self.client.smembers(self.prefix + ":exchanges"))
        for name in names:
            self._add("%s:{%s}" % (self.prefix, name), initial)

    def _left_ms(self):
        """Milliseconds to ``until``; None without one."""
        if self.until is None:
            return None
        return max(0, int((self.until - _time.time()) * 1000))

    def _read(self, block):
        want = self.batch if self.count is None else max(1, min(self.batch, self.count - self.yielded))
        if self.group is None:
            return self.client.xread(self.ids, count=want, block=block)
        return self.client.xreadgroup(self.group, self.consumer, self.ids, count=want, block=block)

    def _record(self, fields):
        from . import DepthMarketDataField, MarketStatusField

        kind = fields.get(b"k")
        raw = fields.get(b"r")
        if raw is None:
            return None
        if kind == b"depth":
            return DepthMarketDataField.from_raw(raw)
        if kind == b"status" and self.status:
            return MarketStatusField.from_raw(raw)
        return None

    def run(self):
        import redis

        self.lost_errors = (redis.exceptions.ConnectionError, redis.exceptions.TimeoutError)
        if self.group is not None:
            self.lost_errors = self.lost_errors + (redis.exceptions.ResponseError,)
        self.backoff = 0.1
        self.reconnects = 0
        self.yielded = 0
        if self.count is not None and self.count <= 0:
            return
        while True:
            left = self._left_ms()
            if left == 0:
                return
            if not self.fixed and _time.monotonic() - self.discovered_at >= self.discover_every:
                self._discover()
            if not self.ids:
                if self.block_ms is None:
                    return
                # Nothing to read yet: wait as long as a read would block.
                wait = max(self.block_ms, 100)
                _time.sleep((wait if left is None else min(wait, left)) / 1000.0)
                self._discover()
                continue
            # Re-reading this consumer's pending entries never blocks.
            replaying = any(v == "0" for v in self.ids.values())
            block = None if replaying or self.block_ms is None else self.block_ms
            if block is not None and left is not None:
                # BLOCK 0 would wait without end.
                block = max(1, left if block == 0 else min(block, left))
            try:
                reply = self._read(block)
            except self.lost_errors as e:
                # Redis restarting or out of reach: try again with a
                # growing pause, from where this follower was. A server
                # that came back empty has lost the groups: they are made
                # again, from its first entry.
                lost_group = "NOGROUP" in str(e)
                if not self.reconnect or (isinstance(e, redis.exceptions.ResponseError) and not lost_group):
                    raise
                self.reconnects += 1
                _time.sleep(self.backoff)
                self.backoff = min(self.backoff * 2, 2.0)
                if lost_group:
                    for key in list(self.ids):
                        try:
                            self.client.xgroup_create(key, self.group, id="0", mkstream=True)
                        except redis.exceptions.ResponseError as busy:
                            if not str(busy).startswith("BUSYGROUP"):
                                raise
                        self.ids[key] = ">"
                continue
            self.backoff = 0.1
            got = 0
            for key, entries in reply or []:
                key = _text(key)
                for entry_id, fields in entries:
                    if entry_id is None:
                        continue
                    got += 1
                    entry_id = _text(entry_id)
                    if self.group is None:
                        self.ids[key] = entry_id
                    elif self.ids[key] != ">":
                        self.ids[key] = entry_id
                    record = self._record(fields) if fields else None
                    if record is not None:
                        rt = fields.get(b"rt")
                        when = int(rt) if rt else int(entry_id.split("-")[0]) * 1000000
                        yield Entry(when, entry_id, record, key)
                        self.yielded += 1
                    if self.group is not None:
                        try:
                            self.client.xack(key, self.group, entry_id)
                        except self.lost_errors:
                            # Redis went away meanwhile: the entry stays
                            # pending there (and is handed again) or went
                            # with a server that lost everything.
                            if not self.reconnect:
                                raise
                    if self.count is not None and self.yielded >= self.count:
                        return
            if replaying:
                # A key whose pending list came back empty is absent from
                # the reply: it goes on with new entries.
                seen = {_text(k) for k, e in (reply or []) if e}
                for key, v in self.ids.items():
                    if v != ">" and key not in seen:
                        self.ids[key] = ">"
                continue
            if got == 0 and self.block_ms is None:
                return


def follow(url, instrument=None, exchange=None, since=None, count=None, block_ms=1000, group=None, consumer=None,
           status=False, prefix="md", password=None, discover_every=5.0, batch=256, until=None, reconnect=True):
    """Records from the streams, as they come: a generator of Entry
    ``(time, id, record, stream)``.

    Which streams:
      ``instrument="cu2501.SHFE"`` follows ``md:{SHFE}:cu2501`` (or
      ``instrument="cu2501", exchange="SHFE"``); ``exchange="SHFE"``
      follows ``md:{SHFE}``; neither follows every exchange of the set
      ``md:exchanges``, looking for new ones every ``discover_every``
      seconds. Either may be a list for several streams at once.

    From when (``since``):
      None: only entries added from now on; 0 or "start": from the oldest
      kept; a datetime (naive = local time), epoch seconds, "HH:MM:SS" or
      "HH:MM:SS.mmm" (today, local time): the entries received from that
      time on; a stream ID "<ms>-<seq>": the entries after it.

    What:
      depth records (DepthMarketDataField); with ``status=True`` also the
      status reports (MarketStatusField) of exchange streams, else those are
      skipped. ``count``: stop after that many records.

    Waiting:
      a read waits up to ``block_ms`` ms for entries (Redis BLOCK) and then
      reads again; 0 waits without end; None stops as soon as there is
      nothing more to read. ``until`` (a datetime, epoch seconds or
      "HH:MM:SS" today, as ``since``) ends the generator at that time even
      when nothing comes; the last read waits no longer than that.

    Consumer groups (``group`` and ``consumer``):
      the group is created on each stream if missing (at ``since``, else at
      the end), and the streams' entries are shared among the group's
      consumers, each entry handed to one of them. An entry is acknowledged
      (XACK) once the loop body that got it has finished, i.e. when the
      generator is resumed; an entry handed out and not acknowledged (the
      consumer stopped or died) is handed again to a consumer of the same
      name when it starts, before new ones.

    ``reconnect``: when Redis goes away (restarting, or out of reach), the
    reads are tried again with a pause growing from 0.1 s to 2 s, from the
    last entry taken; groups lost with a server that came back empty are
    made again. False: the error ends the generator.

    ``password``: see connect. The connection is made, and a refused
    password raised as AuthenticationError, by this call, not by the first
    iteration.
    """
    if (group is None) != (consumer is None):
        raise ValueError("a consumer group needs both group and consumer")
    if block_ms is not None and (not isinstance(block_ms, int) or block_ms < 0):
        raise ValueError("block_ms: None or an integer >= 0")
    if since is not None:
        start_id(since)  # checks it now rather than at the first record
    until_s = None if until is None else _ms_of(until) / 1000.0
    keys = None
    instruments = _as_list(instrument)
    exchanges = _as_list(exchange)
    if instruments:
        if len(exchanges) > 1:
            raise ValueError("instrument: give the exchange as 'cu2501.SHFE' when following several exchanges")
        keys = []
        for name in instruments:
            if "." in name:
                inst, exch = name.rsplit(".", 1)
            elif exchanges:
                inst, exch = name, exchanges[0]
            else:
                raise ValueError("instrument %r: give its exchange, as 'cu2501.SHFE' or exchange=" % name)
            keys.append("%s:{%s}:%s" % (prefix, exch, inst))
    elif exchanges:
        keys = ["%s:{%s}" % (prefix, exch) for exch in exchanges]
    client = connect(url, password)
    try:
        follower = _Follower(client, keys, prefix, since, count, block_ms, group, consumer, status, discover_every,
                             batch, until_s)
        follower.reconnect = reconnect
    except BaseException:
        client.close()
        raise
    return _run(client, follower)


def _run(client, follower):
    try:
        yield from follower.run()
    finally:
        client.close()
