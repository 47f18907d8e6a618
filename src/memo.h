// Validation memory: what a successful validation run leaves behind so that
// changed-data validation can pass over what it found valid.
//
// A run that validates an element in depth, with success, and ends with
// success itself, leaves a memo beside the element (zr::memo_of). While the
// memo holds, validating the element again in depth would succeed again, so
// changed-data validation passes over it. A memo holds when:
//  1. its epoch is the run's: the same context, the same schema (every
//     schema record and what it links to, summed up in memo.cpp) and no change
//     the data tree could not place since (zr::validation_generation);
//  2. the element carries no flag it did not carry then;
//  3. its type, value and schema element sum up to the same fingerprint;
//  4. nothing below it changed through the library since: every change
//     forgets the memos of the element and of all above it
//     (zr::forget_validation).
// Elements whose validity rests on what lies outside them undeclared (a
// reference's target, a member that did not resolve, a custom validator
// without trigger paths) get no memo, nor does anything above them. Before
// a changed-data run uses memos it forgets those of every element that a
// trigger names or that is not clean itself, so an element is passed over
// only when nothing at or below it is to be validated again.
//
// A list walked in depth by a successful run also keeps which of its members
// were left without a memo (zr::member_changes); a change that climbs from a
// member to the list notes the member there. While the list's membership
// and the epoch stay, a changed-data walk over the list validates those
// members alone: every other member holds a memo that holds.
#ifndef ZRCONFIG_MEMO_H
#define ZRCONFIG_MEMO_H

#include "zrconfig.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace zr {

// What one run knows of memos: the epoch, whether clean elements are passed
// over, and the elements validated in depth so far, whose memos are written
// if the run succeeds.
class memo_run {
  public:
    memo_run(cfg *context, bool passes_over_clean);
    bool passes_over_clean() const { return passes_over_clean_; }

    // Whether element holds a memo for schema; see the rules above.
    bool clean(cfg_element *element, const cfg_schema_element *schema) const;
    // Marks that something validated from here on rests on what lies
    // outside it: no memo for it, nor for anything that holds it.
    void taint() { taints_++; }
    size_t taints() const { return taints_; }
    // Notes element as validated in depth against schema, as it is now.
    void validated(cfg_element *element, const cfg_schema_element *schema);
    uint64_t epoch() const { return epoch_; }
    // Notes a walk over every member of list that needed a second look:
    // the touched members it took in (the first consumed), and the members
    // it left without a memo.
    void walked_list(cfg_element *list, uint64_t serial, uint64_t shape, size_t consumed,
                     std::vector<std::string> untracked);
    // Writes the memos of the run, which succeeded, and what the lists it
    // walked now know of their members.
    void record();

  private:
    struct walked {
        cfg_element *list;
        uint64_t serial, shape;
        size_t consumed;
        std::vector<std::string> untracked;
    };
    std::vector<walked> lists_;
    std::unordered_map<const cfg_element *, size_t> list_positions_;
    uint64_t epoch_;
    bool passes_over_clean_;
    size_t taints_ = 0;
    struct validated_element {
        cfg_element *element;
        uint64_t fingerprint;
        unsigned int flags;
    };
    std::vector<validated_element> validated_;
};

// What a validation walk knows of the list it walked last: whether it looked
// again at some members only, knowing the others unchanged, and which.
// The walk running on a thread installs its note for the validators it
// calls (installed_walk_note); walks nest, the innermost one's note holds.
struct walk_note {
    const cfg_element *list = nullptr;
    bool some = false;
    std::vector<cfg_element *> again;
};
walk_note *&installed_walk_note();

// The members of list that the walk running now looked at again the last
// time it walked list; nullptr when it looked at every member, or knows no
// walk over list.
const std::vector<cfg_element *> *members_walked_again(const cfg_element *list);

} // namespace zr

#endif // ZRCONFIG_MEMO_H
