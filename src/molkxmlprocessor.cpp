/*
 * molkxmlprocessor.cpp - the XML processor: parser, cursor, readers and the
 * in-place editor, in one module.
 *
 * The document is the caller's text; the handle holds a fixed table of
 * ElemPos records with byte offsets into it. Record 0 stands for the
 * document, records 1 .. count-2 are elements in order of parsing, and the
 * last record (count-1) is the overflow record: the parser reserves a record
 * before it knows whether a '<' opens an element or closes the parent, and
 * that reservation lands in the overflow record once the table is full.
 * Elements parsed after an overflow all share it, so its links may point at
 * itself: every walk over the table stops at it.
 *
 * Offsets and lengths are signed 32-bit byte counts, as in the records.
 * Nothing here allocates after MOLK_XML_Initial, and nothing recurses.
 */
#include "molkxmlprocessor.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

static_assert(sizeof(ElemPos) == 32, "one record of the table is eight 32-bit words");
static_assert(sizeof(MolkXmlInitParam) == 8, "the creation record is two 32-bit words");
static_assert(sizeof(void *) != 4 || sizeof(XmlToken) == 20,
              "on the 32-bit device a token is five words");
static_assert(sizeof(void *) != 4 || sizeof(MolkXmlNavi) == 108,
              "on the 32-bit device a handle is eleven words and 64 text bytes");
static_assert(sizeof(void *) != 4 || offsetof(MolkXmlNavi, m_csError) == 44,
              "the error text follows the eleven words");

