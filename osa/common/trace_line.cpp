// Formatting of trace lines.

#include "osa/common/trace_line.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace osa
{

namespace
{

// Where the colour sequence that begins at `text` ends, or `text` when none does.
const char *after_colour(const char *text)
{
    if (text[0] != '\033' || text[1] != '[')
        return text;
    const char *end = text + 2 + std::strspn(text + 2, "0123456789;:");
    return *end == 'm' ? end + 1 : text;
}

// "...\n" and "...\n<colour off>" both end a line.
bool ends_line(const char *text, size_t length)
{
    const char *feed = static_cast<const char *>(memrchr(text, '\n', length));
    if (feed == nullptr)
        return false;
    const char *rest = feed + 1;
    for (const char *after = after_colour(rest); after != rest; after = after_colour(rest))
        rest = after;
    return rest == text + length;
}

char level_letter(int32_t level)
{
    return "?ENIV"[std::clamp(level, 0, 4)];
}

const char *text_or_dash(const char *text)
{
    return text != nullptr ? text : "-";
}

} // namespace

TextBuffer::~TextBuffer()
{
    if (m_text != m_in_place)
        std::free(m_text);
}

bool TextBuffer::reserve(size_t length)
{
    if (length < m_capacity)
        return true;
    const size_t capacity = std::max(length + 1, 2 * m_capacity);
    const bool in_place = m_text == m_in_place;
    char *grown = static_cast<char *>(std::realloc(in_place ? nullptr : m_text, capacity));
    if (grown == nullptr)
        return false;
    if (in_place)
        std::memcpy(grown, m_in_place, m_length + 1);
    m_text = grown;
    m_capacity = capacity;
    return true;
}

void TextBuffer::append(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    append_list(format, arguments);
    va_end(arguments);
}

void TextBuffer::append_list(const char *format, va_list arguments)
{
    va_list again;
    va_copy(again, arguments);
    const size_t room = m_capacity - m_length;
    const int written = std::vsnprintf(m_text + m_length, room, format, arguments);
    const size_t wanted = written > 0 ? static_cast<size_t>(written) : 0;
    if (wanted >= room && reserve(m_length + wanted))
        std::vsnprintf(m_text + m_length, m_capacity - m_length, format, again);
    va_end(again);
    m_length += std::min(wanted, m_capacity - m_length - 1);
}

void TextBuffer::drop_colours()
{
    const char *from = m_text;
    char *to = m_text;
    while (*from != '\0') {
        const char *after = after_colour(from);
        if (after == from)
            *to++ = *from++;
        else
            from = after;
    }
    *to = '\0';
    m_length = static_cast<size_t>(to - m_text);
}

void TextBuffer::end_line()
{
    if (!ends_line(m_text, m_length))
        append("\n");
}

void append_trace_head(TextBuffer &line, uint64_t tick_ms, const OSA_TraceRecord &record)
{
    if (record.level == 0)
        return;
    line.append("[%5llu.%03u] %c %s %s:%d %s: ", static_cast<unsigned long long>(tick_ms / 1000),
                static_cast<unsigned>(tick_ms % 1000), level_letter(record.level),
                text_or_dash(record.module), text_or_dash(record.source), record.line,
                text_or_dash(record.function));
}

} // namespace osa
