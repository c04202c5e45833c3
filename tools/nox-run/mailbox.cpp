// A queue with an eventfd.

#include "mailbox.h"

#include <cerrno>
#include <system_error>

#include <sys/eventfd.h>
#include <unistd.h>

Mailbox::Mailbox() : descriptor_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    if (descriptor_ < 0)
        throw std::system_error(errno, std::generic_category(), "eventfd");
}

Mailbox::~Mailbox()
{
    close(descriptor_);
}

std::optional<Message> Mailbox::take()
{
    const std::lock_guard lock(mutex_);
    if (messages_.empty()) {
        eventfd_t taken;
        eventfd_read(descriptor_, &taken);
        return std::nullopt;
    }
    Message message = std::move(messages_.front());
    messages_.pop_front();
    return message;
}

void Mailbox::put(Message message)
{
    const std::lock_guard lock(mutex_);
    messages_.push_back(std::move(message));
}

// The caller is C: nothing may be thrown through it.
int32_t Mailbox::on_message(NOXBus *, void *mailbox, const char *sender, int32_t code,
                            const char *text)
{
    auto *self = static_cast<Mailbox *>(mailbox);
    try {
        self->put({sender == nullptr ? "?" : sender, code, text == nullptr ? "" : text});
    } catch (...) {
        self->lost_ = true;
    }
    eventfd_write(self->descriptor_, 1);
    return 0;
}
