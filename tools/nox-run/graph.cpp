// Builds the graph that a notation describes.

#include "graph.h"

#include <algorithm>

#include "nox.h"
#include "noxbasesink.h"
#include "noxbasesrc.h"
#include "typed_value.h"

namespace
{

// The options of the base classes, which plugins do not list themselves. Those that
// are pointers are left out.
struct DeclaredOption {
    std::string key;
    int32_t type;
};

const std::vector<DeclaredOption> kSourceOptions = {
    {"priority", NOX_TYPE_UINT32},  {"maxframes", NOX_TYPE_UINT32}, {"islive", NOX_TYPE_BOOL},
    {"errhandle", NOX_TYPE_UINT32}, {"errcount", NOX_TYPE_UINT32},  {"asyncstart", NOX_TYPE_BOOL},
    {"privatets", NOX_TYPE_BOOL},
};

const std::vector<DeclaredOption> kSinkOptions = {
    {"verbose", NOX_TYPE_BOOL}, {"sync", NOX_TYPE_BOOL},       {"clock", NOX_TYPE_BOOL},
    {"report", NOX_TYPE_BOOL},  {"targetbps", NOX_TYPE_INT32}, {"targetfps", NOX_TYPE_INT32},
};

// A fact of the stream, such as stream.rate, is no option.
bool is_option(const NOXStructureNode &entry)
{
    return std::string_view(entry.name).find('.') == std::string_view::npos;
}

// A plugin answers getformat with its options and their present values, typed.
std::vector<DeclaredOption> declared_options(NOXPlugin *plugin)
{
    std::vector<DeclaredOption> options;
    if (const StructurePointer format = query_format(plugin)) {
        for (OSA_ListNode *node = OSA_ListGetHead(format->vars); node != nullptr;
             node = node->next) {
            const auto *entry = static_cast<const NOXStructureNode *>(node->data);
            if (is_option(*entry))
                options.push_back({entry->name, entry->type});
        }
    }
    const auto append = [&](const std::vector<DeclaredOption> &more) {
        options.insert(options.end(), more.begin(), more.end());
    };
    if (plugin->issrc != 0)
        append(kSourceOptions);
    if (plugin->issink != 0)
        append(kSinkOptions);
    return options;
}

std::string key_list(const std::vector<DeclaredOption> &options)
{
    std::string keys;
    for (const DeclaredOption &option : options)
        keys += (keys.empty() ? "" : ", ") + option.key;
    return keys.empty() ? "it has none" : "it has " + keys;
}

// The declared type of the option, which a written one must agree with; a key that
// the plugin does not list may be given with its type.
int32_t type_of(const OptionText &option, const ElementText &element,
                const std::vector<DeclaredOption> &declared)
{
    const auto known = std::find_if(declared.begin(), declared.end(), [&](const auto &candidate) {
        return candidate.key == option.key;
    });
    if (option.type.empty()) {
        if (known == declared.end())
            throw NotationError{option.key_place, "unknown option " + option.key + " of " +
                                                      element.plugin + "; " + key_list(declared)};
        return known->type;
    }
    const std::optional<int32_t> written = type_from_name(option.type);
    if (!written)
        throw NotationError{option.type_place,
                            "unknown type " + option.type + "; the types are " + type_names()};
    if (known != declared.end() && known->type != *written)
        throw NotationError{option.type_place, "option " + option.key + " of " + element.plugin +
                                                   " is of type " + type_name(known->type)};
    return *written;
}

StructurePointer make_format(const GraphElement &element)
{
    StructurePointer format(nox_structure_new("options"));
    if (format == nullptr)
        throw SetupError{element.text.place, "no memory for options"};
    const std::vector<DeclaredOption> declared = declared_options(element.plugin);
    for (const OptionText &option : element.text.options) {
        const int32_t type = type_of(option, element.text, declared);
        const std::string wrong = put_value(format.get(), option.key, type, option.value);
        if (!wrong.empty())
            throw NotationError{option.value_place, "option " + option.key + ": " + wrong};
    }
    return format;
}

void check_upstream(const GraphElement &element)
{
    const bool fed = element.text.upstream.has_value();
    if (fed && element.plugin->issrc != 0)
        throw NotationError{element.text.place,
                            element.text.plugin + " is a source: nothing can be linked to it"};
    if (!fed && element.plugin->issrc == 0)
        throw NotationError{element.text.place, "nothing feeds " + element.text.plugin +
                                                    "; is a \"!\" missing before it?"};
}

void check_downstream(const GraphElement &element, bool feeds)
{
    if (feeds && element.plugin->issink != 0)
        throw NotationError{element.text.place,
                            element.text.plugin + " is a sink: nothing can follow it"};
    if (!feeds && element.plugin->issink == 0)
        throw NotationError{element.text.place,
                            "nothing follows " + element.text.plugin + "; a sink must end it"};
}

void check_ends(const std::vector<GraphElement> &elements)
{
    std::vector<bool> feeds(elements.size());
    for (const GraphElement &element : elements)
        if (element.text.upstream)
            feeds[*element.text.upstream] = true;
    for (size_t index = 0; index < elements.size(); ++index) {
        check_upstream(elements[index]);
        check_downstream(elements[index], feeds[index]);
    }
}

} // namespace

std::vector<GraphElement> create_elements(NOXPipe *pipe, const std::vector<ElementText> &texts)
{
    std::vector<GraphElement> elements;
    for (const ElementText &text : texts) {
        if (nox_plugin_lookup(text.plugin.c_str()) == nullptr)
            throw PluginError{text.place, "the cache has no plugin " + text.plugin};
        NOXPlugin *plugin = nox_plugin_new(text.plugin.c_str(), text.name.c_str());
        if (plugin == nullptr)
            throw PluginError{text.place, "the plugin " + text.plugin + " cannot be loaded"};
        if (nox_pipe_add_plugin(pipe, plugin) != 0) { // takes over the reference
            nox_object_delete(plugin);
            throw SetupError{text.place, "no memory for " + text.name};
        }
        elements.push_back({text, plugin});
    }
    return elements;
}

void link_elements(const std::vector<GraphElement> &elements)
{
    check_ends(elements);
    for (const GraphElement &element : elements) {
        if (!element.text.upstream)
            continue;
        const GraphElement &upstream = elements[*element.text.upstream];
        if (nox_plugin_link(upstream.plugin, element.plugin) != 0)
            throw SetupError{element.text.place,
                             upstream.text.name + " cannot be linked to " + element.text.name};
    }
}

// All texts are looked at before the first plugin acts on any.
void set_options(const std::vector<GraphElement> &elements)
{
    std::vector<StructurePointer> formats;
    formats.reserve(elements.size());
    for (const GraphElement &element : elements)
        formats.push_back(make_format(element));
    for (size_t index = 0; index < elements.size(); ++index) {
        const GraphElement &element = elements[index];
        const bool empty = element.text.options.empty();
        if (empty && element.plugin->setformat_func == nullptr)
            continue;
        if (nox_plugin_setformat(element.plugin, formats[index].get()) != 0)
            throw SetupError{element.text.place, element.text.name + " refused its options"};
    }
}

StructurePointer query_format(NOXPlugin *plugin)
{
    if (plugin->getformat_func == nullptr)
        return nullptr;
    StructurePointer format(nox_structure_new("query"));
    if (format != nullptr && nox_plugin_getformat(plugin, format.get()) != 0)
        format.reset();
    return format;
}
