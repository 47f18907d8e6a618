// Schema JSON: an appliance schema read and written back, the
// reading rules that ignore values of the wrong JSON type, and the
// deliberate asymmetries between writer and reader.
#include "context.h"

#include <utility>

using namespace zrtest;
using SchemaJson = context_test;

namespace {

cfg_schema_element *load(cfg *ctx, const char *text)
{
    json_handle json = parse_json(text);
    return json_to_schema_elem(ctx, json.get());
}

// Every element in the form the writer produces, so that writing an element
// back gives the object it was read from.
const char *const appliance_schema = R"({
 "root": {"id": "root", "type": 8, "generation": 3, "tags": {"ui": "root"},
   "required": {"system": "sys", "interfaces": "ifl"}, "optional": {"motd": "motd"},
   "deprecated": {"legacy_dns": "ldns"}, "conditionals": ["ifstatic"]},
 "host": {"id": "host", "type": 4, "generation": 1, "tags": {"label": "Host name"},
   "min_length": 1, "max_length": 63, "regex": "^[a-z0-9-]+$", "default": "appliance",
   "allowed": ["appliance", "gateway"]},
 "ifstatic": {"id": "ifstatic", "type": 10, "generation": 2, "tags": {}, "eval_priority": 1,
   "expression": [".mode", "==", {"type": "string", "value": "static", "id": "v-static"}],
   "required": {"gateway": "gw"}, "optional": {}, "deprecated": {}, "conditionals": []},
 "gw": {"id": "gw", "type": 4, "generation": 2, "tags": {}, "min_length": 7,
   "max_length": null, "regex": null, "default": null, "allowed": []},
 "ifl": {"id": "ifl", "type": 7, "generation": 1, "tags": {}, "min_length": 1,
   "max_length": 16, "element_type": "interface",
   "validators": [{"validator": "uniqueness", "parameters": ["name"],
                   "paths": ["interfaces.*.name", "interfaces.*.mac"]}]},
 "mtu": {"id": "mtu", "type": 2, "generation": 1, "tags": {}, "min": 576, "max": 9000,
   "default": 1500, "allowed": [1500, 9000]},
 "en": {"id": "en", "type": 1, "generation": 1, "tags": {}, "default": true},
 "speed": {"id": "speed", "type": 3, "generation": 1, "tags": {}, "min": 0.0, "max": 100.0,
   "default": null, "allowed": [10.0, 100.0]},
 "motd": {"id": "motd", "type": 6, "generation": 1, "tags": {}, "min_length": null,
   "max_length": 4096},
 "ldns": {"id": "ldns", "type": 9, "generation": 1, "tags": {}, "target": "dns-servers"}
})";

} // namespace

TEST_F(SchemaJson, ApplianceSchemaWritesBackAsRead)
{
    json_handle nodes = parse_json(appliance_schema);
    const char *key;
    json_t *original;
    json_object_foreach(nodes.get(), key, original)
    {
        cfg_schema_element *elem = json_to_schema_elem(ctx, original);
        ASSERT_NE(elem, nullptr) << key;
        json_handle written(schema_elem_to_json(elem));
        EXPECT_TRUE(json_equal(written.get(), original))
            << key << ": " << sorted_dump(written.get()) << "\n  vs " << sorted_dump(original);
    }
}

// Each element read and written back: the members of the expected object
// show what was kept. A value of the wrong JSON type reads as absent; in an
// allowed list it is skipped for strings and read as zero for numbers.
TEST_F(SchemaJson, ValuesOfTheWrongJsonTypeAreIgnored)
{
    const std::pair<const char *, const char *> cases[] = {
        {R"({"id": "s", "type": 4, "min_length": 2.0, "max_length": 8, "regex": 5,
             "default": false, "allowed": ["a", 1, null, "b"]})",
         R"({"allowed":["a","b"],"default":null,"max_length":8,"min_length":null,"regex":null})"},
        {R"({"id": "f", "type": 3, "max": 5, "min": 1.5, "allowed": [1.5, 2, "x"]})",
         R"({"allowed":[1.5,0.0,0.0],"max":null,"min":1.5})"},
        {R"({"id": "i", "type": 2, "min": "3", "max": 9.0, "default": 4, "allowed": [7, "8", 9.5]})",
         R"({"allowed":[7,0,0],"default":4,"max":null,"min":null})"},
        {R"({"id": "b", "type": 1, "default": "yes"})", R"({"default":null})"},
        {R"({"id": "m", "type": 8, "required": {"a": "ua", "b": 3}, "conditionals": ["c1", 2, "c2"],
             "tags": {"x": "1", "y": 2}, "generation": "7"})",
         R"({"conditionals":["c1","c2"],"generation":0,"required":{"a":"ua"},"tags":{"x":"1"}})"},
    };
    for (const auto &[input, expected] : cases) {
        SCOPED_TRACE(input);
        cfg_schema_element *elem = load(ctx, input);
        ASSERT_NE(elem, nullptr);
        json_handle written(schema_elem_to_json(elem));
        json_handle kept = parse_json(expected);
        const char *key;
        json_t *value;
        json_object_foreach(kept.get(), key, value)
        {
            json_t *got = json_object_get(written.get(), key);
            json_object_set_new(kept.get(), key, got ? json_incref(got) : json_string("absent"));
        }
        EXPECT_EQ(sorted_dump(kept.get()), expected);
    }
    EXPECT_EQ(cfg_get_schema_node(ctx, "m")->flags, unsigned(CFG_FLAG_CHANGED)); // by the tag
}

