// The library's trace lines: one statement each, and nothing formatted or looked
// up for a line that the layer would drop.
//
// A source file defines `kSource`, its module's name, in its anonymous namespace
// and writes
//     NOX_TRACE(OSA_TRACE_ERROR, "...\n", ...);           the module speaks
//     NOX_TRACE_OBJECT(object, OSA_TRACE_ERROR, "...\n"); the object speaks
// in an exported operation, whose name the line then carries. A helper writes
//     NOX_TRACE_FOR("nox_...", OSA_TRACE_ERROR, "...\n", ...);
//     NOX_TRACE_OBJECT_FOR("nox_...", object, OSA_TRACE_ERROR, "...\n");
// with the operation it works for, so that a reader of the trace finds the name that
// the application called. One that works for several operations takes the name as
// its last parameter, `const char *function = __builtin_FUNCTION()`.
#ifndef NOX_INTERNAL_TRACE_H
#define NOX_INTERNAL_TRACE_H

#include <cstdint>

#include "noxobject.h"
#include "osa/osa.h"

// Weak here: a layer need not have the word, and then gets every line.
extern "C" __attribute__((weak)) int32_t OSA_TraceThreshold;

namespace nox
{

inline bool trace_passes(int32_t level)
{
    return &OSA_TraceThreshold == nullptr ||
           level <= __atomic_load_n(&OSA_TraceThreshold, __ATOMIC_RELAXED);
}

// What "%x" prints of a pointer: its low 32 bits.
inline uint32_t low32(const void *pointer)
{
    return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(pointer));
}

template <typename Result, typename... Arguments>
uint32_t low32(Result (*function)(Arguments...))
{
    return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(function));
}

inline const char *text_or_null(const char *text)
{
    return text != nullptr ? text : "null";
}

// What "%p" takes.
inline const void *address(const void *pointer)
{
    return pointer;
}

// The object's own name, for a text or as the module of its line.
inline const char *name_of(const void *object)
{
    if (object == nullptr)
        return "null";
    return text_or_null(static_cast<const NOXObject *>(object)->name);
}

} // namespace nox

#define NOX_TRACE_LINE(module, level, function, ...)                                               \
    do {                                                                                           \
        if (nox::trace_passes(level))                                                              \
            OSA_Trace(module, level, kSource, __LINE__, function, __VA_ARGS__);                    \
    } while (false)

#define NOX_TRACE_AS(module, level, ...) NOX_TRACE_LINE(module, level, __func__, __VA_ARGS__)
#define NOX_TRACE(level, ...) NOX_TRACE_AS(kSource, level, __VA_ARGS__)
#define NOX_TRACE_OBJECT(object, level, ...) NOX_TRACE_AS(nox::name_of(object), level, __VA_ARGS__)

#define NOX_TRACE_FOR(function, level, ...) NOX_TRACE_LINE(kSource, level, function, __VA_ARGS__)
#define NOX_TRACE_OBJECT_FOR(function, object, level, ...)                                         \
    NOX_TRACE_LINE(nox::name_of(object), level, function, __VA_ARGS__)

#endif
