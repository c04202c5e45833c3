// The options of the base source: read from the format, and told on the trace.

#include "base/basesrc_internal.h"
#include "base/option.h"
#include "internal/trace.h"
#include "noxbasesrc.h"

namespace
{

constexpr char kSource[] = "noxbasesrc";
constexpr char kSetFormat[] = "nox_basesrc_setformat"; // whose options these are

const char *policy_name(int32_t errhandle)
{
    switch (errhandle) {
    case NOX_ERRHANDLE_QUIT:
        return "QUIT";
    case NOX_ERRHANDLE_RETRY:
        return "RETRY+CB";
    case NOX_ERRHANDLE_RESTART:
        return "RESTART+CB";
    case NOX_ERRHANDLE_DONT_CARE:
        return "DONT_CARE";
    default:
        return "NONE(QUIT)";
    }
}

// Written as an unsigned value, taken as a signed one.
void read_signed(NOXStructure *format, const char *key, int32_t &field)
{
    uint32_t value = static_cast<uint32_t>(field);
    nox::read_option(format, key, value);
    nox::store_relaxed(field, static_cast<int32_t>(value));
}

void read_options(NOXBaseSrc *source, NOXStructure *format)
{
    nox::read_option(format, "priority", source->priority);
    nox::read_option(format, "maxframes", source->maxframes);
    nox::read_option(format, "islive", source->islive);
    read_signed(format, "errhandle", source->errhandle);
    read_signed(format, "errcount", source->errcount);
    uint32_t size;
    if (void *callback = nox_structure_getvar_void(format, "errcallback", &size))
        source->errcallback = callback;
    uint8_t asyncstart;
    if (nox_structure_getvar_bool(format, "asyncstart", &asyncstart) == 0)
        nox::store_relaxed(source->waitallsrc, uint8_t{asyncstart == 0});
    nox::read_option(format, "privatets", source->privatets);
}

void trace_options(const NOXBaseSrc *source)
{
    NOX_TRACE_OBJECT_FOR(kSetFormat, source, OSA_TRACE_NOTICE, "priority  (%d)\n",
                         source->priority);
    NOX_TRACE_OBJECT_FOR(kSetFormat, source, OSA_TRACE_NOTICE, "maxframes (%d)\n",
                         source->maxframes);
    NOX_TRACE_OBJECT_FOR(kSetFormat, source, OSA_TRACE_NOTICE, "islive    (%d)\n", source->islive);
    NOX_TRACE_OBJECT_FOR(kSetFormat, source, OSA_TRACE_NOTICE, "asyncstart(%d)\n",
                         nox::load_relaxed(source->waitallsrc) ? 0 : 1);
    NOX_TRACE_OBJECT_FOR(kSetFormat, source, OSA_TRACE_NOTICE, "privatets (%d)\n",
                         source->privatets);
    if (source->islive)
        NOX_TRACE_OBJECT_FOR(kSetFormat, source, OSA_TRACE_NOTICE, "on-error  (%d:%s)\n",
                             source->errhandle, policy_name(source->errhandle));
}

} // namespace

int32_t nox_basesrc_setformat(NOXPlugin *plugin, NOXStructure *format)
{
    NOXBaseSrc *source = nox::source_of(plugin);
    read_options(source, format);
    const int32_t result =
        source->setformat_func != nullptr ? source->setformat_func(source, format) : 0;
    trace_options(source);
    return result;
}

int32_t nox_basesrc_getformat(NOXPlugin *plugin, NOXStructure *format)
{
    NOXBaseSrc *source = nox::source_of(plugin);
    return source->getformat_func != nullptr ? source->getformat_func(source, format) : 0;
}
