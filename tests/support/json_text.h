// JSON values in tests: an owning handle, parsing from text and a canonical
// dump (sorted keys, compact) for comparisons.
#pragma once

#include <jansson.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>

namespace zrtest {

struct json_deleter {
    void operator()(json_t *value) const { json_decref(value); }
};
using json_handle = std::unique_ptr<json_t, json_deleter>;

inline json_handle parse_json(const char *text)
{
    json_error_t error;
    json_handle value(json_loads(text, 0, &error));
    EXPECT_NE(value, nullptr) << error.text << " at line " << error.line;
    return value;
}

inline std::string sorted_dump(json_t *value)
{
    char *text = json_dumps(value, JSON_SORT_KEYS | JSON_COMPACT | JSON_ENCODE_ANY);
    std::string out = text != nullptr ? text : "(null)";
    free(text);
    return out;
}

} // namespace zrtest
