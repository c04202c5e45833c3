// Reads the samples of a WAV file with libsndfile.
#ifndef NOX_PLUGINS_COMMON_WAV_READER_H
#define NOX_PLUGINS_COMMON_WAV_READER_H

#include "common/riff.h"
#include "common/sound_file.h"

namespace noxplugins
{

// RF64 and WAVE, the long sizes, the format, the beginning of the samples.
constexpr uint32_t kMostHeaderBytes = 12 + (8 + 28) + (8 + kMostFormatBytes) + 8;

// libsndfile sees the format and the samples alone, behind a header that is made here. What
// else stands in a file (lists, cues, broadcast records) is nothing that is played, and a
// crafted one can keep the library's look at it from ever ending.
class WavReader
{
public:
    WavReader(Descriptor descriptor, const WavLayout &layout);
    WavReader(const WavReader &) = delete;
    WavReader &operator=(const WavReader &) = delete;

    // False when it does not know the format; sf_strerror(nullptr) says why.
    bool open(SF_INFO &info);

    // Null until it is opened.
    SNDFILE *file() const
    {
        return m_file.get();
    }

    // errno of the last read, or 0 when that did not fail.
    int read_error() const
    {
        return m_read_error;
    }

private:
    sf_count_t seek(sf_count_t offset, int whence);
    sf_count_t read(char *bytes, sf_count_t count);
    sf_count_t size() const;

    Descriptor m_descriptor;
    uint8_t m_header[kMostHeaderBytes];
    uint32_t m_header_size = 0;
    uint64_t m_samples_begin;
    uint64_t m_samples_size;
    sf_count_t m_position = 0;
    int m_read_error = 0;
    SoundFile m_file; // is closed before what it reads
};

} // namespace noxplugins

#endif