TEST_F(SchemaJson, RejectedObjects)
{
    for (const char *text : {R"({"id": "x", "type": 5})", R"({"id": "x", "type": 11})",
                             R"({"id": "x", "type": "4"})", R"({"id": "x", "type": 7})",
                             R"({"id": "x", "type": 7, "element_type": true})", R"([1])"})
        EXPECT_EQ(load(ctx, text), nullptr) << text;
    EXPECT_EQ(cfg_get_schema_node(ctx, "x"), nullptr);
    cfg_schema_element *list = load(ctx, R"({"id": "l", "type": 7, "element_type": 4})");
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list->u.list.element_kind, 1);
    EXPECT_EQ(list->u.list.element_type, CFG_TYPE_STRING);
}

// Of a doubled tag key the writer keeps the last value (the reader, the first).
TEST_F(SchemaJson, DoubledTagKeyWrittenWithItsLastValue)
{
    cfg_schema_element *b = cfg_new_schema_bool(ctx, 0, 0);
    cfg_add_schema_tag(b, "k", "first");
    cfg_add_schema_tag(b, "k", "second");
    json_handle full(schema_elem_to_json(b));
    EXPECT_EQ(sorted_dump(json_object_get(full.get(), "tags")), R"({"k":"second"})");
}

TEST_F(SchemaJson, IfWriterAndReaderKeepTheirAsymmetries)
{
    // Written ("exists", then "expression"), then read back under another id.
    std::string written;
    auto round_trip = [this, &written](const char *id, const char *path, int op, int type,
                                       cfg_schema_value v) {
        json_handle json(schema_elem_to_json(cfg_load_schema_if(ctx, id, path, op, type, v, "v", 2)));
        written = dump(json_object_get(json.get(), "exists")) + " " +
                  sorted_dump(json_object_get(json.get(), "expression"));
        json_object_set_new(json.get(), "id", json_string((std::string(id) + "-back").c_str()));
        return json_to_schema_elem(ctx, json.get());
    };
    cfg_schema_element *ge = round_trip("ge", "^.mtu", 5, 2, {.int_value = 1000});
    EXPECT_EQ(written, R"((none) ["^.mtu",">=",{"id":"v","type":"integer","value":1000}])");
    EXPECT_EQ(ge->u.cond.op, 5);
    EXPECT_EQ(ge->u.cond.value_type, 0); // "integer" is not read as "int"
    cfg_schema_element *lt = round_trip("lt", ".load", 6, 4, {.float_value = 2.5});
    EXPECT_EQ(written, R"((none) [".load","<",2.5,{"id":"v","type":"float"}])");
    EXPECT_TRUE(lt->u.cond.op == 0 && lt->u.cond.path == nullptr);
    round_trip("none", nullptr, 0, 0, {});
    EXPECT_EQ(written, "(none) [null]");
    cfg_schema_element *ex = round_trip("ex", ".gateway", 1, 0, {});
    EXPECT_EQ(written, "\".gateway\" (none)");
    EXPECT_EQ(ex->u.cond.op, 1);

    struct {
        const char *text;
        int op, value_type;
        const char *path;
    } reads[] = {
        {R"({"exists": 3, "expression": ["p", "==", {"type": "int", "value": 1}]})", 0, 0, nullptr},
        {R"({"expression": ["p", "<=", {"type": "float", "value": 1.5}]})", 7, 4, "p"},
        {R"({"expression": ["p", "~", {"type": "int", "value": 1}]})", 0, 2, "p"},
        {R"({"expression": ["p", "==", "x"]})", 0, 0, nullptr},
        {R"({"expression": [1, "==", {"type": "int"}]})", 0, 0, nullptr},
    };
    for (const auto &r : reads) {
        json_handle json = parse_json(r.text);
        json_object_set_new(json.get(), "type", json_integer(CFG_TYPE_IF));
        json_object_set_new(json.get(), "eval_priority", json_real(2.0));
        cfg_schema_element *e = json_to_schema_elem(ctx, json.get());
        ASSERT_NE(e, nullptr) << r.text;
        EXPECT_EQ(e->u.cond.op, r.op) << r.text;
        EXPECT_EQ(e->u.cond.value_type, r.value_type) << r.text;
        EXPECT_EQ(e->u.cond.eval_priority, 0) << r.text;
        EXPECT_STREQ(e->u.cond.path, r.path) << r.text;
    }
}