namespace {

/* ---- Character classes ----------------------------------------------------
 * One lookup per byte in every scanning loop. */
enum : uint8_t {
    CC_SPACE = 0x01,    // " \t\n\r": blanks between tokens
    CC_TOKSTOP = 0x02,  // blanks, "<>=\\/?!" and NUL: a plain token ends here
    CC_MARKUP = 0x04,   // '<', '>' and NUL: end character data and tag bodies
    CC_NAMETAIL = 0x08, // NUL and " =/[]": may follow a matched requested name
    CC_QUOTE = 0x10,    // '"' and '\'': open a quoted token
    CC_ESCAPE = 0x20,   // '<', '>' and '&': written escaped in element data
};

struct ClassTable {
    uint8_t c[256];
};

constexpr bool in_set(const char *set, unsigned ch)
{
    for (; *set; ++set)
        if (static_cast<unsigned char>(*set) == ch)
            return true;
    return false;
}

constexpr ClassTable build_classes()
{
    ClassTable t{};
    for (unsigned ch = 0; ch < 256; ++ch) {
        uint8_t f = 0;
        if (in_set(" \t\n\r", ch))
            f |= CC_SPACE;
        if (ch == 0 || in_set(" \t\n\r<>=\\/?!", ch))
            f |= CC_TOKSTOP;
        if (ch == 0 || in_set("<>", ch))
            f |= CC_MARKUP;
        if (ch == 0 || in_set(" =/[]", ch))
            f |= CC_NAMETAIL;
        if (in_set("\"'", ch))
            f |= CC_QUOTE;
        if (in_set("<>&", ch))
            f |= CC_ESCAPE;
        t.c[ch] = f;
    }
    return t;
}

constexpr ClassTable kClass = build_classes();

inline bool is(char ch, uint8_t mask)
{
    return (kClass.c[static_cast<unsigned char>(ch)] & mask) != 0;
}

/* Node codes of x_ParseNode. */
enum : int {
    NODE_NONE = 0,
    NODE_ELEMENT = 1,
    NODE_TEXT = 2,
    NODE_SPACE = 4,
    NODE_CDATA = 8,
    NODE_PI = 16,
    NODE_COMMENT = 32,
    NODE_DOCTYPE = 64,
};

const char kNoError[] = "No error occurs";
const char kEmptyDocument[] = "Empty document";
const char kEmptyTag[] = "Empty tag";
const char kTagNotFound[] = "Element tag not found";
const char kAbruptEnd[] = "Abrupt end within tag";
const char kQuoteStart[] = "Tag starts with quote";
const char kInvalidNode[] = "Invalid node";
const char kEndOfTag[] = "End of tag not found";
const char kEndTagMissing[] = "End tag of %s element not found";
const char kExpectingEnd[] = "Expecting end tag of element %s";
const char kEndMismatch[] = "End tag does not correspond to %s";
const char kEndIncomplete[] = "End tag not completed for element %s";
const char kLimited[] = "Element limited at around %s";
const char kTooDeep[] = "Element nesting too deep at around %s";
const char kNumberLimit[] = "Element number limitation!";
const char kOverrun[] = "Buffer almost overrun!";

constexpr int kNameBuf = 32; // tag names are cut to 31 bytes in messages

/* ---- Small helpers ---------------------------------------------------------- */

/* Writes `fmt` into the handle's 64-byte error text, each "%s" replaced by
 * the next argument; cut at 63 characters. Only "%s" is understood, so a
 * stray '%' in a tag name cannot misformat anything. */
void format_error(MolkXmlNavi *h, const char *fmt, const char *a1, const char *a2)
{
    char *o = h->m_csError;
    const size_t limit = sizeof h->m_csError - 1;
    size_t n = 0;
    if (!a1) {
        while (fmt[n] && n < limit) {
            o[n] = fmt[n];
            ++n;
        }
    } else {
        const char *args[2] = {a1, a2};
        int k = 0;
        for (const char *p = fmt; *p && n < limit; ++p) {
            if (p[0] == '%' && p[1] == 's') {
                const char *a = (k < 2 && args[k]) ? args[k] : "";
                ++k;
                while (*a && n < limit)
                    o[n++] = *a++;
                ++p;
            } else {
                o[n++] = *p;
            }
        }
    }
    o[n] = '\0';
}

void set_error(MolkXmlNavi *h, const char *text)
{
    format_error(h, text, nullptr, nullptr);
}

void set_error_at(MolkXmlNavi *h, const char *fmt, int offset)
{
    char num[16];
    snprintf(num, sizeof num, "%d", offset);
    format_error(h, fmt, num, nullptr);
}

inline bool table_ok(const MolkXmlNavi *h)
{
    return h && h->m_pElemPos && h->m_nElemPosCount >= 3;
}

/* A position that navigation and the readers may use: an element record,
 * never the document record or the overflow record. */
inline bool elem_ok(const MolkXmlNavi *h, int pos)
{
    return pos > 0 && pos < h->m_nElemPosCount - 1;
}

inline bool record_is_zero(const ElemPos &r)
{
    return (r.iStartTagOpen | r.iStartTagClose | r.iEndTagOpen | r.iEndTagClose |
            r.iReserved | r.iParent | r.iFirstChild | r.iNextSibling) == 0;
}

/* Zeroes element records from `from` on, as far as they are in use. Records
 * are taken from 1 upwards and every record below the highest one taken has
 * its start tag filled in, so the records in use form a prefix and the
 * first all-zero record ends it. */
void clear_records_from(MolkXmlNavi *h, int from)
{
    ElemPos *tab = h->m_pElemPos;
    const int over = h->m_nElemPosCount - 1;
    for (int i = from < 1 ? 1 : from; i < over && !record_is_zero(tab[i]); ++i)
        tab[i] = ElemPos();
}

void reset_cursor(MolkXmlNavi *h)
{
    h->m_iParentPos = 0;
    h->m_iMainPos = 0;
    h->m_iChildPos = 0;
    h->m_nMainNode = 0;
    h->m_iFreePos = 1;
}

void detach_document(MolkXmlNavi *h)
{
    h->m_nDocCapacity = 0;
    h->m_nDocLength = 0;
    h->m_csDoc = nullptr;
}

inline int skip_space(const char *d, int i, int len)
{
    while (i < len && is(d[i], CC_SPACE))
        ++i;
    return i;
}

/* Word-at-a-time tests, memchr-style: a machine word (4 bytes on the
 * device, 8 on a 64-bit host) is checked for a byte of interest at once. */
using Word = uintptr_t;
constexpr Word kOnes = ~Word(0) / 0xFF; // 0x0101...01
constexpr Word kHigh = kOnes * 0x80;

constexpr int kStep = static_cast<int>(sizeof(Word));

/* High bit set in each zero byte of v. Bytes above the first zero byte may
 * be flagged falsely (borrow), the lowest flag is always right. */
inline Word zero_bytes(Word v)
{
    return (v - kOnes) & ~v & kHigh;
}

/* '<' (0x3C) and '>' (0x3E) differ only in bit 1, so (b | 2) == 0x3E finds
 * both and nothing else; NUL is the third. */
inline Word markup_bytes(Word v)
{
    return zero_bytes(v) | zero_bytes((v | (kOnes * 0x02)) ^ (kOnes * 0x3E));
}

#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
constexpr bool kLittleEndian = true;
#else
constexpr bool kLittleEndian = false;
#endif

/* Index of the lowest flagged byte of a nonzero mask, which is the first
 * match in memory order on a little-endian machine; elsewhere `fallback`
 * (0: the caller looks again byte by byte from the word's start). */
inline int first_flagged(Word m, int fallback)
{
    return kLittleEndian ? __builtin_ctzl(m) >> 3 : fallback;
}

inline Word load_word(const char *p)
{
    Word w;
    memcpy(&w, p, sizeof w);
    return w;
}

/* First offset at or behind i that holds '<', '>' or NUL; len if none. */
inline int scan_markup(const char *d, int i, int len)
{
    while (i <= len - kStep) {
        if (const Word m = markup_bytes(load_word(d + i))) {
            if (kLittleEndian)
                return i + first_flagged(m, 0);
            break;
        }
        i += kStep;
    }
    while (i < len && !is(d[i], CC_MARKUP))
        ++i;
    return i;
}

/* Tag names are short: words and a plain loop beat a call to memcmp. */
inline bool same_bytes(const char *a, const char *b, int n)
{
    int i = 0;
    for (; i <= n - kStep; i += kStep)
        if (load_word(a + i) != load_word(b + i))
            return false;
    for (; i < n; ++i)
        if (a[i] != b[i])
            return false;
    return true;
}

/* End of a plain token whose first byte is at i - 1. */
inline int scan_plain(const char *d, int i, int len)
{
    for (; i <= len - 4; i += 4) {
        if (is(d[i], CC_TOKSTOP))
            return i;
        if (is(d[i + 1], CC_TOKSTOP))
            return i + 1;
        if (is(d[i + 2], CC_TOKSTOP))
            return i + 2;
        if (is(d[i + 3], CC_TOKSTOP))
            return i + 3;
    }
    while (i < len && !is(d[i], CC_TOKSTOP))
        ++i;
    return i;
}

/* Offset of the first `term` (of length tlen) at or behind `from`, looking
 * no further than the first NUL or `limit` bytes; -1 if there is none. */
int find_terminator(const char *d, int from, int limit, const char *term, int tlen)
{
    const Word first = kOnes * static_cast<unsigned char>(term[0]);
    int i = from;
    for (;;) {
        // Skip words that hold neither the first byte of `term` nor a NUL.
        while (i <= limit - kStep) {
            const Word v = load_word(d + i);
            if (const Word m = zero_bytes(v) | zero_bytes(v ^ first)) {
                i += first_flagged(m, 0);
                break;
            }
            i += kStep;
        }
        if (i >= limit || d[i] == '\0')
            return -1;
        if (d[i] == term[0]) {
            int k = 1;
            while (k < tlen && i + k < limit && d[i + k] == term[k])
                ++k;
            if (k == tlen)
                return i;
        }
        ++i;
    }
}

inline char first_byte(const XmlToken *t)
{
    return t->iEnd >= t->iStart ? t->pDoc[t->iStart] : '\0';
}

/* Whether a token begins with `c`: the byte at its start, below `len`. A
 * quoted token that finds no partner is empty but still starts right behind
 * its quote, so the answer never depends on where, or whether, a partner
 * follows: text that a later edit writes behind the token cannot change it. */
inline bool starts_with(const XmlToken *t, int len, char c)
{
    return t->iStart < len && t->pDoc[t->iStart] == c;
}

inline int token_len(const XmlToken *t)
{
    const int n = t->iEnd - t->iStart + 1;
    return n > 0 ? n : 0;
}

/* x_FindToken: the next token from iNext, never reading at or behind
 * `len`. Returns 1 with a token, 0 when a NUL or `len` comes first. */
int find_token(XmlToken *t, int len)
{
    const char *d = t->pDoc;
    int n = t->iNext < 0 ? 0 : t->iNext;
    t->bQuoted = 0;
    n = skip_space(d, n, len);
    if (n >= len || d[n] == '\0') {
        t->iStart = n;
        t->iNext = n;
        t->iEnd = n - 1;
        return 0;
    }
    const char c = d[n];
    if (is(c, CC_QUOTE)) {
        const int s = n + 1;
        int p = s;
        while (p < len && d[p] != c && d[p] != '\0')
            ++p;
        t->bQuoted = 1;
        t->iStart = s;
        if (p < len) {
            t->iEnd = p - 1;
            t->iNext = d[p] ? p + 1 : p;
        } else {
            // No partner before the end: an empty token.
            t->iEnd = s - 1;
            t->iNext = s < len ? s + 1 : s;
        }
        return 1;
    }
    t->iStart = n;
    if (is(c, CC_TOKSTOP)) {
        t->iEnd = n;
        t->iNext = n + 1;
        return 1;
    }
    const int p = scan_plain(d, n + 1, len);
    t->iEnd = p - 1;
    t->iNext = p;
    return 1;
}

/* x_SkipSpace: 1 if, past the blanks, the offset stands on a character
 * below `len`; 0 at a NUL or `len`. */
int skip_space_to(const char *d, int len, int *off)
{
    *off = skip_space(d, *off, len);
    return *off < len && d[*off] != '\0';
}

/* x_ParseNode: classifies the node at iNext. Scans for terminators stop at
 * the first NUL and never reach `limit` (the buffer's capacity). */
int parse_node(XmlToken *t, int len, int limit)
{
    const char *d = t->pDoc;
    const int n = t->iNext;
    if (n < 0 || n >= len)
        return NODE_NONE;
    t->iStart = n;
    const char c = d[n];
    if (c == '\0')
        return NODE_NONE;
    if (c == '<') {
        const char c1 = n + 1 < limit ? d[n + 1] : '\0';
        if (c1 == '\0' || c1 == '/')
            return NODE_NONE;
        const char c2 = n + 2 < limit ? d[n + 2] : '\0';
        if (c2 == '\0')
            return NODE_NONE;
        const char *term = nullptr;
        int tlen = 0, code = NODE_ELEMENT;
        if (c1 == '?') {
            term = "?>", tlen = 2, code = NODE_PI;
        } else if (c1 == '!' && c2 == '[') {
            term = "]]>", tlen = 3, code = NODE_CDATA;
        } else if (c1 == '!' && c2 == '-') {
            term = "-->", tlen = 3, code = NODE_COMMENT;
        } else if (c1 == '!') {
            // Document type: read by tokens, brackets nest, quotes hide.
            // A quote without its partner before the length or a NUL ends
            // the scan as unterminated: read on, what the form hides would
            // hang on quotes far behind it, which a later edit could write
            // (attribute values stand between quotes) or bring inside the
            // length it measures anew, and a fresh parse of the edited text
            // would give another tree.
            int depth = 0;
            t->iNext = n;
            while (find_token(t, len)) {
                if (t->bQuoted) {
                    const int close = t->iEnd + 1;
                    if (close >= len || d[close] != d[t->iStart - 1])
                        return NODE_NONE;
                    continue;
                }
                const char f = first_byte(t);
                if (f == '[')
                    ++depth;
                else if (f == ']')
                    --depth;
                else if (f == '>' && depth == 0)
                    return NODE_DOCTYPE;
            }
            return NODE_NONE;
        } else {
            return NODE_ELEMENT;
        }
        // The terminator is searched from the '<' itself: "<?>" and "<!-->"
        // are complete.
        const int at = find_terminator(d, n, limit, term, tlen);
        if (at < 0)
            return NODE_NONE;
        t->iNext = at + tlen;
        return code;
    }
    const int p = skip_space(d, n, len);
    if (p >= len || d[p] == '\0' || d[p] == '<') {
        t->iNext = p;
        return NODE_SPACE;
    }
    int q = p;
    while (q < len && d[q] != '<' && d[q] != '\0')
        ++q;
    t->iNext = q < len ? q : n;
    return NODE_TEXT;
}

/* ---- The parser ---------------------------------------------------------- */

/* One open element on the parser's own stack. */
struct Frame {
    int pos;       // its record
    int nameStart; // its name token in the text
    int nameLen;
    int prevChild; // last child linked so far, 0 for none
};

struct Parser {
    MolkXmlNavi *h;
    const char *d;
    ElemPos *tab;
    int len;
    int limit;      // capacity: NUL searches never reach it
    int highRecord; // highest element record reserved by this parse
};

int parse_fail(Parser &p, const char *text)
{
    return x_ParseError(p.h, text, nullptr, nullptr);
}

int parse_fail_name(Parser &p, const char *fmt, const Frame &f)
{
    char name[kNameBuf];
    const int n = f.nameLen < kNameBuf - 1 ? f.nameLen : kNameBuf - 1;
    memcpy(name, p.d + f.nameStart, static_cast<size_t>(n));
    name[n] = '\0';
    return x_ParseError(p.h, fmt, name, nullptr);
}

/* Reserves a record for whatever stands at the scan offset of `parent`.
 * A full table sends the reservation to the overflow record and parsing
 * goes on, so that a later syntax error is still found. */
int reserve(Parser &p, int parent)
{
    MolkXmlNavi *h = p.h;
    const int count = h->m_nElemPosCount;
    const int over = count - 1;
    const int scan = p.tab[parent].iEndTagOpen;
    int pos;
    if (h->m_iFreePos >= count) {
        h->m_iFreePos = -1;
        set_error_at(h, kLimited, scan);
        pos = over;
    } else if (h->m_iFreePos > 0) {
        pos = h->m_iFreePos++;
    } else {
        if (h->m_iFreePos == -1)
            set_error_at(h, kLimited, scan);
        pos = over;
    }
    ElemPos *r = &p.tab[pos];
    if (pos < over) {
        *r = ElemPos();
        if (pos > p.highRecord)
            p.highRecord = pos;
    }
    r->iStartTagOpen = scan;
    r->iParent = parent;
    r->iFirstChild = 0;
    r->iNextSibling = 0;
    return pos;
}

enum OpenResult { OPEN_FAILED, OPEN_END_TAG, OPEN_EMPTY, OPEN_BODY };

/* Reads the next tag under `parent`: skips character data, comments,
 * processing instructions, CDATA sections and document types, and stops on
 * the parent's end tag or on a new element's start tag. */
OpenResult open_element(Parser &p, int parent, int depth, Frame *out)
{
    const char *d = p.d;
    const int len = p.len;
    const int pos = reserve(p, parent);
    ElemPos *r = &p.tab[pos];
    for (;;) {
        const int lt = scan_markup(d, r->iStartTagOpen, len);
        if (lt >= len || d[lt] != '<')
            return parse_fail(p, kTagNotFound), OPEN_FAILED;
        r->iStartTagOpen = lt;
        p.tab[parent].iEndTagOpen = lt;
        int n = skip_space(d, lt + 1, len);
        if (n >= len || d[n] == '\0')
            return parse_fail(p, kAbruptEnd), OPEN_FAILED;
        const char c = d[n];
        if (is(c, CC_QUOTE))
            return parse_fail(p, kQuoteStart), OPEN_FAILED;
        if (c == '?' || c == '!') {
            XmlToken t;
            CreatToken(&t, d);
            t.iNext = lt;
            // Anything but a skippable node is refused here: "< ?x?>" looks
            // like a start tag from its '<', and would otherwise be read again
            // and again from the same place.
            if (parse_node(&t, len, p.limit) < NODE_CDATA)
                return parse_fail(p, kInvalidNode), OPEN_FAILED;
            r->iStartTagOpen = t.iNext;
            continue;
        }
        if (c == '/') {
            --p.h->m_iFreePos; // release the reservation
            return OPEN_END_TAG;
        }
        const int nameStart = n;
        n = is(c, CC_TOKSTOP) ? n + 1 : scan_plain(d, n + 1, len);
        if (depth >= MOLK_XML_MAX_DEPTH) {
            set_error_at(p.h, kTooDeep, lt);
            --p.h->m_iFreePos;
            return OPEN_FAILED;
        }
        const int gt = scan_markup(d, n, len);
        if (gt >= len || d[gt] != '>')
            return parse_fail(p, kEndOfTag), OPEN_FAILED;
        r->iStartTagClose = gt;
        out->pos = pos;
        if (d[gt - 1] == '/') {
            r->iEndTagOpen = gt - 1;
            r->iEndTagClose = gt;
            return OPEN_EMPTY;
        }
        r->iEndTagOpen = gt + 1;
        out->nameStart = nameStart;
        out->nameLen = n - nameStart;
        out->prevChild = 0;
        return OPEN_BODY;
    }
}

/* Checks the end tag of `f`, whose '<' is at its iEndTagOpen. Returns the
 * element's position, or -1. */
int close_element(Parser &p, const Frame &f)
{
    const char *d = p.d;
    const int len = p.len;
    ElemPos *r = &p.tab[f.pos];
    const int lt = scan_markup(d, r->iEndTagOpen, len);
    if (lt >= len || d[lt] != '<')
        return parse_fail_name(p, kEndTagMissing, f);
    // The common "</name>" with nothing between: the token rules below give
    // the same answer, since a name holds no stop character.
    const int e = lt + 2 + f.nameLen;
    if (e < len && d[lt + 1] == '/' && d[e] == '>' && same_bytes(d + lt + 2, d + f.nameStart, f.nameLen)) {
        r->iEndTagClose = e;
        return f.pos;
    }
    XmlToken t;
    CreatToken(&t, d);
    t.iNext = lt + 1;
    // Quoted or not, each token counts by its bytes: "</\"a\">" names `a`,
    // and "</a \">\"" is closed by the '>' behind the quote.
    if (!find_token(&t, len) || !starts_with(&t, len, '/'))
        return parse_fail_name(p, kExpectingEnd, f);
    if (!find_token(&t, len))
        return parse_fail_name(p, kEndIncomplete, f);
    if (token_len(&t) != f.nameLen || !same_bytes(d + t.iStart, d + f.nameStart, f.nameLen))
        return parse_fail_name(p, kEndMismatch, f);
    if (!find_token(&t, len) || !starts_with(&t, len, '>'))
        return parse_fail_name(p, kEndIncomplete, f);
    r->iEndTagClose = t.iStart;
    return f.pos;
}

/* Parses one element under `parent`, with all it holds. Returns its
 * position, 0 when the parent's end tag comes first, -1 after an error.
 * Open elements are kept on a fixed stack of MOLK_XML_MAX_DEPTH frames
 * (16 bytes each) instead of the call stack. */
int parse_element(Parser &p, int parent)
{
    Frame stack[MOLK_XML_MAX_DEPTH];
    int depth = 0;
    int under = parent;
    for (;;) {
        Frame f;
        int result;
        switch (open_element(p, under, depth, &f)) {
        case OPEN_FAILED:
            return -1;
        case OPEN_END_TAG:
            result = 0;
            break;
        case OPEN_EMPTY:
            result = f.pos;
            break;
        case OPEN_BODY:
        default:
            stack[depth++] = f;
            under = f.pos;
            continue;
        }
        // Hand `result` up: link a finished child and look for the next one,
        // or close the element whose end tag was met.
        for (;;) {
            if (depth == 0)
                return result;
            Frame &top = stack[depth - 1];
            ElemPos *r = &p.tab[top.pos];
            if (result > 0) {
                if (top.prevChild == 0)
                    r->iFirstChild = result;
                else
                    p.tab[top.prevChild].iNextSibling = result;
                top.prevChild = result;
                r->iEndTagOpen = p.tab[result].iEndTagClose + 1;
                under = top.pos;
                break;
            }
            result = close_element(p, top);
            if (result < 0)
                return -1;
            --depth;
        }
    }
}

/* ---- Reading helpers --------------------------------------------------------- */

inline bool reader_args_ok(const MolkXmlNavi *h, const char *dst, int size)
{
    return h && dst && size >= 2;
}

void copy_bytes(char *dst, int size, const char *src, int n)
{
    if (n > size - 1)
        n = size - 1;
    if (n > 0)
        memcpy(dst, src, static_cast<size_t>(n));
}

/* Token of the tag name of `pos`. */
int tag_name_token(const MolkXmlNavi *h, int pos, XmlToken *t)
{
    CreatToken(t, h->m_csDoc);
    t->iNext = h->m_pElemPos[pos].iStartTagOpen + 1;
    return find_token(t, h->m_nDocLength);
}

/* Valid links of the table: the overflow record and anything out of range
 * read as "none". */
inline int link(const MolkXmlNavi *h, int pos)
{
    return elem_ok(h, pos) ? pos : 0;
}

/* ---- Editing helpers -------------------------------------------------------------- */

int64_t escaped_length(const char *s, int64_t n)
{
    int64_t out = n;
    for (int64_t i = 0; i < n; ++i) {
        const char c = s[i];
        if (is(c, CC_ESCAPE))
            out += c == '&' ? 4 : 3;
    }
    return out;
}

char *write_escaped(char *o, const char *s, int64_t n)
{
    for (int64_t i = 0; i < n; ++i) {
        const char c = s[i];
        if (!is(c, CC_ESCAPE)) {
            *o++ = c;
        } else if (c == '<') {
            memcpy(o, "&lt;", 4), o += 4;
        } else if (c == '>') {
            memcpy(o, "&gt;", 4), o += 4;
        } else {
            memcpy(o, "&amp;", 5), o += 5;
        }
    }
    return o;
}

inline char *put(char *o, const char *s, size_t n)
{
    memcpy(o, s, n);
    return o + n;
}

/* Makes room for `textLen` bytes at `offset` in place of `removeCount`
 * bytes, moving the rest of the document and putting a NUL at the new end.
 * Returns the (clamped) offset of the gap, or -1 if the document and its
 * NUL would not fit the buffer. */
int open_gap(MolkXmlNavi *h, int offset, int removeCount, int64_t textLen)
{
    const int len = h->m_nDocLength;
    if (offset < 0)
        offset = 0;
    if (offset > len)
        offset = len;
    if (removeCount < 0)
        removeCount = 0;
    if (removeCount > len - offset)
        removeCount = len - offset;
    const int64_t newLen = static_cast<int64_t>(len) + textLen - removeCount;
    if (textLen < 0 || newLen > static_cast<int64_t>(h->m_nDocCapacity) - 1)
        return -1;
    char *d = h->m_csDoc;
    const int tail = len - (offset + removeCount);
    if (tail > 0)
        memmove(d + offset + textLen, d + offset + removeCount, static_cast<size_t>(tail));
    d[newLen] = '\0';
    return offset;
}

/* The length is measured anew after every edit, up to the first NUL. */
void measure_document(MolkXmlNavi *h)
{
    h->m_nDocLength = static_cast<int>(
        strnlen(h->m_csDoc, static_cast<size_t>(h->m_nDocCapacity)));
}

inline void shift_all(ElemPos *r, int delta)
{
    AdjustElemPosStart(r, delta);
    AdjustElemPosEnd(r, delta);
}

/* Shifts every descendant of `root` (not `root` itself), in document order,
 * without recursion. `budget` bounds the walk by the table size. */
void shift_descendants(MolkXmlNavi *h, int root, int delta, int *budget)
{
    ElemPos *tab = h->m_pElemPos;
    int cur = link(h, tab[root].iFirstChild);
    while (cur && (*budget)-- > 0) {
        shift_all(&tab[cur], delta);
        const int child = link(h, tab[cur].iFirstChild);
        if (child) {
            cur = child;
            continue;
        }
        // Next sibling, or climb until an ancestor below `root` has one.
        for (;;) {
            const int next = link(h, tab[cur].iNextSibling);
            if (next) {
                cur = next;
                break;
            }
            cur = tab[cur].iParent;
            if (cur == root || !elem_ok(h, cur)) {
                cur = 0;
                break;
            }
        }
    }
}


/* ---- Adding an element -------------------------------------------------------------- */

/* The parent's form decides the text around a new element. */
enum ParentForm {
    PARENT_SELF_CLOSED, // "<p/>": its '/' gives way to '>' and it gets an end tag
    PARENT_OPEN_EMPTY,  // "<p></p>": the element goes on a line of its own
    PARENT_FILLED,      // anything else: the element goes where it was located
};

ParentForm parent_form(const ElemPos &P)
{
    if (IsEmptyElement(&P))
        return PARENT_SELF_CLOSED;
    return P.iStartTagClose + 1 == P.iEndTagOpen ? PARENT_OPEN_EMPTY : PARENT_FILLED;
}

/* The new element: name and value (null: none) with their lengths in
 * bytes; V is the value's length once escaped. */
struct NewElement {
    const char *name;
    const char *value;
    int64_t N, rawV, V;
};

/* "<name/>" or "<name>value</name>". */
inline int64_t markup_length(const NewElement &e)
{
    return e.value ? 2 * e.N + e.V + 5 : e.N + 3;
}

/* The capacity rule, by the parent's form and its start tag's length S. It
 * is a little more than the text actually written. */
int64_t working_size(ParentForm form, int64_t S, const NewElement &e)
{
    if (form == PARENT_SELF_CLOSED)
        return e.value ? S + 18 + e.V + 2 * e.N : S + 16 + e.N;
    return e.value ? e.V + 2 * e.N + 12 : e.N + 10;
}

/* Where the text goes: `lead`, the element and CRLF replace `removed` bytes
 * at `at`, and for a self-closed parent "</" and its tag name follow. */
struct Placement {
    int at;
    int removed;
    int start; // iStartTagOpen of the new element
    const char *lead;
    int leadLen;
    bool endTag;
    int tagStart, tagLen; // the parent's tag name, before `at`
};

Placement place_text(const MolkXmlNavi *h, int parent, ParentForm form, int offset)
{
    const ElemPos &P = h->m_pElemPos[parent];
    Placement pl = {offset, 0, offset, "", 0, false, 0, 0};
    if (form == PARENT_SELF_CLOSED) {
        pl = {P.iStartTagClose - 1, 1, offset + 2, ">\r\n", 3, true, 0, 0};
        XmlToken t;
        if (tag_name_token(h, parent, &t)) {
            pl.tagStart = t.iStart;
            pl.tagLen = token_len(&t);
        }
    } else if (form == PARENT_OPEN_EMPTY) {
        pl = {P.iStartTagClose + 1, 0, offset + 2, "\r\n", 2, false, 0, 0};
    }
    return pl;
}

inline int64_t text_length(const Placement &pl, const NewElement &e)
{
    return pl.leadLen + markup_length(e) + 2 + (pl.endTag ? 2 + pl.tagLen : 0);
}

/* The parent and the sibling to add behind, from the cursor: 0, or -1 or
 * -5 for the caller. Only an empty document takes a root element. */
int add_target(MolkXmlNavi *h, bool child, int *parent, int *after)
{
    *parent = child ? h->m_iMainPos : h->m_iParentPos;
    *after = child ? h->m_iChildPos : h->m_iMainPos;
    if (child && *parent == 0)
        return MOLK_XML_ERR_CURSOR;
    const int over = h->m_nElemPosCount - 1;
    if (*parent < 0 || *parent >= over || *after < 0 || *after >= over)
        return -1;
    if (*parent == 0) {
        if (h->m_pElemPos[0].iFirstChild)
            return MOLK_XML_ERR_CURSOR;
        h->m_pElemPos[0].iEndTagOpen = h->m_nDocLength;
    }
    return 0;
}

/* Takes the next free record and links it under `parent`, behind `after`
 * or, with `after` 0, as the first child. */
int take_record(MolkXmlNavi *h, int parent, int after)
{
    ElemPos *tab = h->m_pElemPos;
    const int np = h->m_iFreePos++;
    ElemPos *nr = &tab[np];
    ClearElemPos(nr);
    nr->iParent = parent;
    int &link_in = after ? tab[after].iNextSibling : tab[parent].iFirstChild;
    nr->iNextSibling = link_in;
    link_in = np;
    return np;
}

/* The offsets of a new element whose '<' is at `s`. */
void set_new_offsets(ElemPos *r, int s, const NewElement &e)
{
    const int N = static_cast<int>(e.N);
    r->iStartTagOpen = s;
    if (!e.value) {
        r->iEndTagOpen = s + N + 1;
        r->iStartTagClose = r->iEndTagClose = s + N + 2;
    } else {
        r->iStartTagClose = s + N + 1;
        r->iEndTagOpen = r->iStartTagClose + static_cast<int>(e.V) + 1;
        r->iEndTagClose = r->iEndTagOpen + N + 2;
    }
}

/* Writes the text straight into a gap opened for it. The parent's tag name
 * lies before the gap and is not moved. */
void write_text(MolkXmlNavi *h, const Placement &pl, const NewElement &e, int64_t textLen)
{
    const size_t N = static_cast<size_t>(e.N);
    char *o = h->m_csDoc + open_gap(h, pl.at, pl.removed, textLen);
    o = put(o, pl.lead, static_cast<size_t>(pl.leadLen));
    *o++ = '<';
    o = put(o, e.name, N);
    if (e.value) {
        *o++ = '>';
        o = write_escaped(o, e.value, e.rawV);
        o = put(o, "</", 2);
        o = put(o, e.name, N);
        *o++ = '>';
    } else {
        o = put(o, "/>", 2);
    }
    o = put(o, "\r\n", 2);
    if (pl.endTag) {
        o = put(o, "</", 2);
        put(o, h->m_csDoc + pl.tagStart, static_cast<size_t>(pl.tagLen));
    }
}

/* The new element becomes the main position, or, for the Child forms, the
 * child of the parent as main position. */
void select_new(MolkXmlNavi *h, bool child, int parent, int np)
{
    if (!child) {
        x_SetPos(h, parent, np, 0);
        return;
    }
    h->m_iMainPos = parent;
    h->m_iChildPos = np;
    h->m_nMainNode = 1;
}

} // namespace

