// reblock between two plugins of the test's own: what it hands on for what it is given.

#include <numeric>
#include <random>

#include "library.h"

namespace
{

struct Upstream {
    NOXPlugin plugin;
    uint32_t rate; // of one channel; 0: it does not say
};

int32_t tell_format(NOXPlugin *plugin, NOXStructure *format)
{
    const auto *self = reinterpret_cast<Upstream *>(plugin);
    const char *name = "s16le";
    const uint32_t channels = 1;
    if (self->rate == 0)
        return 0;
    nox_structure_putvar_string(format, "stream.format", 0, &name);
    nox_structure_putvar_uint32(format, "stream.rate", 0, &self->rate);
    return nox_structure_putvar_uint32(format, "stream.channels", 0, &channels);
}

class Reblock : public InLibrary
{
protected:
    void SetUp() override
    {
        InLibrary::SetUp();
        up = new_record<Upstream>("up");
        up->plugin.getformat_func = tell_format;
        down = new_downstream();
        filter = nox_plugin_new("reblock", "reblock");
        ASSERT_NE(filter, nullptr);
        nox_plugin_link_many(&up->plugin, filter, &down->plugin, nullptr);
        nox_plugin_setstate(&down->plugin, NOX_STATE_PLAY);
    }

    void TearDown() override
    {
        nox_plugin_setstate(filter, NOX_STATE_NULL);
        for (NOXPlugin *plugin : {&up->plugin, filter, &down->plugin})
            nox_object_delete(plugin);
        InLibrary::TearDown();
    }

    void start(const char *option, uint32_t value, uint32_t rate)
    {
        up->rate = rate;
        blocks.clear();
        nox_plugin_setstate(filter, NOX_STATE_NULL);
        NOXStructure *format = nox_structure_new("options");
        nox_structure_putvar_uint32(format, option, 0, &value);
        EXPECT_EQ(nox_plugin_setformat(filter, format), 0);
        nox_object_delete(format);
        EXPECT_EQ(nox_plugin_setstate(filter, NOX_STATE_READY), 0);
        EXPECT_EQ(nox_plugin_setstate(filter, NOX_STATE_PLAY), 0);
    }

    // Bytes that count up, in as many memory blocks as there are sizes.
    void push(const std::vector<uint32_t> &sizes, uint64_t timestamp, uint64_t duration,
              int32_t index)
    {
        NOXBuffer *buffer = nox_buffer_new(0);
        for (const uint32_t size : sizes) {
            NOXMemory *memory = nox_memory_new(size);
            for (uint32_t at = 0; at < size; ++at)
                memory->data[at] = static_cast<uint8_t>((pushed + at) % 251);
            pushed += size;
            nox_buffer_append_memory(buffer, memory);
        }
        nox_buffer_set_timestamp(buffer, timestamp);
        nox_buffer_set_duration(buffer, duration);
        nox_buffer_set_index(buffer, index);
        EXPECT_EQ(nox_plugin_push_buffer(&up->plugin, buffer), 0);
        nox_object_delete(buffer);
    }

    uint64_t pushed = 0;
    Upstream *up = nullptr;
    Downstream *down = nullptr;
    NOXPlugin *filter = nullptr;
};

} // namespace

