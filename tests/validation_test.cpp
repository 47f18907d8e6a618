// Node validation: the appliance tree validated in full, every type rule with
// its exact message, defaults, conditionals and custom validators.
#include "appliance.h"

#include <cmath>
#include <functional>

using namespace zrtest;

TEST(FullValidation, ApplianceGainsDefaultsAndSchemaBindings)
{
    appliance a;
    cfg *c = a.ctx();
    int before = HASH_COUNT(c->elements);
    ASSERT_EQ(cfg_validate_data(c), 1) << testing::PrintToString(a.messages());

    // Required members with defaults were created, flagged new: loglevel and
    // timezone of the system, conn-1's mtu. conn-2 had all of its own.
    EXPECT_EQ(HASH_COUNT(c->elements), before + 3);
    cfg_element *loglevel = a.member(a.system, "loglevel");
    ASSERT_NE(loglevel, nullptr);
    EXPECT_TRUE(cfg_element_is_new(loglevel));
    EXPECT_EQ(string_of(a.member(a.system, "timezone")), "UTC");
    EXPECT_EQ(int_of(a.member(a.conn1, "mtu")), 1500);
    EXPECT_TRUE(cfg_element_is_changed(a.system));

    // Every element is bound to the schema element that validated it.
    EXPECT_STREQ(a.conn2->schema, "n-connection");
    EXPECT_STREQ(a.member(a.conn2, "address")->schema, "n-conn-address");

    // A second run finds nothing to add.
    EXPECT_EQ(cfg_validate_data(c), 1);
    EXPECT_EQ(HASH_COUNT(c->elements), before + 3);
}

TEST(FullValidation, EditsYieldExactlyOneMessage)
{
    ASSERT_TRUE(material().complete);
    using na = appliance;
    struct edit_case {
        std::function<void(na &)> edit;
        texts expected;
    };
    // An edit that sets the string member key of a fixture map to text.
    auto set = [](cfg_element *na::*map, const char *key, const char *text) {
        return [=](na &a) { cfg_set_string(a.ctx(), a.member(a.*map, key), text); };
    };
    const std::vector<edit_case> cases = {
        {set(&na::conn1, "mode", "static"), {"Required field 'address' is not present"}},
        {set(&na::conn2, "address", "300.1.1.1"), {"'300.1.1.1' is not a valid network address"}},
        {set(&na::user2, "name", "admin"), {"Duplicate 'name' fields with value 'admin'"}},
        // A branch whose member has no default.
        {[](na &a) { a.load_string(a.system, "proxy_mode", "proxy-1", "http"); },
         {"Required field 'proxy_port' is not present"}},
        // A deprecated member is left alone.
        {[](na &a) { a.load_int(a.system, "legacy_port", "legacy-1", 99); }, {}},
        {[](na &a) {
             a.load_string(a.system, "colour", "colour-1", "blue");
             a.load_string(a.conn2, "vlan", "vlan-2", "7");
             cfg_load_int(a.ctx(), "orphan-1", 3);
         },
         {"Element [colour-1] with name 'colour' does not match any schema element",
          "Element [vlan-2] with name 'vlan' does not match any schema element",
          "Element [orphan-1] with name '[unknown]' does not match any schema element"}},
    };
    for (size_t i = 0; i < cases.size(); i++) {
        appliance a;
        cases[i].edit(a);
        EXPECT_EQ(cfg_validate_data(a.ctx()), cases[i].expected.empty() ? 1 : 0) << i;
        EXPECT_EQ(a.messages(), cases[i].expected) << i;
    }
}

TEST(FullValidation, SubtreeNeedsAKnownBinding)
{
    appliance a;
    EXPECT_EQ(cfg_validate_subtree(a.ctx(), a.conn1), 0); // not bound yet
    EXPECT_TRUE(a.messages().empty());
    strcpy(a.conn1->schema, "n-connection");
    EXPECT_EQ(cfg_validate_subtree(a.ctx(), a.conn1), 1);
    EXPECT_EQ(int_of(a.member(a.conn1, "mtu")), 1500);
    // Leftovers are not the subtree's business.
    a.load_string(a.conn1, "vlan", "vlan-1", "7");
    EXPECT_EQ(cfg_validate_subtree(a.ctx(), a.conn1), 1);
    EXPECT_TRUE(a.messages().empty());
}

// ---- Type rules, one schema element at a time ----

namespace {

// A context with a local lookup, log capture and a fresh validation context.
struct TypeRules : testing::Test {
    log_capture log;
    context_handle h;
    cfg *const c = h.get();
    std::unique_ptr<validation_context, void (*)(validation_context *)> vctx{
        static_cast<validation_context *>(calloc(1, sizeof(validation_context))), free_context};

    // Validates element against schema; the messages pushed, oldest first.
    texts check(cfg_element *element, cfg_schema_element *schema, int expected)
    {
        cfg_free_message_stack(c);
        EXPECT_EQ(cfg_validate_node(vctx.get(), c, element, schema), expected);
        return messages_of(c);
    }
    // Validates element against schema, expecting success exactly when no
    // message is expected.
    void expect(cfg_element *element, cfg_schema_element *schema, const texts &expected)
    {
        EXPECT_EQ(check(element, schema, expected.empty()), expected);
    }
};

} // namespace

