// The text of one trace line: formatted, headed and ended, with or without
// colours.
#ifndef OSA_COMMON_TRACE_LINE_H
#define OSA_COMMON_TRACE_LINE_H

#include <cstdarg>
#include <cstddef>
#include <cstdint>

#include "osa/osa_ext.h"

namespace osa
{

// Text that grows on the heap once it is longer than what fits in place, so that
// an ordinary line costs no allocation. Without memory it ends where it got to.
class TextBuffer
{
public:
    TextBuffer() = default;
    ~TextBuffer();
    TextBuffer(const TextBuffer &) = delete;
    TextBuffer &operator=(const TextBuffer &) = delete;

    void append(const char *format, ...) OSA_PRINTF(2, 3);
    void append_list(const char *format, va_list arguments) OSA_PRINTF(2, 0);

    // Takes out every "ESC [ ... m".
    void drop_colours();

    // Adds a line feed unless the text ends with one, colours aside.
    void end_line();

    const char *text() const
    {
        return m_text;
    }
    size_t length() const
    {
        return m_length;
    }

private:
    bool reserve(size_t length);

    char m_in_place[1024] = {};
    char *m_text = m_in_place;
    size_t m_capacity = sizeof(m_in_place); // the closing zero included
    size_t m_length = 0;
};

// Heads a line: "[ 1234.567] E module source:line function: ". Nothing for a
// record of OSA_Traces.
void append_trace_head(TextBuffer &line, uint64_t tick_ms, const OSA_TraceRecord &record);

} // namespace osa

#endif
