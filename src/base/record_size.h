// The check that a base class makes of the record it is to fill.
#ifndef NOX_BASE_RECORD_SIZE_H
#define NOX_BASE_RECORD_SIZE_H

#include "internal/trace.h"
#include "noxplugin.h"

namespace nox
{

// False, after a trace, when the record was made too small for the base class: its
// descriptor gave the size of another. Of a record that nox_object_new did not make the
// size is not known, and null is the caller's to refuse.
template <typename Base>
bool holds(const NOXPlugin *plugin, const char *source, const char *function = __builtin_FUNCTION())
{
    if (plugin == nullptr || plugin->object.size == 0 || plugin->object.size >= sizeof(Base))
        return true;
    if (trace_passes(OSA_TRACE_ERROR))
        OSA_Trace(name_of(plugin), OSA_TRACE_ERROR, source, __LINE__, function,
                  "record size (%d) below (%d)\n", plugin->object.size,
                  static_cast<int>(sizeof(Base)));
    return false;
}

} // namespace nox

#endif
