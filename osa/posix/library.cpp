// Dynamic libraries.

#include "osa/common/export.h"

#include <climits>
#include <cstdio>
#include <cstring>
#include <new>

#include <dlfcn.h>

#include "osa/common/elf_check.h"
#include "osa/posix/report.h"
#include "osa/posix/thread_state.h"

struct OSA_Library {
    void *handle;
};

namespace
{

// A name without a slash would be searched for in the system's folders.
// False when the path is too long.
bool name_in_place(const char *path, char *name, size_t size)
{
    const char *folder = std::strchr(path, '/') == nullptr ? "./" : "";
    const int length = std::snprintf(name, size, "%s%s", folder, path);
    return length >= 0 && static_cast<size_t>(length) < size;
}

void *open_library(const char *path)
{
    char name[PATH_MAX];
    if (!name_in_place(path, name, sizeof(name))) {
        OSA_REPORT(OSA_TRACE_ERROR, "library %s not loaded: its path is too long\n", path);
        return nullptr;
    }
    char reason[160];
    if (!osa::elf_check(path, reason, sizeof(reason))) {
        OSA_REPORT(OSA_TRACE_ERROR, "library %s not loaded: %s\n", path, reason);
        return nullptr;
    }
    void *handle = dlopen(name, RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr)
        OSA_REPORT(OSA_TRACE_ERROR, "library %s not loaded: %s\n", path, dlerror());
    return handle;
}

} // namespace

extern "C" {

OSA_Library *OSA_LibraryLoad(const char *path)
{
    void *handle = path != nullptr ? open_library(path) : nullptr;
    if (handle == nullptr)
        return nullptr;
    OSA_Library *library = new (std::nothrow) OSA_Library{handle};
    if (library == nullptr) {
        dlclose(handle);
        return nullptr;
    }
    osa::count_alive(osa::Kind::library, 1);
    return library;
}

void *OSA_LibraryGetFunc(OSA_Library *library, const char *symbol)
{
    if (library == nullptr || symbol == nullptr)
        return nullptr;
    void *address = dlsym(library->handle, symbol);
    if (address == nullptr || osa::is_function(address))
        return address;
    OSA_REPORT(OSA_TRACE_ERROR, "symbol %s is data, not a function\n", symbol);
    return nullptr;
}

int32_t OSA_LibraryUnLoad(OSA_Library *library)
{
    if (library == nullptr)
        return -1;
    const int result = dlclose(library->handle);
    if (result != 0)
        OSA_REPORT(OSA_TRACE_ERROR, "library not unloaded: %s\n", dlerror());
    delete library;
    osa::count_alive(osa::Kind::library, -1);
    return result == 0 ? 0 : -1;
}

} // extern "C"
