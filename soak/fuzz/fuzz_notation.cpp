// Feeds the parser of notations, and gives the values it finds to the option types.
//
// What parses must parse to the same when it is written again; what does not must say why
// and where; a value that an option type takes must come back as the same value.

#include <algorithm>
#include <cctype>
#include <charconv>
#include <set>
#include <string>
#include <string_view>

#include "notation.h"
#include "noxobject.h"
#include "osa/sim/osasim.h"
#include "require.h"
#include "typed_value.h"

namespace
{

using Elements = std::vector<ElementText>;

// How a value may be written so that each of its characters is taken as it is.
enum class Quoting { backslashes, single, twice };

std::string with_backslashes(const std::string &value, const char *special)
{
    std::string text;
    for (const char character : value)
        text += (std::string_view(special).find(character) == std::string_view::npos ? "" : "\\") +
                std::string(1, character);
    return text;
}

std::string in_single_quotes(const std::string &value)
{
    std::string text = "'";
    for (const char character : value)
        text += character == '\'' ? "'\\''" : std::string(1, character);
    return text + "'";
}

std::string write_value(const std::string &value, Quoting quoting)
{
    switch (quoting) {
    case Quoting::backslashes:
        return with_backslashes(value, " \t\r\n\"'\\(");
    case Quoting::single:
        return in_single_quotes(value);
    default:
        return "\"" + with_backslashes(value, "\"\\") + "\"";
    }
}

std::string write_link(const Elements &elements, size_t index)
{
    const auto &upstream = elements[index].upstream;
    if (!upstream)
        return index == 0 ? "" : "\n";
    return *upstream + 1 == index ? " ! " : " " + elements[*upstream].name + ". ! ";
}

std::string write_notation(const Elements &elements, Quoting quoting)
{
    std::string text;
    for (size_t index = 0; index < elements.size(); ++index) {
        const ElementText &element = elements[index];
        text += write_link(elements, index) + element.plugin;
        if (element.named)
            text += " name=" + element.name;
        for (const OptionText &option : element.options) {
            const std::string type = option.type.empty() ? "" : "(" + option.type + ")";
            text += " " + option.key + "=" + type + write_value(option.value, quoting);
        }
    }
    return text;
}

bool same_option(const OptionText &one, const OptionText &other)
{
    return one.key == other.key && one.type == other.type && one.value == other.value;
}

bool same_element(const ElementText &one, const ElementText &other)
{
    return one.plugin == other.plugin && one.name == other.name && one.named == other.named &&
           one.upstream == other.upstream &&
           std::equal(one.options.begin(), one.options.end(), other.options.begin(),
                      other.options.end(), same_option);
}

void check_written_again(const Elements &elements)
{
    for (const Quoting quoting : {Quoting::backslashes, Quoting::single, Quoting::twice}) {
        const std::string text = write_notation(elements, quoting);
        try {
            const Elements again = parse_notation(text);
            require(std::equal(elements.begin(), elements.end(), again.begin(), again.end(),
                               same_element),
                    "written again it means something else", text);
        } catch (const NotationError &error) {
            require(false, "written again it is refused", text + "\n" + error.message);
        }
    }
}

std::string_view at(std::string_view text, Place place)
{
    require(place.begin <= text.size() && place.length <= text.size() - place.begin,
            "a place outside the text");
    return text.substr(place.begin, place.length);
}

void check_element(std::string_view text, const Elements &elements, size_t index)
{
    const ElementText &element = elements[index];
    require(at(text, element.place) == element.plugin, "the place is not the element's");
    require(!element.upstream || *element.upstream < index, "fed by a later element");
    std::set<std::string> keys = {"name"};
    for (const OptionText &option : element.options) {
        require(at(text, option.key_place) == option.key, "the place is not the key's");
        require(at(text, option.type_place) == option.type, "the place is not the type's");
        at(text, option.value_place);
        require(keys.insert(option.key).second, "an option twice", option.key);
    }
}

void check_elements(std::string_view text, const Elements &elements)
{
    require(!elements.empty(), "no elements and no error");
    std::set<std::string> names;
    for (size_t index = 0; index < elements.size(); ++index) {
        check_element(text, elements, index);
        const std::string &name = elements[index].name;
        require(!name.empty() && names.insert(name).second, "no name, or one taken", name);
    }
}

bool is_printable(std::string_view text)
{
    return std::none_of(text.begin(), text.end(), [](char character) {
        return std::iscntrl(static_cast<unsigned char>(character)) != 0;
    });
}

bool is_utf8(std::string_view text)
{
    size_t continuing = 0; // bytes that are still to come
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if ((byte >> 6 == 2) != (continuing > 0) || byte >= 0xF8)
            return false;
        if (continuing > 0)
            --continuing;
        else
            continuing = (byte >= 0xC0) + (byte >= 0xE0) + (byte >= 0xF0);
    }
    return continuing == 0;
}

