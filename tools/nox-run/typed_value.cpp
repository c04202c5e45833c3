// One table of the types that can be written as text, with their readers.

#include "typed_value.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <iterator>

namespace
{

constexpr char kRefused[] = "the value could not be stored";

std::string put(NOXStructure *structure, const std::string &key, int32_t type, const void *value)
{
    return nox_structure_putvar[type](structure, key.c_str(), 0, value) == 0 ? "" : kRefused;
}

template <typename Number>
std::string put_number(NOXStructure *structure, const std::string &key, int32_t type,
                       const std::string &text)
{
    Number number{};
    const char *end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    if (error == std::errc::result_out_of_range)
        return text + " does not fit " + type_name(type);
    if (error != std::errc() || stop != end)
        return "\"" + text + "\" is no value of type " + type_name(type);
    return put(structure, key, type, &number);
}

std::string put_bool(NOXStructure *structure, const std::string &key, int32_t type,
                     const std::string &text)
{
    static constexpr std::array<const char *, 8> kWords = {"false", "true", "no", "yes",
                                                           "off",   "on",   "0",  "1"};
    const auto *word = std::find(kWords.begin(), kWords.end(), text);
    if (word == kWords.end())
        return "\"" + text + "\" is neither true nor false";
    const auto truth = static_cast<uint8_t>((word - kWords.begin()) % 2);
    return put(structure, key, type, &truth);
}

std::string put_char(NOXStructure *structure, const std::string &key, int32_t type,
                     const std::string &text)
{
    return text.size() == 1 ? put(structure, key, type, text.data())
                            : "\"" + text + "\" is not one character";
}

std::string put_string(NOXStructure *structure, const std::string &key, int32_t type,
                       const std::string &text)
{
    const char *value = text.c_str();
    return put(structure, key, type, &value);
}

using PutText = std::string (*)(NOXStructure *, const std::string &, int32_t, const std::string &);

struct TypeEntry {
    const char *name;
    int32_t type;
    PutText put;
};

constexpr TypeEntry kTypes[] = {
    {"char", NOX_TYPE_CHAR, put_char},
    {"int16", NOX_TYPE_INT16, put_number<int16_t>},
    {"uint16", NOX_TYPE_UINT16, put_number<uint16_t>},
    {"int32", NOX_TYPE_INT32, put_number<int32_t>},
    {"uint32", NOX_TYPE_UINT32, put_number<uint32_t>},
    {"int64", NOX_TYPE_INT64, put_number<int64_t>},
    {"uint64", NOX_TYPE_UINT64, put_number<uint64_t>},
    {"bool", NOX_TYPE_BOOL, put_bool},
    {"string", NOX_TYPE_STRING, put_string},
    {"float", NOX_TYPE_FLOAT, put_number<float>},
};

const TypeEntry *find_type(int32_t type)
{
    const auto *found = std::find_if(std::begin(kTypes), std::end(kTypes),
                                     [&](const TypeEntry &entry) { return entry.type == type; });
    return found == std::end(kTypes) ? nullptr : found;
}

} // namespace

std::optional<int32_t> type_from_name(const std::string &name)
{
    for (const TypeEntry &entry : kTypes)
        if (name == entry.name)
            return entry.type;
    return std::nullopt;
}

std::string type_name(int32_t type)
{
    const TypeEntry *entry = find_type(type);
    return entry == nullptr ? "pointer" : entry->name;
}

std::string type_names()
{
    std::string names;
    for (const TypeEntry &entry : kTypes)
        names += (names.empty() ? "" : ", ") + std::string(entry.name);
    return names;
}

std::string put_value(NOXStructure *structure, const std::string &key, int32_t type,
                      const std::string &text)
{
    const TypeEntry *entry = find_type(type);
    return entry == nullptr ? "an option of type pointer cannot be written as text"
                            : entry->put(structure, key, type, text);
}
