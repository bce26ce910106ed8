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
    "MdApi",
    "MdSpi",
    "QryInstrumentField",
    "ReqUserLoginField",
    "RspInfoField",
    "RspUserLoginField",
]

_live = weakref.WeakSet()


class MdApi(_MdApi):
    """The API object: CreateWiraMdApi(flow_path, False, False, deliver_snapshot).

    A context manager that releases on exit. After Release every call raises
    RuntimeError; an object collected without Release is released. Release
    may not be called from inside a callback (it raises RuntimeError).
    """

    def __init__(self, flow_path="", deliver_snapshot=True):
        super().__init__(flow_path, deliver_snapshot)
        _live.add(self)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.Release()
        return False


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
