// What each parameter of the module's devices is measured in, and what the
// device's own description leaves unsaid: one table for `orogen devices` and
// the README. The module's texts stay as they are.
#pragma once

#include <span>
#include <string>
#include <string_view>

namespace orogen {

struct ParameterUnit {
    const char* type;       // the device's type name
    const char* parameter;  // the parameter's name
    const char* unit;       // "world units", "degrees", "height" (a sample value 0..1) ...
    const char* note;       // added to the description; may be empty
};

// Null for a parameter the table does not know.
const ParameterUnit* FindParameterUnit(std::string_view typeName, std::string_view parameter);
std::span<const ParameterUnit> ParameterUnits();

// The device's description with the table's note after it.
std::string ParameterMeaning(const char* description, const ParameterUnit* unit);

}  // namespace orogen
