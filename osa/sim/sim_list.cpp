// Lists. The links are changed outside the layer's own bookkeeping, so that the
// race check sees two threads that work on one list without a lock.

#include "osa/common/list_links.h"
#include "osa/sim/world.h"

using sim::BlockKind;
using sim::Entry;
using sim::Kind;

struct OSA_List : sim::Object {
    OSA_List() : Object(Kind::list) {}

    osa::ListLinks links;
};

namespace
{

// The record of a live node that is in `list` (null: in none), or null with the
// misuse reported.
sim::Block *find_node(Entry &layer, const OSA_ListNode *node, const OSA_List *list,
                      const char *operation)
{
    sim::Block *block = layer->heap.find(node);
    if (block == nullptr || block->kind != BlockKind::list_node) {
        layer.misuse(operation, "not a live list node");
        return nullptr;
    }
    if (block->list != list) {
        layer.misuse(operation, list == nullptr ? "the node is in a list"
                                                : "the node is not in " + list->text());
        return nullptr;
    }
    return block;
}

// Notes in the node's record that it is in the list from now on.
bool enter_list(const OSA_List *list, const OSA_ListNode *node, const char *operation,
                const void *caller)
{
    if (list == nullptr || node == nullptr)
        return false;
    Entry layer;
    if (layer.must_fail(operation, caller) || !layer.check(list, Kind::list, operation))
        return false;
    sim::Block *block = find_node(layer, node, nullptr, operation);
    if (block == nullptr)
        return false;
    block->list = list;
    return true;
}

bool leave_list(const OSA_List *list, const OSA_ListNode *node)
{
    if (list == nullptr || node == nullptr)
        return false;
    Entry layer;
    if (!layer.check(list, Kind::list, "OSA_ListDel"))
        return false;
    sim::Block *block = find_node(layer, node, list, "OSA_ListDel");
    if (block == nullptr)
        return false;
    block->list = nullptr;
    return true;
}

bool is_list(const OSA_List *list, const char *operation)
{
    if (list == nullptr)
        return false;
    Entry layer;
    return layer.check(list, Kind::list, operation);
}

OSA_ListNode *make_node(const char *operation, const void *caller)
{
    Entry layer;
    if (layer.must_fail(operation, caller))
        return nullptr;
    return static_cast<OSA_ListNode *>(
        layer->heap.take(BlockKind::list_node, sizeof(OSA_ListNode), sim::Origin{caller}));
}

} // namespace

OSA_List *OSA_ListCreate(void)
{
    Entry layer;
    if (layer.must_fail("OSA_ListCreate", SIM_CALLER))
        return nullptr;
    return layer->handles.make<OSA_List>(SIM_CALLER);
}

int32_t OSA_ListDestroy(OSA_List *list)
{
    if (!is_list(list, "OSA_ListDestroy"))
        return -1;
    while (list->links.head != nullptr) {
        OSA_ListNode *node = list->links.head;
        if (OSA_ListDel(list, node) != 0)
            return -1;
        OSA_List_Node_delete(node);
    }
    Entry layer;
    layer->handles.bury(list);
    return 0;
}

int32_t OSA_ListAddTail(OSA_List *list, OSA_ListNode *node)
{
    if (!enter_list(list, node, "OSA_ListAddTail", SIM_CALLER))
        return -1;
    osa::list_add_tail(list->links, *node);
    return 0;
}

int32_t OSA_ListAddHead(OSA_List *list, OSA_ListNode *node)
{
    if (!enter_list(list, node, "OSA_ListAddHead", SIM_CALLER))
        return -1;
    osa::list_add_head(list->links, *node);
    return 0;
}

int32_t OSA_ListDel(OSA_List *list, OSA_ListNode *node)
{
    if (!leave_list(list, node))
        return -1;
    return osa::list_remove(list->links, *node) ? 0 : -1;
}

OSA_ListNode *OSA_ListGetHead(OSA_List *list)
{
    return is_list(list, "OSA_ListGetHead") ? list->links.head : nullptr;
}

OSA_ListNode *OSA_ListGetTail(OSA_List *list)
{
    return is_list(list, "OSA_ListGetTail") ? list->links.tail : nullptr;
}

OSA_ListNode *OSA_ListGetNext(OSA_ListNode *node)
{
    return node == nullptr ? nullptr : node->next;
}

OSA_ListNode *OSA_ListGetPrev(OSA_ListNode *node)
{
    return node == nullptr ? nullptr : node->prev;
}

uint32_t OSA_ListGetNum(OSA_List *list)
{
    return is_list(list, "OSA_ListGetNum") ? list->links.count : 0;
}

OSA_ListNode *OSA_List_GetNthList(OSA_List *list, uint32_t position)
{
    return is_list(list, "OSA_List_GetNthList") ? osa::list_at(list->links, position) : nullptr;
}

OSA_ListNode *OSA_List_Node_new(void)
{
    return make_node("OSA_List_Node_new", SIM_CALLER);
}

OSA_ListNode *OSA_List_Node_new_data(void *data)
{
    OSA_ListNode *node = make_node("OSA_List_Node_new_data", SIM_CALLER);
    if (node != nullptr)
        node->data = data;
    return node;
}

void OSA_List_Node_delete(OSA_ListNode *node)
{
    if (node == nullptr)
        return;
    Entry layer;
    if (find_node(layer, node, nullptr, "OSA_List_Node_delete") == nullptr)
        return;
    const std::string fault = layer->heap.give(node);
    if (!fault.empty())
        layer.misuse("OSA_List_Node_delete", fault);
}
