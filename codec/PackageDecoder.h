// Decoding of template package bodies.
//
// Wire format (little-endian, unaligned):
//   stream   : { uint32 body length, body } ...
//   body     : uint16 package id
//              [uint8 N, N mask bytes]        when the template's mask is on
//              items in template order
//   single   : the value, or nothing when its mask bit is clear
//   array    : uint16 R; when R > 0: [uint8 M, M mask bytes] when the
//              array's mask is on, then R rows of { uint16 L, L bytes }
//   values   : int8/int16/int32/float/double as 1/2/4/4/8 bytes; text as
//              bytes up to and including a 0 byte; wide text as 32-bit units
//              up to and including a 0 unit.
// Mask bits are read most significant bit first: bit k is 0x80 >> (k % 8)
// of byte k / 8; a bit beyond the mask counts as clear. The package mask
// numbers only the single-field items; an array's row mask numbers its row
// fields and applies to every row.
//
// Two ways of unpacking share this format:
//   - DecodeOnePackage fills a CQxDataPackage with typed values;
//   - DecodeFieldData / ResetFieldData write single values into a flat
//     record laid out by the template, for handlers that walk the body
//     themselves.
//
// Every function takes the number of bytes it may read and never reads past
// it. A value that does not fit makes the field functions return -1; a
// mask, row or value running past the end of a body ends the decoding of
// that body, keeping what was decoded before.
#ifndef ORVEX_CODEC_PACKAGEDECODER_H
#define ORVEX_CODEC_PACKAGEDECODER_H

#include <string>

#include "codec/DataPackage.h"

// Walks a stream of length-prefixed bodies and decodes each (bodies without
// a template are skipped). Returns the bytes taken by whole records: the
// start of the first incomplete record, or len.
int DecodePackages(const char* buf, int len);

// Decodes one body of len bytes into pkg. Returns len when a template has
// the body's id, 0 when none has (or the body is too short to hold an id),
// leaving pkg untouched in that case. Items the body does not reach are not
// added to pkg->items; pkg->itemCount keeps the template's count.
int DecodeOnePackage(const char* body, int len, CQxDataPackage* pkg);

// Decodes one value of field->type at src into field. Returns the bytes
// consumed (0 for a field without type), or -1 when the value does not fit
// in avail bytes (field left unchanged).
int DecodeField(const char* src, int avail, CQxDataField* field);

// Copies one value at src into the record slot dst (field->size bytes) and
// returns the wire bytes consumed, or -1 when the value does not fit in
// avail bytes (dst left unchanged). Numbers are copied as raw bytes into the
// start of the slot; text is cut to maxLen bytes in the slot and always
// terminated, while the whole text is consumed. Wide text goes into the slot
// as UTF-8. A field without type zeroes its slot and consumes nothing.
// Text never writes past field->size bytes; numbers write their own width,
// which every template slot holds. Allocates nothing.
int DecodeFieldData(const char* src, int avail, char* dst, const CQxDataField* field);

// Writes the "no value" mark into the slot dst: zeros, with 2147483647 in an
// int32 and the largest finite double in a double. Allocates nothing.
void ResetFieldData(char* dst, const CQxDataField* field);

// Converts wide text to UTF-8, reading the storage of the string as 16-bit
// units and stopping at the first 0 unit or an invalid surrogate. With
// 32-bit wchar_t this keeps only the first character of text below U+10000;
// wide-text fields depend on exactly that.
std::string UnicodeToANSI(const std::wstring& text);

#endif
