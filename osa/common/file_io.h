// Reading lines from and writing whole blocks to file descriptors, with `errno`
// for what went wrong.
#ifndef OSA_COMMON_FILE_IO_H
#define OSA_COMMON_FILE_IO_H

#include <cstddef>
#include <cstdint>

namespace osa
{

// Opens in a mode of OSA_FileOpen; -1 with errno for another mode (EINVAL), a
// directory (EISDIR), or what the system refuses.
int file_open(const char *path, uint32_t mode);

// Writes all bytes, however the system cuts them up; false with errno.
bool file_write_all(int descriptor, const void *data, size_t length);

// Takes lines off a descriptor that somebody else opens and closes.
class LineReader
{
public:
    explicit LineReader(int descriptor) : m_descriptor(descriptor) {}

    // The next line with its line feed, cut to what `size` bytes hold with the
    // closing zero; the rest of a longer line is skipped. Null at the end, on
    // a read error (see error()), and for a buffer of no bytes.
    char *next(char *buffer, uint32_t size);

    // The errno of a read that failed, else 0.
    int error() const
    {
        return m_error;
    }

private:
    bool refill();

    int m_descriptor;
    int m_error = 0;
    size_t m_begin = 0;
    size_t m_end = 0;
    char m_block[4096];
};

} // namespace osa

#endif
