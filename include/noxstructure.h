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
 * one is refused with a level-1 trace.
 */
#ifndef NOX_NOXSTRUCTURE_H
#define NOX_NOXSTRUCTURE_H

#include "noxobject.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Type codes. The type of an entry is fixed when it is first set. */
enum {
    NOX_TYPE_CHAR = 0, /**< 8-bit character */
    NOX_TYPE_INT16 = 1,
    NOX_TYPE_UINT16 = 2,
    NOX_TYPE_INT32 = 3,
    NOX_TYPE_UINT32 = 4,
    NOX_TYPE_INT64 = 5,
    NOX_TYPE_UINT64 = 6,
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
    int32_t type;                       /**< type code */
    int32_t size;                       /**< fixed types: bytes; string: length; void: byte count */
    uint64_t extra;                     /**< func: the companion value */
    char name[NOX_STRUCTURE_NAME_SIZE]; /**< zero-terminated */
    union {
        char char_value;
        int16_t int16_value;
        uint16_t uint16_value;
        int32_t int32_value;
        uint32_t uint32_value;
        int64_t int64_value;
        uint64_t uint64_value;
        uint8_t bool_value;
        char *string_value; /**< owned by the entry */
        void *void_value;
        NOXStructureFunction func_value;
        float float_value;
    } value;
} NOXStructureNode;

typedef struct NOXStructure {
    NOXObject object;
    OSA_List *vars; /**< entries (NOXStructureNode) in the order they were first set */
} NOXStructure;

/** A setter. `value` points to a variable of the entry's type (for string, void
 * and func: to a variable that holds the pointer). `size` is the byte count of
 * a void entry and the companion value of a func entry; the other types ignore
 * it. */
typedef int32_t (*NOXStructurePutFunc)(NOXStructure *structure, const char *name, uint64_t size,
                                       const void *value);

/** The twelve setters by type code, for a type that is known at run time only. */
extern NOX_API const NOXStructurePutFunc nox_structure_putvar[12];

/** A new, empty structure with one reference; `name` is copied. Null, after a
 * level-1 trace, when memory runs out. */
NOX_API NOXStructure *nox_structure_new(const char *name);

/** Size in bytes of NOXStructure. */
NOX_API uint32_t nox_structure_get_size(void);

/** Bytes of a value of this type; 0 for string, void, func and unknown codes. */
NOX_API uint32_t nox_structure_type_getsize(int32_t type);

/** A new zero-filled entry, already appended, that the caller fills: type, size,
 * name, value. The structure owns it. Null, after a level-1 trace, on failure. */
NOX_API NOXStructureNode *nox_structure_new_node(NOXStructure *structure);

/** The entry of that name, or null. */
NOX_API NOXStructureNode *nox_sturcture_search_node(NOXStructure *structure, const char *name);

/** Set an entry: a new name is appended; an entry of the same type is overwritten;
 * one of another type is left as it is, with a level-1 trace and -1. -1 as well,
 * with nothing changed, when memory runs out or the name is too long. A string
 * is copied (null is a value too); what void and func point to stays the
 * caller's and must outlive the entry. */
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

/** Sets an entry by type code, with size and value as arguments of their own:
 * char, int16, uint16, bool, int32 and uint32 values are passed as int; int64,
 * uint64 and pointers as 64-bit values; float as double. `size` is an int, but
 * for void and func a 64-bit value. -1 for an unknown code, else the setter's
 * result. */
NOX_API int32_t nox_structure_putvar1(int32_t type, NOXStructure *structure, const char *name, ...);

/** Read an entry: 0 with the value stored through `value`, or -1, with `value`
 * untouched and a trace, when no entry of that name and type exists. */
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

/** The stored text, owned by the structure and valid until the entry changes;
 * null when there is none or the value is null. */
NOX_API const char *nox_structure_getvar_string(NOXStructure *structure, const char *name);

/** The stored pointer, with its byte count stored through `size`; null when
 * there is none, `size` untouched. */
NOX_API void *nox_structure_getvar_void(NOXStructure *structure, const char *name, uint32_t *size);

/** The stored function, with its companion stored through `extra`; null when
 * there is none, `extra` untouched. */
NOX_API NOXStructureFunction nox_structure_getvar_func(NOXStructure *structure, const char *name,
                                                       uint64_t *extra);

/** Removes an entry, after which its name may be set with any type. -1, after a
 * level-1 trace, when there is none. */
NOX_API int32_t nox_structure_del_var(NOXStructure *structure, const char *name);

#ifdef __cplusplus
}
#endif

#endif
