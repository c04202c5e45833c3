// Compares the size of a WAV file with the size that its header promises.
//
// RIFF files give sizes of 32 bits. In an RF64 file these are all ones, and the chunk
// "ds64" before the others has the true ones. In a RIFX file they are big-endian.
//
// Nothing that the file says is trusted: a size moves the position on and no more, and
// the number of chunks is limited, since a hole in a file is chunks without end.

#include "common/riff.h"

#include <cstring>

#include <endian.h>
#include <sys/stat.h>
#include <unistd.h>

namespace noxplugins
{

namespace
{

struct ChunkHeader {
    char id[4];
    uint32_t size; // bytes that follow, without the pad byte after an odd size

    bool is(const char *name) const
    {
        return std::memcmp(id, name, sizeof id) == 0;
    }
};

struct LongSizes {
    uint64_t riff;
    uint64_t data;
};

constexpr uint64_t kRiffHeaderSize = sizeof(ChunkHeader) + 4; // with "WAVE"
constexpr uint32_t kAllOnes = 0xFFFFFFFF;
constexpr uint32_t kLongestList = 4 * 1024 * 1024; // bytes; titles and marks
constexpr uint32_t kMostChunks = 1000;             // before the samples; recorders write a few

// A recorder that cannot seek writes the largest size it dares: the end of the signed
// or of the unsigned range, or that less some room for headers.
bool is_left_open(uint64_t size)
{
    return (size >= 0x7FFF0000 && size <= 0x80000000) || (size >= 0xFFFF0000 && size <= kAllOnes) ||
           size > INT64_MAX;
}

template <typename Record>
bool read_at(int descriptor, uint64_t position, Record &record)
{
    return pread(descriptor, &record, sizeof record, static_cast<off_t>(position)) == sizeof record;
}

bool read_header(int descriptor, uint64_t position, bool is_big_endian, ChunkHeader &chunk)
{
    if (!read_at(descriptor, position, chunk))
        return false;
    if (is_big_endian)
        chunk.size = be32toh(chunk.size);
    return true;
}

// By its own account the file ends `riff_size` behind its first header. Where that is the
// true end, what follows an empty data chunk is other chunks, else samples that came after
// the header was written. A last pad byte is often left away.
SampleBytes compare(uint64_t promised, uint64_t begin, uint64_t riff_size, uint64_t file_size)
{
    if (begin > file_size) // it grew meanwhile
        return {};
    const uint64_t there = file_size - begin;
    const bool chunks_follow =
        riff_size > begin - sizeof(ChunkHeader) && riff_size <= file_size + 1 - sizeof(ChunkHeader);
    if (promised == 0)
        return {0, chunks_follow ? 0 : there};
    return {promised <= there || is_left_open(promised) ? 0 : promised - there, 0};
}

// Of a chunk at that position, where the next one begins.
uint64_t end_of(uint64_t position, const ChunkHeader &chunk, const LongSizes &sizes)
{
    const bool has_long_size = chunk.is("data") && chunk.size == kAllOnes;
    const uint64_t size = has_long_size ? sizes.data : chunk.size;
    const uint64_t begin = position + sizeof chunk;
    return size > UINT64_MAX - 1 - begin ? UINT64_MAX : begin + size + (size & 1);
}

} // namespace

bool is_quickly_read(int descriptor)
{
    struct stat status;
    ChunkHeader chunk;
    if (fstat(descriptor, &status) != 0 || !read_at(descriptor, 0, chunk))
        return true;
    const bool is_big_endian = chunk.is("RIFX");
    if (!chunk.is("RIFF") && !chunk.is("RF64") && !is_big_endian)
        return true;
    const auto file_size = static_cast<uint64_t>(status.st_size);
    LongSizes sizes{kAllOnes, kAllOnes};
    uint64_t position = kRiffHeaderSize;
    for (uint32_t count = 0; count < kMostChunks; ++count) {
        if (!read_header(descriptor, position, is_big_endian, chunk) || chunk.is("\0\0\0"))
            return true;
        if (chunk.is("LIST") && chunk.size > kLongestList)
            return false;
        if (chunk.is("ds64") && !read_at(descriptor, position + sizeof chunk, sizes))
            return true;
        position = end_of(position, chunk, sizes);
        if (position > file_size)
            return true;
    }
    return false;
}

SampleBytes compare_with_header(int descriptor)
{
    struct stat status;
    ChunkHeader chunk;
    if (fstat(descriptor, &status) != 0 || !read_at(descriptor, 0, chunk))
        return {};
    const bool is_big_endian = chunk.is("RIFX");
    const bool is_long = chunk.is("RF64");
    LongSizes sizes{kAllOnes, kAllOnes};
    uint64_t riff_size = is_big_endian ? be32toh(chunk.size) : chunk.size;
    uint64_t position = kRiffHeaderSize;
    for (uint32_t count = 0; count < kMostChunks; ++count) {
        if (!read_header(descriptor, position, is_big_endian, chunk))
            break;
        position += sizeof chunk;
        if (is_long && chunk.is("ds64") && read_at(descriptor, position, sizes))
            riff_size = sizes.riff;
        if (chunk.is("data")) {
            const uint64_t promised = is_long && chunk.size == kAllOnes ? sizes.data : chunk.size;
            return compare(promised, position, riff_size, static_cast<uint64_t>(status.st_size));
        }
        position += chunk.size + uint64_t{chunk.size & 1};
    }
    return {};
}

} // namespace noxplugins
