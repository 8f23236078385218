/*
 * xvelmHostObject.h - ownership of host objects (mutexes, pipelines,
 * extensions, journals) made by a constructor: failure paths destroy them,
 * success hands them on.
 */
#ifndef XVELM_HOSTOBJECT_H
#define XVELM_HOSTOBJECT_H

#include <utility>

#include "qmelm.h"

namespace xvelm::detail {

// Destroys a host object (mutex, pipeline, extension, journal) through its
// generic header when it is not null.
inline void destroyObject(void *object) {
  if (object != nullptr) (void)static_cast<QMGeneric *>(object)->destroy(object);
}

// Owns a host object made by a constructor until release(): failure paths
// destroy it, success hands it on.
template <class H>
class HostObject {
 public:
  HostObject() = default;
  explicit HostObject(H h) : h_(h) {}
  ~HostObject() { destroyObject(h_); }
  HostObject(const HostObject &) = delete;
  HostObject &operator=(const HostObject &) = delete;
  H get() const { return h_; }
  explicit operator bool() const { return h_ != nullptr; }
  [[nodiscard]] H release() { return std::exchange(h_, nullptr); }
  // Destroys what it holds and takes h.
  void adopt(H h) { destroyObject(std::exchange(h_, h)); }

 private:
  H h_ = nullptr;
};

}  // namespace xvelm::detail

#endif  // XVELM_HOSTOBJECT_H
