// Writes whole lines to standard error, from any thread.

#include "console.h"

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include <unistd.h>

namespace
{

constexpr char kEraseLine[] = "\r\033[K";

// Length of the colour sequence, ESC [ ... m, that the text begins with; 0 without.
size_t colour_length(const char *text)
{
    if (text[0] != '\033' || text[1] != '[')
        return 0;
    const size_t end = 2 + std::strspn(text + 2, "0123456789;:");
    return text[end] == 'm' ? end + 1 : 0;
}

// What a plugin, a file's name or the notation puts into a text must not steer the
// terminal. Colours only repeat what the words say.
std::string harmless(const std::string &text)
{
    std::string shown;
    for (const char *at = text.c_str(); *at != '\0';) {
        if (const size_t length = colour_length(at); length > 0) {
            at += length;
            continue;
        }
        const bool kept = *at == '\n' || *at == '\t' || !std::iscntrl(static_cast<uint8_t>(*at));
        shown += kept ? *at : '?';
        ++at;
    }
    return shown;
}

} // namespace

Console::Console(bool quiet) : quiet_(quiet), terminal_(isatty(STDERR_FILENO) == 1)
{
    OSA_TraceSetReceiver(receive_trace, this);
}

Console::~Console()
{
    OSA_TraceSetReceiver(nullptr, nullptr);
}

void Console::error(const std::string &text)
{
    write("nox-run: " + harmless(text) + "\n");
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
    std::string text = harmless(record->text);
    if (!text.empty() && text.back() != '\n')
        text += '\n';
    if (record->module != nullptr)
        self->write(std::string(record->module) + ": " + text);
    else if (self->plain_lines_ && !self->quiet_)
        self->write(text);
}
