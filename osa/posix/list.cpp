// Lists and their nodes.

#include "osa/common/export.h"

#include "osa/common/list_links.h"
#include "osa/posix/node.h"
#include "osa/posix/report.h"

struct OSA_List {
    osa::ListLinks links;
};

namespace
{

constexpr uint32_t kPoolSize = sizeof(OSA_ListNode);

// What is behind a public node. The pool's blocks are multiples of 16 bytes, so
// that those of 24 have room for the last field.
struct Node {
    OSA_ListNode shared;
    osa::Origin origin;
};

static_assert(kPoolSize == 24 && sizeof(Node) <= 32);

void release_node(OSA_ListNode *shared)
{
    osa::node_delete<kPoolSize>(reinterpret_cast<Node *>(shared));
    osa::count_alive(osa::Kind::list_node, -1);
}

} // namespace

extern "C" {

OSA_List *OSA_ListCreate(void)
{
    OSA_List *list = new (std::nothrow) OSA_List;
    if (list != nullptr)
        osa::count_alive(osa::Kind::list, 1);
    return list;
}

int32_t OSA_ListDestroy(OSA_List *list)
{
    if (list == nullptr)
        return -1;
    osa::list_clear(list->links, release_node);
    delete list;
    osa::count_alive(osa::Kind::list, -1);
    return 0;
}

int32_t OSA_ListAddTail(OSA_List *list, OSA_ListNode *node)
{
    if (list == nullptr || node == nullptr)
        return -1;
    osa::list_add_tail(list->links, *node);
    return 0;
}

int32_t OSA_ListAddHead(OSA_List *list, OSA_ListNode *node)
{
    if (list == nullptr || node == nullptr)
        return -1;
    osa::list_add_head(list->links, *node);
    return 0;
}

int32_t OSA_ListDel(OSA_List *list, OSA_ListNode *node)
{
    if (list == nullptr || node == nullptr)
        return -1;
    if (osa::list_remove(list->links, *node))
        return 0;
    OSA_REPORT(OSA_TRACE_ERROR, "node %p is not in list %p\n", static_cast<void *>(node),
               static_cast<void *>(list));
    return -1;
}

OSA_ListNode *OSA_ListGetHead(OSA_List *list)
{
    return list != nullptr ? list->links.head : nullptr;
}

OSA_ListNode *OSA_ListGetTail(OSA_List *list)
{
    return list != nullptr ? list->links.tail : nullptr;
}

OSA_ListNode *OSA_ListGetNext(OSA_ListNode *node)
{
    return node != nullptr ? node->next : nullptr;
}

OSA_ListNode *OSA_ListGetPrev(OSA_ListNode *node)
{
    return node != nullptr ? node->prev : nullptr;
}

uint32_t OSA_ListGetNum(OSA_List *list)
{
    return list != nullptr ? list->links.count : 0;
}

OSA_ListNode *OSA_List_GetNthList(OSA_List *list, uint32_t position)
{
    return list != nullptr ? osa::list_at(list->links, position) : nullptr;
}

OSA_ListNode *OSA_List_Node_new(void)
{
    return OSA_List_Node_new_data(nullptr);
}

OSA_ListNode *OSA_List_Node_new_data(void *data)
{
    Node *node = osa::node_new<Node, kPoolSize>();
    if (node == nullptr)
        return nullptr;
    osa::count_alive(osa::Kind::list_node, 1);
    node->shared.data = data;
    return &node->shared;
}

void OSA_List_Node_delete(OSA_ListNode *node)
{
    if (node != nullptr)
        release_node(node);
}

} // extern "C"
