// Quote-server frames as the server side writes and reads them: a 4-byte
// header ('@', command * 2 + compressed flag, u16 body length) and the body.
#ifndef ORVEX_SIM_PROTOCOL_DC_FRAMES_H
#define ORVEX_SIM_PROTOCOL_DC_FRAMES_H

#include <string>
#include <vector>

namespace orvex_test {

struct DcFrame {
    int command = 0;
    bool compressed = false;
    std::string body;   // inflated when the frame was compressed
};

// Builds one DC frame: '@', command*2 + flag, u16 length, body. With
// `compress` the body is deflated first.
std::string BuildDcFrame(int command, const std::string& body, bool compress = false);
// Cuts whole frames off the front of `buffer`; a frame that does not
// inflate is returned with an empty body and compressed set.
std::vector<DcFrame> CutDcFrames(std::string& buffer);

}  // namespace orvex_test

#endif
