// Dynamic libraries: those of the disk, and those that a test program holds itself.

#include <dlfcn.h>

#include <cstring>

#include "osa/common/elf_check.h"
#include "osa/sim/world.h"

using sim::Entry;
using sim::Kind;

struct OSA_Library : sim::Object {
    OSA_Library() : Object(Kind::library) {}
    void *loaded = nullptr; /* null for one that the test program holds */
};

namespace
{

bool is_added(const char *path)
{
    Entry layer;
    return layer->libraries.count(path) != 0;
}

void *refuse(const char *path, const char *reason)
{
    OSA_Trace("osa", OSA_TRACE_ERROR, "osa", __LINE__, "OSA_LibraryLoad",
              "library %s not loaded: %s\n", path, reason);
    return nullptr;
}

void *load_from_disk(const char *path)
{
    char reason[256];
    if (!osa::elf_check(path, reason, sizeof reason))
        return refuse(path, reason);
    // A name without a slash would be searched for in the system's folders.
    const bool is_bare = std::strchr(path, '/') == nullptr;
    void *loaded =
        dlopen(is_bare ? ("./" + std::string(path)).c_str() : path, RTLD_NOW | RTLD_LOCAL);
    return loaded != nullptr ? loaded : refuse(path, dlerror());
}

} // namespace

OSA_Library *OSA_LibraryLoad(const char *path)
{
    {
        Entry layer;
        layer->scheduler.point();
        if (layer.must_fail("OSA_LibraryLoad", SIM_CALLER) || path == nullptr)
            return nullptr;
    }
    // Outside the layer, since constructors of the library run in here.
    void *loaded = nullptr;
    if (!is_added(path) && (loaded = load_from_disk(path)) == nullptr)
        return nullptr;
    Entry layer;
    auto *library = layer->handles.make<OSA_Library>(SIM_CALLER, path);
    library->loaded = loaded;
    return library;
}

void *OSA_LibraryGetFunc(OSA_Library *library, const char *symbol)
{
    Entry layer;
    layer->scheduler.point();
    if (layer.must_fail("OSA_LibraryGetFunc", SIM_CALLER) ||
        !layer.check(library, Kind::library, "OSA_LibraryGetFunc") || symbol == nullptr)
        return nullptr;
    if (library->loaded != nullptr) {
        void *address = dlsym(library->loaded, symbol);
        return address != nullptr && osa::is_function(address) ? address : nullptr;
    }
    const auto &symbols = layer->libraries[library->name];
    const auto found = symbols.find(symbol);
    return found == symbols.end() ? nullptr : found->second;
}

int32_t OSA_LibraryUnLoad(OSA_Library *library)
{
    void *loaded = nullptr;
    {
        Entry layer;
        layer->scheduler.point();
        if (!layer.destroy(library, Kind::library, "OSA_LibraryUnLoad"))
            return -1;
        loaded = library->loaded;
    }
    return loaded == nullptr || dlclose(loaded) == 0 ? 0 : -1;
}

void SIM_LibraryAdd(const std::string &path, const std::string &symbol, void *address)
{
    Entry layer;
    layer->libraries[path][symbol] = address;
}
