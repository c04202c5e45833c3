// Links that run in a circle. Nothing keeps an application from making them, and no
// walk along the links may go round for ever.
#ifndef NOX_PLUGIN_CIRCLE_H
#define NOX_PLUGIN_CIRCLE_H

#include <cstdint>

#include "noxplugin.h"

namespace nox
{

// A plugin that the links downstream of `plugin` lead back to, or null. On the threads
// that may change states or links, one at a time.
NOXPlugin *find_circle(NOXPlugin *plugin);

// Tells of a circle under the name of the operation that cannot be done therefore.
void trace_circle(const NOXPlugin *closing, const char *function);

// The search, with what it finds told.
bool runs_in_circle(NOXPlugin *plugin, const char *function = __builtin_FUNCTION());

// For a walk that takes the same link of each plugin, as those upstream do, on any
// thread. The plugins met at the places 1, 2, 4, 8 ... are compared with those after
// them, so that a circle ends after three rounds at most, and nothing is stored.
class CircleWatch
{
public:
    // Asked at every plugin of the walk: true when the walk is to end there.
    bool is_closed_by(const NOXPlugin *plugin)
    {
        if (plugin == m_met)
            return true;
        if (++m_place == m_next_kept) {
            m_met = plugin;
            m_next_kept *= 2;
        }
        return false;
    }

private:
    const NOXPlugin *m_met = nullptr;
    uint32_t m_place = 0;
    uint32_t m_next_kept = 1;
};

} // namespace nox

#endif
