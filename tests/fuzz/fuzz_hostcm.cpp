// Fuzz target of the character utilities: the bounded copies against a plain
// copy, and the case mapping, folding and normalised comparison of QMChar text
// against the generator's reference list (hostcm_reference.h). The first byte
// picks the check; the rest becomes capacities and text. Characters are drawn
// from ASCII, the BMP, the whole 32-bit range and a list of edge cases, so
// that random bytes reach letters, surrogates and values past U+10FFFF alike.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <vector>

#include "hostcm_reference.h"
#include "qmhostcm.h"

namespace {

[[noreturn]] void fail(const char *what) {
  std::fprintf(stderr, "fuzz_hostcm: %s\n", what);
  std::abort();
}
void check(bool ok, const char *what) {
  if (!ok) fail(what);
}

// Reads the input front to back; past its end every read gives zeros.
class Input {
 public:
  Input(const uint8_t *d, size_t n) : d_(d), n_(n) {}
  uint8_t byte() { return i_ < n_ ? d_[i_++] : 0; }
  uint32_t u32() { return uint32_t(byte()) << 24 | uint32_t(byte()) << 16 | byte() << 8 | byte(); }
  QMChar character() {
    static constexpr QMChar kEdges[] = {
        0,      0x20,   0x85,   0xA0,   0xC9,   0xDF,   0x130,  0x131,    0x3A3,    0x3C2,
        0x1E9E, 0x1F80, 0x2028, 0x3000, 0xD800, 0xDFFF, 0xFFFF, 0x10FFFF, 0x110000, 0xFFFFFFFF};
    switch (byte() & 3) {
      case 0:
        return byte() & 0x7F;
      case 1:
        return uint32_t(byte()) << 8 | byte();
      case 2:
        return u32();
      default:
        return kEdges[byte() % (sizeof kEdges / sizeof kEdges[0])];
    }
  }
  std::vector<QMChar> text() {
    std::vector<QMChar> t(byte() % 24);
    for (QMChar &c : t) c = character();
    return t;
  }
  bool done() const { return i_ >= n_; }

 private:
  const uint8_t *d_;
  size_t n_, i_ = 0;
};

const hostcm_ref::Reference &reference() {
  static const hostcm_ref::Reference ref(QMFUZZ_REFERENCE);
  if (!ref.loaded) fail("cannot read " QMFUZZ_REFERENCE);
  return ref;
}

constexpr uint8_t kGuard = 0xA5;

// xvMemSCpy into a heap block of exactly cap bytes (an overrun is a sanitizer
// report) and xvStrTSCpy into guarded QMChar space.
void boundedCopies(Input &in) {
  const QMMemSize cap = in.byte() % 40, n = in.byte() % 40;
  std::vector<uint8_t> src(n);
  for (uint8_t &b : src) b = in.byte();
  std::unique_ptr<uint8_t[]> dst(new uint8_t[cap + 1]);
  std::memset(dst.get(), kGuard, cap + 1);
  const QMStatus rc = xvMemSCpy(cap ? dst.get() : nullptr, cap, src.data(), n);
  check(rc == (n <= cap ? 0 : QM_E_BUFFER_TOO_SMALL), "xvMemSCpy status");
  const QMMemSize copied = std::min(cap, n);
  check(copied == 0 || std::memcmp(dst.get(), src.data(), copied) == 0, "xvMemSCpy bytes");
  for (QMMemSize i = copied; i <= cap; ++i)
    check(dst[i] == kGuard, "xvMemSCpy wrote past the copy");

  const std::vector<QMChar> text = in.text();
  const QMStrSize tcap = in.byte() % 28, len = static_cast<QMStrSize>(text.size());
  std::vector<QMChar> tdst(tcap + 2, 0xA5A5A5A5u);
  const QMStatus trc = xvStrTSCpy(tcap ? tdst.data() : nullptr, tcap, text.data(), len);
  check(trc == (tcap > len ? 0 : QM_E_BUFFER_TOO_SMALL), "xvStrTSCpy status");
  const QMStrSize kept = tcap > len ? len : std::max<QMStrSize>(tcap - 1, 0);
  check(std::equal(text.begin(), text.begin() + kept, tdst.begin()), "xvStrTSCpy characters");
  const QMStrSize end = tcap > 0 ? kept + 1 : 0;
  if (tcap > 0) check(tdst[kept] == 0, "xvStrTSCpy terminator");
  for (QMStrSize i = end; i < tcap + 2; ++i) check(tdst[i] == 0xA5A5A5A5u, "xvStrTSCpy overrun");
}

void caseMapping(Input &in) {
  const hostcm_ref::Reference &ref = reference();
  const std::vector<QMChar> text = in.text();
  std::vector<QMChar> lo = text, up = text;
  check(qmzstlo(lo.data(), static_cast<QMStrSize>(lo.size())) == 0, "qmzstlo status");
  check(qmzstup(up.data(), static_cast<QMStrSize>(up.size())) == 0, "qmzstup status");
  for (size_t i = 0; i < text.size(); ++i) {
    check(lo[i] == ref.lower(text[i]), "qmzstlo differs from the reference");
    check(up[i] == ref.upper(text[i]), "qmzstup differs from the reference");
    check(qmnlstofold(text[i]) == ref.fold(text[i]), "qmnlstofold differs from the reference");
  }
}

// The reference's normalised form: blanks stripped at both ends, then folded.
std::vector<QMChar> normalised(const std::vector<QMChar> &t) {
  const hostcm_ref::Reference &ref = reference();
  auto blank = [&](QMChar c) { return ref.has(c, hostcm_ref::kSpace); };
  auto first = std::find_if_not(t.begin(), t.end(), blank);
  auto last = std::find_if_not(t.rbegin(), std::make_reverse_iterator(first), blank).base();
  std::vector<QMChar> out;
  for (auto it = first; it != last; ++it) out.push_back(ref.fold(*it));
  return out;
}

void normalisedComparison(Input &in) {
  std::vector<QMChar> a = in.text(), b = in.text();
  if (in.byte() & 1) {  // often compare a text with a re-cased, re-blanked copy of itself
    b = a;
    for (QMChar &c : b)
      if (in.byte() & 1) c = (in.byte() & 1) ? qmnlstoupper(c) : qmnlstolower(c);
    b.insert(b.begin(), in.byte() % 3, 0x3000);
  }
  const QMBoolean got = qmzsCompareNorm(a.data(), static_cast<QMStrSize>(a.size()), b.data(),
                                        static_cast<QMStrSize>(b.size()));
  check(got == (normalised(a) == normalised(b) ? 1 : 0),
        "qmzsCompareNorm differs from the reference");
  check(qmzsCompare(a.data(), static_cast<QMStrSize>(a.size()), b.data(),
                    static_cast<QMStrSize>(b.size())) == (a == b ? 1 : 0),
        "qmzsCompare differs from ==");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  Input in(data, size);
  do {
    switch (in.byte() % 3) {
      case 0:
        boundedCopies(in);
        break;
      case 1:
        caseMapping(in);
        break;
      default:
        normalisedComparison(in);
        break;
    }
  } while (!in.done());
  return 0;
}
