/*
 * mono: a filter that makes one channel of many, by mixing them or by picking one.
 *
 * Takes interleaved 16-bit samples, little-endian ("s16le"), and hands on the same
 * with one channel. Option "channel" (uint32): 0, the default, mixes all channels;
 * 1, 2, ... picks that one. It may be set while the stream flows.
 *
 * Threads: formats and states change on the application's thread, one at a time;
 * chain runs on the source's thread. `input` is written before that thread starts
 * and after it has ended; only `channel` is shared while both run, hence atomic.
 */

#include <stdarg.h>
#include <stdatomic.h>
#include <stdbool.h>
#include <stdio.h>
#include <string.h>

#include <noxcore.h>
#include <plugin_messages.h>

enum { SAMPLE_SIZE = 2, MOST_CHANNELS = 1024 };

/* What flows in, as the upstream plugin says. */
typedef struct Stream {
    uint32_t rate;     /* frames a second */
    uint32_t channels; /* samples in a frame; 0: not known */
} Stream;

/* The record of one filter. It begins with that of its base class, so a pointer to
 * the one is a pointer to the other. It comes filled with zeros. */
typedef struct Mono {
    NOXBaseFilter base;
    _Atomic uint32_t channel; /* the option */
    Stream input;             /* known from leaving NULL to stop */
} Mono;

/* Tells the application what is wrong: on the bus, or as a trace while the plugin
 * is in no pipe. Returns -1, so that a failing function can end with it. */
OSA_PRINTF(3, 4)
static int32_t report(Mono *self, int32_t code, const char *format, ...)
{
    char text[256];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);

    NOXPlugin *plugin = &self->base.plugin;
    if (plugin->bus != NULL)
        nox_plugin_error_post(plugin, code, text);
    else
        OSA_Trace(plugin->object.name, OSA_TRACE_ERROR, "mono", __LINE__, __func__, "%s\n", text);
    return -1;
}

/* Asks the plugin upstream what it hands on. The facts are entries of its format,
 * as docs/plugins.md lists them. False when it does not say, or not all. */
static bool ask_upstream(const Mono *self, Stream *stream)
{
    NOXPlugin *upstream = self->base.plugin.prev;
    if (upstream == NULL)
        return false;
    NOXStructure *answer = nox_structure_new("upstream");
    if (answer == NULL)
        return false;
    bool known = false;
    if (nox_plugin_getformat(upstream, answer) == 0) {
        const char *format = nox_structure_getvar_string(answer, "stream.format");
        known = format != NULL && strcmp(format, "s16le") == 0 &&
                nox_structure_getvar_uint32(answer, "stream.rate", &stream->rate) == 0 &&
                nox_structure_getvar_uint32(answer, "stream.channels", &stream->channels) == 0;
    }
    nox_object_delete(answer);
    return known && stream->channels > 0;
}

/* Whether the option and the stream fit; the stream may not be known yet. */
static int32_t check_channel(Mono *self, uint32_t channel, uint32_t channels)
{
    if (channels == 0 || channel <= channels)
        return 0;
    return report(self, PLUGIN_MSG_OPTION, "option channel is %u, but the stream has %u channels",
                  channel, channels);
}

/* A format holds the options that are to change. One of the wrong type is refused:
 * the getters of a structure would take it for one that is not there. */
static int32_t mono_setformat(NOXBaseFilter *filter, NOXStructure *format)
{
    Mono *self = (Mono *)filter;
    const NOXStructureNode *option = nox_sturcture_search_node(format, "channel");
    if (option == NULL)
        return 0;
    if (option->type != NOX_TYPE_UINT32)
        return report(self, PLUGIN_MSG_OPTION, "option channel must be of type uint32");
    if (check_channel(self, option->value.uint32_value, self->input.channels) != 0)
        return -1;
    atomic_store(&self->channel, option->value.uint32_value);
    return 0;
}

/* Enters the options with their present values, and the facts of what is handed on
 * as far as they are known: the next plugin asks for them before the stream flows,
 * and an application may ask at any time. */
static int32_t mono_getformat(NOXBaseFilter *filter, NOXStructure *format)
{
    Mono *self = (Mono *)filter;
    const uint32_t channel = atomic_load(&self->channel);
    if (nox_structure_putvar_uint32(format, "channel", 0, &channel) != 0)
        return -1;

    Stream input;
    if (!ask_upstream(self, &input))
        return 0;
    const char *sample = "s16le";
    const uint32_t one = 1;
    if (nox_structure_putvar_string(format, "stream.format", 0, &sample) != 0 ||
        nox_structure_putvar_uint32(format, "stream.rate", 0, &input.rate) != 0)
        return -1;
    return nox_structure_putvar_uint32(format, "stream.channels", 0, &one);
}

/* Leaving NULL is where a stream that cannot be handled is refused. A base filter
 * needs this function: without one every change of state fails. */
static int32_t mono_setstate(NOXBaseFilter *filter, int32_t state)
{
    Mono *self = (Mono *)filter;
    if (state == NOX_STATE_NULL || self->input.channels > 0)
        return 0;
    Stream input;
    if (!ask_upstream(self, &input))
        return report(self, PLUGIN_MSG_FORMAT, "nobody upstream says that it hands on s16le");
    if (input.channels > MOST_CHANNELS)
        return report(self, PLUGIN_MSG_FORMAT, "got %u channels; %d can be mixed", input.channels,
                      MOST_CHANNELS);
    if (check_channel(self, atomic_load(&self->channel), input.channels) != 0)
        return -1;
    self->input = input;
    return 0;
}

/* A change to PLAY gives start's result and drops that of setstate, so a filter that
 * goes there without a stop in READY refuses here. */
