// Drives the XML processor with arbitrary bytes: a document, then a script
// of cursor moves, reads and edits. After every edit it checks that each
// reachable record stands on its markup inside the text, that a failed edit
// changed nothing, and that a fresh parse of the text gives the same records.
// Shared by the libFuzzer target and the tests, which use its checks too.
//
// Input: byte 0 maxElements, byte 1 buffer mode, byte 2 slack; then the
// document text up to a 0xFF byte; then two bytes per operation. The kept
// inputs in tests/xml/data depend on this encoding: do not change it.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "molkxmlprocessor.h"

namespace molk_fuzz {

// One operation by letter. Cursor moves: F FindElem, C FindChildElem,
// I IntoElem, O OutOfElem, R ResetPos, M ResetMainPos, c ResetChildPos.
// Readers: t/T tag name of the main/child element, w whole element, a/A
// attribute by name, n/N attribute name by index, d/D data, e error text.
inline int call(MolkXmlNavi *h, char op, const char *name, int index = 0, char *dst = nullptr, int size = 0)
{
    switch (op) {
    case 'F': return MOLK_XML_FindElem(h, name);
    case 'C': return MOLK_XML_FindChildElem(h, name);
    case 'I': return MOLK_XML_IntoElem(h);
    case 'O': return MOLK_XML_OutOfElem(h);
    case 'R': return MOLK_XML_ResetPos(h);
    case 'M': return MOLK_XML_ResetMainPos(h);
    case 'c': return MOLK_XML_ResetChildPos(h);
    case 't': return MOLK_XML_GetTagName(h, dst, size);
    case 'T': return MOLK_XML_GetChildTagName(h, dst, size);
    case 'w': return MOLK_XML_GetWholeElement(h, dst, size);
    case 'a': return MOLK_XML_GetAttrib(h, name, dst, size);
    case 'A': return XML_GetChildAttrib(h, name, dst, size);
    case 'n': return MOLK_XML_GetAttribName(h, index, dst, size);
    case 'N': return MOLK_XML_GetChildAttribName(h, index, dst, size);
    case 'd': return MOLK_XML_GetData(h, dst, size);
    case 'D': return MOLK_XML_GetChildData(h, dst, size);
    default: return MOLK_XML_GetError(h, dst, size);
    }
}

// A handle and a buffer of exactly the capacity given, so that the address
// sanitizer sees any read or write outside it.
struct Doc {
    MolkXmlNavi *h = nullptr;
    std::vector<char> buf;
    explicit Doc(int maxElements = 64)
    {
        MolkXmlInitParam p{0, maxElements};
        if (MOLK_XML_Initial(&h, &p) != 0)
            abort();
    }
    ~Doc() { MOLK_XML_Release(&h); }
    Doc(const Doc &) = delete;
    Doc &operator=(const Doc &) = delete;
    // Copies text into a new zero-filled buffer of `capacity` bytes (default:
    // the text and a NUL, at least 3) and parses `length` bytes (default: the
    // text).
    int load(const std::string &text, int capacity = -1, int length = -1)
    {
        const int size = static_cast<int>(text.size());
        capacity = capacity < 0 ? std::max(3, size + 1) : capacity;
        std::vector<char> fresh(static_cast<size_t>(std::max(1, capacity)), '\0');
        memcpy(fresh.data(), text.data(), std::min(text.size(), fresh.size()));
        const int r = MOLK_XML_SetBuffer(h, fresh.data(), capacity, length < 0 ? size : length);
        if (buf.empty() || h->m_csDoc != buf.data())
            buf.swap(fresh); // else refused: the handle keeps the old text
        return r;
    }
    std::string text() const { return buf.data(); }
    std::vector<int> cursor() const { return {h->m_iParentPos, h->m_iMainPos, h->m_iChildPos, h->m_nMainNode}; }
    // What a reader leaves in a buffer of `size` bytes filled with 'X'; on
    // failure behind its result in angle brackets.
    std::string read(char which, const char *name = nullptr, int index = 0, int size = 4096) const
    {
        std::string dst(static_cast<size_t>(size), 'X');
        const int r = call(h, which, name, index, &dst[0], size);
        return (r ? "<" + std::to_string(r) + ">" : "") + dst.c_str();
    }
};

inline bool elem(const MolkXmlNavi *h, int pos) { return pos > 0 && pos < h->m_nElemPosCount - 1; }

// Each reachable record stands on its markup; parents and children agree.
// `shape` receives the records' offsets and links in document order.
inline const char *check_records(const MolkXmlNavi *h, std::vector<int> *shape = nullptr)
{
    const ElemPos *t = h->m_pElemPos;
    const char *d = h->m_csDoc;
    std::vector<int> todo{t[0].iFirstChild};
    int seen = 0;
    while (!todo.empty()) {
        const int p = todo.back();
        todo.pop_back();
        if (!elem(h, p))
            continue;
        if (++seen > h->m_nElemPosCount)
            return "cycle among the records";
        const ElemPos &r = t[p];
        if (r.iStartTagOpen < 0 || r.iEndTagClose >= h->m_nDocLength || r.iStartTagOpen >= r.iStartTagClose ||
            r.iEndTagOpen > r.iEndTagClose || r.iStartTagClose > r.iEndTagClose)
            return "record offsets out of order or outside the text";
        if (d[r.iStartTagOpen] != '<' || d[r.iStartTagClose] != '>' || d[r.iEndTagClose] != '>' ||
            d[r.iEndTagOpen] != (IsEmptyElement(&r) ? '/' : '<'))
            return "record off its markup";
        for (int c = r.iFirstChild; elem(h, c); c = t[c].iNextSibling)
            if (t[c].iParent != p)
                return "child with another parent";
        if (shape)
            shape->insert(shape->end(), {r.iStartTagOpen, r.iStartTagClose, r.iEndTagOpen, r.iEndTagClose,
                                         elem(h, r.iFirstChild), elem(h, r.iNextSibling)});
        todo.push_back(r.iNextSibling);
        todo.push_back(r.iFirstChild);
    }
    return nullptr;
}

// Text, table and the handle's bytes up to the error text: all that a failed
// edit must leave as it was.
inline std::vector<char> snapshot(const Doc &d)
{
    const char *t = reinterpret_cast<const char *>(d.h->m_pElemPos), *n = reinterpret_cast<const char *>(d.h);
    std::vector<char> s(d.buf.begin(), d.buf.end());
    s.insert(s.end(), t, t + sizeof(ElemPos) * static_cast<size_t>(d.h->m_nElemPosCount));
    s.insert(s.end(), n, n + offsetof(MolkXmlNavi, m_csError));
    return s;
}

using Edit = int (*)(MolkXmlNavi *, const char *, const char *);

// Runs one edit on a document whose parse gave `parsed`; its result goes to
// `result`. A success must leave the length measured anew, the records on
// their markup, and a text that parses again to `parsed` and the same
// records (so no success without a document). A failure must change nothing
// but the error text.
inline const char *checked_edit(Doc &d, int parsed, Edit edit, const char *name, const char *value, int *result)
{
    const std::vector<char> before = snapshot(d);
    const int r = *result = edit(d.h, name, value);
    if (r != 0 && before != snapshot(d))
        return "a failed edit changed the document, the table or the cursor";
    if (r != 0)
        return r == -1 || r == -5 || r == -8 || r == -16 ? nullptr : "unexpected edit result";
    const MolkXmlNavi *h = d.h;
    if (h->m_nDocLength != static_cast<int>(strnlen(d.buf.data(), d.buf.size())))
        return "length not measured anew";
    std::vector<int> shape, again_shape;
    if (const char *bad = check_records(h, &shape))
        return bad;
    Doc again(h->m_nElemPosCount - 2);
    if (again.load(std::string(d.buf.begin(), d.buf.end()), h->m_nDocCapacity, h->m_nDocLength) != parsed)
        return "a fresh parse of the edited text gives another result";
    if (check_records(again.h, &again_shape) || shape != again_shape)
        return "a fresh parse of the edited text gives another tree";
    return nullptr;
}

// Runs one input; nullptr if every check held. `edits` counts the
// successful edits.
inline const char *drive(const uint8_t *data, size_t size, int *edits = nullptr)
{
    static const char *const kNames[] = {"a", "b", "x:c", "item", "p", "", nullptr, "a[1]"};
    static const char *const kValues[] = {nullptr, "", "v", "<&>\"'x", "0123456789abcdef0123456789"};
    static const char *const kAttrValues[] = {nullptr, "", "1", "abc def"};
    static const Edit kEdits[] = {MOLK_XML_AddElem,         MOLK_XML_InsertElem, MOLK_XML_AddChildElem,
                                  MOLK_XML_InsertChildElem, MOLK_XML_AddAttrib,  MOLK_XML_AddChildAttrib,
                                  MOLK_XML_AddChildElem,    MOLK_XML_AddAttrib};

    const uint8_t *p = data, *const stop = data + size;
    auto take = [&]() -> uint8_t { return p < stop ? *p++ : 0; };
    const int maxElements = 1 + take() % 48;
    const uint8_t mode = take();
    const int slack = take();
    const char *text = reinterpret_cast<const char *>(p);
    while (p < stop && *p != 0xFF)
        ++p;
    const size_t textLen = static_cast<size_t>(reinterpret_cast<const char *>(p) - text);
    take();
    if (textLen > 1 << 16)
        return nullptr;
    const int tl = static_cast<int>(textLen);
    const int caps[] = {tl + 1 + slack, tl /* no NUL inside: scans must stop at the end */, tl + 1,
                        tl + 1 + slack * 8};
    const int cap = caps[mode & 3];
    const int lens[] = {tl, cap, slack < cap ? slack : cap, 0};
    Doc d(maxElements);
    const int parsed = d.load(std::string(text, textLen), cap, lens[(mode >> 2) & 3]);
    if (parsed != 0 && parsed != -8 && parsed != -4 && parsed != -1)
        return "unexpected parse result";
    if (parsed == 0 || parsed == -8) {
        if (const char *bad = check_records(d.h))
            return bad;
    }
    for (int steps = 0; p < stop && steps < 400; ++steps) {
        const uint8_t op = take() % 24;
        const uint8_t arg = take();
        if (op < 7) {
            call(d.h, "FCIORMc"[op], kNames[arg % 8]);
        } else if (op < 16) {
            // The result must be cut and NUL-terminated inside the caller's size.
            const int rsize = arg % 41;
            std::vector<char> dst(static_cast<size_t>(rsize > 0 ? rsize : 1), 'Z');
            const int index = op == 13 ? arg % 4 : arg % 5 - 1;
            if (call(d.h, "tTwaAnNdD"[op - 7], kNames[arg % 8], index, dst.data(), rsize) == 0 &&
                (rsize < 2 || memchr(dst.data(), '\0', dst.size()) == nullptr))
                return "reader result not terminated inside the caller's size";
        } else {
            const Edit edit = kEdits[op - 16];
            // Names are written unchecked: give plain ones. Attribute values
            // are not escaped: no quotes.
            const bool attrib = edit == MOLK_XML_AddAttrib || edit == MOLK_XML_AddChildAttrib;
            const char *value = attrib ? kAttrValues[(arg >> 3) % 4] : kValues[(arg >> 3) % 5];
            int r;
            if (const char *bad = checked_edit(d, parsed, edit, kNames[arg % 5], value, &r))
                return bad;
            if (edits && r == 0)
                ++*edits;
        }
    }
    char err[64];
    if (call(d.h, 'e', nullptr, 0, err, sizeof err) != 0 || memchr(err, '\0', sizeof err) == nullptr)
        return "error text not terminated";
    return nullptr;
}

} // namespace molk_fuzz
