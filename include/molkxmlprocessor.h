/*
 * molkxmlprocessor.h - the XML processor of libmolkutil.
 *
 * One document lies as text in a buffer of the caller. A parse makes one
 * pass over it and fills a fixed table of element records (ElemPos) that
 * hold byte offsets into the text; it copies no text and allocates nothing.
 * A cursor walks the table, readers copy names, attribute values and data
 * into the caller's buffers, and edits change the text in place while the
 * table is kept right by arithmetic.
 *
 * Buffer lifetime. The text buffer given to MOLK_XML_SetBuffer belongs to
 * the caller: the library neither copies nor frees it, and it must stay
 * valid and unmoved for as long as the handle holds that document (until
 * the next MOLK_XML_SetBuffer, MOLK_XML_ResetAll or MOLK_XML_Release).
 * The text must be NUL-terminated inside the buffer's capacity. A parse
 * writes nothing into it, except that a length of 0 clears all of it; the
 * edits (MOLK_XML_Add*, MOLK_XML_Insert*) rewrite it in place, so after an
 * edit the buffer holds the current document as a NUL-terminated string.
 *
 * Results: 0 success, -1 bad argument / no position / out of memory,
 * -4 the document does not parse, -5 no place for the operation in the
 * cursor, -6 no such attribute or the element has child elements, -8 the
 * element table is exhausted, -16 the text buffer is exhausted.
 * MOLK_XML_FindElem, MOLK_XML_FindChildElem, MOLK_XML_IntoElem and
 * MOLK_XML_OutOfElem answer 1 (yes) or 0 (no) instead.
 *
 * A handle and its text belong to one thread at a time.
 *
 * Behaviour on unusual input. Where two readings were possible, this is
 * what the library does, and why:
 *
 * - A quote inside a "<!" form (a document type or other declaration; not
 *   a comment, CDATA section or processing instruction) hides everything up
 *   to the next same quote. A quote without that partner before the parsed
 *   length or a NUL leaves the form unterminated: -4, "Invalid node". So
 *   "<!DOCTYPE a \"x><a/>" and "<!NOTE 'x><a/>" are refused, while
 *   "<!DOCTYPE a \"x\"><a/>" parses. Reading on one byte past such a quote
 *   would let text behind it decide the tree: an edit writes quotes (every
 *   attribute value stands between them, and element values may hold
 *   them) and measures the length anew up to the NUL, so the lone quote
 *   could find a partner later. "<r><!X \"y><a/></r>" read that way has a
 *   child a; add an attribute to a and the quote pairs with the one of
 *   b="1", hiding a from a fresh parse. That a fresh parse of an edited
 *   text gives the same tree wins over reading on.
 *
 * - The tokens of an end tag count by their bytes, quoted or not, and a
 *   quoted token starts behind its quote: "<a></\"a\">" closes a, and so
 *   does "<a></a \">\"", whose end tag closes on the '>' right behind the
 *   quote (that offset is iEndTagClose). Whether that quote has a partner
 *   does not matter, so "<a></a \">" closes a too, and no text written
 *   behind the end tag changes the answer. A quote followed by anything
 *   else, or standing last before the length, leaves the end tag not
 *   completed.
 *
 * - A self-closed element whose closing '/' follows another '/' ("<p//>")
 *   takes no child element: the edits that would add one give -5 and
 *   change nothing. Adding a child turns the last '/' into '>', which would
 *   leave "<p/>", again a self-closed start tag, and a fresh parse would
 *   read another tree. Its attributes can still be set, and "<p/ />", with
 *   a blank between, takes children.
 *
 * - Nesting is bounded at MOLK_XML_MAX_DEPTH (256) levels, the root element
 *   being level 1. A start tag that would open level 257, self-closed or
 *   not, makes the parse give -4 with the error text "Element nesting too
 *   deep at around %s", where %s is the decimal offset of that tag's '<'.
 *   It is the one error text of a parse that does not stand for malformed
 *   markup: the document may be well formed, only too deep for the
 *   parser's fixed stack.
 */
#ifndef MOLKXMLPROCESSOR_H
#define MOLKXMLPROCESSOR_H

#include "molk_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Result codes. */
#define MOLK_XML_OK              0
#define MOLK_XML_ERR_ARG        (-1)
#define MOLK_XML_ERR_PARSE      (-4)
#define MOLK_XML_ERR_CURSOR     (-5)
#define MOLK_XML_ERR_NOT_FOUND  (-6)
#define MOLK_XML_ERR_ELEMENTS   (-8)
#define MOLK_XML_ERR_BUFFER     (-16)

/* A parse refuses (with -4) a document whose elements nest deeper than this;
 * the root element is level 1. The parser keeps its own fixed stack of this
 * many levels, so its use of the thread's stack does not grow with depth. */
