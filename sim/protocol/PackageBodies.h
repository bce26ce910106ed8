// Bodies of template packages as the quote server writes them: the package
// id, the presence mask of the single fields, the fields in template order,
// arrays as a row count, a row mask and length-prefixed rows.
#ifndef QXSIM_PACKAGE_BODIES_H
#define QXSIM_PACKAGE_BODIES_H

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace qxsim {

// Writes one body. Single fields are present unless skipped; the mask is
// written when the package has one (maskBytes > 0) and filled in as fields
// are added.
class PackageBodyWriter {
public:
    PackageBodyWriter(uint16_t packageId, int maskBytes);
    PackageBodyWriter& I16(int16_t v);
    PackageBodyWriter& I32(int32_t v);
    PackageBodyWriter& Text(const std::string& v);
    // The next single field is absent.
    PackageBodyWriter& Skip();
    // An array: rows of already encoded present fields; rowMask is the one
    // mask byte naming the row fields present (none when rows is empty).
    PackageBodyWriter& Array(const std::vector<std::string>& rows, uint8_t rowMask);
    const std::string& Body() const { return m_body; }

    // Encoders of row fields.
    static std::string RowI32(int32_t v);
    static std::string RowText(const std::string& v);

private:
    void Present();
    std::string m_body;
    size_t m_maskAt = 0;
    int m_maskBytes = 0;
    int m_field = 0;   // single fields so far
};

// Package 901 (ExchangeIndex) of the sample templates.
std::string ExchangeIndexBody(uint16_t market, int32_t indexValue, int32_t hhmmss, int32_t contracts,
                              const std::vector<std::pair<std::string, int32_t>>& top);

}  // namespace qxsim

#endif
