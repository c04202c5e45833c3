/* A plugin library of many faults: the environment variable BAD_PLUGIN names the one that its
 * descriptor has this time. Other libraries are built of it by definitions: without the
 * descriptor function, with data in its place, with a function that is nowhere. */

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "nox.h"
#include "noxbasefilter.h"
#include "noxbasesink.h"
#include "noxbasesrc.h"
#include "osa/osa.h"

/* Bigger than any base class's. */
typedef union Record {
    NOXPlugin plugin;
    NOXBaseSrc source;
    NOXBaseFilter filter;
    NOXBaseSink sink;
} Record;

/* ---- an init that gives up half-way, holding what it has taken so far */

typedef struct HalfMade {
    NOXPlugin plugin;
    NOXStructure *taken;
} HalfMade;

static int32_t half_made_finalize(NOXPlugin *plugin)
{
    nox_object_delete(((HalfMade *)plugin)->taken);
    return 0;
}

static int32_t half_made_init(NOXPlugin *plugin)
{
    if (nox_plugin_init(plugin) != 0)
        return -1;
    ((HalfMade *)plugin)->taken = nox_structure_new("taken");
    plugin->finalize_func = half_made_finalize;
    nox_plugin_set_allocator(plugin, nox_allocator_new(plugin));
    return -1;
}

/* ---- slots that fail, and say that they were called */

static int32_t fail(const char *slot)
{
    OSA_Trace("bad", OSA_TRACE_ERROR, "bad_plugin", __LINE__, slot, "failing %s\n", slot);
    return -1;
}

static int32_t fail_start(NOXPlugin *plugin)
{
    (void)plugin;
    return fail("start");
}

static int32_t fail_stop(NOXPlugin *plugin)
{
    (void)plugin;
    return fail("stop");
}

static int32_t fail_finalize(NOXPlugin *plugin)
{
    (void)plugin;
    return fail("finalize");
}

static int32_t fail_setstate(NOXPlugin *plugin, int32_t state)
{
    (void)plugin, (void)state;
    return fail("setstate");
}

static int32_t fail_link(NOXPlugin *plugin, NOXPlugin *next)
{
    (void)plugin, (void)next;
    return fail("link");
}

static int32_t fail_prepare(NOXPlugin *plugin, void *argument)
{
    (void)plugin, (void)argument;
    return fail("prepare");
}

static int32_t fail_chain(NOXPlugin *plugin, NOXBuffer *buffer)
{
    (void)plugin, (void)buffer;
    return fail("chain");
}

static int32_t fail_setformat(NOXPlugin *plugin, NOXStructure *format)
{
    (void)plugin, (void)format;
    return fail("setformat");
}

static int32_t fail_getformat(NOXPlugin *plugin, NOXStructure *format)
{
    (void)plugin, (void)format;
    return fail("getformat");
}

static int32_t fail_event(NOXPlugin *plugin, NOXEvent *event)
{
    (void)plugin, (void)event;
    return fail("event");
}

static NOXAllocator *fail_getallocator(NOXPlugin *plugin)
{
    (void)plugin;
    fail("getallocator");
    return NULL;
}

static NOXBuffer *fail_create(NOXBaseSrc *source)
{
    (void)source;
    fail("create");
    return NULL;
}

static int is_wanted(const char *slot)
{
    const char *kind = getenv("BAD_PLUGIN");
    return kind == NULL || strcmp(kind, "failing slots") == 0 ||
           strcmp(kind, "failing source") == 0 || strcmp(strrchr(kind, ' ') + 1, slot) == 0;
}

