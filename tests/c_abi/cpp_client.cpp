// zrconfig.hpp built against an installed copy with pkg-config's flags
// only: a local context, a typed write and read, and a validation.
#include <zrconfig.hpp>

#include <cstdio>

int main()
{
    zrconfig::context ctx;
    zrconfig::element root = ctx.root();
    if (!root.put("name", ctx.new_value("fw1")) || ctx.at("name").as_string() != "fw1") {
        std::puts("FAILED: write and read back");
        return 1;
    }
    ctx.validate(); // an empty schema: only the call and its messages matter
    std::puts("ok");
    return 0;
}