// Two lines for a terminal, the lower of them blanks and then carets.
void check_shown(std::string_view text, Place place)
{
    const std::string shown = show_place(text, place);
    require(is_utf8(shown) || !is_utf8(text), "a character is cut", shown);
    const size_t feed = shown.find('\n');
    require(feed != std::string::npos, "not two lines", shown);
    const std::string upper = shown.substr(0, feed), lower = shown.substr(feed + 1);
    const size_t caret = std::min(lower.find('^'), lower.size());
    require(is_printable(upper) && upper.size() <= 80 && lower.size() <= 80, "too wide", shown);
    require(caret < lower.size() && lower.find_first_not_of(' ') == caret &&
                lower.find_first_not_of('^', caret) == std::string::npos,
            "carets stand wrongly", shown);
}

void check_error(std::string_view text, const NotationError &error)
{
    at(text, error.place);
    require(!error.message.empty(), "no message");
    require(is_printable(error.message), "a message that a terminal would act on", error.message);
    check_shown(text, error.place);
}

struct Structure {
    NOXStructure *record = nox_structure_new("options");
    ~Structure()
    {
        nox_object_delete(record);
    }
};

template <typename Number>
std::string text_of(Number number)
{
    char text[64];
    return {text, std::to_chars(text, text + sizeof text, number).ptr};
}

// The stored value, written as somebody would write it into a notation.
std::string value_text(const NOXStructureNode &entry)
{
    switch (entry.type) {
    case NOX_TYPE_CHAR:
        return std::string(1, entry.value.char_value);
    case NOX_TYPE_INT16:
        return text_of(entry.value.int16_value);
    case NOX_TYPE_UINT16:
        return text_of(entry.value.uint16_value);
    case NOX_TYPE_INT32:
        return text_of(entry.value.int32_value);
    case NOX_TYPE_UINT32:
        return text_of(entry.value.uint32_value);
    case NOX_TYPE_INT64:
        return text_of(entry.value.int64_value);
    case NOX_TYPE_UINT64:
        return text_of(entry.value.uint64_value);
    case NOX_TYPE_BOOL:
        return entry.value.bool_value != 0 ? "true" : "false";
    case NOX_TYPE_FLOAT:
        return text_of(entry.value.float_value);
    default:
        return entry.value.string_value;
    }
}

// A text that a type takes and its value written again are one value.
void check_taken(NOXStructure *structure, const std::string &key, int32_t type)
{
    const NOXStructureNode *entry = nox_sturcture_search_node(structure, key.c_str());
    require(entry != nullptr && entry->type == type, "stored as another type", key);
    const std::string text = value_text(*entry);
    require(put_value(structure, key, type, text).empty(), "a value that is not taken back", text);
    require(value_text(*entry) == text, "the value changes when it is written again", text);
}

void check_values(const ElementText &element)
{
    const Structure structure;
    for (const OptionText &option : element.options) {
        const auto written = type_from_name(option.type);
        const auto any = static_cast<int32_t>(option.value.size() % 12);
        const int32_t type = written.value_or(any);
        require(written || type_names().find(", " + option.type + ",") == std::string::npos,
                "an unknown type that is one of the types", option.type);
        const std::string refusal = put_value(structure.record, option.key, type, option.value);
        const bool stored =
            nox_sturcture_search_node(structure.record, option.key.c_str()) != nullptr;
        require(!type_name(type).empty(), "a type without a name");
        require(stored == refusal.empty(), "refused and stored, or neither", refusal);
        if (stored)
            check_taken(structure.record, option.key, type);
    }
}

void check(std::string_view text)
{
    Elements elements;
    try {
        elements = parse_notation(text);
    } catch (const NotationError &error) {
        return check_error(text, error);
    }
    check_elements(text, elements);
    check_written_again(elements);
    for (const ElementText &element : elements)
        if (!element.options.empty())
            check_values(element);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    SIM_Begin({.trace_level = 0});
    check({reinterpret_cast<const char *>(data), size});
    const std::string left = SIM_End();
    require(left.empty(), "something is left alive, or was misused", left);
    return 0;
}
