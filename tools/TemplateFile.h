// The layouts of template records, read from ./qxdctrans.xml, the file the
// library reads too. Shared by the tools; public headers only.
#ifndef ORVEX_TOOLS_TEMPLATE_FILE_H
#define ORVEX_TOOLS_TEMPLATE_FILE_H

#include <cctype>
#include <cfloat>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

// The layout of the records OnTemplateData hands over, read from the same
// ./qxdctrans.xml the library reads: each field in its slot, with no
// padding. Slot sizes: int8 1, int16 2, int32 4, float 4, double 8, text
// maxlen + 1 (maxlen 64 when absent), a price 8 (a double), a field with
// id 11 9 (a text); an array reserves maxsize rows (10 when absent).
struct TemplateField {
    enum Type { Int8, Int16, Int32, Float, Double, Text } type = Int32;
    std::string name;
    int id = 0;
    bool price = false;
    int offset = 0;   // in the record, or in one row for an array field
    int size = 0;
};

struct TemplateItem {
    bool array = false;
    std::string name;                  // of an array (its name attribute), for the output
    TemplateField field;               // single field
    std::vector<TemplateField> row;    // array row
    int offset = 0, rows = 0, rowSize = 0;
};

struct TemplateLayout {
    std::string name;
    int size = 0;
    std::vector<TemplateItem> items;
};

// A minimal reader of that file: elements and their attributes, comments
// skipped; enough for a template file, not a general XML parser.
class TemplateFile {
public:
    // False when the file is missing or describes no package.
    bool Load(const std::string& path) {
        std::ifstream in(path);
        if (!in) return false;
        return LoadText(std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>()));
    }

    // The same from the file's text (a journal carries it).
    bool LoadText(const std::string& text) {
        m_text = text;
        TemplateLayout* package = nullptr;
        TemplateItem* array = nullptr;
        int offset = 0;
        for (size_t pos = text.find('<'); pos != std::string::npos; pos = text.find('<', pos + 1)) {
            if (text.compare(pos, 4, "<!--") == 0) {
                pos = text.find("-->", pos);
                if (pos == std::string::npos) break;
                continue;
            }
            const size_t end = text.find('>', pos);
            if (end == std::string::npos) break;
            std::string tag = text.substr(pos + 1, end - pos - 1);
            const bool closing = !tag.empty() && tag[0] == '/';
            const bool selfClosing = !tag.empty() && tag.back() == '/';
            if (selfClosing) tag.pop_back();
            std::map<std::string, std::string> attrs;
            const std::string name = Parse(closing ? tag.substr(1) : tag, &attrs);
            if (name.empty() || name[0] == '?' || name[0] == '!') continue;
            if (closing) {
                if (name == "array" && array && package) {
                    offset += array->rows * array->rowSize;
                    array = nullptr;
                } else if (name == "qxpacket" && package) {
                    package->size = offset;
                    package = nullptr;
                }
                continue;
            }
            if (name == "qxpackets") continue;
            if (name == "qxpacket") {
                const int id = std::atoi(attrs["id"].c_str());
                // The first template of an id is the one used.
                package = m_packages.count(id) ? nullptr : &m_packages[id];
                if (package) package->name = attrs["name"];
                offset = 0;
                if (selfClosing && package) package = nullptr;
                continue;
            }
            if (!package) continue;
            if (name == "array") {
                package->items.emplace_back();
                array = &package->items.back();
                array->array = true;
                array->offset = offset;
                array->name = attrs.count("name") ? attrs["name"] : "rows";
                array->rows = attrs.count("maxsize") && !attrs["maxsize"].empty() ? std::atoi(attrs["maxsize"].c_str()) : 10;
                if (selfClosing) array = nullptr;
                continue;
            }
            TemplateField f = Field(name, attrs);
            if (array) {
                f.offset = array->rowSize;
                array->rowSize += f.size;
                array->row.push_back(f);
            } else {
                TemplateItem item;
                f.offset = offset;
                offset += f.size;
                item.field = f;
                package->items.push_back(item);
            }
        }
        // A layout that puts a field before the record's start (a negative
        // maxsize) is one the library does not deliver either.
        for (auto it = m_packages.begin(); it != m_packages.end();) {
            bool valid = it->second.size >= 0;
            for (const TemplateItem& item : it->second.items)
                valid = valid && item.rows >= 0 && (item.array ? item.offset : item.field.offset) >= 0;
            it = valid ? std::next(it) : m_packages.erase(it);
        }
        return !m_packages.empty();
    }

    const TemplateLayout* Find(int id) const {
        auto it = m_packages.find(id);
        return it == m_packages.end() ? nullptr : &it->second;
    }

    // Record size by package id.
    std::map<int, int> Sizes() const {
        std::map<int, int> sizes;
        for (const auto& kv : m_packages) sizes[kv.first] = kv.second.size;
        return sizes;
    }
    // The file as it was read.
    const std::string& Text() const { return m_text; }

