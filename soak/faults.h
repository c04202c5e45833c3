// What the fault sweep is made of: scenarios, and what one attempt at a scenario saw.
#ifndef SOAK_FAULTS_H
#define SOAK_FAULTS_H

#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

#include "tests/support/stage.h"

namespace soak
{

// One attempt at a scenario, from start-up to shut-down. With faults anything may be
// refused anywhere: what a call answers goes through done() or made(), and the story goes on as
// long as it has something to go on with. Everything that it made is given back here.
class Attempt
{
public:
    Attempt() = default;
    Attempt(const Attempt &) = delete;
    Attempt &operator=(const Attempt &) = delete;
    ~Attempt(); // brings the pipe to NULL and shuts the library down

    // Passes on what a call answered.
    bool done(int32_t result);
    template <typename T>
    T *made(T *result)
    {
        m_was_refused = m_was_refused || result == nullptr;
        return result;
    }
    // The same, for an object that is released at the end, after the pipe.
    template <typename T>
    T *keep(T *object)
    {
        at_end([object] { nox_object_delete(object); });
        return made(object);
    }
    void at_end(std::function<void()> step); // the last one first

    // What has to come about, unless a fault keeps it from that.
    void see(bool condition)
    {
        m_saw_all = m_saw_all && condition;
    }
    void see_soon(const std::function<bool()> &condition);

    bool start_up(const char *cache = Stage::kCachePath); // the library, and a pipe
    bool make_pipe();                                     // where there is none
    NOXPlugin *add(const char *type, const char *name);   // a member; null when it fails
    bool chain(std::initializer_list<NOXPlugin *> plugins);
    bool set(NOXPlugin *plugin, const char *option, int32_t type, const void *value);
    bool set(NOXPlugin *plugin, const char *option, uint32_t value);
    bool to(int32_t state);
    void see_end(); // of the stream, at all sinks
    void shut_down();

    // From here on no call fails any more, and everything has to work.
    void end_faults();

    // To be asked after shut_down().
    uint64_t calls() const; // that might have failed, while one could
    bool was_refused() const;
    bool saw_all() const;
    std::vector<std::string> errors() const; // level-1 traces, errors on the bus

    NOXPipe *pipe = nullptr;
    Inbox inbox;

private:
    bool m_is_up = false;
    bool m_was_refused = false;
    bool m_saw_all = true;
    uint64_t m_calls = 0; // at the end of faults; 0: it has not come
    std::vector<std::function<void()>> m_at_end;
};

struct Scenario {
    const char *name;
    void (*story)(Attempt &attempt);

    // Part of the text of a call whose failure is silent by contract; null: there is none.
    const char *silent_call = nullptr;
    bool tells_errors = false; // also without faults, always the same
};

std::vector<Scenario> core_scenarios();
std::vector<Scenario> plugin_scenarios();

} // namespace soak

#endif
