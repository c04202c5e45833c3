// The control thread of a pipe, which carries out asynchronous state changes.
//
// Requests travel on the control queue and belong to whoever takes them off. The
// thread ends on the exit message, on an item of a foreign size, or when it finds
// `running` cleared, at the latest one pop time-out after that.

#include "core/own_loop.h"
#include "internal/atomic_field.h"
#include "internal/guard.h"
#include "pipe/noxpipe_internal.h"

namespace
{

constexpr uint32_t kPopTimeoutMs = 1000;
constexpr uint32_t kStackSize = 131072;

using Message = nox::Block<NOXPipeMsg>;

Message new_message()
{
    return Message(static_cast<NOXPipeMsg *>(NOX_MALLOC(sizeof(NOXPipeMsg))));
}

bool push(NOXPipe *pipe, Message message)
{
    if (OSA_QueuePush(pipe->msgq, message.get(), sizeof(NOXPipeMsg)) != 0)
        return false;
    message.release(); // the queue's now
    return true;
}

Message pop(NOXPipe *pipe, uint32_t *size, uint32_t timeout_ms)
{
    return Message(static_cast<NOXPipeMsg *>(OSA_QueuePop(pipe->msgq, size, timeout_ms)));
}

void change_state(const NOXPipeMsg *message)
{
    const int32_t state = message->state;
    if (state == NOX_STATE_NULL || state == NOX_STATE_PAUSE)
        NOX_TRACE_FOR("nox_pipe_loop", OSA_TRACE_INFO, "async state change started.\n");
    else
        NOX_TRACE_FOR("nox_pipe_loop", OSA_TRACE_INFO,
                      "not support state(%d) in async change yet\n", state);
    const int32_t result = nox_pipe_set_state(message->pipe, state);
    NOX_TRACE_FOR("nox_pipe_loop", OSA_TRACE_INFO,
                  "async state change done state(%d) ret(%d) cb(%p)\n", state, result,
                  reinterpret_cast<void *>(message->callback));
    if (message->callback != nullptr)
        message->callback(message->pipe, state, result);
}

// False when the thread is to end.
bool handle(const NOXPipeMsg *message, uint32_t size)
{
    if (size != sizeof(NOXPipeMsg)) {
        NOX_TRACE_FOR("nox_pipe_loop", OSA_TRACE_ERROR,
                      "unknown msg. msg size diffrence. Pipemsg(%d) msg(%d)\n",
                      static_cast<int>(sizeof(NOXPipeMsg)), size);
        return false;
    }
    if (message->kind == NOX_PIPE_MSG_EXIT) {
        NOX_TRACE_FOR("nox_pipe_loop", OSA_TRACE_INFO, "pipe loog exit.\n");
        return false;
    }
    change_state(message);
    return true;
}

void carry_out_requests(NOXPipe *pipe)
{
    const nox::OwnLoop loop(pipe);
    bool goes_on = true;
    while (goes_on && nox::load_acquire(pipe->running)) {
        uint32_t size = 0;
        const Message message = pop(pipe, &size, kPopTimeoutMs);
        if (message)
            goes_on = handle(message.get(), size) && !loop.lost_its_record();
    }
}

void end_thread(NOXPipe *pipe)
{
    Message exit_message = new_message();
    // Without the message the thread sees `running` when its wait ends.
    if (exit_message)
        exit_message->kind = NOX_PIPE_MSG_EXIT;
    if (!exit_message || !push(pipe, std::move(exit_message)))
        NOX_TRACE_FOR("nox_pipe_finalize", OSA_TRACE_ERROR, "no exit message. pipe(%x)\n",
                      nox::low32(pipe));
    int32_t exit_value = 0;
    OSA_ThreadDelete(pipe->thread, &exit_value);
}

} // namespace

namespace nox
{

bool start_control_thread(NOXPipe *pipe)
{
    pipe->msgq = OSA_QueueCreate(pipe->plugin.object.name, 0);
    if (pipe->msgq == nullptr) {
        NOX_TRACE_FOR("nox_pipe_new", OSA_TRACE_ERROR, "OSA_QueueCreate failed. out of memory\n");
        return false;
    }
    pipe->running = 1;
    pipe->thread = OSA_ThreadCreate("pipe", 0, kStackSize, nox_pipe_loop, pipe);
    if (pipe->thread == nullptr) {
        NOX_TRACE_FOR("nox_pipe_new", OSA_TRACE_ERROR, "pipe thread create failed\n");
        OSA_QueueDestroy(pipe->msgq);
        return false;
    }
    return true;
}

void end_requests(NOXPipe *pipe)
{
    store_release(pipe->running, uint8_t{0});
}

void stop_control_thread(NOXPipe *pipe)
{
    if (OwnLoop::is_of(pipe))
        OwnLoop::lose_record(pipe->thread);
    else
        end_thread(pipe);
    uint32_t size = 0;
    while (pop(pipe, &size, 0) != nullptr) {
        // A request that came too late: released as it is taken off.
    }
    OSA_QueueDestroy(pipe->msgq);
}

} // namespace nox

int32_t nox_pipe_set_state_async(NOXPipe *pipe, int32_t state, NoxPipeAsyncCallback callback)
{
    Message message = new_message();
    if (!message) {
        NOX_TRACE_OBJECT(pipe, OSA_TRACE_ERROR, "no memory for a request to state(%d)\n", state);
        return -1;
    }
    message->pipe = pipe;
    message->state = state;
    message->callback = callback;
    if (!push(pipe, std::move(message))) {
        NOX_TRACE_OBJECT(pipe, OSA_TRACE_ERROR, "OSA_QueuePush error\n");
        return -1;
    }
    return 0;
}

int32_t nox_pipe_loop(void *argument)
{
    auto *pipe = static_cast<NOXPipe *>(argument);
    NOX_TRACE(OSA_TRACE_VERBOSE, "Enter.\n");
    carry_out_requests(pipe);
    NOX_TRACE(OSA_TRACE_NOTICE, "Leave.\n");
    OSA_ThreadExit(0);
    return 0;
}
