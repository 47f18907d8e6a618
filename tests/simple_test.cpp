// Path walking and rendering, printf-style access, blob files and the dump.
#include "context.h"
#include "temp_dir.h"

#include <cstdarg>
#include <cstring>
#include <fstream>
#include <sys/stat.h>

using namespace zrtest;

namespace {

// root-1 { cfg: { name: "box", port: 22, rules: [ {action: "allow"}, {action: "deny"} ] } },
// the second rule with a local id.
struct sample_tree : context_test {
    cfg_element *root, *cfgmap, *rules, *rule0, *rule1;

    sample_tree()
    {
        root = cfg_load_map(ctx, "root-1");
        cfgmap = cfg_load_map(ctx, "cfg-7");
        cfg_add_mapelem(ctx, root, "cfg", cfgmap);
        cfg_map_set_string(ctx, cfgmap, "name", "box");
        cfg_map_set_int(ctx, cfgmap, "port", 22);
        rules = cfg_load_list(ctx, "rules-8");
        cfg_add_mapelem(ctx, cfgmap, "rules", rules);
        rule0 = cfg_load_map(ctx, "rule-42");
        rule1 = cfg_new_map(ctx);
        cfg_add_listelem(ctx, rules, rule0);
        cfg_add_listelem(ctx, rules, rule1);
        cfg_map_set_string(ctx, rule0, "action", "allow");
        cfg_map_set_string(ctx, rule1, "action", "deny");
    }
};

std::string canonical(cfg *ctx, cfg_element *e, unsigned flags, const char *sep)
{
    return taken(cfg_get_canonical_path(ctx, e, flags, sep));
}

cfg_element *get_va(cfg *ctx, char **path, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    cfg_element *found = cfg_simple_get_by_path_va(ctx, path, format, args);
    va_end(args);
    return found;
}

using Simple = sample_tree;
using TextDump = context_test;

} // namespace

TEST_F(Simple, PathWalking)
{
    cfg_element *name = cfg_get_by_path(ctx, "cfg.name");
    ASSERT_NE(name, nullptr);
    struct row {
        cfg_element *start;
        const char *path;
        cfg_element *expected;
    } rows[] = {
        {root, "..cfg..name", name},
        {root, "cfg.rules[1]", rule1},
        {rules, "[5]", nullptr},
        {rules, "[0", nullptr},
        {cfgmap, "[0]", nullptr},
        {cfgmap, "", cfgmap},
        {rules, "(cfg-7).name", name},
        {root, "(nowhere)", nullptr},
    };
    for (const row &r : rows)
        EXPECT_EQ(cfg_get_child_by_path(ctx, r.start, r.path), r.expected) << r.path;
    EXPECT_EQ(cfg_get_by_path(ctx, ""), root);
}

TEST_F(Simple, CanonicalAndStaticPaths)
{
    cfg_element *action1 = cfg_get_child_by_path(ctx, rule1, "action");
    EXPECT_EQ(canonical(ctx, action1, 0, "."), "cfg.rules[1].action");
    EXPECT_EQ(canonical(ctx, action1, 1, "/"), "cfg/rules/1/action");
    EXPECT_EQ(canonical(ctx, action1, 0, nullptr), "cfgrules[1]action");

    // A daemon's id gives its number; a local id gives 100000000 plus the
    // position, and leads the path.
    auto static_path = [this](cfg_element *e) {
        char *path = nullptr;
        return cfg_get_static_path(ctx, e, &path) == 1 ? taken(path) : "(failed)";
    };
    EXPECT_EQ(static_path(rule0), "cfg.rules(42)");
    EXPECT_EQ(static_path(rule1), std::string(rule1->uuid) + ":cfg.rules(100000001)");

    // An element with no place in the tree renders as its uuid; a cycle, as nothing.
    EXPECT_EQ(canonical(ctx, cfg_load_int(ctx, "loose", 1), 0, "."), "(loose)");
    cfg_load_mapparent(root, "cfg-7", "up");
    unsigned count = 0;
    EXPECT_EQ(cfg_get_path_elements(ctx, cfgmap, &count, 1), nullptr);

    // One component is cut to the buffer; the length it needed comes back.
    char small[4];
    EXPECT_EQ(cfg_get_path_basename_from_link(nullptr, "longer", nullptr, 0, small, sizeof small),
              8);
    EXPECT_STREQ(small, "(lo");
}

TEST_F(Simple, ValuesAndDoubledNotFoundMessages)
{
    char *text = nullptr;
    int value = 0;
    EXPECT_EQ(cfg_simple_string_value_by_path(ctx, &text, "cfg.%s", "name"), 1);
    EXPECT_STREQ(text, "box");
    free(text);
    EXPECT_EQ(cfg_simple_int_value_by_path(ctx, &value, "cfg.port"), 1);
    EXPECT_EQ(value, 22);
    // A type mismatch is silent.
    EXPECT_EQ(cfg_simple_int_value_by_path(ctx, &value, "cfg.name"), 0);
    EXPECT_EQ(cfg_message_count(ctx), 0);

    // A value read reports a missing path twice, a plain get once.
    EXPECT_EQ(cfg_simple_int_value_by_path(ctx, &value, "cfg.%s", "nope"), 0);
    EXPECT_EQ(cfg_message_count(ctx), 2);
    std::string long_key(3000, 'k'); // the formatted path is never cut
    EXPECT_EQ(cfg_simple_get_by_path(ctx, "cfg.%s", long_key.c_str()), nullptr);
    ASSERT_EQ(cfg_message_count(ctx), 3);
    EXPECT_EQ(cfg_get_message_arg_value(cfg_get_message_object(ctx, 2), 0), "cfg." + long_key);

    // The formatted path handed out is one buffer, reused by the next call.
    char *path = nullptr, *again = nullptr;
    get_va(ctx, &path, "cfg");
    get_va(ctx, &again, "cfg.%s", "port");
    EXPECT_EQ(again, path);
    EXPECT_STREQ(path, "cfg.port");
}

