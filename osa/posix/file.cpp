// Files.

#include "osa/common/export.h"

#include <cerrno>
#include <cstring>
#include <new>

#include <unistd.h>

#include "osa/common/file_io.h"
#include "osa/posix/report.h"
#include "osa/posix/thread_state.h"

struct OSA_File {
    explicit OSA_File(int opened) : descriptor(opened), reader(opened) {}

    int descriptor;
    osa::LineReader reader;
};

extern "C" {

OSA_File *OSA_FileOpen(const char *path, uint32_t mode)
{
    if (path == nullptr)
        return nullptr;
    if (mode != OSA_FILE_READ && mode != OSA_FILE_WRITE) {
        OSA_REPORT(OSA_TRACE_NOTICE, "%s not opened: there is no mode 0x%X\n", path, mode);
        return nullptr;
    }
    const int descriptor = osa::file_open(path, mode);
    if (descriptor < 0) {
        OSA_REPORT(OSA_TRACE_NOTICE, "%s cannot be opened: %s\n", path, std::strerror(errno));
        return nullptr;
    }
    OSA_File *file = new (std::nothrow) OSA_File(descriptor);
    if (file == nullptr) {
        close(descriptor);
        return nullptr;
    }
    osa::count_alive(osa::Kind::file, 1);
    return file;
}

char *OSA_FileReadLine(OSA_File *file, char *buffer, uint32_t size)
{
    if (file == nullptr || buffer == nullptr)
        return nullptr;
    char *line = file->reader.next(buffer, size);
    if (line == nullptr && file->reader.error() != 0)
        OSA_REPORT(OSA_TRACE_NOTICE, "reading failed: %s\n", std::strerror(file->reader.error()));
    return line;
}

int32_t OSA_FileWrite(OSA_File *file, const void *data, uint32_t length)
{
    if (file == nullptr || (data == nullptr && length > 0) || length > INT32_MAX)
        return -1;
    if (!osa::file_write_all(file->descriptor, data, length)) {
        OSA_REPORT(OSA_TRACE_NOTICE, "writing failed: %s\n", std::strerror(errno));
        return -1;
    }
    return static_cast<int32_t>(length);
}

int32_t OSA_FileClose(OSA_File *file)
{
    if (file == nullptr)
        return -1;
    // Interrupted or not, the descriptor is gone after one close.
    const bool failed = close(file->descriptor) != 0 && errno != EINTR;
    if (failed)
        OSA_REPORT(OSA_TRACE_NOTICE, "closing failed: %s\n", std::strerror(errno));
    delete file;
    osa::count_alive(osa::Kind::file, -1);
    return failed ? -1 : 0;
}

} // extern "C"