#define LET_FAIL(slot)                                                                             \
    if (is_wanted(#slot))                                                                          \
    plugin->slot##_func = fail_##slot

static void fill_failing(NOXPlugin *plugin)
{
    LET_FAIL(setstate);
    LET_FAIL(link);
    LET_FAIL(prepare);
    LET_FAIL(chain);
    LET_FAIL(setformat);
    LET_FAIL(getformat);
    LET_FAIL(getallocator);
    LET_FAIL(finalize);
    LET_FAIL(event);
    LET_FAIL(start);
    LET_FAIL(stop);
}

static int32_t failing_init(NOXPlugin *plugin)
{
    const int32_t result = nox_plugin_init(plugin);
    fill_failing(plugin);
    return result;
}

/* A filter with one slot that fails, so that nothing else keeps that one from being called. */
static int32_t failing_filter_init(NOXPlugin *plugin)
{
    const int32_t result = nox_basefilter_init((NOXBaseFilter *)plugin);
    plugin->chain_func = nox_plugin_push_buffer;
    fill_failing(plugin);
    return result;
}

/* Its thread runs, and captures nothing. */
static int32_t failing_source_init(NOXPlugin *plugin)
{
    const int32_t result = nox_basesrc_init((NOXBaseSrc *)plugin);
    const NOXPlugin base = *plugin;
    fill_failing(plugin);
    plugin->start_func = base.start_func;
    plugin->stop_func = base.stop_func;
    ((NOXBaseSrc *)plugin)->create_func = fail_create;
    return result;
}

/* ---- others */

static int32_t fine_init(NOXPlugin *plugin)
{
    return nox_plugin_init(plugin);
}

static int32_t empty_init(NOXPlugin *plugin)
{
    (void)plugin;
    return -1;
}

static int32_t source_init(NOXPlugin *plugin)
{
    return nox_basesrc_init((NOXBaseSrc *)plugin);
}

static int32_t filter_init(NOXPlugin *plugin)
{
    return nox_basefilter_init((NOXBaseFilter *)plugin);
}

static int32_t sink_init(NOXPlugin *plugin)
{
    return nox_basesink_init((NOXBaseSink *)plugin);
}

typedef struct Kind {
    const char *kind;
    NOXPluginDesc desc;
} Kind;

#define WHOLE (int32_t)sizeof(Record)
#define BARE (int32_t)sizeof(NOXPlugin)

static const Kind kinds[] = {
    {"fine", {"bad", "soak", WHOLE, fine_init}},
    {"null name", {NULL, "soak", WHOLE, fine_init}},
    {"null author", {"bad", NULL, WHOLE, fine_init}},
    {"null init", {"bad", "soak", WHOLE, NULL}},
    {"size 0", {"bad", "soak", 0, fine_init}},
    {"size too small", {"bad", "soak", BARE - 1, fine_init}},
    {"size 2 GiB", {"bad", "soak", INT32_MIN, fine_init}},
    {"size 2 GiB less 1", {"bad", "soak", INT32_MAX, fine_init}},
    {"half made", {"bad", "soak", (int32_t)sizeof(HalfMade), half_made_init}},
    {"no slots", {"bad", "soak", BARE, empty_init}},
    {"size without source", {"bad", "soak", BARE, source_init}},
    {"size without filter", {"bad", "soak", BARE, filter_init}},
    {"size without sink", {"bad", "soak", BARE, sink_init}},
    {"failing slots", {"bad", "soak", WHOLE, failing_init}},
    {"failing setstate", {"bad", "soak", WHOLE, failing_filter_init}},
    {"failing link", {"bad", "soak", WHOLE, failing_filter_init}},
    {"failing prepare", {"bad", "soak", WHOLE, failing_filter_init}},
    {"failing chain", {"bad", "soak", WHOLE, failing_filter_init}},
    {"failing setformat", {"bad", "soak", WHOLE, failing_filter_init}},
    {"failing getformat", {"bad", "soak", WHOLE, failing_filter_init}},
    {"failing getallocator", {"bad", "soak", WHOLE, failing_filter_init}},
    {"failing finalize", {"bad", "soak", WHOLE, failing_filter_init}},
    {"failing event", {"bad", "soak", WHOLE, failing_filter_init}},
    {"failing start", {"bad", "soak", WHOLE, failing_filter_init}},
    {"failing stop", {"bad", "soak", WHOLE, failing_filter_init}},
    {"failing source", {"bad", "soak", WHOLE, failing_source_init}},
};

#if defined(NOWHERE)
extern int32_t a_function_that_is_nowhere(void);
#endif

#if defined(DATA)
NOX_API extern int data_in_its_place[4] __asm__("plugin_desc");
int data_in_its_place[4] = {1, 2, 3, 4};
#endif

#if defined(NO_DESCRIPTOR) || defined(DATA) || defined(NULL_SYMBOL)
#define plugin_desc other_function
#endif

NOX_API void plugin_desc(NOXPluginDesc *desc)
{
    const char *wanted = getenv("BAD_PLUGIN");
    *desc = kinds[0].desc;
    for (size_t i = 0; wanted != NULL && i < sizeof(kinds) / sizeof(kinds[0]); ++i)
        if (strcmp(kinds[i].kind, wanted) == 0)
            *desc = kinds[i].desc;
#if defined(NOWHERE)
    desc->size = a_function_that_is_nowhere();
#endif
}
