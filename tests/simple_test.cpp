// Path walking and rendering, printf-style access, blob files and the dump.
#include "context.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/stat.h>

using zrtest::context_handle;

namespace {

// root-1 { cfg: { name: "box", port: 22, on: true,
//                 rules: [ {action: "allow"}, {action: "deny"} ] } }
struct sample_tree {
    context_handle h;
    cfg_element *root, *cfgmap, *rules, *rule0, *rule1;

    sample_tree()
    {
        cfg *ctx = h.get();
        root = cfg_load_map(ctx, "root-1");
        cfgmap = cfg_load_map(ctx, "cfg-7");
        cfg_add_mapelem(ctx, root, "cfg", cfgmap);
        cfg_map_set_string(ctx, cfgmap, "name", "box");
        cfg_map_set_int(ctx, cfgmap, "port", 22);
        cfg_map_set_bool(ctx, cfgmap, "on", 1);
        rules = cfg_load_list(ctx, "rules-8");
        cfg_add_mapelem(ctx, cfgmap, "rules", rules);
        rule0 = add_rule("rule-42", "allow");
        rule1 = add_rule(nullptr, "deny");
    }

    cfg_element *add_rule(const char *uuid, const char *action)
    {
        cfg_element *rule = uuid != nullptr ? cfg_load_map(h.get(), uuid) : cfg_new_map(h.get());
        cfg_add_listelem(h.get(), rules, rule);
        cfg_map_set_string(h.get(), rule, "action", action);
        return rule;
    }
    cfg *ctx() const { return h.get(); }
};

std::string canonical(cfg *ctx, cfg_element *e, unsigned flags, const char *sep)
{
    char *text = cfg_get_canonical_path(ctx, e, flags, sep);
    std::string out = text != nullptr ? text : "(null)";
    free(text);
    return out;
}

std::string basename(cfg *ctx, const char *uuid, cfg_parent_link *link, unsigned flags)
{
    char out[256];
    cfg_get_path_basename_from_link(ctx, uuid, link, flags, out, sizeof out);
    return out;
}

cfg_element *get_va(cfg *ctx, char **path, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    cfg_element *found = cfg_simple_get_by_path_va(ctx, path, format, args);
    va_end(args);
    return found;
}

} // namespace

TEST(Paths, Walking)
{
    sample_tree t;
    cfg *ctx = t.ctx();
    cfg_element *name = cfg_get_by_path(ctx, "cfg.name");
    struct row {
        cfg_element *start;
        const char *path;
        cfg_element *expected;
    } rows[] = {
        {t.root, "cfg", t.cfgmap},
        {t.root, "..cfg..name", name},
        {t.root, "cfg.rules[1]", t.rule1},
        {t.root, "cfg.rules[1].action", cfg_get_child_by_path(ctx, t.rule1, "action")},
        {t.rules, "[0]", t.rule0},
        {t.rules, "[-1]", t.rule0},
        {t.rules, "[5]", nullptr},
        {t.rules, "x", nullptr},
        {t.rules, ".[0]", nullptr},
        {t.rules, "[0", nullptr},
        {t.cfgmap, "[0]", nullptr},
        {t.cfgmap, ".", t.cfgmap},
        {t.cfgmap, "", t.cfgmap},
        {t.cfgmap, "name.more", nullptr},
        {t.root, "(rule-42).action", cfg_get_child_by_path(ctx, t.rule0, "action")},
        {t.rules, "(cfg-7)", t.cfgmap},
        {t.root, "(nowhere)", nullptr},
        {t.root, "(rule-42", nullptr},
    };
    for (const row &r : rows)
        EXPECT_EQ(cfg_get_child_by_path(ctx, r.start, r.path), r.expected) << r.path;
    EXPECT_NE(name, nullptr);
    EXPECT_EQ(cfg_get_by_path(ctx, ""), t.root);
    EXPECT_EQ(cfg_get_child_by_path(ctx, nullptr, "cfg"), nullptr);
    EXPECT_EQ(cfg_simple_get_listelem(ctx, t.rules, 1), t.rule1);
    EXPECT_EQ(cfg_simple_get_mapelem(ctx, t.root, "cfg"), t.cfgmap);
    EXPECT_EQ(cfg_simple_get_mapelem(ctx, nullptr, "cfg"), nullptr);
}

