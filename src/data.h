// The data tree's surface for the areas above it.
#ifndef ZRCONFIG_DATA_H
#define ZRCONFIG_DATA_H

#include "zrconfig.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace zr {

// A 64-bit sum fed piece by piece: each piece's hash folded in FNV-style.
// A piece of at most eight bytes (a number, a pointer) is hashed in line by
// a multiply-xorshift mix; longer ones through std::hash.
class fingerprint {
  public:
    fingerprint &add(const void *data, size_t size)
    {
        std::string_view bytes(static_cast<const char *>(data), size);
        return fold(std::hash<std::string_view>{}(bytes));
    }
    template <typename T> fingerprint &add(const T &value)
    {
        if constexpr (sizeof(T) <= sizeof(uint64_t) && std::is_trivially_copyable_v<T>) {
            uint64_t bits = 0;
            memcpy(&bits, &value, sizeof value);
            return fold(mix(bits) ^ sizeof value);
        } else {
            return add(&value, sizeof value);
        }
    }
    fingerprint &text(const char *value)
    {
        return value != nullptr ? add(value, strlen(value) + 1) : add(uint8_t{0xff});
    }
    uint64_t sum() const { return sum_; }

  private:
    static uint64_t mix(uint64_t z)
    {
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
        return z ^ (z >> 31);
    }
    fingerprint &fold(uint64_t piece)
    {
        sum_ = (sum_ ^ piece) * 0x100000001b3ull;
        return *this;
    }

    uint64_t sum_ = 0xcbf29ce484222325ull;
};

// Tells the data tree that an element left a uuid index, an index was
// swapped, or a lookup hook's answers changed.
void index_changed();

// The member at position of list as the context's get_by_id hook finds it;
// null past the end.
cfg_element *list_member(cfg *context, cfg_element *list, size_t position);

// The ids of the members of a list or map, in order, written into out (the
// link records' own fields).
void member_ids(cfg_element *container, std::vector<const char *> &out);

// What validation last found of an element: that it, and everything below
// it, validated against the schema element and with the value the
// fingerprint sums up, under the memo epoch, with at most these flags. An
// epoch of zero means nothing is known. When a memo holds: memo.h.
struct validation_memo {
    uint64_t epoch = 0;
    uint64_t fingerprint = 0;
    unsigned int flags = 0;
};
validation_memo &memo_of(cfg_element *element);
// Forgets the memo of element and of every element above it (the containers
// and references that hold it, as the context's own index finds them);
// called whenever the element or what it holds changes.
void forget_validation(cfg *context, cfg_element *element);
// Makes every memo of every context stale, for changes that cannot be placed.
void forget_all_validation();
// Moves whenever forget_all_validation is called.
uint64_t validation_generation();

// What a list knows of its members between validations: which members a
// change has reached since a validation last accounted for every one of
// them (each holding a memo then, or named as untracked), so that the next
// walk over the list need look at those alone. A change to the list itself
// (its membership) forgets all of it.
struct member_changes {
    uint64_t epoch = 0;   // memo epoch of the validation that accounted for all; 0: none
    uint64_t serial = 0;  // moves whenever what is known is forgotten
    uint64_t commits = 0; // validations that accounted for every member
    uint64_t shape = 0;   // the list's heads, lengths and parent events then, summed up
    std::vector<std::string> touched;   // reached by a change since (repeats allowed)
    std::vector<std::string> untracked; // validated then without a memo
};
member_changes &member_changes_of(cfg_element *list);
// Forgets what list knows of its members.
void forget_member_changes(cfg_element *list);
// Sums up list's link heads and lengths, and the count of elements that have
// come to sit in more than one container: what must stay put for
// member_changes to hold.
uint64_t member_shape(cfg_element *list);
// The members of list to look at again under epoch, each once, in list
// order (members, then future members): the touched ones, the first
// touched_count of them, and the untracked ones. False when what the list
// knows does not hold (or names an element that is no longer a member):
// every member is to be looked at then.
bool changed_members(cfg *context, cfg_element *list, uint64_t epoch,
                     std::vector<cfg_element *> &out, size_t &touched_count);
// Whether element sits in more than one container (or is both a member and
// a future member).
bool shared_member(const cfg_element *element);

// Something a validator keeps beside a list between validations.
struct list_note {
    virtual ~list_note() = default;
};
std::unique_ptr<list_note> &list_note_of(cfg_element *list);

// A word kept beside element for validation walks, which note there whether
// they have seen and accounted for it; zero for a new record.
uint64_t &walk_mark(cfg_element *element);

// Names schema in element's schema field: a copy of the schema element's
// uuid field, its last byte zero. A field that holds exactly that already
// is left alone, so a walk over a tree bound before dirties none of the four
// cache lines of the field.
inline void bind_schema(cfg_element *element, const cfg_schema_element *schema)
{
    constexpr size_t copied = CFG_UUID_SIZE - 1;
    if (element->schema[copied] == '\0' && memcmp(element->schema, schema->uuid, copied) == 0)
        return;
    memcpy(element->schema, schema->uuid, copied);
    element->schema[copied] = '\0';
}

// Starts fetching what a pass over many records reads of element: its id,
// schema id, type and flags, and the walk's mark and memo beside them.
void prefetch_record(const cfg_element *element);

} // namespace zr

#endif // ZRCONFIG_DATA_H
