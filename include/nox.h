/**
 * @file
 * nox: start-up, shut-down, and the registry through which plugins are found.
 *
 *     if (nox_init("/etc/noxplugins.cache") != 0)
 *         return 1;
 *     ... pipes and plugins ...
 *     nox_deinit();
 *
 * The cache is a text file, one plugin a line, `name@path`: the name ends at the first
 * `@` and has at most 47 characters, the path of the shared library is the rest of the
 * line and has at most 127. A line of any other form is skipped with a level-1 trace that
 * gives its number. Of two lines with one name the first counts. Lines end with a line
 * feed alone: a carriage return before it becomes part of the path.
 *
 * A plugin library exports one function, plugin_desc, which describes it.
 */
#ifndef NOX_NOX_H
#define NOX_NOX_H

#include "noxobject.h"

#ifdef __cplusplus
extern "C" {
#endif

struct NOXPlugin;

/** Fills the slots of a new plugin's record, which is zero after its header and as large
 * as the descriptor says; its result is not used. It must not delete the plugin. Called
 * once for each instance, on the thread that creates it. */
typedef int32_t (*NOXPluginInitFunc)(struct NOXPlugin *plugin);

/** What plugin_desc fills, every field. The texts stay the library's own. */
typedef struct NOXPluginDesc {
    const char *name;       /**< the plugin's own name, for diagnosis */
    const char *author;     /**< for diagnosis */
    int32_t size;           /**< bytes of the plugin's whole record, at least sizeof(NOXPlugin) */
    NOXPluginInitFunc init; /**< fills the record of a new instance; required */
} NOXPluginDesc;

/** The function "plugin_desc" of a plugin library. */
typedef void (*NOXPluginDescFunc)(NOXPluginDesc *desc);

/** Prints the two version banners, brings the OS layer and the record pools up and reads
 * the plugin cache at `cache_path`. 0 on success and when the library is initialised
 * already (the file is not read again then). -1, after a level-1 trace, for null, when
 * the file cannot be opened or memory runs out; there is no registry then, but the OS
 * layer and the pools stay up. nox_init may be called again. One thread, before anything
 * else. */
NOX_API int32_t nox_init(const char *cache_path);

/** Frees the registry and takes pools and OS layer down, which lists the blocks that are
 * still alive (level 1). Every object must be gone. Waits for the threads of pipes and
 * buses that were released in their own handlers and callbacks. 0; -1 when the library is
 * not initialised, also after an nox_init that failed. One thread, after all else, in no
 * handler or callback. */
NOX_API int32_t nox_deinit(void);

/** The library path of the first cache entry named `name` (exact match), lent until
 * nox_deinit. Null when there is none and for null. Any thread. */
NOX_API const char *nox_plugin_lookup(const char *name);

/** Loads the library of the plugin `plugin_name` and returns a new plugin object named
 * `instance_name` (copied; null names it "unknown"), in state NULL, with one reference,
 * the caller's; nox_plugin_new completes what this begins and is what applications call:
 * until then the plugin has no finalizer, and what it holds is lost with it. Null, after
 * a level-1 trace, when the plugin is unknown, its library unfit or memory short; the
 * library is not left loaded. Any thread. */
NOX_API struct NOXPlugin *nox_load_plugin(const char *plugin_name, const char *instance_name);

/** The name that the plugin library at `path` gives itself, as a copy that the caller
 * frees with free(). Loads and unloads the library. Null, after a level-1 trace, when it
 * cannot be loaded or exports no plugin_desc; null without a trace when it gives no name
 * or there is no memory for the copy. Any thread. */
NOX_API char *nox_plugin_getname(const char *path);

/** For plugin libraries only: each defines this function and fills every field. The
 * record is the caller's and is valid during the call. */
NOX_API void plugin_desc(NOXPluginDesc *desc);

#ifdef __cplusplus
}
#endif

#endif
