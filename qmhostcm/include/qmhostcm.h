/*
 * qmhostcm.h - the host-common character utilities: comparison, case mapping
 * and classification of QMChar (UTF-32) text, memory and narrow-string
 * helpers, and conversion between QMChar text and narrow text. Exported by
 * libqmhostcm.so; link with -lqmhostcm. This header is valid C and C++.
 *
 * Strings. A QMChar string is a pointer and a length in characters
 * (QMStrSize); it needs no terminating zero unless a function says so. A null
 * pointer with length 0 is the empty string. A string is invalid when its
 * pointer is null with a length other than 0, or its length is negative; each
 * function says what it does with one. Narrow text is counted in bytes
 * (QMMemSize).
 *
 * Characters. Case mapping and classification follow the Unicode Character
 * Database of version QMHOSTCM_UNICODE_VERSION over the whole code space,
 * with no locale: the simple (one-to-one) mappings, so a mapped string keeps
 * its length. An invalid code point (a surrogate, U+D800 to U+DFFF, or a
 * value above U+10FFFF) has no class, maps to itself and compares by its
 * value; only the conversions to narrow text refuse it.
 *
 * Statuses. Functions that write return a QMStatus of qmtypes.h: 0,
 * QM_E_BAD_ARGUMENT (nothing written unless the function says otherwise),
 * QM_E_BUFFER_TOO_SMALL (a clamped result, described per function),
 * QM_E_UNMAPPABLE, QM_E_INVALID_SEQUENCE or QM_E_NO_MEMORY. No function
 * writes past the capacity it is given.
 *
 * Threads and memory. Every function may be called from any thread at any
 * time: none keeps state. None allocates, except xvMemDup and xvStrTDup,
 * which allocate from the pool they are passed.
 */
#ifndef QMHOSTCM_H
#define QMHOSTCM_H

#include "qmkernel.h"

QM_EXTERN_C_BEGIN

/* The Unicode version of the case mapping and classification tables. */
#define QMHOSTCM_UNICODE_VERSION "14.0.0"

/* ---- comparison and case mapping of QMChar strings --------------------- */

/* 1 when the two strings have equal lengths and equal characters (exact,
   case-sensitive); two empty strings are equal. 0 otherwise, and 0 when
   either string is invalid. */
QM_EXPORT QMBoolean qmzsCompare(const QMChar *str1, QMStrSize str1L, const QMChar *str2,
                                QMStrSize str2L) QM_NOEXCEPT;

/* 1 when the two strings are equal once normalised: blanks (the characters
   of qmnlsisspace) removed from both ends, then every character replaced by
   its simple case folding (qmnlstofold). Blanks inside are kept and compared
   as they are. Folding is one-to-one: " STRA<U+1E9E>E" equals "stra<U+00DF>e"
   but not "strasse". 0 otherwise, and 0 when either string is invalid. */
QM_EXPORT QMBoolean qmzsCompareNorm(const QMChar *str1, QMStrSize str1L, const QMChar *str2,
                                    QMStrSize str2L) QM_NOEXCEPT;

/* The part of str without its leading and trailing blanks (the characters
   of qmnlsisspace), without copying: returns a pointer into str and sets
   *outlen to its length (0 when str is all blanks). For the empty string
   given as null, and for an invalid str, returns null and sets *outlen to 0;
   returns null when outlen is null. */
QM_EXPORT const QMChar *qmzsStripBlanks(const QMChar *str, QMStrSize len,
                                        QMStrSize *outlen) QM_NOEXCEPT;

/* Lower-case (qmzstlo) or upper-case (qmzstup) str in place with the simple
   mappings (qmnlstolower, qmnlstoupper): U+0130 becomes U+0069, U+1E9E
   becomes U+00DF, U+00DF stays. 0, or QM_E_BAD_ARGUMENT for an invalid str
   (nothing written). */
