// Guards for a descriptor and for a libsndfile handle on it.
#ifndef NOX_PLUGINS_COMMON_SOUND_FILE_H
#define NOX_PLUGINS_COMMON_SOUND_FILE_H

#include <memory>
#include <utility>

#include <sndfile.h>
#include <unistd.h>

namespace noxplugins
{

class Descriptor
{
public:
    explicit Descriptor(int descriptor = -1) : descriptor_(descriptor) {}
    ~Descriptor()
    {
        if (descriptor_ >= 0)
            ::close(descriptor_);
    }
    Descriptor(Descriptor &&other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
    Descriptor &operator=(Descriptor &&other) noexcept
    {
        std::swap(descriptor_, other.descriptor_);
        return *this;
    }

    int get() const
    {
        return descriptor_;
    }

    // False, with errno set, when what was written may not have arrived.
    bool close()
    {
        return ::close(std::exchange(descriptor_, -1)) == 0;
    }

private:
    int descriptor_;
};

struct CloseSoundFile {
    void operator()(SNDFILE *file) const
    {
        sf_close(file);
    }
};
using SoundFile = std::unique_ptr<SNDFILE, CloseSoundFile>;

} // namespace noxplugins

#endif
