// Traces: formatted, recorded with tick and thread, handed to a receiver, and
// printed only when the run echoes.

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>

#include "osa/common/file_io.h"
#include "osa/common/trace_line.h"
#include "osa/sim/trace_text.h"
#include "osa/sim/world.h"

int32_t OSA_TraceThreshold = OSA_TRACE_NOTICE;

namespace
{

std::atomic_ref<int32_t> threshold()
{
    return std::atomic_ref<int32_t>(OSA_TraceThreshold);
}

std::string string_or_nothing(const char *text)
{
    return text == nullptr ? "" : text;
}

void print(int32_t descriptor, const SIM_TraceLine &line)
{
    const std::string text = sim::trace_text(line);
    osa::file_write_all(descriptor, text.data(), text.size());
}

// The text was formatted by the caller outside the layer, so that the race check
// sees what it read.
void deliver(const OSA_TraceRecord &record)
{
    OSA_TraceReceiver receiver = nullptr;
    void *user = nullptr;
    {
        sim::Entry layer;
        layer->scheduler.point();
        auto &traces = layer->traces;
        traces.lines.push_back({string_or_nothing(record.module), record.level,
                                string_or_nothing(record.source), record.line,
                                string_or_nothing(record.function), record.text,
                                layer->scheduler.tick(), layer->scheduler.running().name});
        receiver = traces.receiver;
        user = traces.receiver_user;
        if (layer->options.echo)
            print(traces.output, traces.lines.back());
    }
    if (receiver != nullptr)
        receiver(user, &record);
}

} // namespace

std::string sim::trace_text(const SIM_TraceLine &line)
{
    const OSA_TraceRecord record = {line.module.c_str(),   line.level,
                                    line.source.c_str(),   line.line,
                                    line.function.c_str(), line.text.c_str()};
    osa::TextBuffer text;
    text.append("%s ", line.thread.c_str());
    osa::append_trace_head(text, line.tick, record);
    text.append("%s", line.text.c_str());
    text.end_line();
    return text.text();
}

void OSA_Trace(const char *module, int32_t level, const char *source, int32_t line,
               const char *function, const char *format, ...)
{
    if (level > OSA_TraceGetLevel())
        return;
    osa::TextBuffer text;
    va_list arguments;
    va_start(arguments, format);
    text.append_list(format, arguments);
    va_end(arguments);
    deliver({module, level, source, line, function, text.text()});
}

void OSA_Traces(const char *format, ...)
{
    osa::TextBuffer text;
    va_list arguments;
    va_start(arguments, format);
    text.append_list(format, arguments);
    va_end(arguments);
    deliver({nullptr, 0, nullptr, 0, nullptr, text.text()});
}

int32_t OSA_snprintf(char *buffer, uint32_t size, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(buffer, size, format, arguments);
    va_end(arguments);
    return length;
}

void OSA_TraceSetLevel(int32_t level)
{
    threshold().store(std::clamp(level, 0, OSA_TRACE_VERBOSE), std::memory_order_relaxed);
}

int32_t OSA_TraceGetLevel(void)
{
    return threshold().load(std::memory_order_relaxed);
}

void OSA_TraceSetOutput(int32_t descriptor)
{
    sim::Entry layer;
    layer->traces.output = descriptor;
}

void OSA_TraceSetReceiver(OSA_TraceReceiver receiver, void *user)
{
    sim::Entry layer;
    layer->traces.receiver = receiver;
    layer->traces.receiver_user = user;
}

const std::vector<SIM_TraceLine> &SIM_Traces()
{
    return sim::last_world().traces.lines;
}

uint32_t SIM_TraceCount(const std::string &part, int32_t level)
{
    const sim::Unwatched unwatched;
    const auto &lines = sim::last_world().traces.lines;
    return static_cast<uint32_t>(
        std::count_if(lines.begin(), lines.end(), [&part, level](const SIM_TraceLine &line) {
            return (level == -1 || line.level == level) &&
                   line.text.find(part) != std::string::npos;
        }));
}

std::string SIM_TraceText()
{
    const sim::Unwatched unwatched;
    std::string text;
    for (const SIM_TraceLine &line : sim::last_world().traces.lines)
        text += sim::trace_text(line);
    return text;
}

void SIM_TraceClear()
{
    const sim::Unwatched unwatched;
    sim::last_world().traces.lines.clear();
}
