// Plays a graph to its end and reports what happens on the way.
#ifndef NOX_RUN_PLAYER_H
#define NOX_RUN_PLAYER_H

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "console.h"
#include "graph.h"
#include "mailbox.h"
#include "signals.h"

enum class Outcome { done, failed, forced };

class Player
{
public:
    // `time_limit` of 0 is none. The mailbox must outlive the pipe, whose bus thread may
    // be in its handler until it has ended.
    Player(Console &console, Signals &signals, Mailbox &mailbox, NOXPipe *pipe,
           const std::vector<GraphElement> &elements, std::chrono::seconds time_limit);

    ~Player();
    Player(const Player &) = delete;
    Player &operator=(const Player &) = delete;

    // Plays until end of stream, a failure, or a second signal, and brings the pipe
    // back to NULL. The first signal, or the time limit, ends the stream.
    Outcome play();

    // Brings the pipe to NULL and shows what is still on the bus, which would be
    // dropped with the pipe. Returns whether a failure was reported.
    bool finish();

    // Whether a plugin has posted that an option is missing or wrong.
    bool option_was_refused() const
    {
        return option_refused_;
    }

private:
    using Clock = std::chrono::steady_clock;

    void wait();
    int poll_timeout() const;
    void stop_all();
    void handle_signal();
    void end_stream(const std::string &reason);
    void limit_frames();
    void check_time();
    void take_messages();
    void handle(const Message &message);
    void fail(const std::string &text);
    NOXPlugin *find_position_source() const;
    void show_progress();
    bool is_failure(const Message &message) const;

    Console &console_;
    Signals &signals_;
    Mailbox &mailbox_;
    NOXPipe *pipe_;
    const std::vector<GraphElement> &elements_;
    NOXPlugin *position_source_ = nullptr;
    std::optional<Outcome> outcome_;
    std::optional<Clock::time_point> end_at_;   // when end of stream is to be asked for
    std::optional<Clock::time_point> limit_at_; // it was asked for: when to limit the frames
    std::optional<Clock::time_point> force_at_; // it was asked for: when to give up waiting
    int signal_count_ = 0;
    bool limited_ = false;
    bool failed_ = false;
    bool option_refused_ = false;
    bool marker_seen_ = false;
};

#endif
