// Asks a library what plugin it is, in a process of its own: a library that crashes
// or hangs while it is loaded takes nothing with it.
#ifndef NOX_SCAN_PROBE_H
#define NOX_SCAN_PROBE_H

#include <string>

struct Probe {
    std::string name;   // of the plugin; empty when the library is left out
    std::string reason; // why it is left out
};

Probe probe_library(const std::string &path);

#endif
