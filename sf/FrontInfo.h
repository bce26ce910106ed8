// A registered front: quote server ("tcp://...") or file server ("ftp://...").
#ifndef ORVEX_SF_FRONT_INFO_H
#define ORVEX_SF_FRONT_INFO_H

#include <cstdint>

struct _FrontInfo {
    bool isFtp;        // scheme was "ftp", any case
    char host[33];     // dotted address or host name
    uint16_t port;
    bool usable;       // cleared after a failed attempt, set again per round
};

#endif
