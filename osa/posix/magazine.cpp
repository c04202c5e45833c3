// Making magazines and passing them between threads.
//
// A magazine's number finds it in a table of segments, each twice as large as
// the one before, so that neither table nor segment ever moves and making one
// takes no lock.

#include "osa/posix/magazine.h"

#include <bit>
#include <new>

namespace osa
{

namespace
{

constexpr uint32_t kFirstSegment = 16; // magazines
constexpr uint32_t kSegmentLimit = 26; // enough for every number below 2^30

constinit std::atomic<Magazine *> g_segments[kSegmentLimit] = {};
constinit std::atomic<uint32_t> g_made{0};
constinit MagazineStack g_empty;

struct Place {
    uint32_t segment;
    uint32_t offset;
};

Place place_of(uint32_t number)
{
    const uint32_t shifted = number - 1 + kFirstSegment;
    const uint32_t first_width = static_cast<uint32_t>(std::bit_width(kFirstSegment));
    const uint32_t segment = static_cast<uint32_t>(std::bit_width(shifted)) - first_width;
    return {segment, shifted - (kFirstSegment << segment)};
}

Magazine *magazine_of(uint32_t number)
{
    const Place place = place_of(number);
    return g_segments[place.segment].load(std::memory_order_acquire) + place.offset;
}

// The segment, made by whichever thread is first to need it.
Magazine *segment_for(uint32_t index)
{
    Magazine *segment = g_segments[index].load(std::memory_order_acquire);
    if (segment != nullptr)
        return segment;
    Magazine *made = new (std::nothrow) Magazine[kFirstSegment << index];
    if (made == nullptr)
        return nullptr;
    if (g_segments[index].compare_exchange_strong(segment, made, std::memory_order_acq_rel,
                                                  std::memory_order_acquire))
        return made;
    delete[] made;
    return segment;
}

// Without memory the number is lost, which the next segments have room for.
Magazine *make_magazine()
{
    const uint32_t number = g_made.fetch_add(1, std::memory_order_relaxed) + 1;
    const Place place = place_of(number);
    Magazine *segment = place.segment < kSegmentLimit ? segment_for(place.segment) : nullptr;
    if (segment == nullptr)
        return nullptr;
    segment[place.offset].number = number;
    return segment + place.offset;
}

constexpr uint64_t head_of(uint64_t former_head, uint32_t number)
{
    return ((former_head >> 32) + 1) << 32 | number;
}

} // namespace

void MagazineStack::push(Magazine *magazine)
{
    uint64_t head = m_head.load(std::memory_order_relaxed);
    do {
        magazine->below.store(static_cast<uint32_t>(head), std::memory_order_relaxed);
    } while (!m_head.compare_exchange_weak(head, head_of(head, magazine->number),
                                           std::memory_order_release, std::memory_order_relaxed));
}

Magazine *MagazineStack::pop()
{
    uint64_t head = m_head.load(std::memory_order_acquire);
    while (static_cast<uint32_t>(head) != 0) {
        Magazine *top = magazine_of(static_cast<uint32_t>(head));
        const uint32_t below = top->below.load(std::memory_order_relaxed);
        if (m_head.compare_exchange_weak(head, head_of(head, below), std::memory_order_acquire,
                                         std::memory_order_acquire))
            return top;
    }
    return nullptr;
}

void MagazineStack::forget()
{
    m_head.store(0, std::memory_order_relaxed);
}

Magazine *magazine_take_empty()
{
    Magazine *kept = g_empty.pop();
    return kept != nullptr ? kept : make_magazine();
}

void magazine_keep_empty(Magazine *magazine)
{
    magazine->count = 0;
    g_empty.push(magazine);
}

void magazines_release()
{
    g_empty.forget();
    g_made.store(0, std::memory_order_relaxed);
    for (std::atomic<Magazine *> &segment : g_segments)
        delete[] segment.exchange(nullptr, std::memory_order_acq_rel);
}

} // namespace osa
