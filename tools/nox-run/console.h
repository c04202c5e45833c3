// What nox-run shows: messages on standard error, and on a terminal a line of
// progress that messages never run into.
#ifndef NOX_RUN_CONSOLE_H
#define NOX_RUN_CONSOLE_H

#include <mutex>
#include <string>

#include "osa/osa_ext.h"

class Console
{
public:
    explicit Console(bool quiet);
    ~Console();
    Console(const Console &) = delete;
    Console &operator=(const Console &) = delete;

    // A line that is always shown, and one that --quiet drops.
    void error(const std::string &text);
    void note(const std::string &text);

    // The progress, drawn over the last one. Only when shows_progress().
    void progress(const std::string &text);
    bool shows_progress() const
    {
        return terminal_ && !quiet_ && !meter_;
    }

    // An element draws on the terminal itself: progress is left to it.
    void leave_line_to_meter()
    {
        meter_ = true;
    }

    // Lines without a level, the library's version banners before anything plays, are
    // dropped until this is called.
    void show_plain_lines()
    {
        plain_lines_ = true;
    }

private:
    static void receive_trace(void *user, const OSA_TraceRecord *record);
    void write(const std::string &text);

    const bool quiet_;
    const bool terminal_;
    bool meter_ = false;
    bool plain_lines_ = false;
    std::mutex mutex_; // traces come on any thread
    bool line_drawn_ = false;
};

#endif
