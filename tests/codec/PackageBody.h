// A little-endian builder of template package bodies, for the codec tests.
#ifndef ORVEX_TESTS_CODEC_PACKAGE_BODY_H
#define ORVEX_TESTS_CODEC_PACKAGE_BODY_H

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <vector>

#include "codec/PackageDecoder.h"

namespace {

// Little-endian body builder. Data() returns a heap copy of exactly the
// first n bytes, so that the address sanitizer catches any read past them.
class Body {
public:
    Body& u8(unsigned v) { return raw(static_cast<uint8_t>(v)); }
    Body& u16(unsigned v) { return raw(static_cast<uint16_t>(v)); }
    Body& i32(int32_t v) { return raw(v); }
    Body& f32(float v) { return raw(v); }
    Body& f64(double v) { return raw(v); }
    Body& str(const char* s) {
        b_.insert(b_.end(), s, s + std::strlen(s) + 1);
        return *this;
    }
    Body& wstr(std::initializer_list<int32_t> units) {
        for (int32_t u : units) i32(u);
        return i32(0);
    }
    Body& body(const Body& o) {
        b_.insert(b_.end(), o.b_.begin(), o.b_.end());
        return *this;
    }
    int size() const { return static_cast<int>(b_.size()); }
    std::unique_ptr<char[]> Data(int n = -1) const {
        if (n < 0) n = size();
        std::unique_ptr<char[]> p(new char[n ? n : 1]);
        std::memcpy(p.get(), b_.data(), n);
        return p;
    }
    int Decode(CQxDataPackage& pkg, int n = -1) const {
        if (n < 0) n = size();
        return DecodeOnePackage(Data(n).get(), n, &pkg);
    }

private:
    template <class T>
    Body& raw(T v) {
        const char* p = reinterpret_cast<const char*>(&v);
        b_.insert(b_.end(), p, p + sizeof v);
        return *this;
    }
    std::vector<char> b_;
};

}  // namespace

#endif
