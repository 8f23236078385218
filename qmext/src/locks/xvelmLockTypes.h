/*
 * xvelmLockTypes.h - the bits a lock type may hold (the rules that read them
 * are in xvelmLockTypes.cpp and xvelmHolders.h).
 */
#ifndef XVELM_LOCKTYPES_H
#define XVELM_LOCKTYPES_H

#include "qmelm.h"

namespace xvelm::detail {

// Every bit a lock type defines (0x001 to 0x200); a type with any other bit
// is refused by acquisition and change alike.
inline constexpr QMMemSize kDefinedLockTypeBits =
    QMELM_INT_EXCLUSIVE | QMELM_INT_NONEXCLUSIVE | QMELM_EXT_EXCLUSIVE | QMELM_EXT_NONEXCLUSIVE |
    QMELM_NOINTERNAL_LOCK | QMELM_NOEXTERNAL_LOCK | QMELM_SHARED | QMELM_OPT_NONE | QMELM_OPT_FAIL |
    QMELM_OPT_CONTINUE;
static_assert(kDefinedLockTypeBits == 0x3ff);

}  // namespace xvelm::detail

#endif  // XVELM_LOCKTYPES_H
