// Carries the messages of the bus thread to the main thread, which can wait for
// them with poll.
#ifndef NOX_RUN_MAILBOX_H
#define NOX_RUN_MAILBOX_H

#include <atomic>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>

#include "noxbus.h"

struct Message {
    std::string sender;
    int32_t code;
    std::string text;
};

class Mailbox
{
public:
    Mailbox();
    ~Mailbox();
    Mailbox(const Mailbox &) = delete;
    Mailbox &operator=(const Mailbox &) = delete;

    // Readable while messages are there.
    int descriptor() const
    {
        return descriptor_;
    }

    // The oldest message; none when all have been taken.
    std::optional<Message> take();

    // Whether messages were lost, for want of memory, since it was last asked.
    bool take_lost()
    {
        return lost_.exchange(false);
    }

    // The handler for the bus; its data is a Mailbox.
    static int32_t on_message(NOXBus *bus, void *mailbox, const char *sender, int32_t code,
                              const char *text);

private:
    void put(Message message);

    const int descriptor_; // an eventfd, set while there is something to take
    std::mutex mutex_;
    std::deque<Message> messages_;
    std::atomic<bool> lost_{false};
};

#endif
