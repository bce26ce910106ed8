#include "base/Markup.h"

#include <cstdio>
#include <cstring>

namespace {

bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// Bytes allowed in tag and attribute names. Everything above 0x20 except the
// markup characters, so UTF-8 names pass unchanged.
bool IsNameChar(char c) {
    if (static_cast<unsigned char>(c) <= 0x20) return false;
    switch (c) {
    case '<': case '>': case '/': case '=': case '"': case '\'':
    case '!': case '?': case '&':
        return false;
    default:
        return true;
    }
}

bool IsValidName(const char* name) {
    if (!name || !*name) return false;
    for (const char* p = name; *p; ++p)
        if (!IsNameChar(*p)) return false;
    return true;
}

bool StartsWith(const std::string& s, size_t at, const char* prefix) {
    return s.compare(at, std::strlen(prefix), prefix) == 0;
}

std::string EscapeText(const char* text) {
    std::string out;
    for (const char* p = text; *p; ++p) {
        switch (*p) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        default: out += *p; break;
        }
    }
    return out;
}

std::string DecodeEntities(const std::string& raw) {
    static const struct { const char* entity; char ch; } kEntities[] = {
        {"&lt;", '<'}, {"&gt;", '>'}, {"&amp;", '&'}, {"&quot;", '"'}, {"&apos;", '\''},
    };
    if (raw.find('&') == std::string::npos) return raw;
    std::string out;
    out.reserve(raw.size());
    for (size_t i = 0; i < raw.size();) {
        bool replaced = false;
        if (raw[i] == '&') {
            for (const auto& e : kEntities) {
                if (StartsWith(raw, i, e.entity)) {
                    out += e.ch;
                    i += std::strlen(e.entity);
                    replaced = true;
                    break;
                }
            }
        }
        if (!replaced) out += raw[i++];
    }
    return out;
}

}  // namespace

CMarkup::CMarkup() : m_pos(1) {}

void CMarkup::ResetPos() {
    m_iPosParent = 0;
    m_iPos = 0;
    m_iPosChild = 0;
}

bool CMarkup::Load(const char* file) {
    m_doc.clear();
    m_pos.assign(1, Pos());
    ResetPos();
    FILE* fp = file ? std::fopen(file, "rb") : nullptr;
    if (!fp) {
        m_result = "file_error";
        return false;
    }
    char chunk[16384];
    size_t got;
    while ((got = std::fread(chunk, 1, sizeof chunk, fp)) > 0) m_doc.append(chunk, got);
    const bool readError = std::ferror(fp) != 0;
    std::fclose(fp);
    if (readError) {
        m_doc.clear();
        m_result = "file_error";
        return false;
    }
    if (StartsWith(m_doc, 0, "\xEF\xBB\xBF")) m_doc.erase(0, 3);
    const bool ok = Parse();
    ResetPos();
    return ok;
}

bool CMarkup::SetDoc(const char* text) {
    m_doc = text ? text : "";
    ResetPos();
    const bool ok = Parse();
    ResetPos();
    return ok;
}

bool CMarkup::Save(const char* file) const {
    FILE* fp = file ? std::fopen(file, "wb") : nullptr;
    if (!fp) return false;
    bool ok = std::fwrite(m_doc.data(), 1, m_doc.size(), fp) == m_doc.size();
    if (std::fclose(fp) != 0) ok = false;
    return ok;
}

