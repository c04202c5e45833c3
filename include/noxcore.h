/**
 * @file
 * noxcore: the whole public interface of libnoxcore.
 *
 *     #include <noxcore.h>
 */
#ifndef NOX_NOXCORE_H
#define NOX_NOXCORE_H

#include "nox.h"
#include "noxallocator.h"
#include "noxbasefilter.h"
#include "noxbasesink.h"
#include "noxbasesrc.h"
#include "noxbufadpt.h"
#include "noxbuffer.h"
#include "noxbus.h"
#include "noxmemory.h"
#include "noxobject.h"
#include "noxpipe.h"
#include "noxplugin.h"
#include "noxstructure.h"
#include "noxtimer.h"

#endif
