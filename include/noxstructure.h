/**
 * @file
 * noxstructure: a named, ordered set of typed values, looked up by name. It
 * carries formats and options between application, pipe and plugins:
 *
 *     NOXStructure *format = nox_structure_new("audio");
 *     uint32_t rate = 48000;
 *     nox_structure_putvar_uint32(format, "rate", 0, &rate);
 *     nox_structure_putvar1(NOX_TYPE_STRING, format, "location", 0, "in.wav");
 *     nox_plugin_setformat(plugin, format);
 *     nox_object_delete(format);
 *
 * A structure is an object without a lock: one thread at a time fills or reads
 * it. Names are compared byte by byte and have at most 255 characters; a longer
 * one is refused with a level-1 trace. Pointers must not be null unless said.
 */
#ifndef NOX_NOXSTRUCTURE_H
#define NOX_NOXSTRUCTURE_H

#include "noxobject.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Type codes. The type of an entry is fixed when it is first set. */
enum {
    NOX_TYPE_CHAR = 0,   /**< 8-bit character */
    NOX_TYPE_INT16 = 1,  /**< signed, 16 bits */
    NOX_TYPE_UINT16 = 2, /**< unsigned, 16 bits */
    NOX_TYPE_INT32 = 3,  /**< signed, 32 bits */
    NOX_TYPE_UINT32 = 4, /**< unsigned, 32 bits */
    NOX_TYPE_INT64 = 5,  /**< signed, 64 bits */
    NOX_TYPE_UINT64 = 6, /**< unsigned, 64 bits */
    NOX_TYPE_BOOL = 7,   /**< 8-bit boolean */
    NOX_TYPE_STRING = 8, /**< the structure's own copy of a text, or null */
    NOX_TYPE_VOID = 9,   /**< pointer to memory of the caller's, with a byte count */
    NOX_TYPE_FUNC = 10,  /**< function pointer, with a 64-bit companion value */
    NOX_TYPE_FLOAT = 11  /**< 32-bit */
};

/** Bytes of an entry's name, its terminating zero included. */
#define NOX_STRUCTURE_NAME_SIZE 256

/** Any function; cast to its real type before the call. */
typedef void (*NOXStructureFunction)(void);

/** One entry. */
typedef struct NOXStructureNode {
    int32_t type;                       /**< NOX_TYPE_ */
    int32_t size;                       /**< fixed types: bytes of the value; void: byte count;
                                             string: length, 0 for null; func: 0 */
    uint64_t extra;                     /**< func: the companion value */
    char name[NOX_STRUCTURE_NAME_SIZE]; /**< zero-terminated */
    union {
        char char_value;                 /**< NOX_TYPE_CHAR */
        int16_t int16_value;             /**< NOX_TYPE_INT16 */
        uint16_t uint16_value;           /**< NOX_TYPE_UINT16 */
        int32_t int32_value;             /**< NOX_TYPE_INT32 */
        uint32_t uint32_value;           /**< NOX_TYPE_UINT32 */
        int64_t int64_value;             /**< NOX_TYPE_INT64 */
        uint64_t uint64_value;           /**< NOX_TYPE_UINT64 */
        uint8_t bool_value;              /**< NOX_TYPE_BOOL: 0 or 1 */
        char *string_value;              /**< NOX_TYPE_STRING: owned, freed with free(), or null */
        void *void_value;                /**< NOX_TYPE_VOID: the caller's */
        NOXStructureFunction func_value; /**< NOX_TYPE_FUNC */
        float float_value;               /**< NOX_TYPE_FLOAT */
    } value;                             /**< the member that `type` names */
} NOXStructureNode;

/** The set. */
typedef struct NOXStructure {
    NOXObject object; /**< not lockable */
    OSA_List *vars;   /**< entries (NOXStructureNode) in the order they were first set */
} NOXStructure;

/** A setter; see nox_structure_putvar_char. */
typedef int32_t (*NOXStructurePutFunc)(NOXStructure *structure, const char *name, uint64_t size,
                                       const void *value);

/** The twelve setters by type code, for a type that is known at run time only. */
extern NOX_API const NOXStructurePutFunc nox_structure_putvar[12];

/** A new, empty structure with one reference, the caller's; `name` is copied, null names
 * it "unknown". Null, after a level-1 trace, when memory runs out. */
NOX_API NOXStructure *nox_structure_new(const char *name);

/** Size in bytes of NOXStructure. */
NOX_API uint32_t nox_structure_get_size(void);

/** Bytes of a value of this type; 0 for string, void, func and unknown codes. */
NOX_API uint32_t nox_structure_type_getsize(int32_t type);

/** A new zero-filled entry, already appended, that the caller fills: type, size, name,
 * value. The structure owns it, and a string in it, which must come from malloc. A name
 * that is there already is not noticed. Null, after a level-1 trace, when memory runs
 * out. The setters below do all of this. */
NOX_API NOXStructureNode *nox_structure_new_node(NOXStructure *structure);

/** The entry of that name, lent until it is removed, or null. */
NOX_API NOXStructureNode *nox_sturcture_search_node(NOXStructure *structure, const char *name);

