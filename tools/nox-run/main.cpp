// nox-run: plays a graph that is written on the command line.

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdio>

#include <CLI/CLI.hpp>

#include "console.h"
#include "graph.h"
#include "nox.h"
#include "osa/host.h"
#include "picture.h"
#include "player.h"

namespace
{

enum ExitCode { kDone = 0, kFailed = 1, kUsage = 2, kPluginOrCache = 3, kForced = 130 };

constexpr char kExamples[] =
    "Elements are joined by \"!\"; key=value sets an option, name= names an element, and NAME.\n"
    "starts a further branch from it. Quote the notation, and values with blanks in it.\n"
    "\n"
    "Examples:\n"
    "  nox-run --cache plugins.cache 'wavsrc location=in.wav ! volume gain=0.5 ! wavsink "
    "location=out.wav'\n"
    "  nox-run --cache plugins.cache 'wavsrc location=in.wav ! tee name=t ! wavsink "
    "location=out.wav sync=true t. ! levelsink'\n"
    "\n"
    "At --rate 2 a sink with sync=true takes half the time. A live source captures as ever, but\n"
    "its timestamps advance twice as fast. Where there is neither, nothing changes.\n"
    "\n"
    "Ctrl-C ends the stream, a second one stops by force.\n"
    "Exit codes: 0 done, 1 the run failed, 2 usage, 3 plugin or cache, 130 forced.\n";

struct Settings {
    std::string cache;
    std::vector<std::string> words;
    int verbosity = 0;
    bool quiet = false;
    uint32_t time_limit = 0;         // seconds
    float rate = 0;                  // of the clock; 0: as it is
    std::vector<std::string> graphs; // files for the picture
};

std::string joined(const std::vector<std::string> &words)
{
    std::string text;
    for (const std::string &word : words)
        text += (text.empty() ? "" : " ") + word;
    return text;
}

int fail_at(Console &console, const std::string &text, Place place, const std::string &message,
            ExitCode code)
{
    console.error(message + "\n" + show_place(text, place));
    return code;
}

ExitCode exit_code(Outcome outcome)
{
    switch (outcome) {
    case Outcome::done:
        return kDone;
    case Outcome::forced:
        return kForced;
    case Outcome::failed:
        break;
    }
    return kFailed;
}

// Whether the element draws on the terminal itself.
bool draws_meter(const GraphElement &element)
{
    uint8_t meter = 0;
    const StructurePointer format = query_format(element.plugin);
    return format != nullptr && nox_structure_getvar_bool(format.get(), "meter", &meter) == 0 &&
           meter != 0;
}

// Before PLAY, so that the rate is in force from the clock's first reading.
void set_rate(NOXPipe *pipe, const GraphElement &first, float rate)
{
    if (rate > 0 && nox_pipe_set_clockrate(pipe, rate) != 0)
        throw SetupError{first.text.place, "an element refused the rate of the clock"};
}

int play(Console &console, Signals &signals, const std::vector<ElementText> &texts,
         const Settings &settings)
{
    Mailbox mailbox; // outlives the pipe and its bus thread
    const PipePointer pipe(nox_pipe_new("nox-run"));
    if (pipe == nullptr)
        throw std::runtime_error("the pipe could not be made");
    const std::vector<GraphElement> elements = create_elements(pipe.get(), texts);
    link_elements(elements);
    // Before anything acts: a graph that hangs from here on has its picture.
    for (const std::string &path : settings.graphs)
        write_picture(pipe.get(), texts, path, console, signals);

    Player player(console, signals, mailbox, pipe.get(), elements,
                  std::chrono::seconds(settings.time_limit));
    try {
        set_options(elements);
        set_rate(pipe.get(), elements.front(), settings.rate);
    } catch (const SetupError &error) {
        player.finish();
        if (player.option_was_refused())
            throw NotationError{error.place, error.message};
        throw;
    } catch (...) {
        player.finish();
        throw;
    }
    if (std::any_of(elements.begin(), elements.end(), draws_meter))
        console.leave_line_to_meter();
    return exit_code(player.play());
}

int run_notation(Console &console, Signals &signals, const Settings &settings)
{
    const std::string text = joined(settings.words);
    try {
        const std::vector<ElementText> elements = parse_notation(text);
        if (!settings.graphs.empty())
            check_picture_names(elements);
        if (nox_init(settings.cache.c_str()) != 0) {
            console.error("cannot read the plugin cache " + settings.cache);
            return kPluginOrCache;
        }
        console.show_plain_lines();
        return play(console, signals, elements, settings);
    } catch (const NotationError &error) {
        return fail_at(console, text, error.place, error.message, kUsage);
    } catch (const PluginError &error) {
        return fail_at(console, text, error.place, error.message, kPluginOrCache);
    } catch (const SetupError &error) {
        return fail_at(console, text, error.place, error.message, kFailed);
    } catch (const PictureError &error) {
        console.error(error.message);
        return kFailed;
    }
}

// Says what should have been released and was not; whether all was.
bool nothing_is_alive(Console &console)
{
    OSA_Alive alive;
    OSA_AliveGet(&alive);
    if (OSA_AliveIsNothing(&alive) != 0)
        return true;
    const struct {
        uint64_t count;
        const char *what;
    } counts[] = {
        {alive.blocks, "blocks of memory"},
        {alive.bytes, "bytes in them"},
        {alive.pool_blocks, "pool blocks"},
        {alive.lists, "lists"},
        {alive.list_nodes, "list nodes"},
        {alive.queues, "queues"},
        {alive.events, "events"},
        {alive.mutexes, "mutexes"},
        {alive.threads, "threads"},
        {alive.libraries, "libraries"},
        {alive.files, "files"},
    };
    std::string list;
    for (const auto &[count, what] : counts)
        if (count > 0)
            list += (list.empty() ? "" : ", ") + std::to_string(count) + " " + what;
    console.error("still alive: " + list);
    return false;
}

int run(const Settings &settings)
{
    // A reader that has gone away, or a limit on file sizes, is an error to report and
    // must not end the process with half a header written.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    Signals signals;
    Console console(settings.quiet);
    OSA_TraceSetLevel(OSA_TRACE_ERROR + settings.verbosity);
    const int code = run_notation(console, signals, settings);
    nox_deinit();
    return nothing_is_alive(console) || code != kDone ? code : kFailed;
}

std::string check_rate(const std::string &text)
{
    char *end = nullptr;
    const float rate = std::strtof(text.c_str(), &end);
    const bool number = end != text.c_str() && *end == '\0';
    return number && std::isfinite(rate) && rate > 0
               ? ""
               : "the rate must be a finite number above 0, and not \"" + text + "\"";
}

int run_command_line(int argc, char **argv)
{
    Settings settings;
    CLI::App app("Plays a graph of plugins to the end of its stream.", "nox-run");
    app.footer(kExamples);
    app.set_version_flag("--version", core_version_nox_string());
    app.add_option("--cache", settings.cache, "Plugin cache, written by nox-scan")
        ->envname("NOX_CACHE")
        ->type_name("FILE")
        ->required();
    app.add_flag("-v,--verbose", settings.verbosity,
                 "Show the library's traces; up to three times for more");
    app.add_flag("-q,--quiet", settings.quiet, "Show nothing but errors");
    app.add_option("--time-limit", settings.time_limit, "End the stream after so many seconds")
        ->type_name("SECONDS");
    app.add_option("--rate", settings.rate,
                   "Let the clock run so many times as fast as time passes")
        ->type_name("RATE")
        ->check(check_rate);
    app.add_option("--graph", settings.graphs,
                   "Before playing, write the graph to a .dot, or draw it as .svg or .png")
        ->type_name("FILE")
        ->allow_extra_args(false) // what follows FILE is the notation
        ->check(check_picture_path);
    app.add_option("notation", settings.words, "The graph, in one word or several")->required();
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? kDone : kUsage;
    }
    return run(settings);
}

} // namespace

int main(int argc, char **argv)
{
    try {
        return run_command_line(argc, argv);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "nox-run: %s\n", error.what());
        return kFailed;
    }
}
