// The market access list: which markets (families) the user may receive.
//
// The list is announced in the login request and persisted in
// qxmktaccess.xml, so that the next start can send it before the server
// has answered:
//
//   <qxmkts>                       or   <qxmkts allaccess="1"/>
//     <qxmkt family="12" groups="3"/>
//     <qxmkt family="15"/>
//   </qxmkts>
//
// The first entry whose Family is 0 ends the list. A missing or unreadable
// file means all markets, not none.
#ifndef ORVEX_CODEC_FAMILYACCESS_H
#define ORVEX_CODEC_FAMILYACCESS_H

#include <cstdint>
#include <set>

#pragma pack(push, 1)
// Sent in the login request in exactly this form.
struct QxFamilyAccess {
    uint16_t Family;  // market id; 0 ends the list
    int32_t Groups;   // group number; -1 when none is given
};
#pragma pack(pop)
static_assert(sizeof(QxFamilyAccess) == 6, "QxFamilyAccess is a 6-byte wire record");

class CFamilyAccess {
public:
    static constexpr int kSlots = 200;

    QxFamilyAccess familyAccess[kSlots];
    QxFamilyAccess savedFamilyAccess[kSlots];  // as last saved
    bool allAccess = false;                    // all markets; the list is unused
    bool savedAllAccess = false;               // only ever false

    CFamilyAccess();
    // Both lists zero, both flags false.
    void Reset();

    // Reads the file. Without a readable file ("can't Load qxmktaccess.xml"
    // on standard output), without a qxmkts root or with a non-zero
    // allaccess attribute, all markets are granted. Otherwise every qxmkt
    // child with a family attribute becomes the next entry (groups absent:
    // -1), up to kSlots entries.
    void Load(const char* path = ".//qxmktaccess.xml");
    // Writes the file; a failure is ignored.
    void Save(const char* path = ".//qxmktaccess.xml") const;

    // Entries before the first zero Family.
    int Count() const;
    // True when the list must be rebuilt and saved after a market status
    // answer: all markets granted, the flag differs from the saved one, or
    // the list differs from the saved list byte for byte.
    bool Changed() const;
    // Rebuilds the list from the offered market ids, ascending. Each id
    // takes two slots: the id with Groups 0, then Family 0 with Groups -1.
    // Readers therefore see a single entry; the server side expects exactly
    // this layout, so it must not be "fixed".
    void RebuildFrom(const std::set<unsigned short>& ids);
    // Copies the list over the saved list.
    void CommitSaved();
};

#endif
