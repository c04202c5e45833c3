/* Libraries that a scan must leave out, one for each definition. The one that ends the
 * process hangs instead when the environment names a pipe: it holds that open. */

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include "nox.h"
#include "noxplugin.h"

#if defined(CRASHES)
__attribute__((constructor)) static void crash(void)
{
    abort();
}
#elif defined(EXITS)
__attribute__((constructor)) static void leave(void)
{
    const char *path = getenv("UNFIT_HANGS_WRITING_TO");
    if (path == NULL || write(open(path, O_WRONLY), "", 1) != 1)
        _exit(3);
    for (;;)
        pause();
}
#endif

#if defined(LONG_NAME)
#define NAME "a-name-of-forty-eight-characters-which-is-a-deal"
#elif defined(AT_SIGN)
#define NAME "name@home"
#else
#define NAME "unfit"
#endif

static int32_t unfit_init(NOXPlugin *plugin)
{
    (void)plugin;
    return 0;
}

#if defined(NO_DESCRIPTOR)
NOX_API void other_function(NOXPluginDesc *desc);
#define plugin_desc other_function
#endif

void plugin_desc(NOXPluginDesc *desc)
{
    desc->name = NAME;
    desc->author = "libnoxcore";
    desc->size = (int32_t)sizeof(NOXPlugin);
    desc->init = unfit_init;
}
