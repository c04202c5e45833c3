/**
 * @file
 * noxbasefilter: what a filter plugin is built on. It forwards each plugin operation to
 * the derived filter's function, with a fixed answer where there is none. The filter's
 * chain function pushes its output on:
 *
 *     static int32_t invert_chain(NOXBaseFilter *filter, NOXBuffer *input)
 *     {
 *         NOXBufferRequest request = {1, 0, {nox_buffer_get_datasize(input)}};
 *         NOXBuffer *output = nox_plugin_get_outbuffer(&filter->plugin, &request);
 *         if (output == NULL)
 *             return -1;
 *         ... write it ...
 *         nox_buffer_copy_metadata(input, output);
 *         int32_t result = nox_plugin_push_buffer(&filter->plugin, output);
 *         nox_object_delete(output);
 *         return result;
 *     }
 *
 * setstate_func is required in practice: without it every state change fails. In the
 * functions that take a NOXPlugin, the record behind it is a NOXBaseFilter. They run
 * where the plugin's slots run: chain_func on the pushing thread, alloca_func on that of
 * the upstream plugin, event_func on the pushing thread or the controlling one, the rest
 * on the controlling one or the caller's (noxplugin.h). Nothing is locked: what
 * chain_func shares with setformat_func or event_func is the filter's to guard.
 */
#ifndef NOX_NOXBASEFILTER_H
#define NOX_NOXBASEFILTER_H

#include "noxplugin.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct NOXBaseFilter NOXBaseFilter;

/** The filter's functions: as the plugin's slots of the same names (NOXPluginFunc,
 * NOXPluginChainFunc, ...), but they get the filter's record. 0 is success. @{ */
typedef int32_t (*NOXBaseFilterFunc)(NOXBaseFilter *filter);
typedef int32_t (*NOXBaseFilterSetStateFunc)(NOXBaseFilter *filter, int32_t state);
typedef int32_t (*NOXBaseFilterChainFunc)(NOXBaseFilter *filter, NOXBuffer *buffer);
typedef int32_t (*NOXBaseFilterFormatFunc)(NOXBaseFilter *filter, NOXStructure *format);
typedef NOXAllocator *(*NOXBaseFilterAllocatorFunc)(NOXBaseFilter *filter);
typedef int32_t (*NOXBaseFilterEventFunc)(NOXBaseFilter *filter, NOXEvent *event);
/** @} */

/** The record that a filter's own record begins with. The filter's init function fills
 * the functions. */
struct NOXBaseFilter {
    NOXPlugin plugin;                        /**< its slots are the base filter's */
    NOXBaseFilterFormatFunc setformat_func;  /**< optional: 0 without */
    NOXBaseFilterFormatFunc getformat_func;  /**< optional: 0 without */
    NOXBaseFilterFunc start_func;            /**< optional: 0 without */
    NOXBaseFilterFunc stop_func;             /**< optional: 0 without */
    NOXBaseFilterChainFunc chain_func;       /**< -1 without; the buffer is lent for the call */
    NOXBaseFilterFunc finalize_func;         /**< -1 without, which is traced at level 1 */
    NOXBaseFilterAllocatorFunc alloca_func;  /**< optional: offers no allocator without; its
                                                answer is lent for as long as they are linked */
    NOXBaseFilterEventFunc event_func;       /**< optional: 0 without */
    NOXBaseFilterSetStateFunc setstate_func; /**< -1 without */
};

/** Initialises the plugin part and installs the base operations in the plugin's
 * slots. Called by the plugin's init function, before it fills the filter's functions.
 * 0; -1, after a level-1 trace and with nothing installed, for null, for a record made too
 * small for a NOXBaseFilter, and on failure. */
NOX_API int32_t nox_basefilter_init(NOXBaseFilter *filter);

/** Size in bytes of NOXBaseFilter. */
NOX_API uint32_t nox_basefilter_get_size(void);

/** A slot operation, called through the plugin operations, by the push and by the upstream
 * plugin's request for an allocator: it returns what the filter's function of that name
 * answers, or what its field says without one. A start or event function that fails with
 * whatever value is answered with -1, after a level-1 trace; the failure of a stop
 * function is traced at level 1 and answered as it is. @{ */
NOX_API int32_t nox_basefilter_setformat(NOXPlugin *filter, NOXStructure *format);
NOX_API int32_t nox_basefilter_getformat(NOXPlugin *filter, NOXStructure *format);
NOX_API int32_t nox_basefilter_start(NOXPlugin *filter);
NOX_API int32_t nox_basefilter_stop(NOXPlugin *filter);
NOX_API int32_t nox_basefilter_chain(NOXPlugin *filter, NOXBuffer *buffer);
NOX_API int32_t nox_basefilter_finalize(NOXPlugin *filter);
NOX_API NOXAllocator *nox_basefilter_get_allocator(NOXPlugin *filter);
NOX_API int32_t nox_basefilter_event(NOXPlugin *filter, NOXEvent *event);
NOX_API int32_t nox_basefilter_setstate(NOXPlugin *filter, int32_t state);
/** @} */

#ifdef __cplusplus
}
#endif

#endif
