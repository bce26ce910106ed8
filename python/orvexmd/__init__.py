"""libOrvexMdUserApi from Python.

The names are those of the C++ interface, so its documentation applies as it
is: ``MdApi`` is the API object (``CreateWiraMdApi``), ``MdSpi`` the callback
object to subclass, and the records carry the C field names.

    import orvexmd

    class Spi(orvexmd.MdSpi):
        def __init__(self, api):
            super().__init__()
            self.api = api
        def OnFrontLinked(self):
            self.api.ReqUserLogin(orvexmd.ReqUserLoginField(BrokerID="9999", UserID="u", Password="p"), 1)
        def OnDepthMarketData(self, md):
            print(md.InstrumentID, md.LastPrice)

    with orvexmd.MdApi() as api:
        spi = Spi(api)
        api.RegisterSpi(spi)
        api.RegisterFront("tcp://127.0.0.1:7000")
        api.Init()
        ...

Callbacks run on the library's thread; records handed to them are copies
that stay valid afterwards. Texts are decoded from GBK.
"""

import atexit
import weakref

from . import _orvexmd

from ._orvexmd import (  # noqa: F401
    DBL_MAX,
    DepthMarketDataField,
    InstrumentField,
    MarketStatusField,
    MdSpi,
    QryInstrumentField,
    ReqUserLoginField,
    RspInfoField,
    RspUserLoginField,
    _MdApi,
)

__all__ = [
    "DBL_MAX",
    "DepthMarketDataField",
    "InstrumentField",
    "MarketStatusField",
    "Journal",
    "MdApi",
    "MdSpi",
    "QryInstrumentField",
    "ReplayApi",
    "ReqUserLoginField",
    "RspInfoField",
    "RspUserLoginField",
    "read_journal",
    "template_sizes",
]

_live = weakref.WeakSet()

_NUMBER_SIZES = {"int8": 1, "int16": 2, "int32": 4, "float": 4, "double": 8}


def template_sizes(path="./qxdctrans.xml", text=None):
    """Record sizes of the template packages in the template file, by
    package id, as the library lays the records out: no padding; int8 1,
    int16 2, int32 4, float 4, double 8, text maxlen + 1 (64 when absent), a
    price 8, a field with id 11 9; an array reserves maxsize rows (10 when
    absent). The first template of an id counts. {} without a file. With
    ``text``, the file's text is given instead of its path."""
    import xml.etree.ElementTree as ET

    def field_size(e):
        if e.tag in _NUMBER_SIZES:
            size = _NUMBER_SIZES[e.tag]
        else:
            maxlen = e.get("maxlen", "")
            size = (int(maxlen) if maxlen.strip().lstrip("-").isdigit() else 64) + 1
        if e.get("price") == "1":
            size = 8
        if (int(e.get("id", "0") or 0) & 0xFFFF) == 11:
            size = 9
        return size

    try:
        root = ET.fromstring(text) if text is not None else ET.parse(path).getroot()
    except (OSError, ET.ParseError):
        return {}
    sizes = {}
    for packet in root.iter("qxpacket"):
        pid = int(packet.get("id", "0") or 0) & 0xFFFF
        total = 0
        for item in packet:
            if item.tag == "array":
                maxsize = item.get("maxsize", "")
                rows = int(maxsize) if maxsize.strip().lstrip("-").isdigit() else 10
                total += rows * sum(field_size(f) for f in item)
            else:
                total += field_size(item)
        sizes.setdefault(pid, total)
    return sizes


class MdApi(_MdApi):
    """The API object: CreateWiraMdApi(flow_path, False, False, deliver_snapshot).

    A context manager that releases on exit. After Release every call raises
    RuntimeError; an object collected without Release is released. Release
    may not be called from inside a callback (it raises RuntimeError).
    """

    def __init__(self, flow_path="", deliver_snapshot=True):
        super().__init__(flow_path, deliver_snapshot, None, 0.0)
        # The template file the library has just read: OnTemplateData hands
        # over as many bytes as it lays out for the package.
        self._template_sizes = template_sizes()
        _live.add(self)

    def RegisterSpi(self, spi):
        if spi is not None:
            spi._set_template_sizes(self._template_sizes)
        return super().RegisterSpi(spi)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.Release()
        return False


