// Reads and enters the options of a plugin, typed.

#include "common/options.h"

#include <cstring>

#include "common/report.h"

namespace noxplugins
{

namespace
{

NOXStructureNode *find(void *plugin, NOXStructure *format, const char *name, int32_t type,
                       const char *type_name, Option &found)
{
    NOXStructureNode *node = nox_sturcture_search_node(format, name);
    found = node == nullptr ? Option::absent : Option::taken;
    if (node == nullptr || node->type == type)
        return node;
    report(plugin, PLUGIN_MSG_OPTION, "option %s must be of type %s", name, type_name);
    found = Option::refused;
    return nullptr;
}

} // namespace

Option take_option(void *plugin, NOXStructure *format, const char *name, uint32_t &value)
{
    Option found;
    if (const auto *node = find(plugin, format, name, NOX_TYPE_UINT32, "uint32", found))
        value = node->value.uint32_value;
    return found;
}

Option take_option(void *plugin, NOXStructure *format, const char *name, bool &value)
{
    Option found;
    if (const auto *node = find(plugin, format, name, NOX_TYPE_BOOL, "bool", found))
        value = node->value.bool_value != 0;
    return found;
}

Option take_option(void *plugin, NOXStructure *format, const char *name, float &value)
{
    Option found;
    if (const auto *node = find(plugin, format, name, NOX_TYPE_FLOAT, "float", found))
        value = node->value.float_value;
    return found;
}

Option take_option(void *plugin, NOXStructure *format, const char *name, const char *&value)
{
    Option found;
    if (const auto *node = find(plugin, format, name, NOX_TYPE_STRING, "string", found))
        value = node->value.string_value;
    return found;
}

Option take_location(void *plugin, NOXStructure *format, Text &location)
{
    const char *given = nullptr;
    const Option found = take_option(plugin, format, "location", given);
    if (found == Option::refused || (found == Option::absent && location != nullptr))
        return found;
    if (given == nullptr || *given == '\0') {
        report(plugin, PLUGIN_MSG_OPTION, "option location is missing: the WAV file's path");
        return Option::refused;
    }
    Text copy(strdup(given));
    if (copy == nullptr) {
        report(plugin, PLUGIN_MSG_MEMORY, "no memory for the location");
        return Option::refused;
    }
    location = std::move(copy);
    return Option::taken;
}

int32_t put_option(NOXStructure *format, const char *name, uint32_t value)
{
    return nox_structure_putvar_uint32(format, name, 0, &value);
}

int32_t put_option(NOXStructure *format, const char *name, uint64_t value)
{
    return nox_structure_putvar_uint64(format, name, 0, &value);
}

int32_t put_option(NOXStructure *format, const char *name, bool value)
{
    const uint8_t stored = value ? 1 : 0;
    return nox_structure_putvar_bool(format, name, 0, &stored);
}

int32_t put_option(NOXStructure *format, const char *name, float value)
{
    return nox_structure_putvar_float(format, name, 0, &value);
}

int32_t put_option(NOXStructure *format, const char *name, const char *value)
{
    return nox_structure_putvar_string(format, name, 0, &value);
}

} // namespace noxplugins
