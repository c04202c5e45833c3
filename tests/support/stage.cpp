#include "tests/support/stage.h"

#include <map>
#include <ostream>

#include <gtest/gtest.h>

std::atomic<bool> log_enabled{false};

namespace
{

std::mutex g_mutex; // real, never held across a call into the layer
std::map<std::string, Script> g_scripts;
std::vector<std::string> g_log;

template <typename Base>
struct Probe {
    Base base;
    Script *script;
};

template <typename Base>
Script &script_of(Base *base)
{
    return *reinterpret_cast<Probe<Base> *>(base)->script;
}

template <typename Base>
void note_of(Base *base, const std::string &what)
{
    note(base->plugin.object.name + (" " + what));
}

template <typename Base>
void fill_slots(Base *base)
{
    reinterpret_cast<Probe<Base> *>(base)->script = &script(base->plugin.object.name);
    base->start_func = [](Base *self) -> int32_t {
        note_of(self, "start");
        ++script_of(self).started;
        if (script_of(self).start_ms != 0)
            OSA_ThreadSleep(script_of(self).start_ms);
        if (script_of(self).on_start)
            script_of(self).on_start();
        return script_of(self).start_result;
    };
    base->stop_func = [](Base *self) -> int32_t {
        note_of(self, "stop");
        ++script_of(self).stopped;
        if (script_of(self).on_stop)
            script_of(self).on_stop();
        return 0;
    };
    base->setstate_func = [](Base *self, int32_t state) -> int32_t {
        note_of(self, std::string("to ") + nox_plugin_state_str(state));
        if (script_of(self).on_setstate)
            script_of(self).on_setstate(state);
        return script_of(self).setstate_result;
    };
    base->event_func = [](Base *self, NOXEvent *event) -> int32_t {
        note_of(self, "event " + std::to_string(event->type));
        if (script_of(self).on_event)
            script_of(self).on_event(event->type);
        return script_of(self).event_result;
    };
    base->finalize_func = [](Base *self) -> int32_t {
        ++script_of(self).finalized;
        return 0;
    };
}

NOXBuffer *probe_create(NOXBaseSrc *base)
{
    Script &script = script_of(base);
    if (script.create)
        return script.create(base);
    OSA_ThreadSleep(script.interval_ms);
    NOXBuffer *buffer = script.created < script.buffers ? nox_buffer_new(100) : nullptr;
    if (buffer != nullptr)
        nox_buffer_set_timestamp(buffer, uint64_t{script.created++} * script.interval_ms);
    return buffer;
}

int32_t take_buffer(Script &script, NOXBuffer *buffer)
{
    ++script.taken;
    return script.take ? script.take(buffer) : 0;
}

int32_t probe_chain(NOXBaseFilter *base, NOXBuffer *buffer)
{
    const int32_t result = take_buffer(script_of(base), buffer);
    return result != 0 ? result : nox_plugin_push_buffer(&base->plugin, buffer);
}

// An init function of the library's, and what is the probe's own.
template <typename Base, auto init, auto fill_own>
void describe(NOXPluginDesc *desc)
{
    *desc = {"probe", "tests", sizeof(Probe<Base>), [](NOXPlugin *plugin) {
                 auto *base = reinterpret_cast<Base *>(plugin);
                 if (init(base) != 0)
                     return -1;
                 fill_slots(base);
                 fill_own(base);
                 return 0;
             }};
}

void fill_source(NOXBaseSrc *base)
{
    base->create_func = probe_create;
    base->islive = script_of(base).live;
}

void fill_filter(NOXBaseFilter *base)
{
    base->chain_func = probe_chain;
}

void fill_sink(NOXBaseSink *base)
{
    base->render_func = [](NOXBaseSink *self, NOXBuffer *buffer) {
        return take_buffer(script_of(self), buffer);
    };
}

void add_library(const char *path, NOXPluginDescFunc function)
{
    SIM_LibraryAdd(path, "plugin_desc", reinterpret_cast<void *>(function));
}

bool begins_with(const std::string &text, const char *start)
{
    return text.rfind(start, 0) == 0;
}

// The library's trace lines that do not name an exported operation.
std::string misnamed_traces()
{
    std::string misnamed;
    for (const SIM_TraceLine &line : SIM_Traces())
        if (begins_with(line.source, "nox") && !begins_with(line.function, "nox_") &&
            !begins_with(line.function, "pipe_"))
            misnamed += "traced by " + line.function + ": " + line.text;
    return misnamed;
}

} // namespace

