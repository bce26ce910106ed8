#include "protocol/DcFrames.h"

#include <zlib.h>

#include <cstdint>
#include <cstring>

namespace orvex_test {

std::string BuildDcFrame(int command, const std::string& body, bool compress) {
    std::string payload = body;
    if (compress) {
        uLongf cap = compressBound(static_cast<uLong>(body.size()));
        std::string out(cap, '\0');
        compress2(reinterpret_cast<Bytef*>(&out[0]), &cap, reinterpret_cast<const Bytef*>(body.data()),
                  static_cast<uLong>(body.size()), Z_DEFAULT_COMPRESSION);
        out.resize(cap);
        payload = out;
    }
    std::string frame(4, '\0');
    frame[0] = '@';
    frame[1] = static_cast<char>((command << 1) | (compress ? 1 : 0));
    uint16_t len = static_cast<uint16_t>(payload.size());
    std::memcpy(&frame[2], &len, 2);
    return frame + payload;
}

std::vector<DcFrame> CutDcFrames(std::string& buffer) {
    std::vector<DcFrame> out;
    size_t pos = 0;
    while (buffer.size() - pos >= 4) {
        uint16_t len;
        std::memcpy(&len, buffer.data() + pos + 2, 2);
        if (buffer.size() - pos < 4u + len) break;
        DcFrame f;
        unsigned char b1 = static_cast<unsigned char>(buffer[pos + 1]);
        f.command = b1 >> 1;
        f.compressed = (b1 & 1) != 0;
        std::string body = buffer.substr(pos + 4, len);
        if (f.compressed) {
            std::string inflated(65536, '\0');
            uLongf outLen = inflated.size();
            if (uncompress(reinterpret_cast<Bytef*>(&inflated[0]), &outLen,
                           reinterpret_cast<const Bytef*>(body.data()), static_cast<uLong>(body.size())) == Z_OK) {
                inflated.resize(outLen);
                f.body = inflated;
            }
        } else {
            f.body = body;
        }
        out.push_back(std::move(f));
        pos += 4u + len;
    }
    buffer.erase(0, pos);
    return out;
}

}  // namespace orvex_test