TEST_F(Reblock, EveryByteGoesOnOnceWithTheTimeOfTheInputItCameFrom)
{
    const struct {
        const char *option;
        uint32_t value;
        uint32_t size; // bytes of a block
    } cases[] = {
        {"size", 2, 2}, {"size", 1000, 1000}, {"size", 70000, 70000}, {"duration", 20, 440}};
    constexpr uint64_t kRate = 11025; // 20 ms are 220.5 frames
    std::mt19937 random(7);
    for (const auto &[option, value, size] : cases) {
        start(option, value, kRate);
        pushed = 0;
        std::vector<uint64_t> begins;
        std::vector<uint64_t> timestamps;
        for (int32_t input = 0; input < 60; ++input) {
            std::vector<uint32_t> sizes(random() % 4);
            for (uint32_t &bytes : sizes)
                bytes = static_cast<uint32_t>(2 * (random() % 800));
            if (input == 30)
                sizes = {300000};
            begins.push_back(pushed);
            timestamps.push_back(40 + pushed * 500 / kRate + (input > 20 ? 5000 : 0)); // a gap
            const uint64_t before = alive().bytes;
            down->most_alive = 0;
            push(sizes, timestamps.back(), 0, input);
            const uint64_t own = std::accumulate(sizes.begin(), sizes.end(), uint64_t{0});
            EXPECT_LE(down->most_alive, before + own + 2 * size + 4096);
        }
        nox_plugin_push_eos(&up->plugin);
        EXPECT_EQ(blocks.size(), (pushed + size - 1) / size) << option << value;
        EXPECT_EQ(down->at_end, blocks.size()) << "the rest comes before the end";
        uint64_t at = 0;
        uint64_t milliseconds = 0;
        uint64_t microseconds = 0;
        for (const Block &block : blocks) {
            ASSERT_EQ(block.bytes.size(), std::min<uint64_t>(size, pushed - at));
            const auto input = static_cast<size_t>(
                std::upper_bound(begins.begin(), begins.end(), at) - begins.begin() - 1);
            ASSERT_EQ(block.index, static_cast<int32_t>(input));
            ASSERT_EQ(block.timestamp, timestamps[input] + (at - begins[input]) * 500 / kRate);
            for (const uint8_t byte : block.bytes)
                ASSERT_EQ(byte, at++ % 251);
            milliseconds += block.duration;
            microseconds += block.duration_us;
            ASSERT_EQ(microseconds, at * 500000 / kRate);
            ASSERT_EQ(milliseconds, at * 500 / kRate);
        }
        EXPECT_EQ(at, pushed);
    }
}

TEST_F(Reblock, WithoutAFormatTheInputsDurationsAreShared)
{
    start("size", 200, 0);
    push({100}, 0, 20, 1);
    push({300}, 1000, 20, 2);
    push({100, 50}, 0, 30, 3); // without a time
    nox_plugin_push_eos(&up->plugin);
    const struct {
        uint64_t timestamp;
        uint64_t duration_us;
    } expected[] = {{0, 26666}, {1006, 13334}, {0, 30000}};
    ASSERT_EQ(blocks.size(), 3u);
    for (size_t index = 0; index < 3; ++index) {
        EXPECT_EQ(blocks[index].timestamp, expected[index].timestamp) << index;
        EXPECT_EQ(blocks[index].duration_us, expected[index].duration_us) << index;
    }
}

TEST_F(Reblock, AStopDropsWhatIsLeftAndTheNextStreamBeginsAnew)
{
    start("size", 1000, 8000);
    push({1500}, 0, 0, 1);
    start("size", 1000, 8000); // by way of NULL
    push({1000}, 0, 0, 2);
    nox_plugin_push_eos(&up->plugin);
    ASSERT_EQ(blocks.size(), 1u);
    EXPECT_EQ(blocks[0].index, 2);
    EXPECT_EQ(blocks[0].duration_us, 62500u);
    EXPECT_EQ(down->at_end, 1u);
}

TEST_F(Reblock, AnOutputBufferThatIsNotAsAskedForIsRefused)
{
    static std::vector<uint32_t> answer;
    NOXAllocator *allocator = nox_allocator_new(down);
    nox_allocator_set_allocate_func(allocator, [](void *, NOXBufferRequest *) {
        NOXBuffer *buffer = nox_buffer_new(0);
        for (const uint32_t size : answer)
            nox_buffer_append_memory(buffer, nox_memory_new(size));
        return buffer;
    });
    ASSERT_EQ(nox_plugin_set_allocator(&down->plugin, allocator), 0);
    const std::vector<uint32_t> answers[] = {{200}, {199}, {201}, {200, 1}, {}};
    for (const std::vector<uint32_t> &sizes : answers) {
        answer = sizes;
        const bool fits = &sizes == answers;
        start("size", 200, 0);
        NOXBuffer *input = nox_buffer_new(200);
        EXPECT_EQ(nox_plugin_push_buffer(&up->plugin, input), fits ? 0 : -1) << sizes.size();
        EXPECT_EQ(blocks.size(), fits ? 1u : 0u);
        nox_object_delete(input);
    }
}
