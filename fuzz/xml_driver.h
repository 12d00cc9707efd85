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

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "molkxmlprocessor.h"

namespace molk_fuzz {

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
    // Copies text into a new zero-filled buffer and parses `length` bytes.
    int load(const char *text, size_t textLen, int capacity, int length)
    {
        std::vector<char> fresh(static_cast<size_t>(capacity > 0 ? capacity : 1), '\0');
        memcpy(fresh.data(), text, textLen < fresh.size() ? textLen : fresh.size());
        const int r = MOLK_XML_SetBuffer(h, fresh.data(), capacity, length);
        if (!buf.empty() && h->m_csDoc == buf.data())
            return r; // refused: the handle keeps the old text
        buf.swap(fresh);
        return r;
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

// Text, table and cursor: what a failed edit must leave as they were.
inline std::vector<char> snapshot(const Doc &d)
{
    const MolkXmlNavi *h = d.h;
    std::vector<char> s(d.buf.begin(), d.buf.end());
    const char *t = reinterpret_cast<const char *>(h->m_pElemPos);
    s.insert(s.end(), t, t + sizeof(ElemPos) * static_cast<size_t>(h->m_nElemPosCount));
    const int c[] = {h->m_iParentPos, h->m_iMainPos, h->m_iChildPos, h->m_nMainNode, h->m_iFreePos, h->m_nDocLength};
    s.insert(s.end(), reinterpret_cast<const char *>(c), reinterpret_cast<const char *>(c + 6));
    return s;
}

// After a successful edit: the length is right, the records stand on their
// markup, and a fresh parse of the text gives `parsed` and the same records.
inline const char *check_after_edit(const Doc &d, int parsed)
{
    const MolkXmlNavi *h = d.h;
    if (h->m_nDocLength != static_cast<int>(strnlen(d.buf.data(), d.buf.size())))
        return "length not measured anew";
    std::vector<int> shape, again_shape;
    if (const char *bad = check_records(h, &shape))
        return bad;
    Doc again(h->m_nElemPosCount - 2);
    if (again.load(d.buf.data(), d.buf.size(), h->m_nDocCapacity, h->m_nDocLength) != parsed)
        return "a fresh parse of the edited text gives another result";
    if (check_records(again.h, &again_shape) || shape != again_shape)
        return "a fresh parse of the edited text gives another tree";
    return nullptr;
}

// One cursor move by letter: F FindElem, C FindChildElem, I IntoElem,
// O OutOfElem, R ResetPos, M ResetMainPos, c ResetChildPos.
inline int move(MolkXmlNavi *h, char op, const char *name = nullptr)
{
    switch (op) {
    case 'F': return MOLK_XML_FindElem(h, name);
    case 'C': return MOLK_XML_FindChildElem(h, name);
    case 'I': return MOLK_XML_IntoElem(h);
    case 'O': return MOLK_XML_OutOfElem(h);
    case 'R': return MOLK_XML_ResetPos(h);
    case 'M': return MOLK_XML_ResetMainPos(h);
    default: return MOLK_XML_ResetChildPos(h);
    }
}

// Reads into a buffer of exactly `size` bytes; the result must be cut and
// NUL-terminated inside it.
template <typename F> const char *read_checked(int size, F f)
{
    std::vector<char> dst(static_cast<size_t>(size > 0 ? size : 1), 'Z');
    if (f(dst.data(), size) == 0 && (size < 2 || memchr(dst.data(), '\0', dst.size()) == nullptr))
        return "reader result not terminated inside the caller's size";
    return nullptr;
}

// Runs one input; nullptr if every check held. `edits` counts the
// successful edits.
inline const char *drive(const uint8_t *data, size_t size, int *edits = nullptr)
{
    static const char *const kNames[] = {"a", "b", "x:c", "item", "p", "", nullptr, "a[1]"};
    static const char *const kValues[] = {nullptr, "", "v", "<&>\"'x", "0123456789abcdef0123456789"};
    static const char *const kAttrValues[] = {nullptr, "", "1", "abc def"};
    using Edit = int (*)(MolkXmlNavi *, const char *, const char *);
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
    const int parsed = d.load(text, textLen, cap, lens[(mode >> 2) & 3]);
    if (parsed != 0 && parsed != -8 && parsed != -4 && parsed != -1)
        return "unexpected parse result";
    if (parsed == 0 || parsed == -8) {
        if (const char *bad = check_records(d.h))
            return bad;
    }
    char err[64];
    if (MOLK_XML_GetError(d.h, err, sizeof err) != 0 || memchr(err, '\0', sizeof err) == nullptr)
        return "error text not terminated";

    for (int steps = 0; p < stop && steps < 400; ++steps) {
        const uint8_t op = take() % 24;
        const uint8_t arg = take();
        const char *name = kNames[arg % 8];
        const int rsize = arg % 41;
        MolkXmlNavi *h = d.h;
        const char *bad = nullptr;
        const auto check = [&](auto read) { bad = read_checked(rsize, read); };
        switch (op) {
        case 0: case 1: case 2: case 3: case 4: case 5: case 6: move(h, "FCIORMc"[op], name); break;
        case 7: check([&](char *o, int s) { return MOLK_XML_GetTagName(h, o, s); }); break;
        case 8: check([&](char *o, int s) { return MOLK_XML_GetChildTagName(h, o, s); }); break;
        case 9: check([&](char *o, int s) { return MOLK_XML_GetWholeElement(h, o, s); }); break;
        case 10: check([&](char *o, int s) { return MOLK_XML_GetAttrib(h, name, o, s); }); break;
        case 11: check([&](char *o, int s) { return XML_GetChildAttrib(h, name, o, s); }); break;
        case 12: check([&](char *o, int s) { return MOLK_XML_GetAttribName(h, arg % 5 - 1, o, s); }); break;
        case 13: check([&](char *o, int s) { return MOLK_XML_GetChildAttribName(h, arg % 4, o, s); }); break;
        case 14: check([&](char *o, int s) { return MOLK_XML_GetData(h, o, s); }); break;
        case 15: check([&](char *o, int s) { return MOLK_XML_GetChildData(h, o, s); }); break;
        default: {
            const Edit edit = kEdits[op - 16];
            const bool attrib = edit == MOLK_XML_AddAttrib || edit == MOLK_XML_AddChildAttrib;
            // Names are written unchecked: give plain ones. Attribute values
            // are not escaped: no quotes.
            const char *value = attrib ? kAttrValues[(arg >> 3) % 4] : kValues[(arg >> 3) % 5];
            const std::vector<char> before = snapshot(d);
            const int r = edit(h, kNames[arg % 5], value);
            if (r == 0) {
                if (parsed != 0 && parsed != -8)
                    return "edit succeeded without a document";
                if (edits)
                    ++*edits;
                bad = check_after_edit(d, parsed);
            } else if (before != snapshot(d)) {
                bad = "a failed edit changed the document, the table or the cursor";
            } else if (r != -1 && r != -5 && r != -8 && r != -16) {
                bad = "unexpected edit result";
            }
            break;
        }
        }
        if (bad)
            return bad;
    }
    return nullptr;
}

} // namespace molk_fuzz
