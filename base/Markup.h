// Small XML document with cursor navigation.
//
// CMarkup keeps a whole document as text together with an index of its
// elements. Element 0 of the index is the document itself (the virtual
// parent of the root); the others follow in document order. Navigation moves
// a cursor of three positions: the parent, the main position (the current
// element, 0 for none yet) and the child position (the current child of the
// main position, 0 for none).
//
// Only what the library needs is here: reading with Load / FindElem /
// FindChildElem / IntoElem / OutOfElem / GetTagName / GetAttrib, writing with
// SetDoc / AddElem / SetAttrib / Save. Text is kept as bytes: UTF-8 and ASCII
// files are used unchanged, entities in attribute values are decoded only for
// the five predefined names.
//
// The parser reads only inside the document text and works without
// recursion, so any file content is safe to load; a document that is not
// well formed makes Load / SetDoc return false, leaves no elements, and
// GetResult() names the reason ("no_root_element", "root_has_sibling",
// "unended_start_tag", ...).
#ifndef ORVEX_BASE_MARKUP_H
#define ORVEX_BASE_MARKUP_H

#include <cstddef>
#include <string>
#include <vector>

class CMarkup {
public:
    CMarkup();

    // Reads the file and parses it. False when the file cannot be read or
    // the document is not well formed (no root, a second top-level element,
    // or a syntax error). A leading UTF-8 byte order mark is dropped.
    bool Load(const char* file);
    // Replaces the document with text and parses it; same result rule. The
    // text is kept even when it holds no element yet, so that
    // SetDoc("<?xml ...?>") followed by AddElem builds a new document.
    bool SetDoc(const char* text);
    // Writes the document text to the file.
    bool Save(const char* file) const;
    const std::string& GetDoc() const { return m_doc; }
    // Diagnostic of the last parse ("" when it succeeded) or of the last
    // file operation.
    const std::string& GetResult() const { return m_result; }

    // Next sibling of the main position named name (any element when name
    // is null or empty), or the first such child of the parent position when
    // there is no main position. On success it becomes the main position and
    // the child position is cleared; otherwise nothing changes.
    bool FindElem(const char* name = nullptr);
    // Next child of the main position named name, after the child position.
    // Without a main position, FindElem() runs first.
    bool FindChildElem(const char* name = nullptr);
    // Main becomes parent, child becomes main, no child.
    bool IntoElem();
    // Parent becomes main, the former main becomes the child position.
    bool OutOfElem();

    // Tag name of the main position; "" without one.
    std::string GetTagName() const;
    // Value of the attribute of the main position; "" when it or the main
    // position is missing.
    std::string GetAttrib(const char* name) const;

    // Inserts <name/> (or <name>data</name>) after the main position, or as
    // the last child of the parent position when there is no main position,
    // and makes it the main position. A second top-level element is refused.
    bool AddElem(const char* name, const char* data = nullptr, int flags = 0);
    // Sets the attribute of the main position to the decimal text of value,
    // replacing an existing value or adding the attribute.
    bool SetAttrib(const char* name, int value, int flags = 0);

private:
    struct Pos {
        int parent = 0;
        int firstChild = 0;
        int lastChild = 0;
        int next = 0;
        size_t start = 0;        // '<' of the start tag
        size_t nameStart = 0;    // tag name
        size_t nameLen = 0;
        size_t attrInsert = 0;   // after the last attribute (or the name)
        size_t startTagEnd = 0;  // just after the start tag's '>'
        size_t endTagStart = 0;  // '<' of the end tag (not for empty elements)
        size_t end = 0;          // just after the whole element
        bool empty = false;      // written as <name ... />
    };

    // Builds the index from m_doc. On failure the index holds only the
    // document position and m_result names the problem.
    bool Parse();
    void ResetPos();
    bool NameMatches(int pos, const char* name) const;
    // Finds attribute name in the start tag of pos: value range inside the
    // quotes.
    bool FindAttrib(int pos, const char* name, size_t& valueStart, size_t& valueEnd) const;
    int LastDescendant(int pos) const;

    std::string m_doc;
    std::string m_result;
    std::vector<Pos> m_pos;
    int m_iPosParent = 0;
    int m_iPos = 0;
    int m_iPosChild = 0;
};

#endif