#define MOLK_XML_MAX_DEPTH      256

/* Creation record of a handle. maxElements below 1 is taken as 1 and the
 * 1 is written back. */
typedef struct MolkXmlInitParam {
    int iReserved;      /* give 0; never read */
    int maxElements;    /* most elements one document of this handle holds */
} MolkXmlInitParam;

/* One record of the position table; every field is a byte offset into the
 * text or a position (index into the table, 0 = none). */
typedef struct ElemPos {
    int iStartTagOpen;  /* '<' of the start tag */
    int iStartTagClose; /* '>' that ends the start tag */
    int iEndTagOpen;    /* '<' of the end tag; the '/' of a self-closed one */
    int iEndTagClose;   /* '>' of the end tag; = iStartTagClose if self-closed */
    int iReserved;      /* always 0 */
    int iParent;        /* 0 for the root element */
    int iFirstChild;    /* 0 if none */
    int iNextSibling;   /* 0 if none */
} ElemPos;

/* The document handle. Made by MOLK_XML_Initial, freed by MOLK_XML_Release. */
typedef struct MolkXmlNavi {
    ElemPos *m_pElemPos;     /* maxElements + 2 records; 0 is the document,
                                the last one is the overflow record */
    int      m_nElemPosCount;
    int      m_iReserved;    /* always 0 */
    int      m_iParentPos;   /* cursor: the level being walked, 0 = top */
    int      m_iMainPos;     /* cursor: selected element, 0 = none */
    int      m_iChildPos;    /* cursor: selected child of it, 0 = none */
    int      m_iFreePos;     /* next free record; below 1 after an overflow */
    int      m_nMainNode;    /* 1 while a main position is set */
    int      m_nDocCapacity; /* bytes of the caller's buffer */
    int      m_nDocLength;   /* bytes of the document text */
    char    *m_csDoc;        /* the caller's buffer, NULL when none */
    char     m_csError[64];  /* last error text, NUL-terminated */
} MolkXmlNavi;

/* The scanner's token: bytes iStart..iEnd (inclusive) of pDoc. */
typedef struct XmlToken {
    int         iStart;
    int         iEnd;       /* iStart - 1 for an empty token */
    int         iNext;      /* where the next scan starts */
    const char *pDoc;
    int         bQuoted;    /* 1: stood between quotes, which are excluded */
} XmlToken;

/* ---- Handle and parse ---------------------------------------------------- */

MOLK_API int MOLK_XML_Initial(MolkXmlNavi **ppNavi, MolkXmlInitParam *ptParam);
MOLK_API int MOLK_XML_Release(MolkXmlNavi **ppNavi);
MOLK_API int MOLK_XML_ResetAll(MolkXmlNavi *pNavi);
MOLK_API int MOLK_XML_SetBuffer(MolkXmlNavi *pNavi, char *pcBuffer, int nCapacity, int nLength);
MOLK_API int MOLK_XML_GetError(MolkXmlNavi *pNavi, char *pcDst, int nSize);

/* ---- Navigation and reading ---------------------------------------------- */

MOLK_API int MOLK_XML_FindElem(MolkXmlNavi *pNavi, const char *szName);
MOLK_API int MOLK_XML_FindChildElem(MolkXmlNavi *pNavi, const char *szName);
MOLK_API int MOLK_XML_IntoElem(MolkXmlNavi *pNavi);
MOLK_API int MOLK_XML_OutOfElem(MolkXmlNavi *pNavi);
MOLK_API int MOLK_XML_ResetPos(MolkXmlNavi *pNavi);
MOLK_API int MOLK_XML_ResetMainPos(MolkXmlNavi *pNavi);
MOLK_API int MOLK_XML_ResetChildPos(MolkXmlNavi *pNavi);
MOLK_API int MOLK_XML_GetTagName(MolkXmlNavi *pNavi, char *pcDst, int nSize);
MOLK_API int MOLK_XML_GetChildTagName(MolkXmlNavi *pNavi, char *pcDst, int nSize);
MOLK_API int MOLK_XML_GetWholeElement(MolkXmlNavi *pNavi, char *pcDst, int nSize);
MOLK_API int MOLK_XML_GetAttrib(MolkXmlNavi *pNavi, const char *szName, char *pcDst, int nSize);
MOLK_API int XML_GetChildAttrib(MolkXmlNavi *pNavi, const char *szName, char *pcDst, int nSize);
MOLK_API int MOLK_XML_GetAttribName(MolkXmlNavi *pNavi, int nIndex, char *pcDst, int nSize);
MOLK_API int MOLK_XML_GetChildAttribName(MolkXmlNavi *pNavi, int nIndex, char *pcDst, int nSize);
MOLK_API int MOLK_XML_GetData(MolkXmlNavi *pNavi, char *pcDst, int nSize);
MOLK_API int MOLK_XML_GetChildData(MolkXmlNavi *pNavi, char *pcDst, int nSize);

