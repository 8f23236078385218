// The version stamp: fills the caller's version record with this build's
// identification strings. The build's version, source revision, compiler and
// build type come from the configure step (qmzvers_build.h); every string is
// checked at compile time to fit its field, so the copy never truncates.
#include <cstring>

#include "qmhostcm.h"
#include "qmversion.h"
#include "qmzvers_build.h"

namespace {

// The lock manager's interface versions, as its getReqVersion and getVersion
// report them.
constexpr char kRequiredInterface[] = "7.1.1";
constexpr char kInterfaceVersion[] = "7.2.1";
constexpr char kProduct[] = "QM Resource Lock Manager";

template <size_t N, size_t M>
void put(char (&field)[N], const char (&text)[M]) noexcept {
  static_assert(M <= N, "a version string does not fit its field of QMVersionRecord");
  std::memcpy(field, text, M);
}

}  // namespace

QMStatus qmzversion(QMVersionRecord *rec) noexcept {
  if (rec == nullptr) return QM_E_BAD_ARGUMENT;
  std::memset(rec, 0, sizeof *rec);
  put(rec->product, kProduct);
  put(rec->requiredInterface, kRequiredInterface);
  put(rec->interfaceVersion, kInterfaceVersion);
  put(rec->buildVersion, QMZVERS_BUILD_VERSION);
  put(rec->sourceRevision, QMZVERS_SOURCE_REVISION);
  put(rec->compiler, QMZVERS_COMPILER);
  put(rec->buildType, QMZVERS_BUILD_TYPE);
  put(rec->unicodeVersion, QMHOSTCM_UNICODE_VERSION);
  return 0;
}
