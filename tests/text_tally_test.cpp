// The uniqueness validator's tally against a plain model, over enough
// members and churn that the tables grow, shift entries back on erasing and
// rebuild their store of ids.
#include "text_tally.h"

#include <gtest/gtest.h>
#include <map>
#include <random>

namespace {

struct tally_model {
    std::map<std::string, std::string> text_of;
    bool has_duplicates() const
    {
        std::map<std::string, int> counts;
        for (const auto &[member, text] : text_of)
            if (++counts[text] == 2)
                return true;
        return false;
    }
};

TEST(TextTally, AgreesWithAModelThroughGrowthAndChurn)
{
    std::mt19937 random(7);
    zr::text_tally tally;
    tally_model model;
    auto member = [&](int n) { return "{member-" + std::to_string(n) + "-0000-0000-000000000}"; };
    for (int step = 0; step < 60000; step++) {
        const std::string id = member(static_cast<int>(random() % 3000));
        const int pick = static_cast<int>(random() % 10);
        if (pick == 0) {
            tally.take(id, std::nullopt);
            model.text_of.erase(id);
        } else if (pick == 1) {
            const std::string text = "name" + std::to_string(random() % 4000);
            EXPECT_EQ(tally.take_new(id, text), model.text_of.count(id) == 0);
            model.text_of.emplace(id, text);
        } else {
            // Mostly distinct texts, so the duplicates come and go.
            const std::string text = "name" + std::to_string(random() % 4000);
            tally.take(id, text);
            model.text_of[id] = text;
        }
        ASSERT_EQ(tally.gives_text(id), model.text_of.count(id) == 1) << "step " << step;
        if (step % 500 == 0) {
            ASSERT_EQ(tally.has_duplicates(), model.has_duplicates()) << "step " << step;
        }
    }
    // Down to one member per text, then to none.
    for (auto it = model.text_of.begin(); it != model.text_of.end();) {
        tally.take(it->first, std::nullopt);
        it = model.text_of.erase(it);
        if (model.text_of.size() % 97 == 0) {
            ASSERT_EQ(tally.has_duplicates(), model.has_duplicates());
        }
    }
    EXPECT_FALSE(tally.has_duplicates());
    EXPECT_FALSE(tally.gives_text(member(1)));
}

TEST(TextTally, ReservedTallyCountsAsAGrownOne)
{
    zr::text_tally tally;
    tally.reserve(10000);
    for (int i = 0; i < 10000; i++)
        ASSERT_TRUE(tally.take_new("m" + std::to_string(i), "t" + std::to_string(i)));
    EXPECT_FALSE(tally.has_duplicates());
    tally.take("m5", std::string("t7"));
    EXPECT_TRUE(tally.has_duplicates());
    tally.take("m7", std::string("t5"));
    EXPECT_FALSE(tally.has_duplicates());
}

} // namespace