bool CMarkup::Parse() {
    m_pos.assign(1, Pos());
    m_result.clear();
    const std::string& s = m_doc;
    const size_t n = s.size();
    const size_t npos = std::string::npos;

    auto fail = [this](const char* why) {
        m_pos.assign(1, Pos());
        m_result = why;
        return false;
    };

    size_t p = StartsWith(s, 0, "\xEF\xBB\xBF") ? 3 : 0;
    int cur = 0;  // innermost open element, 0 at top level
    while (p < n) {
        if (s[p] != '<') {
            size_t q = s.find('<', p);
            if (q == npos) q = n;
            if (cur == 0) {
                for (size_t k = p; k < q; ++k)
                    if (!IsSpace(s[k])) return fail("text_outside_root");
            }
            p = q;
            continue;
        }
        if (p + 1 >= n) return fail("unended_start_tag");
        const char c = s[p + 1];

        if (c == '?') {  // XML declaration or processing instruction
            size_t q = s.find("?>", p + 2);
            if (q == npos) return fail("unended_processing_instruction");
            p = q + 2;
            continue;
        }
        if (c == '!') {
            if (StartsWith(s, p, "<!--")) {
                size_t q = s.find("-->", p + 4);
                if (q == npos) return fail("unended_comment");
                p = q + 3;
                continue;
            }
            if (StartsWith(s, p, "<![CDATA[")) {
                if (cur == 0) return fail("text_outside_root");
                size_t q = s.find("]]>", p + 9);
                if (q == npos) return fail("unended_cdata");
                p = q + 3;
                continue;
            }
            // A document type declaration: only before the root. Skipped up
            // to its closing '>' outside quotes and the internal subset.
            if (cur != 0 || m_pos[0].firstChild != 0) return fail("unexpected_declaration");
            size_t q = p + 2;
            int depth = 0;
            char quote = 0;
            bool closed = false;
            for (; q < n; ++q) {
                const char ch = s[q];
                if (quote) {
                    if (ch == quote) quote = 0;
                } else if (ch == '"' || ch == '\'') {
                    quote = ch;
                } else if (ch == '[') {
                    ++depth;
                } else if (ch == ']') {
                    if (depth > 0) --depth;
                } else if (ch == '>' && depth == 0) {
                    closed = true;
                    break;
                }
            }
            if (!closed) return fail("unended_declaration");
            p = q + 1;
            continue;
        }
        if (c == '/') {  // end tag of the innermost open element
            if (cur == 0) return fail("unexpected_end_tag");
            size_t q = p + 2;
            const size_t nameStart = q;
            while (q < n && IsNameChar(s[q])) ++q;
            const Pos& open = m_pos[cur];
            if (q - nameStart != open.nameLen ||
                s.compare(nameStart, open.nameLen, s, open.nameStart, open.nameLen) != 0)
                return fail("mismatched_end_tag");
            while (q < n && IsSpace(s[q])) ++q;
            if (q >= n || s[q] != '>') return fail("unended_end_tag");
            m_pos[cur].endTagStart = p;
            m_pos[cur].end = q + 1;
            cur = m_pos[cur].parent;
            p = q + 1;
            continue;
        }

        // Start tag.
        if (cur == 0 && m_pos[0].firstChild != 0) return fail("root_has_sibling");
        Pos e;
        e.start = p;
        size_t q = p + 1;
        e.nameStart = q;
        while (q < n && IsNameChar(s[q])) ++q;
        e.nameLen = q - e.nameStart;
        if (e.nameLen == 0) return fail("bad_tag_name");
        e.attrInsert = q;
        for (;;) {
            const size_t blanks = q;
            while (q < n && IsSpace(s[q])) ++q;
            if (q >= n) return fail("unended_start_tag");
            if (s[q] == '>') {
                e.startTagEnd = q + 1;
                break;
            }
            if (s[q] == '/') {
                if (q + 1 < n && s[q + 1] == '>') {
                    e.startTagEnd = q + 2;
                    e.empty = true;
                    break;
                }
                return fail("unended_start_tag");
            }
            if (q == blanks) return fail("bad_attribute");  // attributes need a blank before them
            const size_t attrName = q;
            while (q < n && IsNameChar(s[q])) ++q;
            if (q == attrName) return fail("bad_attribute");
            while (q < n && IsSpace(s[q])) ++q;
            if (q >= n || s[q] != '=') return fail("bad_attribute");
            ++q;
            while (q < n && IsSpace(s[q])) ++q;
            if (q >= n || (s[q] != '"' && s[q] != '\'')) return fail("bad_attribute");
            const size_t close = s.find(s[q], q + 1);
            if (close == npos) return fail("unended_attribute");
            q = close + 1;
            e.attrInsert = q;
        }
        if (e.empty) e.end = e.startTagEnd;

        const int idx = static_cast<int>(m_pos.size());
        e.parent = cur;
        Pos& parent = m_pos[cur];
        if (parent.lastChild)
            m_pos[parent.lastChild].next = idx;
        else
            parent.firstChild = idx;
        parent.lastChild = idx;
        const size_t after = e.startTagEnd;
        const bool opens = !e.empty;
        m_pos.push_back(e);
        if (opens) cur = idx;
        p = after;
    }
    if (cur != 0) return fail("unended_element");
    if (m_pos[0].firstChild == 0) {
        m_result = "no_root_element";
        return false;
    }
    return true;
}

bool CMarkup::NameMatches(int pos, const char* name) const {
    if (!name || !*name) return true;
    const Pos& e = m_pos[pos];
    return std::strlen(name) == e.nameLen && m_doc.compare(e.nameStart, e.nameLen, name) == 0;
}

bool CMarkup::FindElem(const char* name) {
    if (m_pos.size() <= 1) return false;
    int p = m_iPos ? m_pos[m_iPos].next : m_pos[m_iPosParent].firstChild;
    for (; p; p = m_pos[p].next) {
        if (NameMatches(p, name)) {
            m_iPos = p;
            m_iPosChild = 0;
            return true;
        }
    }
    return false;
}

bool CMarkup::FindChildElem(const char* name) {
    if (m_iPos == 0 && !FindElem()) return false;
    int p = m_iPosChild ? m_pos[m_iPosChild].next : m_pos[m_iPos].firstChild;
    for (; p; p = m_pos[p].next) {
        if (NameMatches(p, name)) {
            m_iPosChild = p;
            return true;
        }
    }
    return false;
}

