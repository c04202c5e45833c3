#include "soak/storm_pipe.h"

#include <gtest/gtest.h>

#include <thread>

#include "soak/real_library.h"

namespace soak
{

namespace
{

constexpr uint32_t kBuffersAtOnce = 4;

template <typename Base>
struct Record {
    Base base;
    Chain *chain;
};

template <typename Base>
Chain &chain_of(Base *base)
{
    return *reinterpret_cast<Record<Base> *>(base)->chain;
}

template <typename Base, auto init>
Base *new_plugin(const char *name, Chain &chain)
{
    auto *record = static_cast<Record<Base> *>(nox_object_new(sizeof(Record<Base>), name, 1));
    record->chain = &chain;
    nox_object_set_finalize_func(record, nox_plugin_finalize);
    EXPECT_EQ(0, init(&record->base));
    record->base.finalize_func = [](Base *self) -> int32_t {
        ++chain_of(self).finalized;
        return 0;
    };
    return &record->base;
}

int32_t open_device(NOXBaseSrc *source)
{
    Chain &chain = chain_of(source);
    // From PAUSE by way of READY a source that runs is started again.
    if (source->thread == nullptr) {
        chain.created = 0;
        source->framecount = 0;
    }
    chain.is_open = true;
    return 0;
}

int32_t close_device(NOXBaseSrc *source)
{
    chain_of(source).is_open = false;
    return 0;
}

NOXBuffer *capture(NOXBaseSrc *source)
{
    Chain &chain = chain_of(source);
    chain.wrong += chain.is_open ? 0 : 1; // the device is used after its stop
    const bool is_over =
        chain.shape.fate == Fate::kNothingCaptured && chain.created >= chain.shape.lifetime;
    if (++chain.created % kBuffersAtOnce == 0)
        std::this_thread::yield(); // or those who change its state would rarely get a turn
    work(chain.shape.turns);
    return is_over ? nullptr : nox_buffer_new(64);
}

int32_t render(NOXBaseSink *sink, NOXBuffer *buffer)
{
    Chain &chain = chain_of(sink);
    chain.wrong += chain.is_open ? 0 : 1; // a buffer comes after the stop
    ++chain.rendered;
    nox_object_delete(chain.kept.exchange(static_cast<NOXBuffer *>(nox_object_refer(buffer))));
    const bool fails = chain.shape.fate == Fate::kPushFails;
    return fails && chain.created >= chain.shape.lifetime ? -1 : 0;
}

NOXPlugin *new_source(Chain &chain)
{
    auto *source = new_plugin<NOXBaseSrc, nox_basesrc_init>("source", chain);
    chain.source = source;
    source->islive = chain.shape.live;
    source->waitallsrc = 0; // a source that has ended would hold the others back for good
    source->maxframes = chain.shape.fate == Fate::kFrameLimit ? chain.shape.lifetime : 0;
    source->create_func = capture;
    source->start_func = open_device;
    source->stop_func = close_device;
    return &source->plugin;
}

NOXPlugin *new_sink(Chain &chain)
{
    auto *sink = new_plugin<NOXBaseSink, nox_basesink_init>("sink", chain);
    sink->render_func = render;
    return &sink->plugin;
}

} // namespace

StormPipe::StormPipe(const std::vector<Shape> &shapes) : m_pipe(nox_pipe_new("storm"))
{
    for (const Shape &shape : shapes) {
        Chain &chain = *m_chains.emplace_back(std::make_unique<Chain>());
        chain.shape = shape;
        NOXPlugin *source = new_source(chain);
        NOXPlugin *sink = new_sink(chain);
        nox_pipe_add_plugin_many(m_pipe, source, sink, nullptr);
        nox_plugin_link(source, sink);
    }
}

StormPipe::~StormPipe()
{
    if (!m_is_deleted)
        delete_pipe();
    release_kept();
    for (const auto &chain : m_chains) {
        EXPECT_EQ(0u, chain->wrong);
        EXPECT_FALSE(chain->is_open);
        EXPECT_EQ(2u, chain->finalized);
    }
}

void StormPipe::to(int32_t state)
{
    EXPECT_EQ(0, nox_pipe_set_state(m_pipe, state)) << nox_plugin_state_str(state);
}

void StormPipe::to_async(int32_t state)
{
    // The callback has no argument; it comes on the pipe's own thread, one a process here.
    static std::atomic<bool> is_over;
    is_over = false;
    EXPECT_EQ(0, nox_pipe_set_state_async(m_pipe, state, [](NOXPipe *, int32_t, int32_t result) {
                  EXPECT_EQ(0, result);
                  is_over = true;
                  return 0;
              }));
    EXPECT_TRUE(comes_true([] { return is_over.load(); }));
}

void StormPipe::delete_pipe()
{
    nox_object_delete(m_pipe);
    m_is_deleted = true;
}

uint64_t StormPipe::rendered() const
{
    uint64_t sum = 0;
    for (const auto &chain : m_chains)
        sum += chain->rendered;
    return sum;
}

void StormPipe::expect_flow() const
{
    for (const auto &chain : m_chains) {
        const uint64_t before = chain->rendered;
        EXPECT_TRUE(comes_true([&] { return chain->rendered > before; })) << "nothing flows";
    }
}

void StormPipe::release_kept()
{
    for (const auto &chain : m_chains)
        nox_object_delete(chain->kept.exchange(nullptr));
}

} // namespace soak
