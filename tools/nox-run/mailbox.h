// Carries the messages of the bus thread to the main thread, which can wait for
// them with poll.
#ifndef NOX_RUN_MAILBOX_H
#define NOX_RUN_MAILBOX_H

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

    // The oldest message.
    std::optional<Message> take();

    // The handler for the bus; its data is a Mailbox.
    static int32_t on_message(NOXBus *bus, void *mailbox, const char *sender, int32_t code,
                              const char *text);

private:
    const int descriptor_; // an eventfd that counts the messages
    std::mutex mutex_;
    std::deque<Message> messages_;
};

#endif
