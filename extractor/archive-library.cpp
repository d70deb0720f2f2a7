#include "extractor/archive-library.h"

#include <dlfcn.h>

#include "log/log.h"

namespace {

const char kComponent[] = "extractor_debug";

bool Resolve(void* handle, const char* name, void** slot) {
    *slot = dlsym(handle, name);
    if (*slot == nullptr) {
        LOG_HERE(ERROR, kComponent, "archive library lacks %s\n", name);
        return false;
    }
    return true;
}

const ArchiveLibrary* Load() {
    void* handle = dlopen(LC_ARCHIVE_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        LOG_HERE(ERROR, kComponent, "cannot load the archive library: %s\n", dlerror());
        return nullptr;
    }
    static ArchiveLibrary library;
    bool complete = true;
#define LC_ARCHIVE_RESOLVE(name) \
    complete = Resolve(handle, #name, reinterpret_cast<void**>(&library.name)) && complete;
    LC_ARCHIVE_FUNCTIONS(LC_ARCHIVE_RESOLVE)
#undef LC_ARCHIVE_RESOLVE
    return complete ? &library : nullptr;
}

}  // namespace

const ArchiveLibrary* GetArchiveLibrary() {
    static const ArchiveLibrary* const library = Load();
    return library;
}
