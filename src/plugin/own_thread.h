// Plugins with a thread of their own that still runs when they are released.
#ifndef NOX_PLUGIN_OWN_THREAD_H
#define NOX_PLUGIN_OWN_THREAD_H

#include "noxplugin.h"

namespace nox
{

// Stops a plugin whose thread has not been joined, which is told. False when the
// thread runs on, because it is the calling one: nothing that it uses may go then.
bool end_own_thread(NOXPlugin *plugin, const char *function = __builtin_FUNCTION());

} // namespace nox

#endif
