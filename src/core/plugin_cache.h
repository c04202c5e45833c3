// The registry of plugins: the entries of the cache file, in its order.
#ifndef NOX_CORE_PLUGIN_CACHE_H
#define NOX_CORE_PLUGIN_CACHE_H

#include <cstdint>

namespace nox
{

bool plugin_cache_exists();

// Reads the cache file into a new registry; -1, with no registry, on failure.
int32_t plugin_cache_load(const char *cache_path);

// Frees all entries and the registry.
void plugin_cache_discard();

} // namespace nox

#endif
