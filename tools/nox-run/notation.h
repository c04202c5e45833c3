// The notation of a graph:
//
//     wavsrc location=in.wav ! tee name=t ! wavsink location=out.wav t. ! levelsink
//
// Elements are joined by "!" with blanks around it. After an element stand its
// options, key=value or key=(type)value; a value with blanks is quoted, singly or
// doubly. name= names the element; NAME. starts a further branch from it.
#ifndef NOX_RUN_NOTATION_H
#define NOX_RUN_NOTATION_H

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// A stretch of the notation, in bytes.
struct Place {
    size_t begin = 0;
    size_t length = 0;
};

struct OptionText {
    std::string key;
    std::string type; // as written in parentheses; empty without
    std::string value;
    Place key_place;
    Place type_place;
    Place value_place;
};

struct ElementText {
    std::string plugin;
    std::string name; // as given, else made from the plugin's; no two are equal
    std::vector<OptionText> options;
    std::optional<size_t> upstream; // the element it is fed by, which stands before it
    Place place;
    bool named = false;
};

// What is wrong with a notation, and where.
struct NotationError {
    Place place;
    std::string message;
};

// The elements in the order they are written. An element is fed by one that stands
// before it, so there are no cycles. Throws NotationError.
std::vector<ElementText> parse_notation(std::string_view text);

// The line of the notation that holds the place, cut to what fits a terminal, and
// below it a line of carets under the place.
std::string show_place(std::string_view text, Place place);

#endif
