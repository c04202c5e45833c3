#include "tests/support/stage.h"

#include <map>
#include <ostream>

std::atomic<bool> log_enabled{false};

namespace
{

std::mutex g_mutex; // real, never held across a call into the layer
std::map<std::string, Script> g_scripts;
std::vector<std::string> g_log;

struct ProbeSource {
    NOXBaseSrc base;
    Script *script;
    uint64_t position_ms;
};

struct ProbeFilter {
    NOXBaseFilter base;
    Script *script;
};

struct ProbeSink {
    NOXBaseSink base;
    Script *script;
};

template <typename Probe, typename Base>
Script &script_of(Base *base)
{
    return *reinterpret_cast<Probe *>(base)->script;
}

template <typename Base>
std::string name_of(Base *base)
{
    return base->plugin.object.name;
}

template <typename Probe, typename Base>
int32_t probe_start(Base *base)
{
    note(name_of(base) + " start");
    Script &script = script_of<Probe>(base);
    ++script.started;
    if (script.start_ms != 0)
        OSA_ThreadSleep(script.start_ms);
    return script.start_result;
}

template <typename Probe, typename Base>
int32_t probe_stop(Base *base)
{
    note(name_of(base) + " stop");
    Script &script = script_of<Probe>(base);
    ++script.stopped;
    if (script.on_stop)
        script.on_stop();
    return 0;
}

template <typename Probe, typename Base>
int32_t probe_setstate(Base *base, int32_t state)
{
    note(name_of(base) + " to " + nox_plugin_state_str(state));
    return script_of<Probe>(base).setstate_result;
}

template <typename Probe, typename Base>
int32_t probe_event(Base *base, NOXEvent *event)
{
    note(name_of(base) + " event " + std::to_string(event->type));
    return script_of<Probe>(base).event_result;
}

template <typename Probe, typename Base>
int32_t probe_finalize(Base *base)
{
    ++script_of<Probe>(base).finalized;
    return 0;
}

template <typename Probe, typename Base>
void fill_slots(Base *base)
{
    reinterpret_cast<Probe *>(base)->script = &script(name_of(base));
    base->start_func = probe_start<Probe>;
    base->stop_func = probe_stop<Probe>;
    base->setstate_func = probe_setstate<Probe>;
    base->event_func = probe_event<Probe>;
    base->finalize_func = probe_finalize<Probe>;
}

NOXBuffer *probe_create(NOXBaseSrc *base)
{
    auto *source = reinterpret_cast<ProbeSource *>(base);
    Script &script = *source->script;
    if (script.create)
        return script.create(base);
    OSA_ThreadSleep(script.interval_ms);
    if (script.created >= script.buffers)
        return nullptr;
    NOXBuffer *buffer = nox_buffer_new(script.bytes);
    if (buffer == nullptr)
        return nullptr;
    ++script.created;
    nox_buffer_set_timestamp(buffer, source->position_ms);
    source->position_ms += script.interval_ms;
    return buffer;
}

int32_t take_buffer(Script &script, NOXBuffer *buffer)
{
    ++script.taken;
    return script.take ? script.take(buffer) : 0;
}

int32_t probe_chain(NOXBaseFilter *base, NOXBuffer *buffer)
{
    const int32_t result = take_buffer(script_of<ProbeFilter>(base), buffer);
    return result != 0 ? result : nox_plugin_push_buffer(&base->plugin, buffer);
}

int32_t probe_render(NOXBaseSink *base, NOXBuffer *buffer)
{
    return take_buffer(script_of<ProbeSink>(base), buffer);
}

int32_t init_source(NOXPlugin *plugin)
{
    auto *base = reinterpret_cast<NOXBaseSrc *>(plugin);
    if (nox_basesrc_init(base) != 0)
        return -1;
    fill_slots<ProbeSource>(base);
    base->create_func = probe_create;
    base->islive = script_of<ProbeSource>(base).live;
    return 0;
}

int32_t init_filter(NOXPlugin *plugin)
{
    auto *base = reinterpret_cast<NOXBaseFilter *>(plugin);
    if (nox_basefilter_init(base) != 0)
        return -1;
    fill_slots<ProbeFilter>(base);
    base->chain_func = probe_chain;
    return 0;
}

int32_t init_sink(NOXPlugin *plugin)
{
    auto *base = reinterpret_cast<NOXBaseSink *>(plugin);
    if (nox_basesink_init(base) != 0)
        return -1;
    fill_slots<ProbeSink>(base);
    base->render_func = probe_render;
    return 0;
}

template <typename Probe, NOXPluginInitFunc init>
void describe(NOXPluginDesc *desc)
{
    *desc = {"probe", "tests", sizeof(Probe), init};
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
    add_library("src.so", describe<ProbeSource, init_source>);
    add_library("filter.so", describe<ProbeFilter, init_filter>);
    add_library("sink.so", describe<ProbeSink, init_sink>);
    if (initialise)
        nox_init(kCachePath);
}

Stage::~Stage()
{
    if (m_open)
        end();
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

bool wait_until(const std::function<bool()> &condition, uint64_t limit_ms)
{
    const uint64_t limit = SIM_Tick() + limit_ms;
    while (!condition()) {
        if (SIM_Tick() >= limit)
            return false;
        OSA_ThreadSleep(1);
    }
    return true;
}
