// The layer's own trace lines.
#ifndef OSA_POSIX_REPORT_H
#define OSA_POSIX_REPORT_H

#include "osa/osa.h"

#define OSA_REPORT(level, ...) OSA_Trace("osa", level, "osa", __LINE__, __func__, __VA_ARGS__)

#endif
