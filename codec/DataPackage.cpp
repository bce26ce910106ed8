#include "codec/DataPackage.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/Markup.h"

std::vector<CQxDataPackage> g_vDataPackage;

namespace {

// Copies an attribute into a fixed char array, cut to fit with its 0.
template <size_t N>
void CopyText(char (&dst)[N], const std::string& src) {
    const size_t n = src.size() < N - 1 ? src.size() : N - 1;
    std::memcpy(dst, src.data(), n);
    std::memset(dst + n, 0, N - n);
}

// "mask" attributes: absent or empty keeps the mask on.
bool MaskAttrib(const std::string& text, bool current) {
    return text.empty() ? current : std::atoi(text.c_str()) != 0;
}

// Record arithmetic wraps at 32 bits instead of overflowing, whatever
// numbers a template file holds.
int WrapAdd(int a, int b) {
    return static_cast<int>(static_cast<unsigned>(a) + static_cast<unsigned>(b));
}
int WrapMul(int a, int b) {
    return static_cast<int>(static_cast<unsigned>(a) * static_cast<unsigned>(b));
}

// Builds one field from the element at the main position; offset is set by
// the caller.
CQxDataField ReadField(const CMarkup& xml) {
    CQxDataField f;
    const std::string tag = xml.GetTagName();
    if (tag == "int8") {
        f.type = QXFT_INT8;
        f.size = 1;
    } else if (tag == "int16") {
        f.type = QXFT_INT16;
        f.size = 2;
    } else if (tag == "int32") {
        f.type = QXFT_INT32;
        f.size = 4;
    } else if (tag == "float") {
        f.type = QXFT_FLOAT;
        f.size = 4;
    } else if (tag == "double") {
        f.type = QXFT_DOUBLE;
        f.size = 8;
    } else {
        f.type = xml.GetAttrib("charset") == "unicode" ? QXFT_WSTRING : QXFT_STRING;
        const std::string maxLen = xml.GetAttrib("maxlen");
        if (!maxLen.empty()) f.maxLen = std::atoi(maxLen.c_str());
        f.size = WrapAdd(f.maxLen, 1);
    }
    f.id = static_cast<unsigned short>(std::atoi(xml.GetAttrib("id").c_str()));
    CopyText(f.name, xml.GetAttrib("name"));
    CopyText(f.comment, xml.GetAttrib("comment"));
    if (xml.GetAttrib("price") == "1") {
        // The record keeps prices as doubles.
        f.size = 8;
        f.price = true;
    }
    if (f.id == 11) {
        // The DC handler replaces this value in the record with a text of
        // up to 8 characters and its 0, whatever the declared type.
        f.size = 9;
    }
    return f;
}

}  // namespace

bool LoadPackageTemplate(const char* path) {
    g_vDataPackage.clear();
    CMarkup xml;
    if (!xml.Load(path)) {
        std::printf("can't Load %s\n", path ? path : "");
        return false;
    }
    if (!xml.FindElem("qxpackets")) return false;

    while (xml.FindChildElem("qxpacket")) {
        xml.IntoElem();
        CQxDataPackage pkg;
        pkg.id = static_cast<unsigned short>(std::atoi(xml.GetAttrib("id").c_str()));
        CopyText(pkg.name, xml.GetAttrib("name"));
        CopyText(pkg.version, xml.GetAttrib("version"));
        pkg.mask = MaskAttrib(xml.GetAttrib("mask"), true);
        int offset = 0;

        while (xml.FindChildElem()) {
            xml.IntoElem();
            CQxDataItem item;
            if (xml.GetTagName() == "array") {
                item.isArray = 1;
                item.mask = MaskAttrib(xml.GetAttrib("mask"), true);
                const std::string maxSize = xml.GetAttrib("maxsize");
                if (!maxSize.empty()) item.maxSize = std::atoi(maxSize.c_str());
                item.rowSize = 0;
                item.offset = offset;
                while (xml.FindChildElem()) {
                    xml.IntoElem();
                    CQxDataField f = ReadField(xml);
                    f.offset = item.rowSize;
                    item.rowSize = WrapAdd(item.rowSize, f.size);
                    item.fields.push_back(f);
                    xml.OutOfElem();
                }
                item.fieldCount = static_cast<int>(item.fields.size());
                offset = WrapAdd(offset, WrapMul(item.maxSize, item.rowSize));
            } else {
                item.isArray = 0;
                item.field = ReadField(xml);
                item.field.offset = offset;
                offset = WrapAdd(offset, item.field.size);
            }
            pkg.items.push_back(item);
            pkg.itemCount++;
            xml.OutOfElem();
        }
        pkg.size = offset;
        g_vDataPackage.push_back(pkg);
        xml.OutOfElem();
    }
    return true;
}

const CQxDataPackage* FindPackageTemplate(unsigned short id) {
    for (const CQxDataPackage& pkg : g_vDataPackage)
        if (pkg.id == id) return &pkg;
    return nullptr;
}
