// Server side of the QXSF wire format: encoders of the bodies a file server
// sends, decoders of the bodies a client sends, and package framing. Used by
// the fake file server of the tests and by the simulator.
#ifndef ORVEX_TESTS_SUPPORT_QXSF_SERVER_CODEC_H
#define ORVEX_TESTS_SUPPORT_QXSF_SERVER_CODEC_H

#include <string>
#include <vector>

#include "sf/QxsfWire.h"

namespace qxsfsim {

// Server-to-client structures (the client only reads them).
int to_stream(const _TaskHead& v, char* out);
int to_stream(const _ItemListHead& v, char* out);
int to_stream(const _TaskFileInfo& v, char* out);
int to_stream(const _FileTransfer& v, char* out);
int to_stream(const _FileTransferInfo& v, char* out);
int to_stream(const _FileTransferBlock& v, char* out);
int to_stream(const _FileTransferEnd& v, char* out);

// Client-to-server structures (the client only writes them). Each returns
// the bytes consumed, 0 when fewer than the wire size are available.
int from_stream(_LoginReq& v, const char* in, int avail);
int from_stream(_MktSize& v, const char* in, int avail);
int from_stream(_MarketInfo2& v, const char* in, int avail);
int from_stream(_GetFileReq& v, const char* in, int avail);

// One package as received: its head and its body after inflating.
struct Package {
    _MainPkgHead head;
    std::vector<char> body;      // inflated when the head says compressed
    std::vector<char> wireBody;  // as it travelled
};

// Head plus body. With compress set the body is deflated (and flagged) when
// that makes it shorter; otherwise it is sent as it is.
std::vector<char> EncodePackage(unsigned short handle, char command, const std::vector<char>& body,
                                bool compress = false);

// Removes every complete package from the front of buffer into out.
// Returns false on a head without the '@' mark or a body that does not
// inflate; buffer then still starts with the offending package.
bool ExtractPackages(std::vector<char>& buffer, std::vector<Package>& out);

// Bodies of the server's answers.
std::vector<char> ListPageBody(const std::string& directory, short total, short start,
                               const std::vector<_TaskFileInfo>& files);
std::vector<char> TransferInfoBody(const _FileTransferInfo& info);
std::vector<char> TransferBlockBody(const _FileTransferBlock& block);
std::vector<char> TransferEndBody(int result);
std::vector<char> TransferPartOnlyBody(char part);

// Bodies of the client's requests, decoded.
struct MarketList {
    int count = 0;
    std::vector<std::string> codes;
};
bool DecodeMarketList(const std::vector<char>& body, MarketList& out);

void Md5Of(const std::string& data, unsigned char digest[16]);

// A list entry describing content under name and time.
_TaskFileInfo MakeTaskFileInfo(const std::string& name, const std::string& content, UPDFILETIME time);

}  // namespace qxsfsim

#endif
