#!/usr/bin/env python3
"""Generates the character tables of the host-common utilities.

    python3 qmhostcm/gen/gen_xvztbl.py        # from the repository's root

writes qmhostcm/src/xvztbl.h, qmhostcm/src/xvztbl.cpp and
qmhostcm/gen/xvztbl_reference.txt from the Unicode Character Database that
Python's unicodedata module carries. The outputs are committed, so building
needs no Python; rerun this after a Python upgrade to move to a newer Unicode
version, then update QMHOSTCM_UNICODE_VERSION in qmhostcm/include/qmhostcm.h
(xvztbl.cpp refuses to compile while the two disagree).

Every code point 0..0x10FFFF gets one record: class flags and three deltas
(simple lowercase, simple uppercase and simple case folding, each as target
minus code point). Records are deduplicated and reached through a two-stage
index: kIndex1[c >> shift] names a block, kIndex2[block << shift | low bits]
names the record. The shift is the one that makes the tables smallest.

Python exposes full case mappings (str.lower, str.upper, str.casefold), not
the simple one-to-one mappings of UnicodeData.txt, so they are derived:
- simple lowercase: the full lowercase when it is one character. The only
  character with a longer lowercase is U+0130, whose simple lowercase is its
  first character U+0069; any other is refused so that a new Unicode version
  is looked at rather than guessed.
- simple uppercase: the full uppercase when it is one character; else the full
  titlecase when it is one character (the Greek letters with ypogegrammeni map
  to their prosgegrammeni forms); else the character itself (U+00DF, U+0149,
  the ligatures...).
- simple case folding: the full folding when it is one character; else the
  simple lowercase when that folds fully to the same text (U+1E9E -> U+00DF,
  U+1F88 -> U+1F80); else the character itself.

The reference file lists, in plain text, every code point whose mappings are
not the identity and every run of code points with equal class flags; the tests
compare the compact tables against it over the whole code space.
"""

import os
import sys
import unicodedata

MAX_CP = 0x110000

ALPHA, DIGIT, SPACE, UPPER, LOWER, PRINT, CNTRL, PUNCT = (1 << i for i in range(8))
FLAG_NAMES = [
    ("kAlpha", ALPHA, "a letter: general category L"),
    ("kDigit", DIGIT, "a decimal digit: general category Nd"),
    ("kSpace", SPACE, "white space: categories Zs, Zl, Zp, TAB to CR and U+0085"),
    ("kUpper", UPPER, "the Unicode Uppercase property"),
    ("kLower", LOWER, "the Unicode Lowercase property"),
    ("kPrint", PRINT, "shown: every category except Cc, Cf, Cs, Co, Cn, Zl, Zp"),
    ("kCntrl", CNTRL, "a control: general category Cc"),
    ("kPunct", PUNCT, "punctuation or symbol: general categories P and S"),
]
FLAG_LETTERS = "adsulpcx"  # one letter per flag bit, for the reference file

SPACE_CONTROLS = {0x09, 0x0A, 0x0B, 0x0C, 0x0D, 0x85}
NOT_PRINTED = {"Cc", "Cf", "Cs", "Co", "Cn", "Zl", "Zp"}


def is_scalar(cp):
    return cp < MAX_CP and not 0xD800 <= cp <= 0xDFFF


def flags_of(cp):
    if not is_scalar(cp):
        return 0
    ch = chr(cp)
    cat = unicodedata.category(ch)
    f = 0
    if cat[0] == "L":
        f |= ALPHA
    if cat == "Nd":
        f |= DIGIT
    if cat in ("Zs", "Zl", "Zp") or cp in SPACE_CONTROLS:
        f |= SPACE
    if ch.isupper():  # one character: the Uppercase property
        f |= UPPER
    if ch.islower():  # one character: the Lowercase property
        f |= LOWER
    if cat not in NOT_PRINTED:
        f |= PRINT
    if cat == "Cc":
        f |= CNTRL
    if cat[0] in ("P", "S"):
        f |= PUNCT
    return f


def simple_lower(cp):
    full = chr(cp).lower()
    if len(full) == 1:
        return ord(full)
    if cp != 0x0130:
        sys.exit("gen_xvztbl: U+%04X has a multi-character lowercase; decide its simple one" % cp)
    return ord(full[0])


def simple_upper(cp):
    full = chr(cp).upper()
    if len(full) == 1:
        return ord(full)
    title = chr(cp).title()
    if len(title) == 1:
        return ord(title)
    return cp


def simple_fold(cp):
    full = chr(cp).casefold()
    if len(full) == 1:
        return ord(full)
    lower = simple_lower(cp)
    if lower != cp and chr(lower).casefold() == full:
        return lower
    return cp


def record_of(cp):
    if not is_scalar(cp):
        return (0, 0, 0, 0)  # invalid code points: no class, never mapped
    return (flags_of(cp), simple_lower(cp) - cp, simple_upper(cp) - cp, simple_fold(cp) - cp)


def ctype_for(maxval):
    if maxval < 1 << 8:
        return "uint8_t", 1
    if maxval < 1 << 16:
        return "uint16_t", 2
    return "uint32_t", 4


def two_stage(values, shift):
    """Splits values into blocks of 1 << shift; returns (index1, index2)."""
    size = 1 << shift
    blocks, index1, index2 = {}, [], []
    for start in range(0, len(values), size):
        block = tuple(values[start:start + size])
        if block not in blocks:
            blocks[block] = len(blocks)
            index2.extend(block)
        index1.append(blocks[block])
    return index1, index2


