// The host-common character utilities and the version stamp, through
// libqmhostcm.so as an embedding program links them.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "fuzz/hostcm_reference.h"
#include "qmhostcm.h"
#include "qmtest_fixture.h"
#include "qmversion.h"

namespace {

using Text = std::vector<QMChar>;
Text T(std::u32string_view s) {
  return Text(s.begin(), s.end());
}
QMStrSize L(const Text &t) {
  return static_cast<QMStrSize>(t.size());
}
std::string H(QMChar c) {
  return qmtest::hex(static_cast<QMStatus>(c));
}

TEST(QmhostcmChar, SimpleMappingsAndClassesOfChosenCharacters) {
  // c, lower, upper, fold, classes (a d s u l p c x: alpha digit space upper
  // lower print cntrl punct)
  // clang-format off
  struct Row { QMChar c, lo, up, fold; const char *cls; } rows[] = {
      {U'A', U'a', U'A', U'a', "aup"},               {0x00C9, 0x00E9, 0x00C9, 0x00E9, "aup"},
      {0x0130, 0x0069, 0x0130, 0x0130, "aup"},       {0x0131, 0x0131, 0x0049, 0x0131, "alp"},
      {0x03A3, 0x03C3, 0x03A3, 0x03C3, "aup"},       {0x03C2, 0x03C2, 0x03A3, 0x03C3, "alp"},
      {0x1E9E, 0x00DF, 0x1E9E, 0x00DF, "aup"},       {0x00DF, 0x00DF, 0x00DF, 0x00DF, "alp"},
      {0x01C5, 0x01C6, 0x01C4, 0x01C6, "ap"},        {0x1F80, 0x1F80, 0x1F88, 0x1F80, "alp"},
      {0x212A, 0x006B, 0x212A, 0x006B, "aup"},       {0x13A0, 0xAB70, 0x13A0, 0x13A0, "aup"},
      {0x10400, 0x10428, 0x10400, 0x10428, "aup"},   {0x00AA, 0x00AA, 0x00AA, 0x00AA, "alp"},
      {U'7', U'7', U'7', U'7', "dp"},                {0x0663, 0x0663, 0x0663, 0x0663, "dp"},
      {0x00A0, 0x00A0, 0x00A0, 0x00A0, "sp"},        {0x2028, 0x2028, 0x2028, 0x2028, "s"},
      {0x0085, 0x0085, 0x0085, 0x0085, "sc"},        {U'$', U'$', U'$', U'$', "px"},
      {0x200D, 0x200D, 0x200D, 0x200D, ""},          {0xE000, 0xE000, 0xE000, 0xE000, ""},
      {0x0378, 0x0378, 0x0378, 0x0378, ""},          {0, 0, 0, 0, "c"},
      {0xD800, 0xD800, 0xD800, 0xD800, ""},          {0x10FFFF, 0x10FFFF, 0x10FFFF, 0x10FFFF, ""},
      {0x110000, 0x110000, 0x110000, 0x110000, ""},
      {0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, ""},
  };
  // clang-format on
  for (const Row &r : rows) {
    SCOPED_TRACE(H(r.c));
    EXPECT_EQ(H(qmnlstolower(r.c)), H(r.lo));
    EXPECT_EQ(H(qmnlstoupper(r.c)), H(r.up));
    EXPECT_EQ(H(qmnlstofold(r.c)), H(r.fold));
    auto has = [&](char k) { return std::strchr(r.cls, k) != nullptr ? 1 : 0; };
    EXPECT_EQ(qmnlsisalpha(r.c), has('a'));
    EXPECT_EQ(qmnlsisdigit(r.c), has('d'));
    EXPECT_EQ(qmnlsisalnum(r.c), has('a') | has('d'));
    EXPECT_EQ(qmnlsisspace(r.c), has('s'));
    EXPECT_EQ(qmnlsisupper(r.c), has('u'));
    EXPECT_EQ(qmnlsislower(r.c), has('l'));
    EXPECT_EQ(qmnlsisprint(r.c), has('p'));
    EXPECT_EQ(qmnlsiscntrl(r.c), has('c'));
    EXPECT_EQ(qmnlsispunct(r.c), has('x'));
    EXPECT_EQ(qmnlsisvalid(r.c), r.c < 0xD800 || (r.c > 0xDFFF && r.c <= 0x10FFFF) ? 1 : 0);
  }
}

// The compact tables against the generator's plain list, over every code
// point and past the end of the code space.
TEST(QmhostcmChar, TablesAgreeWithTheReferenceEverywhere) {
  const hostcm_ref::Reference ref(QMTEST_SOURCE_DIR "/qmhostcm/gen/xvztbl_reference.txt");
  ASSERT_TRUE(ref.loaded);
  using P = QMBoolean (*)(QMChar);
  const P preds[] = {qmnlsisalpha, qmnlsisdigit, qmnlsisspace, qmnlsisupper,
                     qmnlsislower, qmnlsisprint, qmnlsiscntrl, qmnlsispunct};
  int mismatches = 0;
  for (QMChar c = 0; c < 0x110100 && mismatches < 10; ++c) {
    bool ok = qmnlstolower(c) == ref.lower(c) && qmnlstoupper(c) == ref.upper(c) &&
              qmnlstofold(c) == ref.fold(c);
    for (int k = 0; k < 8; ++k) ok = ok && (preds[k](c) != 0) == ref.has(c, uint8_t(1u << k));
    if (!ok) {
      ADD_FAILURE() << "mismatch at " << H(c);
      ++mismatches;
    }
  }
}

TEST(QmhostcmStrings, ExactAndNormalisedEquality) {
  struct Row {
    std::u32string_view a, b;
    QMBoolean exact, norm;
  } rows[] = {
      {U"", U"", 1, 1},
      {U"orders.db", U"orders.db", 1, 1},
      {U"orders.db", U"ORDERS.DB", 0, 1},
      {U" \t\u00C9lan\u3000", U"\u00E9LAN", 0, 1},
      {U"\u00E9 lan", U"\u00E9lan", 0, 0},
      {U"\u03A3\u038A\u03A3\u03A5\u03A6\u039F\u03A3", U"\u03C3\u03AF\u03C3\u03C5\u03C6\u03BF\u03C2",
       0, 1},
      {U"STRA\u1E9EE", U"stra\u00DFe", 0, 1},
      {U"stra\u00DFe", U"strasse", 0, 0},
      {U"\u0130", U"i", 0, 0},
      {U"ab", U"abc", 0, 0},
      {U"\u2028 \u00A0", U"", 0, 1},
      {U"a\xD800", U"A\xD800", 0, 1},
      {U"\xD800", U"\xDC00", 0, 0},
  };
  for (const Row &r : rows) {
    Text a = T(r.a), b = T(r.b);
    SCOPED_TRACE(::testing::Message() << "row " << (&r - rows));
    EXPECT_EQ(qmzsCompare(a.data(), L(a), b.data(), L(b)), r.exact);
    EXPECT_EQ(qmzsCompare(b.data(), L(b), a.data(), L(a)), r.exact);
    EXPECT_EQ(qmzsCompareNorm(a.data(), L(a), b.data(), L(b)), r.norm);
    EXPECT_EQ(qmzsCompareNorm(b.data(), L(b), a.data(), L(a)), r.norm);
  }
  const Text e = T(U"");
  EXPECT_EQ(qmzsCompare(nullptr, 0, e.data(), 0), 1);  // null with no characters: empty
  EXPECT_EQ(qmzsCompareNorm(nullptr, 0, nullptr, 0), 1);
  for (auto cmp : {qmzsCompare, qmzsCompareNorm}) {  // invalid strings are never equal
    EXPECT_EQ(cmp(nullptr, 3, nullptr, 3), 0);
    EXPECT_EQ(cmp(e.data(), -1, e.data(), -1), 0);
  }
}

TEST(QmhostcmStrings, StripAndMapInPlace) {
  Text s = T(U"\u3000 \u00C9lan \u0130STANBUL \u1E9E \u03C2\xD800\U0010FFFF\t\n");
  QMStrSize n = -1;
  const QMChar *p = qmzsStripBlanks(s.data(), L(s), &n);
  ASSERT_EQ(p, s.data() + 2);
  ASSERT_EQ(n, L(s) - 4);
  Text core(p, p + n);
  ASSERT_EQ(qmzstlo(core.data(), n), 0);
  EXPECT_EQ(core, T(U"\u00E9lan istanbul \u00DF \u03C2\xD800\U0010FFFF"));
  ASSERT_EQ(qmzstup(core.data(), n), 0);
  EXPECT_EQ(core, T(U"\u00C9LAN ISTANBUL \u00DF \u03A3\xD800\U0010FFFF"));

  const Text blanks = T(U" \u2029\u0085");
  EXPECT_EQ(qmzsStripBlanks(blanks.data(), L(blanks), &n), blanks.data() + 3);
  EXPECT_EQ(n, 0);
  EXPECT_EQ(qmzsStripBlanks(nullptr, 0, &n), nullptr);
  EXPECT_EQ(n, 0);
  n = 5;
  EXPECT_EQ(qmzsStripBlanks(nullptr, 2, &n), nullptr);
  EXPECT_EQ(n, 0);
  EXPECT_EQ(qmzsStripBlanks(s.data(), L(s), nullptr), nullptr);
  Text canary = T(U"Ab");
  EXPECT_STATUS(QM_E_BAD_ARGUMENT, qmzstlo(canary.data(), -2));
  EXPECT_STATUS(QM_E_BAD_ARGUMENT, qmzstup(nullptr, 1));
  EXPECT_EQ(canary, T(U"Ab"));
  EXPECT_EQ(qmzstlo(nullptr, 0), 0);
}

TEST(QmhostcmStrings, BoundedOrderAndExtremes) {
  const Text abc = T(U"abc"), abd = T(U"abd"), ab = T(U"ab"), hi = T(U"a\U0010FFFF\xD800");
  EXPECT_EQ(qmzsncmp(abc.data(), 3, abd.data(), 3, 3), -1);
  EXPECT_EQ(qmzsncmp(abd.data(), 3, abc.data(), 3, 9), 1);
  EXPECT_EQ(qmzsncmp(abc.data(), 3, abd.data(), 3, 2), 0);
  EXPECT_EQ(qmzsncmp(ab.data(), 2, abc.data(), 3, 3), -1);  // a proper prefix orders first
  EXPECT_EQ(qmzsncmp(abc.data(), 3, ab.data(), 2, 2), 0);
  EXPECT_EQ(qmzsncmp(abc.data(), 3, abd.data(), 3, -4), 0);
  EXPECT_EQ(qmzsncmp(hi.data(), 3, abc.data(), 3, 3), 1);  // by code point, not as signed values
  EXPECT_EQ(qmzsncmp(nullptr, 7, abc.data(), 3, 3), -1);   // invalid orders as empty
  EXPECT_EQ(qmzseqn(abc.data(), 3, abd.data(), 3, 2), 1);
  EXPECT_EQ(qmzseqn(abc.data(), 3, abd.data(), 3, 3), 0);
  EXPECT_EQ(qmzseqn(nullptr, 7, nullptr, 0, 3), 0);
  EXPECT_EQ(H(qmzstmax(hi.data(), 3)), H(0x10FFFF));
  EXPECT_EQ(H(qmzstmin(hi.data(), 3)), H(U'a'));
  EXPECT_EQ(qmzstmax(nullptr, 0), 0u);
  EXPECT_EQ(qmzstmin(abc.data(), -1), 0u);
}

TEST(QmhostcmStrings, WholeStringClasses) {
  const Text word = T(U"\u00C9t\u00E9"), digits = T(U"12\u0663"), mixed = T(U"A1");
  const Text upper = T(U"\u0130\u03A3"), bad = T(U"a\xDFFF");
  EXPECT_EQ(NLSIsAlpha(word.data(), 3), 1);
  EXPECT_EQ(NLSIsLower(word.data(), 3), 0);
  EXPECT_EQ(NLSIsDigit(digits.data(), 3), 1);
  EXPECT_EQ(NLSIsAlnum(mixed.data(), 2), 1);
  EXPECT_EQ(NLSIsAlpha(mixed.data(), 2), 0);
  EXPECT_EQ(NLSIsUpper(upper.data(), 2), 1);
  EXPECT_EQ(NLSIsPrint(bad.data(), 2), 0);
  EXPECT_EQ(NLSIsValid(bad.data(), 2), 0);
  EXPECT_EQ(NLSIsValid(nullptr, 0), 1);
  EXPECT_EQ(NLSIsSpace(nullptr, 0), 0);
  EXPECT_EQ(NLSIsAlpha(nullptr, 4), 0);
}

TEST(QmhostcmMemory, CopiesAtExactAndShortCapacities) {
  const char src[] = "0123456789";
  for (QMMemSize cap : {0u, 1u, 9u, 10u, 11u}) {
    std::string dst(16, '#');
    QMStatus rc = xvMemSCpy(cap ? dst.data() : nullptr, cap, src, 10);
    EXPECT_STATUS(cap >= 10 ? 0 : QM_E_BUFFER_TOO_SMALL, rc);
    const size_t copied = cap < 10 ? cap : 10;
    EXPECT_EQ(dst, std::string(src, copied) + std::string(16 - copied, '#')) << "cap " << cap;
  }
  EXPECT_STATUS(QM_E_BAD_ARGUMENT, xvMemSCpy(nullptr, 4, src, 2));
  EXPECT_STATUS(QM_E_BAD_ARGUMENT, xvMemSCpy(nullptr, 0, nullptr, 1));
  char overlap[] = "abcdef";
  EXPECT_EQ(xvMemCpy(overlap + 1, overlap, 4), overlap + 1);
  EXPECT_STREQ(overlap, "aabcdf");
  EXPECT_EQ(xvMemCpy(nullptr, src, 1), nullptr);

  const Text name = T(U"d\u00E9j\u00E0");
  for (QMStrSize cap : {0, 1, 4, 5, 6}) {
    Text dst(8, 0xAAAA);
    QMStatus rc = xvStrTSCpy(cap ? dst.data() : nullptr, cap, name.data(), 4);
    EXPECT_STATUS(cap > 4 ? 0 : QM_E_BUFFER_TOO_SMALL, rc);
    const QMStrSize kept = cap > 4 ? 4 : (cap > 0 ? cap - 1 : 0);
    Text want(name.begin(), name.begin() + kept);
    if (cap > 0) want.push_back(0);
    want.resize(8, 0xAAAA);
    EXPECT_EQ(dst, want) << "cap " << cap;
  }
  Text dst(4, 7);
  EXPECT_STATUS(QM_E_BAD_ARGUMENT, xvStrTSCpy(dst.data(), -1, name.data(), 4));
  EXPECT_STATUS(QM_E_BAD_ARGUMENT, xvStrTSCpy(dst.data(), 4, nullptr, 4));
  EXPECT_EQ(dst, Text(4, 7));

  EXPECT_EQ(xvStrLen("qm\xC3\xA9"), 4u);
  EXPECT_EQ(xvStrLen(nullptr), 0u);
  const QMChar z[] = {U'a', 0x10FFFF, 0};
  EXPECT_EQ(xvStrTLen(z), 2);
  EXPECT_EQ(xvStrTLen(nullptr), 0);
  EXPECT_EQ(xvMemScan(src, 10, '7'), src + 7);
  EXPECT_EQ(xvMemScan(src, 7, '7'), nullptr);
  EXPECT_EQ(xvStrTScan(name.data(), 4, 0x00E0), name.data() + 3);
  EXPECT_EQ(xvStrTScan(nullptr, 4, 0), nullptr);
}

TEST(QmhostcmMemory, DuplicatesLiveInTheCallersPool) {
  QMHndlp host = qmhost_create(nullptr);
  ASSERT_NE(host, nullptr);
  QMPoolCreateParms parms{};
  QMPoolh pool = host->poolCreate(host, &parms, nullptr, "hostcm test pool");
  ASSERT_NE(pool, nullptr);
  const Text name = T(U"/srv/\u00E9t\u00E9");
  QMChar *copy = nullptr;
  ASSERT_EQ(xvStrTDup(pool, name.data(), L(name), &copy), 0);
  EXPECT_EQ(Text(copy, copy + name.size() + 1), T(std::u32string_view(U"/srv/\u00E9t\u00E9\0", 9)));
  void *empty = nullptr;
  ASSERT_EQ(xvMemDup(pool, nullptr, 0, &empty), 0);
  EXPECT_NE(empty, nullptr);
  EXPECT_EQ(qmhost_pool_live_blocks(pool), 2u);

  qmhost_fail_nth(host, QMHOST_FAIL_ALLOC, 1);
  void *refused = &parms;
  EXPECT_STATUS(QM_E_NO_MEMORY, xvMemDup(pool, "x", 1, &refused));
  EXPECT_EQ(refused, nullptr);
  QMChar *bad = copy;
  EXPECT_STATUS(QM_E_BAD_ARGUMENT, xvStrTDup(pool, nullptr, 3, &bad));
  EXPECT_EQ(bad, nullptr);
  EXPECT_STATUS(QM_E_BAD_ARGUMENT, xvStrTDup(pool, name.data(), INT64_MAX, &bad));
  EXPECT_STATUS(QM_E_BAD_ARGUMENT, xvMemDup(nullptr, "x", 1, &refused));
  EXPECT_EQ(qmhost_pool_live_blocks(pool), 2u);

  EXPECT_EQ(pool->memFree(pool, copy), 0);
  EXPECT_EQ(pool->memFree(pool, empty), 0);
  EXPECT_EQ(qmhost_pool_live_blocks(pool), 0u);
  pool->generic.destroy(pool);
  qmhost_destroy(host);
}

TEST(QmhostcmConvert, NarrowToQMChar) {
  struct Row {
    std::string in;
    QMStatus rc;
    std::u32string_view out;
  } rows[] = {
      {"orders.db", 0, U"orders.db"},
      {"\xC3\x89t\xC3\xA9 \xE1\xBA\x9E \xF0\x9D\x84\x9E", 0, U"\u00C9t\u00E9 \u1E9E \U0001D11E"},
      {std::string("a\0b", 3), 0, std::u32string_view(U"a\0b", 3)},
      {"\xF4\x8F\xBF\xBF", 0, U"\U0010FFFF"},
      {"ab\xC0\xAF", QM_E_INVALID_SEQUENCE, U"ab"},      // overlong '/'
      {"a\xED\xA0\x80", QM_E_INVALID_SEQUENCE, U"a"},    // encoded surrogate U+D800
      {"\xF4\x90\x80\x80", QM_E_INVALID_SEQUENCE, U""},  // U+110000
      {"ok\xE2\x82", QM_E_INVALID_SEQUENCE, U"ok"},      // cut sequence
      {"\x80", QM_E_INVALID_SEQUENCE, U""},
  };
  for (const Row &r : rows) {
    SCOPED_TRACE(::testing::Message() << "row " << (&r - rows));
    Text out(16, 0xAAAA);
    QMStrSize n = -1;
    EXPECT_STATUS(r.rc, Compiler2QMChar(r.in.data(), r.in.size(), out.data(), 16, &n));
    ASSERT_EQ(n, static_cast<QMStrSize>(r.out.size()));
    EXPECT_EQ(Text(out.begin(), out.begin() + n), T(r.out));
    EXPECT_EQ(out[n], 0xAAAAu);
  }
  Text out(4, 0xAAAA);
  QMStrSize n = 0;
  EXPECT_STATUS(QM_E_BUFFER_TOO_SMALL, Compiler2QMChar("\xC3\x89tude", 6, out.data(), 3, &n));
  EXPECT_EQ(n, 5);
  EXPECT_EQ(out, T(U"\u00C9tu\uAAAA"));
  EXPECT_STATUS(QM_E_INVALID_SEQUENCE, Compiler2QMChar("abcd\xFF", 5, out.data(), 2, &n));
  EXPECT_EQ(n, 4);
  EXPECT_EQ(Compiler2QMChar(nullptr, 0, nullptr, 0, &n), 0);
  EXPECT_EQ(n, 0);
  EXPECT_STATUS(QM_E_BAD_ARGUMENT, Compiler2QMChar(nullptr, 1, out.data(), 4, &n));
  EXPECT_STATUS(QM_E_BAD_ARGUMENT, Compiler2QMChar("a", 1, out.data(), 4, nullptr));
}

TEST(QmhostcmConvert, QMCharToNarrowAndEscapes) {
  const Text text = T(U"a\\\u00E9\x1F\U0001D11E");
  struct Row {
    const char *what;
    QMStatus rc;
    std::string out;
  } rows[] = {
      {"utf8", 0, "a\\\xC3\xA9\x1F\xF0\x9D\x84\x9E"},
      {"strict", QM_E_UNMAPPABLE, "a\\"},
      {"escape", 0, "a\\u005C\\u00E9\\u001F\\U0001D11E"},
  };
  for (const Row &r : rows) {
    SCOPED_TRACE(r.what);
    auto convert = [&](char *out, QMMemSize cap, QMMemSize *n) {
      if (r.what[0] == 'u') return QMChar2Compiler(text.data(), L(text), out, cap, n);
      return QMChar2ASCII(text.data(), L(text), out, cap, n,
                          r.what[1] == 't' ? QM_ASCII_STRICT : QM_ASCII_ESCAPE);
    };
    std::string out(40, '#');
    QMMemSize n = 0;
    EXPECT_STATUS(r.rc, convert(out.data(), out.size(), &n));
    EXPECT_EQ(n, r.out.size());
    EXPECT_STREQ(out.c_str(), r.out.c_str());
    if (r.rc != 0) continue;
    // Exact room, one byte short (the last character is left out whole), none.
    std::string exact(r.out.size() + 1, '#');
    EXPECT_EQ(convert(exact.data(), exact.size(), &n), 0);
    EXPECT_EQ(exact, r.out + '\0');
    std::string shortBuf(r.out.size(), '#');
    EXPECT_STATUS(QM_E_BUFFER_TOO_SMALL, convert(shortBuf.data(), shortBuf.size(), &n));
    EXPECT_EQ(n, r.out.size());
    const size_t lastLen = r.what[0] == 'u' ? 4 : 10;
    EXPECT_EQ(shortBuf,
              r.out.substr(0, r.out.size() - lastLen) + '\0' + std::string(lastLen - 1, '#'));
    EXPECT_STATUS(QM_E_BUFFER_TOO_SMALL, convert(nullptr, 0, &n));
    EXPECT_EQ(n, r.out.size());
  }
  for (QMChar bad : {0xD800u, 0x110000u}) {
    const QMChar in[] = {U'o', U'k', bad, U'!'};
    char out[8];
    QMMemSize n = 0;
    EXPECT_STATUS(QM_E_UNMAPPABLE, QMChar2Compiler(in, 4, out, sizeof out, &n));
    EXPECT_EQ(n, 2u);
    EXPECT_STREQ(out, "ok");
  }
  char out[12];
  QMMemSize n = 0;
  EXPECT_STATUS(QM_E_BAD_ARGUMENT,
                QMChar2ASCII(text.data(), L(text), out, sizeof out, &n, QMASCIIMode(7)));
  const struct {
    QMChar c;
    const char *esc;
  } escapes[] = {{0, "\\u0000"},           {0xD800, "\\uD800"},       {0xFFFF, "\\uFFFF"},
                 {0x10000, "\\U00010000"}, {0x10FFFF, "\\U0010FFFF"}, {0x110000, "\\U00110000"}};
  for (const auto &e : escapes) {
    EXPECT_EQ(putUESC(e.c, out, sizeof out), std::strlen(e.esc));
    EXPECT_STREQ(out, e.esc);
    EXPECT_EQ(putUESC(e.c, out, std::strlen(e.esc)), 0u);  // no room for the zero
    EXPECT_EQ(out[0], '\0');
  }
  EXPECT_EQ(putUESC(U'x', nullptr, 40), 0u);
}

TEST(QmhostcmVersion, StampAgreesWithTheLockManager) {
  QMVersionRecord v;
  std::memset(&v, 0x5A, sizeof v);
  ASSERT_EQ(qmzversion(&v), 0);
  for (const char *field : {v.product, v.requiredInterface, v.interfaceVersion, v.buildVersion,
                            v.sourceRevision, v.compiler, v.buildType, v.unicodeVersion})
    EXPECT_GT(std::strlen(field), 0u);
  EXPECT_EQ(v.version, 0u);
  EXPECT_EQ(v.pad1[0], nullptr);
  EXPECT_STREQ(v.unicodeVersion, QMHOSTCM_UNICODE_VERSION);

  qmtest::TestHost host;
  ASSERT_NE(host.ext, nullptr);
  auto dotted = [&](QMStatus (*get)(QMExtensionh, int *, int *, int *)) {
    int a = 0, b = 0, c = 0;
    get(&host.ext->Common, &a, &b, &c);
    return std::to_string(a) + "." + std::to_string(b) + "." + std::to_string(c);
  };
  EXPECT_EQ(v.requiredInterface, dotted(host.ext->Common.getReqVersion));
  EXPECT_EQ(v.interfaceVersion, dotted(host.ext->Common.getVersion));
  const std::string rev = v.sourceRevision;
  EXPECT_TRUE(rev == "unknown" || rev.find_first_not_of("0123456789abcdef") == std::string::npos)
      << rev;
  EXPECT_STATUS(QM_E_BAD_ARGUMENT, qmzversion(nullptr));
}

// The utilities keep no state: threads that map, classify and stamp at once
// agree with a single thread (ThreadSanitizer watches this in CI).
TEST(QmhostcmThreads, ConcurrentCallersAgree) {
  Text all(0x30000);
  for (QMChar c = 0; c < all.size(); ++c) all[c] = c;
  Text want = all;
  ASSERT_EQ(qmzstup(want.data(), L(want)), 0);
  std::vector<int> ok(4, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      Text mine = all;
      QMVersionRecord v;
      ok[t] = qmzstup(mine.data(), L(mine)) == 0 && mine == want && qmzversion(&v) == 0 &&
              qmzsCompareNorm(all.data(), L(all), all.data(), L(all)) == 1;
    });
  for (std::thread &th : threads) th.join();
  EXPECT_EQ(ok, std::vector<int>(4, 1));
}

}  // namespace
