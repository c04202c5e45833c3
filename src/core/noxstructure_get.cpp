// Reading the entries of a structure: one getter for each type.

#include "internal/trace.h"
#include "noxstructure.h"

namespace
{

constexpr char kSource[] = "noxstructure";

// The entry of that name and type; a name with another type counts as missing.
const NOXStructureNode *find(NOXStructure *structure, const char *name, int32_t type,
                             int32_t miss_level, const char *function = __builtin_FUNCTION())
{
    const NOXStructureNode *entry = nox_sturcture_search_node(structure, name);
    if (entry != nullptr && entry->type == type)
        return entry;
    NOX_TRACE_FOR(function, miss_level, "can not find name(%s)\n", name);
    return nullptr;
}

} // namespace

// Missing is an ordinary answer for an option, the more so for the types that
// most options have; hence the quiet levels.
#define NOX_GET_FIXED(name_part, type, code, miss_level)                                           \
    int32_t nox_structure_getvar_##name_part(NOXStructure *structure, const char *name,            \
                                             type *value)                                          \
    {                                                                                              \
        const NOXStructureNode *entry = find(structure, name, code, miss_level);                   \
        if (entry == nullptr)                                                                      \
            return -1;                                                                             \
        *value = entry->value.name_part##_value;                                                   \
        return 0;                                                                                  \
    }

NOX_GET_FIXED(char, char, NOX_TYPE_CHAR, OSA_TRACE_INFO)
NOX_GET_FIXED(int16, int16_t, NOX_TYPE_INT16, OSA_TRACE_INFO)
NOX_GET_FIXED(uint16, uint16_t, NOX_TYPE_UINT16, OSA_TRACE_INFO)
NOX_GET_FIXED(int32, int32_t, NOX_TYPE_INT32, OSA_TRACE_INFO)
NOX_GET_FIXED(uint32, uint32_t, NOX_TYPE_UINT32, OSA_TRACE_INFO)
NOX_GET_FIXED(int64, int64_t, NOX_TYPE_INT64, OSA_TRACE_INFO)
NOX_GET_FIXED(uint64, uint64_t, NOX_TYPE_UINT64, OSA_TRACE_INFO)
NOX_GET_FIXED(bool, uint8_t, NOX_TYPE_BOOL, OSA_TRACE_VERBOSE)
NOX_GET_FIXED(float, float, NOX_TYPE_FLOAT, OSA_TRACE_INFO)

const char *nox_structure_getvar_string(NOXStructure *structure, const char *name)
{
    const NOXStructureNode *entry = find(structure, name, NOX_TYPE_STRING, OSA_TRACE_VERBOSE);
    return entry != nullptr ? entry->value.string_value : nullptr;
}

void *nox_structure_getvar_void(NOXStructure *structure, const char *name, uint32_t *size)
{
    const NOXStructureNode *entry = find(structure, name, NOX_TYPE_VOID, OSA_TRACE_VERBOSE);
    if (entry == nullptr)
        return nullptr;
    *size = static_cast<uint32_t>(entry->size);
    return entry->value.void_value;
}

NOXStructureFunction nox_structure_getvar_func(NOXStructure *structure, const char *name,
                                               uint64_t *extra)
{
    const NOXStructureNode *entry = find(structure, name, NOX_TYPE_FUNC, OSA_TRACE_INFO);
    if (entry == nullptr)
        return nullptr;
    *extra = entry->extra;
    return entry->value.func_value;
}
