// A queue with an eventfd.

#include "mailbox.h"

#include <cerrno>
#include <system_error>

#include <sys/eventfd.h>
#include <unistd.h>

Mailbox::Mailbox() : descriptor_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK | EFD_SEMAPHORE))
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
    if (messages_.empty())
        return std::nullopt;
    eventfd_t taken;
    eventfd_read(descriptor_, &taken);
    Message message = std::move(messages_.front());
    messages_.pop_front();
    return message;
}

int32_t Mailbox::on_message(NOXBus *, void *mailbox, const char *sender, int32_t code,
                            const char *text)
{
    auto *self = static_cast<Mailbox *>(mailbox);
    const std::lock_guard lock(self->mutex_);
    self->messages_.push_back(
        {sender == nullptr ? "?" : sender, code, text == nullptr ? "" : text});
    eventfd_write(self->descriptor_, 1);
    return 0;
}
