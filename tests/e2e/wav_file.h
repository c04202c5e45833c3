// WAV files for the end-to-end tests.
#ifndef NOX_TESTS_E2E_WAV_FILE_H
#define NOX_TESTS_E2E_WAV_FILE_H

#include <cstdint>
#include <string>
#include <vector>

#include <sndfile.h>

struct Wav {
    int rate = 0;
    int channels = 0;
    std::vector<int16_t> samples;
};

// Reads a whole file; without samples when it cannot be read.
Wav read_wav(const std::string &path);

void write_wav(const std::string &path, const Wav &wav,
               int format = SF_FORMAT_WAV | SF_FORMAT_PCM_16);

// Samples that run through the whole range, so that no two buffers are alike.
Wav sweep(int rate, int channels, size_t frames);

#endif
