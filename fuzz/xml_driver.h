// Drives the XML processor with arbitrary bytes: a document, then a script
// of cursor moves, reads and edits. After every edit it checks that each
// reachable record stands on its markup inside the text, that a failed edit
// changed nothing, and that a fresh parse of the text gives the same records.
// Shared by the libFuzzer target and the regression test over kept inputs.
//
// Input: byte 0 maxElements, byte 1 buffer mode, byte 2 slack; then the
// document text up to a 0xFF byte; then two bytes per operation.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "molkxmlprocessor.h"

namespace molk_fuzz {

struct Bytes {
    const uint8_t *p;
    size_t n;
    uint8_t take()
    {
        if (n == 0)
            return 0;
        --n;
        return *p++;
    }
};

// Owns a handle and a buffer of exactly `cap` bytes, so that the address
// sanitizer sees any read or write outside it.
struct Doc {
    MolkXmlNavi *h = nullptr;
    char *buf = nullptr;
    int cap = 0;
    Doc(int maxElements, const char *text, size_t textLen, int capacity)
    {
        MolkXmlInitParam p{0, maxElements};
        if (MOLK_XML_Initial(&h, &p) != 0)
            abort();
        cap = capacity;
        buf = static_cast<char *>(calloc(static_cast<size_t>(cap > 0 ? cap : 1), 1));
        memcpy(buf, text, textLen < static_cast<size_t>(cap) ? textLen : static_cast<size_t>(cap));
    }
    ~Doc()
    {
        MOLK_XML_Release(&h);
        free(buf);
    }
    Doc(const Doc &) = delete;
    Doc &operator=(const Doc &) = delete;
};

inline bool elem(const MolkXmlNavi *h, int pos) { return pos > 0 && pos < h->m_nElemPosCount - 1; }

// Each reachable record stands on its markup; parents and children agree.
inline const char *check_records(const MolkXmlNavi *h)
{
    const ElemPos *t = h->m_pElemPos;
    const char *d = h->m_csDoc;
    const int len = h->m_nDocLength;
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
        if (r.iStartTagOpen < 0 || r.iEndTagClose >= len || r.iStartTagOpen >= r.iStartTagClose ||
            r.iEndTagOpen > r.iEndTagClose || r.iStartTagClose > r.iEndTagClose)
            return "record offsets out of order or outside the text";
        if (d[r.iStartTagOpen] != '<' || d[r.iStartTagClose] != '>' || d[r.iEndTagClose] != '>' ||
            d[r.iEndTagOpen] != (IsEmptyElement(&r) ? '/' : '<'))
            return "record off its markup";
        for (int c = r.iFirstChild; elem(h, c); c = t[c].iNextSibling)
            if (t[c].iParent != p)
                return "child with another parent";
        todo.push_back(r.iNextSibling);
        todo.push_back(r.iFirstChild);
    }
    return nullptr;
}

// The records reachable from a and from b hold the same offsets and shape.
inline bool same_tree(const MolkXmlNavi *a, int pa, const MolkXmlNavi *b, int pb, int depth = 0)
{
    for (;;) {
        const bool ea = elem(a, pa), eb = elem(b, pb);
        if (!ea || !eb)
            return ea == eb;
        const ElemPos &x = a->m_pElemPos[pa], &y = b->m_pElemPos[pb];
        if (x.iStartTagOpen != y.iStartTagOpen || x.iStartTagClose != y.iStartTagClose ||
            x.iEndTagOpen != y.iEndTagOpen || x.iEndTagClose != y.iEndTagClose)
            return false;
        if (depth > MOLK_XML_MAX_DEPTH || !same_tree(a, x.iFirstChild, b, y.iFirstChild, depth + 1))
            return false;
        pa = x.iNextSibling;
        pb = y.iNextSibling;
    }
}

struct Snapshot {
    std::vector<char> text;
    std::vector<ElemPos> table;
    int cursor[6];
    explicit Snapshot(const Doc &d)
        : text(d.buf, d.buf + d.cap), table(d.h->m_pElemPos, d.h->m_pElemPos + d.h->m_nElemPosCount),
          cursor{d.h->m_iParentPos, d.h->m_iMainPos, d.h->m_iChildPos, d.h->m_nMainNode, d.h->m_iFreePos,
                 d.h->m_nDocLength}
    {
    }
    bool operator==(const Snapshot &o) const
    {
        return text == o.text && memcmp(cursor, o.cursor, sizeof cursor) == 0 &&
               memcmp(table.data(), o.table.data(), table.size() * sizeof(ElemPos)) == 0;
    }
};

inline const char *check_after_edit(const Doc &d, int maxElements, int parsed)
{
    const MolkXmlNavi *h = d.h;
    if (h->m_nDocLength != static_cast<int>(strnlen(d.buf, static_cast<size_t>(d.cap))))
        return "length not measured anew";
    if (const char *bad = check_records(h))
        return bad;
    Doc again(maxElements, d.buf, static_cast<size_t>(d.cap), d.cap);
    const int r = MOLK_XML_SetBuffer(again.h, again.buf, again.cap, h->m_nDocLength);
    if (r != parsed)
        return "a fresh parse of the edited text gives another result";
    if (!same_tree(h, h->m_pElemPos[0].iFirstChild, again.h, again.h->m_pElemPos[0].iFirstChild))
        return "a fresh parse of the edited text gives another tree";
    return nullptr;
}

