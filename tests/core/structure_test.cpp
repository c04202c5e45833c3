// The typed property set: twelve types, their setters and getters, and names.

#include <cstring>

#include "tests/core/on_stage.h"

namespace
{

class Structure : public OnStage
{
protected:
    NOXStructure *structure = keep(nox_structure_new("format"));
};

// Every value as the bytes at the start of a 64-bit word.
template <auto get, typename T>
bool read_number(NOXStructure *structure, const char *name, uint64_t *bytes)
{
    T value{};
    const bool found = get(structure, name, &value) == 0;
    std::memcpy(bytes, &value, sizeof(value));
    return found;
}

template <auto get, typename T>
bool read_pointer(NOXStructure *structure, const char *name, uint64_t *bytes)
{
    T companion = 0;
    *bytes = reinterpret_cast<uint64_t>(get(structure, name, &companion));
    EXPECT_EQ(*bytes != 0 ? 77u : 0u, companion);
    return *bytes != 0;
}

bool read_string(NOXStructure *structure, const char *name, uint64_t *bytes)
{
    const char *text = nox_structure_getvar_string(structure, name);
    if (text != nullptr)
        std::memcpy(bytes, text, sizeof(*bytes));
    return text != nullptr;
}

struct TypeRow {
    uint32_t size;
    int32_t miss_level; // of the getter's trace
    bool (*read)(NOXStructure *structure, const char *name, uint64_t *bytes);
};

const TypeRow kTypes[] = {
    {1, 3, read_number<nox_structure_getvar_char, char>},
    {2, 3, read_number<nox_structure_getvar_int16, int16_t>},
    {2, 3, read_number<nox_structure_getvar_uint16, uint16_t>},
    {4, 3, read_number<nox_structure_getvar_int32, int32_t>},
    {4, 3, read_number<nox_structure_getvar_uint32, uint32_t>},
    {8, 3, read_number<nox_structure_getvar_int64, int64_t>},
    {8, 3, read_number<nox_structure_getvar_uint64, uint64_t>},
    {1, 4, read_number<nox_structure_getvar_bool, uint8_t>},
    {0, 4, read_string},
    {0, 4, read_pointer<nox_structure_getvar_void, uint32_t>},
    {0, 3, read_pointer<nox_structure_getvar_func, uint64_t>},
    {4, 3, read_number<nox_structure_getvar_float, float>},
};

TEST_F(Structure, EachTypeIsReadAndOverwrittenByItsOwnKindOnly)
{
    const char *texts[] = {"first, or eight bytes of any other type", "second text"};
    for (int32_t stored = 0; stored < 12; ++stored) {
        const std::string name = std::to_string(stored);
        const auto put = [&](int32_t type, int which) {
            return nox_structure_putvar[type](structure, name.c_str(), 77, &texts[which]);
        };
        EXPECT_EQ(kTypes[stored].size, nox_structure_type_getsize(stored));
        EXPECT_EQ(0, put(stored, 1) + put(stored, 0)); // the second one overwrites
        for (int32_t type = 0; type < 12; ++type) {
            SCOPED_TRACE(name + " as " + std::to_string(type));
            SIM_TraceClear();
            uint64_t bytes = 0;
            EXPECT_EQ(type == stored, kTypes[type].read(structure, name.c_str(), &bytes));
            EXPECT_EQ(type == stored ? 0u : 1u, traced("noxstructure", kTypes[type].miss_level,
                                                       "can not find name(" + name + ")"));
            if (type == stored)
                continue;
            EXPECT_EQ(-1, put(type, 1));
            const std::string but = type == NOX_TYPE_FLOAT ? "type is diffrence (" : "type is (";
            EXPECT_EQ(1u, traced("noxstructure", 1,
                                 "already exist name(" + name + ") but " + but + name + ")"));
        }
        const void *expected = stored == NOX_TYPE_STRING ? texts[0] : static_cast<void *>(texts);
        const size_t width = kTypes[stored].size != 0 ? kTypes[stored].size : 8;
        uint64_t bytes = 0;
        kTypes[stored].read(structure, name.c_str(), &bytes);
        EXPECT_EQ(0, std::memcmp(expected, &bytes, width)) << name;
    }
    EXPECT_EQ(12u, OSA_ListGetNum(structure->vars));
    EXPECT_EQ(0u, nox_structure_type_getsize(12) + nox_structure_type_getsize(-1));
}

TEST_F(Structure, ValuesByTypeCodeAreNarrowedToTheirWidth)
{
    for (int32_t type : {NOX_TYPE_CHAR, NOX_TYPE_INT16, NOX_TYPE_UINT16, NOX_TYPE_INT32,
                         NOX_TYPE_UINT32, NOX_TYPE_BOOL}) {
        uint64_t bytes = 0;
        const std::string name = std::to_string(type);
        EXPECT_EQ(0, nox_structure_putvar1(type, structure, name.c_str(), 0, -2));
        EXPECT_TRUE(kTypes[type].read(structure, name.c_str(), &bytes));
        EXPECT_EQ(0xFFFFFFFE & (UINT64_MAX >> (64 - 8 * kTypes[type].size)), bytes) << name;
    }
    int64_t wide = 0;
    nox_structure_putvar1(NOX_TYPE_INT64, structure, "wide", 0, INT64_MIN);
    EXPECT_EQ(0, nox_structure_getvar_int64(structure, "wide", &wide));
    EXPECT_EQ(INT64_MIN, wide);
    uint64_t companion = 0;
    nox_structure_putvar1(NOX_TYPE_FUNC, structure, "func", uint64_t{1} << 40, nox_init);
    EXPECT_NE(nullptr, nox_structure_getvar_func(structure, "func", &companion));
    EXPECT_EQ(uint64_t{1} << 40, companion);
    float value = 0;
    for (double put : {1.5, -0.25})
        EXPECT_EQ(0, nox_structure_putvar1(NOX_TYPE_FLOAT, structure, "float", 0, put));
    EXPECT_EQ(0, nox_structure_getvar_float(structure, "float", &value));
    EXPECT_EQ(-0.25f, value);
    EXPECT_EQ(
        1u, traced("noxstructure", 3, "already exist name(float) value is overwriten (-0.250000)"));
    EXPECT_EQ(-1, nox_structure_putvar1(12, structure, "unknown", 0, 1));
}

TEST_F(Structure, StringsAreCopiesThatSurviveTheirSource)
{
    const auto put = [this](const char *value) {
        EXPECT_EQ(0, nox_structure_putvar1(NOX_TYPE_STRING, structure, "key", 99, value));
        const char *stored = nox_structure_getvar_string(structure, "key");
        const size_t length = stored != nullptr ? std::strlen(stored) : 0;
        EXPECT_EQ(length, static_cast<size_t>(nox_sturcture_search_node(structure, "key")->size));
        return stored;
    };
    EXPECT_STREQ("first text", put(std::string("first text").c_str()));
    EXPECT_EQ(nullptr, put(nullptr));
    EXPECT_STREQ("a longer text", put("a longer text"));
    EXPECT_STREQ("longer text", put(nox_structure_getvar_string(structure, "key") + 2));
}

TEST_F(Structure, NamesFitKeepTheirOrderAndCanChangeTypeOnceDeleted)
{
    const std::string longest(255, 'n'), too_long(256, 'n');
    int32_t value = 5;
    for (const std::string &name : {longest, std::string("b"), std::string("B"), std::string("a")})
        EXPECT_EQ(0, nox_structure_putvar_int32(structure, name.c_str(), 0, &value));
    EXPECT_EQ(-1, nox_structure_putvar_int32(structure, too_long.c_str(), 0, &value));
    EXPECT_EQ(1u, traced("noxstructure", 1,
                         "structure(format) name(" + std::string(32, 'n') +
                             "...) longer than (255) characters"));
    EXPECT_EQ(-1, nox_structure_getvar_int32(structure, too_long.c_str(), &value));
    EXPECT_EQ(-1, nox_structure_del_var(structure, "c"));
    EXPECT_EQ(1u, traced("noxstructure", 1, "can not find name(c)"));
    EXPECT_EQ(0, nox_structure_del_var(structure, "b"));
    EXPECT_EQ(0, nox_structure_putvar1(NOX_TYPE_STRING, structure, "b", 0, "now a text"));
    EXPECT_EQ(0, nox_structure_del_var(structure, "b"));
    EXPECT_EQ(0, nox_structure_putvar_int32(structure, "b", 0, &value));
    std::string order;
    for (OSA_ListNode *node = OSA_ListGetHead(structure->vars); node; node = node->next)
        order += static_cast<NOXStructureNode *>(node->data)->name + std::string(" ");
    EXPECT_EQ(longest + " B a b ", order);
}

} // namespace