TEST_F(TypeRules, NumberBoundsAndAllowedValues)
{
    const struct {
        int has_min, min, has_max, max, value;
        texts expected;
    } cases[] = {
        {1, 1, 1, 10, 0, {"Number is outside the allowed range of 1-10."}},
        {1, 1, 1, 10, 10, {}},
        {0, 0, 1, 10, 11, {"Number exceeds the maximum allowed value of 10"}},
        {1, -5, 0, 0, -6, {"Number is below the minimum allowed value of -5"}},
    };
    for (const auto &ic : cases) {
        SCOPED_TRACE(ic.value);
        expect(cfg_new_int(c, ic.value),
               cfg_init_schema_int(c, nullptr, ic.has_max, ic.max, ic.has_min, ic.min, 0, 0),
               ic.expected);
    }
    // Allowed values come first; the bounds still apply to an allowed value.
    cfg_schema_element *s = cfg_init_schema_int(c, nullptr, 1, 10, 1, 1, 0, 0);
    cfg_add_schema_int_allowed(c, s, 5);
    cfg_add_schema_int_allowed(c, s, 20);
    expect(cfg_new_int(c, 5), s, {});
    expect(cfg_new_int(c, 7), s, {"Number is not in the list of allowed values"});
    expect(cfg_new_int(c, 20), s, {"Number is outside the allowed range of 1-10."});

    // Floats report each bound on its own; NaN passes them.
    s = cfg_init_schema_float(c, nullptr, 1, 1, 0, 2.5, 0.5, 0);
    expect(cfg_new_float(c, 3.0), s, {"Number exceeds the maximum allowed value of 2.500000"});
    expect(cfg_new_float(c, 0.25), s, {"Number is below the minimum allowed value of 0.500000"});
    expect(cfg_new_float(c, std::nan("")), s, {});
    cfg_add_schema_float_allowed(c, s, 1.5);
    expect(cfg_new_float(c, 1.25), s, {"Number is not in the list of allowed values"});
    expect(cfg_new_float(c, 1.5), s, {});
}

TEST_F(TypeRules, StringAllowedThenLengthThenPattern)
{
    cfg_schema_element *sized = cfg_init_schema_string(c, nullptr, 1, 4, 1, 2, nullptr, nullptr);
    cfg_add_schema_string_allowed(c, sized, "toolong");
    cfg_add_schema_string_allowed(c, sized, "ok");
    expect(cfg_new_string(c, "nope"), sized, {"'nope' is not in the list of allowed values"});
    expect(cfg_new_string(c, "toolong"), sized,
           {"Element exceeds the maximum allowed length of 4 characters"});
    expect(cfg_new_string(c, "ok"), sized, {});
    cfg_schema_element *minimum = cfg_init_schema_string(c, nullptr, 0, 0, 1, 2, nullptr, nullptr);
    expect(cfg_new_string(c, "x"), minimum,
           {"Element is below the minimum allowed length of 2 character(s)"});

    // Patterns match anywhere unless they anchor themselves.
    cfg_schema_element *digits = cfg_init_schema_string(c, nullptr, 0, 0, 0, 0, nullptr, "[0-9]+");
    cfg_schema_element *anchored =
        cfg_init_schema_string(c, nullptr, 0, 0, 0, 0, nullptr, "^[0-9]+$");
    expect(cfg_new_string(c, "a1b"), digits, {});
    expect(cfg_new_string(c, "a1b"), anchored,
           {"String did not conform to the expected format."});
    expect(cfg_new_string(c, "Abc"), digits, {"String did not conform to the expected format."});
    expect(cfg_new_string(c, "42"), anchored, {});
    // One compiled pattern per text, kept by the schema; a broken pattern
    // rejects silently and is not kept.
    cfg_schema_element *broken = cfg_init_schema_string(c, nullptr, 0, 0, 0, 0, nullptr, "([0-9]");
    EXPECT_EQ(check(cfg_new_string(c, "1"), broken, 0), texts{});
    EXPECT_EQ(HASH_COUNT(c->schema->regex_cache), 2u);
}

TEST_F(TypeRules, BlobSizesReferencesAndWrongTypes)
{
    cfg_schema_element *blob = cfg_init_schema_blob(c, nullptr, 1, 4, 1, 2);
    expect(cfg_new_blob(c, "abcde", 5), blob,
           {"Element exceeds the maximum allowed size of 4 characters"});
    expect(cfg_new_blob(c, "a", 1), blob,
           {"Element is below the minimum allowed size of 2 characters"});
    expect(cfg_new_blob(c, "abcd", 4), blob, {});

    cfg_schema_element *ref = cfg_init_schema_reference(c, nullptr);
    expect(cfg_new_reference(c, cfg_new_int(c, 1)->uuid), ref, {});
    cfg_element *dangling = cfg_init_reference(c);
    dangling->value.string_value = strdup("nowhere-1");
    cfg_add_elem(c, dangling);
    expect(dangling, ref, {"Invalid reference"});

    cfg_element *text = cfg_new_string(c, "x");
    expect(text, blob, {"Element [" + std::string(text->uuid) + "] is of the wrong type"});
    EXPECT_STREQ(text->schema, ""); // a wrong type binds nothing
}

