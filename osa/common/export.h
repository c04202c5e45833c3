// The layer's interface, visible outside the library that includes this. A
// source that defines operations includes it before any other header.
#ifndef OSA_COMMON_EXPORT_H
#define OSA_COMMON_EXPORT_H

#pragma GCC visibility push(default)
#include "osa/osa.h"
#include "osa/osa_ext.h"
#pragma GCC visibility pop

#endif
