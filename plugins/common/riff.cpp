// Compares the size of a WAV file with the size that its header promises.

#include "common/riff.h"

#include <cstring>

#include <sys/stat.h>
#include <unistd.h>

namespace noxplugins
{

namespace
{

constexpr uint32_t kSizeLeftOpen = 0xFFFFFFFF;
constexpr off_t kRiffHeaderSize = 12; // "RIFF", size, "WAVE"

struct ChunkHeader {
    char id[4];
    uint32_t size; // bytes that follow, without the pad byte after an odd size
};

} // namespace

uint64_t missing_bytes(int descriptor)
{
    struct stat status;
    if (fstat(descriptor, &status) != 0)
        return 0;
    off_t position = kRiffHeaderSize;
    ChunkHeader chunk;
    while (pread(descriptor, &chunk, sizeof chunk, position) == sizeof chunk) {
        position += static_cast<off_t>(sizeof chunk);
        const off_t end = position + chunk.size;
        if (std::memcmp(chunk.id, "data", sizeof chunk.id) == 0) {
            const bool whole = chunk.size == kSizeLeftOpen || end <= status.st_size;
            return whole ? 0 : static_cast<uint64_t>(end - status.st_size);
        }
        position = end + (chunk.size & 1);
    }
    return 0;
}

} // namespace noxplugins
