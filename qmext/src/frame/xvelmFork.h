/*
 * xvelmFork.h - the registry of live lock manager objects, kept by the fork
 * unit (xvelmFork.cpp): its fork handlers take every mutex of every live
 * object around fork(), and the registry also answers whether an object of
 * a host is alive (for the clock, through qmpSetHostCheck).
 */
#ifndef XVELM_FORK_H
#define XVELM_FORK_H

#include "qmelm.h"

namespace xvelm::detail {

// Factory and destroy: the fork handlers take every live object's mutexes
// before fork() so that no mutex held by another thread is copied held.
void registerExtension(QMELMExtension *ext) noexcept;
void unregisterExtension(QMELMExtension *ext) noexcept;
// True while an extension object of this host is alive.
[[nodiscard]] bool hostIsLive(QMHndlp hndl) noexcept;

}  // namespace xvelm::detail

#endif  // XVELM_FORK_H
