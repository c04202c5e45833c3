// Groups: members and their attendance. The members' threads write their own
// attendance and read the others'; membership does not change meanwhile.

#include "internal/atomic_field.h"
#include "internal/guard.h"
#include "internal/list_walk.h"
#include "plugin/noxplugin_check.h"

namespace
{

using Member = NOXPluginGroupMember;

nox::Block<Member> new_member(NOXPlugin *plugin)
{
    nox::Block<Member> member(static_cast<Member *>(NOX_MALLOC(sizeof(Member))));
    if (member)
        member->plugin = plugin;
    return member;
}

// A node without a member record counts as a member that never attends.
bool attends(const Member *member)
{
    return member != nullptr && nox::load_acquire(member->attend) > 0;
}

} // namespace

NOXPluginGroup *nox_plugin_group_new(void)
{
    return OSA_ListCreate();
}

int32_t nox_plugin_group_delete(NOXPluginGroup *group)
{
    if (group == nullptr)
        return 0;
    nox::destroy_list_of(group, nox::FreeBlock{});
    return 0;
}

int32_t nox_plugin_group_add(NOXPluginGroup *group, NOXPlugin *plugin)
{
    if (group == nullptr || plugin == nullptr)
        return -1;
    nox::ListNode node(OSA_List_Node_new());
    if (!node) {
        NOX_TRACE(OSA_TRACE_ERROR, "cannot create list node\n");
        return -1;
    }
    nox::Block<Member> member = new_member(plugin);
    node->data = member.get();
    if (!member || OSA_ListAddTail(group, node.get()) < 0) {
        NOX_TRACE(OSA_TRACE_ERROR, "cannot add group member (%s)\n", nox::name_of(plugin));
        return -1;
    }
    node.release();   // the group's now
    member.release(); // the node's now
    plugin->group = group;
    return 0;
}

NOXPluginGroup *nox_plugin_group_get(NOXPlugin *plugin)
{
    return plugin != nullptr ? plugin->group : nullptr;
}

int32_t nox_plugin_group_attend(NOXPluginGroup *group, NOXPlugin *plugin, int32_t value)
{
    if (group == nullptr)
        return -1;
    for (OSA_ListNode *node = nox::head_of(group); node != nullptr; node = node->next) {
        auto *member = static_cast<Member *>(node->data);
        if (member != nullptr && member->plugin == plugin) {
            nox::store_release(member->attend, value);
            return 0;
        }
    }
    return -1;
}

uint32_t nox_plugin_group_members(NOXPluginGroup *group)
{
    return group != nullptr ? OSA_ListGetNum(group) : 0;
}

NOXPlugin *nox_plugin_group_get_member(NOXPluginGroup *group, uint32_t idx)
{
    if (group == nullptr)
        return nullptr;
    for (Member *member : nox::items<Member>(group)) {
        if (idx == 0)
            return member->plugin;
        --idx;
    }
    return nullptr;
}

uint8_t nox_plugin_group_is_all_attended(NOXPluginGroup *group)
{
    if (group == nullptr)
        return 0;
    for (const OSA_ListNode *node = nox::head_of(group); node != nullptr; node = node->next)
        if (!attends(static_cast<const Member *>(node->data)))
            return 0;
    return 1;
}
