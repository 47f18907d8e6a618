// The uniqueness validator's tally: two linear-probing tables, kept at most
// half full. Erasing shifts the slots that follow back into the hole, so a
// lookup stops at the first free slot and no tombstones build up.
#include "text_tally.h"

#include <functional>

namespace zr {

namespace {

uint64_t hash_of(std::string_view text)
{
    return std::hash<std::string_view>{}(text);
}

// The smallest table of at least 16 slots that holds used entries at most
// half full.
size_t table_size_for(size_t used)
{
    size_t size = 16;
    while (size < used * 2)
        size *= 2;
    return size;
}

// Empties slot hole of a linear-probing table and moves back every later
// slot of the run whose probe passes over the hole.
template <typename Slot, typename Used, typename Home>
void shift_back(std::vector<Slot> &slots, size_t hole, Used used, Home home)
{
    const size_t mask = slots.size() - 1;
    slots[hole] = Slot{};
    for (size_t i = (hole + 1) & mask; used(slots[i]); i = (i + 1) & mask) {
        const size_t from_home = (i - home(slots[i])) & mask;
        if (from_home >= ((i - hole) & mask)) {
            slots[hole] = slots[i];
            slots[i] = Slot{};
            hole = i;
        }
    }
}

} // namespace

// The slot that holds member, or the free slot where it would go; the
// table is not empty.
size_t text_tally::member_slot_of(std::string_view member, uint64_t hash) const
{
    const size_t mask = members_.size() - 1;
    size_t i = hash & mask;
    while (members_[i].used && !(members_[i].id_hash == hash && id_of(members_[i]) == member))
        i = (i + 1) & mask;
    return i;
}

size_t text_tally::find_member(std::string_view member, uint64_t hash) const
{
    if (members_.empty())
        return members_.size();
    const size_t i = member_slot_of(member, hash);
    return members_[i].used ? i : members_.size();
}

// Adds a member the table does not hold.
void text_tally::add_member(std::string_view member, uint64_t hash, uint64_t text_hash)
{
    if ((members_used_ + 1) * 2 > members_.size())
        rebuild_members(table_size_for(members_used_ + 1));
    const size_t i = member_slot_of(member, hash);
    members_[i] = {hash, text_hash, ids_.size(), static_cast<uint32_t>(member.size()), true};
    ids_.append(member);
    members_used_++;
}

void text_tally::erase_member(size_t at)
{
    ids_dropped_ += members_[at].id_length;
    const size_t mask = members_.size() - 1;
    shift_back(
        members_, at, [](const member_slot &s) { return s.used; },
        [mask](const member_slot &s) { return s.id_hash & mask; });
    members_used_--;
    if (ids_dropped_ > 4096 && ids_dropped_ * 2 > ids_.size())
        rebuild_members(members_.size());
}

// Rebuilds the member table with size slots and the ids of the members it
// holds only.
void text_tally::rebuild_members(size_t size)
{
    std::vector<member_slot> old(size);
    old.swap(members_);
    std::string old_ids;
    old_ids.swap(ids_);
    ids_.reserve(old_ids.size() - ids_dropped_);
    ids_dropped_ = 0;
    members_used_ = 0;
    for (const member_slot &slot : old)
        if (slot.used)
            add_member(std::string_view(old_ids).substr(slot.id_at, slot.id_length),
                       slot.id_hash, slot.text_hash);
}

void text_tally::grow_counts(size_t size)
{
    std::vector<count_slot> old(size);
    old.swap(counts_);
    for (const count_slot &slot : old)
        if (slot.members != 0)
            counts_[count_slot_of(slot.text_hash)] = slot;
}

// The slot that counts text_hash, or the free slot where it would go; the
// table is not empty.
size_t text_tally::count_slot_of(uint64_t text_hash) const
{
    const size_t mask = counts_.size() - 1;
    size_t i = text_hash & mask;
    while (counts_[i].members != 0 && counts_[i].text_hash != text_hash)
        i = (i + 1) & mask;
    return i;
}

void text_tally::count(uint64_t text_hash)
{
    if ((counts_used_ + 1) * 2 > counts_.size())
        grow_counts(table_size_for(counts_used_ + 1));
    const size_t i = count_slot_of(text_hash);
    if (counts_[i].members == 0) {
        counts_[i] = {text_hash, 1};
        counts_used_++;
        return;
    }
    if (++counts_[i].members == 2)
        duplicated_++;
}

void text_tally::drop(uint64_t text_hash)
{
    if (counts_.empty())
        return;
    const size_t i = count_slot_of(text_hash);
    if (counts_[i].members == 0)
        return;
    if (counts_[i].members-- == 2)
        duplicated_--;
    if (counts_[i].members != 0)
        return;
    const size_t mask = counts_.size() - 1;
    shift_back(
        counts_, i, [](const count_slot &s) { return s.members != 0; },
        [mask](const count_slot &s) { return s.text_hash & mask; });
    counts_used_--;
}

void text_tally::take(std::string_view member, const std::optional<std::string> &text)
{
    const uint64_t hash = hash_of(member);
    const size_t at = find_member(member, hash);
    if (at != members_.size()) {
        drop(members_[at].text_hash);
        if (!text) {
            erase_member(at);
            return;
        }
        members_[at].text_hash = hash_of(*text);
        count(members_[at].text_hash);
        return;
    }
    if (!text)
        return;
    const uint64_t text_hash = hash_of(*text);
    add_member(member, hash, text_hash);
    count(text_hash);
}

bool text_tally::take_new(std::string_view member, std::string_view text)
{
    const uint64_t hash = hash_of(member);
    if (find_member(member, hash) != members_.size())
        return false;
    const uint64_t text_hash = hash_of(text);
    add_member(member, hash, text_hash);
    count(text_hash);
    return true;
}

bool text_tally::gives_text(std::string_view member) const
{
    return find_member(member, hash_of(member)) != members_.size();
}

void text_tally::reserve(size_t members)
{
    if (members_.size() < table_size_for(members))
        rebuild_members(table_size_for(members));
    if (counts_.size() < table_size_for(members))
        grow_counts(table_size_for(members));
}

} // namespace zr
