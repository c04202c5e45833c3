// Posts a plugin's errors where the application hears them.

#include "common/report.h"

#include <cstdarg>
#include <cstdio>

namespace noxplugins
{

int32_t report(void *plugin, int32_t code, const char *format, ...)
{
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);

    auto *self = static_cast<NOXPlugin *>(plugin);
    if (self->bus != nullptr)
        nox_plugin_error_post(self, code, text);
    else
        OSA_Trace(self->object.name, OSA_TRACE_ERROR, "plugins", __LINE__, __func__, "%s\n", text);
    return -1;
}

} // namespace noxplugins