bool CMarkup::IntoElem() {
    if (m_iPos <= 0) return false;
    m_iPosParent = m_iPos;
    m_iPos = m_iPosChild;
    m_iPosChild = 0;
    return true;
}

bool CMarkup::OutOfElem() {
    if (m_iPosParent <= 0) return false;
    m_iPosChild = m_iPos;
    m_iPos = m_iPosParent;
    m_iPosParent = m_pos[m_iPos].parent;
    return true;
}

std::string CMarkup::GetTagName() const {
    if (m_iPos <= 0) return std::string();
    const Pos& e = m_pos[m_iPos];
    return m_doc.substr(e.nameStart, e.nameLen);
}

bool CMarkup::FindAttrib(int pos, const char* name, size_t& valueStart, size_t& valueEnd) const {
    if (pos <= 0 || pos >= static_cast<int>(m_pos.size()) || !name || !*name) return false;
    const std::string& s = m_doc;
    const Pos& e = m_pos[pos];
    const size_t limit = e.startTagEnd;
    const size_t nameLen = std::strlen(name);
    size_t q = e.nameStart + e.nameLen;
    while (q < limit) {
        while (q < limit && IsSpace(s[q])) ++q;
        if (q >= limit || s[q] == '>' || s[q] == '/') return false;
        const size_t attrName = q;
        while (q < limit && IsNameChar(s[q])) ++q;
        const size_t attrLen = q - attrName;
        while (q < limit && IsSpace(s[q])) ++q;
        if (q >= limit || s[q] != '=') return false;
        ++q;
        while (q < limit && IsSpace(s[q])) ++q;
        if (q >= limit || (s[q] != '"' && s[q] != '\'')) return false;
        const size_t close = s.find(s[q], q + 1);
        if (close == std::string::npos || close >= limit) return false;
        if (attrLen == nameLen && s.compare(attrName, attrLen, name) == 0) {
            valueStart = q + 1;
            valueEnd = close;
            return true;
        }
        q = close + 1;
    }
    return false;
}

std::string CMarkup::GetAttrib(const char* name) const {
    size_t vs = 0, ve = 0;
    if (!FindAttrib(m_iPos, name, vs, ve)) return std::string();
    return DecodeEntities(m_doc.substr(vs, ve - vs));
}

int CMarkup::LastDescendant(int pos) const {
    while (m_pos[pos].lastChild) pos = m_pos[pos].lastChild;
    return pos;
}

bool CMarkup::AddElem(const char* name, const char* data, int /*flags*/) {
    if (!IsValidName(name)) return false;
    const int parent = m_iPosParent;
    // The document holds a single root element.
    if (parent == 0 && m_pos[0].firstChild != 0) return false;

    std::string elem = std::string("<") + name;
    if (data && *data)
        elem += ">" + EscapeText(data) + "</" + name + ">";
    else
        elem += "/>";

    // Elements are indexed in document order, so the new one takes the
    // index right after the last element before it.
    int newIndex;
    if (m_iPos) {
        m_doc.insert(m_pos[m_iPos].end, "\n" + elem);
        newIndex = LastDescendant(m_iPos) + 1;
    } else if (parent == 0) {
        if (!m_doc.empty() && m_doc.back() != '\n') m_doc += '\n';
        m_doc += elem + "\n";
        newIndex = 1;
    } else {
        const Pos& p = m_pos[parent];
        if (p.lastChild) {
            m_doc.insert(m_pos[p.lastChild].end, "\n" + elem);
        } else if (p.empty) {
            // <p/> becomes <p>\n<new/>\n</p>
            const std::string tag = m_doc.substr(p.nameStart, p.nameLen);
            m_doc.replace(p.startTagEnd - 2, 2, ">\n" + elem + "\n</" + tag + ">");
        } else {
            m_doc.insert(p.endTagStart, "\n" + elem + "\n");
        }
        newIndex = LastDescendant(parent) + 1;
    }
    if (!Parse()) {
        ResetPos();
        return false;
    }
    m_iPosParent = parent;
    m_iPos = newIndex;
    m_iPosChild = 0;
    return true;
}

bool CMarkup::SetAttrib(const char* name, int value, int /*flags*/) {
    if (m_iPos <= 0 || !IsValidName(name)) return false;
    const std::string text = std::to_string(value);
    size_t vs = 0, ve = 0;
    if (FindAttrib(m_iPos, name, vs, ve))
        m_doc.replace(vs, ve - vs, text);
    else
        m_doc.insert(m_pos[m_iPos].attrInsert, std::string(" ") + name + "=\"" + text + "\"");

    // The element structure is unchanged, so the cursor stays valid.
    const int parent = m_iPosParent, main = m_iPos, child = m_iPosChild;
    if (!Parse()) {
        ResetPos();
        return false;
    }
    m_iPosParent = parent;
    m_iPos = main;
    m_iPosChild = child;
    return true;
}
