#include "base/IniFile.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace {

// Numeric conversions use a fixed stack buffer of this size.
constexpr size_t kNumBuf = 2048;

}  // namespace

CIniFile::CIniFile() : caseInsensitive(true) {}

CIniFile::CIniFile(const std::string& iniPath) : caseInsensitive(true), path(iniPath) {
    ReadFile();
}

CIniFile::~CIniFile() = default;

std::string CIniFile::CheckCase(std::string s) const {
    if (caseInsensitive) {
        for (char& c : s) {
            if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return s;
}

// ---------------------------------------------------------------------------
// File I/O

bool CIniFile::ReadFile() {
    std::ifstream in(path, std::ios::in | std::ios::binary);
    if (!in.is_open()) return false;

    // Reading adds to what the object holds; values before any header go
    // into the section with the empty name.
    std::string section;
    std::string line;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.empty()) continue;

        const std::string::size_type pos = line.find_first_of(";#[=");
        if (pos == std::string::npos) continue;

        switch (line[pos]) {
            case ';':
            case '#': {
                std::string text = line.substr(pos + 1);
                if (!names.empty())
                    KeyComment(section, text);
                else
                    HeaderComment(text);
                break;
            }
            case '=':
                SetValue(section, line.substr(0, pos), line.substr(pos + 1), true);
                break;
            case '[': {
                const std::string::size_type close = line.rfind(']');
                if (close == std::string::npos || close < pos) break;
                section = line.substr(pos + 1, close - pos - 1);
                AddKeyName(section);
                break;
            }
            default:
                break;
        }
    }
    return !names.empty();
}

bool CIniFile::WriteFile() {
    std::ofstream out(path, std::ios::out | std::ios::trunc | std::ios::binary);
    if (!out.is_open()) return false;

    for (const std::string& c : comments) out << ';' << c << std::endl;
    if (!comments.empty()) out << std::endl;

    for (size_t k = 0; k < keys.size(); ++k) {
        const key& sec = keys[k];
        out << '[' << names[k] << ']' << std::endl;
        for (const std::string& c : sec.comments) out << ';' << c << std::endl;
        for (size_t v = 0; v < sec.names.size(); ++v)
            out << sec.names[v] << '=' << sec.values[v] << std::endl;
        out << std::endl;
    }
    out.close();
    return true;
}

void CIniFile::Erase() {
    names.clear();
    keys.clear();
    comments.clear();
}

// ---------------------------------------------------------------------------
// Sections and names

unsigned CIniFile::FindKey(const std::string& keyname) const {
    const std::string wanted = CheckCase(keyname);
    for (size_t k = 0; k < names.size(); ++k) {
        if (CheckCase(names[k]) == wanted) return static_cast<unsigned>(k);
    }
    return noID;
}

unsigned CIniFile::FindValue(unsigned keyID, const std::string& valuename) const {
    if (keyID >= keys.size()) return noID;
    const std::string wanted = CheckCase(valuename);
    const key& sec = keys[keyID];
    for (size_t v = 0; v < sec.names.size(); ++v) {
        if (CheckCase(sec.names[v]) == wanted) return static_cast<unsigned>(v);
    }
    return noID;
}

std::string CIniFile::KeyName(unsigned keyID) const {
    return keyID < names.size() ? names[keyID] : std::string();
}

unsigned CIniFile::NumValues(unsigned keyID) const {
    return keyID < keys.size() ? static_cast<unsigned>(keys[keyID].names.size()) : 0;
}

unsigned CIniFile::NumValues(const std::string& keyname) const {
    return NumValues(FindKey(keyname));
}

std::string CIniFile::ValueName(unsigned keyID, unsigned valueID) const {
    if (keyID < keys.size() && valueID < keys[keyID].names.size())
        return keys[keyID].names[valueID];
    return std::string();
}

std::string CIniFile::ValueName(const std::string& keyname, unsigned valueID) const {
    return ValueName(FindKey(keyname), valueID);
}

unsigned CIniFile::AddKeyName(const std::string& keyname) {
    names.push_back(keyname);
    keys.emplace_back();
    return static_cast<unsigned>(names.size() - 1);
}

// ---------------------------------------------------------------------------
// Reading values

std::string CIniFile::GetValue(const std::string& keyname, const std::string& valuename,
                               const std::string& defValue) const {
    const unsigned keyID = FindKey(keyname);
    if (keyID == noID) return defValue;
    const unsigned valueID = FindValue(keyID, valuename);
    if (valueID == noID) return defValue;
    return keys[keyID].values[valueID];
}

std::string CIniFile::GetValue(unsigned keyID, unsigned valueID,
                               const std::string& defValue) const {
    if (keyID < keys.size() && valueID < keys[keyID].values.size())
        return keys[keyID].values[valueID];
    return defValue;
}

int CIniFile::GetValueI(const std::string& keyname, const std::string& valuename,
                        int defValue) const {
    char buf[kNumBuf];
    snprintf(buf, sizeof buf, "%d", defValue);
    return atoi(GetValue(keyname, valuename, buf).c_str());
}

double CIniFile::GetValueF(const std::string& keyname, const std::string& valuename,
                           double defValue) const {
    char buf[kNumBuf];
    snprintf(buf, sizeof buf, "%f", defValue);
    return atof(GetValue(keyname, valuename, buf).c_str());
}

