// How a plugin says what is wrong.
#ifndef NOX_PLUGINS_COMMON_REPORT_H
#define NOX_PLUGINS_COMMON_REPORT_H

#include "noxplugin.h"
#include "plugin_messages.h"

namespace noxplugins
{

// Posts the text on the plugin's bus; a plugin in no pipe has none, and traces it
// at level 1 instead. Returns -1, so that a failing function can end with it.
int32_t report(void *plugin, int32_t code, const char *format, ...) OSA_PRINTF(3, 4);

} // namespace noxplugins

#endif
