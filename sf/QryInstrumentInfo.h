// A queued instrument query: the caller's request id and a copy of its query
// record. The file-service worker copies it whole (108 bytes) and answers
// with its request id.
#ifndef ORVEX_SF_QRY_INSTRUMENT_INFO_H
#define ORVEX_SF_QRY_INSTRUMENT_INFO_H

#include "api/OrvexWiraMdStruct.h"

struct _QryInstrumentInfo {
    int nRequestID;
    COrvexWiraQryInstrumentField query;
    char reserved[2];
};
static_assert(sizeof(_QryInstrumentInfo) == 108, "query information is 108 bytes");

#endif