static int32_t mono_start(NOXBaseFilter *filter)
{
    return ((Mono *)filter)->input.channels > 0 ? 0 : -1;
}

/* The next run may bring another stream. */
static int32_t mono_stop(NOXBaseFilter *filter)
{
    ((Mono *)filter)->input = (Stream){0};
    return 0;
}

/* By bytes: they need not be aligned, and their order is the stream's. */
static int32_t load_sample(const uint8_t *bytes)
{
    return (int16_t)(bytes[0] | bytes[1] << 8);
}

static void store_sample(uint8_t *bytes, int32_t sample)
{
    bytes[0] = (uint8_t)(sample & 0xFF);
    bytes[1] = (uint8_t)(sample >> 8 & 0xFF);
}

static int32_t mixed(const uint8_t *frame, uint32_t channels)
{
    int32_t sum = 0; /* does not overflow: MOST_CHANNELS times 2^15 */
    for (uint32_t index = 0; index < channels; ++index)
        sum += load_sample(frame + index * SAMPLE_SIZE);
    return sum / (int32_t)channels;
}

static void convert(NOXMemory *input, NOXMemory *output, uint32_t channels, uint32_t channel)
{
    const uint32_t frame_size = channels * SAMPLE_SIZE;
    const uint8_t *from = nox_memory_get_data(input);
    uint8_t *to = nox_memory_get_data(output);
    for (uint32_t left = nox_memory_get_datasize(input) / frame_size; left > 0; --left) {
        const int32_t sample =
            channel == 0 ? mixed(from, channels) : load_sample(from + (channel - 1) * SAMPLE_SIZE);
        store_sample(to, sample);
        from += frame_size;
        to += SAMPLE_SIZE;
    }
}

/* A buffer has up to three blocks, in any of its slots. The output gets one block for
 * each of the input, and the input's times. It may come from the plugin downstream,
 * which may have memory of its own to be written into. */
static NOXBuffer *new_output(Mono *self, NOXBuffer *input)
{
    const uint32_t frame_size = self->input.channels * SAMPLE_SIZE;
    NOXBufferRequest request = {0};
    for (int32_t slot = 0; slot < NOX_BUFFER_MEMORIES; ++slot) {
        NOXMemory *memory = nox_buffer_get_memory(input, slot);
        if (memory == NULL)
            continue;
        const uint32_t size = nox_memory_get_datasize(memory);
        if (size % frame_size != 0) {
            report(self, PLUGIN_MSG_FORMAT, "got %u bytes, which are no whole frames of %u bytes",
                   size, frame_size);
            return NULL;
        }
        request.sizes[request.count++] = size / self->input.channels;
    }
    NOXBuffer *output = nox_plugin_get_outbuffer(&self->base.plugin, &request);
    if (output == NULL) {
        report(self, PLUGIN_MSG_MEMORY, "no memory for a buffer");
        return NULL;
    }
    nox_buffer_copy_metadata(input, output);
    nox_buffer_set_durationUs(output, nox_buffer_get_durationUs(input));
    return output;
}

static int32_t convert_all(Mono *self, NOXBuffer *input, NOXBuffer *output)
{
    const uint32_t channels = self->input.channels;
    const uint32_t channel = atomic_load(&self->channel); /* one for the whole buffer */
    int32_t out_slot = 0;
    for (int32_t slot = 0; slot < NOX_BUFFER_MEMORIES; ++slot) {
        NOXMemory *from = nox_buffer_get_memory(input, slot);
        if (from == NULL)
            continue;
        NOXMemory *to = nox_buffer_get_memory(output, out_slot++);
        /* One that is too large would go on with bytes that nobody has written. */
        if (to == NULL || nox_memory_get_datasize(to) != nox_memory_get_datasize(from) / channels)
            return report(self, PLUGIN_MSG_MEMORY, "got an output block of a size not asked for");
        convert(from, to, channels, channel);
    }
    if (nox_buffer_get_memcnt(output) != out_slot)
        return report(self, PLUGIN_MSG_MEMORY, "got more output blocks than asked for");
    return 0;
}

/* The input is lent for this call, and others may read it too: it is never written.
 * The output is this function's own; the push lends it, and then it is given back. */
static int32_t mono_chain(NOXBaseFilter *filter, NOXBuffer *input)
{
    Mono *self = (Mono *)filter;
    if (self->input.channels == 0)
        return -1; /* started although it had refused the stream, and said so */
    NOXBuffer *output = new_output(self, input);
    if (output == NULL)
        return -1;
    int32_t result = convert_all(self, input, output);
    if (result == 0)
        result = nox_plugin_push_buffer(&self->base.plugin, output);
    nox_object_delete(output);
    return result;
}

/* Nothing of its own to release, but without this function finalize fails. */
static int32_t mono_finalize(NOXBaseFilter *filter)
{
    (void)filter;
    return 0;
}

static int32_t mono_init(NOXPlugin *plugin)
{
    NOXBaseFilter *filter = (NOXBaseFilter *)plugin;
    if (nox_basefilter_init(filter) != 0)
        return -1;
    filter->setformat_func = mono_setformat;
    filter->getformat_func = mono_getformat;
    filter->setstate_func = mono_setstate;
    filter->start_func = mono_start;
    filter->stop_func = mono_stop;
    filter->chain_func = mono_chain;
    filter->finalize_func = mono_finalize;
    return 0;
}

/* The one function that the library exports. */
void plugin_desc(NOXPluginDesc *desc)
{
    desc->name = "mono";
    desc->author = "libnoxcore examples";
    desc->size = (int32_t)sizeof(Mono);
    desc->init = mono_init;
}
