/**
 * @file
 * What the host program supplies by name: version texts for the start-up
 * banners, and two callbacks that the library hands to the OS layer. The
 * library calls the first six from nox_init; the texts must stay valid for the
 * program's life. Default versions of all eight are in host/, the target nox::host.
 * A program with a version of its own defines all eight instead:
 *
 *     const char *core_version_nox_string(void)
 *     {
 *         return "1.0.0-product";
 *     }
 */
#ifndef OSA_HOST_H
#define OSA_HOST_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

const char *core_version_osa_string(void); /**< version of the OS layer, as text */
uint32_t core_version_osa(void);           /**< the same as a number */
const char *core_version_nox_string(void); /**< version of the library, as text */
uint32_t core_version_nox(void);           /**< the same as a number */
const char *core_build_date(void);         /**< of the program, as text */
const char *core_build_time(void);         /**< of the program, as text */

/** Handed to OSA_SystemInit, which calls it when the layer is up: the place to read the
 * environment. 0 is success; the layer only reports a failure. */
int32_t sysenv_load(void);

/** Handed to OSA_SystemUnInit, which calls it before the layer goes down. 0 is success. */
int32_t sysenv_unload(void);

#ifdef __cplusplus
}
#endif

#endif
