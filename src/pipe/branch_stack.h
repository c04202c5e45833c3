// The plugins whose further branches a state walk has still to visit, the most
// recently passed one first. A walk that meets no branch takes no memory.
#ifndef NOX_PIPE_BRANCH_STACK_H
#define NOX_PIPE_BRANCH_STACK_H

#include "internal/guard.h"
#include "pipe/noxpipe_internal.h"

namespace
{

class BranchStack
{
public:
    BranchStack() = default;
    BranchStack(const BranchStack &) = delete;
    BranchStack &operator=(const BranchStack &) = delete;

    ~BranchStack()
    {
        if (m_records == nullptr)
            return;
        while (void *record = nox::take_head(m_records)) {
            NOX_TRACE_FOR("pipe_iterate_set_state", OSA_TRACE_ERROR,
                          "pipeline interation list has node.. critical error.\n");
            OSA_Free(record, 0);
        }
        OSA_ListDestroy(m_records);
    }

    // False, told on the trace, without memory: these branches are not visited.
    bool push(NOXPlugin *plugin, uint32_t branches)
    {
        nox::Block<Record> record(static_cast<Record *>(NOX_MALLOC(sizeof(Record))));
        nox::ListNode node(record ? OSA_List_Node_new_data(record.get()) : nullptr);
        if (m_records == nullptr)
            m_records = OSA_ListCreate();
        if (m_records == nullptr || !node || OSA_ListAddHead(m_records, node.get()) < 0) {
            NOX_TRACE_FOR("pipe_iterate_set_state", OSA_TRACE_ERROR,
                          "no memory for the branches of (%s)\n", nox::name_of(plugin));
            return false;
        }
        *record = {plugin, static_cast<int32_t>(branches), 1, OSA_ListGetHead(plugin->nextlist)};
        node.release();   // the list's now
        record.release(); // the node's now
        return true;
    }

    // The next branch of the top record, which goes with its last branch; null
    // for an empty stack.
    NOXPlugin *take_next_branch()
    {
        OSA_ListNode *top = nox::head_of(m_records);
        if (top == nullptr)
            return nullptr;
        auto *record = static_cast<Record *>(top->data);
        NOX_TRACE_FOR("pipe_iterate_set_state", OSA_TRACE_INFO,
                      "current(%p:%s) totalbch(%d) curbch(%d)\n", nox::address(record->plugin),
                      nox::name_of(record->plugin), record->totalbch, record->curbch);
        NOXPlugin *branch = nullptr;
        if (record->cursor != nullptr) {
            branch = static_cast<NOXPlugin *>(record->cursor->data);
            record->cursor = record->cursor->next;
        }
        ++record->curbch;
        if (--record->totalbch == 0)
            OSA_Free(nox::take_head(m_records), 0);
        return branch;
    }

private:
    struct Record {
        NOXPlugin *plugin;
        int32_t totalbch;     // branches still to visit
        int32_t curbch;       // index of the next branch
        OSA_ListNode *cursor; // its node: asking for branch after branch by index is quadratic
    };

    OSA_List *m_records = nullptr; // made with the first record
};

} // namespace

#endif