QM_EXPORT QMStatus qmzstlo(QMChar *str, QMStrSize len) QM_NOEXCEPT;
QM_EXPORT QMStatus qmzstup(QMChar *str, QMStrSize len) QM_NOEXCEPT;

/* Orders the first n characters of two strings as strncmp does, by code
   point value: each string is cut to its first n characters (fewer when it
   is shorter), then they are compared character by character, and a string
   that is a proper prefix of the other orders first. Returns -1, 0 or 1.
   n <= 0 compares nothing (0). An invalid string orders as the empty one. */
QM_EXPORT int qmzsncmp(const QMChar *str1, QMStrSize str1L, const QMChar *str2, QMStrSize str2L,
                       QMStrSize n) QM_NOEXCEPT;

/* 1 when the first n characters of the two strings are equal in the sense of
   qmzsncmp (qmzsncmp would answer 0). 0 otherwise, and 0 when either string
   is invalid. */
QM_EXPORT QMBoolean qmzseqn(const QMChar *str1, QMStrSize str1L, const QMChar *str2,
                            QMStrSize str2L, QMStrSize n) QM_NOEXCEPT;

/* The smallest (qmzstmin) or largest (qmzstmax) code point value in str;
   qmzstmax(s, n) < 0x80 says s fits ASCII, < 0x100 ISO-8859-1. 0 for an
   empty or invalid str. */
QM_EXPORT QMChar qmzstmin(const QMChar *str, QMStrSize len) QM_NOEXCEPT;
QM_EXPORT QMChar qmzstmax(const QMChar *str, QMStrSize len) QM_NOEXCEPT;

/* ---- memory and narrow strings ----------------------------------------- */

/* Length in bytes of a zero-terminated narrow string; 0 for null. */
QM_EXPORT QMMemSize xvStrLen(const char *s) QM_NOEXCEPT;

/* Length in characters of a zero-terminated QMChar string; 0 for null. */
QM_EXPORT QMStrSize xvStrTLen(const QMChar *s) QM_NOEXCEPT;

/* Copies n bytes from src to dst (the two may overlap) and returns dst.
   With n 0 copies nothing and returns dst. With a null dst or src and n > 0
   copies nothing and returns null. */
QM_EXPORT void *xvMemCpy(void *dst, const void *src, QMMemSize n) QM_NOEXCEPT;

/* Copies n bytes from src into dst, which holds cap bytes (the two may
   overlap). 0 when all n bytes fit; QM_E_BUFFER_TOO_SMALL when n > cap, after
   copying the first cap bytes; QM_E_BAD_ARGUMENT when dst is null with
   cap > 0 or src is null with n > 0. */
QM_EXPORT QMStatus xvMemSCpy(void *dst, QMMemSize cap, const void *src, QMMemSize n) QM_NOEXCEPT;

/* Copies the string src (len characters) into dst, which holds cap
   characters, and terminates it with a zero: it needs cap > len. 0 when it
   fits; QM_E_BUFFER_TOO_SMALL when it does not, after writing the first
   cap - 1 characters and a zero (nothing when cap is 0); QM_E_BAD_ARGUMENT
   for an invalid src, a negative cap, or a null dst with cap > 0. src and dst
   must not overlap. */
QM_EXPORT QMStatus xvStrTSCpy(QMChar *dst, QMStrSize cap, const QMChar *src,
                              QMStrSize len) QM_NOEXCEPT;

/* Copies n bytes of src into a new block of pool: *out receives a block of
   n bytes (1 when n is 0) that the caller gives back with pool->memFree.
   0; QM_E_BAD_ARGUMENT for a null pool or out, or a null src with n > 0;
   QM_E_NO_MEMORY when the pool refuses. *out is null on every failure (when
   out is not null). */
QM_EXPORT QMStatus xvMemDup(QMPoolh pool, const void *src, QMMemSize n, void **out) QM_NOEXCEPT;

