// Reading one option of a base class from a format.
#ifndef NOX_BASE_OPTION_H
#define NOX_BASE_OPTION_H

#include "internal/atomic_field.h"
#include "noxstructure.h"

namespace nox
{

// Stores the option's value when the format has it; else the field stays as it was.
// Atomically, because the plugin's thread may be reading the field.
template <typename Value>
void read_option(NOXStructure *format, const char *key,
                 int32_t (*getvar)(NOXStructure *, const char *, Value *), Value &field)
{
    Value value;
    if (getvar(format, key, &value) == 0)
        store_relaxed(field, value);
}

inline void read_option(NOXStructure *format, const char *key, uint8_t &field)
{
    read_option(format, key, nox_structure_getvar_bool, field);
}

inline void read_option(NOXStructure *format, const char *key, uint32_t &field)
{
    read_option(format, key, nox_structure_getvar_uint32, field);
}

} // namespace nox

#endif
