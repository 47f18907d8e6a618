// The tally the uniqueness validator keeps beside a list: which text each
// member gives and how many members give each text, in two open-addressing
// tables that allocate nothing per member.
//
// Members are told apart exactly, by their ids. Texts are told apart by a
// 64-bit hash: two texts that hash alike count as one, so has_duplicates
// may answer yes for texts that differ, never no for texts given twice.
// A caller that hears yes compares the texts themselves.
#ifndef ZRCONFIG_TEXT_TALLY_H
#define ZRCONFIG_TEXT_TALLY_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zr {

class text_tally {
  public:
    // Whether the tally was last brought in step no earlier than the run
    // before the list's commits reached commits.
    bool in_step_with(uint64_t commits) const { return synced_ + 1 >= commits; }
    void synced(uint64_t commits) { synced_ = commits; }

    // Records member's text (none: the member gives no text), replacing
    // what it gave before.
    void take(std::string_view member, const std::optional<std::string> &text);
    // Records the text of a member not taken before; false, and nothing
    // recorded, when the member has a text here already.
    bool take_new(std::string_view member, std::string_view text);
    bool gives_text(std::string_view member) const;
    void reserve(size_t members);
    bool has_duplicates() const { return duplicated_ != 0; }

  private:
    struct member_slot {
        uint64_t id_hash = 0;
        uint64_t text_hash = 0;
        uint64_t id_at = 0; // the id's place in ids_
        uint32_t id_length = 0;
        bool used = false;
    };
    struct count_slot {
        uint64_t text_hash = 0;
        uint32_t members = 0; // 0: the slot is free
    };

    size_t member_slot_of(std::string_view member, uint64_t hash) const;
    size_t find_member(std::string_view member, uint64_t hash) const;
    void add_member(std::string_view member, uint64_t hash, uint64_t text_hash);
    void erase_member(size_t at);
    size_t count_slot_of(uint64_t text_hash) const;
    void count(uint64_t text_hash);
    void drop(uint64_t text_hash);
    void rebuild_members(size_t size);
    void grow_counts(size_t size);
    std::string_view id_of(const member_slot &slot) const
    {
        return std::string_view(ids_).substr(slot.id_at, slot.id_length);
    }

    uint64_t synced_ = 0;
    std::vector<member_slot> members_; // a power of two long, at most half used
    size_t members_used_ = 0;
    std::string ids_;                  // the members' ids, one after another
    size_t ids_dropped_ = 0;           // bytes of ids_ no slot names any more
    std::vector<count_slot> counts_;   // a power of two long, at most half used
    size_t counts_used_ = 0;
    size_t duplicated_ = 0; // text hashes that more than one member gives
};

} // namespace zr

#endif
