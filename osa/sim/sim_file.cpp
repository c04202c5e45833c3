// Files: read from memory or from the disk, written to memory only.

#include <sys/mman.h>
#include <unistd.h>

#include "osa/common/file_io.h"
#include "osa/sim/world.h"

using sim::Entry;
using sim::Kind;

struct OSA_File : sim::Object {
    OSA_File() : Object(Kind::file) {}
    ~OSA_File() override
    {
        close_descriptor();
    }
    void close_descriptor()
    {
        if (descriptor >= 0)
            close(descriptor);
        descriptor = -1;
    }
    void read_from(int opened)
    {
        descriptor = opened;
        reader = std::make_unique<osa::LineReader>(opened);
    }

    int descriptor = -1;
    std::unique_ptr<osa::LineReader> reader; /* null for a file that is written */
};

namespace
{

// A descriptor to read the text from, or -1.
int open_text(const std::string &text)
{
    const int descriptor = memfd_create("text", MFD_CLOEXEC);
    if (descriptor < 0)
        return -1;
    if (osa::file_write_all(descriptor, text.data(), text.size()) &&
        lseek(descriptor, 0, SEEK_SET) == 0)
        return descriptor;
    close(descriptor);
    return -1;
}

int open_for_reading(Entry &layer, const char *path)
{
    const auto found = layer->files.find(path);
    return found == layer->files.end() ? osa::file_open(path, OSA_FILE_READ)
                                       : open_text(found->second);
}

} // namespace

OSA_File *OSA_FileOpen(const char *path, uint32_t mode)
{
    Entry layer;
    if (layer.must_fail("OSA_FileOpen", SIM_CALLER) || path == nullptr)
        return nullptr;
    if (mode == OSA_FILE_WRITE) {
        layer->files[path].clear();
        return layer->handles.make<OSA_File>(SIM_CALLER, path);
    }
    const int descriptor = mode == OSA_FILE_READ ? open_for_reading(layer, path) : -1;
    if (descriptor < 0)
        return nullptr;
    auto *file = layer->handles.make<OSA_File>(SIM_CALLER, path);
    file->read_from(descriptor);
    return file;
}

char *OSA_FileReadLine(OSA_File *file, char *buffer, uint32_t size)
{
    Entry layer;
    if (!layer.check(file, Kind::file, "OSA_FileReadLine") || file->reader == nullptr ||
        buffer == nullptr)
        return nullptr;
    return file->reader->next(buffer, size);
}

int32_t OSA_FileWrite(OSA_File *file, const void *data, uint32_t length)
{
    Entry layer;
    if (layer.must_fail("OSA_FileWrite", SIM_CALLER) ||
        !layer.check(file, Kind::file, "OSA_FileWrite") || file->reader != nullptr ||
        length > INT32_MAX || (data == nullptr && length > 0))
        return -1;
    layer->files[file->name].append(static_cast<const char *>(data), length);
    return static_cast<int32_t>(length);
}

int32_t OSA_FileClose(OSA_File *file)
{
    Entry layer;
    if (!layer.destroy(file, Kind::file, "OSA_FileClose"))
        return -1;
    file->close_descriptor();
    const bool was_written = file->reader == nullptr; // else there is nothing to lose
    return was_written && layer.must_fail("OSA_FileClose", SIM_CALLER) ? -1 : 0;
}

void SIM_FileAdd(const std::string &path, const std::string &content)
{
    Entry layer;
    layer->files[path] = content;
}

std::optional<std::string> SIM_FileContent(const std::string &path)
{
    const sim::Unwatched unwatched;
    const auto &files = sim::last_world().files;
    const auto found = files.find(path);
    return found == files.end() ? std::nullopt : std::optional(found->second);
}