def best_two_stage(values):
    best = None
    for shift in range(4, 11):
        i1, i2 = two_stage(values, shift)
        cost = len(i1) * ctype_for(max(i1))[1] + len(i2) * ctype_for(max(i2))[1]
        if best is None or cost < best[0]:
            best = (cost, shift, i1, i2)
    return best


def c_array(ctype, name, values, per_line=16):
    lines = ["const %s %s[%d] = {" % (ctype, name, len(values))]
    for i in range(0, len(values), per_line):
        lines.append("    " + ", ".join(str(v) for v in values[i:i + per_line]) + ",")
    lines.append("};")
    return "\n".join(lines)


def main():
    root = os.path.normpath(os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
    version = unicodedata.unidata_version

    records = {(0, 0, 0, 0): 0}  # record 0: no class, no mapping
    per_cp = []
    for cp in range(MAX_CP):
        rec = record_of(cp)
        per_cp.append(records.setdefault(rec, len(records)))
    rec_list = sorted(records, key=records.get)
    cost, shift, index1, index2 = best_two_stage(per_cp)
    t1, _ = ctype_for(max(index1))
    t2, _ = ctype_for(max(index2))
    rec_bytes = len(rec_list) * 16
    banner = ("Generated by qmhostcm/gen/gen_xvztbl.py from the Unicode Character Database %s."
              " Do not edit." % version)

    flag_lines = "\n".join("  %s = 0x%02x,  // %s" % (n, v, d) for n, v, d in FLAG_NAMES)
    header = f"""// {banner}
// clang-format off
// The class flags and simple case mappings of every code point, in
// {cost + rec_bytes} bytes: a two-stage index of {len(index1)} + {len(index2)} entries over
// {len(rec_list)} distinct records.
#ifndef XVZTBL_H
#define XVZTBL_H

#include <cstdint>

#include "qmtypes.h"

#define XVZTBL_UNICODE_VERSION "{version}"

namespace qmhostcm::tbl {{

// What one code point is: its class flags and its simple mappings, each
// stored as the target minus the code point.
struct CharRecord {{
  int32_t lower;  // simple lowercase mapping
  int32_t upper;  // simple uppercase mapping
  int32_t fold;   // simple case folding
  uint8_t flags;  // the Flag bits below
}};

enum Flag : uint8_t {{
{flag_lines}
}};

inline constexpr unsigned kShift = {shift};
extern const {t1} kIndex1[{len(index1)}];
extern const {t2} kIndex2[{len(index2)}];
extern const CharRecord kRecords[{len(rec_list)}];

// The record of c. Code points above U+10FFFF, and the surrogates (whose
// record is record 0), have no class and map to themselves.
inline const CharRecord &record(QMChar c) noexcept {{
  if (c >= 0x110000u) return kRecords[0];
  const unsigned block = kIndex1[c >> kShift];
  return kRecords[kIndex2[(block << kShift) | (c & ((1u << kShift) - 1u))]];
}}

}}  // namespace qmhostcm::tbl

#endif  // XVZTBL_H
"""

    rec_lines = ["const CharRecord kRecords[%d] = {" % len(rec_list)]
    for f, lo, up, fo in rec_list:
        rec_lines.append("    {%d, %d, %d, 0x%02x}," % (lo, up, fo, f))
    rec_lines.append("};")
    source = f"""// {banner}
// clang-format off
#include "xvztbl.h"

#include <string_view>

#include "qmhostcm.h"

static_assert(std::string_view(XVZTBL_UNICODE_VERSION) == QMHOSTCM_UNICODE_VERSION,
              "qmhostcm.h names another Unicode version than the generated tables");

namespace qmhostcm::tbl {{

{c_array(t1, "kIndex1", index1)}

{c_array(t2, "kIndex2", index2, 32)}

{chr(10).join(rec_lines)}

}}  // namespace qmhostcm::tbl
"""

    ref = ["# " + banner,
           "# M code-point lower upper fold: every code point with a mapping other than itself",
           "# C first last flags: runs of equal class flags, one letter per flag (%s:" % FLAG_LETTERS
           + " alpha digit space upper lower print cntrl punct), '-' for none"]
    for cp in range(MAX_CP):
        _, lo, up, fo = rec_list[per_cp[cp]]
        if lo or up or fo:
            ref.append("M %04X %04X %04X %04X" % (cp, cp + lo, cp + up, cp + fo))
    start = 0
    for cp in range(1, MAX_CP + 1):
        if cp == MAX_CP or rec_list[per_cp[cp]][0] != rec_list[per_cp[start]][0]:
            f = rec_list[per_cp[start]][0]
            letters = "".join(l for i, l in enumerate(FLAG_LETTERS) if f & (1 << i)) or "-"
            ref.append("C %04X %04X %s" % (start, cp - 1, letters))
            start = cp

    outputs = {
        os.path.join(root, "src", "xvztbl.h"): header,
        os.path.join(root, "src", "xvztbl.cpp"): source,
        os.path.join(root, "gen", "xvztbl_reference.txt"): "\n".join(ref) + "\n",
    }
    for path, text in outputs.items():
        with open(path, "w", encoding="ascii") as out:
            out.write(text)
    print("Unicode %s: shift %d, %d records, %d bytes of tables" % (version, shift, len(rec_list),
                                                                   cost + rec_bytes))


if __name__ == "__main__":
    main()
