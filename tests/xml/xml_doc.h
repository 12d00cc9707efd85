// The fuzz driver's document with readers for the XML processor's tests.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "../../fuzz/xml_driver.h"

using molk_fuzz::move;

struct XmlDoc : molk_fuzz::Doc {
    using Doc::Doc;
    // Parses `length` bytes (default: the text) of `text` in a zero-filled
    // buffer of `capacity` bytes (default: the text plus a NUL).
    int load(const std::string &text, int capacity = -1, int length = -1)
    {
        const int size = static_cast<int>(text.size());
        return Doc::load(text.data(), text.size(), capacity < 0 ? std::max(3, size + 1) : capacity,
                         length < 0 ? size : length);
    }
    std::string text() const { return buf.data(); }
    const ElemPos &rec(int i) const { return h->m_pElemPos[i]; }
    std::vector<int> cursor() const { return {h->m_iParentPos, h->m_iMainPos, h->m_iChildPos, h->m_nMainNode}; }
    std::string error() const { return read(MOLK_XML_GetError, 64); }
    // The text a reader gives, or its result in angle brackets.
    template <typename F> std::string read(F f, int size = 4096) const
    {
        std::vector<char> b(static_cast<size_t>(size), 'X');
        const int r = f(h, b.data(), size);
        return r == 0 ? std::string(b.data()) : "<" + std::to_string(r) + ">";
    }
    std::string attrib(const char *name) const
    {
        return read([name](MolkXmlNavi *n, char *d, int s) { return MOLK_XML_GetAttrib(n, name, d, s); });
    }
    std::string attribName(int index) const
    {
        return read([index](MolkXmlNavi *n, char *d, int s) { return MOLK_XML_GetAttribName(n, index, d, s); });
    }
    // Edit succeeded, and the text and table are still one.
    ::testing::AssertionResult sound(int parsed = 0) const
    {
        const char *bad = molk_fuzz::check_after_edit(*this, parsed);
        if (!bad)
            return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << bad << " in: " << buf.data();
    }
};
