// Walking and emptying the layer's lists. A walk goes by the nodes' own links;
// fetching node after node by index would make it quadratic.
#ifndef NOX_INTERNAL_LIST_WALK_H
#define NOX_INTERNAL_LIST_WALK_H

#include <cstddef>

#include "osa/osa.h"

namespace nox
{

// The first node; null for an empty list and for none, which a layer's own
// operation need not take.
inline OSA_ListNode *head_of(OSA_List *list)
{
    return list != nullptr ? OSA_ListGetHead(list) : nullptr;
}

// for (Entry *entry : items<Entry>(list)): the nodes' data from head to tail,
// ending early at a node without data. The list must not change meanwhile.
template <typename T>
class ListItems
{
public:
    class Iterator
    {
    public:
        explicit Iterator(OSA_ListNode *node) : m_node(node) {}
        T *operator*() const
        {
            return static_cast<T *>(m_node->data);
        }
        Iterator &operator++()
        {
            m_node = m_node->next;
            return *this;
        }
        bool operator!=(std::nullptr_t) const
        {
            return m_node != nullptr && m_node->data != nullptr;
        }

    private:
        OSA_ListNode *m_node;
    };

    explicit ListItems(OSA_List *list) : m_list(list) {}
    Iterator begin() const
    {
        return Iterator(head_of(m_list));
    }
    std::nullptr_t end() const
    {
        return nullptr;
    }

private:
    OSA_List *m_list;
};

template <typename T>
ListItems<T> items(OSA_List *list)
{
    return ListItems<T>(list);
}

// The first node that carries `data`, or null.
inline OSA_ListNode *find_node(OSA_List *list, const void *data)
{
    for (OSA_ListNode *node = OSA_ListGetHead(list); node != nullptr; node = node->next)
        if (node->data == data)
            return node;
    return nullptr;
}

// Unlinks and releases a node; its data stays.
inline void remove_node(OSA_List *list, OSA_ListNode *node)
{
    OSA_ListDel(list, node);
    OSA_List_Node_delete(node);
}

// Removes the head node and returns its data; null for an empty list.
inline void *take_head(OSA_List *list)
{
    OSA_ListNode *node = OSA_ListGetHead(list);
    if (node == nullptr)
        return nullptr;
    void *data = node->data;
    remove_node(list, node);
    return data;
}

// Removes every node, with its data by `release` before it, and the list itself.
template <typename Release>
void destroy_list_of(OSA_List *list, Release release)
{
    while (OSA_ListNode *node = OSA_ListGetHead(list)) {
        OSA_ListDel(list, node);
        if (node->data != nullptr)
            release(node->data);
        OSA_List_Node_delete(node);
    }
    OSA_ListDestroy(list);
}

// Removes all nodes, not their data, and the list itself.
inline void destroy_list(OSA_List *list)
{
    while (OSA_ListNode *node = OSA_ListGetHead(list))
        remove_node(list, node);
    OSA_ListDestroy(list);
}

} // namespace nox

#endif