TEST(Paths, MostSolidParentLink)
{
    sample_tree t;
    cfg *ctx = t.ctx();
    cfg_element *ref = cfg_new_reference_with_id(ctx, "cfg-7", "ref-1");
    ASSERT_NE(ref, nullptr);
    // Reference link added after the map link: the map link still names it.
    cfg_parent_link *link = cfg_get_most_solid_parent_link(t.cfgmap);
    EXPECT_EQ(link->type, unsigned(CFG_TYPE_MAP));
    // A map link wins over a list link that comes later.
    cfg_load_listparent(t.cfgmap, "rules-8", 3);
    EXPECT_EQ(cfg_get_most_solid_parent_link(t.cfgmap)->type, unsigned(CFG_TYPE_MAP));
    // Only a reference: the future parent is preferred to it.
    cfg_element *lone = cfg_new_int(ctx, 1);
    cfg_new_reference_with_id(ctx, lone->uuid, "ref-2");
    EXPECT_EQ(cfg_get_most_solid_parent_link(lone)->type, unsigned(CFG_TYPE_REFERENCE));
    cfg_append_future_listelem(ctx, t.rules, lone);
    EXPECT_EQ(cfg_get_most_solid_parent_link(lone), lone->future_parent);
    EXPECT_EQ(cfg_get_most_solid_parent_link(cfg_new_int(ctx, 2)), nullptr);
}

TEST(Paths, Components)
{
    context_handle h;
    cfg_parent_link list{};
    list.type = CFG_TYPE_LIST;
    list.index = 3;
    cfg_parent_link ref{};
    ref.type = CFG_TYPE_REFERENCE;
    cfg_parent_link map{};
    map.type = CFG_TYPE_MAP;
    map.name = const_cast<char *>("key");
    const char *local = "{bcdef01-2345-11ee-8f00-0a1b2c3d4e5}";
    EXPECT_EQ(basename(h.get(), "U", nullptr, 0), "(U)");
    EXPECT_EQ(basename(h.get(), "U", &ref, 2), "U");
    EXPECT_EQ(basename(h.get(), "U", &map, 7), "key");
    EXPECT_EQ(basename(h.get(), "U", &list, 0), "[3]");
    EXPECT_EQ(basename(h.get(), "U", &list, 1), "3");
    EXPECT_EQ(basename(h.get(), local, &list, 4), "(100000003)");
    EXPECT_EQ(basename(h.get(), "rule-42", &list, 4), "(42)");
    EXPECT_EQ(basename(h.get(), "rule-42", &list, 5), "42");
    EXPECT_EQ(basename(h.get(), "rule", &list, 4), "(0)");
    char small[4];
    EXPECT_EQ(cfg_get_path_basename_from_link(h.get(), "longer", nullptr, 0, small, sizeof small),
              8);
    EXPECT_STREQ(small, "(lo");
}

TEST(Paths, CanonicalAndStatic)
{
    sample_tree t;
    cfg *ctx = t.ctx();
    cfg_element *action1 = cfg_get_child_by_path(ctx, t.rule1, "action");
    EXPECT_EQ(canonical(ctx, t.cfgmap, 0, "."), "cfg");
    EXPECT_EQ(canonical(ctx, cfg_get_by_path(ctx, "cfg.name"), 0, "."), "cfg.name");
    EXPECT_EQ(canonical(ctx, action1, 0, "."), "cfg.rules[1].action");
    EXPECT_EQ(canonical(ctx, action1, 1, "."), "cfg.rules.1.action");
    EXPECT_EQ(canonical(ctx, action1, 0, "/"), "cfg/rules[1]/action");
    EXPECT_EQ(canonical(ctx, action1, 0, nullptr), "cfgrules[1]action");

    char *path = nullptr;
    ASSERT_EQ(cfg_get_static_path(ctx, t.rule0, &path), 1);
    EXPECT_STREQ(path, "cfg.rules(42)");
    free(path);
    ASSERT_EQ(cfg_get_static_path(ctx, t.rule1, &path), 1);
    EXPECT_EQ(std::string(path), std::string(t.rule1->uuid) + ":cfg.rules(100000001)");
    free(path);

    unsigned count = 0;
    cfg_element **chain = cfg_get_path_elements(ctx, action1, &count, 1);
    ASSERT_NE(chain, nullptr);
    ASSERT_EQ(count, 5u);
    EXPECT_EQ(chain[0], action1);
    EXPECT_EQ(chain[4], t.root);
    free(chain);

    // An element with no place in the tree renders as its uuid.
    cfg_element *loose = cfg_load_int(ctx, "loose", 1);
    EXPECT_EQ(canonical(ctx, loose, 0, "."), "(loose)");
    // A cycle yields no path.
    cfg_load_mapparent(t.root, "cfg-7", "up");
    EXPECT_EQ(cfg_get_path_elements(ctx, t.cfgmap, &count, 1), nullptr);
}

