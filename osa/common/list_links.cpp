// Linking and unlinking the nodes of a list.

#include "osa/common/list_links.h"

namespace osa
{

void list_add_tail(ListLinks &list, OSA_ListNode &node)
{
    node.next = nullptr;
    node.prev = list.tail;
    (list.tail != nullptr ? list.tail->next : list.head) = &node;
    list.tail = &node;
    ++list.count;
}

void list_add_head(ListLinks &list, OSA_ListNode &node)
{
    node.prev = nullptr;
    node.next = list.head;
    (list.head != nullptr ? list.head->prev : list.tail) = &node;
    list.head = &node;
    ++list.count;
}

bool list_remove(ListLinks &list, OSA_ListNode &node)
{
    OSA_ListNode *&from_before = node.prev != nullptr ? node.prev->next : list.head;
    OSA_ListNode *&from_behind = node.next != nullptr ? node.next->prev : list.tail;
    if (from_before != &node || from_behind != &node)
        return false;
    from_before = node.next;
    from_behind = node.prev;
    node.next = nullptr;
    node.prev = nullptr;
    --list.count;
    return true;
}

OSA_ListNode *list_at(const ListLinks &list, uint32_t position)
{
    if (position >= list.count)
        return nullptr;
    OSA_ListNode *node = list.head;
    for (uint32_t passed = 0; passed < position && node != nullptr; ++passed)
        node = node->next;
    return node;
}

} // namespace osa
