// Condition text decoded into a tree, then written as SQL and JSON again.
#include "support.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    zrfuzz::quiet_logging();
    std::string text = zrfuzz::text(data, size);
    json_error_t error;
    cfg_condition *condition = json_dump_to_condition(text.c_str(), &error);
    if (condition == nullptr)
        return 0;
    free(condition_to_sql(condition));
    free(condition_to_json_dump(condition));
    cfg_free_conditions(condition);
    return 0;
}