/** Sets an entry: a new name is appended, an entry of the same type overwritten. `value`
 * points to a variable of the entry's type; for string, void and func to a variable that
 * holds the pointer. `size` is the byte count (32 bits) of a void entry and the companion
 * value of a func entry; the other types ignore it.
 *
 * A string is copied (null is a value too); what void and func point to stays the
 * caller's and must outlive the entry. 0; -1, nothing changed, after a level-1 trace, for
 * an entry of another type, a name too long, and when memory runs out. @{ */
NOX_API int32_t nox_structure_putvar_char(NOXStructure *structure, const char *name, uint64_t size,
                                          const void *value);
NOX_API int32_t nox_structure_putvar_int16(NOXStructure *structure, const char *name, uint64_t size,
                                           const void *value);
NOX_API int32_t nox_structure_putvar_uint16(NOXStructure *structure, const char *name,
                                            uint64_t size, const void *value);
NOX_API int32_t nox_structure_putvar_int32(NOXStructure *structure, const char *name, uint64_t size,
                                           const void *value);
NOX_API int32_t nox_structure_putvar_uint32(NOXStructure *structure, const char *name,
                                            uint64_t size, const void *value);
NOX_API int32_t nox_structure_putvar_int64(NOXStructure *structure, const char *name, uint64_t size,
                                           const void *value);
NOX_API int32_t nox_structure_putvar_uint64(NOXStructure *structure, const char *name,
                                            uint64_t size, const void *value);
NOX_API int32_t nox_structure_putvar_bool(NOXStructure *structure, const char *name, uint64_t size,
                                          const void *value);
NOX_API int32_t nox_structure_putvar_string(NOXStructure *structure, const char *name,
                                            uint64_t size, const void *value);
NOX_API int32_t nox_structure_putvar_void(NOXStructure *structure, const char *name, uint64_t size,
                                          const void *value);
NOX_API int32_t nox_structure_putvar_func(NOXStructure *structure, const char *name, uint64_t size,
                                          const void *value);
NOX_API int32_t nox_structure_putvar_float(NOXStructure *structure, const char *name, uint64_t size,
                                           const void *value);
/** @} */

/** Sets an entry by type code, with size and value as arguments of their own, in this
 * order: `size` is an int, but for void and func a uint64_t. Values of char, int16,
 * uint16, bool, int32 and uint32 are passed as int; int64, uint64 and pointers as 64-bit
 * values; float as double. Arguments of other widths are not noticed: cast them.
 *
 *     nox_structure_putvar1(NOX_TYPE_UINT64, format, "offset", 0, (uint64_t)4096);
 *     nox_structure_putvar1(NOX_TYPE_VOID, format, "rateoutvar", (uint64_t)sizeof rate, &rate);
 *
 * -1 for an unknown code, else the setter's result. */
NOX_API int32_t nox_structure_putvar1(int32_t type, NOXStructure *structure, const char *name, ...);

/** Reads an entry: 0 with the value stored through `value`, or -1, with `value`
 * untouched and a trace (level 4 for bool, else 3), when no entry of that name and type
 * exists. @{ */
NOX_API int32_t nox_structure_getvar_char(NOXStructure *structure, const char *name, char *value);
NOX_API int32_t nox_structure_getvar_int16(NOXStructure *structure, const char *name,
                                           int16_t *value);
NOX_API int32_t nox_structure_getvar_uint16(NOXStructure *structure, const char *name,
                                            uint16_t *value);
NOX_API int32_t nox_structure_getvar_int32(NOXStructure *structure, const char *name,
                                           int32_t *value);
NOX_API int32_t nox_structure_getvar_uint32(NOXStructure *structure, const char *name,
                                            uint32_t *value);
NOX_API int32_t nox_structure_getvar_int64(NOXStructure *structure, const char *name,
                                           int64_t *value);
NOX_API int32_t nox_structure_getvar_uint64(NOXStructure *structure, const char *name,
                                            uint64_t *value);
NOX_API int32_t nox_structure_getvar_bool(NOXStructure *structure, const char *name,
                                          uint8_t *value);
NOX_API int32_t nox_structure_getvar_float(NOXStructure *structure, const char *name, float *value);
/** @} */

/** The stored text, owned by the structure and valid until the entry changes or goes; null
 * when its value is null and, after a level-4 trace, when there is no string of that
 * name. */
NOX_API const char *nox_structure_getvar_string(NOXStructure *structure, const char *name);

/** The stored pointer, the setter's, with its byte count stored through `size`; null,
 * `size` untouched and after a level-4 trace, when there is none. */
NOX_API void *nox_structure_getvar_void(NOXStructure *structure, const char *name, uint32_t *size);

/** The stored function, with its companion stored through `extra`; null, `extra` untouched
 * and after a level-3 trace, when there is none. */
NOX_API NOXStructureFunction nox_structure_getvar_func(NOXStructure *structure, const char *name,
                                                       uint64_t *extra);

/** Removes an entry, after which its name may be set with any type; 0. -1, after a
 * level-1 trace, when there is none. */
NOX_API int32_t nox_structure_del_var(NOXStructure *structure, const char *name);

#ifdef __cplusplus
}
#endif

#endif
