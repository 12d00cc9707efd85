// A handle with its own text buffer, for the XML processor's tests.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "molkxmlprocessor.h"

struct XmlDoc {
    MolkXmlNavi *h = nullptr;
    std::vector<char> buf;

    explicit XmlDoc(int maxElements = 64)
    {
        MolkXmlInitParam p{0, maxElements};
        EXPECT_EQ(0, MOLK_XML_Initial(&h, &p));
    }
    ~XmlDoc() { MOLK_XML_Release(&h); }
    XmlDoc(const XmlDoc &) = delete;
    XmlDoc &operator=(const XmlDoc &) = delete;

    // Copies `text` into a zero-filled buffer of `capacity` bytes (default:
    // text plus 1) and parses `length` bytes of it (default: the text).
    int load(const std::string &text, int capacity = -1, int length = -1)
    {
        if (capacity < 0)
            capacity = std::max(3, static_cast<int>(text.size()) + 1);
        buf.assign(std::max<size_t>(static_cast<size_t>(capacity), text.size() + 1), '\0');
        std::copy(text.begin(), text.end(), buf.begin());
        return MOLK_XML_SetBuffer(h, buf.data(), capacity, length < 0 ? static_cast<int>(text.size()) : length);
    }

    std::string text() const { return buf.data(); }
    const ElemPos &rec(int i) const { return h->m_pElemPos[i]; }
    std::string error() const
    {
        char b[64];
        MOLK_XML_GetError(h, b, sizeof b);
        return b;
    }
    std::string tag() const { return read(MOLK_XML_GetTagName); }
    std::string childTag() const { return read(MOLK_XML_GetChildTagName); }
    std::string data(int size = 4096) const { return read(MOLK_XML_GetData, size); }
    std::string childData(int size = 4096) const { return read(MOLK_XML_GetChildData, size); }

    template <typename F>
    std::string read(F f, int size = 4096, int *result = nullptr) const
    {
        std::vector<char> b(static_cast<size_t>(size), 'X');
        const int r = f(h, b.data(), size);
        if (result)
            *result = r;
        return r == 0 ? std::string(b.data()) : "<" + std::to_string(r) + ">";
    }
    std::string attrib(const char *name, int size = 256) const
    {
        return read([name](MolkXmlNavi *n, char *d, int s) { return MOLK_XML_GetAttrib(n, name, d, s); }, size);
    }
    std::string attribName(int index) const
    {
        return read([index](MolkXmlNavi *n, char *d, int s) { return MOLK_XML_GetAttribName(n, index, d, s); });
    }
    std::vector<int> cursor() const
    {
        return {h->m_iParentPos, h->m_iMainPos, h->m_iChildPos, h->m_nMainNode};
    }
};

// Every element reachable from the root, in document order: its name,
// nesting and, for an element without children, its data. Used to compare
// two parses of the same text.
inline std::string tree_of(const MolkXmlNavi *h, int pos = -1)
{
    const ElemPos *t = h->m_pElemPos;
    if (pos < 0)
        pos = t[0].iFirstChild;
    std::string out;
    for (; pos > 0 && pos < h->m_nElemPosCount - 1; pos = t[pos].iNextSibling) {
        const ElemPos &r = t[pos];
        out += std::string(h->m_csDoc + r.iStartTagOpen, h->m_csDoc + r.iStartTagClose + 1);
        if (r.iFirstChild)
            out += "{" + tree_of(h, r.iFirstChild) + "}";
        else if (!IsEmptyElement(&r))
            out += std::string(h->m_csDoc + r.iStartTagClose + 1, h->m_csDoc + r.iEndTagOpen);
    }
    return out;
}

// Every record reachable from the root stands on its markup.
inline ::testing::AssertionResult offsets_on_markup(const MolkXmlNavi *h)
{
    const ElemPos *t = h->m_pElemPos;
    const char *d = h->m_csDoc;
    const int len = h->m_nDocLength;
    std::vector<int> todo{t[0].iFirstChild};
    int seen = 0;
    while (!todo.empty()) {
        const int p = todo.back();
        todo.pop_back();
        if (p <= 0 || p >= h->m_nElemPosCount - 1)
            continue;
        if (++seen > h->m_nElemPosCount)
            return ::testing::AssertionFailure() << "cycle in the table";
        const ElemPos &r = t[p];
        for (int off : {r.iStartTagOpen, r.iStartTagClose, r.iEndTagOpen, r.iEndTagClose})
            if (off < 0 || off >= len)
                return ::testing::AssertionFailure() << "record " << p << " offset " << off << " outside";
        const bool empty = IsEmptyElement(&r) != 0;
        if (d[r.iStartTagOpen] != '<' || d[r.iStartTagClose] != '>' || d[r.iEndTagClose] != '>' ||
            d[r.iEndTagOpen] != (empty ? '/' : '<'))
            return ::testing::AssertionFailure() << "record " << p << " is off its markup in: " << d;
        todo.push_back(r.iNextSibling);
        todo.push_back(r.iFirstChild);
    }
    return ::testing::AssertionSuccess();
}