private:
    static std::string Parse(const std::string& tag, std::map<std::string, std::string>* attrs) {
        size_t i = 0;
        while (i < tag.size() && !std::isspace(static_cast<unsigned char>(tag[i]))) ++i;
        const std::string name = tag.substr(0, i);
        while (i < tag.size()) {
            while (i < tag.size() && std::isspace(static_cast<unsigned char>(tag[i]))) ++i;
            const size_t eq = tag.find('=', i);
            if (eq == std::string::npos) break;
            const std::string key = tag.substr(i, eq - i);
            const size_t open = tag.find_first_of("\"'", eq);
            if (open == std::string::npos) break;
            const size_t close = tag.find(tag[open], open + 1);
            if (close == std::string::npos) break;
            (*attrs)[key] = tag.substr(open + 1, close - open - 1);
            i = close + 1;
        }
        return name;
    }

    static TemplateField Field(const std::string& tag, std::map<std::string, std::string>& attrs) {
        TemplateField f;
        f.name = attrs["name"];
        f.id = std::atoi(attrs["id"].c_str()) & 0xFFFF;
        static const std::map<std::string, std::pair<TemplateField::Type, int>> numbers = {
            {"int8", {TemplateField::Int8, 1}},   {"int16", {TemplateField::Int16, 2}},
            {"int32", {TemplateField::Int32, 4}}, {"float", {TemplateField::Float, 4}},
            {"double", {TemplateField::Double, 8}}};
        auto n = numbers.find(tag);
        if (n != numbers.end()) {
            f.type = n->second.first;
            f.size = n->second.second;
        } else {
            f.type = TemplateField::Text;
            const int maxlen = attrs.count("maxlen") && !attrs["maxlen"].empty() ? std::atoi(attrs["maxlen"].c_str()) : 64;
            f.size = maxlen + 1;
        }
        if (attrs["price"] == "1") {
            f.price = true;
            f.size = 8;
        }
        if (f.id == 11) f.size = 9;
        return f;
    }

    std::map<int, TemplateLayout> m_packages;
    std::string m_text;
};


// How template values become JSON: `text` turns a GBK slot of `width` bytes
// into a JSON string literal, `price` a double or price into a number. With
// `nulls`, a missing value (DBL_MAX, int32 0x7FFFFFFF) is null; without, it
// is printed as it is, so that nothing is lost.
struct TemplateJson {
    std::function<std::string(const char*, size_t)> text;
    std::function<std::string(double)> price;
    bool nulls = true;
};

// One value of a record.
inline std::string TemplateValue(const TemplateField& f, const char* slot, const TemplateJson& style) {
    auto number = [&](auto v) {
        std::memcpy(&v, slot, sizeof v);
        return v;
    };
    if (f.id == 11) return style.text(slot, 8);
    char text[64];
    if (f.price || f.type == TemplateField::Double) {
        const double v = number(0.0);
        if (style.nulls && v == DBL_MAX) return "null";
        if (f.price) return style.price(v);
        std::snprintf(text, sizeof(text), "%.17g", v);
        return text;
    }
    switch (f.type) {
        case TemplateField::Int8: return std::to_string(static_cast<int>(number(static_cast<signed char>(0))));
        case TemplateField::Int16: return std::to_string(number(static_cast<int16_t>(0)));
        case TemplateField::Int32: {
            const int32_t v = number(static_cast<int32_t>(0));
            return style.nulls && v == 0x7FFFFFFF ? "null" : std::to_string(v);
        }
        case TemplateField::Float:
            std::snprintf(text, sizeof(text), "%.9g", static_cast<double>(number(0.0f)));
            return text;
        case TemplateField::Double: break;
        case TemplateField::Text: return style.text(slot, static_cast<size_t>(f.size));
    }
    return "null";
}

// The record as the members of a JSON object: "Name":value, arrays as lists
// of row objects.
inline std::string TemplateJsonMembers(const TemplateLayout& t, const char* record, const TemplateJson& style) {
    std::string out;
    auto name = [](const std::string& n) {
        std::string q = "\"";
        for (char c : n) {
            if (c == '"' || c == '\\') q += '\\';
            if (static_cast<unsigned char>(c) >= 0x20) q += c;
        }
        return q + "\"";
    };
    auto add = [&](const std::string& s) { out += (out.empty() ? "" : ",") + s; };
    for (const TemplateItem& item : t.items) {
        if (!item.array) {
            add(name(item.field.name) + ":" + TemplateValue(item.field, record + item.field.offset, style));
            continue;
        }
        std::string rows;
        for (int r = 0; r < item.rows; ++r) {
            std::string row;
            for (const TemplateField& f : item.row)
                row += (row.empty() ? "" : ",") + name(f.name) + ":" +
                       TemplateValue(f, record + item.offset + r * item.rowSize + f.offset, style);
            rows += (rows.empty() ? "" : ",") + ("{" + row + "}");
        }
        add(name(item.name) + ":[" + rows + "]");
    }
    return out;
}

#endif
