// Takes, checks and gives back blocks, and knows every live one.

#include "osa/sim/heap.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "osa/sim/object.h"

#if defined(__SANITIZE_ADDRESS__)
#define SIM_ADDRESS_CHECK 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define SIM_ADDRESS_CHECK 1
#endif
#endif

namespace sim
{

namespace
{

// AddressSanitizer does both checks better when the bytes are really free.
#ifdef SIM_ADDRESS_CHECK
constexpr size_t guard_size = 0;
constexpr size_t freed_limit = 0;
#else
constexpr size_t guard_size = 16;
constexpr size_t freed_limit = 512;
#endif
constexpr uint32_t freed_size_limit = 1024; // larger blocks are not kept: filling them costs
constexpr unsigned char guard_fill = 0xA5;
constexpr unsigned char freed_fill = 0xDD;

bool is_filled(const void *address, size_t offset, size_t size, unsigned char value)
{
    const auto *bytes = static_cast<const unsigned char *>(address) + offset;
    return std::all_of(bytes, bytes + size, [value](unsigned char byte) { return byte == value; });
}

} // namespace

std::string origin_text(const Origin &origin)
{
    if (origin.module == nullptr)
        return place_text(origin.caller);
    return std::string(origin.module) + ":" + std::to_string(origin.line) + " " +
           (origin.function == nullptr ? "?" : origin.function);
}

std::string block_text(const Block &block)
{
    static constexpr std::array<const char *, block_kind_count> names = {"block", "pool block",
                                                                         "list node"};
    return names[static_cast<size_t>(block.kind)] + std::string(" of ") +
           std::to_string(block.size) + " bytes, taken by " + origin_text(block.origin);
}

Heap::~Heap()
{
    give_all();
}

const char *Heap::keep(const char *text)
{
    return text == nullptr ? nullptr : texts_.emplace(text).first->c_str();
}

void *Heap::take(BlockKind kind, uint32_t size, const Origin &origin)
{
    void *address = std::calloc(1, std::max<size_t>(size + guard_size, 1));
    if (address == nullptr)
        return nullptr;
    std::memset(static_cast<char *>(address) + size, guard_fill, guard_size);
    blocks_.emplace(address, Block{kind, size, ++order_, origin, nullptr});
    count_[static_cast<size_t>(kind)]++;
    bytes_[static_cast<size_t>(kind)] += size;
    return address;
}

Block *Heap::find(const void *address)
{
    const auto found = blocks_.find(address);
    return found == blocks_.end() ? nullptr : &found->second;
}

std::string Heap::give(void *address)
{
    const auto found = blocks_.find(address);
    const Block block = found->second;
    blocks_.erase(found);
    count_[static_cast<size_t>(block.kind)]--;
    bytes_[static_cast<size_t>(block.kind)] -= block.size;

    std::string fault;
    if (!is_filled(address, block.size, guard_size, guard_fill))
        fault = "written past the end of a " + block_text(block);
    if (freed_limit == 0 || block.size > freed_size_limit) {
        std::free(address);
        return fault;
    }
    std::memset(address, freed_fill, block.size);
    freed_.push_back({address, block});
    if (freed_.size() > freed_limit && fault.empty())
        fault = release_oldest_freed();
    return fault;
}

std::string Heap::release_oldest_freed()
{
    const Freed oldest = freed_.front();
    freed_.pop_front();
    const bool is_intact = is_filled(oldest.address, 0, oldest.block.size, freed_fill);
    std::free(oldest.address);
    return is_intact ? "" : "written to after it was given back: " + block_text(oldest.block);
}

std::vector<std::string> Heap::give_all()
{
    std::vector<std::string> faults;
    const auto note = [&faults](const std::string &fault) {
        if (!fault.empty())
            faults.push_back(fault);
    };
    for (const Live &live : alive())
        note(give(const_cast<void *>(live.address)));
    while (!freed_.empty())
        note(release_oldest_freed());
    return faults;
}

std::vector<Heap::Live> Heap::alive() const
{
    std::vector<Live> live;
    live.reserve(blocks_.size());
    for (const auto &entry : blocks_)
        live.push_back({entry.first, &entry.second});
    std::sort(live.begin(), live.end(), [](const Live &left, const Live &right) {
        return left.block->order < right.block->order;
    });
    return live;
}

} // namespace sim