/* ---- Editing --------------------------------------------------------------- */

MOLK_API int MOLK_XML_AddElem(MolkXmlNavi *pNavi, const char *szName, const char *szValue);
MOLK_API int MOLK_XML_InsertElem(MolkXmlNavi *pNavi, const char *szName, const char *szValue);
MOLK_API int MOLK_XML_AddChildElem(MolkXmlNavi *pNavi, const char *szName, const char *szValue);
MOLK_API int MOLK_XML_InsertChildElem(MolkXmlNavi *pNavi, const char *szName, const char *szValue);
MOLK_API int MOLK_XML_AddAttrib(MolkXmlNavi *pNavi, const char *szName, const char *szValue);
MOLK_API int MOLK_XML_AddChildAttrib(MolkXmlNavi *pNavi, const char *szName, const char *szValue);

/* ---- Inner operations -------------------------------------------------------
 * Visible for the module's own tests and tools; they are no contract and
 * may change. They trust their arguments more than the public calls do. */

MOLK_API int  x_AllocPosArray(MolkXmlNavi *pNavi, int nCount);
MOLK_API int  x_GetFreePos(MolkXmlNavi *pNavi);
MOLK_API int  x_ReleasePos(MolkXmlNavi *pNavi);
MOLK_API void x_SetPos(MolkXmlNavi *pNavi, int iParent, int iMain, int iChild);
MOLK_API void ClearElemPos(ElemPos *ptPos);
MOLK_API void AdjustElemPosStart(ElemPos *ptPos, int nDelta);
MOLK_API void AdjustElemPosEnd(ElemPos *ptPos, int nDelta);
MOLK_API int  IsEmptyElement(const ElemPos *ptPos);
MOLK_API int  CreatToken(XmlToken *ptToken, const char *pcDoc);
MOLK_API void x_CopyToken(const XmlToken *ptFrom, XmlToken *ptTo);
MOLK_API int  x_GetToken(const XmlToken *ptToken, int iReserved, char *pcDst, int nSize);
MOLK_API int  MatchTokenPosByToken(const XmlToken *ptA, const XmlToken *ptB);
MOLK_API int  MatchTokenPos(XmlToken *ptToken, const char *szName);
MOLK_API int  x_ParseError(MolkXmlNavi *pNavi, const char *szFormat, const char *szArg1, const char *szArg2);
MOLK_API int  x_SetError(MolkXmlNavi *pNavi, const char *szFormat, const char *szArg1, const char *szArg2);
MOLK_API int  x_ParseNode(XmlToken *ptToken, int nLength);
MOLK_API int  x_ParseElem(MolkXmlNavi *pNavi, int iParent);
MOLK_API int  x_FindElem(MolkXmlNavi *pNavi, int iParent, int iAfter, const char *szName);
MOLK_API int  x_FindAttrib(MolkXmlNavi *pNavi, XmlToken *ptToken, const char *szName);
MOLK_API int  x_GetAttrib(MolkXmlNavi *pNavi, int iPos, const char *szName, char *pcDst, int nSize, int nIndex);
MOLK_API int  x_GetTagName(MolkXmlNavi *pNavi, int iPos, char *pcDst, int nSize);
MOLK_API int  x_GetRawData(MolkXmlNavi *pNavi, int iPos, char *pcDst, int nSize);
MOLK_API int  x_GetData(MolkXmlNavi *pNavi, int iPos, char *pcDst, int nSize);
MOLK_API int  x_TextFromDoc(char *pcDst, const char *pcSrc, int nCount);
MOLK_API int  x_AddElem(MolkXmlNavi *pNavi, const char *szName, const char *szValue, int bInsert, int bChild);
MOLK_API int  x_LocateNew(MolkXmlNavi *pNavi, int iParent, int *piAfter, int *piOffset, int nLength, int nFlags);
MOLK_API int  x_SetAttrib(MolkXmlNavi *pNavi, int iPos, const char *szName, const char *szValue);
MOLK_API int  x_DocChange(MolkXmlNavi *pNavi, int nOffset, int nRemove, const char *szText);
MOLK_API int  x_Adjust(MolkXmlNavi *pNavi, int iPos, int nDelta, int iAfterPos);
MOLK_API int  x_TextToDocCount(const char *pcSrc, int nCount);
MOLK_API int  x_TextToDoc(char *pcDst, const char *pcSrc, int iReserved, int nCount);

#ifdef __cplusplus
}
#endif

#endif /* MOLKXMLPROCESSOR_H */
