// Writes whole lines to standard error, from any thread.

#include "console.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <unistd.h>

namespace
{

constexpr char kEraseLine[] = "\r\033[K";

bool no_colour_asked()
{
    const char *value = std::getenv("NO_COLOR");
    return value != nullptr && *value != '\0';
}

// Drops the colour sequences, ESC [ ... m.
std::string without_colours(const char *text)
{
    std::string plain;
    for (const char *at = text; *at != '\0'; ++at) {
        if (*at != '\033')
            plain += *at;
        else if (const char *end = std::strchr(at, 'm'); end != nullptr)
            at = end;
    }
    return plain;
}

} // namespace

Console::Console(bool quiet)
    : quiet_(quiet), terminal_(isatty(STDERR_FILENO) == 1),
      colours_(terminal_ && !no_colour_asked())
{
    OSA_TraceSetReceiver(receive_trace, this);
}

Console::~Console()
{
    OSA_TraceSetReceiver(nullptr, nullptr);
}

void Console::error(const std::string &text)
{
    write("nox-run: " + text + "\n");
}

void Console::note(const std::string &text)
{
    if (!quiet_)
        error(text);
}

void Console::progress(const std::string &text)
{
    const std::lock_guard lock(mutex_);
    std::fprintf(stderr, "%s%s", kEraseLine, text.c_str());
    line_drawn_ = true;
}

void Console::write(const std::string &text)
{
    const std::lock_guard lock(mutex_);
    const bool erase = line_drawn_ || (meter_ && terminal_);
    line_drawn_ = false;
    std::fprintf(stderr, "%s%s", erase ? kEraseLine : "", text.c_str());
}

void Console::receive_trace(void *user, const OSA_TraceRecord *record)
{
    auto *self = static_cast<Console *>(user);
    std::string text = self->colours_ ? record->text : without_colours(record->text);
    if (!text.empty() && text.back() != '\n')
        text += '\n';
    if (record->module != nullptr)
        self->write(std::string(record->module) + ": " + text);
    else if (self->plain_lines_ && !self->quiet_)
        self->write(text);
}
