// Replaces a file by renaming a finished one over it.

#include "cache_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

namespace fs = std::filesystem;

[[noreturn]] void fail(const std::string &path)
{
    throw std::runtime_error("cannot write " + path + ": " + strerrordesc_np(errno));
}

// That of the file to replace. mkostemp makes files for their owner alone, but a new
// cache is for everybody.
mode_t mode_for(const fs::path &target)
{
    struct stat old;
    if (stat(target.c_str(), &old) == 0)
        return old.st_mode & 07777;
    const mode_t mask = umask(0);
    umask(mask);
    return 0666 & ~mask;
}

// A file that is removed again unless it was put in place.
class DraftFile
{
public:
    explicit DraftFile(const fs::path &target) : path_(target.string() + ".XXXXXX")
    {
        descriptor_ = mkostemp(path_.data(), O_CLOEXEC);
        if (descriptor_ < 0)
            fail(target);
    }

    ~DraftFile()
    {
        if (descriptor_ >= 0)
            close(descriptor_);
        if (!placed_)
            unlink(path_.c_str());
    }

    DraftFile(const DraftFile &) = delete;
    DraftFile &operator=(const DraftFile &) = delete;

    void write_all(const std::string &text)
    {
        for (size_t done = 0; done < text.size();) {
            const ssize_t count = write(descriptor_, text.data() + done, text.size() - done);
            if (count < 0 && errno != EINTR)
                fail(path_);
            done += count > 0 ? static_cast<size_t>(count) : 0;
        }
    }

    void place(const fs::path &target)
    {
        if (fchmod(descriptor_, mode_for(target)) != 0 || fsync(descriptor_) != 0)
            fail(path_);
        if (std::rename(path_.c_str(), target.c_str()) != 0)
            fail(target);
        placed_ = true;
    }

private:
    std::string path_;
    int descriptor_ = -1;
    bool placed_ = false;
};

// Makes the rename itself outlast a loss of power; a file system without that still
// has the file.
void sync_folder(const fs::path &target)
{
    const fs::path folder = target.has_parent_path() ? target.parent_path() : ".";
    const int descriptor = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor < 0)
        return;
    fsync(descriptor);
    close(descriptor);
}

} // namespace

void replace_file(const std::string &path, const std::string &text)
{
    std::error_code error;
    fs::path target = path;
    if (fs::is_symlink(target, error))
        target = fs::canonical(target); // throws for a link that leads nowhere
    const fs::file_status status = fs::status(target, error);
    if (fs::exists(status) && !fs::is_regular_file(status))
        throw std::runtime_error("cannot write " + path + ": it is there and no regular file");
    DraftFile draft(target);
    draft.write_all(text);
    draft.place(target);
    sync_folder(target);
}
