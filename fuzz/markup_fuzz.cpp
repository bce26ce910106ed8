// XML documents: CMarkup::SetDoc on the input, then the navigation the
// library performs (named and unnamed FindElem / FindChildElem loops,
// IntoElem / OutOfElem, GetTagName, GetAttrib), a depth-first walk of the
// whole tree, and the package template loader on the input as a file.
#include <cstddef>
#include <cstdint>
#include <string>

#include "base/Markup.h"
#include "codec/DataPackage.h"
#include "fuzz/FuzzSupport.h"

namespace {

using orvex_fuzz::Touch;

const char* const kAttribs[] = {"id", "name", "version", "mask", "maxsize", "maxlen", "charset",
                                "price", "comment", "family", "groups", "allaccess"};

unsigned TouchElem(const CMarkup& xml) {
    unsigned sum = Touch(xml.GetTagName());
    for (const char* a : kAttribs) sum += Touch(xml.GetAttrib(a));
    return sum;
}

// Visits every element: down with FindChildElem + IntoElem, back up with
// OutOfElem, which leaves the cursor ready for the next sibling.
unsigned Walk(CMarkup xml) {
    unsigned sum = 0;
    if (!xml.FindElem()) return sum;
    sum += TouchElem(xml);
    int depth = 0;
    for (int steps = 0; steps < 100000; ++steps) {
        if (xml.FindChildElem()) {
            if (!xml.IntoElem()) break;
            ++depth;
            sum += TouchElem(xml);
            continue;
        }
        if (depth == 0) break;
        if (!xml.OutOfElem()) break;
        --depth;
    }
    // Sibling search at the top (a second root is never accepted).
    sum += xml.FindElem() ? 1u : 0u;
    return sum;
}

// The shape of the template loader and of the access file reader.
unsigned Named(CMarkup xml) {
    unsigned sum = 0;
    if (!xml.FindElem("qxpackets") && !xml.FindElem("qxmkts")) return sum;
    sum += TouchElem(xml);
    int packets = 0;
    while (packets++ < 10000 && xml.FindChildElem("qxpacket")) {
        xml.IntoElem();
        sum += TouchElem(xml);
        int items = 0;
        while (items++ < 10000 && xml.FindChildElem()) {
            xml.IntoElem();
            sum += TouchElem(xml);
            int fields = 0;
            while (fields++ < 10000 && xml.FindChildElem()) {
                xml.IntoElem();
                sum += TouchElem(xml);
                xml.OutOfElem();
            }
            xml.OutOfElem();
        }
        xml.OutOfElem();
    }
    // Stray navigation must be harmless too.
    sum += xml.OutOfElem() ? 1u : 0u;
    sum += xml.OutOfElem() ? 1u : 0u;
    sum += xml.IntoElem() ? 1u : 0u;
    sum += xml.FindElem("qxmkt") ? 1u : 0u;
    return sum;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    orvex_fuzz::PrepareRun(argc, argv);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);

    CMarkup xml;
    const bool ok = xml.SetDoc(text.c_str());
    unsigned sum = Touch(xml.GetResult()) + Touch(xml.GetDoc()) + (ok ? 1u : 0u);
    sum += Walk(xml);
    sum += Named(xml);

    // Editing a parsed document, as the access file writer does.
    if (ok) {
        CMarkup edit = xml;
        if (edit.FindElem()) {
            edit.IntoElem();
            if (edit.AddElem("qxmkt")) edit.SetAttrib("family", 12);
            edit.OutOfElem();
            edit.SetAttrib("id", -1);
            CMarkup reread;
            sum += reread.SetDoc(edit.GetDoc().c_str()) ? 1u : 0u;
        }
    }

    // The same bytes as a template file.
    orvex_fuzz::WriteFile("qxdctrans.xml", data, size);
    sum += LoadPackageTemplate("qxdctrans.xml") ? 1u : 0u;
    for (const CQxDataPackage& pkg : g_vDataPackage) {
        sum += static_cast<unsigned>(pkg.size) + Touch(pkg.name, sizeof pkg.name);
        for (const CQxDataItem& item : pkg.items) {
            sum += static_cast<unsigned>(item.offset) + static_cast<unsigned>(item.rowSize) + Touch(item.field.name, sizeof item.field.name);
            for (const CQxDataField& f : item.fields) sum += static_cast<unsigned>(f.offset) + static_cast<unsigned>(f.size);
        }
    }
    CMarkup loaded;
    sum += loaded.Load("qxdctrans.xml") ? 1u : 0u;
    orvex_fuzz::Keep(sum);
    return 0;
}