/* As xvMemDup for the string s (len characters) plus a terminating zero:
   *out holds len + 1 characters. QM_E_BAD_ARGUMENT also for an invalid s or
   a len too large to count in bytes. */
QM_EXPORT QMStatus xvStrTDup(QMPoolh pool, const QMChar *s, QMStrSize len,
                             QMChar **out) QM_NOEXCEPT;

/* The first byte equal to c among the n bytes at s, or null (also for a null
   s). */
QM_EXPORT const void *xvMemScan(const void *s, QMMemSize n, unsigned char c) QM_NOEXCEPT;

/* The first character equal to c in the string s, or null (also for an
   invalid s). */
QM_EXPORT const QMChar *xvStrTScan(const QMChar *s, QMStrSize len, QMChar c) QM_NOEXCEPT;

/* ---- conversion between QMChar and narrow text -------------------------- */

/* Compiler2QMChar reads narrow text in the compiler's character set, the
   encoding of the program's string literals: UTF-8 on this platform, checked
   when the library is built. It writes the characters of in (inlen bytes, no
   terminator needed) into out, which holds cap characters, without a
   terminator, and sets *outlen to the characters the whole text takes.
   0 when they all fit; QM_E_BUFFER_TOO_SMALL when they do not, after writing
   the first cap; QM_E_INVALID_SEQUENCE when in is not valid UTF-8 (overlong
   forms, encoded surrogates, values above U+10FFFF and cut sequences
   included), with *outlen the characters before the bad byte; this status
   wins over QM_E_BUFFER_TOO_SMALL. QM_E_BAD_ARGUMENT for a null outlen, a
   null in with inlen > 0, a negative cap or a null out with cap > 0. */
QM_EXPORT QMStatus Compiler2QMChar(const char *in, QMMemSize inlen, QMChar *out, QMStrSize cap,
                                   QMStrSize *outlen) QM_NOEXCEPT;

/* QMChar2Compiler writes the string in (len characters) as UTF-8 into out,
   which holds cap bytes, always terminated with a zero byte when cap > 0,
   and sets *outlen to the bytes the whole text takes without the zero.
   Characters are written whole or not at all. 0 when it fits with its zero;
   QM_E_BUFFER_TOO_SMALL when it does not, after writing the characters that
   fit; QM_E_UNMAPPABLE at an invalid code point, with *outlen the bytes of
   the characters before it (written as far as they fit); this status wins
   over QM_E_BUFFER_TOO_SMALL. QM_E_BAD_ARGUMENT for a null outlen, an
   invalid in or a null out with cap > 0. */
QM_EXPORT QMStatus QMChar2Compiler(const QMChar *in, QMStrSize len, char *out, QMMemSize cap,
                                   QMMemSize *outlen) QM_NOEXCEPT;

/* How QMChar2ASCII treats a character outside ASCII. */
typedef enum QM_ASCII_MODE_E {
  QM_ASCII_STRICT = 0, /* refuse it: QM_E_UNMAPPABLE */
  QM_ASCII_ESCAPE = 1  /* write it with putUESC, as every character outside
                          U+0020..U+007E is, and the backslash itself, so the
                          text reads back unambiguously and prints safely */
} QMASCIIMode;

/* As QMChar2Compiler, into 7-bit ASCII: in QM_ASCII_STRICT mode a character
   above U+007F gives QM_E_UNMAPPABLE as an invalid code point does; in
   QM_ASCII_ESCAPE mode nothing is refused. QM_E_BAD_ARGUMENT also for an
   unknown mode. */
QM_EXPORT QMStatus QMChar2ASCII(const QMChar *in, QMStrSize len, char *out, QMMemSize cap,
                                QMMemSize *outlen, QMASCIIMode mode) QM_NOEXCEPT;

/* Writes the escape of c into out (cap bytes) with a terminating zero:
   "\uXXXX" for c <= U+FFFF, "\UXXXXXXXX" above, in upper-case hexadecimal;
   any value is escaped, invalid code points included. Returns the bytes
   written without the zero (6 or 10), or 0 when out is null or cap is too
   small (then out[0] is zero when cap > 0). */
