// Setting the entries of a structure: one setter for each type, their table, and
// the setter by type code.

#include <cstdarg>
#include <cstring>

#include "internal/guard.h"
#include "internal/trace.h"
#include "noxstructure.h"

namespace
{

constexpr char kSource[] = "noxstructure";
constexpr char kOtherType[] = "already exist name(%s) but type is (%d)\n";
constexpr char kOtherTypeThanFloat[] = "already exist name(%s) but type is diffrence (%d)\n";

using Value = decltype(NOXStructureNode::value);

bool name_fits(const NOXStructure *structure, const char *name, const char *function)
{
    const size_t length = strnlen(name, NOX_STRUCTURE_NAME_SIZE);
    if (length < NOX_STRUCTURE_NAME_SIZE)
        return true;
    NOX_TRACE_FOR(function, OSA_TRACE_ERROR,
                  "structure(%s) name(%.32s...) longer than (%d) characters\n",
                  nox::name_of(structure), name, NOX_STRUCTURE_NAME_SIZE - 1);
    return false;
}

// Whether `name` may hold a value of this type; its entry, if any, in `entry`.
bool accepts(NOXStructure *structure, const char *name, int32_t type, NOXStructureNode *&entry,
             const char *function = __builtin_FUNCTION())
{
    entry = nullptr;
    if (!name_fits(structure, name, function))
        return false;
    entry = nox_sturcture_search_node(structure, name);
    if (entry == nullptr || entry->type == type)
        return true;
    if (type == NOX_TYPE_FLOAT)
        NOX_TRACE_FOR(function, OSA_TRACE_ERROR, kOtherTypeThanFloat, name, entry->type);
    else
        NOX_TRACE_FOR(function, OSA_TRACE_ERROR, kOtherType, name, entry->type);
    return false;
}

NOXStructureNode *new_entry(NOXStructure *structure, const char *name, int32_t type,
                            const char *function = __builtin_FUNCTION())
{
    NOXStructureNode *entry = nox_structure_new_node(structure);
    if (entry == nullptr) {
        NOX_TRACE_FOR(function, OSA_TRACE_ERROR, "structure node craete failed\n");
        return nullptr;
    }
    entry->type = type;
    entry->size = static_cast<int32_t>(nox_structure_type_getsize(type));
    std::memcpy(entry->name, name, std::strlen(name));
    return entry;
}

// The entry to write a value of this type to, existing or new; null when refused.
NOXStructureNode *entry_for(NOXStructure *structure, const char *name, int32_t type,
                            const char *function = __builtin_FUNCTION())
{
    NOXStructureNode *entry;
    if (!accepts(structure, name, type, entry, function))
        return nullptr;
    return entry != nullptr ? entry : new_entry(structure, name, type, function);
}

template <int32_t type, auto member>
int32_t put_fixed(NOXStructure *structure, const char *name, const void *value,
                  const char *function = __builtin_FUNCTION())
{
    NOXStructureNode *entry = entry_for(structure, name, type, function);
    if (entry == nullptr)
        return -1;
    std::memcpy(&(entry->value.*member), value, sizeof(entry->value.*member));
    return 0;
}

Value take_argument(int32_t type, va_list *arguments)
{
    Value value{};
    switch (type) {
    case NOX_TYPE_CHAR:
    case NOX_TYPE_BOOL:
        value.bool_value = static_cast<uint8_t>(va_arg(*arguments, int));
        break;
    case NOX_TYPE_INT16:
    case NOX_TYPE_UINT16:
        value.uint16_value = static_cast<uint16_t>(va_arg(*arguments, int));
        break;
    case NOX_TYPE_INT32:
    case NOX_TYPE_UINT32:
        value.int32_value = va_arg(*arguments, int);
        break;
    case NOX_TYPE_FLOAT:
        value.float_value = static_cast<float>(va_arg(*arguments, double));
        break;
    default:
        value.uint64_value = va_arg(*arguments, uint64_t);
        break;
    }
    return value;
}

} // namespace

#define NOX_PUT_FIXED(name_part, code)                                                             \
    int32_t nox_structure_putvar_##name_part(NOXStructure *structure, const char *name, uint64_t,  \
                                             const void *value)                                    \
    {                                                                                              \
        return put_fixed<code, &Value::name_part##_value>(structure, name, value);                 \
    }

