// Files: opening, reading by lines, writing whole.

#include "osa/common/file_io.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "osa/osa.h"

namespace osa
{

namespace
{

// A directory opens for reading, and only its first read fails.
bool is_directory(int descriptor)
{
    struct stat status;
    return fstat(descriptor, &status) == 0 && S_ISDIR(status.st_mode);
}

int open_for_reading(const char *path)
{
    const int descriptor = open(path, O_RDONLY | O_CLOEXEC);
    if (descriptor >= 0 && is_directory(descriptor)) {
        close(descriptor);
        errno = EISDIR;
        return -1;
    }
    return descriptor;
}

} // namespace

int file_open(const char *path, uint32_t mode)
{
    if (mode == OSA_FILE_READ)
        return open_for_reading(path);
    if (mode == OSA_FILE_WRITE)
        return open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    errno = EINVAL;
    return -1;
}

bool file_write_all(int descriptor, const void *data, size_t length)
{
    const char *rest = static_cast<const char *>(data);
    while (length > 0) {
        const ssize_t written = write(descriptor, rest, length);
        if (written < 0 && errno != EINTR)
            return false;
        if (written > 0) {
            rest += written;
            length -= static_cast<size_t>(written);
        }
    }
    return true;
}

bool LineReader::refill()
{
    ssize_t length = 0;
    do {
        length = read(m_descriptor, m_block, sizeof(m_block));
    } while (length < 0 && errno == EINTR);
    m_error = length < 0 ? errno : 0;
    m_begin = 0;
    m_end = length > 0 ? static_cast<size_t>(length) : 0;
    return m_end > 0;
}

char *LineReader::next(char *buffer, uint32_t size)
{
    if (size == 0)
        return nullptr;
    size_t kept = 0;
    bool anything = false;
    bool complete = false;
    while (!complete && (m_begin < m_end || refill())) {
        const char *piece = m_block + m_begin;
        const size_t available = m_end - m_begin;
        const void *feed = std::memchr(piece, '\n', available);
        complete = feed != nullptr;
        const size_t length =
            complete ? static_cast<size_t>(static_cast<const char *>(feed) - piece) + 1 : available;
        const size_t copied = std::min(length, size - 1 - kept);
        std::memcpy(buffer + kept, piece, copied);
        kept += copied;
        m_begin += length;
        anything = true;
    }
    buffer[kept] = '\0';
    return anything ? buffer : nullptr;
}

} // namespace osa