TEST(SimpleAccess, ValuesAndDoubledNotFoundMessages)
{
    sample_tree t;
    cfg *ctx = t.ctx();
    char *text = nullptr;
    int value = 0;
    EXPECT_EQ(cfg_simple_string_value_by_path(ctx, &text, "cfg.%s", "name"), 1);
    EXPECT_STREQ(text, "box");
    free(text);
    EXPECT_EQ(cfg_simple_int_value_by_path(ctx, &value, "cfg.port"), 1);
    EXPECT_EQ(value, 22);
    EXPECT_EQ(cfg_simple_bool_value_by_path(ctx, nullptr, "cfg.on"), 1);
    EXPECT_EQ(cfg_simple_get_by_path(ctx, "cfg.rules[%d]", 1), t.rule1);
    // A type mismatch is silent.
    EXPECT_EQ(cfg_simple_int_value_by_path(ctx, &value, "cfg.name"), 0);
    EXPECT_EQ(cfg_message_count(ctx), 0);

    EXPECT_EQ(cfg_simple_int_value_by_path(ctx, &value, "cfg.%s", "nope"), 0);
    ASSERT_EQ(cfg_message_count(ctx), 2);
    for (int i = 0; i < 2; i++)
        EXPECT_STREQ(cfg_get_message_string(cfg_get_message_object(ctx, i)),
                     "Could not find element with path 'cfg.nope'");
    EXPECT_EQ(cfg_simple_get_by_path(ctx, "gone"), nullptr);
    EXPECT_EQ(cfg_message_count(ctx), 3);

    // The formatted path lives in one buffer that grows for long paths.
    char *path = nullptr;
    EXPECT_EQ(get_va(ctx, &path, "cfg.%s", "port")->value.int_value, 22);
    EXPECT_STREQ(path, "cfg.port");
    std::string long_key(3000, 'k');
    EXPECT_EQ(get_va(ctx, &path, "cfg.%s", long_key.c_str()), nullptr);
    std::string expected = "cfg." + long_key;
    EXPECT_EQ(path, expected);
    EXPECT_STREQ(cfg_get_message_arg_value(cfg_get_message_object(ctx, 3), 0),
                 expected.c_str());
    char *again = nullptr;
    get_va(ctx, &again, "cfg");
    EXPECT_EQ(again, path);
}

class BlobFile : public ::testing::Test {
  protected:
    std::filesystem::path dir;
    sample_tree t;

    void SetUp() override
    {
        char pattern[] = "/tmp/zrcfg-blob-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir = pattern;
        cfg_map_set_blob(t.ctx(), t.cfgmap, "key", "secret\n", 7);
    }
    void TearDown() override { std::filesystem::remove_all(dir); }

