// The buffers that a plugin writes into.
#ifndef NOX_PLUGINS_COMMON_OUTPUT_H
#define NOX_PLUGINS_COMMON_OUTPUT_H

#include "noxplugin.h"

namespace noxplugins
{

// nox_plugin_get_outbuffer, with what comes looked at: it may be from another's
// allocator, and what is too long would go on with bytes that nobody has written. Null,
// after a report, without memory and when the blocks are not those asked for.
NOXBuffer *take_outbuffer(void *plugin, NOXBufferRequest request);

} // namespace noxplugins

#endif
