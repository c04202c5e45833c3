// Passes the facts of a stream from plugin to plugin.

#include "common/stream.h"

#include <bit>
#include <cstring>
#include <memory>

#include "common/options.h"
#include "common/report.h"

static_assert(std::endian::native == std::endian::little,
              "samples are handed on as they lie in memory, under the name s16le");

namespace noxplugins
{

namespace
{

constexpr char kSigned16[] = "s16le";

struct DropReference {
    void operator()(NOXStructure *structure) const
    {
        nox_object_delete(structure);
    }
};
using Structure = std::unique_ptr<NOXStructure, DropReference>;

Structure ask_upstream(const NOXPlugin *plugin)
{
    NOXPlugin *upstream = plugin->prev;
    if (upstream == nullptr || upstream->getformat_func == nullptr)
        return nullptr;
    Structure answer(nox_structure_new("upstream"));
    if (answer == nullptr || nox_plugin_getformat(upstream, answer.get()) != 0)
        return nullptr;
    return answer;
}

bool read_stream(NOXStructure *answer, StreamFormat &stream)
{
    return nox_structure_getvar_uint32(answer, kStreamRate, &stream.rate) == 0 &&
           nox_structure_getvar_uint32(answer, kStreamChannels, &stream.channels) == 0 &&
           stream.rate > 0 && stream.channels > 0;
}

int32_t enter(NOXStructure *format, const char *sample, const StreamFormat &stream)
{
    const bool entered = put_option(format, kStreamFormat, sample) == 0 &&
                         put_option(format, kStreamRate, stream.rate) == 0 &&
                         put_option(format, kStreamChannels, stream.channels) == 0;
    return entered ? 0 : -1;
}

} // namespace

int32_t put_stream_format(NOXStructure *format, const StreamFormat &stream)
{
    return enter(format, kSigned16, stream);
}

bool take_upstream_format(void *plugin, StreamFormat &stream)
{
    auto *self = static_cast<NOXPlugin *>(plugin);
    const Structure answer = ask_upstream(self);
    const char *sample =
        answer == nullptr ? nullptr : nox_structure_getvar_string(answer.get(), kStreamFormat);
    if (sample == nullptr) {
        report(plugin, PLUGIN_MSG_FORMAT, "%s does not say what it hands on",
               self->prev == nullptr ? "nobody upstream" : self->prev->object.name);
        return false;
    }
    if (std::strcmp(sample, kSigned16) != 0 || !read_stream(answer.get(), stream)) {
        report(plugin, PLUGIN_MSG_FORMAT, "%s hands on %s; 16-bit PCM (%s) is needed",
               self->prev->object.name, sample, kSigned16);
        return false;
    }
    return true;
}

bool know_upstream_format(void *plugin, StreamFormat &stream)
{
    const Structure answer = ask_upstream(static_cast<NOXPlugin *>(plugin));
    const char *sample =
        answer == nullptr ? nullptr : nox_structure_getvar_string(answer.get(), kStreamFormat);
    return sample != nullptr && std::strcmp(sample, kSigned16) == 0 &&
           read_stream(answer.get(), stream);
}

int32_t forward_upstream_format(void *plugin, NOXStructure *format)
{
    const Structure answer = ask_upstream(static_cast<NOXPlugin *>(plugin));
    StreamFormat stream{};
    if (answer == nullptr || !read_stream(answer.get(), stream))
        return 0;
    return enter(format, nox_structure_getvar_string(answer.get(), kStreamFormat), stream);
}

} // namespace noxplugins
