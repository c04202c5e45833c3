// Writes the plugin cache.
#ifndef NOX_SCAN_CACHE_FILE_H
#define NOX_SCAN_CACHE_FILE_H

#include <string>

// Puts a file with this text in the place of `path` at once: whoever reads sees the
// old one or the new one whole. Throws std::runtime_error, with the old one kept.
void replace_file(const std::string &path, const std::string &text);

#endif
