// The typed property set: its record, its entries, and looking them up. Setters
// and getters by type are in noxstructure_put.cpp and noxstructure_get.cpp.

#include "noxstructure.h"

#include <cstring>

#include "internal/guard.h"
#include "internal/list_walk.h"
#include "internal/trace.h"

namespace
{

constexpr char kSource[] = "noxstructure";

// By type code; 0 marks the types whose value is a reference.
constexpr uint8_t kTypeSizes[] = {1, 2, 2, 4, 4, 8, 8, 1, 0, 0, 0, 4};

void free_entry(void *data)
{
    auto *entry = static_cast<NOXStructureNode *>(data);
    if (entry->type == NOX_TYPE_STRING)
        std::free(entry->value.string_value);
    OSA_Free(entry, 0);
}

int32_t finalize_structure(void *object)
{
    auto *structure = static_cast<NOXStructure *>(object);
    NOX_TRACE_FOR("nox_object_delete", OSA_TRACE_VERBOSE, "Enter. structure(%x)\n",
                  nox::low32(structure));
    nox::destroy_list_of(structure->vars, free_entry);
    return 0;
}

// The node of the entry with this name, or null.
OSA_ListNode *find_variable(NOXStructure *structure, const char *name)
{
    for (OSA_ListNode *node = nox::head_of(structure->vars);
         node != nullptr && node->data != nullptr; node = node->next)
        if (std::strcmp(static_cast<NOXStructureNode *>(node->data)->name, name) == 0)
            return node;
    return nullptr;
}

} // namespace

NOXStructure *nox_structure_new(const char *name)
{
    nox::ObjectReference<NOXStructure> structure(
        static_cast<NOXStructure *>(nox_object_new(sizeof(NOXStructure), name, 0)));
    if (structure)
        structure->vars = OSA_ListCreate();
    if (!structure || structure->vars == nullptr) {
        NOX_TRACE(OSA_TRACE_ERROR, "structure create failed size(%d)\n",
                  static_cast<int>(sizeof(NOXStructure)));
        return nullptr;
    }
    structure->object.finalize = finalize_structure;
    return structure.release();
}

uint32_t nox_structure_get_size(void)
{
    return sizeof(NOXStructure);
}

uint32_t nox_structure_type_getsize(int32_t type)
{
    return type >= NOX_TYPE_CHAR && type <= NOX_TYPE_FLOAT ? kTypeSizes[type] : 0;
}

NOXStructureNode *nox_structure_new_node(NOXStructure *structure)
{
    nox::Block<NOXStructureNode> entry(
        static_cast<NOXStructureNode *>(NOX_MALLOC(sizeof(NOXStructureNode))));
    if (!entry) {
        NOX_TRACE(OSA_TRACE_ERROR, "structure node create failed size(%d)\n",
                  static_cast<int>(sizeof(NOXStructureNode)));
        return nullptr;
    }
    nox::ListNode node(OSA_List_Node_new());
    if (!node) {
        NOX_TRACE(OSA_TRACE_ERROR, "structure list node create failed size(%d)\n",
                  static_cast<int>(sizeof(OSA_ListNode)));
        return nullptr;
    }
    node->data = entry.get();
    if (OSA_ListAddTail(structure->vars, node.get()) != 0) {
        NOX_TRACE(OSA_TRACE_ERROR, "structure list node add failed size(%d)\n",
                  static_cast<int>(sizeof(OSA_ListNode)));
        return nullptr;
    }
    node.release();         // the list's now
    return entry.release(); // the node's now
}

NOXStructureNode *nox_sturcture_search_node(NOXStructure *structure, const char *name)
{
    OSA_ListNode *node = find_variable(structure, name);
    return node != nullptr ? static_cast<NOXStructureNode *>(node->data) : nullptr;
}

int32_t nox_structure_del_var(NOXStructure *structure, const char *name)
{
    OSA_ListNode *node = find_variable(structure, name);
    if (node == nullptr) {
        NOX_TRACE(OSA_TRACE_ERROR, "can not find name(%s)\n", name);
        return -1;
    }
    OSA_ListDel(structure->vars, node);
    free_entry(node->data);
    OSA_List_Node_delete(node);
    return 0;
}
