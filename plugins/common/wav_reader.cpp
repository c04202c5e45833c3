#include "common/wav_reader.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <endian.h>

namespace noxplugins
{

namespace
{

constexpr uint32_t kAllOnes = 0xFFFFFFFF;
constexpr uint32_t kLongSizesBytes = 28;
constexpr uint64_t kMostShort = kAllOnes - kMostHeaderBytes; // of samples, in 32 bits

// Writes a header from its beginning.
class HeaderWriter
{
public:
    HeaderWriter(uint8_t *bytes, bool is_big_endian) : m_end(bytes), m_is_big_endian(is_big_endian)
    {
    }
    void put(const void *bytes, size_t size)
    {
        std::memcpy(m_end, bytes, size);
        m_end += size;
    }
    void put_chunk(const char *id, uint32_t size)
    {
        const uint32_t stored = m_is_big_endian ? htobe32(size) : htole32(size);
        put(id, 4);
        put(&stored, sizeof stored);
    }
    void put_long(uint64_t value)
    {
        const uint64_t stored = htole64(value);
        put(&stored, sizeof stored);
    }
    const uint8_t *end() const
    {
        return m_end;
    }

private:
    uint8_t *m_end;
    bool m_is_big_endian;
};

} // namespace

WavReader::WavReader(Descriptor descriptor, const WavLayout &layout)
    : m_descriptor(std::move(descriptor)), m_samples_begin(layout.samples_begin),
      m_samples_size(layout.samples_size)
{
    if (layout.is_big_endian) // there are no long sizes in that order
        m_samples_size = std::min(m_samples_size, kMostShort);
    const bool is_long = m_samples_size > kMostShort;
    const uint32_t format_size = layout.format_size + layout.format_size % 2;
    const auto short_size = static_cast<uint32_t>(m_samples_size);
    HeaderWriter header(m_header, layout.is_big_endian);
    const uint32_t before_samples = 4 + 8 + format_size + 8;
    if (is_long) {
        header.put_chunk("RF64", kAllOnes);
        header.put("WAVE", 4);
        header.put_chunk("ds64", kLongSizesBytes);
        header.put_long(before_samples + 8 + kLongSizesBytes + m_samples_size);
        header.put_long(m_samples_size);
        header.put_long(0);      // frames: not looked at where data has a size
        header.put("\0\0\0", 4); // entries of a table of further sizes
        header.put_chunk("fmt ", format_size);
    } else {
        header.put_chunk(layout.is_big_endian ? "RIFX" : "RIFF", before_samples + short_size);
        header.put("WAVE", 4);
        header.put_chunk("fmt ", format_size);
    }
    header.put(layout.format, format_size);
    header.put_chunk("data", is_long ? kAllOnes : short_size);
    m_header_size = static_cast<uint32_t>(header.end() - m_header);
}

bool WavReader::open(SF_INFO &info)
{
    static SF_VIRTUAL_IO access = {
        [](void *self) { return static_cast<WavReader *>(self)->size(); },
        [](sf_count_t offset, int whence, void *self) {
            return static_cast<WavReader *>(self)->seek(offset, whence);
        },
        [](void *bytes, sf_count_t count, void *self) {
            return static_cast<WavReader *>(self)->read(static_cast<char *>(bytes), count);
        },
        nullptr, // nothing is written
        [](void *self) { return static_cast<WavReader *>(self)->m_position; },
    };
    m_file.reset(sf_open_virtual(&access, SFM_READ, &info, this));
    return m_file != nullptr;
}

sf_count_t WavReader::size() const
{
    return m_header_size + static_cast<sf_count_t>(m_samples_size);
}

sf_count_t WavReader::seek(sf_count_t offset, int whence)
{
    const sf_count_t base = whence == SEEK_SET ? 0 : whence == SEEK_CUR ? m_position : size();
    if (offset < -base || offset > size() - base)
        return -1;
    m_position = base + offset;
    return m_position;
}

// As many bytes as there are; fewer when the file has shrunk or cannot be read.
sf_count_t WavReader::read(char *bytes, sf_count_t count)
{
    sf_count_t done = 0;
    m_read_error = 0;
    while (done < count && m_position < size()) {
        const sf_count_t left = std::min(count - done, size() - m_position);
        ssize_t got = 0;
        if (m_position < m_header_size) {
            got = std::min<ssize_t>(left, m_header_size - m_position);
            std::memcpy(bytes + done, m_header + m_position, static_cast<size_t>(got));
        } else {
            const auto place = static_cast<off_t>(m_samples_begin) + m_position - m_header_size;
            got = pread(m_descriptor.get(), bytes + done, static_cast<size_t>(left), place);
        }
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            m_read_error = errno;
        if (got <= 0)
            break;
        done += got;
        m_position += got;
    }
    return done;
}

} // namespace noxplugins
