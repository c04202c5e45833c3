// Bounded formatting.

#include "osa/common/export.h"

#include <cstdarg>
#include <cstdio>

extern "C" int32_t OSA_snprintf(char *buffer, uint32_t size, const char *format, ...)
{
    if (format == nullptr)
        return -1;
    va_list arguments;
    va_start(arguments, format);
    const int32_t length = std::vsnprintf(buffer, buffer != nullptr ? size : 0, format, arguments);
    va_end(arguments);
    return length;
}
