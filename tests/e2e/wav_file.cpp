// Reads and writes WAV files with libsndfile alone.

#include "wav_file.h"

Wav read_wav(const std::string &path)
{
    SF_INFO info{};
    SNDFILE *file = sf_open(path.c_str(), SFM_READ, &info);
    if (file == nullptr)
        return {};
    Wav wav{info.samplerate, info.channels, {}};
    wav.samples.resize(static_cast<size_t>(info.frames) * static_cast<size_t>(info.channels));
    sf_readf_short(file, wav.samples.data(), info.frames);
    sf_close(file);
    return wav;
}

void write_wav(const std::string &path, const Wav &wav, int format)
{
    SF_INFO info{};
    info.samplerate = wav.rate;
    info.channels = wav.channels;
    info.format = format;
    SNDFILE *file = sf_open(path.c_str(), SFM_WRITE, &info);
    sf_write_short(file, wav.samples.data(), static_cast<sf_count_t>(wav.samples.size()));
    sf_close(file);
}

Wav sweep(int rate, int channels, size_t frames)
{
    Wav wav{rate, channels, std::vector<int16_t>(frames * static_cast<size_t>(channels))};
    for (size_t index = 0; index < wav.samples.size(); ++index)
        wav.samples[index] = static_cast<int16_t>(index * 7919 % 65536);
    return wav;
}
