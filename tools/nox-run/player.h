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
    // `time_limit` of 0 is none.
    Player(Console &console, Signals &signals, NOXPipe *pipe,
           const std::vector<GraphElement> &elements, std::chrono::seconds time_limit);

    // Plays until end of stream, a failure, or a second signal, and brings the pipe
    // back to NULL. The first signal, or the time limit, ends the stream.
    Outcome play();

    // Brings the pipe to NULL and shows what is still on the bus, which would be
    // dropped with the pipe. Returns whether a plugin reported a failure.
    bool finish();

private:
    using Clock = std::chrono::steady_clock;

    void wait();
    int poll_timeout() const;
    void handle_signal();
    void end_stream(const std::string &reason);
    void limit_frames();
    void check_time();
    void take_messages();
    void handle(const Message &message);
    void show_progress();
    bool is_failure(const Message &message) const;

    Console &console_;
    Signals &signals_;
    NOXPipe *pipe_;
    const std::vector<GraphElement> &elements_;
    Mailbox mailbox_;
    std::optional<Outcome> outcome_;
    std::optional<Clock::time_point> end_at_;   // when end of stream is to be asked for
    std::optional<Clock::time_point> limit_at_; // it was asked for: when to limit the frames
    std::optional<Clock::time_point> force_at_; // it was asked for: when to give up waiting
    int signal_count_ = 0;
    bool limited_ = false;
    bool failed_ = false;
    bool marker_seen_ = false;
};

#endif
