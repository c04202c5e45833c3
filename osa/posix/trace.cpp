// Traces: formatted once, then handed to the program's receiver or written to
// the output, a line with one write, so that lines of threads never mix.

#include "osa/common/export.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <mutex>

#include <unistd.h>

#include "osa/common/file_io.h"
#include "osa/common/trace_line.h"

namespace
{

constexpr int32_t kDefaultLevel = OSA_TRACE_NOTICE;

enum Colours : int { unknown, dropped, shown };

struct Receiver {
    OSA_TraceReceiver function;
    void *user;
};

constinit std::mutex g_receiver_mutex;
constinit Receiver g_receiver = {};

constinit std::atomic<int> g_output{STDERR_FILENO};
constinit std::atomic<int> g_colours{unknown}; // of the output; found out at first need

Receiver current_receiver()
{
    const std::lock_guard lock(g_receiver_mutex);
    return g_receiver;
}

int find_colours(int output)
{
    const char *no_colour = std::getenv("NO_COLOR");
    const bool unwanted = no_colour != nullptr && *no_colour != '\0';
    return !unwanted && isatty(output) != 0 ? shown : dropped;
}

bool shows_colours(int output)
{
    int colours = g_colours.load(std::memory_order_relaxed);
    if (colours == unknown) {
        colours = find_colours(output);
        g_colours.store(colours, std::memory_order_relaxed);
    }
    return colours == shown;
}

__attribute__((format(printf, 2, 0))) void write_line(const OSA_TraceRecord &head,
                                                      const char *format, va_list arguments)
{
    osa::TextBuffer line;
    osa::append_trace_head(line, OSA_GetSystemTick(), head);
    line.append_list(format, arguments);
    line.end_line();
    const int output = g_output.load(std::memory_order_relaxed);
    if (!shows_colours(output))
        line.drop_colours();
    // Where an output that fails could be reported, if not here?
    static_cast<void>(osa::file_write_all(output, line.text(), line.length()));
}

__attribute__((format(printf, 3, 0))) void receive_line(const Receiver &receiver,
                                                        OSA_TraceRecord record, const char *format,
                                                        va_list arguments)
{
    osa::TextBuffer text;
    text.append_list(format, arguments);
    record.text = text.text();
    receiver.function(receiver.user, &record);
}

// Callers look at errno after they traced.
__attribute__((format(printf, 2, 0))) void trace(const OSA_TraceRecord &head, const char *format,
                                                 va_list arguments)
{
    const int saved_errno = errno;
    const Receiver receiver = current_receiver();
    if (receiver.function != nullptr)
        receive_line(receiver, head, format, arguments);
    else
        write_line(head, format, arguments);
    errno = saved_errno;
}

} // namespace

extern "C" {

int32_t OSA_TraceThreshold = kDefaultLevel;

void OSA_Trace(const char *module, int32_t level, const char *source, int32_t line,
               const char *function, const char *format, ...)
{
    if (format == nullptr || level > OSA_TraceGetLevel())
        return;
    const OSA_TraceRecord head = {module, level, source, line, function, nullptr};
    va_list arguments;
    va_start(arguments, format);
    trace(head, format, arguments);
    va_end(arguments);
}

void OSA_Traces(const char *format, ...)
{
    if (format == nullptr)
        return;
    va_list arguments;
    va_start(arguments, format);
    trace(OSA_TraceRecord{}, format, arguments);
    va_end(arguments);
}

void OSA_TraceSetLevel(int32_t level)
{
    const int32_t lowest = 0;
    const int32_t highest = OSA_TRACE_VERBOSE;
    __atomic_store_n(&OSA_TraceThreshold, std::clamp(level, lowest, highest), __ATOMIC_RELAXED);
}

int32_t OSA_TraceGetLevel(void)
{
    return __atomic_load_n(&OSA_TraceThreshold, __ATOMIC_RELAXED);
}

void OSA_TraceSetOutput(int32_t descriptor)
{
    g_output.store(descriptor, std::memory_order_relaxed);
    g_colours.store(find_colours(descriptor), std::memory_order_relaxed);
}

void OSA_TraceSetReceiver(OSA_TraceReceiver receiver, void *user)
{
    const std::lock_guard lock(g_receiver_mutex);
    g_receiver = {receiver, user};
}

} // extern "C"