// The map readers walk a relative path from start (a plain key is one) and
// answer with the type's accessor: a wrong type leaves the output alone,
// nothing found clears it.
TEST_F(Simple, MapReaderPathsTypesAndClearedOutputs)
{
    cfg_map_set_bool(ctx, cfgmap, "on", 1);
    cfg_map_set_reference(ctx, cfgmap, "first", "rule-42");
    cfg_map_set_blob(ctx, cfgmap, "key", "ab\0c", 4);
    char *text = nullptr, *ref = nullptr;
    int number = 0, flag = 0;
    void *data = nullptr;
    size_t size = 0;
    EXPECT_TRUE(cfg_map_get_string(ctx, root, "cfg.rules[1].action", &text) &&
                cfg_map_get_int(ctx, cfgmap, "port", &number) &&
                cfg_map_get_bool(ctx, root, "cfg.on", &flag) &&
                cfg_map_get_reference(ctx, cfgmap, "first", &ref) &&
                cfg_map_get_blob(ctx, cfgmap, "key", &data, &size));
    EXPECT_EQ(taken(text) + " " + taken(ref), "deny rule-42");
    EXPECT_EQ(std::vector<int>({number, flag}), std::vector<int>({22, 1}));
    EXPECT_EQ(std::string(static_cast<char *>(data), size), std::string("ab\0c", 4));
    free(data);

    char *const marker = reinterpret_cast<char *>(0x1);
    text = ref = marker;
    EXPECT_FALSE(cfg_map_get_string(ctx, cfgmap, "port", &text));
    EXPECT_EQ(text, marker);

    data = marker;
    size = 9;
    EXPECT_FALSE(cfg_map_get_string(ctx, cfgmap, "none", &text) ||
                 cfg_map_get_int(ctx, cfgmap, "rules[7]", &number) ||
                 cfg_map_get_reference(ctx, cfgmap, nullptr, &ref) ||
                 cfg_map_get_blob(ctx, cfgmap, "none", &data, &size));
    EXPECT_TRUE(text == nullptr && ref == nullptr && data == nullptr);
    EXPECT_EQ(number + size, 0u);
    EXPECT_EQ(cfg_message_count(ctx), 0);
}

// A blob is written to its file with the asked mode (directories made
// 0700), rewritten only when the content differs, and refused under a umask
// that would take bits from the mode, below a regular file, or when the path
// names no blob.
TEST_F(Simple, BlobFileWritesOnceRewritesOnChangeAndRefuses)
{
    temp_dir dir;
    ASSERT_FALSE(dir.path().empty());
    cfg_map_set_blob(ctx, cfgmap, "key", "secret\n", 7);
    auto sync = [this](const std::string &file, mode_t mode, const char *path = "cfg.key") {
        return cfg_simple_sync_blob_to_file(ctx, path, file.c_str(), mode);
    };
    auto mode_of = [](const std::string &file) {
        struct stat st;
        return stat(file.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0u;
    };
    mode_t old_mask = umask(022);
    std::string file = dir.file("a/b/key.pem");
    EXPECT_EQ(sync(file, 0600), 1);
    EXPECT_EQ(read_file(file), "secret\n");
    EXPECT_EQ(mode_of(file), 0600u);
    EXPECT_EQ(mode_of(dir.file("a")), 0700u);
    EXPECT_EQ(sync(file, 0600), 0);
    // Other content is rewritten; an equal file only gets the mode back.
    std::ofstream(file) << "secret\nand more";
    EXPECT_EQ(sync(file, 0600), 1);
    EXPECT_EQ(read_file(file), "secret\n");
    chmod(file.c_str(), 0640);
    EXPECT_EQ(sync(file, 0), 0);
    EXPECT_EQ(mode_of(file), 0644u);

    file = dir.file("key");
    EXPECT_EQ(sync(file, 0, "cfg.name"), -1);
    EXPECT_EQ(sync(file, 0, "cfg.none"), -1);
    EXPECT_EQ(cfg_message_count(ctx), 0);
    umask(077);
    EXPECT_EQ(sync(file, 0644), -1);
    umask(old_mask);
    EXPECT_EQ(read_file(file), "secret\n");
    ASSERT_EQ(cfg_message_count(ctx), 1);
    EXPECT_STREQ(cfg_get_first_message_string(ctx), "File I/O error");
    EXPECT_EQ(sync(file + "/inner/key", 0), -1);
    EXPECT_EQ(cfg_message_count(ctx), 2);
}

// A container's line in the dump stops at 1023 characters of members.
TEST_F(TextDump, ContainerLineIsCut)
{
    cfg_element *list = cfg_load_list(ctx, "l");
    for (int i = 0; i < 200; i++)
        cfg_load_listid(list, ("member-" + std::to_string(i)).c_str());
    char *dump = cfg_to_string(ctx);
    EXPECT_EQ(strlen(dump), strlen("  l [List      ]: \n") + 1023);
    free(dump);
}
