#include "protocol/PackageBodies.h"

#include <cstring>

#include "protocol/SampleTemplates.h"

namespace qxsim {

namespace {

template <class T>
void Put(std::string& out, T v) {
    out.append(reinterpret_cast<const char*>(&v), sizeof v);
}

}  // namespace

PackageBodyWriter::PackageBodyWriter(uint16_t packageId, int maskBytes) : m_maskBytes(maskBytes) {
    Put(m_body, packageId);
    if (maskBytes > 0) {
        m_body += static_cast<char>(maskBytes);
        m_maskAt = m_body.size();
        m_body.append(static_cast<size_t>(maskBytes), '\0');
    }
}

void PackageBodyWriter::Present() {
    if (m_maskBytes > 0 && m_field < 8 * m_maskBytes)
        m_body[m_maskAt + static_cast<size_t>(m_field / 8)] |= static_cast<char>(0x80 >> (m_field % 8));
    ++m_field;
}

PackageBodyWriter& PackageBodyWriter::I16(int16_t v) {
    Present();
    Put(m_body, v);
    return *this;
}

PackageBodyWriter& PackageBodyWriter::I32(int32_t v) {
    Present();
    Put(m_body, v);
    return *this;
}

PackageBodyWriter& PackageBodyWriter::Text(const std::string& v) {
    Present();
    m_body += RowText(v);
    return *this;
}

PackageBodyWriter& PackageBodyWriter::Skip() {
    ++m_field;
    return *this;
}

PackageBodyWriter& PackageBodyWriter::Array(const std::vector<std::string>& rows, uint8_t rowMask) {
    Put(m_body, static_cast<uint16_t>(rows.size()));
    if (rows.empty()) return *this;
    m_body += '\x01';
    m_body += static_cast<char>(rowMask);
    for (const std::string& row : rows) {
        Put(m_body, static_cast<uint16_t>(row.size()));
        m_body += row;
    }
    return *this;
}

std::string PackageBodyWriter::RowI32(int32_t v) {
    std::string out;
    Put(out, v);
    return out;
}

std::string PackageBodyWriter::RowText(const std::string& v) { return std::string(v.c_str(), std::strlen(v.c_str()) + 1); }

std::string ExchangeIndexBody(uint16_t market, int32_t indexValue, int32_t hhmmss, int32_t contracts,
                              const std::vector<std::pair<std::string, int32_t>>& top) {
    PackageBodyWriter w(kExchangeIndexPackage, 1);
    w.I16(static_cast<int16_t>(market)).I32(indexValue).I32(hhmmss).I32(contracts);
    std::vector<std::string> rows;
    for (const auto& t : top) rows.push_back(PackageBodyWriter::RowText(t.first) + PackageBodyWriter::RowI32(t.second));
    w.Array(rows, 0xC0);
    return w.Body();
}

}  // namespace qxsim
