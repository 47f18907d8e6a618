// The JSON form of elements, its value encodings, and json_path_get.
#include "context.h"

#include <cstring>

using namespace zrtest;
using ElementJson = context_test;

namespace {

std::string encoded_value(cfg_element *element)
{
    json_handle object(elem_to_json(element));
    return dump(json_object_get(object.get(), "value"));
}

} // namespace

TEST_F(ElementJson, ValueEncodings)
{
    const unsigned char bytes[] = {0x00, 0x0a, 0x7f, 0x80, 0xff};
    cfg_element *blob = cfg_new_blob(ctx, bytes, sizeof bytes);
    EXPECT_EQ(encoded_value(cfg_new_bool(ctx, 5)), "\"true\"");
    // 20 bytes hold 19 characters: longer renderings are cut.
    EXPECT_EQ(encoded_value(cfg_new_float(ctx, 123456789012345.0)), "\"123456789012345.000\"");
    // Bytes from 0x80 become signed pairs below '0', and decode back.
    EXPECT_EQ(encoded_value(blob), "\"000a7f(00/\"");
    json_handle object(elem_to_json(blob));
    cfg_element *back = json_to_elem(ctx, object.get());
    ASSERT_NE(back, nullptr);
    ASSERT_EQ(back->value.blob.size, sizeof bytes);
    EXPECT_EQ(memcmp(back->value.blob.data, bytes, sizeof bytes), 0);

    cfg_element *list = cfg_load_list(ctx, "L");
    cfg_load_listid(list, "a");
    cfg_load_listid(list, "b");
    cfg_append_future_listid(list, "future");
    EXPECT_EQ(encoded_value(list), "[\"a\",\"b\"]");
    cfg_element *map = cfg_load_map(ctx, "M");
    cfg_load_mapid(map, "z", "u1");
    cfg_load_mapid(map, "a", "u2");
    EXPECT_EQ(encoded_value(map), "{\"z\":\"u1\",\"a\":\"u2\"}");
}

// The whole object in its key order; read back, only the container links
// stay: reference parents and the future parent are dropped.
TEST_F(ElementJson, WholeObjectInKeyOrderAndBack)
{
    cfg_element *e = cfg_load_int(ctx, "E", 4);
    e->generation = 3;
    strcpy(e->schema, "S");
    cfg_add_mapelem(ctx, cfg_load_map(ctx, "M"), "key", e);
    cfg_add_listelem(ctx, cfg_load_list(ctx, "L"), e);
    cfg_new_reference_with_id(ctx, "E", "R");
    json_handle object(elem_to_json(e));
    EXPECT_EQ(dump(object.get()),
              "{\"generation\":3,\"parents\":[{\"map\":\"M\",\"type\":\"map\",\"name\":\"key\"},"
              "{\"list\":\"L\",\"type\":\"list\",\"index\":0},"
              "{\"reference\":\"R\",\"type\":\"reference\"}],"
              "\"type\":2,\"id\":\"E\",\"schema\":\"S\",\"value\":4}");

    cfg_append_future_listelem(ctx, cfg_load_list(ctx, "F"), e);
    object.reset(elem_to_json(e));
    EXPECT_STREQ(json_string_value(json_object_get(object.get(), "future_parent")), "F");
    cfg_element *back = json_to_elem(ctx, object.get());
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(back->generation, 3);
    EXPECT_EQ(back->future_parent, nullptr);
    ASSERT_EQ(cfg_link_list_length(back->parents), 2);
    auto *link = static_cast<cfg_parent_link *>(back->parents->data);
    EXPECT_EQ(link->type, unsigned(CFG_TYPE_MAP));
    EXPECT_STREQ(link->name, "key");
}