QM_EXPORT QMMemSize putUESC(QMChar c, char *out, QMMemSize cap) QM_NOEXCEPT;

/* ---- classification and case mapping of one character ------------------- */

/* 1 when c has the class, else 0. alpha: a letter (general category L);
   digit: a decimal digit (Nd); alnum: either; space: the Unicode White_Space
   property (Zs, Zl, Zp, TAB to CR, U+0085); upper and lower: the Unicode
   Uppercase and Lowercase properties (a titlecase letter such as U+01C5 has
   neither); print: a character that is shown (every category but Cc, Cf,
   Cs, Co, Cn, Zl and Zp; spaces are shown); cntrl: a control (Cc); punct:
   punctuation or a symbol (P, S); valid: a Unicode scalar value (not a
   surrogate, not above U+10FFFF). */
QM_EXPORT QMBoolean qmnlsisalpha(QMChar c) QM_NOEXCEPT;
QM_EXPORT QMBoolean qmnlsisdigit(QMChar c) QM_NOEXCEPT;
QM_EXPORT QMBoolean qmnlsisalnum(QMChar c) QM_NOEXCEPT;
QM_EXPORT QMBoolean qmnlsisspace(QMChar c) QM_NOEXCEPT;
QM_EXPORT QMBoolean qmnlsisupper(QMChar c) QM_NOEXCEPT;
QM_EXPORT QMBoolean qmnlsislower(QMChar c) QM_NOEXCEPT;
QM_EXPORT QMBoolean qmnlsisprint(QMChar c) QM_NOEXCEPT;
QM_EXPORT QMBoolean qmnlsiscntrl(QMChar c) QM_NOEXCEPT;
QM_EXPORT QMBoolean qmnlsispunct(QMChar c) QM_NOEXCEPT;
QM_EXPORT QMBoolean qmnlsisvalid(QMChar c) QM_NOEXCEPT;

/* The simple lowercase mapping, uppercase mapping and case folding of c;
   c itself when it has none and when it is invalid. Folding is what
   qmzsCompareNorm compares: U+03A3, U+03C3 and U+03C2 all fold to U+03C3. */
QM_EXPORT QMChar qmnlstolower(QMChar c) QM_NOEXCEPT;
QM_EXPORT QMChar qmnlstoupper(QMChar c) QM_NOEXCEPT;
QM_EXPORT QMChar qmnlstofold(QMChar c) QM_NOEXCEPT;

/* ---- classification of strings ------------------------------------------ */

/* 1 when str is not empty and every character has the class of the
   qmnlsis* predicate of the same name; NLSIsValid is 1 for the empty string
   too. 0 otherwise, and 0 for an invalid str. */
QM_EXPORT QMBoolean NLSIsAlpha(const QMChar *str, QMStrSize len) QM_NOEXCEPT;
QM_EXPORT QMBoolean NLSIsDigit(const QMChar *str, QMStrSize len) QM_NOEXCEPT;
QM_EXPORT QMBoolean NLSIsAlnum(const QMChar *str, QMStrSize len) QM_NOEXCEPT;
QM_EXPORT QMBoolean NLSIsSpace(const QMChar *str, QMStrSize len) QM_NOEXCEPT;
QM_EXPORT QMBoolean NLSIsUpper(const QMChar *str, QMStrSize len) QM_NOEXCEPT;
QM_EXPORT QMBoolean NLSIsLower(const QMChar *str, QMStrSize len) QM_NOEXCEPT;
QM_EXPORT QMBoolean NLSIsPrint(const QMChar *str, QMStrSize len) QM_NOEXCEPT;
QM_EXPORT QMBoolean NLSIsValid(const QMChar *str, QMStrSize len) QM_NOEXCEPT;

QM_EXTERN_C_END

#endif /* QMHOSTCM_H */