NOX_PUT_FIXED(char, NOX_TYPE_CHAR)
NOX_PUT_FIXED(int16, NOX_TYPE_INT16)
NOX_PUT_FIXED(uint16, NOX_TYPE_UINT16)
NOX_PUT_FIXED(int32, NOX_TYPE_INT32)
NOX_PUT_FIXED(uint32, NOX_TYPE_UINT32)
NOX_PUT_FIXED(int64, NOX_TYPE_INT64)
NOX_PUT_FIXED(uint64, NOX_TYPE_UINT64)
NOX_PUT_FIXED(bool, NOX_TYPE_BOOL)

int32_t nox_structure_putvar_string(NOXStructure *structure, const char *name, uint64_t size,
                                    const void *value)
{
    const char *text = *static_cast<const char *const *>(value);
    NOXStructureNode *entry;
    if (!accepts(structure, name, NOX_TYPE_STRING, entry))
        return -1;
    NOX_TRACE(OSA_TRACE_VERBOSE, "st(%x) name(%s) size(%d) v(%s)\n", nox::low32(structure), name,
              static_cast<int32_t>(size), nox::text_or_null(text));
    // Copied before the old text goes: `text` may be that very text.
    nox::Text copy = nox::copy_text(text);
    if (text != nullptr && !copy) {
        NOX_TRACE(OSA_TRACE_ERROR, "structure node craete failed\n");
        return -1;
    }
    if (entry == nullptr)
        entry = new_entry(structure, name, NOX_TYPE_STRING);
    if (entry == nullptr)
        return -1;
    std::free(entry->value.string_value);
    entry->size = copy ? static_cast<int32_t>(std::strlen(copy.get())) : 0;
    entry->value.string_value = copy.release();
    return 0;
}

int32_t nox_structure_putvar_void(NOXStructure *structure, const char *name, uint64_t size,
                                  const void *value)
{
    NOXStructureNode *entry = entry_for(structure, name, NOX_TYPE_VOID);
    if (entry == nullptr)
        return -1;
    entry->size = static_cast<int32_t>(size);
    entry->value.void_value = *static_cast<void *const *>(value);
    return 0;
}

int32_t nox_structure_putvar_func(NOXStructure *structure, const char *name, uint64_t size,
                                  const void *value)
{
    NOXStructureNode *entry = entry_for(structure, name, NOX_TYPE_FUNC);
    if (entry == nullptr)
        return -1;
    entry->extra = size;
    entry->value.func_value = *static_cast<const NOXStructureFunction *>(value);
    return 0;
}

int32_t nox_structure_putvar_float(NOXStructure *structure, const char *name, uint64_t,
                                   const void *value)
{
    NOXStructureNode *entry;
    if (!accepts(structure, name, NOX_TYPE_FLOAT, entry))
        return -1;
    const bool overwrites = entry != nullptr;
    if (!overwrites)
        entry = new_entry(structure, name, NOX_TYPE_FLOAT);
    if (entry == nullptr)
        return -1;
    std::memcpy(&entry->value.float_value, value, sizeof(entry->value.float_value));
    if (overwrites)
        NOX_TRACE(OSA_TRACE_INFO, "already exist name(%s) value is overwriten (%f)\n", name,
                  static_cast<double>(entry->value.float_value));
    return 0;
}

const NOXStructurePutFunc nox_structure_putvar[12] = {
    nox_structure_putvar_char,   nox_structure_putvar_int16,  nox_structure_putvar_uint16,
    nox_structure_putvar_int32,  nox_structure_putvar_uint32, nox_structure_putvar_int64,
    nox_structure_putvar_uint64, nox_structure_putvar_bool,   nox_structure_putvar_string,
    nox_structure_putvar_void,   nox_structure_putvar_func,   nox_structure_putvar_float,
};

int32_t nox_structure_putvar1(int32_t type, NOXStructure *structure, const char *name, ...)
{
    if (type < NOX_TYPE_CHAR || type > NOX_TYPE_FLOAT)
        return -1;
    va_list arguments;
    va_start(arguments, name);
    const bool wide_size = type == NOX_TYPE_VOID || type == NOX_TYPE_FUNC;
    const uint64_t size =
        wide_size ? va_arg(arguments, uint64_t) : static_cast<uint32_t>(va_arg(arguments, int));
    const Value value = take_argument(type, &arguments);
    va_end(arguments);
    return nox_structure_putvar[type](structure, name, size, &value);
}
