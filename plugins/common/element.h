// The shape of the plugins here: a base record that the core sees, and behind it
// the plugin's own state, a C++ object.
#ifndef NOX_PLUGINS_COMMON_ELEMENT_H
#define NOX_PLUGINS_COMMON_ELEMENT_H

#include <new>

#include "noxplugin.h"

namespace noxplugins
{

template <typename BaseRecord, typename OwnState>
struct Element {
    using Base = BaseRecord;
    using State = OwnState;

    Base base;
    State state;

    static Element *of(void *record)
    {
        return static_cast<Element *>(record);
    }

    // The record comes zero-filled from the core; only the state is constructed.
    static Element *construct(void *record)
    {
        Element *self = of(record);
        new (&self->state) State();
        return self;
    }

    // The finalize function of every plugin here.
    static int32_t finalize(Base *record)
    {
        of(record)->state.~State();
        return 0;
    }
};

// Locks a plugin for the length of a scope. Buffers come on a source's thread while
// events and states may come on the application's.
class PluginLock
{
public:
    explicit PluginLock(void *plugin) : plugin_(plugin)
    {
        nox_object_lock(plugin_);
    }
    ~PluginLock()
    {
        nox_object_unlock(plugin_);
    }
    PluginLock(const PluginLock &) = delete;
    PluginLock &operator=(const PluginLock &) = delete;

private:
    void *plugin_;
};

} // namespace noxplugins

#endif