// Reads into a buffer of exactly `size` bytes; the result must be cut and
// NUL-terminated inside it.
template <typename F> const char *read_checked(int size, F f)
{
    char *dst = static_cast<char *>(malloc(static_cast<size_t>(size > 0 ? size : 1)));
    memset(dst, 'Z', static_cast<size_t>(size > 0 ? size : 1));
    const int r = f(dst, size);
    const char *bad = nullptr;
    if (r == 0 && (size < 2 || memchr(dst, '\0', static_cast<size_t>(size)) == nullptr))
        bad = "reader result not terminated inside the caller's size";
    free(dst);
    return bad;
}

inline const char *drive(const uint8_t *data, size_t size)
{
    static const char *const kNames[] = {"a", "b", "x:c", "item", "p", "", nullptr, "a[1]"};
    static const char *const kValues[] = {nullptr, "", "v", "<&>\"'x", "0123456789abcdef0123456789"};
    static const char *const kAttrValues[] = {nullptr, "", "1", "abc def"};

    Bytes in{data, size};
    const int maxElements = 1 + in.take() % 48;
    const uint8_t mode = in.take();
    const int slack = in.take();
    size_t textLen = 0;
    while (textLen < in.n && in.p[textLen] != 0xFF)
        ++textLen;
    const char *text = reinterpret_cast<const char *>(in.p);
    in.p += textLen;
    in.n -= textLen;
    in.take();
    if (textLen > 1 << 16)
        return nullptr;
    const int tl = static_cast<int>(textLen);

    int cap;
    switch (mode & 3) {
    case 0: cap = tl + 1 + slack; break;
    case 1: cap = tl; break; // no NUL inside the buffer: the scans must stop at its end anyway
    case 2: cap = tl + 1; break;
    default: cap = tl + 1 + slack * 8; break;
    }
    int len;
    switch ((mode >> 2) & 3) {
    case 0: len = tl; break;
    case 1: len = cap; break;
    case 2: len = slack < cap ? slack : cap; break;
    default: len = 0; break;
    }
    Doc d(maxElements, text, textLen, cap);
    const int parsed = MOLK_XML_SetBuffer(d.h, d.buf, d.cap, len);
    if (parsed != 0 && parsed != -8 && parsed != -4 && parsed != -1)
        return "unexpected parse result";
    if (parsed == 0 || parsed == -8) {
        if (const char *bad = check_records(d.h))
            return bad;
    }

    char err[64];
    if (MOLK_XML_GetError(d.h, err, sizeof err) != 0 || memchr(err, '\0', sizeof err) == nullptr)
        return "error text not terminated";

    for (int steps = 0; in.n > 0 && steps < 400; ++steps) {
        const uint8_t op = in.take() % 24;
        const uint8_t arg = in.take();
        const char *name = kNames[arg % 8];
        const int rsize = arg % 41;
        MolkXmlNavi *h = d.h;
        const char *bad = nullptr;
        switch (op) {
        case 0: MOLK_XML_FindElem(h, name); break;
        case 1: MOLK_XML_FindChildElem(h, name); break;
        case 2: MOLK_XML_IntoElem(h); break;
        case 3: MOLK_XML_OutOfElem(h); break;
        case 4: MOLK_XML_ResetPos(h); break;
        case 5: MOLK_XML_ResetMainPos(h); break;
        case 6: MOLK_XML_ResetChildPos(h); break;
        case 7: bad = read_checked(rsize, [&](char *o, int s) { return MOLK_XML_GetTagName(h, o, s); }); break;
        case 8: bad = read_checked(rsize, [&](char *o, int s) { return MOLK_XML_GetChildTagName(h, o, s); }); break;
        case 9: bad = read_checked(rsize, [&](char *o, int s) { return MOLK_XML_GetWholeElement(h, o, s); }); break;
        case 10: bad = read_checked(rsize, [&](char *o, int s) { return MOLK_XML_GetAttrib(h, name, o, s); }); break;
        case 11: bad = read_checked(rsize, [&](char *o, int s) { return XML_GetChildAttrib(h, name, o, s); }); break;
        case 12:
            bad = read_checked(rsize, [&](char *o, int s) { return MOLK_XML_GetAttribName(h, arg % 5 - 1, o, s); });
            break;
        case 13:
            bad = read_checked(rsize, [&](char *o, int s) { return MOLK_XML_GetChildAttribName(h, arg % 4, o, s); });
            break;
        case 14: bad = read_checked(rsize, [&](char *o, int s) { return MOLK_XML_GetData(h, o, s); }); break;
        case 15: bad = read_checked(rsize, [&](char *o, int s) { return MOLK_XML_GetChildData(h, o, s); }); break;
        default: {
            using Edit = int (*)(MolkXmlNavi *, const char *, const char *);
            static const Edit kEdits[] = {MOLK_XML_AddElem,        MOLK_XML_InsertElem, MOLK_XML_AddChildElem,
                                          MOLK_XML_InsertChildElem, MOLK_XML_AddAttrib,  MOLK_XML_AddChildAttrib,
                                          MOLK_XML_AddChildElem,    MOLK_XML_AddAttrib};
            const Edit edit = kEdits[op - 16];
            const bool attrib = edit == MOLK_XML_AddAttrib || edit == MOLK_XML_AddChildAttrib;
            // Names of elements and attributes are written unchecked: give
            // plain ones. Attribute values are not escaped: no quotes.
            const char *ename = kNames[arg % 5];
            const char *value = attrib ? kAttrValues[(arg >> 3) % 4] : kValues[(arg >> 3) % 5];
            const Snapshot before(d);
            const int r = edit(h, ename, value);
            if (r == 0) {
                if (parsed != 0 && parsed != -8)
                    return "edit succeeded without a document";
                bad = check_after_edit(d, maxElements, parsed == -8 ? -8 : 0);
            } else if (!(before == Snapshot(d))) {
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
