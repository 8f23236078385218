// hostcm_reference.h - the plain-text reference of the character tables
// (qmhostcm/gen/xvztbl_reference.txt, written by the same generator as the
// tables), read into the simplest structures: a map of the code points that
// have mappings and one flag byte per code point. The tests and the fuzz
// target check the compact tables and the string functions against it.
#ifndef HOSTCM_REFERENCE_H
#define HOSTCM_REFERENCE_H

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <unordered_map>
#include <vector>

#include "qmhostcm.h"

namespace hostcm_ref {

// The class letters of the reference file, in flag-bit order.
inline constexpr char kLetters[] = "adsulpcx";
enum Class : uint8_t {
  kAlpha = 1,
  kDigit = 2,
  kSpace = 4,
  kUpper = 8,
  kLower = 16,
  kPrint = 32,
  kCntrl = 64,
  kPunct = 128
};

struct Reference {
  std::unordered_map<QMChar, std::array<QMChar, 3>> maps;  // lower, upper, fold
  std::vector<uint8_t> classes = std::vector<uint8_t>(0x110000, 0);
  bool loaded = false;

  explicit Reference(const char *path) {
    FILE *f = std::fopen(path, "r");
    if (f == nullptr) return;
    char line[128], kind;
    unsigned a, b, c, d;
    char letters[16];
    while (std::fgets(line, sizeof line, f) != nullptr) {
      if (std::sscanf(line, "%c %x %x %x %x", &kind, &a, &b, &c, &d) == 5 && kind == 'M') {
        maps[a] = {b, c, d};
      } else if (std::sscanf(line, "%c %x %x %15s", &kind, &a, &b, letters) == 4 && kind == 'C') {
        uint8_t bits = 0;
        for (const char *l = letters; *l != '\0'; ++l)
          if (const char *p = std::strchr(kLetters, *l))
            bits |= static_cast<uint8_t>(1u << (p - kLetters));
        for (unsigned cp = a; cp <= b && cp < classes.size(); ++cp) classes[cp] = bits;
      }
    }
    std::fclose(f);
    loaded = !maps.empty();
  }

  QMChar map(QMChar c, int which) const {
    auto it = maps.find(c);
    return it == maps.end() ? c : it->second[which];
  }
  QMChar lower(QMChar c) const { return map(c, 0); }
  QMChar upper(QMChar c) const { return map(c, 1); }
  QMChar fold(QMChar c) const { return map(c, 2); }
  bool has(QMChar c, uint8_t cls) const { return c < classes.size() && (classes[c] & cls) != 0; }
};

}  // namespace hostcm_ref

#endif  // HOSTCM_REFERENCE_H