std::ostream &operator<<(std::ostream &out, const Posted &message)
{
    return out << "{" << message.name << ", " << message.code << ", " << message.text << "}";
}

Stage::Stage(const SIM_Options &options, bool initialise)
{
    SIM_Begin(options);
    g_scripts.clear();
    g_log.clear();
    log_enabled = false;
    SIM_FileAdd(kCachePath, "probesrc@src.so\nprobefilter@filter.so\nprobesink@sink.so\n");
    add_library("src.so", describe<NOXBaseSrc, nox_basesrc_init, fill_source>);
    add_library("filter.so", describe<NOXBaseFilter, nox_basefilter_init, fill_filter>);
    add_library("sink.so", describe<NOXBaseSink, nox_basesink_init, fill_sink>);
    if (initialise)
        nox_init(kCachePath);
}

Stage::~Stage()
{
    if (m_open) {
        EXPECT_EQ("", end());
    }
}

std::string Stage::end()
{
    nox_deinit();
    m_open = false;
    return SIM_End() + misnamed_traces();
}

Script &script(const std::string &name)
{
    std::lock_guard lock(g_mutex);
    return g_scripts[name];
}

NOXPlugin *new_source(const std::string &name)
{
    return nox_plugin_new("probesrc", name.c_str());
}

NOXPlugin *new_filter(const std::string &name)
{
    return nox_plugin_new("probefilter", name.c_str());
}

NOXPlugin *new_sink(const std::string &name)
{
    return nox_plugin_new("probesink", name.c_str());
}

void note(const std::string &line)
{
    if (!log_enabled)
        return;
    std::lock_guard lock(g_mutex);
    g_log.push_back(line);
}

std::vector<std::string> take_log()
{
    std::lock_guard lock(g_mutex);
    return std::move(g_log);
}

void set_option(NOXPlugin *plugin, int32_t type, const char *key, int64_t value)
{
    NOXStructure *format = nox_structure_new("format");
    nox_structure_putvar[type](format, key, 0, &value); // little-endian: narrower at the front
    nox_plugin_setformat(plugin, format);
    nox_object_delete(format);
}

NOXPipe *new_pipe(std::initializer_list<std::vector<NOXPlugin *>> chains)
{
    NOXPipe *pipe = nox_pipe_new("player");
    for (const std::vector<NOXPlugin *> &chain : chains) {
        for (NOXPlugin *plugin : chain)
            nox_pipe_add_plugin(pipe, plugin);
        for (size_t i = 1; i < chain.size(); ++i)
            nox_plugin_link(chain[i - 1], chain[i]);
    }
    return pipe;
}

void Inbox::attach(NOXPipe *pipe)
{
    nox_pipe_set_bus_handler(pipe, receive, this);
}

std::vector<Posted> Inbox::messages() const
{
    std::lock_guard lock(m_mutex);
    return m_messages;
}

uint32_t Inbox::count(int32_t code) const
{
    uint32_t count = 0;
    for (const Posted &message : messages())
        count += message.code == code ? 1 : 0;
    return count;
}

int32_t Inbox::receive(NOXBus *, void *inbox, const char *name, int32_t code, const char *text)
{
    auto *self = static_cast<Inbox *>(inbox);
    std::lock_guard lock(self->m_mutex);
    self->m_messages.push_back({name != nullptr ? name : "", code, text != nullptr ? text : ""});
    return 0;
}

bool wait_until(const std::function<bool()> &condition, uint64_t limit_ms, uint32_t step_ms)
{
    const uint64_t limit = SIM_Tick() + limit_ms;
    while (!condition()) {
        if (SIM_Tick() >= limit)
            return false;
        OSA_ThreadSleep(step_ms);
    }
    return true;
}
