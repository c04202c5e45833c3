// The library in the test program, with a real plugin between what the test hands to
// it and a plugin that keeps what comes out.
#ifndef NOX_TESTS_E2E_LIBRARY_H
#define NOX_TESTS_E2E_LIBRARY_H

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "noxcore.h"
#include "osa/osa_ext.h"
#include "process.h"

struct Block {
    std::vector<uint8_t> bytes;
    uint64_t timestamp;
    uint64_t duration;
    uint64_t duration_us;
    int32_t index;
};

inline OSA_Alive alive()
{
    OSA_Alive alive;
    OSA_AliveGet(&alive);
    return alive;
}

// Stands at the end of a chain. Written on the pushing thread until end of stream.
struct Downstream {
    NOXPlugin plugin;
    std::vector<Block> *blocks;
    size_t at_end;       // blocks when end of stream came
    OSA_Event *end;      // sent then
    uint64_t most_alive; // bytes
};

template <typename Record>
Record *new_record(const char *name)
{
    auto *record = static_cast<Record *>(nox_object_new(sizeof(Record), name, 1));
    nox_plugin_init(&record->plugin);
    nox_object_set_finalize_func(record, nox_plugin_finalize);
    return record;
}

class InLibrary : public testing::Test
{
protected:
    void SetUp() override
    {
        OSA_TraceSetLevel(0);
        std::string cache;
        for (const char *name : {"wavsrc", "reblock"})
            cache += std::string(name) + "@" + PLUGIN_FOLDER + "/nox" + name + ".so\n";
        write_file(folder / "cache", cache);
        ASSERT_EQ(nox_init((folder / "cache").c_str()), 0);
        end = OSA_EventCreate(0);
    }

    void TearDown() override
    {
        OSA_EventDestroy(end);
        nox_deinit();
        const OSA_Alive left = alive();
        EXPECT_EQ(OSA_AliveIsNothing(&left), 1);
    }

    Downstream *new_downstream()
    {
        auto *record = new_record<Downstream>("down");
        record->blocks = &blocks;
        record->end = end;
        record->plugin.chain_func = [](NOXPlugin *plugin, NOXBuffer *buffer) -> int32_t {
            auto *self = reinterpret_cast<Downstream *>(plugin);
            const NOXMemory *memory = nox_buffer_get_memory(buffer, 0);
            self->blocks->push_back({{memory->data, memory->data + memory->datasize},
                                     buffer->timestamp,
                                     buffer->duration,
                                     buffer->durationUs,
                                     buffer->index});
            self->most_alive = std::max(self->most_alive, alive().bytes);
            return 0;
        };
        record->plugin.event_func = [](NOXPlugin *plugin, NOXEvent *event) -> int32_t {
            auto *self = reinterpret_cast<Downstream *>(plugin);
            if (event->type != NOX_EVENT_EOS)
                return 0;
            self->at_end = self->blocks->size();
            return OSA_EventSend(self->end);
        };
        return record;
    }

    const TemporaryFolder folder;
    std::vector<Block> blocks;
    OSA_Event *end = nullptr;
};

#endif
