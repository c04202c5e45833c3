// What every layer promises of memory, pools and lists.

#include <algorithm>
#include <cstring>
#include <vector>

#include "tests/osa/layer.h"

namespace
{

void *allocate(uint32_t size, int32_t line = 0)
{
    return OSA_Malloc(size, 0, 0, "taker", line, "take");
}

TEST_F(Contract, BlocksAliveAreListedOldestFirstAndOthersAreNotFreed)
{
    void *blocks[4] = {};
    for (int32_t line = 0; line < 4; ++line)
        blocks[line] = allocate(10, line);
    OSA_Free(blocks[1], 0);
    OSA_Free(blocks[3], 0);
    EXPECT_EQ(alive().bytes, 20u);
    OSA_SystemUnInit(nullptr);
    const std::string said = complaints();
    EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 2) << said;
    EXPECT_LT(said.find("10 bytes"), said.find("taken by taker:0 take")) << said;
    EXPECT_LT(said.find("taken by taker:0 take"), said.find("taken by taker:2 take")) << said;
    EXPECT_NE(said.find("taken by taker:2 take"), std::string::npos) << said;
    OSA_SystemInit(nullptr);
    OSA_Free(blocks[0], 0);
    OSA_Free(blocks[2], 0);

    void *kept = allocate(100000); // so large that the layer may keep it for the next
    alignas(16) char foreign[256] = {};
    OSA_Free(kept, 0);
    for (void *unknown : {kept, static_cast<void *>(foreign + 128)}) {
        OSA_Free(unknown, 0);
        EXPECT_TRUE(complains("live block"));
    }
}

TEST_F(Contract, PoolsAreFoundByExactSizeAndTheirBlocksMayComeBackLate)
{
    EXPECT_NE(OSA_SMalloc_Register(kSize, "early"), 0);
    complaints();
    OSA_SMalloc_Init();
    EXPECT_EQ(OSA_SMalloc_Register(kSize, "record"), 0);
    EXPECT_EQ(OSA_SMalloc_Register(kSize, "other"), 0);
    const char *name = OSA_SMemGetName(kSize);
    std::vector<void *> out = take(50);
    EXPECT_EQ(OSA_SMalloc_UnRegister(kSize), 0);
    EXPECT_NE(OSA_SMalloc_UnRegister(kSize), 0);
    EXPECT_EQ(OSA_SMalloc(kSize), nullptr);
    OSA_SFree(out.back(), kSize);
    out.pop_back();
    EXPECT_EQ(OSA_SMalloc_Register(kSize, "another"), 0);
    EXPECT_STREQ(name, "record") << "a name that somebody may be reading";
    EXPECT_STREQ(OSA_SMemGetName(kSize), "record") << "a size keeps its first name";
    EXPECT_EQ(OSA_SMalloc_Register(100000, "large"), 0);
    EXPECT_STREQ(OSA_SMemGetName(100000), "large");
    for (const uint32_t size : {0u, kSize - 1, kSize + 4, 99999u, 100001u, UINT32_MAX}) {
        EXPECT_EQ(OSA_SMemIsReg(size), 0) << size;
        EXPECT_EQ(OSA_SMemGetName(size), nullptr) << size;
        EXPECT_EQ(OSA_SMalloc(size), nullptr) << size;
    }
    give(take(3, 100000), 100000);

    OSA_SMalloc_Deinit();
    EXPECT_EQ(alive().pool_blocks, 49u);
    OSA_SystemUnInit(nullptr);
    EXPECT_NE(complaints().find(" of 200 bytes"), std::string::npos);
    give(out);
    OSA_SystemInit(nullptr);
    OSA_SMalloc_Init();
    EXPECT_EQ(OSA_SMalloc_Register(kSize, "record"), 0);
    give(take(50));
    OSA_SMalloc_Deinit();
}

