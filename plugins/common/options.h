// Reading a plugin's options from a format.
#ifndef NOX_PLUGINS_COMMON_OPTIONS_H
#define NOX_PLUGINS_COMMON_OPTIONS_H

#include <cstdlib>
#include <memory>

#include "noxplugin.h"

namespace noxplugins
{

// A text of the plugin's own, from strdup.
struct FreeText {
    void operator()(char *text) const
    {
        std::free(text);
    }
};
using Text = std::unique_ptr<char, FreeText>;

enum class Option { absent, taken, refused };

// Reads one option of a plugin. An entry of another type is reported and refused,
// where the getters of a structure would take it for a missing one. `value` is
// written only when the option is taken; a text stays the format's.
Option take_option(void *plugin, NOXStructure *format, const char *name, uint32_t &value);
Option take_option(void *plugin, NOXStructure *format, const char *name, bool &value);
Option take_option(void *plugin, NOXStructure *format, const char *name, float &value);
Option take_option(void *plugin, NOXStructure *format, const char *name, const char *&value);

// Reads the option "location", a text that is not empty, into `location`. It is
// reported and refused when neither the format nor an earlier one gives it.
Option take_location(void *plugin, NOXStructure *format, Text &location);

// Enters an option with its present value; 0, or -1 when memory runs out.
int32_t put_option(NOXStructure *format, const char *name, uint32_t value);
int32_t put_option(NOXStructure *format, const char *name, uint64_t value);
int32_t put_option(NOXStructure *format, const char *name, bool value);
int32_t put_option(NOXStructure *format, const char *name, float value);
int32_t put_option(NOXStructure *format, const char *name, const char *value);

} // namespace noxplugins

#endif
