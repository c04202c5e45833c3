// volume: multiplies 16-bit samples by a gain, and keeps what exceeds the range at
// its ends instead of wrapping it.

#include <algorithm>
#include <atomic>
#include <cmath>
#include <limits>

#include "common/element.h"
#include "common/options.h"
#include "common/output.h"
#include "common/report.h"
#include "common/samples.h"
#include "common/stream.h"
#include "nox.h"
#include "noxbasefilter.h"

using namespace noxplugins;

namespace
{

struct State {
    std::atomic<float> gain{1.0F}; // may be set while the stream flows
    StreamFormat stream{};         // channels 0: not known yet
};

using Volume = Element<NOXBaseFilter, State>;

int16_t amplified(int16_t sample, float gain)
{
    constexpr float kLowest = std::numeric_limits<int16_t>::min();
    constexpr float kHighest = std::numeric_limits<int16_t>::max();
    return static_cast<int16_t>(
        std::lrint(std::clamp(static_cast<float>(sample) * gain, kLowest, kHighest)));
}

int32_t volume_setformat(NOXBaseFilter *filter, NOXStructure *format)
{
    float gain = 0;
    const Option found = take_option(filter, format, "gain", gain);
    if (found != Option::taken)
        return found == Option::refused ? -1 : 0;
    if (!std::isfinite(gain) || gain < 0)
        return report(filter, PLUGIN_MSG_OPTION, "option gain must be 0 or above, and not %g",
                      static_cast<double>(gain));
    Volume::of(filter)->state.gain = gain;
    return 0;
}

int32_t volume_getformat(NOXBaseFilter *filter, NOXStructure *format)
{
    if (put_option(format, "gain", Volume::of(filter)->state.gain.load()) != 0)
        return -1;
    return forward_upstream_format(filter, format);
}

// Leaving NULL is where a stream that cannot be handled is refused.
int32_t volume_setstate(NOXBaseFilter *filter, int32_t state)
{
    State &own = Volume::of(filter)->state;
    if (state == NOX_STATE_NULL || own.stream.channels > 0)
        return 0;
    return take_upstream_format(filter, own.stream) ? 0 : -1;
}

int32_t volume_start(NOXBaseFilter *filter)
{
    return Volume::of(filter)->state.stream.channels > 0 ? 0 : -1;
}

int32_t volume_stop(NOXBaseFilter *filter)
{
    Volume::of(filter)->state.stream = {};
    return 0;
}

void amplify(const NOXMemory *input, NOXMemory *output, float gain)
{
    for (uint32_t offset = 0; offset < input->datasize; offset += sizeof(int16_t))
        store_sample(output->data + offset, amplified(load_sample(input->data + offset), gain));
}

// An output buffer laid out like the input, with its metadata.
NOXBuffer *output_like(NOXBaseFilter *filter, NOXBuffer *input)
{
    NOXBufferRequest request{};
    for_each_block(input, [&](NOXMemory *memory) -> int32_t {
        request.sizes[request.count++] = nox_memory_get_datasize(memory);
        return 0;
    });
    NOXBuffer *output = take_outbuffer(filter, request);
    if (output == nullptr)
        return nullptr;
    nox_buffer_copy_metadata(input, output);
    nox_buffer_set_durationUs(output, nox_buffer_get_durationUs(input));
    return output;
}

void amplify_into(NOXBaseFilter *filter, NOXBuffer *input, NOXBuffer *output)
{
    const float gain = Volume::of(filter)->state.gain;
    int32_t slot = 0;
    for_each_block(input, [&](NOXMemory *from) -> int32_t {
        amplify(from, nox_buffer_get_memory(output, slot++), gain);
        return 0;
    });
}

int32_t volume_chain(NOXBaseFilter *filter, NOXBuffer *input)
{
    const StreamFormat &stream = Volume::of(filter)->state.stream;
    if (stream.channels == 0 || !holds_whole_frames(filter, input, stream.frame_size()))
        return -1;
    NOXBuffer *output = output_like(filter, input);
    if (output == nullptr)
        return -1;
    amplify_into(filter, input, output);
    const int32_t result = nox_plugin_push_buffer(&filter->plugin, output);
    nox_object_delete(output);
    return result;
}

int32_t volume_init(NOXPlugin *plugin)
{
    auto *filter = reinterpret_cast<NOXBaseFilter *>(plugin);
    if (nox_basefilter_init(filter) != 0)
        return -1;
    Volume::construct(plugin);
    filter->setformat_func = volume_setformat;
    filter->getformat_func = volume_getformat;
    filter->setstate_func = volume_setstate;
    filter->start_func = volume_start;
    filter->stop_func = volume_stop;
    filter->chain_func = volume_chain;
    filter->finalize_func = Volume::finalize;
    return 0;
}

} // namespace

void plugin_desc(NOXPluginDesc *desc)
{
    *desc = {"volume", "libnoxcore", sizeof(Volume), volume_init};
}
