// Validation memory: the epoch and fingerprints that memos are checked
// against, the run that writes them, and the note of the walk running now
// (see memo.h).
#define ZR_SOURCE "src/memo"
#include "internal.h"
#include "data.h"
#include "memo.h"

#include <algorithm>
#include <cstring>

namespace {

using zr::fingerprint;

void sum_links(fingerprint &sum, cfg_link *head)
{
    for (cfg_link *n = head; n != nullptr; n = n->next)
        sum.add(n).add(n->data);
}

void sum_members(fingerprint &sum, const cfg_schema_members &members)
{
    for (cfg_link *head : {members.required, members.optional, members.deprecated}) {
        sum_links(sum, head);
        for (cfg_link *n = head; n != nullptr; n = n->next) {
            auto *member = static_cast<cfg_schema_mapid *>(n->data);
            sum.add(member->uuid, sizeof member->uuid).text(member->key);
        }
    }
    for (cfg_link *n = members.conditionals; n != nullptr; n = n->next)
        sum.add(n).add(*static_cast<cfg_schema_mapconditional *>(n->data));
}

// One schema element: its record as it lies, and what it links to.
void sum_schema_element(fingerprint &sum, const cfg_schema_element *e)
{
    sum.add(e, sizeof *e);
    for (int i = 0; i < e->validators_count && e->validators != nullptr; i++) {
        const cfg_schema_validator *v = e->validators[i];
        if (v == nullptr)
            continue;
        sum.add(v, sizeof *v).text(v->name);
        for (int p = 0; p < v->params_count && v->params != nullptr; p++)
            sum.text(v->params[p]);
        for (int p = 0; p < v->paths_count && v->paths != nullptr; p++)
            sum.text(v->paths[p]);
    }
    switch (e->type) {
    case CFG_TYPE_INT: sum_links(sum, e->u.integer.allowed); break;
    case CFG_TYPE_FLOAT: sum_links(sum, e->u.real.allowed); break;
    case CFG_TYPE_STRING:
        sum.text(e->u.string.regex).text(e->u.string.default_value);
        sum_links(sum, e->u.string.allowed);
        for (cfg_link *n = e->u.string.allowed; n != nullptr; n = n->next)
            sum.text(static_cast<cfg_schema_allowed *>(n->data)->value.string_value);
        break;
    case CFG_TYPE_LIST: sum.text(e->u.list.element_type_name); break;
    case CFG_TYPE_MAP: sum_members(sum, e->u.map); break;
    case CFG_TYPE_IF:
        sum_members(sum, e->u.cond.members);
        sum.text(e->u.cond.path);
        break;
    default: break;
    }
}

// The epoch memos of this context carry now; never zero.
uint64_t memo_epoch(cfg *context)
{
    fingerprint sum;
    sum.add(context).add(zr::validation_generation());
    if (cfg_schema *schema = context->schema) {
        sum.add(schema->root);
        for (cfg_link *n = schema->types; n != nullptr; n = n->next) {
            auto *type = static_cast<cfg_schema_type *>(n->data);
            sum.add(type->uuid, sizeof type->uuid).text(type->name);
        }
        for (cfg_schema_index_entry *e = schema->elements; e != nullptr;
             e = static_cast<cfg_schema_index_entry *>(e->hh.next))
            if (e->element != nullptr)
                sum.add(e->element).add(e->uuid, sizeof e->uuid), sum_schema_element(sum, e->element);
    }
    return sum.sum() | 1;
}

// The element's type, value and schema element, summed up.
uint64_t element_fingerprint(const cfg_element *e, const cfg_schema_element *schema)
{
    fingerprint sum;
    sum.add(e->type).add(schema);
    switch (e->type) {
    case CFG_TYPE_BOOL:
    case CFG_TYPE_INT: sum.add(e->value.int_value); break;
    case CFG_TYPE_FLOAT: sum.add(e->value.float_value); break;
    case CFG_TYPE_STRING:
    case CFG_TYPE_REFERENCE: sum.text(e->value.string_value); break;
    case CFG_TYPE_BLOB:
        sum.add(e->value.blob.size);
        if (e->value.blob.data != nullptr)
            sum.add(e->value.blob.data, e->value.blob.size);
        break;
    default: break;
    }
    return sum.sum();
}

// Whether more than half of list's members are left without a memo.
bool mostly_untracked(cfg_element *list, size_t untracked)
{
    unsigned int members = 0, future = 0;
    cfg_list_size(list, &members);
    cfg_list_future_size(list, &future);
    return untracked * 2 > static_cast<size_t>(members) + future;
}

} // namespace

zr::walk_note *&zr::installed_walk_note()
{
    static thread_local walk_note *installed = nullptr;
    return installed;
}

const std::vector<cfg_element *> *zr::members_walked_again(const cfg_element *list)
{
    const walk_note *note = installed_walk_note();
    if (note == nullptr || note->list != list || !note->some)
        return nullptr;
    return &note->again;
}

zr::memo_run::memo_run(cfg *context, bool passes_over_clean)
    : epoch_(memo_epoch(context)), passes_over_clean_(passes_over_clean)
{
}

bool zr::memo_run::clean(cfg_element *element, const cfg_schema_element *schema) const
{
    if (element == nullptr || schema == nullptr)
        return false;
    const validation_memo &memo = memo_of(element);
    return memo.epoch == epoch_ && (element->flags & ~memo.flags) == 0 &&
           memo.fingerprint == element_fingerprint(element, schema) &&
           strncmp(element->schema, schema->uuid, CFG_UUID_SIZE) == 0;
}

void zr::memo_run::walked_list(cfg_element *list, uint64_t serial, uint64_t shape,
                               size_t consumed, std::vector<std::string> untracked)
{
    auto [at, fresh] = list_positions_.try_emplace(list, lists_.size());
    if (fresh) {
        lists_.push_back({list, serial, shape, consumed, std::move(untracked)});
        return;
    }
    walked &earlier = lists_[at->second];
    earlier = {list, serial, shape, std::max(consumed, earlier.consumed), std::move(untracked)};
}

// Summed up while the record is at hand: writing the memos later then
// touches only the memo beside each record.
void zr::memo_run::validated(cfg_element *element, const cfg_schema_element *schema)
{
    validated_.push_back({element, element_fingerprint(element, schema), element->flags});
}

void zr::memo_run::record()
{
    for (const validated_element &v : validated_)
        memo_of(v.element) = {epoch_, v.fingerprint, v.flags};
    for (walked &w : lists_) {
        member_changes &changes = member_changes_of(w.list);
        if (changes.serial != w.serial || member_shape(w.list) != w.shape)
            continue;
        if (mostly_untracked(w.list, w.untracked.size())) {
            forget_member_changes(w.list); // walking them all costs less
            continue;
        }
        size_t consumed = std::min(w.consumed, changes.touched.size());
        changes.touched.erase(changes.touched.begin(), changes.touched.begin() + consumed);
        changes.untracked = std::move(w.untracked);
        changes.epoch = epoch_;
        changes.shape = w.shape;
        changes.commits++;
    }
}
