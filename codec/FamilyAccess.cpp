#include "codec/FamilyAccess.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "base/Markup.h"

CFamilyAccess::CFamilyAccess() { Reset(); }

void CFamilyAccess::Reset() {
    std::memset(familyAccess, 0, sizeof familyAccess);
    std::memset(savedFamilyAccess, 0, sizeof savedFamilyAccess);
    allAccess = false;
    savedAllAccess = false;
}

void CFamilyAccess::Load(const char* path) {
    allAccess = false;
    std::memset(familyAccess, 0, sizeof familyAccess);

    CMarkup xml;
    if (!xml.Load(path)) {
        std::puts("can't Load qxmktaccess.xml");
        allAccess = true;
        return;
    }
    if (!xml.FindElem("qxmkts")) {
        allAccess = true;
        return;
    }
    const std::string all = xml.GetAttrib("allaccess");
    if (!all.empty() && std::atoi(all.c_str()) != 0) {
        allAccess = true;
        return;
    }

    int n = 0;
    while (n < kSlots && xml.FindChildElem()) {
        xml.IntoElem();
        if (xml.GetTagName() == "qxmkt") {
            const std::string groups = xml.GetAttrib("groups");
            const std::string family = xml.GetAttrib("family");
            if (!family.empty()) {
                familyAccess[n].Family = static_cast<uint16_t>(std::atoi(family.c_str()));
                familyAccess[n].Groups = groups.empty() ? -1 : std::atoi(groups.c_str());
                ++n;
            }
        }
        xml.OutOfElem();
    }
}

void CFamilyAccess::Save(const char* path) const {
    CMarkup xml;
    xml.SetDoc("<?xml version=\"1.0\" encoding=\"UTF-8\"?>");
    xml.AddElem("qxmkts");
    if (allAccess) {
        xml.SetAttrib("allaccess", 1);
    } else {
        xml.IntoElem();
        for (int i = 0; i < kSlots && familyAccess[i].Family != 0; ++i) {
            xml.AddElem("qxmkt");
            xml.SetAttrib("family", familyAccess[i].Family);
            const int32_t groups = familyAccess[i].Groups;
            if (groups != -1) xml.SetAttrib("groups", groups);
        }
        xml.OutOfElem();
    }
    xml.Save(path);
}

int CFamilyAccess::Count() const {
    int n = 0;
    while (n < kSlots && familyAccess[n].Family != 0) ++n;
    return n;
}

bool CFamilyAccess::Changed() const {
    return allAccess != savedAllAccess || allAccess ||
           std::memcmp(familyAccess, savedFamilyAccess, sizeof familyAccess) != 0;
}

void CFamilyAccess::RebuildFrom(const std::set<unsigned short>& ids) {
    std::memset(familyAccess, 0, sizeof familyAccess);
    int n = 0;
    for (unsigned short id : ids) {
        if (n >= kSlots) break;
        familyAccess[n].Family = id;
        ++n;
        if (n < kSlots) familyAccess[n].Groups = -1;
        ++n;
    }
}

void CFamilyAccess::CommitSaved() {
    std::memcpy(savedFamilyAccess, familyAccess, sizeof familyAccess);
}
