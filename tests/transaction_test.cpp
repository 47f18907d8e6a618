// Transactions: files in a temporary directory, replay into a new context,
// stale files. (A transaction carried from one session to the next is in the
// daemon tests.)
#include "context.h"
#include "temp_dir.h"

#include <fstream>
#include <sys/stat.h>

using namespace zrtest;

namespace {

void use_dir(cfg *c, const std::string &dir)
{
    free(c->transaction_dir);
    c->transaction_dir = strdup(dir.c_str());
}

std::string file_of(const std::string &dir, const char *id)
{
    return dir + "/" + id + ".transaction";
}

} // namespace

TEST(Transaction, SavedWorkReopensWithItsFlags)
{
    temp_dir tmp;
    std::string dir = tmp.file("tx");
    std::string id;
    {
        context_handle ctx;
        use_dir(ctx.get(), dir);
        id = cfg_transaction_start(ctx.get());
        cfg_new_string_with_id(ctx.get(), "added", "a");
        cfg_element *changed = cfg_new_string_with_id(ctx.get(), "changed", "c");
        changed->flags = CFG_FLAG_CHANGED;
        mode_t old_mask = umask(0);
        EXPECT_EQ(cfg_transaction_save(ctx.get()), 1);
        umask(old_mask);
    }
    namespace fs = std::filesystem;
    EXPECT_EQ(fs::status(dir).permissions(), fs::perms(0755));
    EXPECT_EQ(fs::status(file_of(dir, id.c_str())).permissions(), fs::perms(0600));
    std::string text = read_file(file_of(dir, id.c_str()));
    EXPECT_EQ(text.rfind(R"({"deleted": [], "added": [{)", 0), 0u);

    context_handle next;
    use_dir(next.get(), dir);
    EXPECT_EQ(cfg_transaction_open(next.get(), "{no-such-id}"), 0);
    EXPECT_EQ(cfg_in_transaction(next.get()), 0);
    ASSERT_EQ(cfg_transaction_open(next.get(), id.c_str()), 1);
    EXPECT_EQ(cfg_find_by_id(next.get(), "a")->flags, unsigned(CFG_FLAG_NEW));
    EXPECT_EQ(cfg_find_by_id(next.get(), "c")->flags, unsigned(CFG_FLAG_CHANGED));

    EXPECT_EQ(cfg_transaction_cancel(next.get(), id.c_str()), 1);
    EXPECT_FALSE(std::filesystem::exists(file_of(dir, id.c_str())));
    EXPECT_EQ(cfg_transaction_cancel(next.get(), id.c_str()), 0);
}

TEST(Transaction, StaleFilesAreDeletedOnOpen)
{
    temp_dir tmp;
    // 898 and 902, not 899 and 900: a file is stale once more than 900
    // seconds old, counted in whole seconds, so the second that turns (or
    // does not) between writing the time and the open must not decide.
    for (time_t seconds : {898, 902}) {
        context_handle ctx;
        use_dir(ctx.get(), tmp.path());
        std::string id = cfg_transaction_start(ctx.get());
        ASSERT_EQ(cfg_transaction_save(ctx.get()), 1);
        std::filesystem::last_write_time(file_of(tmp.path(), id.c_str()),
                                         std::filesystem::file_time_type::clock::now() -
                                             std::chrono::seconds(seconds));
        context_handle next;
        use_dir(next.get(), tmp.path());
        bool fresh = seconds == 898;
        EXPECT_EQ(cfg_transaction_open(next.get(), id.c_str()), fresh ? 1 : 0) << seconds;
        EXPECT_EQ(std::filesystem::exists(file_of(tmp.path(), id.c_str())), fresh) << seconds;
    }
}

TEST(Transaction, FailuresLeaveTheContextAlone)
{
    temp_dir tmp;
    context_handle ctx;
    use_dir(ctx.get(), tmp.file("a/b"));
    EXPECT_EQ(cfg_transaction_save(ctx.get()), 0);
    cfg_transaction_start(ctx.get());
    EXPECT_EQ(cfg_transaction_save(ctx.get()), 0);

    use_dir(ctx.get(), tmp.path());
    std::ofstream(file_of(tmp.path(), "junk")) << "{not json";
    std::ofstream(file_of(tmp.path(), "bad")) << R"({"changed": [{"id": "x", "type": 99}]})";
    std::string before = ctx.get()->transaction_id;
    EXPECT_EQ(cfg_transaction_open(ctx.get(), "junk"), 0);
    EXPECT_EQ(cfg_transaction_open(ctx.get(), "bad"), 0);
    EXPECT_EQ(before, ctx.get()->transaction_id);
}
