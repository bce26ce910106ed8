// The fields of the exported records, by their C names: the table that
// text output, the SQLite export and the tests walk instead of spelling
// every field out again.
#ifndef ORVEX_JOURNAL_RECORD_FIELDS_H
#define ORVEX_JOURNAL_RECORD_FIELDS_H

#include <cstddef>
#include <string>

namespace orvex {
namespace journal {

struct FieldDesc {
    enum Type { Text, Char, Double, Int };
    const char* name;
    Type type;
    size_t offset;
    size_t size;
};

struct FieldList {
    const FieldDesc* fields;
    size_t count;
    const FieldDesc* begin() const { return fields; }
    const FieldDesc* end() const { return fields + count; }
};

FieldList DepthFields();
FieldList StatusFields();
FieldList InstrumentFields();
FieldList LoginFields();
FieldList InfoFields();

// GBK text of at most `width` bytes (up to its NUL) as UTF-8; a byte
// sequence that is not GBK becomes U+FFFD.
std::string GbkToUtf8(const char* text, size_t width);

}  // namespace journal
}  // namespace orvex

#endif
