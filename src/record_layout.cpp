// Pins the layout of every public record. Plugin libraries are built against
// these offsets, so none of them may move once released.

#include <cstddef>

#include "noxcore.h"

static_assert(sizeof(void *) == 8 && sizeof(long) == 8, "the records are laid out for LP64");

#define NOX_FIELD(record, field, offset)                                                           \
    static_assert(offsetof(record, field) == (offset), #record "." #field)
#define NOX_SIZE(record, bytes) static_assert(sizeof(record) == (bytes), #record)

NOX_FIELD(OSA_ListNode, data, 0);
NOX_FIELD(OSA_ListNode, next, 8);
NOX_FIELD(OSA_ListNode, prev, 16);
NOX_SIZE(OSA_ListNode, 24);

NOX_FIELD(NOXObject, size, 0);
NOX_FIELD(NOXObject, name, 8);
NOX_FIELD(NOXObject, refcount, 16);
NOX_FIELD(NOXObject, parent, 24);
NOX_FIELD(NOXObject, mutex, 32);
NOX_FIELD(NOXObject, finalize, 40);
NOX_FIELD(NOXObject, library, 48);
NOX_SIZE(NOXObject, 56);

NOX_FIELD(NOXPluginDesc, name, 0);
NOX_FIELD(NOXPluginDesc, author, 8);
NOX_FIELD(NOXPluginDesc, size, 16);
NOX_FIELD(NOXPluginDesc, init, 24);
NOX_SIZE(NOXPluginDesc, 32);

NOX_FIELD(NOXStructureNode, type, 0);
NOX_FIELD(NOXStructureNode, size, 4);
NOX_FIELD(NOXStructureNode, extra, 8);
NOX_FIELD(NOXStructureNode, name, 16);
NOX_FIELD(NOXStructureNode, value, 272);
NOX_SIZE(NOXStructureNode, 280);
NOX_FIELD(NOXStructure, vars, 56);
NOX_SIZE(NOXStructure, 64);

NOX_FIELD(NOXMemory, datasize, 56);
NOX_FIELD(NOXMemory, allocsize, 60);
NOX_FIELD(NOXMemory, data, 64);
NOX_FIELD(NOXMemory, private_, 72);
NOX_FIELD(NOXMemory, finalize_func, 80);
NOX_SIZE(NOXMemory, 88);

NOX_FIELD(NOXBuffer, timestamp, 56);
NOX_FIELD(NOXBuffer, duration, 64);
NOX_FIELD(NOXBuffer, durationUs, 72);
NOX_FIELD(NOXBuffer, mediatype, 80);
NOX_FIELD(NOXBuffer, frametype, 84);
NOX_FIELD(NOXBuffer, datasize, 88);
NOX_FIELD(NOXBuffer, data, 96);
NOX_FIELD(NOXBuffer, index, 104);
NOX_FIELD(NOXBuffer, bufindex, 108);
NOX_FIELD(NOXBuffer, private_, 112);
NOX_FIELD(NOXBuffer, private2, 120);
NOX_FIELD(NOXBufferPrivate2, value32, 8);
NOX_SIZE(NOXBufferPrivate2, 16);
NOX_FIELD(NOXBuffer, param, 136);
NOX_FIELD(NOXBuffer, extradata, 144);
NOX_FIELD(NOXBuffer, extradatasize, 152);
NOX_FIELD(NOXBuffer, mems, 160);
NOX_FIELD(NOXBuffer, finalize_func, 184);
NOX_FIELD(NOXBuffer, syncfunc, 192);
NOX_SIZE(NOXBuffer, 200);

NOX_FIELD(NOXBufAdpt, buffers, 56);
NOX_FIELD(NOXBufAdpt, stage, 64);
NOX_FIELD(NOXBufAdpt, cur, 80);
NOX_FIELD(NOXBufAdpt, avail, 88);
NOX_FIELD(NOXBufAdpt, capacity, 92);
NOX_FIELD(NOXBufAdpt, active, 96);
NOX_FIELD(NOXBufAdpt, consumed, 100);
NOX_SIZE(NOXBufAdpt, 104);

NOX_FIELD(NOXBufferRequest, count, 0);
NOX_FIELD(NOXBufferRequest, reserved, 4);
NOX_FIELD(NOXBufferRequest, sizes, 8);
NOX_SIZE(NOXBufferRequest, 20);
NOX_FIELD(NOXAllocator, owner, 56);
NOX_FIELD(NOXAllocator, finalize_func, 64);
NOX_FIELD(NOXAllocator, allocate_func, 72);
NOX_FIELD(NOXAllocator, flush_func, 80);
NOX_SIZE(NOXAllocator, 88);

NOX_FIELD(NOXTimer, running, 56);
NOX_FIELD(NOXTimer, starttick, 64);
NOX_FIELD(NOXTimer, basetick, 72);
NOX_FIELD(NOXTimer, lasttick, 80);
NOX_FIELD(NOXTimer, time, 88);
NOX_FIELD(NOXTimer, stoptick, 96);
NOX_FIELD(NOXTimer, pauseoffset, 104);
NOX_FIELD(NOXTimer, streamts, 112);
NOX_FIELD(NOXTimer, timeset, 120);
NOX_FIELD(NOXTimer, startevent, 128);
NOX_FIELD(NOXTimer, rate, 136);
NOX_FIELD(NOXTimer, delay, 144);
NOX_SIZE(NOXTimer, 152);

NOX_FIELD(NOXBus, parent, 56);
NOX_FIELD(NOXBus, queue, 64);
NOX_FIELD(NOXBus, handler, 72);
NOX_FIELD(NOXBus, thread, 80);
NOX_FIELD(NOXBus, running, 88);
NOX_FIELD(NOXBus, handler_data, 96);
NOX_SIZE(NOXBus, 104);
NOX_FIELD(NOXBusMsg, name, 0);
NOX_FIELD(NOXBusMsg, code, 8);
NOX_FIELD(NOXBusMsg, text, 16);
NOX_SIZE(NOXBusMsg, 24);

NOX_FIELD(NOXEvent, data, 0);
NOX_FIELD(NOXEvent, type, 8);
NOX_SIZE(NOXEvent, 16);
NOX_FIELD(NOXPluginGroupMember, plugin, 0);
NOX_FIELD(NOXPluginGroupMember, attend, 8);
NOX_SIZE(NOXPluginGroupMember, 16);

NOX_FIELD(NOXPlugin, plgname, 56);
NOX_FIELD(NOXPlugin, bus, 64);
NOX_FIELD(NOXPlugin, timer, 72);
NOX_FIELD(NOXPlugin, started, 80);
NOX_FIELD(NOXPlugin, prev, 88);
NOX_FIELD(NOXPlugin, next, 96);
NOX_FIELD(NOXPlugin, group, 104);
NOX_FIELD(NOXPlugin, nextlist, 112);
NOX_FIELD(NOXPlugin, state, 120);
NOX_FIELD(NOXPlugin, allocator, 128);
NOX_FIELD(NOXPlugin, outallocator, 136);
NOX_FIELD(NOXPlugin, outallocator_set, 144);
NOX_FIELD(NOXPlugin, state_event, 152);
NOX_FIELD(NOXPlugin, issrc, 160);
NOX_FIELD(NOXPlugin, issink, 161);
NOX_FIELD(NOXPlugin, busy, 162);
NOX_FIELD(NOXPlugin, hasthread_, 163);
NOX_FIELD(NOXPlugin, onroad_, 164);
NOX_FIELD(NOXPlugin, stopping_, 165);
NOX_FIELD(NOXPlugin, tostop_, 166);
NOX_FIELD(NOXPlugin, reserved, 168);
NOX_FIELD(NOXPlugin, setstate_func, 176);
NOX_FIELD(NOXPlugin, link_func, 184);
NOX_FIELD(NOXPlugin, prepare_func, 192);
NOX_FIELD(NOXPlugin, chain_func, 200);
NOX_FIELD(NOXPlugin, setformat_func, 208);
NOX_FIELD(NOXPlugin, getformat_func, 216);
NOX_FIELD(NOXPlugin, getallocator_func, 224);
NOX_FIELD(NOXPlugin, finalize_func, 232);
NOX_FIELD(NOXPlugin, event_func, 240);
NOX_FIELD(NOXPlugin, start_func, 248);
NOX_FIELD(NOXPlugin, stop_func, 256);
NOX_SIZE(NOXPlugin, 264);

NOX_FIELD(NOXPipe, plugins, 264);
NOX_FIELD(NOXPipe, busref, 272);
NOX_FIELD(NOXPipe, clock, 280);
NOX_FIELD(NOXPipe, basereftime, 288);
NOX_FIELD(NOXPipe, clocksrc, 296);
NOX_FIELD(NOXPipe, clockrate, 304);
NOX_FIELD(NOXPipe, option, 308);
NOX_FIELD(NOXPipe, running, 312);
NOX_FIELD(NOXPipe, thread, 320);
NOX_FIELD(NOXPipe, msgq, 328);
NOX_SIZE(NOXPipe, 336);
NOX_FIELD(NOXClockRateChange, previous, 0);
NOX_FIELD(NOXClockRateChange, rate, 4);
NOX_SIZE(NOXClockRateChange, 8);
NOX_FIELD(NOXPipeMsg, pipe, 0);
NOX_FIELD(NOXPipeMsg, kind, 8);
NOX_FIELD(NOXPipeMsg, state, 12);
NOX_FIELD(NOXPipeMsg, callback, 16);
NOX_SIZE(NOXPipeMsg, 24);

NOX_FIELD(NOXBaseSrc, thread, 264);
NOX_FIELD(NOXBaseSrc, stacksize, 272);
NOX_FIELD(NOXBaseSrc, priority, 276);
NOX_FIELD(NOXBaseSrc, dataready, 280);
NOX_FIELD(NOXBaseSrc, waitallsrc, 281);
NOX_FIELD(NOXBaseSrc, islive, 282);
NOX_FIELD(NOXBaseSrc, usethread, 283);
NOX_FIELD(NOXBaseSrc, lastts, 288);
NOX_FIELD(NOXBaseSrc, maxframes, 296);
NOX_FIELD(NOXBaseSrc, framecount, 300);
NOX_FIELD(NOXBaseSrc, eos, 304);
NOX_FIELD(NOXBaseSrc, restartreq, 305);
NOX_FIELD(NOXBaseSrc, errhandle, 308);
NOX_FIELD(NOXBaseSrc, errcount, 312);
NOX_FIELD(NOXBaseSrc, errcallback, 320);
NOX_FIELD(NOXBaseSrc, pausewait, 328);
NOX_FIELD(NOXBaseSrc, pauseevent, 336);
NOX_FIELD(NOXBaseSrc, start_func, 344);
NOX_FIELD(NOXBaseSrc, prestop_func, 352);
NOX_FIELD(NOXBaseSrc, stop_func, 360);
NOX_FIELD(NOXBaseSrc, setstate_func, 368);
NOX_FIELD(NOXBaseSrc, create_func, 376);
NOX_FIELD(NOXBaseSrc, postpush_func, 384);
NOX_FIELD(NOXBaseSrc, finalize_func, 392);
NOX_FIELD(NOXBaseSrc, setformat_func, 400);
NOX_FIELD(NOXBaseSrc, getformat_func, 408);
NOX_FIELD(NOXBaseSrc, event_func, 416);
NOX_FIELD(NOXBaseSrc, privatets, 424);
NOX_SIZE(NOXBaseSrc, 432);

NOX_FIELD(NOXBaseSink, sync, 264);
NOX_FIELD(NOXBaseSink, clock, 265);
NOX_FIELD(NOXBaseSink, setformat_func, 272);
NOX_FIELD(NOXBaseSink, getformat_func, 280);
NOX_FIELD(NOXBaseSink, setstate_func, 288);
NOX_FIELD(NOXBaseSink, start_func, 296);
NOX_FIELD(NOXBaseSink, stop_func, 304);
NOX_FIELD(NOXBaseSink, render_func, 312);
NOX_FIELD(NOXBaseSink, sync_func, 320);
NOX_FIELD(NOXBaseSink, finalize_func, 328);
NOX_FIELD(NOXBaseSink, event_func, 336);
NOX_FIELD(NOXBaseSink, verbose, 344);
NOX_FIELD(NOXBaseSink, frames, 348);
NOX_FIELD(NOXBaseSink, firstts, 352);
NOX_FIELD(NOXBaseSink, bytes, 360);
NOX_FIELD(NOXBaseSink, rateoutvar, 368);
NOX_FIELD(NOXBaseSink, targetbps, 376);
NOX_FIELD(NOXBaseSink, targetfps, 380);
NOX_FIELD(NOXBaseSink, dataready, 384);
NOX_FIELD(NOXBaseSink, report, 385);
NOX_FIELD(NOXBaseSink, eos, 386);
NOX_FIELD(NOXBaseSink, discont, 387);
NOX_SIZE(NOXBaseSink, 392);

NOX_FIELD(NOXBaseFilter, setformat_func, 264);
NOX_FIELD(NOXBaseFilter, getformat_func, 272);
NOX_FIELD(NOXBaseFilter, start_func, 280);
NOX_FIELD(NOXBaseFilter, stop_func, 288);
NOX_FIELD(NOXBaseFilter, chain_func, 296);
NOX_FIELD(NOXBaseFilter, finalize_func, 304);
NOX_FIELD(NOXBaseFilter, alloca_func, 312);
NOX_FIELD(NOXBaseFilter, event_func, 320);
NOX_FIELD(NOXBaseFilter, setstate_func, 328);
NOX_SIZE(NOXBaseFilter, 336);
