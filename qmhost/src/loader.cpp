/*
 * loader.cpp - loading extensions by name: a builtin of the configuration,
 * or lib<name>.so from the search path (dlopen RTLD_NOW | RTLD_LOCAL). The
 * loader checks qmextent and qmextver, calls the factory named like the
 * extension, and tracks what it made; the destroy it installs runs the
 * extension's own destroy and then unloads the shared object. host->extMutex
 * guards the record of loaded extensions and is never held while an
 * extension's code runs (factories and destroys load and destroy others).
 */
#include <dlfcn.h>
#include <unistd.h>

#include "host_internal.h"
#include "utf.h"

namespace qmhost {

namespace {

constexpr int kInterfaceMajor = 7;

// What a loaded shared object offers.
struct EntryPoints {
  QMExtEntryFn entry = nullptr;
  QMExtVerFn version = nullptr;
  QMExtFactoryFn factory = nullptr;
};

// Fails the load: records status for lastStatus and returns null.
QMExtensionh fail(Host *host, QMStatus status) {
  setLastStatus(host, status);
  return nullptr;
}

// The directories to search, in order.
std::vector<std::string> searchPath(const Host *host) {
  std::string path;
  if (host->hasExtensionPath) {
    path = host->extensionPath;
  } else if (const char *env = std::getenv("QMHOST_EXTENSION_PATH");
             env != nullptr && *env != '\0') {
    path = env;
  } else {
    // The directory that holds this library.
    Dl_info info{};
    if (dladdr(reinterpret_cast<void *>(&qmhost_create), &info) != 0 && info.dli_fname != nullptr) {
      path = info.dli_fname;
      const size_t slash = path.rfind('/');
      path = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    }
  }
  std::vector<std::string> dirs;
  size_t start = 0;
  while (start <= path.size()) {
    size_t end = path.find(':', start);
    if (end == std::string::npos) end = path.size();
    if (end > start) dirs.push_back(path.substr(start, end - start));
    start = end + 1;
  }
  return dirs;
}

// Removes a record of host's and returns it; false when ext is not live.
bool untrack(Host *host, QMExtensionh ext, ExtRecord *rec) {
  std::lock_guard<std::mutex> g(host->extMutex);
  for (auto it = host->exts.begin(); it != host->exts.end(); ++it) {
    if (it->second.ext == ext) {
      *rec = it->second;
      host->exts.erase(it);
      return true;
    }
  }
  return false;
}

// The extension's own destroy, then the unload. ext is untracked first so
// that nothing can destroy it twice.
QMStatus destroyTracked(Host *host, QMExtensionh ext) noexcept {
  ExtRecord rec{};
  if (!untrack(host, ext, &rec)) return QM_E_BAD_ARGUMENT;
  QMStatus (*realDestroy)(QMExtensionh) = ext->realDestroy;
  const QMStatus st = realDestroy != nullptr ? realDestroy(ext) : 0;
  if (rec.dl != nullptr) dlclose(rec.dl);
  return st;
}

// The destroy the loader installs in ext->generic.destroy. The host is read
// from the extension before anything frees it.
QMStatus extDestroy(void *object) noexcept {
  if (object == nullptr) return QM_E_BAD_ARGUMENT;
  auto *ext = static_cast<QMExtensionh>(object);
  if (ext->hndl == nullptr) return QM_E_BAD_ARGUMENT;
  return destroyTracked(hostOf(ext->hndl), ext);
}

// Opens lib<name>.so from the first directory that has one. Null with the
// reason in *detail when there is none or it cannot be loaded.
void *openLibrary(const Host *host, const std::string &name, std::string *detail) {
  const std::string file = "lib" + name + ".so";
  const std::vector<std::string> dirs = searchPath(host);
  for (const std::string &dir : dirs) {
    const std::string candidate = dir + "/" + file;
    if (::access(candidate.c_str(), F_OK) != 0) continue;
    void *dl = dlopen(candidate.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (dl == nullptr) {
      const char *why = dlerror();
      *detail = why != nullptr ? why : candidate + ": cannot be loaded";
    }
    return dl;
  }
  *detail = file + " is in none of the directories searched:";
  for (const std::string &dir : dirs) *detail += " " + dir;
  if (dirs.empty()) *detail += " (none)";
  return nullptr;
}

QMExtensionh load(Host *host, const std::string &name, QMJnlh jnl) {
  EntryPoints ep;
  void *dl = nullptr;
  bool found = false;
  for (const Builtin &b : host->builtins) {
    if (b.name == name) {
      ep = {b.entry, b.version, b.factory};
      found = true;
      break;
    }
  }
  if (!found) {
    std::string detail;
    dl = openLibrary(host, name, &detail);
    if (dl == nullptr) {
      journalDetail(jnl, QM_E_EXT_NOT_FOUND, detail);
      return fail(host, QM_E_EXT_NOT_FOUND);
    }
    ep.entry = reinterpret_cast<QMExtEntryFn>(dlsym(dl, "qmextent"));
    ep.version = reinterpret_cast<QMExtVerFn>(dlsym(dl, "qmextver"));
    ep.factory = reinterpret_cast<QMExtFactoryFn>(dlsym(dl, name.c_str()));
  }
  // From here every failure unloads what was opened.
  auto failLoaded = [&](QMStatus status, const std::string &detail) {
    if (!detail.empty()) journalDetail(jnl, status, detail);
    if (dl != nullptr) dlclose(dl);
    return fail(host, status);
  };
  if (ep.entry == nullptr || ep.version == nullptr || ep.factory == nullptr)
    return failLoaded(QM_E_EXT_BAD, name + " lacks one of qmextent, qmextver, " + name + ".");
  int major = 0, minor = 0;
  if (ep.entry(&host->pub) != 0)
    return failLoaded(QM_E_EXT_INIT_FAILED, name + ": qmextent failed.");
  if (ep.version(&host->pub, &major, &minor) != 0 || major != kInterfaceMajor)
    return failLoaded(QM_E_EXT_VERSION, name + " has interface version " + std::to_string(major) +
                                            "." + std::to_string(minor) + "; the host needs " +
                                            std::to_string(kInterfaceMajor) + ".");

  uint64_t seq;
  {
    std::lock_guard<std::mutex> g(host->extMutex);
    seq = host->extSeq++;  // numbered before its factory runs: see destroyAllExtensions
  }
  QMExtensionh ext = ep.factory(&host->pub, jnl);
  if (ext == nullptr)
    return failLoaded(QM_E_EXT_INIT_FAILED, {});  // the factory journals its reason
  if (ext->hndl == nullptr) ext->hndl = &host->pub;
  ext->handle = dl;
  ext->generic.destroy = extDestroy;
  try {
    std::lock_guard<std::mutex> g(host->extMutex);
    host->exts.emplace(seq, ExtRecord{ext, dl});
  } catch (const std::bad_alloc &) {
    if (ext->realDestroy != nullptr) (void)ext->realDestroy(ext);
    return failLoaded(QM_E_NO_MEMORY, {});
  }
  return ext;
}

}  // namespace

QMExtensionh loadExtension(QMHndlp h, const QMChar *name, QMStrSize namelen, QMJnlh jnl) noexcept {
  if (h == nullptr) return nullptr;
  Host *host = hostOf(h);
  if (host->fail.hit(QMHOST_FAIL_LOAD_EXTENSION)) return fail(host, QM_E_INJECTED_FAILURE);
  if (name == nullptr || namelen <= 0) return fail(host, QM_E_BAD_ARGUMENT);
  try {
    std::string narrow;
    for (QMStrSize i = 0; i < namelen; ++i) {
      // A name is a file name component: no '/', no NUL, nothing UTF-8 cannot hold.
      if (name[i] == '/' || name[i] == 0 || !isScalar(name[i]))
        return fail(host, QM_E_BAD_ARGUMENT);
      appendUtf8(narrow, name[i]);
    }
    return load(host, narrow, jnl);
  } catch (const std::bad_alloc &) {
    return fail(host, QM_E_NO_MEMORY);
  }
}

// Oldest load first: an extension's factory numbers it before the factory
// loads others, so an extension that owns others is destroyed before them and
// destroys them itself; whatever it leaves comes next.
void destroyAllExtensions(Host *host) noexcept {
  for (;;) {
    QMExtensionh ext;
    {
      std::lock_guard<std::mutex> g(host->extMutex);
      if (host->exts.empty()) return;
      ext = host->exts.begin()->second.ext;
    }
    (void)destroyTracked(host, ext);
  }
}

}  // namespace qmhost

extern "C" {

QM_EXPORT QMExtensionh qmhost_load_extension(QMHndlp h, const char *name, QMJnlh jnl) noexcept {
  if (h == nullptr) return nullptr;
  try {
    std::vector<QMChar> wide(qmhost_from_utf8(name, nullptr, 0));
    qmhost_from_utf8(name, wide.data(), wide.size());
    return h->loadExtension(h, wide.data(), static_cast<QMStrSize>(wide.size()), jnl);
  } catch (const std::bad_alloc &) {
    qmhost::setLastStatus(qmhost::hostOf(h), QM_E_NO_MEMORY);
    return nullptr;
  }
}

}  // extern "C"
