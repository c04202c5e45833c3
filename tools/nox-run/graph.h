// From a notation to a pipe with its plugins, linked and set up.
#ifndef NOX_RUN_GRAPH_H
#define NOX_RUN_GRAPH_H

#include <memory>
#include <string>
#include <vector>

#include "notation.h"
#include "noxpipe.h"

struct DropReference {
    void operator()(void *object) const
    {
        nox_object_delete(object);
    }
};
using PipePointer = std::unique_ptr<NOXPipe, DropReference>;
using StructurePointer = std::unique_ptr<NOXStructure, DropReference>;

// A plugin that is not there or cannot be loaded.
struct PluginError {
    Place place;
    std::string message;
};

// A graph that cannot be set up, by no fault of its notation. The plugins' own
// words, if any, are on the bus.
struct SetupError {
    Place place; // of the element it is about
    std::string message;
};

// The elements are lent: the pipe owns its members.
struct GraphElement {
    const ElementText &text;
    NOXPlugin *plugin;
};

// Creates the elements and adds them to the pipe. Throws PluginError or SetupError.
std::vector<GraphElement> create_elements(NOXPipe *pipe, const std::vector<ElementText> &texts);

// Links them, after a look whether sources begin and sinks end every branch. Throws
// NotationError or SetupError.
void link_elements(const std::vector<GraphElement> &elements);

// Gives every element its options; an element without any gets an empty format, so
// that it can say what it misses. Throws NotationError or SetupError.
void set_options(const std::vector<GraphElement> &elements);

// What the plugin answers to getformat: options and facts of its stream. Null when it
// answers nothing.
StructurePointer query_format(NOXPlugin *plugin);

#endif
