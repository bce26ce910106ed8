// Market access file: CFamilyAccess::Load on the input as the file, the
// checks made after a market status answer, then Save. What was saved must
// load back as the same list.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>

#include "codec/FamilyAccess.h"
#include "fuzz/FuzzSupport.h"

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    orvex_fuzz::PrepareRun(argc, argv);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    orvex_fuzz::WriteFile("qxmktaccess.xml", data, size);

    CFamilyAccess access;
    access.Load("qxmktaccess.xml");
    const int count = access.Count();
    if (count < 0 || count > CFamilyAccess::kSlots) std::abort();
    orvex_fuzz::Keep(access.Changed());
    access.Save("saved.xml");

    CFamilyAccess again;
    again.Load("saved.xml");
    if (again.allAccess != access.allAccess) {
        std::fprintf(stderr, "access flag changed by a save and load\n");
        std::abort();
    }
    if (!access.allAccess) {
        if (again.Count() != count ||
            std::memcmp(again.familyAccess, access.familyAccess, sizeof(QxFamilyAccess) * count) != 0) {
            std::fprintf(stderr, "access list changed by a save and load\n");
            std::abort();
        }
    }

    // After a market status answer: the list follows the offered markets.
    std::set<unsigned short> offered;
    for (int i = 0; i < count; ++i) offered.insert(access.familyAccess[i].Family);
    if (access.Changed()) {
        access.RebuildFrom(offered);
        access.CommitSaved();
    }
    orvex_fuzz::Keep(access.Changed());
    return 0;
}
