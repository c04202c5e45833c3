// The links of a list, whatever its nodes are made of. No lock: the list's user
// serialises.
#ifndef OSA_COMMON_LIST_LINKS_H
#define OSA_COMMON_LIST_LINKS_H

#include "osa/osa.h"

namespace osa
{

struct ListLinks {
    OSA_ListNode *head = nullptr;
    OSA_ListNode *tail = nullptr;
    uint32_t count = 0;
};

void list_add_tail(ListLinks &list, OSA_ListNode &node);
void list_add_head(ListLinks &list, OSA_ListNode &node);

// False, with nothing changed, when the neighbours of `node` show that it is not
// a node of this list.
bool list_remove(ListLinks &list, OSA_ListNode &node);

// The node at a position counted from 0, or null.
OSA_ListNode *list_at(const ListLinks &list, uint32_t position);

// Unlinks every node and hands each to `release`.
template <typename Release>
void list_clear(ListLinks &list, Release release)
{
    OSA_ListNode *node = list.head;
    list = ListLinks{};
    while (node != nullptr) {
        OSA_ListNode *next = node->next;
        release(node);
        node = next;
    }
}

} // namespace osa

#endif
