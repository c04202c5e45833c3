// Storms of real threads: what virtual time plays one step after the other happens here at
// once, on every processor there is. What is looked at: nothing arrives while sources are
// parked or stopped, nothing is lost, nobody hangs, and nothing is left, of threads, memory or
// anything else of the OS layer's.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include "soak/campaigns.h"
#include "soak/dice.h"
#include "soak/heap.h"
#include "soak/real_library.h"
#include "soak/storm_pipe.h"

namespace soak
{

namespace
{

// A moment of another length each time, mostly shorter than a thread needs for a pass.
void linger(Dice &dice)
{
    switch (dice.below(8)) {
    case 0:
        std::this_thread::sleep_for(std::chrono::microseconds(dice.below(200)));
        break;
    case 1:
        std::this_thread::yield();
        break;
    case 2:
    case 3:
        break;
    default:
        work(dice.below(3000));
    }
}

// ---- pause and resume

constexpr uint32_t kPauses = 1000;

void pause_and_resume(uint64_t run)
{
    Dice dice(run);
    const RealLibrary library;
    StormPipe storm(std::vector<Shape>(dice.between(1, 2)));
    storm.to(NOX_STATE_PLAY);
    storm.expect_flow();
    for (uint32_t cycle = 0; cycle < kPauses; ++cycle) {
        storm.to(NOX_STATE_PAUSE);
        const uint64_t parked = storm.rendered();
        for (uint32_t detours = dice.below(3); detours > 1; --detours) {
            storm.to(NOX_STATE_READY);
            storm.to(NOX_STATE_PAUSE);
        }
        if (dice.chance(12))
            storm.to(NOX_STATE_READY);
        linger(dice);
        ASSERT_EQ(parked, storm.rendered()) << "cycle " << cycle;
        storm.to(NOX_STATE_PLAY);
        if (dice.chance(6))
            storm.expect_flow();
        linger(dice);
    }
    storm.to(NOX_STATE_NULL);
}

// ---- start and stop

constexpr uint32_t kStarts = 250;

void start_and_stop_once(Dice &dice)
{
    StormPipe storm(std::vector<Shape>(2, {.live = dice.chance(50)}));
    for (uint32_t rounds = dice.between(1, 2); rounds > 0; --rounds) {
        if (dice.chance(30))
            storm.to(NOX_STATE_READY);
        storm.to(NOX_STATE_PLAY);
        if (dice.chance(50))
            storm.expect_flow();
        if (dice.chance(30))
            storm.to(NOX_STATE_PAUSE);
        if (rounds > 1 || dice.chance(70))
            storm.to(NOX_STATE_NULL);
    }
}

// The first cycle brings what stays, a sanitizer's own thread among it. A thread that has been
// joined leaves the kernel's count a moment later.
void expect_nothing_left(Dice &dice, uint32_t cycles)
{
    start_and_stop_once(dice);
    const OSA_Alive before = alive();
    const uint32_t threads = thread_count();
    for (uint32_t cycle = 0; cycle < cycles; ++cycle) {
        start_and_stop_once(dice);
        const OSA_Alive left = alive();
        ASSERT_EQ(0, std::memcmp(&before, &left, sizeof(left))) << "cycle " << cycle;
        ASSERT_TRUE(comes_true([&] { return thread_count() <= threads; }))
            << thread_count() << " threads instead of " << threads << ", cycle " << cycle;
    }
}

void start_and_stop(uint64_t run)
{
    Dice dice(run);
    const RealLibrary library;
    expect_nothing_left(dice, kStarts);
}

// ---- memory of one process, over all its cycles

constexpr uint32_t kWarmUps = 300; // until pools and arenas have what the busiest moment needs
constexpr uint32_t kCyclesOfRun[] = {1'000, 10'000};

// The sanitizers remember what is freed: resident memory tells something where they are not.
uint64_t resident_or_nothing()
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return 0;
#else
    return resident_bytes();
#endif
}

// Over 10,000 cycles that notices 4 bytes of heap or 14 bytes of resident memory a cycle. Heap
// grows by some 20 KiB at most, and no further: a pool takes blocks by the stock, and threads that
// come at once leave what they have cached in several of the C library's arenas.
void keep_memory_flat(uint64_t run)
{
    constexpr uint64_t kHeapSlack = 32 << 10;
    constexpr uint64_t kResidentSlack = 128 << 10;
    Dice dice(run);
    const RealLibrary library;
    expect_nothing_left(dice, kWarmUps);
    const uint64_t heap = heap_bytes();
    const uint64_t resident = resident_or_nothing();
    expect_nothing_left(dice, kCyclesOfRun[run - 1]);
    EXPECT_LE(heap_bytes(), heap + kHeapSlack);
    EXPECT_LE(resident_or_nothing(), resident + kResidentSlack);
}

// ---- messages

constexpr uint32_t kPosters = 8;
constexpr int32_t kMessages = 6250; // of each poster

// Bookkeeping of one bus; written on its thread alone, but for what the posters wait for.
struct Received {
    std::array<std::atomic<int32_t>, kPosters> next{};
    std::atomic<uint32_t> wrong{0};
};

// One of several sets that are exchanged while messages come. The handler knows its own.
struct HandlerData {
    Received *received;
    NoxBusHandler handler;
};

template <int which>
int32_t receive(NOXBus *, void *data, const char *name, int32_t code, const char *text)
{
    auto *own = static_cast<HandlerData *>(data);
    Received &received = *own->received;
    received.wrong += own->handler == receive<which> ? 0 : 1;
    const size_t poster = static_cast<size_t>(*name - '0');
    received.wrong += received.next[poster]++ == code && std::stoi(text) == code ? 0 : 1;
    return 0;
}

void post(NOXBus *bus, uint32_t poster)
{
    const std::string name = std::to_string(poster);
    for (int32_t code = 0; code < kMessages; ++code)
        EXPECT_EQ(0, nox_bus_post_error(bus, name.c_str(), code, std::to_string(code).c_str()));
}

void post_from_many_threads(uint64_t run)
{
    Dice dice(run);
    const RealLibrary library;
    Received received;
    HandlerData sets[] = {{&received, receive<0>}, {&received, receive<1>}};
    NOXBus *bus = nox_bus_new("storm");
    nox_bus_set_handler(bus, sets[0].handler, &sets[0]);
    std::vector<std::thread> posters;
    for (uint32_t poster = 0; poster < kPosters; ++poster)
        posters.emplace_back(post, bus, poster);
    const auto all_came = [&] {
        HandlerData &set = sets[dice.below(2)];
        nox_bus_set_handler(bus, set.handler, &set);
        for (const auto &next : received.next)
            if (next < kMessages)
                return false;
        return true;
    };
    EXPECT_TRUE(comes_true(all_came, 50'000));
    for (std::thread &poster : posters)
        poster.join();
    nox_object_delete(bus); // whatever came twice has come by now
    EXPECT_EQ(0u, received.wrong);
    for (const auto &next : received.next)
        EXPECT_EQ(kMessages, next);
}

// ---- walks through the states

constexpr uint32_t kChanges = 100;

Shape draw_shape(Dice &dice, uint32_t percent_that_end)
{
    static constexpr Fate fates[] = {Fate::kNothingCaptured, Fate::kFrameLimit, Fate::kPushFails};
    Shape shape{.live = dice.chance(75)};
    if (dice.chance(percent_that_end)) {
        shape.fate = dice.one_of(fates);
        shape.lifetime = dice.between(1, 30);
    }
    return shape;
}

std::vector<Shape> draw_shapes(Dice &dice, uint32_t percent_that_end)
{
    std::vector<Shape> shapes(dice.between(1, 3));
    for (Shape &shape : shapes)
        shape = draw_shape(dice, percent_that_end);
    return shapes;
}

// Sources that are not live park with their next pass, which may come after the change.
bool must_stand_still(const StormPipe &storm, const std::vector<Shape> &shapes)
{
    const int32_t state = nox_pipe_get_state(storm.pipe());
    const bool all_live =
        std::all_of(shapes.begin(), shapes.end(), [](const Shape &shape) { return shape.live; });
    return state == NOX_STATE_NULL || (state == NOX_STATE_PAUSE && all_live);
}

void walk_through_states(uint64_t run)
{
    Dice dice(run);
    const RealLibrary library;
    const std::vector<Shape> shapes = draw_shapes(dice, 30);
    StormPipe storm(shapes);
    for (uint32_t change = 0; change < kChanges; ++change) {
        const auto state = static_cast<int32_t>(dice.below(4));
        if (state % 2 == 0 && dice.chance(25)) // what asynchronous changes are for
            storm.to_async(state);
        else
            storm.to(state);
        if (dice.chance(10))
            storm.release_kept();
        const uint64_t before = storm.rendered();
        linger(dice);
        if (must_stand_still(storm, shapes)) {
            ASSERT_EQ(before, storm.rendered()) << "change " << change << " to " << state;
        }
    }
}

// ---- ends beside pauses and stops

constexpr uint32_t kLives = 100;

// What can follow a pause, the end of the source's thread being anywhere in between.
void leave_pause(StormPipe &storm, Dice &dice)
{
    switch (dice.below(5)) {
    case 0: // the source is stopped where it is parked
        EXPECT_EQ(0, nox_pipe_stop(storm.pipe()));
        break;
    case 1:
        storm.to(NOX_STATE_PLAY);
        linger(dice);
        storm.to(NOX_STATE_PAUSE);
        break;
    case 2:
        storm.to(NOX_STATE_READY);
        storm.to(dice.chance(50) ? NOX_STATE_PLAY : NOX_STATE_PAUSE);
        break;
    case 3: // stopped and started where it is parked: it parks by itself, or is let go
        EXPECT_EQ(0, nox_pipe_stop(storm.pipe()));
        EXPECT_EQ(0, nox_pipe_start(storm.pipe()));
        linger(dice);
        storm.to(dice.chance(50) ? NOX_STATE_PLAY : NOX_STATE_READY);
        break;
    default:
        storm.to(NOX_STATE_PLAY);
    }
}

void end_beside_changes(uint64_t run)
{
    Dice dice(run);
    const RealLibrary library;
    for (uint32_t life = 0; life < kLives;) {
        StormPipe storm({draw_shape(dice, 80)});
        for (uint32_t lives = dice.between(1, 8); lives > 0; --lives, ++life) {
            storm.to(NOX_STATE_PLAY);
            linger(dice);
            storm.to(NOX_STATE_PAUSE);
            const uint64_t before = storm.rendered();
            linger(dice);
            if (storm.chain(0).shape.live) {
                ASSERT_EQ(before, storm.rendered()) << "life " << life;
            }
            leave_pause(storm, dice);
            linger(dice);
            storm.to(NOX_STATE_NULL);
        }
    }
}

// A source that is started in PAUSE parks by itself. It goes to READY and is paused again at
// the moment when it is about to. Its captures take longer than the changes, so that one that
// goes on shows.
void park_by_itself(uint64_t run)
{
    Dice dice(run);
    const RealLibrary library;
    StormPipe storm({Shape{.turns = 4000}});
    NOXPlugin *source = &storm.chain(0).source->plugin;
    storm.to(NOX_STATE_PLAY);
    storm.to(NOX_STATE_PAUSE);
    for (uint32_t life = 0; life < kLives; ++life) {
        EXPECT_EQ(0, nox_pipe_stop(storm.pipe()));
        EXPECT_EQ(0, nox_pipe_start(storm.pipe()));
        const std::atomic_ref<uint8_t> parked(storm.chain(0).source->parked_);
        for (uint32_t looks = 1; !parked; ++looks)
            if (looks % 1000 == 0)
                std::this_thread::yield();
        work(dice.below(100));
        nox_plugin_setstate(source, NOX_STATE_READY);
        nox_plugin_setstate(source, NOX_STATE_PAUSE);
        const uint64_t before = storm.rendered();
        linger(dice);
        ASSERT_EQ(before, storm.rendered()) << "life " << life;
    }
    storm.to(NOX_STATE_NULL);
}

// ---- deletion

constexpr uint32_t kDeletions = 50;
constexpr int32_t kDelete = 1000; // the message upon which the handler deletes the pipe

StormPipe *g_deleted; // the callback of a change has no argument of its own

// At any other message it uses the pipe, which must be whole then.
int32_t delete_in_handler(NOXBus *, void *data, const char *, int32_t code, const char *)
{
    auto *storm = static_cast<StormPipe *>(data);
    if (code == kDelete)
        storm->delete_pipe();
    else
        nox_pipe_get_allsrc_stopped(storm->pipe());
    return 0;
}

int32_t delete_in_callback(NOXPipe *, int32_t, int32_t)
{
    g_deleted->delete_pipe();
    return 0;
}

// Requests that are still queued are dropped.
void delete_behind_requests(StormPipe &storm, Dice &dice)
{
    NOXPipe *pipe = storm.pipe();
    g_deleted = &storm;
    nox_pipe_set_state_async(pipe, NOX_STATE_PAUSE, nullptr);
    nox_pipe_set_state_async(pipe, dice.chance(50) ? NOX_STATE_NULL : NOX_STATE_PLAY,
                             delete_in_callback);
}

void delete_once(Dice &dice)
{
    StormPipe storm(draw_shapes(dice, 30));
    nox_pipe_set_bus_handler(storm.pipe(), delete_in_handler, &storm);
    storm.to(NOX_STATE_PLAY);
    linger(dice);
    if (dice.chance(25))
        storm.to(NOX_STATE_PAUSE);
    for (uint32_t messages = dice.below(20); messages > 0; --messages)
        nox_bus_post_error(storm.pipe()->busref, "storm", 0, nullptr);
    switch (dice.below(3)) {
    case 0:
        storm.delete_pipe();
        break;
    case 1:
        nox_bus_post_error(storm.pipe()->busref, "storm", kDelete, nullptr);
        break;
    default:
        delete_behind_requests(storm, dice);
    }
    EXPECT_TRUE(comes_true([&] { return storm.is_deleted(); }));
}

void delete_anywhere(uint64_t run)
{
    Dice dice(run);
    const RealLibrary library;
    for (uint32_t deletion = 0; deletion < kDeletions; ++deletion)
        delete_once(dice);
}

} // namespace

Campaigns storm_campaigns()
{
    return {
        {.name = "storms-pause",
         .unit = "cycles",
         .full = 100,
         .quick = 10,
         .run = pause_and_resume,
         .in_one_run = kPauses},
        {.name = "storms-start",
         .unit = "cycles",
         .full = 40,
         .quick = 4,
         .run = start_and_stop,
         .in_one_run = kStarts},
        {.name = "storms-memory",
         .unit = "storms",
         .full = std::size(kCyclesOfRun),
         .quick = 1,
         .run = keep_memory_flat,
         .limit_seconds = 600,
         .alone = true},
        {.name = "storms-messages",
         .unit = "messages",
         .full = 20,
         .quick = 4,
         .run = post_from_many_threads,
         .in_one_run = kPosters * kMessages},
        {.name = "storms-states",
         .unit = "changes",
         .full = 1000,
         .quick = 60,
         .run = walk_through_states,
         .in_one_run = kChanges},
        {.name = "storms-ends",
         .unit = "lives",
         .full = 1000,
         .quick = 20,
         .run = end_beside_changes,
         .in_one_run = kLives},
        {.name = "storms-parking",
         .unit = "lives",
         .full = 1000,
         .quick = 60,
         .run = park_by_itself,
         .in_one_run = kLives},
        {.name = "storms-deletion",
         .unit = "pipes",
         .full = 200,
         .quick = 12,
         .run = delete_anywhere,
         .in_one_run = kDeletions},
    };
}

} // namespace soak
