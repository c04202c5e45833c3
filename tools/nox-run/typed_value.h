// Option values: from the text of a notation into a typed entry of a structure.
#ifndef NOX_RUN_TYPED_VALUE_H
#define NOX_RUN_TYPED_VALUE_H

#include <cstdint>
#include <optional>
#include <string>

#include "noxstructure.h"

// The type code of a type's name, of the types that can be written as text.
std::optional<int32_t> type_from_name(const std::string &name);

// "string", "uint32" ..., or "pointer" for a type that cannot be written as text.
std::string type_name(int32_t type);

// "char, int16, ...", for an error.
std::string type_names();

// Enters the value under the key. An empty text when that was done, else what is
// wrong with the value.
std::string put_value(NOXStructure *structure, const std::string &key, int32_t type,
                      const std::string &text);

#endif
