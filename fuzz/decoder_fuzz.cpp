// Template package decoder. A template table covering every field type,
// arrays with and without row masks, packages with and without a mask,
// price fields and the id-11 field is loaded once; the input is then
// decoded as a stream of packages, as one package body, and into a flat
// record laid out by its template (the way handlers unpack bodies with
// DecodeFieldData / ResetFieldData).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "codec/DataPackage.h"
#include "codec/PackageDecoder.h"
#include "fuzz/DecoderTemplates.h"
#include "fuzz/FuzzSupport.h"

namespace {

uint16_t ReadU16(const char* p) {
    uint16_t v;
    std::memcpy(&v, p, 2);
    return v;
}

bool Bit(const char* mask, int maskLen, int k) {
    if (k >= 8 * maskLen) return false;
    return (static_cast<unsigned char>(mask[k / 8]) & (0x80u >> (k % 8))) != 0;
}

// Unpacks one body into a record of the template's size, slot by slot,
// the way a handler walks a body. Slots without a value get the reset mark.
void DecodeFlat(const char* body, int len, const CQxDataPackage& tmpl) {
    if (tmpl.size < 0) std::abort();
    // Exactly the record's size: a slot overrun is caught.
    std::unique_ptr<char[]> record(new char[tmpl.size > 0 ? tmpl.size : 1]);
    char* rec = record.get();
    for (const CQxDataItem& item : tmpl.items) {
        if (!item.isArray) {
            ResetFieldData(rec + item.field.offset, &item.field);
            continue;
        }
        for (int r = 0; r < item.maxSize; ++r)
            for (const CQxDataField& f : item.fields)
                ResetFieldData(rec + item.offset + r * item.rowSize + f.offset, &f);
    }

    int pos = 2;
    const char* mask = nullptr;
    int maskLen = 0;
    if (tmpl.mask) {
        if (len - pos < 1) return;
        maskLen = static_cast<unsigned char>(body[pos]);
        if (maskLen > len - pos - 1) return;
        mask = body + pos + 1;
        pos += 1 + maskLen;
    }
    int bit = 0;
    for (const CQxDataItem& item : tmpl.items) {
        if (pos >= len) break;
        if (!item.isArray) {
            const bool present = !tmpl.mask || Bit(mask, maskLen, bit);
            ++bit;
            if (!present) continue;
            const int used = DecodeFieldData(body + pos, len - pos, rec + item.field.offset, &item.field);
            if (used < 0) break;
            pos += used;
            continue;
        }
        if (len - pos < 2) break;
        const int rows = ReadU16(body + pos);
        pos += 2;
        if (rows == 0) continue;
        const char* rowMask = nullptr;
        int rowMaskLen = 0;
        if (item.mask) {
            if (len - pos < 1) break;
            rowMaskLen = static_cast<unsigned char>(body[pos]);
            if (rowMaskLen > len - pos - 1) break;
            rowMask = body + pos + 1;
            pos += 1 + rowMaskLen;
        }
        bool stop = false;
        for (int r = 0; r < rows && !stop; ++r) {
            if (len - pos < 2) {
                stop = true;
                break;
            }
            const int rowLen = ReadU16(body + pos);
            if (rowLen > len - pos - 2) {
                stop = true;
                break;
            }
            const int rowStart = pos + 2;
            pos = rowStart + rowLen;
            if (r >= item.maxSize) continue;   // no room in the record
            char* row = rec + item.offset + r * item.rowSize;
            int consumed = 0;
            for (int j = 0; consumed < rowLen && j < item.fieldCount; ++j) {
                if (item.mask && !Bit(rowMask, rowMaskLen, j)) continue;
                const CQxDataField& f = item.fields[j];
                const int used = DecodeFieldData(body + rowStart + consumed, len - rowStart - consumed, row + f.offset, &f);
                if (used < 0) {
                    stop = true;
                    break;
                }
                consumed += used;
            }
        }
        if (stop) break;
    }
    orvex_fuzz::Keep(orvex_fuzz::Touch(rec, static_cast<size_t>(tmpl.size)));
}

unsigned TouchField(const CQxDataField& f) {
    unsigned sum = f.IsValid() ? 1u : 0u;
    sum += static_cast<unsigned>(f.GetInt8()) + static_cast<unsigned>(f.GetInt16()) +
           static_cast<unsigned>(f.GetInt32());
    const float v = f.GetFloat();
    orvex_fuzz::Keep(v);
    if (const char* s = f.GetString()) sum += orvex_fuzz::Touch(s, std::strlen(s));
    return sum;
}

unsigned TouchPackage(CQxDataPackage& pkg) {
    unsigned sum = 0;
    for (const CQxDataItem& item : pkg.items) {
        if (!item.isArray) sum += TouchField(item.field);
        for (const CQxDataField& f : item.rows) sum += TouchField(f);
    }
    for (unsigned short i = 0; i < 16; ++i) {
        if (CQxDataField* f = pkg.GetNormalField(i)) sum += TouchField(*f);
        for (unsigned short c = 0; c < 10; ++c)
            for (unsigned short r = 0; r < 5; ++r)
                if (CQxDataField* f = pkg.GetArrayField(i, c, r)) sum += TouchField(*f);
    }
    static const unsigned short kIds[] = {1, 5, 7, 11, 13, 20, 29, 41, 42, 50, 51, 62, 66, 70, 71, 80, 99};
    for (unsigned short id : kIds) {
        if (CQxDataField* f = pkg.GetNormalFieldByID(id)) sum += TouchField(*f);
        for (unsigned short r = 0; r < 6; ++r)
            if (CQxDataField* f = pkg.GetArrayFieldByID(id, r)) sum += TouchField(*f);
    }
    return sum;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    orvex_fuzz::PrepareRun(argc, argv);
    orvex_fuzz::WriteFile("qxdctrans.xml", orvex_fuzz::kDecoderTemplates);
    if (!LoadPackageTemplate("qxdctrans.xml") || g_vDataPackage.size() != 6) {
        std::fprintf(stderr, "template table not loaded\n");
        std::abort();
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 1 << 20) return 0;
    // An exact heap copy: a read past the input is caught.
    std::vector<char> copy(data, data + size);
    const char* buf = copy.empty() ? nullptr : copy.data();
    const int len = static_cast<int>(size);

    const int taken = DecodePackages(buf, len);
    if (taken < 0 || taken > len) std::abort();

    CQxDataPackage pkg;
    const int used = DecodeOnePackage(buf, len, &pkg);
    if (used != 0 && used != len) std::abort();
    unsigned sum = TouchPackage(pkg);

    // The same body into a flat record.
    if (len >= 2) {
        if (const CQxDataPackage* tmpl = FindPackageTemplate(ReadU16(buf))) DecodeFlat(buf, len, *tmpl);
    }

    // Single values at the start of the input, for every type.
    for (int type = QXFT_NONE; type <= QXFT_WSTRING + 1; ++type) {
        CQxDataField f;
        f.type = type;
        f.maxLen = 8;
        f.size = 9;
        sum += static_cast<unsigned>(DecodeField(buf, len, &f));
        sum += TouchField(f);
        char slot[9];
        ResetFieldData(slot, &f);
        sum += static_cast<unsigned>(DecodeFieldData(buf, len, slot, &f));
        sum += orvex_fuzz::Touch(slot, sizeof slot);
    }
    orvex_fuzz::Keep(sum);
    return 0;
}