class ReplayApi(MdApi):
    """The same interface fed from a tick journal that md-record wrote:
    CreateWiraReplayApi(journal, speed). ``journal`` is a journal file or a
    directory of them; ``speed`` 0 replays as fast as the callbacks return,
    otherwise at the recorded pace divided by ``speed``. Join returns at the
    end of the journal. Template records have the sizes of the template file
    the journal carries."""

    def __init__(self, journal, speed=0.0):
        _MdApi.__init__(self, "", True, str(journal), float(speed))
        texts = _orvexmd._read_journal_templates(str(journal))
        self._template_sizes = template_sizes(text=texts[0]) if texts else {}
        _live.add(self)


class Journal:
    """What read_journal returns.

    depth: a NumPy array of JOURNAL_DEPTH_DTYPE (every depth record field
        under its C name, and ``time``, the receive time in nanoseconds).
    status: [(time, MarketStatusField)]
    instrument, login: [(time, record or None, RspInfoField or None,
        request_id, is_last)]
    template: [(time, package_id, bytes)]
    linked: [time]; lost: [(time, reason)]
    templates: the template files the journal carries.
    torn: bytes after the last whole entry (a recorder killed while writing).
    files: the files read, in order.
    """

    def __init__(self, parts):
        self.__dict__.update(parts)

    def __repr__(self):
        return "Journal(%d depth, %d status, %d instrument, %d login, %d template, %d linked, %d lost)" % (
            len(self.depth), len(self.status), len(self.instrument), len(self.login), len(self.template),
            len(self.linked), len(self.lost))


def read_journal(path):
    """Reads a journal file or a directory of them (in trading-day order):
    the depth records as one NumPy structured array without a Python object
    per record, the other kinds as lists of records. See Journal."""
    if _np is None:  # pragma: no cover
        raise RuntimeError("read_journal needs NumPy")
    return Journal(_orvexmd._read_journal(str(path), JOURNAL_DEPTH_DTYPE))


@atexit.register
def _release_all():
    # The library's threads must stop before the interpreter goes away.
    for api in list(_live):
        try:
            api.Release()
        except RuntimeError:
            pass


try:
    import numpy as _np
except ImportError:  # pragma: no cover - NumPy is optional
    _np = None

if _np is not None:

    def _depth_dtype():
        kinds = {"double": "<f8", "int": "<i4", "char": "S1"}
        names, formats, offsets = [], [], []
        for name, offset, size, kind in DepthMarketDataField.fields():
            names.append(name)
            formats.append(kinds.get(kind, "S%d" % size))
            offsets.append(offset)
        return _np.dtype(
            {"names": names, "formats": formats, "offsets": offsets, "itemsize": DepthMarketDataField.size}
        )

    #: The depth record as a NumPy structured dtype (itemsize 408, every field
    #: at its C offset under its C name): numpy.frombuffer(raw_bytes,
    #: dtype=DEPTH_DTYPE) reads records without a Python object per record.
    DEPTH_DTYPE = _depth_dtype()
    __all__.append("DEPTH_DTYPE")

    def _journal_dtype():
        names = list(DEPTH_DTYPE.names) + ["time"]
        formats = [DEPTH_DTYPE.fields[n][0] for n in DEPTH_DTYPE.names] + ["<i8"]
        offsets = [DEPTH_DTYPE.fields[n][1] for n in DEPTH_DTYPE.names] + [DEPTH_DTYPE.itemsize]
        return _np.dtype({"names": names, "formats": formats, "offsets": offsets,
                          "itemsize": DEPTH_DTYPE.itemsize + 8})

    #: A depth record of a journal: DEPTH_DTYPE and ``time``, the receive
    #: time (int64 nanoseconds since the epoch) at offset 408.
    JOURNAL_DEPTH_DTYPE = _journal_dtype()
    __all__.append("JOURNAL_DEPTH_DTYPE")
