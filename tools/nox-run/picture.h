// Writes the linked graph to a file: as a text in the DOT language, or drawn.
#ifndef NOX_RUN_PICTURE_H
#define NOX_RUN_PICTURE_H

#include <string>
#include <vector>

#include "console.h"
#include "graph.h"
#include "signals.h"

// A picture that could not be made.
struct PictureError {
    std::string message;
};

// Why no picture goes by this name: its suffix is none of those known. Empty when one
// does.
std::string check_picture_path(const std::string &path);

// A name stands in the text as it is, so it must be an identifier there. Throws
// NotationError.
void check_picture_names(const std::vector<ElementText> &elements);

// Writes the picture, for which graphviz is run unless the text is asked for; a signal
// ends that. A graph too large for the library's text is shown in part, with a word on
// the console. Throws PictureError.
void write_picture(NOXPipe *pipe, const std::vector<ElementText> &elements, const std::string &path,
                   Console &console, const Signals &signals);

#endif
