// Finds the samples of a WAV file among its chunks, and how many of them are there.
//
// RIFF files give sizes of 32 bits. In an RF64 file these are all ones, and the chunk
// "ds64" before the others has the true ones. In a RIFX file they are big-endian.
//
// Nothing that the file says is trusted: a size moves the position on and no more, and
// the number of chunks is limited, since a hole in a file is chunks without end.

#include "common/riff.h"

#include <algorithm>
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
constexpr uint64_t kUnwritten = 8;                            // RIFF size of a file just opened
constexpr uint32_t kAllOnes = 0xFFFFFFFF;
constexpr uint32_t kMostChunks = 1000; // up to the samples; recorders write a few
constexpr uint64_t kMostBytes = uint64_t{1} << 62;

// A recorder that cannot seek writes the largest size it dares: the end of the signed
// or of the unsigned range, or that less some room for headers.
bool is_left_open(uint64_t size)
{
    return (size >= 0x7FFF0000 && size <= 0x80000000) || (size >= 0xFFFF0000 && size <= kAllOnes) ||
           size > INT64_MAX;
}

// The chunks of one file, from the first to the samples.
class ChunkWalk
{
public:
    explicit ChunkWalk(int descriptor) : m_descriptor(descriptor) {}

    const char *find_samples(WavLayout &layout);

private:
    bool read_at(uint64_t position, void *bytes, size_t size) const
    {
        return pread(m_descriptor, bytes, size, static_cast<off_t>(position)) ==
               static_cast<ssize_t>(size);
    }
    bool read_chunk(ChunkHeader &chunk) const;
    bool read_riff_header(WavLayout &layout);
    bool read_format(const ChunkHeader &chunk, WavLayout &layout) const;
    void read_long_sizes();
    void pass(const ChunkHeader &chunk);
    void measure(const ChunkHeader &data, WavLayout &layout) const;

    int m_descriptor;
    uint64_t m_file_size = 0;
    uint64_t m_position = kRiffHeaderSize; // of a chunk's header
    bool m_is_big_endian = false;
    bool m_has_long_sizes = false;
    LongSizes m_sizes{kAllOnes, kAllOnes};
};

bool ChunkWalk::read_chunk(ChunkHeader &chunk) const
{
    if (!read_at(m_position, &chunk, sizeof chunk))
        return false;
    if (m_is_big_endian)
        chunk.size = be32toh(chunk.size);
    return true;
}

bool ChunkWalk::read_riff_header(WavLayout &layout)
{
    struct stat status;
    struct {
        ChunkHeader riff;
        char form[4];
    } header;
    if (fstat(m_descriptor, &status) != 0 || !read_at(0, &header, sizeof header) ||
        std::memcmp(header.form, "WAVE", sizeof header.form) != 0)
        return false;
    m_file_size = static_cast<uint64_t>(status.st_size);
    m_is_big_endian = header.riff.is("RIFX");
    m_has_long_sizes = header.riff.is("RF64");
    m_sizes.riff = m_is_big_endian ? be32toh(header.riff.size) : header.riff.size;
    layout.is_big_endian = m_is_big_endian;
    return m_is_big_endian || m_has_long_sizes || header.riff.is("RIFF");
}

bool ChunkWalk::read_format(const ChunkHeader &chunk, WavLayout &layout) const
{
    layout.format_size = std::min(chunk.size, kMostFormatBytes);
    return read_at(m_position + sizeof chunk, layout.format, layout.format_size);
}

void ChunkWalk::read_long_sizes()
{
    LongSizes sizes;
    if (m_has_long_sizes && read_at(m_position + sizeof(ChunkHeader), &sizes, sizeof sizes))
        m_sizes = sizes;
}

// Some writers leave away the pad byte after an odd size.
void ChunkWalk::pass(const ChunkHeader &chunk)
{
    m_position += sizeof chunk + chunk.size;
    ChunkHeader next;
    if (chunk.size % 2 != 0 && !(read_chunk(next) && (next.is("fmt ") || next.is("data"))))
        ++m_position;
}

// By its own account the file ends `riff` bytes behind its first header. Where that is the
// true end, what follows an empty data chunk is other chunks, else samples that came after
// the header was written. A last pad byte is often left away.
void ChunkWalk::measure(const ChunkHeader &data, WavLayout &layout) const
{
    const bool has_long_size = m_has_long_sizes && data.size == kAllOnes;
    const uint64_t promised = has_long_size ? m_sizes.data : data.size;
    const uint64_t begin = m_position + sizeof data;
    const uint64_t there = m_file_size - std::min(begin, m_file_size); // it may have shrunk
    const bool chunks_follow = m_sizes.riff > begin - sizeof(ChunkHeader) &&
                               m_sizes.riff <= m_file_size + 1 - sizeof(ChunkHeader);
    layout.samples_begin = begin;
    layout.samples_size = std::min(promised, there);
    if (promised == 0 && m_sizes.riff == kUnwritten)
        layout.samples_size = there;
    else if (promised == 0 && !chunks_follow)
        layout.unannounced = there;
    else if (promised > there && !is_left_open(promised))
        layout.missing = promised - there;
}

const char *ChunkWalk::find_samples(WavLayout &layout)
{
    layout = {};
    if (!read_riff_header(layout))
        return "not a WAV file";
    ChunkHeader chunk;
    for (uint32_t count = 0; count < kMostChunks; ++count) {
        if (!read_chunk(chunk) || chunk.is("\0\0\0")) // no chunk, but the zeros of a hole
            return "it ends before its samples";
        if (chunk.is("data")) {
            measure(chunk, layout);
            if (layout.samples_size > kMostBytes)
                return "it is too long";
            return layout.format_size == 0 ? "its format is missing" : nullptr;
        }
        if (chunk.is("fmt ") && !read_format(chunk, layout))
            return "it ends before its samples";
        if (chunk.is("ds64"))
            read_long_sizes();
        pass(chunk);
    }
    return "too many chunks before its samples";
}

} // namespace

const char *find_samples(int descriptor, WavLayout &layout)
{
    return ChunkWalk(descriptor).find_samples(layout);
}

} // namespace noxplugins