void expect_fresh(const std::vector<void *> &blocks, uint32_t size)
{
    EXPECT_EQ(std::set<void *>(blocks.begin(), blocks.end()).size(), blocks.size());
    for (void *block : blocks) {
        const char *bytes = static_cast<const char *>(block);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % 16, 0u);
        EXPECT_EQ(std::count(bytes, bytes + size, 0), size) << size;
        std::memset(block, 0xAA, size);
    }
}

TEST_F(Contract, BlocksAreDistinctAlignedAndZeroedAtEverySize)
{
    OSA_SMalloc_Init();
    void *former = nullptr;
    for (const uint32_t size : {1u, 24u, 40u, 64u, 65u, 200u, 250u, 300u, 5000u, 5000u}) {
        OSA_SMalloc_Register(size, "sized");
        std::vector<void *> blocks = take(100, size);
        expect_fresh(blocks, size);
        give(blocks, size);
        blocks = take(100, size);
        expect_fresh(blocks, size);
        give(blocks, size);

        std::generate_n(blocks.begin(), 20, [size] { return allocate(20 * size); });
        blocks.resize(20);
        expect_fresh(blocks, 20 * size);
        EXPECT_TRUE(former == nullptr || kLayer.is_simulated ||
                    std::count(blocks.begin(), blocks.end(), former) == 1)
            << "kept for the next";
        former = size == 5000 ? blocks.back() : nullptr;
        for (void *block : blocks)
            OSA_Free(block, 0);
    }
    OSA_SMalloc_Deinit();
}

TEST_F(Contract, AListIsWalkedBothWaysAndGivesUpItsOwnNodesOnly)
{
    OSA_List *list = OSA_ListCreate();
    OSA_List *other = OSA_ListCreate();
    char names[] = "abcd";
    OSA_ListNode *nodes[4] = {};
    for (size_t index = 0; index < 4; ++index)
        nodes[index] = OSA_List_Node_new_data(&names[index]);
    const auto walk = [list] {
        std::string text = std::to_string(OSA_ListGetNum(list));
        for (auto *node = OSA_ListGetHead(list); node != nullptr; node = OSA_ListGetNext(node))
            text += *static_cast<const char *>(node->data);
        for (auto *node = OSA_ListGetTail(list); node != nullptr; node = OSA_ListGetPrev(node))
            text += *static_cast<const char *>(node->data);
        return text;
    };
    OSA_ListAddTail(list, nodes[2]);
    OSA_ListAddTail(list, nodes[3]);
    OSA_ListAddHead(list, nodes[1]);
    OSA_ListAddHead(list, nodes[0]);
    EXPECT_EQ(walk(), "4abcddcba");
    EXPECT_EQ(OSA_List_GetNthList(list, 0), nodes[0]);
    EXPECT_EQ(OSA_List_GetNthList(list, 2), nodes[2]);
    for (const uint32_t past : {4u, 5u, UINT32_MAX})
        EXPECT_EQ(OSA_List_GetNthList(list, past), nullptr) << past;
    const struct {
        OSA_ListNode *node;
        const char *left;
    } removals[] = {{nodes[1], "3acddca"}, {nodes[3], "2acca"}, {nodes[0], "1cc"}};
    for (const auto &each : removals) {
        EXPECT_EQ(OSA_ListDel(list, each.node), 0);
        EXPECT_EQ(walk(), each.left);
        EXPECT_TRUE(each.node->next == nullptr && each.node->prev == nullptr) << each.left;
        EXPECT_NE(OSA_ListDel(list, each.node), 0) << "not in it any more";
        EXPECT_TRUE(complains("is not in list"));
        OSA_List_Node_delete(each.node);
    }
    EXPECT_NE(OSA_ListDel(other, nodes[2]), 0);
    EXPECT_TRUE(complains("is not in list"));
    EXPECT_EQ(alive().list_nodes, 1u);
    EXPECT_EQ(OSA_ListDestroy(list), 0);
    EXPECT_EQ(OSA_ListDestroy(other), 0);
}

} // namespace
