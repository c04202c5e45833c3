/**
 * @file
 * plugin_messages: the codes under which the plugins of this folder post their errors
 * on the bus. A plugin that posts one has given up: what it should read, change or
 * write will not be complete. The text says what happened, to which file, and why.
 *
 *     nox_plugin_error_post(plugin, PLUGIN_MSG_READ, "in.wav: no such file");
 */
#ifndef NOX_PLUGINS_PLUGIN_MESSAGES_H
#define NOX_PLUGINS_PLUGIN_MESSAGES_H

#define PLUGIN_MSG_OPTION 0x1001 /**< an option is missing, of another type or out of range */
#define PLUGIN_MSG_FORMAT 0x1002 /**< a file or a stream that the plugin cannot work with */
#define PLUGIN_MSG_READ 0x1003   /**< opening or reading a file failed */
#define PLUGIN_MSG_WRITE 0x1004  /**< opening or writing a file failed */
#define PLUGIN_MSG_MEMORY 0x1005 /**< no memory */

/** All codes in this range are errors of a plugin, also of plugins to come. @{ */
#define PLUGIN_MSG_FIRST_ERROR 0x1000
#define PLUGIN_MSG_LAST_ERROR 0x1FFF
/** @} */

#endif