bool CIniFile::GetValueB(const std::string& keyname, const std::string& valuename,
                         bool defValue) const {
    return GetValueI(keyname, valuename, defValue ? 1 : 0) != 0;
}

int CIniFile::GetValueV(const std::string& keyname, const std::string& valuename,
                        const char* format, ...) const {
    const std::string value = GetValue(keyname, valuename, "");
    if (value.empty()) return 0;
    va_list args;
    va_start(args, format);
    const int n = vsscanf(value.c_str(), format, args);
    va_end(args);
    return n;
}

// ---------------------------------------------------------------------------
// Writing values

bool CIniFile::SetValue(const std::string& keyname, const std::string& valuename,
                        const std::string& value, bool create) {
    unsigned keyID = FindKey(keyname);
    if (keyID == noID) {
        if (!create) return false;
        keyID = AddKeyName(keyname);
    }
    const unsigned valueID = FindValue(keyID, valuename);
    key& sec = keys[keyID];
    if (valueID == noID) {
        if (!create) return false;
        sec.names.push_back(valuename);
        sec.values.push_back(value);
    } else {
        sec.values[valueID] = value;
    }
    return true;
}

bool CIniFile::SetValue(unsigned keyID, unsigned valueID, const std::string& value) {
    // Callers rely on this overload reporting false, replaced or not.
    if (keyID < keys.size() && valueID < keys[keyID].values.size())
        keys[keyID].values[valueID] = value;
    return false;
}

bool CIniFile::SetValueI(const std::string& keyname, const std::string& valuename, int value,
                         bool /*create*/) {
    char buf[kNumBuf];
    snprintf(buf, sizeof buf, "%d", value);
    return SetValue(keyname, valuename, buf, true);
}

bool CIniFile::SetValueF(const std::string& keyname, const std::string& valuename, double value,
                         bool /*create*/) {
    char buf[kNumBuf];
    snprintf(buf, sizeof buf, "%f", value);
    return SetValue(keyname, valuename, buf, true);
}

bool CIniFile::SetValueV(const std::string& keyname, const std::string& valuename,
                         const char* format, ...) {
    char buf[kNumBuf];
    va_list args;
    va_start(args, format);
    vsnprintf(buf, sizeof buf, format, args);
    va_end(args);
    return SetValue(keyname, valuename, buf, true);
}

// ---------------------------------------------------------------------------
// Deleting

bool CIniFile::DeleteValue(const std::string& keyname, const std::string& valuename) {
    const unsigned keyID = FindKey(keyname);
    if (keyID == noID) return false;
    const unsigned valueID = FindValue(keyID, valuename);
    if (valueID == noID) return false;
    key& sec = keys[keyID];
    sec.names.erase(sec.names.begin() + valueID);
    sec.values.erase(sec.values.begin() + valueID);
    return true;
}

bool CIniFile::DeleteKey(const std::string& keyname) {
    const unsigned keyID = FindKey(keyname);
    if (keyID == noID) return false;
    names.erase(names.begin() + keyID);
    keys.erase(keys.begin() + keyID);
    return true;
}

// ---------------------------------------------------------------------------
// Header comments

void CIniFile::HeaderComment(const std::string& comment) { comments.push_back(comment); }

std::string CIniFile::HeaderComment(unsigned commentID) const {
    return commentID < comments.size() ? comments[commentID] : std::string();
}

bool CIniFile::DeleteHeaderComment(unsigned commentID) {
    if (commentID >= comments.size()) return false;
    comments.erase(comments.begin() + commentID);
    return true;
}

// ---------------------------------------------------------------------------
// Section comments

unsigned CIniFile::NumKeyComments(unsigned keyID) const {
    return keyID < keys.size() ? static_cast<unsigned>(keys[keyID].comments.size()) : 0;
}

unsigned CIniFile::NumKeyComments(const std::string& keyname) const {
    return NumKeyComments(FindKey(keyname));
}

bool CIniFile::KeyComment(unsigned keyID, const std::string& comment) {
    if (keyID >= keys.size()) return false;
    keys[keyID].comments.push_back(comment);
    return true;
}

bool CIniFile::KeyComment(const std::string& keyname, const std::string& comment) {
    return KeyComment(FindKey(keyname), comment);
}

std::string CIniFile::KeyComment(unsigned keyID, unsigned commentID) const {
    if (keyID < keys.size() && commentID < keys[keyID].comments.size())
        return keys[keyID].comments[commentID];
    return std::string();
}

std::string CIniFile::KeyComment(const std::string& keyname, unsigned commentID) const {
    return KeyComment(FindKey(keyname), commentID);
}

bool CIniFile::DeleteKeyComment(unsigned keyID, unsigned commentID) {
    if (keyID >= keys.size() || commentID >= keys[keyID].comments.size()) return false;
    std::vector<std::string>& c = keys[keyID].comments;
    c.erase(c.begin() + commentID);
    return true;
}

bool CIniFile::DeleteKeyComment(const std::string& keyname, unsigned commentID) {
    return DeleteKeyComment(FindKey(keyname), commentID);
}

bool CIniFile::DeleteKeyComments(unsigned keyID) {
    if (keyID >= keys.size()) return false;
    keys[keyID].comments.clear();
    return true;
}

bool CIniFile::DeleteKeyComments(const std::string& keyname) {
    return DeleteKeyComments(FindKey(keyname));
}