    static std::string read_file(const std::filesystem::path &p)
    {
        std::ifstream in(p, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }
    static unsigned mode_of(const std::filesystem::path &p)
    {
        struct stat st;
        return stat(p.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0;
    }
};

TEST_F(BlobFile, WritesOnceThenFindsItEqual)
{
    mode_t old_mask = umask(022);
    auto file = dir / "a" / "b" / "key.pem";
    EXPECT_EQ(cfg_simple_sync_blob_to_file(t.ctx(), "cfg.key", file.c_str(), 0600), 1);
    EXPECT_EQ(read_file(file), "secret\n");
    EXPECT_EQ(mode_of(file), 0600u);
    EXPECT_EQ(mode_of(dir / "a"), 0700u);
    EXPECT_EQ(cfg_simple_sync_blob_to_file(t.ctx(), "cfg.key", file.c_str(), 0600), 0);

    // Different content (longer or shorter) is rewritten; an equal file
    // gets the mode back.
    std::ofstream(file) << "secret\nand more";
    EXPECT_EQ(cfg_simple_sync_blob_to_file(t.ctx(), "cfg.key", file.c_str(), 0600), 1);
    std::ofstream(file) << "sec";
    EXPECT_EQ(cfg_simple_sync_blob_to_file(t.ctx(), "cfg.key", file.c_str(), 0600), 1);
    EXPECT_EQ(read_file(file), "secret\n");
    chmod(file.c_str(), 0640);
    EXPECT_EQ(cfg_simple_sync_blob_to_file(t.ctx(), "cfg.key", file.c_str(), 0), 0);
    EXPECT_EQ(mode_of(file), 0644u);
    EXPECT_EQ(cfg_message_count(t.ctx()), 0);
    umask(old_mask);
}

TEST_F(BlobFile, RefusalsAndUmask)
{
    auto file = dir / "key";
    EXPECT_EQ(cfg_simple_sync_blob_to_file(t.ctx(), "cfg.name", file.c_str(), 0), -1);
    EXPECT_EQ(cfg_simple_sync_blob_to_file(t.ctx(), "cfg.none", file.c_str(), 0), -1);
    EXPECT_EQ(cfg_simple_sync_blob_to_file(t.ctx(), "cfg.key", nullptr, 0), -1);
    EXPECT_EQ(cfg_message_count(t.ctx()), 0);

    // A new file under a restrictive umask does not get the asked mode.
    mode_t old_mask = umask(077);
    EXPECT_EQ(cfg_simple_sync_blob_to_file(t.ctx(), "cfg.key", file.c_str(), 0644), -1);
    umask(old_mask);
    EXPECT_EQ(read_file(file), "secret\n");
    ASSERT_EQ(cfg_message_count(t.ctx()), 1);
    EXPECT_STREQ(cfg_get_first_message_string(t.ctx()), "File I/O error");

    // The directory cannot be made below a regular file.
    auto blocked = file / "inner" / "key";
    EXPECT_EQ(cfg_simple_sync_blob_to_file(t.ctx(), "cfg.key", blocked.c_str(), 0), -1);
    EXPECT_EQ(cfg_message_count(t.ctx()), 2);
}

TEST(TextDump, LineFormat)
{
    context_handle h;
    cfg *ctx = h.get();
    cfg_load_int(ctx, "i", 7);
    cfg_element *f = cfg_new_float_with_id(ctx, 2.5, "f");
    cfg_set_float(ctx, f, 2.5); // new and changed: still "A "
    cfg_element *changed = cfg_load_bool(ctx, "b", 0);
    changed->flags = CFG_FLAG_CHANGED | CFG_FLAG_DELETED;
    cfg_load_string(ctx, "s", "text")->flags = CFG_FLAG_DELETED;
    cfg_load_blob(ctx, "x", "ab\0cd", 5);
    cfg_element *list = cfg_load_list(ctx, "l");
    cfg_load_listid(list, "u1");
    cfg_load_listid(list, "u2");
    cfg_element *map = cfg_load_map(ctx, "m");
    cfg_load_mapid(map, "k", "u3");
    cfg_load_list(ctx, "e");
    cfg_load_reference(ctx, "r", "i");
    cfg_load_int(ctx, "odd", 0)->type = 5;
    char *dump = cfg_to_string(ctx);
    EXPECT_STREQ(dump, "  i [Integer   ]: 7\n"
                       "A f [Float     ]: 2.500\n"
                       "M b [Boolean   ]: False\n"
                       "D s [String    ]: text\n"
                       "  x [Blob      ]: ab\n"
                       "  l [List      ]: (u1, u2, )\n"
                       "  m [Map       ]: (k: u3, )\n"
                       "  e [List      ]: ()\n"
                       "  r [Reference ]: i\n"
                       "  odd [Unknown   ]: Unknown\n");
    free(dump);
    cfg_find_by_id(ctx, "odd")->type = CFG_TYPE_INT;
}

TEST(TextDump, EmptyAndLongContainers)
{
    context_handle h;
    char *dump = cfg_to_string(h.get());
    EXPECT_STREQ(dump, "");
    free(dump);
    cfg_element *list = cfg_load_list(h.get(), "l");
    for (int i = 0; i < 200; i++)
        cfg_load_listid(list, ("member-" + std::to_string(i)).c_str());
    dump = cfg_to_string(h.get());
    std::string line(dump);
    free(dump);
    EXPECT_EQ(line.rfind("  l [List      ]: (member-0, member-1, ", 0), 0u);
    EXPECT_EQ(line.size(), std::string("  l [List      ]: \n").size() + 1023);
}
