// A run of the library in virtual time. The plugins live in the test program:
// "probesrc", "probefilter" and "probesink" do what the script of their instance
// says, and record there what happened to them.
#ifndef TESTS_SUPPORT_STAGE_H
#define TESTS_SUPPORT_STAGE_H

#include <atomic>
#include <functional>
#include <initializer_list>
#include <mutex>
#include <string>
#include <vector>

#include "noxcore.h"
#include "osa/sim/osasim.h"

// What one plugin instance is to do, and what it has done. A script is made with
// script(name) before the plugin, and lives until the stage ends.
struct Script {
    // Sources: the next buffer; without it, `buffers` buffers of 100 bytes, one every
    // `interval_ms`, stamped with their place in the stream, then null.
    std::function<NOXBuffer *(NOXBaseSrc *)> create;
    uint32_t buffers = 0xFFFFFFFF;
    uint32_t interval_ms = 20;
    bool live = true;

    // Filters and sinks: called with each buffer; its answer is the chain's result.
    std::function<int32_t(NOXBuffer *)> take;

    // What the slots answer.
    std::atomic<int32_t> start_result{0};
    std::atomic<uint32_t> start_ms{0}; // how long a start takes
    std::atomic<int32_t> setstate_result{0};
    std::atomic<int32_t> event_result{0};
    std::function<void()> on_start;
    std::function<void()> on_stop;
    std::function<void(int32_t state)> on_setstate; // the plugin is still in the state before
    std::function<void(int32_t type)> on_event;

    // What happened.
    std::atomic<uint32_t> created{0};
    std::atomic<uint32_t> taken{0};
    std::atomic<uint32_t> started{0};
    std::atomic<uint32_t> stopped{0};
    std::atomic<uint32_t> finalized{0};
};

// One message that reached the application.
struct Posted {
    std::string name;
    int32_t code;
    std::string text;
    bool operator==(const Posted &) const = default;
};
std::ostream &operator<<(std::ostream &out, const Posted &message);

class Stage
{
public:
    static constexpr char kCachePath[] = "plugins.cache";

    // Begins the run; initialises the library unless told not to. The end of its scope
    // ends it, and it must end clean.
    explicit Stage(const SIM_Options &options = {}, bool initialise = true);
    ~Stage();
    Stage(const Stage &) = delete;
    Stage &operator=(const Stage &) = delete;

    // Shuts the library down and returns what is wrong with the run: what is still
    // alive, misuses, and trace lines that do not name the operation called; once.
    std::string end();

private:
    bool m_open = true;
};

Script &script(const std::string &name);

// nox_plugin_new for the probe types; null when it fails.
NOXPlugin *new_source(const std::string &name);
NOXPlugin *new_filter(const std::string &name);
NOXPlugin *new_sink(const std::string &name);

// A pipe with these plugins in it, each one of a chain linked to the next.
NOXPipe *new_pipe(std::initializer_list<std::vector<NOXPlugin *>> chains);

// The order of things as the plugins saw them ("sink NULL>PLAY", "src event 6"),
// recorded while `log_enabled`.
extern std::atomic<bool> log_enabled;
void note(const std::string &line);
std::vector<std::string> take_log();

// Sets one option of a plugin by type code, as an application does.
void set_option(NOXPlugin *plugin, int32_t type, const char *key, int64_t value);

// A bus handler that keeps what it is given.
class Inbox
{
public:
    void attach(NOXPipe *pipe);
    std::vector<Posted> messages() const;
    uint32_t count(int32_t code) const;

private:
    static int32_t receive(NOXBus *bus, void *inbox, const char *name, int32_t code,
                           const char *text);
    mutable std::mutex m_mutex;
    std::vector<Posted> m_messages;
};

// Lets virtual time pass until `condition` holds, which is looked at every `step_ms`; false
// after `limit_ms`.
bool wait_until(const std::function<bool()> &condition, uint64_t limit_ms = 60'000,
                uint32_t step_ms = 1);

#endif
