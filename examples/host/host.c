/*
 * host: plays a WAV file through filters into another, in real time.
 *
 * All that an application does with the library is here once: start it, build a pipe
 * out of plugins, set their options, play, hear from the bus how it goes, end early
 * when the user asks, and release everything.
 *
 * Threads: all calls are made on the main thread, which sleeps in poll until there is
 * news. The library calls on_message on the bus's thread, which only sets flags and
 * wakes the main thread. Signals are blocked in all threads and read as a file.
 */

#define _POSIX_C_SOURCE 200809L

#include <poll.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdbool.h>
#include <stdio.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <noxcore.h>
#include <plugin_messages.h>

enum { EXIT_DONE = 0, EXIT_FAILED = 1, EXIT_USAGE = 2, EXIT_FORCED = 130 };

/* A message of the application's own; no code of the library or of a plugin. */
#define MSG_LAST 0x7E0D

typedef struct Player {
    NOXPipe *pipe;
    NOXPlugin *source; /* a member of the pipe, which holds the reference */
    int signals;       /* readable when a signal has come */
    int news;          /* readable when on_message has set a flag */
    atomic_bool ended;
    atomic_bool failed;
    atomic_bool all_heard; /* the last message has come */
} Player;

/* ---- what the bus tells -------------------------------------------------- */

/* A source that cannot go on says so under the code of end of stream, too. */
static bool is_end_of_stream(int32_t code, const char *text)
{
    return code == NOX_MSG_EOS && text != NULL && strcmp(text, "EOS.\n") == 0;
}

static bool is_failure(int32_t code)
{
    return (code >= PLUGIN_MSG_FIRST_ERROR && code <= PLUGIN_MSG_LAST_ERROR) ||
           code == NOX_MSG_EOS || code == NOX_MSG_PUSH_ERROR || code == NOX_MSG_CAPTURE_ERROR ||
           code == NOX_MSG_BUS_CRITICAL;
}

/* On the bus's thread. `name` and `text` are the bus's, and may be null. A change of
 * state from here would keep further messages waiting, and releasing the pipe here is
 * told as a fault; so the main thread does both. */
static int32_t on_message(NOXBus *bus, void *data, const char *name, int32_t code, const char *text)
{
    (void)bus;
    Player *player = data;
    if (is_end_of_stream(code, text)) {
        atomic_store(&player->ended, true);
    } else if (is_failure(code)) {
        fprintf(stderr, "host: %s: %s (0x%X)\n", name != NULL ? name : "?",
                text != NULL ? text : "failed", (unsigned)code);
        atomic_store(&player->failed, true);
    }
    /* After a critical message the bus has stopped: nothing more will come. */
    if (code == MSG_LAST || code == NOX_MSG_BUS_CRITICAL)
        atomic_store(&player->all_heard, true);
    eventfd_write(player->news, 1);
    return 0;
}

/* Sleeps until a message or a signal has come; true for a signal. */
static bool wait_for_news(Player *player)
{
    struct pollfd ready[] = {{player->news, POLLIN, 0}, {player->signals, POLLIN, 0}};
    if (poll(ready, 2, -1) < 0)
        return false; /* interrupted: the caller looks at its flags and waits again */
    if (ready[0].revents != 0) {
        eventfd_t count;
        eventfd_read(player->news, &count);
    }
    struct signalfd_siginfo signal;
    return ready[1].revents != 0 &&
           read(player->signals, &signal, sizeof signal) == (ssize_t)sizeof signal;
}

/* ---- building ------------------------------------------------------------ */

/* A new member of the pipe, linked behind `previous` unless that is null. The pipe
 * owns it, and releases it with itself; so there is nothing to undo on failure. */
static NOXPlugin *add_plugin(NOXPipe *pipe, const char *type, NOXPlugin *previous)
{
    NOXPlugin *plugin = nox_plugin_new(type, type);
    if (plugin == NULL) {
        fprintf(stderr, "host: no plugin %s; is it in the cache?\n", type);
        return NULL;
    }
    if (nox_pipe_add_plugin(pipe, plugin) != 0) { /* takes over the reference, if it works */
        nox_object_delete(plugin);
        return NULL;
    }
    if (previous != NULL && nox_plugin_link(previous, plugin) != 0) {
        fprintf(stderr, "host: %s cannot follow %s\n", type, previous->object.name);
        return NULL;
    }
    return plugin;
}

