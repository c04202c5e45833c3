// The registry of plugins and the reader of the cache file behind it.

#include "core/plugin_cache.h"

#include <cstring>

#include "internal/guard.h"
#include "internal/list_walk.h"
#include "internal/trace.h"
#include "nox.h"

namespace
{

constexpr char kSource[] = "nox";
constexpr uint32_t kLineSize = 384; // bytes of a line that are read, the zero included

struct NOXPluginCacheEntry {
    char name[48];
    char path[128];
};

// Null while the library is not initialised. Written by nox_init and nox_deinit
// only, which run alone; any thread reads it in between.
OSA_List *g_noxplgcache = nullptr;

using OpenFile = std::unique_ptr<OSA_File, nox::ReleaseWith<OSA_FileClose>>;
using EntryBlock = nox::Block<NOXPluginCacheEntry>;

// A line taken apart in place.
struct CacheLine {
    const char *name;
    size_t name_length;
    const char *path;
};

void strip_line_end(char *line)
{
    const size_t length = std::strlen(line);
    if (length > 0 && (line[length - 1] == '\n' || line[length - 1] == '\r'))
        line[length - 1] = '\0';
}

// What is wrong with the line, or null with `parsed` filled.
const char *parse(const char *line, CacheLine &parsed)
{
    if (*line == '\0')
        return "empty line";
    const char *separator = std::strchr(line, '@');
    if (separator == nullptr)
        return "no \"@\"";
    parsed = {line, static_cast<size_t>(separator - line), separator + 1};
    if (parsed.name_length == 0)
        return "empty name";
    if (parsed.name_length >= sizeof(NOXPluginCacheEntry::name))
        return "name too long";
    if (*parsed.path == '\0')
        return "empty path";
    if (std::strlen(parsed.path) >= sizeof(NOXPluginCacheEntry::path))
        return "path too long";
    return nullptr;
}

void fill(NOXPluginCacheEntry &entry, const CacheLine &line)
{
    std::memcpy(entry.name, line.name, line.name_length);
    NOX_TRACE_FOR("nox_init", OSA_TRACE_VERBOSE, "plugin name(%s)\n", entry.name);
    std::memcpy(entry.path, line.path, std::strlen(line.path));
    NOX_TRACE_FOR("nox_init", OSA_TRACE_VERBOSE, "plugin path(%s)\n", entry.path);
}

int32_t append_entry(const CacheLine &line)
{
    nox::ListNode node(OSA_List_Node_new());
    if (!node) {
        NOX_TRACE_FOR("nox_init", OSA_TRACE_ERROR, "list node create failed. size(%d)\n",
                      static_cast<int>(sizeof(OSA_ListNode)));
        return -1;
    }
    EntryBlock entry(static_cast<NOXPluginCacheEntry *>(NOX_MALLOC(sizeof(NOXPluginCacheEntry))));
    if (!entry) {
        NOX_TRACE_FOR("nox_init", OSA_TRACE_ERROR, "list node data create failed. size(%d)\n",
                      static_cast<int>(sizeof(NOXPluginCacheEntry)));
        return -1;
    }
    fill(*entry, line);
    node->data = entry.get();
    if (OSA_ListAddTail(g_noxplgcache, node.get()) < 0) {
        NOX_TRACE_FOR("nox_init", OSA_TRACE_ERROR, "list add tail failed.\n");
        return -1;
    }
    node.release();  // the list's now
    entry.release(); // the node's now
    return 0;
}

int32_t read_entries(OSA_File *file)
{
    char line[kLineSize];
    int32_t line_number = 0;
    int32_t loaded = 0;
    while (OSA_FileReadLine(file, line, kLineSize) != nullptr) {
        NOX_TRACE_FOR("nox_init", OSA_TRACE_VERBOSE, "read line(%s)\n", line);
        ++line_number;
        strip_line_end(line);
        CacheLine parsed;
        if (const char *fault = parse(line, parsed)) {
            NOX_TRACE_FOR("nox_init", OSA_TRACE_ERROR, "cache line %d skipped: %s (%s)\n",
                          line_number, fault, line);
            continue;
        }
        if (append_entry(parsed) != 0)
            return -1;
        ++loaded;
    }
    NOX_TRACE_FOR("nox_init", OSA_TRACE_INFO, "loaded plugin count(%d)\n", loaded);
    return 0;
}

int32_t read_cache_file(const char *cache_path)
{
    OpenFile file(cache_path != nullptr ? OSA_FileOpen(cache_path, OSA_FILE_READ) : nullptr);
    if (!file) {
        NOX_TRACE_FOR("nox_init", OSA_TRACE_ERROR, "cache file open failed. (%s)\n",
                      nox::text_or_null(cache_path));
        return -1;
    }
    NOX_TRACE_FOR("nox_init", OSA_TRACE_VERBOSE, "plugin cache file opened(%x)\n",
                  nox::low32(file.get()));
    return read_entries(file.get());
}

} // namespace

namespace nox
{

bool plugin_cache_exists()
{
    return g_noxplgcache != nullptr;
}

int32_t plugin_cache_load(const char *cache_path)
{
    g_noxplgcache = OSA_ListCreate();
    if (g_noxplgcache == nullptr) {
        NOX_TRACE_FOR("nox_init", OSA_TRACE_ERROR, "plgcache list create failed\n");
        return -1;
    }
    if (read_cache_file(cache_path) == 0)
        return 0;
    plugin_cache_discard();
    return -1;
}

void plugin_cache_discard()
{
    destroy_list_of(g_noxplgcache, FreeBlock{});
    g_noxplgcache = nullptr;
}

} // namespace nox

const char *nox_plugin_lookup(const char *name)
{
    if (name == nullptr)
        return nullptr;
    for (NOXPluginCacheEntry *entry : nox::items<NOXPluginCacheEntry>(g_noxplgcache)) {
        if (std::strcmp(entry->name, name) == 0) {
            NOX_TRACE(OSA_TRACE_INFO, "found plg name (%s)\n", name);
            return entry->path;
        }
    }
    return nullptr;
}
