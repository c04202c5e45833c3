// Is a file a whole shared object for this processor?
#ifndef OSA_COMMON_ELF_CHECK_H
#define OSA_COMMON_ELF_CHECK_H

#include <cstddef>

namespace osa
{

// Looks at the ELF header and the program headers: the C library's loader
// crashes on a truncated file, and calls one for another processor "not found".
// False with the reason, in words, in `reason` of `size` bytes.
bool elf_check(const char *path, char *reason, size_t size);

// Whether what a library exports at this address can be called: its symbol is not one of data.
bool is_function(const void *address);

} // namespace osa

#endif
