// Accessors of the buffer's fields: each reads or stores one field and no more.

#include "noxbuffer.h"

#define NOX_BUFFER_GET(type, field)                                                                \
    type nox_buffer_get_##field(NOXBuffer *buffer)                                                 \
    {                                                                                              \
        return buffer->field;                                                                      \
    }

#define NOX_BUFFER_GET_SET(type, field)                                                            \
    NOX_BUFFER_GET(type, field)                                                                    \
    void nox_buffer_set_##field(NOXBuffer *buffer, type value)                                     \
    {                                                                                              \
        buffer->field = value;                                                                     \
    }

NOX_BUFFER_GET(uint8_t *, data)
NOX_BUFFER_GET(uint32_t, datasize)
NOX_BUFFER_GET(void *, extradata)
NOX_BUFFER_GET(uint32_t, extradatasize)
NOX_BUFFER_GET_SET(uint64_t, timestamp)
NOX_BUFFER_GET_SET(uint64_t, duration)
NOX_BUFFER_GET_SET(uint64_t, durationUs)
NOX_BUFFER_GET_SET(int32_t, mediatype)
NOX_BUFFER_GET_SET(int32_t, frametype)
NOX_BUFFER_GET_SET(int32_t, index)
NOX_BUFFER_GET_SET(int32_t, bufindex)
NOX_BUFFER_GET_SET(uint64_t, param)
NOX_BUFFER_GET_SET(NOXBufferSyncFunc, syncfunc)

int32_t nox_buffer_set_finalize_func(NOXBuffer *buffer, NOXBufferFinalizeFunc finalize,
                                     uint64_t param)
{
    buffer->finalize_func = finalize;
    buffer->param = param;
    return 0;
}

int32_t nox_buffer_set_private(NOXBuffer *buffer, void *private_value)
{
    buffer->private_ = private_value;
    return 0;
}

void *nox_buffer_get_private(NOXBuffer *buffer)
{
    return buffer->private_;
}

int32_t nox_buffer_set_private2(NOXBuffer *buffer, const NOXBufferPrivate2 *pair)
{
    return nox_buffer_set_private2_each(buffer, pair->value64, pair->value32);
}

int32_t nox_buffer_set_private2_each(NOXBuffer *buffer, uint64_t value64, uint32_t value32)
{
    buffer->private2.value64 = value64;
    buffer->private2.value32 = value32;
    return 0;
}

NOXBufferPrivate2 *nox_buffer_get_private2(NOXBuffer *buffer)
{
    return &buffer->private2;
}

int32_t nox_buffer_set_extradata(NOXBuffer *buffer, void *extradata, uint32_t size)
{
    buffer->extradata = extradata;
    buffer->extradatasize = size;
    return 0;
}

int32_t nox_buffer_set_parent(NOXBuffer *buffer, void *parent)
{
    return nox_object_set_parent(buffer, parent);
}

void *nox_buffer_get_parent(NOXBuffer *buffer)
{
    return nox_object_get_parent(buffer);
}
