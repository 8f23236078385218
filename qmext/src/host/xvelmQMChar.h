/*
 * xvelmQMChar.h - QMChar copies of narrow literals, for formats and paths
 * handed to the host's journals and compared with callers' names.
 */
#ifndef XVELM_QMCHAR_H
#define XVELM_QMCHAR_H

#include <cstddef>

#include "qmelm.h"

namespace xvelm::detail {

// A QMChar copy of a narrow literal, usable as a constexpr format or path.
template <std::size_t N>
struct QMLiteral {
  QMChar text[N] = {};
  constexpr explicit QMLiteral(const char (&s)[N]) {
    for (std::size_t i = 0; i < N; ++i) text[i] = static_cast<unsigned char>(s[i]);
  }
  constexpr const QMChar *data() const { return text; }
  static constexpr QMStrSize size() { return static_cast<QMStrSize>(N - 1); }
};

inline constexpr QMLiteral kFmtCountedString("%.*s");  // a counted QMChar string
inline constexpr QMLiteral kRootPath("/");

}  // namespace xvelm::detail

#endif  // XVELM_QMCHAR_H
