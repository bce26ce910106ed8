// Template packages: templates loaded from the package template file and the
// packages decoded with them.
//
// The quote server sends most answers as template packages, binary bodies
// whose layout is described per package id in an XML file (qxdctrans.xml).
// One family of classes serves both as template and as decoded package:
//
//   CQxDataPackage  one package id: its items, in file order
//   CQxDataItem     a single field, or an array whose rows share one row
//                   template of fields
//   CQxDataField    one typed value
//
// A template also lays out a flat record: every field has an offset and a
// slot size, array rows are reserved maxSize times, and there is no padding.
// Handlers unpack bodies into such records with the primitives of
// PackageDecoder.h.
//
// All classes are plain values; copies are deep.
#ifndef ORVEX_CODEC_DATAPACKAGE_H
#define ORVEX_CODEC_DATAPACKAGE_H

#include <string>
#include <vector>

// Field type codes (CQxDataField::type), chosen by the tag name in the
// template file.
enum QxFieldType {
    QXFT_NONE = 0,
    QXFT_INT8 = 1,
    QXFT_INT16 = 2,
    QXFT_INT32 = 3,
    QXFT_FLOAT = 4,
    QXFT_DOUBLE = 5,
    QXFT_STRING = 6,   // bytes up to a 0 byte
    QXFT_WSTRING = 7,  // 32-bit units up to a 0 unit (charset="unicode")
};

class CQxDataField {
public:
    union Value {
        Value() : d(0.0) {}  // all 8 bytes zero
        signed char i8;
        short i16;
        int i32;
        float f;
        double d;
    };

    int type = QXFT_NONE;
    unsigned short id = 0;
    Value value;             // numeric value once decoded
    std::string strValue;    // text value once decoded
    bool valid = false;      // a value was decoded
    char name[64] = {};
    char comment[64] = {};
    int maxLen = 64;         // longest text in bytes (text types)
    bool price = false;      // the record holds the value as a double
    int offset = 0;          // slot offset (inside one row for array fields)
    int size = 0;            // slot size

    CQxDataField() = default;
    CQxDataField(const CQxDataField&) = default;
    CQxDataField(CQxDataField&&) = default;
    CQxDataField& operator=(const CQxDataField&) = default;
    CQxDataField& operator=(CQxDataField&&) = default;
    virtual ~CQxDataField() = default;

    // Value access; the definitions live with the decoder.
    bool IsValid() const { return valid; }
    void SetInt8(char v);
    void SetInt16(short v);
    void SetInt32(int v);
    void SetFloat(float v);
    void SetDouble(double v);
    void SetString(const char* v);  // null stores ""
    // Each getter returns the value only for its own type, else 0.
    char GetInt8() const;
    short GetInt16() const;
    int GetInt32() const;
    float GetFloat() const;
    // The text for the two text types, else null.
    const char* GetString() const;
};

class CQxDataItem {
public:
    int isArray = 0;                  // 0: field, 1: fields/rows
    int maxSize = 10;                 // rows reserved in the flat record
    int rowSize = 0;                  // bytes of one row in the flat record
    int offset = 0;                   // offset of the first row
    CQxDataField field;               // single-field item
    int fieldCount = 0;               // fields per row
    std::vector<CQxDataField> fields; // row template
    int rowCount = 0;                 // decoded rows
    std::vector<CQxDataField> rows;   // decoded fields, row after row
    bool mask = true;                 // rows carry a presence mask
};

class CQxDataPackage {
public:
    unsigned short id = 0;
    char name[64] = {};
    char version[8] = {};
    bool mask = true;                 // body carries a mask for single fields
    int itemCount = 0;
    std::vector<CQxDataItem> items;
    int size = 0;                     // flat record size (templates only)

    // Look-ups on a decoded package; the definitions live with the decoder.
    // All return null when the item, column or row is not there, including
    // items a shortened body did not reach.
    CQxDataField* GetNormalField(unsigned short index);
    CQxDataField* GetArrayField(unsigned short item, unsigned short column, unsigned short row);
    CQxDataField* GetNormalFieldByID(unsigned short id);
    CQxDataField* GetArrayFieldByID(unsigned short id, unsigned short row);
};

// The template table, in file order. Look-ups take the first entry with an
// id, so a later template repeating an id is never used.
extern std::vector<CQxDataPackage> g_vDataPackage;

// Empties the table and fills it from the template file. False when the
// file cannot be loaded (after printing "can't Load <path>") or has no
// qxpackets root; true otherwise, also for a file without templates.
bool LoadPackageTemplate(const char* path);

// First template with the id, or null. Does not allocate.
const CQxDataPackage* FindPackageTemplate(unsigned short id);

#endif