/* ==== Inner operations ============================================================= */

extern "C" {

int x_AllocPosArray(MolkXmlNavi *pNavi, int nCount)
{
    if (!pNavi)
        return 0;
    if (nCount == 0)
        nCount = pNavi->m_iFreePos + pNavi->m_iFreePos / 2;
    if (pNavi->m_pElemPos && pNavi->m_nElemPosCount >= nCount)
        return 1;
    // The table's size in bytes must fit 32 bits, as on the device.
    if (nCount < 1 || static_cast<uint64_t>(nCount) * sizeof(ElemPos) > 0xFFFFFFFFull)
        return 0;
    ElemPos *table = static_cast<ElemPos *>(calloc(static_cast<size_t>(nCount), sizeof(ElemPos)));
    if (!table)
        return 0;
    free(pNavi->m_pElemPos);
    pNavi->m_pElemPos = table;
    pNavi->m_nElemPosCount = nCount;
    return 1;
}

int x_GetFreePos(MolkXmlNavi *pNavi)
{
    if (pNavi->m_iFreePos == pNavi->m_nElemPosCount) {
        pNavi->m_iFreePos = 0;
        return -1;
    }
    return pNavi->m_iFreePos++;
}

int x_ReleasePos(MolkXmlNavi *pNavi)
{
    --pNavi->m_iFreePos;
    return 0;
}

void x_SetPos(MolkXmlNavi *pNavi, int iParent, int iMain, int iChild)
{
    pNavi->m_iParentPos = iParent;
    pNavi->m_iMainPos = iMain;
    pNavi->m_iChildPos = iChild;
    pNavi->m_nMainNode = iMain != 0 ? 1 : 0;
}

void ClearElemPos(ElemPos *ptPos)
{
    if (ptPos)
        *ptPos = ElemPos();
}

void AdjustElemPosStart(ElemPos *ptPos, int nDelta)
{
    ptPos->iStartTagOpen += nDelta;
    ptPos->iStartTagClose += nDelta;
}

void AdjustElemPosEnd(ElemPos *ptPos, int nDelta)
{
    ptPos->iEndTagOpen += nDelta;
    ptPos->iEndTagClose += nDelta;
}

int IsEmptyElement(const ElemPos *ptPos)
{
    return ptPos->iStartTagClose == ptPos->iEndTagOpen + 1 ? 1 : 0;
}

int CreatToken(XmlToken *ptToken, const char *pcDoc)
{
    if (!pcDoc)
        return 0;
    ptToken->pDoc = pcDoc;
    ptToken->iStart = 0;
    ptToken->iEnd = -1;
    ptToken->iNext = 0;
    ptToken->bQuoted = 0;
    return 1;
}

void x_CopyToken(const XmlToken *ptFrom, XmlToken *ptTo)
{
    *ptTo = *ptFrom;
}

int x_GetToken(const XmlToken *ptToken, int iReserved, char *pcDst, int nSize)
{
    (void)iReserved;
    if (!pcDst || nSize < 1)
        return 0;
    memset(pcDst, 0, static_cast<size_t>(nSize));
    const int n = token_len(ptToken);
    if (n == 0)
        return 0;
    copy_bytes(pcDst, nSize, ptToken->pDoc + ptToken->iStart, n);
    return 1;
}

int MatchTokenPosByToken(const XmlToken *ptA, const XmlToken *ptB)
{
    const int n = token_len(ptA);
    if (n != token_len(ptB))
        return 0;
    return memcmp(ptA->pDoc + ptA->iStart, ptB->pDoc + ptB->iStart, static_cast<size_t>(n)) == 0;
}

int MatchTokenPos(XmlToken *ptToken, const char *szName)
{
    if (!ptToken || !ptToken->pDoc || !szName)
        return 0;
    const char *text = ptToken->pDoc + ptToken->iStart;
    int n = token_len(ptToken);
    // A namespace prefix is stripped at the first colon strictly inside.
    if (n >= 2 && text[0] != ':') {
        const void *colon = memchr(text + 1, ':', static_cast<size_t>(n - 2));
        if (colon) {
            const int k = static_cast<int>(static_cast<const char *>(colon) - text) + 1;
            text += k;
            n -= k;
            ptToken->iStart += k;
        }
    }
    // Token bytes are never NUL, so a shorter request fails before its end.
    for (int i = 0; i < n; ++i)
        if (szName[i] != text[i])
            return 0;
    return is(szName[n], CC_NAMETAIL) ? 1 : 0;
}

int x_ParseError(MolkXmlNavi *pNavi, const char *szFormat, const char *szArg1, const char *szArg2)
{
    format_error(pNavi, szFormat, szArg1, szArg2);
    --pNavi->m_iFreePos;
    return -1;
}

int x_SetError(MolkXmlNavi *pNavi, const char *szFormat, const char *szArg1, const char *szArg2)
{
    format_error(pNavi, szFormat, szArg1, szArg2);
    return -1;
}

int x_ParseNode(XmlToken *ptToken, int nLength)
{
    if (!ptToken || !ptToken->pDoc)
        return NODE_NONE;
    // Without a capacity, the searches end at the NUL that ends the text.
    const int from = ptToken->iNext < 0 ? 0 : ptToken->iNext;
    const size_t rest = strlen(ptToken->pDoc + from);
    const int limit = rest < static_cast<size_t>(INT32_MAX - from) ? from + static_cast<int>(rest) + 1 : INT32_MAX;
    return parse_node(ptToken, nLength, limit);
}

int x_ParseElem(MolkXmlNavi *pNavi, int iParent)
{
    if (!table_ok(pNavi) || !pNavi->m_csDoc || iParent < 0 ||
        iParent >= pNavi->m_nElemPosCount - 1)
        return -1;
    Parser p{pNavi, pNavi->m_csDoc, pNavi->m_pElemPos, pNavi->m_nDocLength,
             pNavi->m_nDocCapacity, 0};
    return parse_element(p, iParent);
}

int x_FindElem(MolkXmlNavi *pNavi, int iParent, int iAfter, const char *szName)
{
    if (!table_ok(pNavi) || !pNavi->m_csDoc)
        return 0;
    const int over = pNavi->m_nElemPosCount - 1;
    if (iParent < 0 || iParent >= over || iAfter < 0 || iAfter >= over)
        return 0;
    const ElemPos *tab = pNavi->m_pElemPos;
    int cand = iAfter ? tab[iAfter].iNextSibling : tab[iParent].iFirstChild;
    if (!szName || !*szName)
        return cand;
    // The walk ends at the overflow record, whose links may point at itself.
    while (elem_ok(pNavi, cand)) {
        XmlToken t;
        if (!tag_name_token(pNavi, cand, &t))
            fputs("x_FindToken failed!n", stdout);
        if (MatchTokenPos(&t, szName))
            return cand;
        cand = tab[cand].iNextSibling;
    }
    return 0;
}

int x_FindAttrib(MolkXmlNavi *pNavi, XmlToken *ptToken, const char *szName)
{
    const int len = pNavi->m_nDocLength;
    const bool anyName = !szName || !*szName;
    int matched = 0;
    bool afterEquals = false;
    for (int index = 0;; ++index) {
        if (!find_token(ptToken, len))
            return 0;
        if (ptToken->bQuoted) {
            if (matched && index == matched + 2)
                return 1;
            afterEquals = false;
            continue;
        }
        // An unquoted value ends the walk.
        if (afterEquals)
            return 0;
        const char c = first_byte(ptToken);
        if (c == '/' || c == '>' || c == '?')
            return 0;
        if (c == '=') {
            afterEquals = true;
            continue;
        }
        if (index == 0 || matched)
            continue;
        if (anyName)
            return 1;
        if (MatchTokenPos(ptToken, szName))
            matched = index;
    }
}

int x_GetAttrib(MolkXmlNavi *pNavi, int iPos, const char *szName, char *pcDst, int nSize, int nIndex)
{
    if (!reader_args_ok(pNavi, pcDst, nSize) || !table_ok(pNavi) || !pNavi->m_csDoc)
        return -1;
    if (!elem_ok(pNavi, iPos) || pNavi->m_nMainNode != 1)
        return -1;
    XmlToken t;
    CreatToken(&t, pNavi->m_csDoc);
    t.iNext = pNavi->m_pElemPos[iPos].iStartTagOpen + 1;
    if (!x_FindAttrib(pNavi, &t, szName)) {
        memset(pcDst, 0, static_cast<size_t>(nSize));
        return MOLK_XML_ERR_NOT_FOUND;
    }
    if (!szName || !*szName) {
        // Each further call passes the '=' and value behind the last name.
        for (int i = 0; i < nIndex; ++i)
            if (!x_FindAttrib(pNavi, &t, nullptr))
                return MOLK_XML_ERR_NOT_FOUND;
    }
    x_GetToken(&t, 0, pcDst, nSize);
    return 0;
}

int x_GetTagName(MolkXmlNavi *pNavi, int iPos, char *pcDst, int nSize)
{
    memset(pcDst, 0, static_cast<size_t>(nSize));
    if (!table_ok(pNavi) || !pNavi->m_csDoc || !elem_ok(pNavi, iPos))
        return -1;
    XmlToken t;
    if (!tag_name_token(pNavi, iPos, &t))
        return -1;
    x_GetToken(&t, 0, pcDst, nSize);
    return 0;
}

int x_GetRawData(MolkXmlNavi *pNavi, int iPos, char *pcDst, int nSize)
{
    if (!table_ok(pNavi) || !pNavi->m_csDoc || !elem_ok(pNavi, iPos))
        return -1;
    memset(pcDst, 0, static_cast<size_t>(nSize));
    const ElemPos &r = pNavi->m_pElemPos[iPos];
    int end = r.iEndTagClose + 1;
    if (end > pNavi->m_nDocCapacity)
        end = pNavi->m_nDocCapacity;
    if (r.iStartTagOpen >= 0 && end > r.iStartTagOpen)
        copy_bytes(pcDst, nSize, pNavi->m_csDoc + r.iStartTagOpen, end - r.iStartTagOpen);
    return 0;
}

int x_GetData(MolkXmlNavi *pNavi, int iPos, char *pcDst, int nSize)
{
    memset(pcDst, 0, static_cast<size_t>(nSize));
    if (!table_ok(pNavi) || !pNavi->m_csDoc || !elem_ok(pNavi, iPos))
        return -1;
    const ElemPos &r = pNavi->m_pElemPos[iPos];
    if (r.iFirstChild != 0)
        return MOLK_XML_ERR_NOT_FOUND;
    if (IsEmptyElement(&r))
        return 0;
    const char *d = pNavi->m_csDoc;
    const int start = r.iStartTagClose + 1;
    const int end = r.iEndTagOpen;
    // A CDATA section that stands first (after blanks) is the data on its
    // own; the content holds no NUL, so the search may stop at `end`.
    int off = start;
    if (skip_space_to(d, pNavi->m_nDocLength, &off) && d[off] == '<' && off + 11 < end &&
        memcmp(d + off, "<![CDATA[", 9) == 0) {
        const int q = find_terminator(d, off + 9, end, "]]>", 3);
        if (q >= 0) {
            int n = q - (off + 9);
            if (nSize <= n)
                n = nSize - 1;
            x_TextFromDoc(pcDst, d + off + 9, n);
            return 0;
        }
    }
    int n = end - start;
    if (n < 0)
        n = 0;
    if (nSize <= n)
        n = nSize - 1;
    x_TextFromDoc(pcDst, d + start, n);
    return 0;
}

int x_TextFromDoc(char *pcDst, const char *pcSrc, int nCount)
{
    static const struct {
        const char *text;
        int len;
        char ch;
    } kEntities[] = {
        {"&lt;", 4, '<'}, {"&amp;", 5, '&'}, {"&gt;", 4, '>'}, {"&apos;", 6, '\''}, {"&quot;", 6, '"'},
    };
    int o = 0;
    int i = 0;
    while (i < nCount) {
        const char c = pcSrc[i];
        if (c != '&') {
            pcDst[o++] = c;
            ++i;
            continue;
        }
        // "&#..." is copied as it stands: no entity begins with '#'.
        bool decoded = false;
        for (const auto &e : kEntities) {
            if (i + e.len <= nCount && memcmp(pcSrc + i, e.text, static_cast<size_t>(e.len)) == 0) {
                pcDst[o++] = e.ch;
                i += e.len;
                decoded = true;
                break;
            }
        }
        if (!decoded) {
            pcDst[o++] = '&';
            ++i;
        }
    }
    return o;
}

int x_TextToDocCount(const char *pcSrc, int nCount)
{
    if (nCount < 1)
        return nCount;
    const int64_t n = escaped_length(pcSrc, nCount);
    return n > INT32_MAX ? INT32_MAX : static_cast<int>(n);
}

int x_TextToDoc(char *pcDst, const char *pcSrc, int iReserved, int nCount)
{
    (void)iReserved;
    if (nCount < 1)
        return 0;
    return static_cast<int>(write_escaped(pcDst, pcSrc, nCount) - pcDst);
}

int x_DocChange(MolkXmlNavi *pNavi, int nOffset, int nRemove, const char *szText)
{
    if (!pNavi || !pNavi->m_csDoc || !szText)
        return -1;
    const size_t n = strlen(szText);
    const int at = open_gap(pNavi, nOffset, nRemove, static_cast<int64_t>(n));
    if (at < 0)
        return -1;
    memcpy(pNavi->m_csDoc + at, szText, n);
    measure_document(pNavi);
    return 0;
}

int x_Adjust(MolkXmlNavi *pNavi, int iPos, int nDelta, int iAfterPos)
{
    if (!table_ok(pNavi) || !elem_ok(pNavi, iPos))
        return 0;
    ElemPos *tab = pNavi->m_pElemPos;
    // Each record is visited at most once; the budget only guards against a
    // table that a caller has damaged.
    int budget = pNavi->m_nElemPosCount;
    if (!iAfterPos)
        shift_descendants(pNavi, iPos, nDelta, &budget);
    // Everything behind iPos: the later siblings of iPos and of each of its
    // ancestors, with their subtrees; the ancestors' end tags.
    int at = iPos;
    while (budget > 0) {
        for (int s = link(pNavi, tab[at].iNextSibling); s && budget-- > 0;
             s = link(pNavi, tab[s].iNextSibling)) {
            shift_all(&tab[s], nDelta);
            shift_descendants(pNavi, s, nDelta, &budget);
        }
        const int up = tab[at].iParent;
        if (!elem_ok(pNavi, up))
            break;
        AdjustElemPosEnd(&tab[up], nDelta);
        at = up;
    }
    AdjustElemPosEnd(&tab[0], nDelta);
    return 0;
}

int x_LocateNew(MolkXmlNavi *pNavi, int iParent, int *piAfter, int *piOffset, int nLength, int nFlags)
{
    (void)nLength;
    const bool insert = (nFlags & 1) != 0;
    const ElemPos *tab = pNavi->m_pElemPos;
    const ElemPos &P = tab[iParent];
    const char *d = pNavi->m_csDoc;
    const int len = pNavi->m_nDocLength;
    const int sibling = *piAfter;
    int off;
    if (sibling)
        off = insert ? tab[sibling].iStartTagOpen : tab[sibling].iEndTagClose + 1;
    else if (iParent == 0)
        off = insert ? 0 : len;
    else if (IsEmptyElement(&P))
        off = P.iStartTagClose;
    else
        off = insert ? P.iStartTagClose + 1 : P.iEndTagOpen;
    // New markup goes behind the blanks before the next tag, but right
    // behind the sibling when character data follows.
    if (!IsEmptyElement(&P)) {
        const int o = skip_space(d, off, len);
        if (o >= len || d[o] == '\0' || d[o] == '<')
            off = o;
    }
    int after = 0;
    if (!sibling) {
        if (!insert) {
            for (int c = link(pNavi, P.iFirstChild), guard = pNavi->m_nElemPosCount; c && guard-- > 0;
                 c = link(pNavi, tab[c].iNextSibling))
                after = c;
        }
    } else if (!insert) {
        after = sibling;
    } else {
        for (int c = link(pNavi, P.iFirstChild), guard = pNavi->m_nElemPosCount;
             c && c != sibling && guard-- > 0; c = link(pNavi, tab[c].iNextSibling))
            after = c;
    }
    *piAfter = after;
    *piOffset = off;
    return 0;
}

int x_AddElem(MolkXmlNavi *pNavi, const char *szName, const char *szValue, int bInsert, int bChild)
{
    if (!table_ok(pNavi) || !szName || !*szName || !pNavi->m_csDoc)
        return -1;
    int parent, after;
    const int target = add_target(pNavi, bChild != 0, &parent, &after);
    if (target != 0)
        return target;
    int offset = 0;
    x_LocateNew(pNavi, parent, &after, &offset, 0, bInsert ? 1 : 0);
    const ElemPos P = pNavi->m_pElemPos[parent];
    const ParentForm form = parent_form(P);
    // A self-closed parent gets its '/' replaced by '>'. If another '/'
    // stands before it ("<p//>"), the new start tag would read as
    // self-closed again and the text would no longer match the table.
    if (form == PARENT_SELF_CLOSED && parent != 0 && P.iStartTagClose >= 2 &&
        pNavi->m_csDoc[P.iStartTagClose - 2] == '/')
        return MOLK_XML_ERR_CURSOR;

    if (pNavi->m_iFreePos < 1 || pNavi->m_iFreePos >= pNavi->m_nElemPosCount - 1) {
        set_error(pNavi, kNumberLimit);
        return MOLK_XML_ERR_ELEMENTS;
    }
    NewElement e;
    e.name = szName;
    e.value = szValue;
    e.N = static_cast<int64_t>(strlen(szName));
    e.rawV = szValue ? static_cast<int64_t>(strlen(szValue)) : 0;
    e.V = szValue ? escaped_length(szValue, e.rawV) : 0;
    const int64_t S = static_cast<int64_t>(P.iStartTagClose) - P.iStartTagOpen + 1;
    if (static_cast<int64_t>(pNavi->m_nDocLength) + working_size(form, S, e) >
        static_cast<int64_t>(pNavi->m_nDocCapacity) - 1) {
        set_error(pNavi, kOverrun);
        return MOLK_XML_ERR_BUFFER;
    }

    const Placement pl = place_text(pNavi, parent, form, offset);
    const int64_t textLen = text_length(pl, e);
    const int np = take_record(pNavi, parent, after);
    set_new_offsets(&pNavi->m_pElemPos[np], pl.start, e);
    if (pl.endTag) {
        // The old '>' closes the new end tag; the shift below completes it.
        pNavi->m_pElemPos[parent].iStartTagClose = pl.at;
        pNavi->m_pElemPos[parent].iEndTagOpen -= 1 + pl.tagLen;
    }
    write_text(pNavi, pl, e, textLen);
    measure_document(pNavi);
    x_Adjust(pNavi, np, static_cast<int>(textLen) - pl.removed, 0);
    select_new(pNavi, bChild != 0, parent, np);
    return 0;
}

int x_SetAttrib(MolkXmlNavi *pNavi, int iPos, const char *szName, const char *szValue)
{
    if (!table_ok(pNavi) || !szName || !*szName || !pNavi->m_csDoc)
        return -1;
    if (!elem_ok(pNavi, iPos) || pNavi->m_nMainNode != 1)
        return MOLK_XML_ERR_CURSOR;
    ElemPos &E = pNavi->m_pElemPos[iPos];
    const char *value = szValue ? szValue : "";
    const int64_t V = static_cast<int64_t>(strlen(value));
    const int64_t len = pNavi->m_nDocLength;
    const int64_t cap = pNavi->m_nDocCapacity;
    char *d = pNavi->m_csDoc;
    XmlToken t;
    CreatToken(&t, d);
    t.iNext = E.iStartTagOpen + 1;
    int delta;
    if (x_FindAttrib(pNavi, &t, szName)) {
        // A value whose opening quote has no partner inside the start tag
        // runs over markup that the table counts on: refuse to write it.
        const int open = t.iStart - 1;
        const int close = t.iEnd + 1;
        if (close >= E.iStartTagClose || close >= len || d[close] != d[open])
            return MOLK_XML_ERR_CURSOR;
        if (len + V + 2 >= cap) {
            set_error(pNavi, kOverrun);
            return MOLK_XML_ERR_BUFFER;
        }
        const int old = token_len(&t);
        const int gap = open_gap(pNavi, t.iStart, old, V);
        memcpy(d + gap, value, static_cast<size_t>(V));
        delta = static_cast<int>(V) - old;
    } else {
        const int64_t N = static_cast<int64_t>(strlen(szName));
        if (len + V + N + 6 >= cap)
            return MOLK_XML_ERR_BUFFER;
        const int at = IsEmptyElement(&E) ? E.iStartTagClose - 1 : E.iStartTagClose;
        const int64_t textLen = N + V + 4;
        const int gap = open_gap(pNavi, at, 0, textLen);
        char *o = d + gap;
        *o++ = ' ';
        o = put(o, szName, static_cast<size_t>(N));
        o = put(o, "=\"", 2);
        o = put(o, value, static_cast<size_t>(V));
        *o = '"';
        delta = static_cast<int>(textLen);
    }
    measure_document(pNavi);
    E.iStartTagClose += delta;
    AdjustElemPosEnd(&E, delta);
    x_Adjust(pNavi, iPos, delta, 0);
    return 0;
}

/* ==== Handle and parse ================================================================ */

int MOLK_XML_Initial(MolkXmlNavi **ppNavi, MolkXmlInitParam *ptParam)
{
    if (!ppNavi || !ptParam)
        return -1;
    if (ptParam->maxElements < 1)
        ptParam->maxElements = 1;
    const int64_t count = static_cast<int64_t>(ptParam->maxElements) + 2;
    if (count > INT32_MAX)
        return -1;
    MolkXmlNavi *h = static_cast<MolkXmlNavi *>(calloc(1, sizeof(MolkXmlNavi)));
    if (!h)
        return -1;
    if (!x_AllocPosArray(h, static_cast<int>(count))) {
        free(h);
        return -1;
    }
    reset_cursor(h);
    *ppNavi = h;
    return 0;
}

int MOLK_XML_Release(MolkXmlNavi **ppNavi)
{
    if (!ppNavi || !*ppNavi)
        return -1;
    free((*ppNavi)->m_pElemPos);
    free(*ppNavi);
    *ppNavi = nullptr;
    return 0;
}

int MOLK_XML_ResetAll(MolkXmlNavi *pNavi)
{
    if (!table_ok(pNavi))
        return -1;
    reset_cursor(pNavi);
    detach_document(pNavi);
    memset(pNavi->m_pElemPos, 0, static_cast<size_t>(pNavi->m_nElemPosCount) * sizeof(ElemPos));
    return 0;
}

int MOLK_XML_SetBuffer(MolkXmlNavi *pNavi, char *pcBuffer, int nCapacity, int nLength)
{
    if (!pNavi || !pcBuffer || nCapacity < 3 || nLength < 0 || nLength > nCapacity)
        return -1;
    if (!table_ok(pNavi))
        return -1;
    ElemPos *tab = pNavi->m_pElemPos;
    const int over = pNavi->m_nElemPosCount - 1;
    // The same state as after MOLK_XML_ResetAll. Element records are not
    // zeroed up front: the parse fills every record it takes, and those of
    // an earlier document behind the new ones are cleared afterwards.
    reset_cursor(pNavi);
    tab[0] = ElemPos();
    tab[over] = ElemPos();
    pNavi->m_nDocCapacity = nCapacity;
    pNavi->m_nDocLength = nLength;
    pNavi->m_csDoc = pcBuffer;

    if (nLength == 0) {
        set_error(pNavi, kEmptyDocument);
        memset(pcBuffer, 0, static_cast<size_t>(nCapacity));
        clear_records_from(pNavi, 1);
        return 0;
    }
    Parser p{pNavi, pcBuffer, tab, nLength, nCapacity, 0};
    const int root = parse_element(p, 0);
    clear_records_from(pNavi, p.highRecord + 1);
    if (root > 0) {
        tab[0].iFirstChild = root;
        return pNavi->m_iFreePos < 1 ? MOLK_XML_ERR_ELEMENTS : 0;
    }
    if (root == 0)
        set_error(pNavi, kEmptyTag);
    reset_cursor(pNavi);
    tab[0] = ElemPos();
    detach_document(pNavi);
    return MOLK_XML_ERR_PARSE;
}

int MOLK_XML_GetError(MolkXmlNavi *pNavi, char *pcDst, int nSize)
{
    if (!pNavi || !pcDst || nSize < 2)
        return -1;
    memset(pcDst, 0, static_cast<size_t>(nSize));
    const char *text = pNavi->m_csError[0] ? pNavi->m_csError : kNoError;
    copy_bytes(pcDst, nSize, text, static_cast<int>(strnlen(text, sizeof pNavi->m_csError - 1)));
    return 0;
}

/* ==== Navigation =========================================================================== */

int MOLK_XML_FindElem(MolkXmlNavi *pNavi, const char *szName)
{
    if (!table_ok(pNavi))
        return 0;
    const int e = x_FindElem(pNavi, pNavi->m_iParentPos, pNavi->m_iMainPos, szName);
    if (!elem_ok(pNavi, e))
        return 0;
    x_SetPos(pNavi, pNavi->m_pElemPos[e].iParent, e, 0);
    return 1;
}

int MOLK_XML_FindChildElem(MolkXmlNavi *pNavi, const char *szName)
{
    if (!table_ok(pNavi) || !pNavi->m_csDoc)
        return 0;
    const ElemPos *tab = pNavi->m_pElemPos;
    const int over = pNavi->m_nElemPosCount - 1;
    if (pNavi->m_iParentPos < 0 || pNavi->m_iParentPos >= over)
        return 0;
    if (pNavi->m_iMainPos == 0) {
        // Select the first element of this level and look among its children.
        // A level without elements has no main element to look into.
        const int first = tab[pNavi->m_iParentPos].iFirstChild;
        if (!elem_ok(pNavi, first))
            return 0;
        x_SetPos(pNavi, tab[first].iParent, first, 0);
    }
    if (!elem_ok(pNavi, pNavi->m_iMainPos))
        return 0;
    const int e = x_FindElem(pNavi, pNavi->m_iMainPos, pNavi->m_iChildPos, szName);
    if (!elem_ok(pNavi, e))
        return 0;
    pNavi->m_iParentPos = tab[pNavi->m_iMainPos].iParent;
    pNavi->m_iMainPos = tab[e].iParent;
    pNavi->m_iChildPos = e;
    pNavi->m_nMainNode = 1;
    return 1;
}

int MOLK_XML_IntoElem(MolkXmlNavi *pNavi)
{
    if (!pNavi || pNavi->m_iMainPos == 0 || pNavi->m_nMainNode != 1)
        return 0;
    const int child = pNavi->m_iChildPos;
    pNavi->m_iParentPos = pNavi->m_iMainPos;
    pNavi->m_iMainPos = child;
    pNavi->m_iChildPos = 0;
    pNavi->m_nMainNode = child != 0 ? 1 : 0;
    return 1;
}

int MOLK_XML_OutOfElem(MolkXmlNavi *pNavi)
{
    if (!table_ok(pNavi) || !elem_ok(pNavi, pNavi->m_iParentPos))
        return 0;
    const int parent = pNavi->m_iParentPos;
    pNavi->m_iChildPos = pNavi->m_iMainPos;
    pNavi->m_iMainPos = parent;
    pNavi->m_iParentPos = pNavi->m_pElemPos[parent].iParent;
    pNavi->m_nMainNode = 1;
    return 1;
}

int MOLK_XML_ResetPos(MolkXmlNavi *pNavi)
{
    if (!pNavi)
        return -1;
    x_SetPos(pNavi, 0, 0, 0);
    return 0;
}

int MOLK_XML_ResetMainPos(MolkXmlNavi *pNavi)
{
    if (!pNavi)
        return -1;
    x_SetPos(pNavi, pNavi->m_iParentPos, 0, 0);
    return 0;
}

int MOLK_XML_ResetChildPos(MolkXmlNavi *pNavi)
{
    if (!pNavi)
        return -1;
    x_SetPos(pNavi, pNavi->m_iParentPos, pNavi->m_iMainPos, 0);
    return 0;
}

/* ==== Reading ================================================================================ */

int MOLK_XML_GetTagName(MolkXmlNavi *pNavi, char *pcDst, int nSize)
{
    if (!reader_args_ok(pNavi, pcDst, nSize))
        return -1;
    return x_GetTagName(pNavi, pNavi->m_iMainPos, pcDst, nSize);
}

int MOLK_XML_GetChildTagName(MolkXmlNavi *pNavi, char *pcDst, int nSize)
{
    if (!reader_args_ok(pNavi, pcDst, nSize))
        return -1;
    return x_GetTagName(pNavi, pNavi->m_iChildPos, pcDst, nSize);
}

int MOLK_XML_GetWholeElement(MolkXmlNavi *pNavi, char *pcDst, int nSize)
{
    if (!reader_args_ok(pNavi, pcDst, nSize) || pNavi->m_iMainPos == 0)
        return -1;
    return x_GetRawData(pNavi, pNavi->m_iMainPos, pcDst, nSize);
}

int MOLK_XML_GetAttrib(MolkXmlNavi *pNavi, const char *szName, char *pcDst, int nSize)
{
    if (!szName || !*szName)
        return -1;
    return reader_args_ok(pNavi, pcDst, nSize)
               ? x_GetAttrib(pNavi, pNavi->m_iMainPos, szName, pcDst, nSize, 0)
               : -1;
}

int XML_GetChildAttrib(MolkXmlNavi *pNavi, const char *szName, char *pcDst, int nSize)
{
    if (!szName || !*szName)
        return -1;
    return reader_args_ok(pNavi, pcDst, nSize)
               ? x_GetAttrib(pNavi, pNavi->m_iChildPos, szName, pcDst, nSize, 0)
               : -1;
}

int MOLK_XML_GetAttribName(MolkXmlNavi *pNavi, int nIndex, char *pcDst, int nSize)
{
    if (nIndex < 0 || !reader_args_ok(pNavi, pcDst, nSize))
        return -1;
    return x_GetAttrib(pNavi, pNavi->m_iMainPos, nullptr, pcDst, nSize, nIndex);
}

int MOLK_XML_GetChildAttribName(MolkXmlNavi *pNavi, int nIndex, char *pcDst, int nSize)
{
    if (nIndex < 0 || !reader_args_ok(pNavi, pcDst, nSize))
        return -1;
    return x_GetAttrib(pNavi, pNavi->m_iChildPos, nullptr, pcDst, nSize, nIndex);
}

int MOLK_XML_GetData(MolkXmlNavi *pNavi, char *pcDst, int nSize)
{
    if (!reader_args_ok(pNavi, pcDst, nSize))
        return -1;
    return x_GetData(pNavi, pNavi->m_iMainPos, pcDst, nSize);
}

int MOLK_XML_GetChildData(MolkXmlNavi *pNavi, char *pcDst, int nSize)
{
    if (!reader_args_ok(pNavi, pcDst, nSize))
        return -1;
    return x_GetData(pNavi, pNavi->m_iChildPos, pcDst, nSize);
}

/* ==== Editing ================================================================================= */

int MOLK_XML_AddElem(MolkXmlNavi *pNavi, const char *szName, const char *szValue)
{
    return x_AddElem(pNavi, szName, szValue, 0, 0);
}

int MOLK_XML_InsertElem(MolkXmlNavi *pNavi, const char *szName, const char *szValue)
{
    return x_AddElem(pNavi, szName, szValue, 1, 0);
}

int MOLK_XML_AddChildElem(MolkXmlNavi *pNavi, const char *szName, const char *szValue)
{
    return x_AddElem(pNavi, szName, szValue, 0, 1);
}

int MOLK_XML_InsertChildElem(MolkXmlNavi *pNavi, const char *szName, const char *szValue)
{
    return x_AddElem(pNavi, szName, szValue, 1, 1);
}

int MOLK_XML_AddAttrib(MolkXmlNavi *pNavi, const char *szName, const char *szValue)
{
    if (!pNavi)
        return -1;
    return x_SetAttrib(pNavi, pNavi->m_iMainPos, szName, szValue);
}

int MOLK_XML_AddChildAttrib(MolkXmlNavi *pNavi, const char *szName, const char *szValue)
{
    if (!pNavi)
        return -1;
    return x_SetAttrib(pNavi, pNavi->m_iChildPos, szName, szValue);
}

} // extern "C"
