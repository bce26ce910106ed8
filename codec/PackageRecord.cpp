#include "codec/PackageRecord.h"

#include <cfloat>
#include <cstdint>
#include <cstring>

#include "codec/PackageDecoder.h"

namespace {

constexpr unsigned short kIdTextField = 11;
constexpr int kIdTextSize = 9;

bool Bit(const unsigned char* mask, int bytes, int k) {
    if (k >= 8 * bytes) return false;
    return (mask[k / 8] & (0x80 >> (k % 8))) != 0;
}

// The number held at the start of a slot, for the integer types.
bool SlotInteger(const char* slot, int type, int64_t* value) {
    switch (type) {
    case QXFT_INT8:
        *value = static_cast<signed char>(slot[0]);
        return true;
    case QXFT_INT16: {
        int16_t v;
        std::memcpy(&v, slot, 2);
        *value = v;
        return true;
    }
    case QXFT_INT32: {
        int32_t v;
        std::memcpy(&v, slot, 4);
        *value = v;
        return true;
    }
    default:
        return false;
    }
}

void FinishPrice(char* slot, const CQxDataField& field) {
    double d;
    int64_t v;
    if (SlotInteger(slot, field.type, &v)) {
        d = v == 0x7FFFFFFF ? DBL_MAX : static_cast<double>(v);
    } else if (field.type == QXFT_FLOAT) {
        float f;
        std::memcpy(&f, slot, 4);
        d = f;
    } else {
        return;   // a double stays, text is left as it is
    }
    std::memcpy(slot, &d, sizeof d);
}

void FinishIdText(char* slot, const CQxDataField& field, PackageIdText idText, void* context) {
    int64_t v;
    if (SlotInteger(slot, field.type, &v)) {
        char text[kIdTextSize] = {};
        if (v != 0 && v != 0x7FFFFFFF && idText) idText(context, static_cast<int>(v), text);
        text[kIdTextSize - 1] = '\0';
        std::memcpy(slot, text, kIdTextSize);
        return;
    }
    slot[kIdTextSize - 1] = '\0';
}

// Applies the finishing rules to one slot.
void Finish(char* slot, const CQxDataField& field, PackageIdText idText, void* context) {
    if (field.id == kIdTextField && field.size >= kIdTextSize) {
        FinishIdText(slot, field, idText, context);
    } else if (field.price && field.size >= 8) {
        FinishPrice(slot, field);
    }
}

// Calls f(slot, field) for every slot of the record, array rows included.
template <class F>
void ForEachSlot(const CQxDataPackage& tmpl, char* record, F f) {
    for (const CQxDataItem& item : tmpl.items) {
        if (!item.isArray) {
            f(record + item.field.offset, item.field);
            continue;
        }
        for (int r = 0; r < item.maxSize; ++r) {
            for (const CQxDataField& field : item.fields) f(record + item.offset + r * item.rowSize + field.offset, field);
        }
    }
}

// Decodes the present fields of the body into the record; stops where the
// body ends or a value does not fit.
void DecodeInto(const CQxDataPackage& tmpl, const char* body, int length, char* record) {
    int pos = 2;
    const unsigned char* mask = nullptr;
    int maskBytes = 0;
    if (tmpl.mask) {
        if (pos + 1 > length) return;
        maskBytes = static_cast<unsigned char>(body[pos]);
        if (pos + 1 + maskBytes > length) return;
        mask = reinterpret_cast<const unsigned char*>(body + pos + 1);
        pos += 1 + maskBytes;
    }
    int k = 0;
    for (const CQxDataItem& item : tmpl.items) {
        if (pos >= length) return;
        if (!item.isArray) {
            const bool present = !tmpl.mask || Bit(mask, maskBytes, k);
            ++k;
            if (!present) continue;
            const int n = DecodeFieldData(body + pos, length - pos, record + item.field.offset, &item.field);
            if (n < 0) return;
            pos += n;
            continue;
        }
        if (pos + 2 > length) return;
        uint16_t rows;
        std::memcpy(&rows, body + pos, 2);
        pos += 2;
        if (rows == 0) continue;
        const unsigned char* rowMask = nullptr;
        int rowMaskBytes = 0;
        if (item.mask) {
            if (pos + 1 > length) return;
            rowMaskBytes = static_cast<unsigned char>(body[pos]);
            if (pos + 1 + rowMaskBytes > length) return;
            rowMask = reinterpret_cast<const unsigned char*>(body + pos + 1);
            pos += 1 + rowMaskBytes;
        }
        for (int r = 0; r < rows; ++r) {
            if (pos + 2 > length) return;
            uint16_t rowLength;
            std::memcpy(&rowLength, body + pos, 2);
            const char* row = body + pos + 2;
            // A row running past the body is read as far as the body goes,
            // and ends the decoding.
            const int held = length - pos - 2 < rowLength ? length - pos - 2 : rowLength;
            if (r < item.maxSize) {
                char* dst = record + item.offset + r * item.rowSize;
                int consumed = 0;
                for (int j = 0; consumed < held && j < item.fieldCount && j < static_cast<int>(item.fields.size()); ++j) {
                    if (item.mask && !Bit(rowMask, rowMaskBytes, j)) continue;
                    const CQxDataField& field = item.fields[j];
                    const int n = DecodeFieldData(row + consumed, held - consumed, dst + field.offset, &field);
                    if (n < 0) return;
                    consumed += n;
                }
            }
            if (held < rowLength) return;
            pos += 2 + rowLength;
        }
    }
}

// True when every slot of the layout lies inside the record. A template with
// a negative maxsize would put later fields before the record's start.
bool SlotsInside(const CQxDataPackage& tmpl) {
    bool inside = tmpl.size >= 0;
    for (const CQxDataItem& item : tmpl.items) {
        if (item.isArray && (item.maxSize < 0 || item.rowSize < 0)) inside = false;
    }
    if (!inside) return false;
    auto check = [&](long long offset, int size) {
        if (offset < 0 || size < 0 || offset + size > tmpl.size) inside = false;
    };
    for (const CQxDataItem& item : tmpl.items) {
        if (!item.isArray) {
            check(item.field.offset, item.field.size);
            continue;
        }
        if (item.maxSize == 0) continue;
        // The first and the last row bound every row.
        for (const CQxDataField& field : item.fields) {
            check(static_cast<long long>(item.offset) + field.offset, field.size);
            check(static_cast<long long>(item.offset) + static_cast<long long>(item.maxSize - 1) * item.rowSize +
                      field.offset,
                  field.size);
        }
    }
    return inside;
}

}  // namespace

bool BuildPackageRecord(const CQxDataPackage& tmpl, const char* body, int length, std::vector<char>* record,
                        PackageIdText idText, void* context) {
    if (!body || length < 2 || !record) return false;
    uint16_t id;
    std::memcpy(&id, body, 2);
    if (id != tmpl.id || !SlotsInside(tmpl)) return false;
    record->assign(static_cast<size_t>(tmpl.size > 0 ? tmpl.size : 1), '\0');
    char* rec = record->data();
    ForEachSlot(tmpl, rec, [](char* slot, const CQxDataField& field) { ResetFieldData(slot, &field); });
    DecodeInto(tmpl, body, length, rec);
    ForEachSlot(tmpl, rec, [&](char* slot, const CQxDataField& field) { Finish(slot, field, idText, context); });
    return true;
}
