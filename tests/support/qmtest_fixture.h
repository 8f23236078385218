// qmtest_fixture.h - GoogleTest helpers over TestHost.
#ifndef QMTEST_FIXTURE_H
#define QMTEST_FIXTURE_H

#include <gtest/gtest.h>

#include <iomanip>
#include <sstream>

#include "qmtest_host.h"

namespace qmtest {

// Prints statuses as the hexadecimal codes everyone knows them by.
inline std::string hex(QMStatus s) {
  std::ostringstream o;
  o << "0x" << std::hex << std::setw(8) << std::setfill('0') << static_cast<uint32_t>(s);
  return o.str();
}

inline std::vector<std::string> hex(const std::vector<QMStatus> &codes) {
  std::vector<std::string> out;
  for (QMStatus c : codes) out.push_back(hex(c));
  return out;
}

// EXPECT_CODES(host.lastCodes(), {QMELM_E_X, QMELM_M_Y}) with readable output.
#define EXPECT_CODES(actual, ...) \
  EXPECT_EQ(::qmtest::hex(actual), ::qmtest::hex(std::vector<QMStatus>(__VA_ARGS__)))
#define EXPECT_STATUS(expected, actual) EXPECT_EQ(::qmtest::hex(expected), ::qmtest::hex(actual))

}  // namespace qmtest

#endif  // QMTEST_FIXTURE_H
