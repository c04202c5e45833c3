/* endless: a live source that never ends by itself and does not know the wish to
 * end. Its silence can be announced as another format (option "format"). Options
 * "dry", the buffers after which it captures nothing more, and "stays", its stop
 * fails. */

#include <stddef.h>

#include "nox.h"
#include "noxbasesrc.h"

typedef struct Endless {
    NOXBaseSrc base;
    char format[16];
    uint32_t dry;
    uint32_t created;
    uint8_t stays;
} Endless;

static NOXBuffer *endless_create(NOXBaseSrc *source)
{
    Endless *self = (Endless *)source;
    OSA_ThreadSleep(1);
    if (self->dry > 0 && self->created++ >= self->dry)
        return NULL;
    return nox_buffer_new(160);
}

static int32_t endless_setformat(NOXBaseSrc *source, NOXStructure *format)
{
    const char *name = nox_structure_getvar_string(format, "format");
    if (name != NULL)
        OSA_snprintf(((Endless *)source)->format, sizeof((Endless *)source)->format, "%s", name);
    nox_structure_getvar_uint32(format, "dry", &((Endless *)source)->dry);
    nox_structure_getvar_bool(format, "stays", &((Endless *)source)->stays);
    return 0;
}

static int32_t endless_stop(NOXBaseSrc *source)
{
    return ((Endless *)source)->stays ? -1 : 0;
}

static int32_t endless_getformat(NOXBaseSrc *source, NOXStructure *format)
{
    const Endless *self = (const Endless *)source;
    const char *name = self->format;
    const uint32_t rate = 8000;
    const uint32_t channels = 1;
    nox_structure_putvar_string(format, "format", 0, &name);
    nox_structure_putvar_uint32(format, "dry", 0, &self->dry);
    nox_structure_putvar_bool(format, "stays", 0, &self->stays);
    nox_structure_putvar_string(format, "stream.format", 0, &name);
    nox_structure_putvar_uint32(format, "stream.rate", 0, &rate);
    return nox_structure_putvar_uint32(format, "stream.channels", 0, &channels);
}

static int32_t endless_finalize(NOXBaseSrc *source)
{
    (void)source;
    return 0;
}

static int32_t endless_init(NOXPlugin *plugin)
{
    Endless *self = (Endless *)plugin;
    if (nox_basesrc_init(&self->base) != 0)
        return -1;
    OSA_snprintf(self->format, sizeof self->format, "s16le");
    self->base.create_func = endless_create;
    self->base.setformat_func = endless_setformat;
    self->base.stop_func = endless_stop;
    self->base.getformat_func = endless_getformat;
    self->base.finalize_func = endless_finalize;
    return 0;
}

void plugin_desc(NOXPluginDesc *desc)
{
    desc->name = "endless";
    desc->author = "libnoxcore";
    desc->size = (int32_t)sizeof(Endless);
    desc->init = endless_init;
}