TEST_F(TypeRules, ListsCountPendingItemsAndCheckItemTypes)
{
    cfg_schema_element *two = cfg_init_schema_list(c, nullptr, 1, 2, 1, 1, 1, CFG_TYPE_INT, nullptr);
    cfg_element *list = cfg_new_list(c);
    expect(list, two, {"List has fewer than the minimum allowable size of 1 items"});
    cfg_add_listelem(c, list, cfg_new_int(c, 1));
    cfg_add_listelem(c, list, cfg_new_int(c, 2));
    expect(list, two, {});
    cfg_append_future_listelem(c, list, cfg_new_string(c, "3")); // pending
    expect(list, two, {"List has more than the maximum allowable size of 2 items"});
    cfg_schema_element *ints = cfg_init_schema_list(c, nullptr, 0, 0, 0, 0, 1, CFG_TYPE_INT, nullptr);
    expect(list, ints, {"List element is of the wrong type"});

    // A named item type that does not resolve fails without a message.
    cfg_schema_element *named = cfg_init_schema_list(c, nullptr, 0, 0, 0, 0, 2, 0, "missing");
    EXPECT_EQ(check(list, named, 0), texts{});
}

TEST_F(TypeRules, MapKeysOptionalBeforeRequiredAndConditionals)
{
    cfg_schema_element *map = cfg_init_schema_map(c, nullptr);
    cfg_add_schema_mapelem(c, map, 0, "port", cfg_init_schema_int(c, nullptr, 0, 0, 0, 0, 0, 0));
    cfg_add_schema_mapelem(c, map, 1, "note",
                           cfg_init_schema_string(c, nullptr, 1, 2, 0, 0, nullptr, nullptr));
    cfg_element *m = cfg_new_map(c);
    cfg_map_set_string(c, m, "note", "long");
    // The optional key is looked at first, so its failure is the one shown.
    expect(m, map, {"Element exceeds the maximum allowed length of 2 characters"});
    cfg_map_set_string(c, m, "note", "ok");
    expect(m, map, {"Required field 'port' is not present"});

    // A conditional that holds adds its keys; its id must resolve.
    cfg_schema_value v{.string_value = const_cast<char *>("ok")};
    cfg_schema_element *cond = cfg_init_schema_if(c, nullptr, ".note", 2, 3, v, 0);
    cfg_add_schema_map_conditionalelem(c, map, cond);
    cfg_load_schema_mapid(cond, 0, "extra", cfg_init_schema_bool(c, "extra-schema", 1, 1)->uuid);
    cfg_map_set_int(c, m, "port", 22);
    expect(m, map, {});
    EXPECT_NE(cfg_get_mapelem(m, "extra"), nullptr); // created from its default
    cfg_load_schema_mapconditional(map, "no-such-if");
    EXPECT_EQ(check(m, map, 0), texts{});
}

TEST_F(TypeRules, CustomValidatorsRunAfterTheTypeCheck)
{
    auto with_validator = [&](cfg_schema_element *s, const char *name, const char *path) {
        cfg_schema_validator *v = cfg_init_schema_validator(c, name);
        cfg_validator_add_param(v, "name");
        cfg_validator_add_path(v, path);
        cfg_schema_add_validator(s, v);
        return s;
    };
    cfg_element *list = cfg_new_list(c);
    cfg_add_mapelem(c, cfg_new_map_with_id(c, "root-1"), "names", list);
    cfg_add_listelem(c, list, cfg_new_string(c, "a"));
    cfg_add_listelem(c, list, cfg_new_string(c, "a"));

    // A failing type check stops before any validator, triggers included.
    cfg_schema_element *short_list =
        with_validator(cfg_init_schema_list(c, nullptr, 1, 1, 0, 0, 1, CFG_TYPE_STRING, nullptr),
                       "uniqueness", "\\.x");
    expect(list, short_list, {"List has more than the maximum allowable size of 1 items"});
    EXPECT_EQ(c->pattern_triggers, nullptr);

    // A rejecting validator has its triggers registered all the same.
    cfg_schema_element *unique = with_validator(
        cfg_init_schema_list(c, nullptr, 0, 0, 0, 0, 1, CFG_TYPE_STRING, nullptr), "uniqueness",
        "\\(\\d+\\)");
    expect(list, unique, {"Duplicate 'name' fields with value 'a'"});
    ASSERT_NE(c->pattern_triggers, nullptr);
    EXPECT_STREQ(c->pattern_triggers->key, "names\\(\\d+\\)");

    // An unknown validator name fails with an error line and no message.
    cfg_schema_element *unknown = with_validator(cfg_init_schema_bool(c, nullptr, 0, 0), "nope", "");
    EXPECT_EQ(check(cfg_new_bool(c, 1), unknown, 0), texts{});
    EXPECT_TRUE(log.has("No validator named 'nope'\n"));
}
