// The main thread's loop: it sleeps in poll until a message, a signal or a moment
// comes. All changes of state are made here.
//
// End of stream on request: a source ends on its own thread, where alone it may push
// the event beside its buffers. So each source is asked to, with NOX_EVENT_EOS. One
// that does not know the event gets a limit of frames a little later, with which its
// next buffer is the last. Only what ends by neither is stopped by force.

#include "player.h"

#include <cstdio>

#include <poll.h>

#include "noxbasesrc.h"
#include "plugins/plugin_messages.h"

namespace
{

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr seconds kPatience{5};
constexpr milliseconds kEventPatience{500};
constexpr milliseconds kProgressInterval{200};

// Posted by finish() behind all other messages; no plugin's code.
constexpr int32_t kMarker = 0x7E0D;

struct CodeName {
    int32_t code;
    const char *name;
};

constexpr CodeName kCodeNames[] = {
    {NOX_MSG_STARTED, "NOX_MSG_STARTED"},
    {NOX_MSG_EOS, "NOX_MSG_EOS"},
    {NOX_MSG_SINK, "NOX_MSG_SINK"},
    {NOX_MSG_PUSH_ERROR, "NOX_MSG_PUSH_ERROR"},
    {NOX_MSG_CAPTURE_ERROR, "NOX_MSG_CAPTURE_ERROR"},
    {NOX_MSG_BUS_CRITICAL, "NOX_MSG_BUS_CRITICAL"},
    {PLUGIN_MSG_OPTION, "PLUGIN_MSG_OPTION"},
    {PLUGIN_MSG_FORMAT, "PLUGIN_MSG_FORMAT"},
    {PLUGIN_MSG_READ, "PLUGIN_MSG_READ"},
    {PLUGIN_MSG_WRITE, "PLUGIN_MSG_WRITE"},
    {PLUGIN_MSG_MEMORY, "PLUGIN_MSG_MEMORY"},
};

std::string code_name(int32_t code)
{
    for (const CodeName &entry : kCodeNames)
        if (entry.code == code)
            return entry.name;
    char number[16];
    std::snprintf(number, sizeof number, "0x%X", static_cast<unsigned>(code));
    return number;
}

// Every sink has ended. Other texts come under the same code when a source could
// not go on.
bool is_end_of_stream(const Message &message)
{
    return message.code == NOX_MSG_EOS && message.text == "EOS.\n";
}

std::string without_line_feed(std::string text)
{
    if (!text.empty() && text.back() == '\n')
        text.pop_back();
    return text;
}

} // namespace

Player::Player(Console &console, Signals &signals, Mailbox &mailbox, NOXPipe *pipe,
               const std::vector<GraphElement> &elements, seconds time_limit)
    : console_(console), signals_(signals), mailbox_(mailbox), pipe_(pipe), elements_(elements)
{
    if (time_limit.count() > 0)
        end_at_ = Clock::now() + time_limit;
    nox_pipe_set_bus_handler(pipe_, Mailbox::on_message, &mailbox_);
}

Player::~Player()
{
    nox_pipe_set_bus_handler(pipe_, nullptr, nullptr);
}

Outcome Player::play()
{
    if (console_.shows_progress())
        position_source_ = find_position_source();
    // READY on the way is where a plugin can refuse what PLAY would hide: a file that
    // cannot be written, a stream it does not understand.
    nox_pipe_set_option(pipe_, NOX_PIPE_OPT_PLAY_VIA_READY);
    if (nox_pipe_set_state(pipe_, NOX_STATE_PLAY) != 0)
        outcome_ = Outcome::failed;
    while (!outcome_) {
        wait();
        if (signals_.take())
            handle_signal();
        take_messages();
        check_time();
        show_progress();
    }
    if (finish() && outcome_ == Outcome::done)
        outcome_ = Outcome::failed;
    return *outcome_;
}

// The pipe goes no further than the first source that fails; a sink that closes its
// file when it stops must be stopped all the same.
void Player::stop_all()
{
    if (nox_pipe_set_state(pipe_, NOX_STATE_NULL) == 0)
        return;
    fail("the graph could not be brought back to NULL");
    for (const GraphElement &element : elements_)
        nox_plugin_setstate(element.plugin, NOX_STATE_NULL);
}

bool Player::finish()
{
    stop_all();
    if (nox_plugin_error_post(&pipe_->plugin, kMarker, nullptr) != 0)
        return failed_;
    const Clock::time_point give_up = Clock::now() + kPatience;
    while (!marker_seen_ && Clock::now() < give_up) {
        pollfd ready = {mailbox_.descriptor(), POLLIN, 0};
        poll(&ready, 1, static_cast<int>(kProgressInterval.count()));
        take_messages();
    }
    return failed_;
}

void Player::wait()
{
    pollfd ready[] = {{mailbox_.descriptor(), POLLIN, 0}, {signals_.descriptor(), POLLIN, 0}};
    poll(ready, 2, poll_timeout());
}

int Player::poll_timeout() const
{
    const bool waits_for_a_moment = console_.shows_progress() || end_at_ || force_at_;
    return waits_for_a_moment ? static_cast<int>(kProgressInterval.count()) : -1;
}

