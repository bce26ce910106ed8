// Flat records of template packages.
//
// A template lays out a record of its `size` bytes: every single field in
// its slot at its offset, every array as maxSize rows of rowSize bytes.
// BuildPackageRecord turns one package body (as the decoder reads it: the
// package id first) into that record:
//   - every slot starts at its "no value" mark (ResetFieldData);
//   - present single fields are decoded into their slots; array rows below
//     both the row count and maxSize go to the array's offset plus
//     row x rowSize; later rows, and rows the body does not carry, keep
//     their marks; text is cut to maxLen as DecodeFieldData cuts it;
//   - every price slot, decoded or not, becomes the double of its number
//     (an int32 of 0x7FFFFFFF, the absent mark, becomes the largest finite
//     double; a float widens, a double stays);
//   - the slot of a field with id 11 (9 bytes) holds a text of at most 8
//     characters: for a number, the name the caller's function gives it
//     (an absent number, 0 or 0x7FFFFFFF, leaves the text empty); a text
//     field keeps its first 8 bytes.
// A body shorter than its template leaves what it did not reach at the
// marks; nothing is read outside the body. Used by the DC worker; it
// allocates only to grow the record buffer.
#ifndef ORVEX_CODEC_PACKAGE_RECORD_H
#define ORVEX_CODEC_PACKAGE_RECORD_H

#include <vector>

#include "codec/DataPackage.h"

// Writes the text of the number of an id-11 field (at most 8 characters and
// a 0) into out9.
typedef void (*PackageIdText)(void* context, int value, char* out9);

// Builds the record of tmpl from body[0, length) into *record (resized to
// the template's size, and never left empty so that data() is a valid
// pointer). False when the body is too short to hold a package id, its id
// is not tmpl's, or the template lays a slot outside its record (a negative
// maxsize does).
bool BuildPackageRecord(const CQxDataPackage& tmpl, const char* body, int length, std::vector<char>* record,
                        PackageIdText idText, void* context);

#endif