TEST_F(ElementJson, DecodesEachType)
{
    struct row {
        const char *json;
        unsigned type;
    } rows[] = {
        {R"({"type":1,"id":"b","value":"True"})", CFG_TYPE_BOOL},
        {R"({"type":3,"id":"f","value":"2.5"})", CFG_TYPE_FLOAT},
        {R"({"type":6,"id":"x","value":"0a7fAB1"})", CFG_TYPE_BLOB},
        {R"({"type":7,"id":"l","value":["p","q"]})", CFG_TYPE_LIST},
        {R"({"type":8,"id":"m","value":{"k1":"p","k2":7,"k3":"q"}})", CFG_TYPE_MAP},
        {R"({"type":9,"id":"r","value":"b"})", CFG_TYPE_REFERENCE},
    };
    for (const row &r : rows) {
        json_handle object = parse_json(r.json);
        cfg_element *e = json_to_elem(ctx, object.get());
        ASSERT_NE(e, nullptr) << r.json;
        EXPECT_EQ(e->type, r.type);
        EXPECT_EQ(e->flags, 0u);
    }
    EXPECT_EQ(cfg_find_by_id(ctx, "b")->value.int_value, 0); // only "true" is true
    cfg_element *blob = cfg_find_by_id(ctx, "x");
    ASSERT_EQ(blob->value.blob.size, 3u); // the odd last digit is ignored
    EXPECT_EQ(blob->value.blob.data[1], 0x7f);
    EXPECT_EQ(blob->value.blob.data[2], 34); // upper case does not decode as hex
    EXPECT_STREQ(cfg_get_listelem(cfg_find_by_id(ctx, "l"), 1), "q");
    EXPECT_EQ(cfg_get_mapelem(cfg_find_by_id(ctx, "m"), "k3"), nullptr); // stopped at k2

    for (const char *bad : {R"({"type":5,"id":"u","value":1})", R"({"type":4,"id":"u"})",
                            R"({"type":9,"id":"u","value":"none"})"}) {
        json_handle object = parse_json(bad);
        EXPECT_EQ(json_to_elem(ctx, object.get()), nullptr) << bad;
    }
    EXPECT_EQ(cfg_find_by_id(ctx, "u"), nullptr);
}

// Members are found by their whole key, in any order, among others that
// share a prefix with them.
TEST_F(ElementJson, MembersFoundByWholeKeyInAnyOrder)
{
    json_handle object = parse_json(
        R"({"ids":"no","parents":[{"typed":"list","name":"k","map":"m-1","type":"map"},)"
        R"({"list":"l-1","index":3,"type":"list","map":"no"}],)"
        R"("valued":"no","schema":"s-text","value":"v","type":4,"id":"s-1","generation":7})");
    cfg_element *e = json_to_elem(ctx, object.get());
    ASSERT_NE(e, nullptr);
    EXPECT_STREQ(e->uuid, "s-1");
    EXPECT_STREQ(e->value.string_value, "v");
    EXPECT_STREQ(e->schema, "s-text");
    EXPECT_EQ(e->generation, 7);
    std::vector<std::string> parents;
    for (cfg_link *n = e->parents; n != nullptr; n = n->next) {
        auto *link = static_cast<cfg_parent_link *>(n->data);
        parents.push_back(std::string(link->uuid) + "/" + std::to_string(link->type) + "/" +
                          (link->name != nullptr ? link->name : std::to_string(link->index)));
    }
    EXPECT_EQ(parents, (std::vector<std::string>{"m-1/8/k", "l-1/7/3"}));
}

// Found by fuzzing: ids differing only past the 255 kept characters name one
// element, so the second replaces the first instead of being dropped
// unindexed (and leaked; the sanitizer build checks).
TEST_F(ElementJson, IdsCutToTheSameTextNameOneElement)
{
    const std::string cut(255, 'a');
    for (const char *tail : {"first", "second"}) {
        json_handle object = parse_json(R"({"type":1,"id":")" + cut + tail + R"(","value":"true"})");
        cfg_element *e = json_to_elem(ctx, object.get());
        ASSERT_NE(e, nullptr) << tail;
        EXPECT_EQ(cfg_find_by_id(ctx, e->uuid), e) << tail; // indexed, so owned
    }
    EXPECT_EQ(HASH_COUNT(ctx->elements), 1u);
}

TEST(JsonPathGet, SegmentsAndIndexes)
{
    json_handle root = parse_json(R"({"data":{"root":{"x":1},"a":[10,20]},"result":true})");
    json_t *r = root.get();
    EXPECT_EQ(json_path_get(r, "\a\adata\a\aroot\a"), json_path_get(r, "data\aroot"));
    EXPECT_EQ(json_integer_value(json_path_get(r, "data\aa[1]")), 20);
    EXPECT_EQ(json_path_get(r, "data\aa[2]"), nullptr);
    EXPECT_EQ(json_path_get(r, "data\aa[-1]"), json_path_get(r, "data\aa"));
    EXPECT_EQ(json_path_get(r, "data\aa[99999999999999999999]"), nullptr);
}
