// What the stories of the fault sweep share: making, linking, waiting, giving back.

#include <gtest/gtest.h>

#include <regex>
#include <utility>

#include "soak/faults.h"

namespace soak
{

namespace
{

constexpr uint64_t kLimit = 10'000; // ms
constexpr uint32_t kPoll = 20;      // ms

bool is_error(int32_t code)
{
    return code != NOX_MSG_STARTED && code != NOX_MSG_EOS && code != NOX_MSG_SINK;
}

// Without the addresses, which differ from run to run.
std::string without_addresses(const std::string &text)
{
    static const std::regex address("\\([0-9a-f]+\\)");
    return std::regex_replace(text, address, "(...)");
}

} // namespace

Attempt::~Attempt()
{
    shut_down();
}

bool Attempt::done(int32_t result)
{
    m_was_refused = m_was_refused || result != 0;
    return result == 0;
}

void Attempt::see_soon(const std::function<bool()> &condition)
{
    const uint64_t limit = SIM_Tick() + kLimit;
    while (!condition() && SIM_Tick() < limit)
        OSA_ThreadSleep(kPoll);
    see(condition());
}

void Attempt::at_end(std::function<void()> step)
{
    m_at_end.push_back(std::move(step));
}

bool Attempt::start_up(const char *cache)
{
    m_is_up = done(nox_init(cache));
    if (!m_is_up) {
        EXPECT_EQ(nullptr, nox_plugin_lookup("probesrc")) << "left by a start that failed";
    }
    return m_is_up && make_pipe();
}

bool Attempt::make_pipe()
{
    pipe = made(nox_pipe_new("player"));
    if (pipe != nullptr)
        inbox.attach(pipe);
    return pipe != nullptr;
}

NOXPlugin *Attempt::add(const char *type, const char *name)
{
    NOXPlugin *plugin = pipe != nullptr ? made(nox_plugin_new(type, name)) : nullptr;
    if (plugin != nullptr && !done(nox_pipe_add_plugin(pipe, plugin))) {
        nox_object_delete(plugin);
        return nullptr;
    }
    return plugin;
}

bool Attempt::chain(std::initializer_list<NOXPlugin *> plugins)
{
    const auto *last = plugins.begin();
    for (const auto *next = last + 1; next != plugins.end(); last = next++)
        if (*last == nullptr || *next == nullptr || !done(nox_plugin_link(*last, *next)))
            return false;
    return true;
}

bool Attempt::set(NOXPlugin *plugin, const char *option, int32_t type, const void *value)
{
    NOXStructure *format = plugin != nullptr ? made(nox_structure_new("options")) : nullptr;
    const bool was_set = format != nullptr &&
                         done(nox_structure_putvar[type](format, option, 0, value)) &&
                         done(nox_plugin_setformat(plugin, format));
    nox_object_delete(format);
    return was_set;
}

bool Attempt::set(NOXPlugin *plugin, const char *option, uint32_t value)
{
    return set(plugin, option, NOX_TYPE_UINT32, &value);
}

bool Attempt::to(int32_t state)
{
    return done(nox_pipe_set_state(pipe, state));
}

void Attempt::see_end()
{
    see_soon([this] { return inbox.count(NOX_MSG_EOS) > 0; });
}

void Attempt::shut_down()
{
    if (pipe != nullptr)
        to(NOX_STATE_NULL);
    nox_object_delete(pipe);
    pipe = nullptr;
    for (; !m_at_end.empty(); m_at_end.pop_back())
        m_at_end.back()();
    if (m_is_up)
        done(nox_deinit());
    m_is_up = false;
}

void Attempt::end_faults()
{
    m_calls = SIM_FallibleCount();
    SIM_FailNone();
}

uint64_t Attempt::calls() const
{
    return m_calls != 0 ? m_calls : SIM_FallibleCount();
}

bool Attempt::was_refused() const
{
    return m_was_refused;
}

bool Attempt::saw_all() const
{
    return m_saw_all;
}

std::vector<std::string> Attempt::errors() const
{
    std::vector<std::string> errors;
    for (const SIM_TraceLine &line : SIM_Traces())
        if (line.level == OSA_TRACE_ERROR)
            errors.push_back(line.module + ": " + without_addresses(line.text));
    for (const Posted &message : inbox.messages())
        if (is_error(message.code))
            errors.push_back("message of " + message.name + ": " + message.text);
    return errors;
}

} // namespace soak
