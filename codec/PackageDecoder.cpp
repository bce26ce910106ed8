#include "codec/PackageDecoder.h"

#include <cstdint>
#include <cstring>
#include <limits>

#include "base/UnicodeConverter.h"

namespace {

template <class T>
T ReadRaw(const char* p) {
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// Presence bit k of a mask of maskLen bytes, most significant bit first.
bool MaskBit(const char* mask, int maskLen, int k) {
    if (k >= 8 * maskLen) return false;
    return (static_cast<unsigned char>(mask[k / 8]) & (0x80u >> (k % 8))) != 0;
}

// Finds the 0 unit that ends a wide text; units counts those before it.
bool FindWideEnd(const char* src, int avail, int& units) {
    for (int off = 0; avail - off >= 4; off += 4) {
        if (ReadRaw<uint32_t>(src + off) == 0) {
            units = off / 4;
            return true;
        }
    }
    return false;
}

// Text bytes a slot can hold before its terminating 0; -1 when the slot
// holds nothing. Normally maxLen, since text slots are maxLen + 1 bytes.
int TextCapacity(const CQxDataField* f) {
    if (f->size <= 0) return -1;
    int cap = f->maxLen < 0 ? 0 : f->maxLen;
    return cap < f->size - 1 ? cap : f->size - 1;
}

// Decodes the array item at pos: row count, row mask, rows. False when the
// body ends inside it; the rows decoded so far stay in item.
bool DecodeArray(const char* body, int len, int& pos, CQxDataItem& item) {
    item.rowCount = 0;
    item.rows.clear();
    if (len - pos < 2) return false;
    const int rows = ReadRaw<uint16_t>(body + pos);
    pos += 2;
    if (rows == 0) return true;

    const char* mask = nullptr;
    int maskLen = 0;
    if (item.mask) {
        if (len - pos < 1) return false;
        maskLen = static_cast<unsigned char>(body[pos]);
        if (maskLen > len - pos - 1) return false;
        mask = body + pos + 1;
        pos += 1 + maskLen;
    }

    const int stride = static_cast<int>(item.fields.size());
    const int columns = item.fieldCount < stride ? item.fieldCount : stride;
    for (int r = 0; r < rows; ++r) {
        if (len - pos < 2) return false;
        const int rowLen = ReadRaw<uint16_t>(body + pos);
        if (rowLen > len - pos - 2) return false;
        item.rows.insert(item.rows.end(), item.fields.begin(), item.fields.end());
        item.rowCount = r + 1;
        CQxDataField* row = item.rows.data() + static_cast<size_t>(r) * stride;
        const int rowStart = pos + 2;
        int consumed = 0;
        for (int j = 0; consumed < rowLen && j < columns; ++j) {
            if (item.mask && !MaskBit(mask, maskLen, j)) continue;
            // A value may run past its row into the body, never past the body.
            const int used = DecodeField(body + rowStart + consumed, len - rowStart - consumed, &row[j]);
            if (used < 0) return false;
            consumed += used;
        }
        pos = rowStart + rowLen;
    }
    return true;
}

}  // namespace

// ---- CQxDataField values --------------------------------------------------------

void CQxDataField::SetInt8(char v) {
    value.i8 = static_cast<signed char>(v);
    valid = true;
}
void CQxDataField::SetInt16(short v) {
    value.i16 = v;
    valid = true;
}
void CQxDataField::SetInt32(int v) {
    value.i32 = v;
    valid = true;
}
void CQxDataField::SetFloat(float v) {
    value.f = v;
    valid = true;
}
void CQxDataField::SetDouble(double v) {
    value.d = v;
    valid = true;
}
void CQxDataField::SetString(const char* v) {
    strValue = v ? v : "";
    valid = true;
}
char CQxDataField::GetInt8() const { return type == QXFT_INT8 ? static_cast<char>(value.i8) : 0; }
short CQxDataField::GetInt16() const { return type == QXFT_INT16 ? value.i16 : 0; }
int CQxDataField::GetInt32() const { return type == QXFT_INT32 ? value.i32 : 0; }
float CQxDataField::GetFloat() const { return type == QXFT_FLOAT ? value.f : 0.0f; }
const char* CQxDataField::GetString() const {
    return (type == QXFT_STRING || type == QXFT_WSTRING) ? strValue.c_str() : nullptr;
}

// ---- CQxDataPackage look-ups ------------------------------------------------------

CQxDataField* CQxDataPackage::GetNormalField(unsigned short index) {
    if (index >= itemCount || index >= items.size()) return nullptr;
    CQxDataItem& item = items[index];
    return item.isArray ? nullptr : &item.field;
}

CQxDataField* CQxDataPackage::GetArrayField(unsigned short item, unsigned short column,
                                            unsigned short row) {
    if (item >= itemCount || item >= items.size()) return nullptr;
    CQxDataItem& it = items[item];
    if (!it.isArray || column >= it.fieldCount || row >= it.rowCount) return nullptr;
    const size_t index = static_cast<size_t>(row) * it.fieldCount + column;
    return index < it.rows.size() ? &it.rows[index] : nullptr;
}

CQxDataField* CQxDataPackage::GetNormalFieldByID(unsigned short fieldId) {
    for (size_t i = 0; i < items.size() && static_cast<int>(i) < itemCount; ++i) {
        if (!items[i].isArray && items[i].field.id == fieldId) return &items[i].field;
    }
    return nullptr;
}

CQxDataField* CQxDataPackage::GetArrayFieldByID(unsigned short fieldId, unsigned short row) {
    for (CQxDataItem& it : items) {
        if (!it.isArray) continue;
        for (size_t j = 0; j < it.fields.size(); ++j) {
            if (it.fields[j].id != fieldId) continue;
            const size_t index = static_cast<size_t>(it.fieldCount) * row + j;
            return index < it.rows.size() ? &it.rows[index] : nullptr;
        }
    }
    return nullptr;
}

// ---- decoding ----------------------------------------------------------------------

int DecodePackages(const char* buf, int len) {
    if (!buf || len <= 0) return 0;
    int pos = 0;
    while (len - pos >= 4) {
        const uint32_t bodyLen = ReadRaw<uint32_t>(buf + pos);
        if (bodyLen > static_cast<uint32_t>(len - pos - 4)) return pos;
        pos += 4;
        CQxDataPackage pkg;
        DecodeOnePackage(buf + pos, static_cast<int>(bodyLen), &pkg);
        pos += static_cast<int>(bodyLen);
    }
    return pos;
}

int DecodeOnePackage(const char* body, int len, CQxDataPackage* pkg) {
    if (!body || !pkg || len < 2) return 0;
    const CQxDataPackage* tmpl = FindPackageTemplate(ReadRaw<uint16_t>(body));
    if (!tmpl) return 0;

    pkg->id = tmpl->id;
    std::memcpy(pkg->name, tmpl->name, sizeof pkg->name);
    std::memcpy(pkg->version, tmpl->version, sizeof pkg->version);
    pkg->mask = tmpl->mask;
    pkg->itemCount = tmpl->itemCount;
    pkg->items.clear();

    int pos = 2;
    const char* mask = nullptr;
    int maskLen = 0;
    if (tmpl->mask) {
        if (len < 3) return len;
        maskLen = static_cast<unsigned char>(body[2]);
        if (maskLen > len - 3) return len;
        mask = body + 3;
        pos = 3 + maskLen;
    }

    int bit = 0;  // numbers the single-field items only
    const size_t count = tmpl->itemCount < 0 ? 0 : static_cast<size_t>(tmpl->itemCount);
    for (size_t i = 0; i < count && i < tmpl->items.size() && pos < len; ++i) {
        pkg->items.push_back(tmpl->items[i]);
        CQxDataItem& item = pkg->items.back();
        if (item.isArray) {
            if (!DecodeArray(body, len, pos, item)) break;
            continue;
        }
        const bool present = !tmpl->mask || MaskBit(mask, maskLen, bit);
        ++bit;
        if (!present) continue;
        const int used = DecodeField(body + pos, len - pos, &item.field);
        if (used < 0) break;
        pos += used;
    }
    return len;
}

int DecodeField(const char* src, int avail, CQxDataField* field) {
    if (!field) return -1;
    if (!src || avail < 0) avail = 0;
    switch (field->type) {
    case QXFT_INT8:
        if (avail < 1) return -1;
        field->SetInt8(src[0]);
        return 1;
    case QXFT_INT16:
        if (avail < 2) return -1;
        field->SetInt16(ReadRaw<int16_t>(src));
        return 2;
    case QXFT_INT32:
        if (avail < 4) return -1;
        field->SetInt32(ReadRaw<int32_t>(src));
        return 4;
    case QXFT_FLOAT:
        if (avail < 4) return -1;
        field->SetFloat(ReadRaw<float>(src));
        return 4;
    case QXFT_DOUBLE:
        if (avail < 8) return -1;
        field->SetDouble(ReadRaw<double>(src));
        return 8;
    case QXFT_STRING: {
        if (avail < 1) return -1;
        const char* end = static_cast<const char*>(std::memchr(src, 0, avail));
        if (!end) return -1;
        field->strValue.assign(src, end - src);
        field->valid = true;
        return static_cast<int>(end - src) + 1;
    }
    case QXFT_WSTRING: {
        int units = 0;
        if (!FindWideEnd(src, avail, units)) return -1;
        std::wstring text;
        text.reserve(units);
        for (int k = 0; k < units; ++k)
            text.push_back(static_cast<wchar_t>(ReadRaw<uint32_t>(src + 4 * k)));
        field->SetString(UnicodeToANSI(text).c_str());
        return (units + 1) * 4;
    }
    default:
        return 0;
    }
}

int DecodeFieldData(const char* src, int avail, char* dst, const CQxDataField* field) {
    if (!field || !dst) return -1;
    if (!src || avail < 0) avail = 0;
    switch (field->type) {
    case QXFT_INT8:
        if (avail < 1) return -1;
        dst[0] = src[0];
        return 1;
    case QXFT_INT16:
        if (avail < 2) return -1;
        std::memcpy(dst, src, 2);
        return 2;
    case QXFT_INT32:
    case QXFT_FLOAT:
        if (avail < 4) return -1;
        std::memcpy(dst, src, 4);
        return 4;
    case QXFT_DOUBLE:
        if (avail < 8) return -1;
        std::memcpy(dst, src, 8);
        return 8;
    case QXFT_STRING: {
        if (avail < 1) return -1;
        const char* end = static_cast<const char*>(std::memchr(src, 0, avail));
        if (!end) return -1;
        const int textLen = static_cast<int>(end - src);
        const int cap = TextCapacity(field);
        if (cap >= 0) {
            const int n = textLen < cap ? textLen : cap;
            std::memcpy(dst, src, n);
            std::memset(dst + n, 0, cap - n + 1);
        }
        return textLen + 1;
    }
    case QXFT_WSTRING: {
        int units = 0;
        if (!FindWideEnd(src, avail, units)) return -1;
        const int cap = TextCapacity(field);
        if (cap >= 0) {
            // Same result as UnicodeToANSI, converted straight from the wire:
            // each 32-bit unit is two 16-bit units.
            const size_t n = CUnicodeConverter::UTF16Bytes_To_UTF8(
                src, static_cast<size_t>(units) * 2, dst, static_cast<size_t>(cap));
            std::memset(dst + n, 0, cap - n + 1);
        }
        return (units + 1) * 4;
    }
    default:
        if (field->size > 0) std::memset(dst, 0, field->size);
        return 0;
    }
}

void ResetFieldData(char* dst, const CQxDataField* field) {
    if (!dst || !field) return;
    if (field->size > 0) std::memset(dst, 0, field->size);
    if (field->type == QXFT_INT32) {
        const int32_t none = std::numeric_limits<int32_t>::max();
        std::memcpy(dst, &none, sizeof none);
    } else if (field->type == QXFT_DOUBLE) {
        const double none = std::numeric_limits<double>::max();
        std::memcpy(dst, &none, sizeof none);
    }
}

std::string UnicodeToANSI(const std::wstring& text) {
    // Each 16-bit unit gives at most 3 UTF-8 bytes (a surrogate pair gives 4
    // for 2 units).
    const size_t units = text.size() * sizeof(wchar_t) / 2;
    std::string out(units * 3, '\0');
    const size_t n = CUnicodeConverter::UTF16Bytes_To_UTF8(
        reinterpret_cast<const char*>(text.data()), units, out.empty() ? nullptr : &out[0], out.size());
    out.resize(n);
    return out;
}