/* Sets the path of a file and, for a sink, that it keeps to the timestamps, as one that
 * plays on a device does. A plugin that refuses says why on the bus. */
static bool set_options(NOXPlugin *plugin, const char *location)
{
    NOXStructure *options = nox_structure_new("options");
    if (options == NULL)
        return false;
    const uint8_t sync = 1;
    bool done = nox_structure_putvar_string(options, "location", 0, &location) == 0;
    if (nox_plugin_issink(plugin))
        done = done && nox_structure_putvar_bool(options, "sync", 0, &sync) == 0;
    done = done && nox_plugin_setformat(plugin, options) == 0;
    nox_object_delete(options);
    return done;
}

static bool build(Player *player, const char *input, const char *output, char **filters)
{
    player->source = add_plugin(player->pipe, "wavsrc", NULL);
    NOXPlugin *last = player->source;
    for (; last != NULL && *filters != NULL; ++filters)
        last = add_plugin(player->pipe, *filters, last);
    NOXPlugin *sink = last != NULL ? add_plugin(player->pipe, "wavsink", last) : NULL;
    return sink != NULL && set_options(player->source, input) && set_options(sink, output);
}

/* ---- playing ------------------------------------------------------------- */

/* Asked once, the source ends the stream behind its last buffer, and the file at the
 * other end is whole. Asked again, the caller does not wait for that. */
static int play(Player *player)
{
    /* In READY plugins can refuse what a change straight to PLAY would hide. */
    nox_pipe_set_option(player->pipe, NOX_PIPE_OPT_PLAY_VIA_READY);
    if (nox_pipe_set_state(player->pipe, NOX_STATE_PLAY) != 0)
        return EXIT_FAILED;
    bool asked = false;
    while (!atomic_load(&player->ended) && !atomic_load(&player->failed)) {
        if (!wait_for_news(player))
            continue;
        if (asked)
            return EXIT_FORCED;
        asked = true;
        NOXEvent end = {NULL, NOX_EVENT_EOS};
        nox_plugin_setevent(player->source, &end);
    }
    return EXIT_DONE;
}

/* Back to NULL, also after a change that has failed half-way: no plugin's thread runs
 * then. Releasing the pipe drops messages that nobody has heard yet, which may be the
 * reason of a failure. So one of our own is sent behind them and waited for. */
static void finish(Player *player)
{
    if (nox_pipe_set_state(player->pipe, NOX_STATE_NULL) != 0) {
        fprintf(stderr, "host: the pipe could not be stopped\n");
        atomic_store(&player->failed, true);
    }
    if (nox_bus_post_error(player->pipe->plugin.bus, "host", MSG_LAST, NULL) == 0)
        while (!atomic_load(&player->all_heard))
            wait_for_news(player);
    nox_object_delete(player->pipe); /* the last reference: ends its threads, too */
}

static int run(Player *player, char **arguments)
{
    if (nox_init(arguments[0]) != 0) {
        fprintf(stderr, "host: cannot read the plugin cache %s\n", arguments[0]);
        return EXIT_FAILED;
    }
    int code = EXIT_FAILED;
    player->pipe = nox_pipe_new("host");
    if (player->pipe != NULL) {
        nox_pipe_set_bus_handler(player->pipe, on_message, player);
        if (build(player, arguments[1], arguments[2], arguments + 3))
            code = play(player);
        finish(player);
        if (atomic_load(&player->failed))
            code = EXIT_FAILED;
    }
    nox_deinit(); /* every object is gone */
    return code;
}

/* Blocked before the library makes its first thread, which inherits that: so the signals
 * wait for the main thread to read them, and interrupt nothing. */
static int open_signals(void)
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigprocmask(SIG_BLOCK, &set, NULL);
    return signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

int main(int argc, char **argv)
{
    if (argc < 4) {
        fprintf(stderr,
                "usage: %s CACHE IN.wav OUT.wav [FILTER...]\n"
                "Plays IN.wav through the filters, plugins of CACHE, into OUT.wav.\n"
                "Ctrl-C ends the stream, a second one stops at once.\n",
                argv[0]);
        return EXIT_USAGE;
    }
    Player player = {.signals = open_signals(), .news = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
    int code = EXIT_FAILED;
    if (player.signals >= 0 && player.news >= 0)
        code = run(&player, argv + 1);
    else
        perror("host");
    if (player.signals >= 0)
        close(player.signals);
    if (player.news >= 0)
        close(player.news);
    return code;
}
