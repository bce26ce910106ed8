// In-memory INI file.
//
// CIniFile holds a whole INI file as ordered sections ("keys"), each with
// ordered name/value pairs and its own comment lines, plus the comments that
// stand before the first section ("header comments").
//
// The parser is literal on purpose: it never trims blanks and never strips
// inline comments. The line "key = value" gives the name "key " and the value
// " value"; the line "a=b;c" gives the value "b;c". Configuration values are
// compared and converted exactly as they stand in the file, so do not make
// the parser "friendlier".
//
// Indices are unsigned; "not found" is CIniFile::noID (all bits set).
// Nothing here throws or logs: failures are reported by false, 0, "" or the
// caller's default.
#ifndef ORVEX_BASE_INIFILE_H
#define ORVEX_BASE_INIFILE_H

#include <string>
#include <vector>

class CIniFile {
public:
    static constexpr unsigned noID = static_cast<unsigned>(-1);

    // One section: value names, values (parallel to names) and comments.
    struct key {
        std::vector<std::string> names;
        std::vector<std::string> values;
        std::vector<std::string> comments;
    };

    // Empty object, empty path, case-insensitive names.
    CIniFile();
    // Stores the path, case-insensitive names, and reads the file at once.
    // A missing or unreadable file leaves the object empty.
    explicit CIniFile(const std::string& path);
    virtual ~CIniFile();

    // --- settings -------------------------------------------------------
    void Path(const std::string& newPath) { path = newPath; }
    void SetPath(const std::string& newPath) { Path(newPath); }
    std::string Path() const { return path; }
    // Fold ASCII A-Z to lower case when comparing section and value names.
    void CaseInsensitive() { caseInsensitive = true; }
    // Compare names byte for byte (not used by the library itself).
    void CaseSensitive() { caseInsensitive = false; }

    // --- file I/O -------------------------------------------------------
    // Adds the contents of the file at path to what the object holds.
    // False when the file cannot be opened (object untouched) or when no
    // section exists afterwards.
    bool ReadFile();
    // Writes the object to path, truncating. False when it cannot be opened.
    bool WriteFile();
    // Drops all sections and header comments.
    void Erase();

    // --- sections and names ---------------------------------------------
    unsigned FindKey(const std::string& keyname) const;
    unsigned FindValue(unsigned keyID, const std::string& valuename) const;
    unsigned NumKeys() const { return static_cast<unsigned>(names.size()); }
    std::string KeyName(unsigned keyID) const;
    unsigned NumValues(unsigned keyID) const;
    unsigned NumValues(const std::string& keyname) const;
    std::string ValueName(unsigned keyID, unsigned valueID) const;
    std::string ValueName(const std::string& keyname, unsigned valueID) const;
    // Always appends a new section, even when one of that name exists.
    unsigned AddKeyName(const std::string& keyname);

    // --- reading values -------------------------------------------------
    std::string GetValue(const std::string& keyname, const std::string& valuename,
                         const std::string& defValue = "") const;
    std::string GetValue(unsigned keyID, unsigned valueID, const std::string& defValue) const;
    // atoi of the stored text; the default applies only when the name is
    // absent ("abc" gives 0, "12abc" gives 12).
    int GetValueI(const std::string& keyname, const std::string& valuename, int defValue = 0) const;
    double GetValueF(const std::string& keyname, const std::string& valuename,
                     double defValue = 0.0) const;
    // Numeric only: "1", "5", "-1" are true; "true", "yes", "on" are false.
    bool GetValueB(const std::string& keyname, const std::string& valuename,
                   bool defValue = false) const;
    // sscanf of the stored text with format into the pointer arguments.
    // 0 for an absent or empty value, else the sscanf result.
    int GetValueV(const std::string& keyname, const std::string& valuename, const char* format,
                  ...) const __attribute__((format(scanf, 4, 5)));

    // --- writing values -------------------------------------------------
    // Creates the section and the name when create is true; otherwise
    // false when either is missing. True when the value was stored.
    bool SetValue(const std::string& keyname, const std::string& valuename,
                  const std::string& value, bool create = true);
    // Replaces the value at the given indices when both are in range.
    // Always returns false, also after a replacement.
    bool SetValue(unsigned keyID, unsigned valueID, const std::string& value);
    // "%d" / "%f" text, always created (create is accepted but ignored).
    bool SetValueI(const std::string& keyname, const std::string& valuename, int value,
                   bool create = true);
    bool SetValueF(const std::string& keyname, const std::string& valuename, double value,
                   bool create = true);
    // printf-style text, at most 2047 characters, always created.
    bool SetValueV(const std::string& keyname, const std::string& valuename, const char* format,
                   ...) __attribute__((format(printf, 4, 5)));

    // --- deleting -------------------------------------------------------
    bool DeleteValue(const std::string& keyname, const std::string& valuename);
    bool DeleteKey(const std::string& keyname);

    // --- header comments ------------------------------------------------
    unsigned NumHeaderComments() const { return static_cast<unsigned>(comments.size()); }
    void HeaderComment(const std::string& comment);
    std::string HeaderComment(unsigned commentID) const;
    std::string HeaderComment(unsigned commentID) {  // see KeyComment below
        return static_cast<const CIniFile&>(*this).HeaderComment(commentID);
    }
    bool DeleteHeaderComment(unsigned commentID);
    void DeleteHeaderComments() { comments.clear(); }

    // --- section comments -----------------------------------------------
    unsigned NumKeyComments(unsigned keyID) const;
    unsigned NumKeyComments(const std::string& keyname) const;
    bool KeyComment(unsigned keyID, const std::string& comment);
    bool KeyComment(const std::string& keyname, const std::string& comment);
    std::string KeyComment(unsigned keyID, unsigned commentID) const;
    std::string KeyComment(const std::string& keyname, unsigned commentID) const;
    // Non-const twins of the text getters: a literal 0 index could also be
    // read as a null string pointer, and on a non-const object the const
    // getter alone would then tie with the non-const setter.
    std::string KeyComment(unsigned keyID, unsigned commentID) {
        return static_cast<const CIniFile&>(*this).KeyComment(keyID, commentID);
    }
    std::string KeyComment(const std::string& keyname, unsigned commentID) {
        return static_cast<const CIniFile&>(*this).KeyComment(keyname, commentID);
    }
    bool DeleteKeyComment(unsigned keyID, unsigned commentID);
    bool DeleteKeyComment(const std::string& keyname, unsigned commentID);
    bool DeleteKeyComments(unsigned keyID);
    bool DeleteKeyComments(const std::string& keyname);

private:
    // Name as compared: ASCII A-Z folded when caseInsensitive is set.
    std::string CheckCase(std::string s) const;

    bool caseInsensitive;
    std::string path;
    std::vector<key> keys;
    std::vector<std::string> names;
    std::vector<std::string> comments;
};

#endif
