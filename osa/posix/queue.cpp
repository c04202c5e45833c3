// Queues of (pointer, size) pairs.

#include "osa/common/export.h"

#include <cstdio>

#include "osa/posix/monitor.h"
#include "osa/posix/node.h"
#include "osa/posix/report.h"

namespace
{

struct Entry {
    Entry *next;
    void *item;
    uint32_t size;
    osa::Origin origin;
};

static_assert(sizeof(Entry) <= OSA_QUEUE_NODE_SIZE);

constexpr size_t kNameSize = 32;

} // namespace

struct OSA_Queue {
    osa::Monitor monitor;
    Entry *oldest = nullptr;
    Entry *newest = nullptr;
    uint32_t waiting = 0; // threads inside pop
    char name[kNameSize] = {};

    void append(Entry *entry)
    {
        (newest != nullptr ? newest->next : oldest) = entry;
        newest = entry;
    }

    Entry *take_oldest()
    {
        Entry *entry = oldest;
        oldest = entry->next;
        if (oldest == nullptr)
            newest = nullptr;
        return entry;
    }
};

namespace
{

void release_entry(Entry *entry)
{
    osa::node_delete<OSA_QUEUE_NODE_SIZE>(entry);
}

// The oldest entry, or null when none came in time.
Entry *wait_for_entry(OSA_Queue &queue, uint32_t timeout_ms)
{
    const osa::Monitor::Lock lock(queue.monitor);
    ++queue.waiting;
    const bool came = queue.monitor.wait(timeout_ms, [&] { return queue.oldest != nullptr; });
    --queue.waiting;
    return came ? queue.take_oldest() : nullptr;
}

bool is_waited_for(OSA_Queue &queue)
{
    const osa::Monitor::Lock lock(queue.monitor);
    return queue.waiting > 0;
}

} // namespace

extern "C" {

OSA_Queue *OSA_QueueCreate(const char *name, int32_t)
{
    OSA_Queue *queue = new (std::nothrow) OSA_Queue;
    if (queue == nullptr)
        return nullptr;
    std::snprintf(queue->name, kNameSize, "%s", name != nullptr ? name : "");
    osa::count_alive(osa::Kind::queue, 1);
    return queue;
}

int32_t OSA_QueueDestroy(OSA_Queue *queue)
{
    if (queue == nullptr)
        return -1;
    if (is_waited_for(*queue)) {
        OSA_REPORT(OSA_TRACE_ERROR, "queue \"%s\" not destroyed: a thread waits for it\n",
                   queue->name);
        return -1;
    }
    while (queue->oldest != nullptr)
        release_entry(queue->take_oldest());
    delete queue;
    osa::count_alive(osa::Kind::queue, -1);
    return 0;
}

int32_t OSA_QueuePush(OSA_Queue *queue, void *item, uint32_t size)
{
    if (queue == nullptr)
        return -1;
    if (item == nullptr) {
        OSA_REPORT(OSA_TRACE_ERROR,
                   "null pushed to queue \"%s\", where it means that nothing came\n", queue->name);
        return -1;
    }
    Entry *entry = osa::node_new<Entry, OSA_QUEUE_NODE_SIZE>();
    if (entry == nullptr)
        return -1;
    entry->item = item;
    entry->size = size;
    const osa::Monitor::Lock lock(queue->monitor);
    queue->append(entry);
    queue->monitor.signal();
    return 0;
}

void *OSA_QueuePop(OSA_Queue *queue, uint32_t *size, uint32_t timeout_ms)
{
    if (queue == nullptr)
        return nullptr;
    Entry *entry = wait_for_entry(*queue, timeout_ms);
    if (entry == nullptr)
        return nullptr;
    void *item = entry->item;
    if (size != nullptr)
        *size = entry->size;
    release_entry(entry);
    return item;
}

} // extern "C"
