// The string value of an element as std::string, "(none)" when there is none.
#pragma once

#include "zrconfig.h"

#include <cstdlib>
#include <string>

namespace zrtest {

inline std::string string_of(cfg_element *element)
{
    char *text = nullptr;
    if (element == nullptr || !cfg_string_value(element, &text))
        return "(none)";
    std::string out = text;
    free(text);
    return out;
}

} // namespace zrtest
