// manager.h - the faces of qmlock that drive the lock manager (shell, demo).
// They are the helper executable qmlock-manager, which qmlock execs for
// `qmlock shell` and `qmlock demo`: only it links the host library and the
// C++ API, so that the faces that use the kernel's locks directly start
// without loading them.
#ifndef QMLOCK_MANAGER_H
#define QMLOCK_MANAGER_H

#include <string>

#include "qmelm.hpp"
#include "qmlock.h"

namespace qmlock {

namespace elm = qm::elm;

int shellMain(int argc, char **argv);
int demoMain(int argc, char **argv);

// Who holds what refused r: another thread of this process, or the process
// (and its kind of lock) that LockerPID names.
std::string holderDescription(const elm::Result &r);

}  // namespace qmlock

#endif  // QMLOCK_MANAGER_H