void Player::handle_signal()
{
    if (++signal_count_ == 1)
        return end_stream("ending the stream; once more stops by force");
    console_.error("stopped by force");
    signals_.let_kill();
    outcome_ = Outcome::forced;
}

void Player::end_stream(const std::string &reason)
{
    console_.note(reason);
    if (force_at_) // it is ending already
        return;
    end_at_.reset();
    limit_at_ = Clock::now() + kEventPatience;
    force_at_ = Clock::now() + kPatience;
    NOXEvent event = {nullptr, NOX_EVENT_EOS};
    for (const GraphElement &element : elements_)
        if (element.plugin->issrc != 0)
            nox_plugin_setevent(element.plugin, &event);
}

// The base source looks at the limit after each buffer, and counts from 0 when
// there was none before.
void Player::limit_frames()
{
    limit_at_.reset();
    const StructurePointer format(nox_structure_new("options"));
    const uint32_t one = 1;
    if (format == nullptr || nox_structure_putvar_uint32(format.get(), "maxframes", 0, &one) != 0)
        return;
    limited_ = true;
    for (const GraphElement &element : elements_)
        if (element.plugin->issrc != 0 && !nox_basesrc_get_eos(element.plugin))
            nox_plugin_setformat(element.plugin, format.get());
}

void Player::check_time()
{
    if (outcome_)
        return;
    if (end_at_ && Clock::now() >= *end_at_)
        end_stream("the time limit has passed; ending the stream");
    if (limit_at_ && Clock::now() >= *limit_at_)
        limit_frames();
    if (force_at_ && Clock::now() >= *force_at_) {
        console_.error("the stream did not end; stopped by force");
        outcome_ = Outcome::forced;
    }
}

void Player::take_messages()
{
    while (const std::optional<Message> message = mailbox_.take())
        handle(*message);
    if (mailbox_.take_lost())
        fail("messages of the bus were lost: no memory");
}

void Player::fail(const std::string &text)
{
    console_.error(text);
    failed_ = true;
    if (!outcome_)
        outcome_ = Outcome::failed;
}

void Player::handle(const Message &message)
{
    if (message.code == kMarker) {
        marker_seen_ = true;
        return;
    }
    const std::string text = code_name(message.code) + " from " + message.sender +
                             (message.text.empty() ? "" : ": " + without_line_feed(message.text));
    if (is_failure(message)) {
        option_refused_ = option_refused_ || message.code == PLUGIN_MSG_OPTION;
        return fail(text);
    }
    if (!is_end_of_stream(message))
        return console_.note(text);
    // Each sink that hears the end while all have ended makes the pipe post again.
    if (!outcome_) {
        console_.note(text);
        outcome_ = Outcome::done;
    }
}

bool Player::is_failure(const Message &message) const
{
    // A source that heard the event, but is held up, may refuse options while it plays.
    if (limited_ && message.code == PLUGIN_MSG_OPTION)
        return false;
    const bool plugin_error =
        message.code >= PLUGIN_MSG_FIRST_ERROR && message.code <= PLUGIN_MSG_LAST_ERROR;
    if (plugin_error || message.code == NOX_MSG_PUSH_ERROR || message.code == NOX_MSG_BUS_CRITICAL)
        return true;
    if (message.code == NOX_MSG_EOS)
        return !is_end_of_stream(message);
    if (message.code != NOX_MSG_CAPTURE_ERROR)
        return false;
    // With these policies the source goes on by itself.
    for (const GraphElement &element : elements_) {
        const auto *source = reinterpret_cast<const NOXBaseSrc *>(element.plugin);
        if (element.plugin->issrc != 0 && message.sender == element.text.name)
            return source->errhandle != NOX_ERRHANDLE_RETRY &&
                   source->errhandle != NOX_ERRHANDLE_RESTART;
    }
    return true;
}

// Before anything plays: a source that did not tell a position then need not be ready
// to be asked while it works.
NOXPlugin *Player::find_position_source() const
{
    for (const GraphElement &element : elements_) {
        uint64_t position = 0;
        const StructurePointer facts =
            element.plugin->issrc != 0 ? query_format(element.plugin) : nullptr;
        if (facts != nullptr &&
            nox_structure_getvar_uint64(facts.get(), "stream.position", &position) == 0)
            return element.plugin;
    }
    return nullptr;
}

// The position that the first source that has one tells, or else the pipeline clock.
void Player::show_progress()
{
    if (!console_.shows_progress() || outcome_)
        return;
    uint64_t position = nox_timer_gettime(pipe_->clock);
    uint64_t duration = 0;
    const StructurePointer facts =
        position_source_ != nullptr ? query_format(position_source_) : nullptr;
    if (facts != nullptr) {
        nox_structure_getvar_uint64(facts.get(), "stream.position", &position);
        nox_structure_getvar_uint64(facts.get(), "stream.duration", &duration);
    }
    char text[64];
    std::snprintf(text, sizeof text, "%.1f s", static_cast<double>(position) / 1000);
    std::string line = text;
    if (duration > 0) {
        std::snprintf(text, sizeof text, " of %.1f s", static_cast<double>(duration) / 1000);
        line += text;
    }
    console_.progress(line);
}
