// Configuration elements: typed records, replacement, link lists, the uuid
// index, list and map membership (with the cached answers of list members),
// references, parent links, deletion (marking) and release (freeing).
//
// Beside its public record every element keeps private caches of its link
// lists (the last parent link, once there are many; for lists and maps the
// nodes of the members and future members by position, and the elements
// the members resolved to). Invariants:
//  1. Every element record is the first member of an element_box, so a
//     cfg_element pointer is also a pointer to its box.
//  2. A cache describes the list whose first node is its head, as of the
//     link_removals count it holds. Before use it is checked against both
//     and rebuilt from the list when either differs; so a change made behind
//     its back (a new head, or nodes removed through the public link
//     functions, which advance link_removals) is never missed.
//  3. Code here that removes nodes from a list resets that list's cache.
//  4. A synced position cache holds at nodes[i] the node at position i.
//  5. Resolved members belong to one context and one uuid index; when
//     either changes they are dropped before use.
//  6. A resolved member is used only while its stamp equals index_removals.
//     Whatever takes an element out of a uuid index, swaps an index, or
//     changes what a lookup hook answers calls zr::index_changed().
//  7. Only the library's own lookup hooks are cached, and an answer is kept
//     only when no removal happened while the hook ran and the node at its
//     position is still the same.
//  8. What a list knows of changes to its members (zr::member_changes)
//     holds only while its membership stays: code here that adds or removes
//     members of a list forgets it, and member_shape catches a new head or
//     length made behind its back, or an element come to sit in two
//     containers.
#define ZR_SOURCE "src/data"
#include "internal.h"
#include "common.h"
#include "data.h"
#include "entry_pool.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <type_traits>
#include <vector>

using zr::zalloc;

namespace {

constexpr size_t max_string_length = 0x1000000;

// Removals from link lists made through the public link functions, counted
// process-wide: a position index built before the count moved is rebuilt,
// since the nodes it holds may be gone.
std::atomic<uint64_t> link_removals{0};
// Moves whenever an element comes to sit in more than one container.
std::atomic<uint64_t> shared_members{0};

// Elements leaving a uuid index (or lookups changing meaning), counted
// process-wide: a resolved member stamped with an older count is looked up
// again.
std::atomic<uint64_t> index_removals{1};

uint64_t current(const std::atomic<uint64_t> &counter)
{
    return counter.load(std::memory_order_relaxed);
}

// The last node of one link list, so that appending costs O(1). It describes
// the list whose first node is `head`; a list changed behind its back is
// caught up on the next use.
struct link_tail {
    cfg_link *head = nullptr;
    cfg_link *tail = nullptr;
    uint64_t removals = 0;

    // Keeps invariant 2.
    cfg_link *last(cfg_link *actual)
    {
        if (actual != head || removals != current(link_removals) || tail == nullptr) {
            head = actual;
            tail = actual;
            removals = current(link_removals);
        }
        while (tail != nullptr && tail->next != nullptr)
            tail = tail->next;
        return tail;
    }
    void appended(cfg_link *actual, cfg_link *node)
    {
        head = actual;
        tail = node;
    }
    void reset() { *this = link_tail(); }
};

// A member's element as the context's lookup hook found it, valid while no
// element has left an index since `stamp`.
struct resolved_member {
    cfg_element *element = nullptr;
    uint64_t stamp = 0;
};

// The nodes of one link list in order, so that appending and reaching a
// position cost O(1), and the elements the nodes resolved to (filled on
// demand, for one context and one uuid index). Removals made here reset it.
struct link_index {
    cfg_link *head = nullptr;
    uint64_t removals = 0;
    std::vector<cfg_link *> nodes;
    cfg *context = nullptr;
    const cfg_index_entry *index = nullptr;
    std::vector<resolved_member> resolved;

    // Keeps invariants 2 and 4.
    void sync(cfg_link *actual)
    {
        if (actual != head || removals != current(link_removals)) {
            reset();
            head = actual;
            for (cfg_link *n = actual; n != nullptr; n = n->next)
                nodes.push_back(n);
            return;
        }
        if (!nodes.empty())
            for (cfg_link *n = nodes.back()->next; n != nullptr; n = n->next)
                nodes.push_back(n);
    }
    cfg_link *last(cfg_link *actual)
    {
        sync(actual);
        return nodes.empty() ? nullptr : nodes.back();
    }
    void appended(cfg_link *actual, cfg_link *node)
    {
        head = actual;
        nodes.push_back(node);
    }
    void reset()
    {
        head = nullptr;
        removals = current(link_removals);
        nodes.clear();
        resolved.clear();
    }
    // The slot of position for lookups in context's current index; keeps
    // invariant 5.
    resolved_member &slot(cfg *in, size_t position)
    {
        if (in != context || in->elements != index) {
            context = in;
            index = in->elements;
            resolved.clear();
        }
        if (resolved.size() <= position)
            resolved.resize(nodes.size());
        return resolved[position];
    }
};

// What a list or map keeps beside its record.
struct container_index {
    link_index members; // list or map members (the same field of the union)
    std::unique_ptr<link_index> future_members;  // lists only, made on first use
    std::unique_ptr<zr::member_changes> changes; // lists only, made on first use
    std::unique_ptr<zr::list_note> note;         // lists only
};

// Every element record is allocated inside one of these; the public record
// comes first, so a cfg_element pointer is also a pointer to its box.
struct element_box {
    cfg_element element;
    link_tail *parents_tail = nullptr;    // made once the parent links grow long
    container_index *container = nullptr; // made on first use
    uint64_t walk_mark = 0;               // see zr::walk_mark
    zr::validation_memo memo;             // see zr::memo_of

    ~element_box()
    {
        delete container;
        delete parents_tail;
    }
};
static_assert(std::is_standard_layout_v<element_box>);

element_box *box_of(cfg_element *element)
{
    return reinterpret_cast<element_box *>(element);
}

// The tail of an element's parent links, for appending. Most elements have
// one or two parents, so the list is walked; one that has grown past
// long_parents links gets a link_tail of its own, and appends stay O(1).
struct parent_tail {
    static constexpr size_t long_parents = 16;
    element_box *box;
    size_t walked = 0;

    cfg_link *last(cfg_link *actual)
    {
        if (box->parents_tail != nullptr)
            return box->parents_tail->last(actual);
        cfg_link *tail = actual;
        for (walked = 0; tail != nullptr && tail->next != nullptr; walked++)
            tail = tail->next;
        return tail;
    }
    void appended(cfg_link *actual, cfg_link *node)
    {
        if (box->parents_tail == nullptr && walked >= long_parents)
            box->parents_tail = new (std::nothrow) link_tail();
        if (box->parents_tail != nullptr)
            box->parents_tail->appended(actual, node);
    }
};

// Forgets element's parent tail; the links changed behind it.
void reset_parent_tail(cfg_element *element)
{
    element_box *box = box_of(element);
    delete box->parents_tail;
    box->parents_tail = nullptr;
}

container_index &container_of(cfg_element *element)
{
    element_box *box = box_of(element);
    if (box->container == nullptr)
        box->container = new container_index();
    return *box->container;
}

// The position index of list's future members, made on first use: few
// lists ever have any.
link_index &future_index_of(cfg_element *list)
{
    std::unique_ptr<link_index> &index = container_of(list).future_members;
    if (index == nullptr)
        index = std::make_unique<link_index>();
    return *index;
}

// A zero-filled record of type; the box's private parts start empty.
cfg_element *alloc_element(unsigned int type)
{
    void *memory = calloc(1, sizeof(element_box));
    if (memory == nullptr)
        return nullptr;
    auto *box = new (memory) element_box();
    box->element.type = type;
    return &box->element;
}

void release_record(cfg_element *element)
{
    element_box *box = box_of(element);
    box->~element_box();
    free(box);
}

// Copies a uuid into a 256-byte field, always terminated.
void copy_uuid(char *dst, const char *src)
{
    size_t length = strnlen(src, CFG_UUID_SIZE - 1);
    memmove(dst, src, length);
    dst[length] = '\0';
}

cfg_parent_link *record_of(cfg_link *node)
{
    return static_cast<cfg_parent_link *>(node->data);
}

cfg_parent_link *new_link_record(const char *uuid, unsigned int kind)
{
    cfg_parent_link *link = zalloc<cfg_parent_link>();
    if (link == nullptr)
        return nullptr;
    copy_uuid(link->uuid, uuid);
    link->type = kind;
    return link;
}

void free_link_record(cfg_parent_link *link)
{
    if (link != nullptr && link->type == CFG_TYPE_MAP)
        free(link->name);
    free(link);
}

// Frees a link list together with the names of its map-kind records.
void free_links_with_names(cfg_link *head)
{
    while (head != nullptr) {
        cfg_link *next = head->next;
        free_link_record(record_of(head));
        free(head);
        head = next;
    }
}

bool is_type(const cfg_element *element, unsigned int type)
{
    return element != nullptr && element->type == type;
}

bool is_container(const cfg_element *element)
{
    return is_type(element, CFG_TYPE_LIST) || is_type(element, CFG_TYPE_MAP);
}

// Appends data at the tail of the list at head, kept in step with index.
template <typename Index> cfg_link *append_indexed(cfg_link **head, Index &index, void *data)
{
    cfg_link *node = zalloc<cfg_link>();
    if (node == nullptr)
        return nullptr;
    node->data = data;
    cfg_link *last = index.last(*head);
    if (last == nullptr)
        *head = node;
    else
        last->next = node;
    index.appended(*head, node);
    return node;
}

size_t indexed_length(cfg_link *head, link_index &index)
{
    index.sync(head);
    return index.nodes.size();
}

cfg_link *indexed_node(cfg_link *head, link_index &index, size_t position)
{
    index.sync(head);
    return position < index.nodes.size() ? index.nodes[position] : nullptr;
}

cfg_link **members_of(cfg_element *container)
{
    return &container->value.list.members;
}

template <typename Index>
cfg_link *append_link(cfg_link **head, Index &index, const char *uuid,
                      unsigned int kind, unsigned int position, const char *name)
{
    cfg_parent_link *link = new_link_record(uuid, kind);
    if (link == nullptr)
        return nullptr;
    link->index = position;
    if (name != nullptr && (link->name = strdup(name)) == nullptr) {
        free_link_record(link);
        return nullptr;
    }
    cfg_link *node = append_indexed(head, index, link);
    if (node == nullptr)
        free_link_record(link);
    return node;
}

cfg_link *append_parent(cfg_element *element, const char *uuid, unsigned int kind,
                        unsigned int position, const char *name)
{
    parent_tail tail{box_of(element)};
    cfg_link *node = append_link(&element->parents, tail, uuid, kind, position, name);
    if (node != nullptr && zr::shared_member(element))
        shared_members.fetch_add(1, std::memory_order_relaxed);
    return node;
}

cfg_link *append_member(cfg_element *container, const char *uuid, unsigned int kind,
                        unsigned int position, const char *name)
{
    return append_link(members_of(container), container_of(container).members, uuid, kind,
                       position, name);
}

cfg_link *append_future_member(cfg_element *list, const char *uuid, unsigned int position)
{
    return append_link(&list->value.list.future_members, future_index_of(list), uuid,
                       CFG_TYPE_LIST, position, nullptr);
}

unsigned int member_count(cfg_element *container)
{
    return static_cast<unsigned int>(
        indexed_length(*members_of(container), container_of(container).members));
}

unsigned int future_count(cfg_element *list)
{
    return static_cast<unsigned int>(
        indexed_length(list->value.list.future_members, future_index_of(list)));
}

int delete_links_naming(cfg *context, cfg_link **head, const char *uuid);

// Removes the member links naming uuid (renumbering those after them);
// keeps invariant 3, as do the other removals here.
void remove_member_links(cfg *context, cfg_element *container, const char *uuid)
{
    zr::forget_validation(context, container);
    if (container->type == CFG_TYPE_LIST)
        zr::forget_member_changes(container);
    delete_links_naming(context, members_of(container), uuid);
    container_of(container).members.reset();
}

void remove_future_links(cfg *context, cfg_element *list, const char *uuid)
{
    zr::forget_validation(context, list);
    zr::forget_member_changes(list);
    delete_links_naming(context, &list->value.list.future_members, uuid);
    if (link_index *index = container_of(list).future_members.get())
        index->reset();
}

// Removes every parent link naming uuid; parent lists are never renumbered.
void remove_parent_links(cfg_element *element, const char *uuid)
{
    cfg_link **at = &element->parents;
    while (*at != nullptr) {
        cfg_link *node = *at;
        if (strcmp(record_of(node)->uuid, uuid) == 0) {
            *at = node->next;
            free_link_record(record_of(node));
            free(node);
        } else {
            at = &node->next;
        }
    }
    reset_parent_tail(element);
}

std::vector<std::string> link_uuids(cfg_link *head)
{
    std::vector<std::string> uuids;
    for (cfg_link *n = head; n != nullptr; n = n->next)
        uuids.emplace_back(record_of(n)->uuid);
    return uuids;
}

// An element's id as the uuid index hashes it.
zr::hashed_key index_key(const cfg_element *element)
{
    return zr::hashed_key(element->uuid, strlen(element->uuid));
}

cfg_element *find_indexed(cfg *context, const zr::hashed_key &key)
{
    cfg_index_entry *entry = nullptr;
    HASH_FIND_BYHASHVALUE(hh, context->elements, key.text, key.length, key.hash, entry);
    return entry != nullptr ? entry->element : nullptr;
}

// Enters element into the context's uuid index, which must not hold its
// uuid yet; key is the element's own. False when memory runs out.
bool add_to_index(cfg *context, cfg_element *element, const zr::hashed_key &key)
{
    cfg_index_entry *entry = zr::new_index_entry();
    if (entry == nullptr)
        return false;
    entry->element = element;
    HASH_ADD_KEYPTR_BYHASHVALUE(hh, context->elements, element->uuid, key.length, key.hash,
                                entry);
    if (!zr::hash_added(entry)) {
        zr::free_index_entry(entry);
        return false;
    }
    zr::keep_sparse(context->elements);
    return true;
}

// indexed_or_freed for an element whose id the index is known not to hold:
// no lookup is made first.
cfg_element *absent_indexed_or_freed(cfg *context, cfg_element *element,
                                     const zr::hashed_key &key)
{
    if (context == nullptr || !add_to_index(context, element, key)) {
        cfg_free_element(context, element);
        return nullptr;
    }
    return element;
}

// Indexes element and returns it. When the index runs out of memory the
// element is freed and nullptr returned; an id already indexed leaves the
// element outside the index, as it always has.
cfg_element *indexed_or_freed(cfg *context, cfg_element *element)
{
    const zr::hashed_key key = index_key(element);
    if (context != nullptr && find_indexed(context, key) != nullptr)
        return element;
    return absent_indexed_or_freed(context, element, key);
}

// Marks an element new, names it and indexes it.
cfg_element *index_new(cfg *context, cfg_element *element, const char *uuid)
{
    if (element == nullptr)
        return nullptr;
    element->flags |= CFG_FLAG_NEW;
    if (uuid != nullptr)
        copy_uuid(element->uuid, uuid);
    else
        gen_uuid(element->uuid);
    return indexed_or_freed(context, element);
}

// Releases a local element of this uuid, then indexes the record under it.
cfg_element *index_loaded(cfg *context, cfg_element *element, const char *uuid)
{
    if (element == nullptr || uuid == nullptr) {
        // Unindexed, so only the record and its value go.
        cfg_free_element(context, element);
        return nullptr;
    }
    // The held element to replace is the one under the id as the record
    // keeps it: a longer id is cut, and two that differ only past the cut
    // name the same element.
    copy_uuid(element->uuid, uuid);
    const zr::hashed_key key = index_key(element);
    cfg_element *existing = context != nullptr ? find_indexed(context, key) : nullptr;
    if (existing != nullptr)
        cfg_free_element(context, existing);
    return absent_indexed_or_freed(context, element, key); // the id is free now
}

// Replaces old by the record that load makes under old's uuid; see cfg_set_*.
template <typename Load> cfg_element *replace(cfg *context, cfg_element *old, Load load)
{
    cfg_delete_elem(context, old);
    cfg_element *fresh = load(old->uuid);
    if (fresh == nullptr)
        return nullptr;
    fresh->parents = old->parents;
    old->parents = nullptr;
    reset_parent_tail(old);
    fresh->flags = old->flags | CFG_FLAG_CHANGED;
    fresh->generation = old->generation;
    memcpy(fresh->schema, old->schema, sizeof fresh->schema);
    if (is_container(old))
        cfg_delete_members(context, old);
    cfg_free_element(context, old);
    return indexed_or_freed(context, fresh);
}

} // namespace

// ---- Booleans, integers and floats ----

// The six functions of a type whose value is held in field: init,
// new_with_id, new, load, the value reader and the setter.
#define ZR_SCALAR_FAMILY(name, ctype, code, field)                                      \
    extern "C" cfg_element *cfg_init_##name(cfg *, ctype value)                         \
    {                                                                                   \
        cfg_element *element = alloc_element(code);                                     \
        if (element != nullptr)                                                         \
            element->value.field = value;                                               \
        return element;                                                                 \
    }                                                                                   \
    extern "C" cfg_element *cfg_new_##name##_with_id(cfg *context, ctype value,         \
                                                     const char *uuid)                  \
    {                                                                                   \
        return index_new(context, cfg_init_##name(context, value), uuid);               \
    }                                                                                   \
    extern "C" cfg_element *cfg_new_##name(cfg *context, ctype value)                   \
    {                                                                                   \
        return cfg_new_##name##_with_id(context, value, nullptr);                       \
    }                                                                                   \
    extern "C" cfg_element *cfg_load_##name(cfg *context, const char *uuid, ctype value) \
    {                                                                                   \
        return index_loaded(context, cfg_init_##name(context, value), uuid);            \
    }                                                                                   \
    extern "C" int cfg_##name##_value(cfg_element *element, ctype *out)                 \
    {                                                                                   \
        if (!is_type(element, code))                                                    \
            return 0;                                                                   \
        if (out != nullptr)                                                             \
            *out = element->value.field;                                                \
        return 1;                                                                       \
    }                                                                                   \
    extern "C" cfg_element *cfg_set_##name(cfg *context, cfg_element *element,          \
                                           ctype value)                                 \
    {                                                                                   \
        if (element == nullptr)                                                         \
            return nullptr;                                                             \
        return replace(context, element, [&](const char *uuid) {                        \
            return cfg_load_##name(context, uuid, value);                               \
        });                                                                             \
    }

ZR_SCALAR_FAMILY(bool, int, CFG_TYPE_BOOL, int_value)
ZR_SCALAR_FAMILY(int, int, CFG_TYPE_INT, int_value)
ZR_SCALAR_FAMILY(float, double, CFG_TYPE_FLOAT, float_value)

// ---- Strings ----

extern "C" cfg_element *cfg_init_string(cfg *, const char *text)
{
    if (text == nullptr || strnlen(text, max_string_length + 1) > max_string_length)
        return nullptr;
    cfg_element *element = alloc_element(CFG_TYPE_STRING);
    if (element == nullptr)
        return nullptr;
    element->value.string_value = strdup(text);
    if (element->value.string_value == nullptr) {
        release_record(element);
        return nullptr;
    }
    return element;
}

extern "C" cfg_element *cfg_new_string_with_id(cfg *context, const char *text,
                                               const char *uuid)
{
    return index_new(context, cfg_init_string(context, text), uuid);
}

extern "C" cfg_element *cfg_new_string(cfg *context, const char *text)
{
    return cfg_new_string_with_id(context, text, nullptr);
}

extern "C" cfg_element *cfg_load_string(cfg *context, const char *uuid, const char *text)
{
    return index_loaded(context, cfg_init_string(context, text), uuid);
}

namespace {

// A copy of an element's text value for the caller.
int copy_text_out(const char *text, char **out)
{
    if (out == nullptr)
        return 1;
    if (text == nullptr) {
        *out = nullptr;
        return 0;
    }
    *out = strdup(text);
    return *out != nullptr ? 1 : 0;
}

} // namespace

extern "C" int cfg_string_value(cfg_element *element, char **out)
{
    if (!is_type(element, CFG_TYPE_STRING))
        return 0;
    return copy_text_out(element->value.string_value, out);
}

extern "C" cfg_element *cfg_set_string(cfg *context, cfg_element *element, const char *text)
{
    if (element == nullptr || text == nullptr)
        return nullptr;
    return replace(context, element,
                   [&](const char *uuid) { return cfg_load_string(context, uuid, text); });
}

// ---- Blobs ----

extern "C" cfg_element *cfg_init_blob(cfg *, const void *data, size_t size)
{
    if (data == nullptr && size > 0)
        return nullptr;
    cfg_element *element = alloc_element(CFG_TYPE_BLOB);
    if (element == nullptr)
        return nullptr;
    // One spare zero byte keeps the content usable as text.
    element->value.blob.data = static_cast<unsigned char *>(malloc(size + 1));
    if (element->value.blob.data == nullptr) {
        release_record(element);
        return nullptr;
    }
    if (size > 0)
        memcpy(element->value.blob.data, data, size);
    element->value.blob.data[size] = 0;
    element->value.blob.size = size;
    return element;
}

extern "C" cfg_element *cfg_new_blob_with_id(cfg *context, const void *data, size_t size,
                                             const char *uuid)
{
    return index_new(context, cfg_init_blob(context, data, size), uuid);
}

extern "C" cfg_element *cfg_new_blob(cfg *context, const void *data, size_t size)
{
    return cfg_new_blob_with_id(context, data, size, nullptr);
}

extern "C" cfg_element *cfg_load_blob(cfg *context, const char *uuid, const void *data,
                                      size_t size)
{
    return index_loaded(context, cfg_init_blob(context, data, size), uuid);
}

extern "C" int cfg_blob_value(cfg_element *element, void **out, size_t *size)
{
    if (!is_type(element, CFG_TYPE_BLOB))
        return 0;
    size_t length = element->value.blob.size;
    if (size != nullptr)
        *size = length;
    if (out == nullptr)
        return 1;
    auto *copy = static_cast<unsigned char *>(malloc(length + 1));
    if (copy == nullptr)
        return 0;
    if (length > 0)
        memcpy(copy, element->value.blob.data, length);
    copy[length] = 0;
    *out = copy;
    return 1;
}

extern "C" cfg_element *cfg_set_blob(cfg *context, cfg_element *element, const void *data,
                                     size_t size)
{
    if (element == nullptr)
        return nullptr;
    return replace(context, element, [&](const char *uuid) {
        return cfg_load_blob(context, uuid, data, size);
    });
}

// ---- References ----

extern "C" cfg_element *cfg_init_reference(cfg *)
{
    return alloc_element(CFG_TYPE_REFERENCE);
}

extern "C" cfg_element *cfg_new_reference_with_id(cfg *context, const char *target_uuid,
                                                  const char *uuid)
{
    cfg_element *element = cfg_init_reference(context);
    if (element == nullptr)
        return nullptr;
    element->flags |= CFG_FLAG_NEW;
    if (uuid != nullptr)
        copy_uuid(element->uuid, uuid);
    else
        gen_uuid(element->uuid);
    if (!update_reference(context, element, target_uuid)) {
        cfg_free_element(context, element);
        return nullptr;
    }
    return indexed_or_freed(context, element);
}

extern "C" cfg_element *cfg_new_reference(cfg *context, const char *target_uuid)
{
    return cfg_new_reference_with_id(context, target_uuid, nullptr);
}

extern "C" cfg_element *cfg_load_reference(cfg *context, const char *uuid,
                                           const char *target_uuid)
{
    if (uuid == nullptr)
        return nullptr;
    cfg_element *existing = cfg_find_by_id(context, uuid);
    if (existing != nullptr)
        cfg_free_element(context, existing);
    cfg_element *element = cfg_init_reference(context);
    if (element == nullptr)
        return nullptr;
    copy_uuid(element->uuid, uuid);
    if (!update_reference(context, element, target_uuid)) {
        cfg_free_element(context, element);
        return nullptr;
    }
    return indexed_or_freed(context, element);
}

extern "C" int cfg_reference_value(cfg_element *element, char **out)
{
    if (!is_type(element, CFG_TYPE_REFERENCE))
        return 0;
    return copy_text_out(element->value.string_value, out);
}

// An existing reference is first re-pointed in place, so the target ends up
// with two links naming this uuid (the replacement links once more).
extern "C" cfg_element *cfg_set_reference(cfg *context, cfg_element *element,
                                          const char *target_uuid)
{
    if (element == nullptr)
        return nullptr;
    if (element->type == CFG_TYPE_REFERENCE) {
        element->flags |= CFG_FLAG_CHANGED;
        update_reference(context, element, target_uuid);
    }
    return replace(context, element, [&](const char *uuid) {
        return cfg_load_reference(context, uuid, target_uuid);
    });
}

extern "C" int update_reference(cfg *context, cfg_element *reference, const char *target_uuid)
{
    if (reference == nullptr)
        return 0;
    zr::forget_validation(context, reference);
    if (reference->value.string_value != nullptr) {
        cfg_element *old_target = cfg_get_by_id(context, reference->value.string_value);
        if (old_target != nullptr)
            remove_parent_links(old_target, reference->uuid);
        free(reference->value.string_value);
        reference->value.string_value = nullptr;
    }
    if (target_uuid == nullptr)
        return 0;
    cfg_element *target = cfg_get_by_id(context, target_uuid);
    if (target == nullptr)
        return 0;
    reference->value.string_value = strdup(target_uuid);
    if (reference->value.string_value == nullptr)
        return 0;
    if (append_parent(target, reference->uuid, CFG_TYPE_REFERENCE, 0, nullptr) == nullptr) {
        free(reference->value.string_value);
        reference->value.string_value = nullptr;
        return 0;
    }
    return 1;
}

// ---- Lists and maps as values ----

// The five functions of an empty container type: init, new_with_id, new,
// load and the setter (an empty container in the element's place).
#define ZR_CONTAINER_FAMILY(name, code)                                                 \
    extern "C" cfg_element *cfg_init_##name(cfg *)                                      \
    {                                                                                   \
        return alloc_element(code);                                                     \
    }                                                                                   \
    extern "C" cfg_element *cfg_new_##name##_with_id(cfg *context, const char *uuid)    \
    {                                                                                   \
        return index_new(context, cfg_init_##name(context), uuid);                      \
    }                                                                                   \
    extern "C" cfg_element *cfg_new_##name(cfg *context)                                \
    {                                                                                   \
        return cfg_new_##name##_with_id(context, nullptr);                              \
    }                                                                                   \
    extern "C" cfg_element *cfg_load_##name(cfg *context, const char *uuid)             \
    {                                                                                   \
        return index_loaded(context, cfg_init_##name(context), uuid);                   \
    }                                                                                   \
    extern "C" cfg_element *cfg_set_##name(cfg *context, cfg_element *element)          \
    {                                                                                   \
        if (element == nullptr)                                                         \
            return nullptr;                                                             \
        return replace(context, element,                                                \
                       [&](const char *uuid) { return cfg_load_##name(context, uuid); }); \
    }

ZR_CONTAINER_FAMILY(list, CFG_TYPE_LIST)
ZR_CONTAINER_FAMILY(map, CFG_TYPE_MAP)

namespace {

int report_count(cfg_element *list, unsigned int *out, unsigned int (*count)(cfg_element *))
{
    if (!is_type(list, CFG_TYPE_LIST))
        return 0;
    if (out != nullptr)
        *out = count(list);
    return 1;
}

} // namespace

extern "C" int cfg_list_size(cfg_element *element, unsigned int *out)
{
    return report_count(element, out, member_count);
}

extern "C" int cfg_list_future_size(cfg_element *element, unsigned int *out)
{
    return report_count(element, out, future_count);
}

// ---- Type-agnostic accessors ----

extern "C" int cfg_elem_type(cfg_element *element, unsigned int *out)
{
    if (element == nullptr || out == nullptr)
        return 0;
    *out = element->type;
    return 1;
}

extern "C" int cfg_elem_uuid(cfg_element *element, char **out)
{
    if (element == nullptr)
        return 0;
    return copy_text_out(element->uuid, out);
}

extern "C" int cfg_elem_generation(cfg_element *element, int *out)
{
    if (element == nullptr)
        return 0;
    if (out != nullptr)
        *out = element->generation;
    return 1;
}

// ---- Link lists ----

extern "C" cfg_link *cfg_add_link(cfg_link **head, void *data)
{
    if (head == nullptr)
        return nullptr;
    cfg_link *node = zalloc<cfg_link>();
    if (node == nullptr)
        return nullptr;
    node->data = data;
    cfg_link **at = head;
    while (*at != nullptr)
        at = &(*at)->next;
    *at = node;
    return node;
}

extern "C" int cfg_link_list_get(cfg_link *head, unsigned int index, void **out)
{
    cfg_link *node = head;
    for (unsigned int i = 0; node != nullptr && i < index; i++)
        node = node->next;
    if (node == nullptr || node->data == nullptr)
        return 0;
    if (out != nullptr)
        *out = node->data;
    return 1;
}

extern "C" int cfg_link_list_length(cfg_link *head)
{
    int length = 0;
    for (cfg_link *node = head; node != nullptr; node = node->next)
        length++;
    return length;
}

extern "C" void cfg_link_list_free(cfg_link *head)
{
    link_removals.fetch_add(1, std::memory_order_relaxed);
    while (head != nullptr) {
        cfg_link *next = head->next;
        free(head->data);
        free(head);
        head = next;
    }
}

namespace {

// Gives the member named by a renumbered list link its new position.
void renumber_member(cfg *context, cfg_parent_link *link)
{
    if (link->index > 0)
        link->index--;
    cfg_element *member = cfg_get_by_id(context, link->uuid);
    if (member == nullptr)
        return;
    bool changed = false;
    for (cfg_link *n = member->parents; n != nullptr; n = n->next) {
        if (record_of(n)->index != link->index) {
            record_of(n)->index = link->index;
            changed = true;
        }
    }
    if (changed)
        member->flags |= CFG_FLAG_CHANGED;
    if (member->future_parent != nullptr)
        member->future_parent->index = link->index;
}

// Removes the links naming uuid from the list at head, renumbering the list
// links after the first removal.
int delete_links_naming(cfg *context, cfg_link **head, const char *uuid)
{
    if (head == nullptr || uuid == nullptr)
        return 0;
    int removed = 0;
    cfg_link **at = head;
    while (*at != nullptr) {
        cfg_link *node = *at;
        cfg_parent_link *link = record_of(node);
        if (link != nullptr && strcmp(link->uuid, uuid) == 0) {
            *at = node->next;
            free_link_record(link);
            free(node);
            removed++;
            continue;
        }
        if (removed > 0 && link != nullptr && link->type == CFG_TYPE_LIST)
            renumber_member(context, link);
        at = &node->next;
    }
    return removed;
}

} // namespace

// Position indexes cannot see removals made through here, so they are told
// (keeps invariant 2).
extern "C" int cfg_link_list_delete_by_uuid(cfg *context, cfg_link **head, const char *uuid)
{
    int removed = delete_links_naming(context, head, uuid);
    if (removed > 0) {
        link_removals.fetch_add(1, std::memory_order_relaxed);
        zr::forget_all_validation();
    }
    return removed;
}

// ---- The uuid index ----

extern "C" int cfg_add_elem(cfg *context, cfg_element *element)
{
    if (context == nullptr || element == nullptr)
        return 0;
    const zr::hashed_key key = index_key(element);
    if (find_indexed(context, key) != nullptr)
        return 0;
    return add_to_index(context, element, key) ? 1 : 0;
}

extern "C" void cfg_delete_elem(cfg *context, cfg_element *element)
{
    if (context == nullptr || element == nullptr || context->elements == nullptr)
        return;
    cfg_index_entry *entry = nullptr;
    HASH_FIND(hh, context->elements, element->uuid, strlen(element->uuid), entry);
    if (entry == nullptr)
        return;
    zr::forget_validation(context, entry->element);
    HASH_DEL(context->elements, entry);
    zr::free_index_entry(entry);
    zr::index_changed(); // keeps invariant 6
}

// ---- Lists ----

namespace {

// True when the context's hook would answer element's uuid with element
// itself, from the local index.
bool answers_with(cfg *context, cfg_element *element)
{
    return zr::local_answer(context, element->uuid) == element;
}

// Remembers the member just appended at position, as list_member would
// find it.
void remember_member(cfg *context, cfg_element *list, size_t position, cfg_element *member)
{
    if (context == nullptr || !answers_with(context, member))
        return;
    link_index &members = container_of(list).members;
    if (indexed_node(list->value.list.members, members, position) != nullptr)
        members.slot(context, position) = {member, current(index_removals)};
}

} // namespace

uint64_t &zr::walk_mark(cfg_element *element)
{
    return box_of(element)->walk_mark;
}

void zr::prefetch_record(const cfg_element *element)
{
    const auto *box = reinterpret_cast<const element_box *>(element);
    __builtin_prefetch(element->uuid);
    __builtin_prefetch(&element->flags);
    __builtin_prefetch(&box->walk_mark);
}

namespace {

// Changes the data tree cannot place (links made or removed without a
// context to climb) make every memo stale at once.
std::atomic<uint64_t> memo_generation{1};

// Forgets element's memo with a change that no climb can follow.
void forget_everywhere(cfg_element *element)
{
    box_of(element)->memo.epoch = 0;
    zr::forget_all_validation();
}

} // namespace

zr::validation_memo &zr::memo_of(cfg_element *element)
{
    return box_of(element)->memo;
}

uint64_t zr::validation_generation()
{
    return current(memo_generation);
}

void zr::forget_all_validation()
{
    memo_generation.fetch_add(1, std::memory_order_relaxed);
}

namespace {

// A change reached list from member: noted while the list knows its members
// (past a bound, the list forgets instead and is walked whole once).
void note_touched(cfg_element *list, const cfg_element *member)
{
    element_box *box = box_of(list);
    if (box->container == nullptr || box->container->changes == nullptr)
        return;
    zr::member_changes &changes = *box->container->changes;
    if (changes.epoch == 0)
        return;
    if (changes.touched.size() >= 4096) {
        zr::forget_member_changes(list);
        return;
    }
    changes.touched.emplace_back(member->uuid);
}

// Where element sits in list: 0 and its position among the members, 1 and
// its position among the future members; false when it is no member.
bool position_in(cfg_element *list, const cfg_element *element, std::pair<int, unsigned> &at)
{
    for (cfg_link *n = element->parents; n != nullptr; n = n->next) {
        const cfg_parent_link *link = record_of(n);
        if (link->type != CFG_TYPE_LIST || strcmp(link->uuid, list->uuid) != 0)
            continue;
        const char *uuid = cfg_get_listelem(list, static_cast<int>(link->index));
        if (uuid != nullptr && strcmp(uuid, element->uuid) == 0) {
            at = {0, link->index};
            return true;
        }
    }
    const cfg_parent_link *future = element->future_parent;
    if (future == nullptr || strcmp(future->uuid, list->uuid) != 0)
        return false;
    const char *uuid = cfg_get_future_listelem(list, future->index);
    at = {1, future->index};
    return uuid != nullptr && strcmp(uuid, element->uuid) == 0;
}

} // namespace

// Climbs parent, reference and future links through the local index only
// (nothing is fetched), and stops at an element whose memo is forgotten
// already: everything above it was forgotten with it. A list the climb
// reaches from a member notes the member as touched.
void zr::forget_validation(cfg *context, cfg_element *element)
{
    if (element == nullptr)
        return;
    box_of(element)->memo.epoch = 0;
    // Most elements have one parent: the climb rarely leaves the array.
    std::array<cfg_element *, 16> near;
    size_t near_count = 0;
    std::vector<cfg_element *> far;
    auto push = [&](cfg_element *e) {
        if (near_count < near.size())
            near[near_count++] = e;
        else
            far.push_back(e);
    };
    auto pop = [&] {
        if (!far.empty()) {
            cfg_element *e = far.back();
            far.pop_back();
            return e;
        }
        return near_count > 0 ? near[--near_count] : nullptr;
    };
    auto climb = [&](cfg_element *from, const cfg_parent_link *link) {
        cfg_element *parent = cfg_find_by_id(context, link->uuid);
        if (parent == nullptr)
            return;
        if (link->type == CFG_TYPE_LIST && parent->type == CFG_TYPE_LIST)
            note_touched(parent, from);
        if (box_of(parent)->memo.epoch != 0) {
            box_of(parent)->memo.epoch = 0;
            push(parent);
        }
    };
    push(element);
    while (cfg_element *at = pop()) {
        for (cfg_link *n = at->parents; n != nullptr; n = n->next)
            climb(at, record_of(n));
        if (at->future_parent != nullptr)
            climb(at, at->future_parent);
    }
}

zr::member_changes &zr::member_changes_of(cfg_element *list)
{
    std::unique_ptr<member_changes> &changes = container_of(list).changes;
    if (changes == nullptr)
        changes = std::make_unique<member_changes>();
    return *changes;
}

void zr::forget_member_changes(cfg_element *list)
{
    element_box *box = box_of(list);
    if (box->container == nullptr || box->container->changes == nullptr)
        return;
    member_changes &changes = *box->container->changes;
    changes.epoch = 0;
    changes.serial++;
    changes.touched.clear();
    changes.untracked.clear();
}

std::unique_ptr<zr::list_note> &zr::list_note_of(cfg_element *list)
{
    return container_of(list).note;
}

bool zr::shared_member(const cfg_element *element)
{
    int containers = element->future_parent != nullptr ? 1 : 0;
    for (cfg_link *n = element->parents; n != nullptr && containers < 2; n = n->next)
        if (record_of(n)->type == CFG_TYPE_LIST || record_of(n)->type == CFG_TYPE_MAP)
            containers++;
    return containers > 1;
}

uint64_t zr::member_shape(cfg_element *list)
{
    return fingerprint()
        .add(current(shared_members))
        .add(list->value.list.members)
        .add(list->value.list.future_members)
        .add(member_count(list))
        .add(future_count(list))
        .sum();
}

bool zr::changed_members(cfg *context, cfg_element *list, uint64_t epoch,
                         std::vector<cfg_element *> &out, size_t &touched_count)
{
    out.clear();
    element_box *box = box_of(list);
    if (epoch == 0 || box->container == nullptr || box->container->changes == nullptr)
        return false;
    const member_changes &changes = *box->container->changes;
    if (changes.epoch != epoch || changes.shape != member_shape(list))
        return false;
    touched_count = changes.touched.size();
    std::vector<std::pair<std::pair<int, unsigned>, cfg_element *>> found;
    // Only what is held counts: a member gone from the index makes the list
    // be walked whole, and nothing is fetched for bookkeeping.
    for (const std::vector<std::string> *uuids : {&changes.touched, &changes.untracked})
        for (const std::string &uuid : *uuids) {
            cfg_element *element = zr::local_answer(context, uuid.c_str());
            std::pair<int, unsigned> at;
            if (element == nullptr || !position_in(list, element, at))
                return false;
            found.push_back({at, element});
        }
    std::sort(found.begin(), found.end(),
              [](const auto &a, const auto &b) { return a.first < b.first; });
    for (size_t i = 0; i < found.size(); i++)
        if (i == 0 || found[i].first != found[i - 1].first)
            out.push_back(found[i].second);
    return true;
}

void zr::index_changed()
{
    index_removals.fetch_add(1, std::memory_order_relaxed);
}

namespace {

// Whether position is the first, or follows one just answered: the list is
// being walked in order, and the members after it are worth finding now.
bool walked_in_order(cfg *context, link_index &members, size_t position, uint64_t stamp)
{
    if (position == 0)
        return true;
    const resolved_member &before = members.slot(context, position - 1);
    return before.element != nullptr && before.stamp == stamp;
}

// Finds the members from position on, a batch at once, in the local index
// and keeps what it finds; a member it does not hold is left to the hook.
// No hook runs, so nothing leaves an index meanwhile (invariant 7).
void resolve_ahead(cfg *context, cfg_element *list, link_index &members, size_t position,
                   uint64_t stamp)
{
    constexpr size_t ahead = 16;
    const char *uuids[ahead];
    cfg_element *found[ahead];
    size_t count = 0;
    for (cfg_link *node; count < ahead &&
                         (node = indexed_node(list->value.list.members, members,
                                              position + count)) != nullptr;
         count++)
        uuids[count] = record_of(node)->uuid;
    zr::local_answers(context, uuids, count, found);
    for (size_t i = 0; i < count; i++)
        if (found[i] != nullptr)
            members.slot(context, position + i) = {found[i], stamp};
}

} // namespace

// The nodes come from the container's position index, so the records of
// all of them are fetched side by side instead of one node after another.
void zr::member_ids(cfg_element *container, std::vector<const char *> &out)
{
    out.clear();
    if (!is_container(container))
        return;
    link_index &members = container_of(container).members;
    members.sync(*members_of(container));
    for (cfg_link *node : members.nodes)
        __builtin_prefetch(node);
    for (cfg_link *node : members.nodes)
        __builtin_prefetch(node->data);
    for (cfg_link *node : members.nodes)
        out.push_back(record_of(node)->uuid);
}

// The hook's answer is kept beside the list, so walking a list by position
// costs no lookup until an element leaves an index. Keeps invariants 6 and 7:
// an answer is kept only when nothing left an index while the hook ran (the
// list itself among them).
cfg_element *zr::list_member(cfg *context, cfg_element *list, size_t position)
{
    if (context == nullptr || !is_type(list, CFG_TYPE_LIST))
        return nullptr;
    link_index &members = container_of(list).members;
    cfg_link *node = indexed_node(list->value.list.members, members, position);
    if (node == nullptr)
        return nullptr;
    if (!zr::looks_up_locally(context))
        return cfg_get_by_id(context, record_of(node)->uuid);
    uint64_t stamp = current(index_removals);
    const resolved_member &held = members.slot(context, position);
    if (held.element != nullptr && held.stamp == stamp)
        return held.element;
    if (walked_in_order(context, members, position, stamp)) {
        resolve_ahead(context, list, members, position, stamp);
        const resolved_member &ahead = members.slot(context, position);
        if (ahead.element != nullptr && ahead.stamp == stamp)
            return ahead.element;
    }
    cfg_element *element = cfg_get_by_id(context, record_of(node)->uuid);
    if (element != nullptr && current(index_removals) == stamp &&
        indexed_node(list->value.list.members, members, position) == node)
        members.slot(context, position) = {element, stamp};
    return element;
}

extern "C" cfg_link *cfg_append_listelem(cfg *context, cfg_element *list,
                                         cfg_element *child, int future)
{
    if (!is_type(list, CFG_TYPE_LIST) || child == nullptr)
        return nullptr;
    if (future) {
        unsigned int position = future_count(list);
        cfg_parent_link *link = new_link_record(list->uuid, CFG_TYPE_LIST);
        if (link == nullptr)
            return nullptr;
        link->index = position;
        free_link_record(child->future_parent);
        child->future_parent = link;
        if (zr::shared_member(child))
            shared_members.fetch_add(1, std::memory_order_relaxed);
        zr::forget_validation(context, list);
        zr::forget_member_changes(list); // keeps invariant 8, as do the others
        return append_future_member(list, child->uuid, position);
    }
    unsigned int position = member_count(list);
    if (append_parent(child, list->uuid, CFG_TYPE_LIST, position, nullptr) == nullptr)
        return nullptr;
    zr::forget_validation(context, list);
    zr::forget_member_changes(list);
    cfg_link *node = append_member(list, child->uuid, CFG_TYPE_LIST, position, nullptr);
    if (node != nullptr)
        remember_member(context, list, position, child);
    return node;
}

extern "C" cfg_link *cfg_add_listelem(cfg *context, cfg_element *list, cfg_element *child)
{
    cfg_link *node = cfg_append_listelem(context, list, child, 0);
    if (node != nullptr && (child->flags & (CFG_FLAG_NEW | CFG_FLAG_CHANGED)))
        list->flags |= CFG_FLAG_CHANGED;
    return node;
}

extern "C" cfg_link *cfg_append_future_listelem(cfg *context, cfg_element *list,
                                                cfg_element *child)
{
    cfg_link *node = cfg_append_listelem(context, list, child, 1);
    if (node != nullptr) {
        list->flags |= CFG_FLAG_HAS_FUTURE;
        child->flags |= CFG_FLAG_FUTURE_CHILD;
    }
    return node;
}

extern "C" cfg_link *cfg_append_future_listid(cfg_element *list, const char *uuid)
{
    if (!is_type(list, CFG_TYPE_LIST) || uuid == nullptr)
        return nullptr;
    forget_everywhere(list);
    cfg_link *node = append_future_member(list, uuid, future_count(list));
    if (node != nullptr)
        list->flags |= CFG_FLAG_HAS_FUTURE;
    return node;
}

extern "C" cfg_link *cfg_load_listid(cfg_element *list, const char *uuid)
{
    if (!is_type(list, CFG_TYPE_LIST) || uuid == nullptr)
        return nullptr;
    forget_everywhere(list);
    return append_member(list, uuid, CFG_TYPE_LIST, member_count(list), nullptr);
}

extern "C" char *cfg_get_listelem(cfg_element *list, int index)
{
    if (index < 0 || !is_type(list, CFG_TYPE_LIST))
        return nullptr;
    cfg_link *node = indexed_node(list->value.list.members, container_of(list).members,
                                  static_cast<size_t>(index));
    return node != nullptr ? record_of(node)->uuid : nullptr;
}

extern "C" char *cfg_get_future_listelem(cfg_element *list, unsigned int index)
{
    if (!is_type(list, CFG_TYPE_LIST))
        return nullptr;
    cfg_link *node =
        indexed_node(list->value.list.future_members, future_index_of(list), index);
    return node != nullptr ? record_of(node)->uuid : nullptr;
}

namespace {

bool links_name(cfg_link *head, const char *uuid)
{
    for (cfg_link *n = head; n != nullptr; n = n->next)
        if (strcmp(record_of(n)->uuid, uuid) == 0)
            return true;
    return false;
}

// The first parent link of kind, or null.
cfg_parent_link *first_parent_of_kind(cfg_element *element, unsigned int kind)
{
    for (cfg_link *n = element->parents; n != nullptr; n = n->next)
        if (record_of(n)->type == kind)
            return record_of(n);
    return nullptr;
}

} // namespace

extern "C" int cfg_list_contains(cfg_element *list, const char *uuid)
{
    if (!is_type(list, CFG_TYPE_LIST) || uuid == nullptr)
        return 0;
    return links_name(list->value.list.members, uuid) ||
                   links_name(list->value.list.future_members, uuid)
               ? 1
               : 0;
}

extern "C" int cfg_get_list_index(cfg *, cfg_element *element, unsigned int *index)
{
    if (element == nullptr)
        return 0;
    cfg_parent_link *link = first_parent_of_kind(element, CFG_TYPE_LIST);
    if (link == nullptr)
        return 0;
    if (index != nullptr)
        *index = link->index;
    return 1;
}

extern "C" int cfg_get_future_list_index(cfg *, cfg_element *element, const char *list_uuid,
                                         unsigned int *index)
{
    if (element == nullptr || element->future_parent == nullptr ||
        element->future_parent->type != CFG_TYPE_LIST)
        return 0;
    if (list_uuid != nullptr && uuidcmp(element->future_parent->uuid, list_uuid) != 0)
        return 0;
    if (index != nullptr)
        *index = element->future_parent->index;
    return 1;
}

extern "C" int cfg_list_delete_future_at(cfg *context, cfg_element *list, unsigned int index)
{
    const char *uuid = cfg_get_future_listelem(list, index);
    if (uuid == nullptr)
        return 0;
    std::string copy(uuid);
    remove_future_links(context, list, copy.c_str());
    return 1;
}

// ---- Maps ----

extern "C" cfg_link *cfg_add_mapkey(cfg *context, cfg_element *map_elem, const char *key,
                                    const char *uuid)
{
    ZR_ASSERT(map_elem->type == CFG_TYPE_MAP, "map_elem->type == 8");
    if (key == nullptr || uuid == nullptr)
        return nullptr;
    zr::forget_validation(context, map_elem);
    return append_member(map_elem, uuid, CFG_TYPE_MAP, 0, key);
}

extern "C" cfg_link *cfg_load_mapid(cfg_element *map, const char *key, const char *uuid)
{
    if (map == nullptr || key == nullptr || uuid == nullptr)
        return nullptr;
    forget_everywhere(map);
    return append_member(map, uuid, CFG_TYPE_MAP, 0, key);
}

extern "C" cfg_link *cfg_add_mapelem(cfg *context, cfg_element *map_elem, const char *key,
                                     cfg_element *child)
{
    ZR_ASSERT(map_elem->type == CFG_TYPE_MAP, "map_elem->type == 8");
    if (key == nullptr || child == nullptr)
        return nullptr;
    const char *held = cfg_get_mapelem(map_elem, key);
    if (held != nullptr) {
        cfg_element *old = cfg_get_by_id(context, held);
        if (old != nullptr)
            cfg_delete_element(context, old);
    }
    if (append_parent(child, map_elem->uuid, CFG_TYPE_MAP, 0, key) == nullptr)
        return nullptr;
    zr::forget_validation(context, map_elem);
    cfg_link *node = append_member(map_elem, child->uuid, CFG_TYPE_MAP, 0, key);
    if (node != nullptr && (child->flags & (CFG_FLAG_NEW | CFG_FLAG_CHANGED)))
        map_elem->flags |= CFG_FLAG_CHANGED;
    return node;
}

extern "C" char *cfg_get_mapelem(cfg_element *map, const char *key)
{
    if (!is_type(map, CFG_TYPE_MAP) || key == nullptr)
        return nullptr;
    for (cfg_link *n = map->value.map.members; n != nullptr; n = n->next) {
        cfg_parent_link *link = record_of(n);
        if (link->name != nullptr && strcmp(link->name, key) == 0)
            return link->uuid;
    }
    return nullptr;
}

extern "C" int cfg_map_keys(cfg_element *map, char ***keys, unsigned int *count)
{
    if (!is_type(map, CFG_TYPE_MAP))
        return 0;
    unsigned int total = member_count(map);
    if (count != nullptr)
        *count = total;
    if (keys == nullptr)
        return 1;
    *keys = nullptr;
    if (total == 0)
        return 1;
    auto **copies = static_cast<char **>(calloc(total, sizeof(char *)));
    if (copies == nullptr)
        return 0;
    unsigned int i = 0;
    for (cfg_link *n = map->value.map.members; n != nullptr && i < total; n = n->next) {
        copies[i] = strdup(record_of(n)->name != nullptr ? record_of(n)->name : "");
        if (copies[i++] == nullptr) {
            for (unsigned int j = 0; j < i; j++)
                free(copies[j]);
            free(copies);
            return 0;
        }
    }
    *keys = copies;
    return 1;
}

extern "C" int cfg_get_map_key(cfg *, cfg_element *element, char **key)
{
    if (element == nullptr)
        return 0;
    cfg_parent_link *link = first_parent_of_kind(element, CFG_TYPE_MAP);
    if (link == nullptr || link->name == nullptr)
        return 0;
    return copy_text_out(link->name, key);
}

extern "C" int cfg_map_delete_key(cfg *context, cfg_element *map, const char *key)
{
    const char *uuid = cfg_get_mapelem(map, key);
    if (uuid == nullptr)
        return 0;
    cfg_element *member = cfg_get_by_id(context, uuid);
    if (member == nullptr)
        return 0;
    cfg_delete_element(context, member);
    return 1;
}

namespace {

// Replaces the member under key with set, or joins the element that make
// returns under key.
template <typename Set, typename Make>
cfg_element *map_set(cfg *context, cfg_element *map, const char *key, Set set, Make make)
{
    if (map == nullptr || key == nullptr)
        return nullptr;
    const char *held = cfg_get_mapelem(map, key);
    if (held != nullptr) {
        cfg_element *member = cfg_get_by_id(context, held);
        return member != nullptr ? set(member) : nullptr;
    }
    cfg_element *fresh = make();
    if (fresh != nullptr)
        cfg_add_mapelem(context, map, key, fresh);
    return fresh;
}

} // namespace

extern "C" cfg_element *cfg_map_set_string(cfg *context, cfg_element *map, const char *key,
                                           const char *text)
{
    return map_set(
        context, map, key, [&](cfg_element *e) { return cfg_set_string(context, e, text); },
        [&] { return cfg_new_string(context, text); });
}

extern "C" cfg_element *cfg_map_set_int(cfg *context, cfg_element *map, const char *key,
                                        int value)
{
    return map_set(
        context, map, key, [&](cfg_element *e) { return cfg_set_int(context, e, value); },
        [&] { return cfg_new_int(context, value); });
}

extern "C" cfg_element *cfg_map_set_float(cfg *context, cfg_element *map, const char *key,
                                          double value)
{
    return map_set(
        context, map, key, [&](cfg_element *e) { return cfg_set_float(context, e, value); },
        [&] { return cfg_new_float(context, value); });
}

extern "C" cfg_element *cfg_map_set_reference(cfg *context, cfg_element *map,
                                              const char *key, const char *target_uuid)
{
    return map_set(
        context, map, key,
        [&](cfg_element *e) { return cfg_set_reference(context, e, target_uuid); },
        [&] { return cfg_new_reference(context, target_uuid); });
}

extern "C" cfg_element *cfg_map_set_bool(cfg *context, cfg_element *map, const char *key,
                                         int value)
{
    return map_set(
        context, map, key, [&](cfg_element *e) { return cfg_set_bool(context, e, value); },
        [&] { return cfg_new_bool(context, value); });
}

extern "C" cfg_element *cfg_map_set_blob(cfg *context, cfg_element *map, const char *key,
                                         const void *data, size_t size)
{
    return map_set(
        context, map, key,
        [&](cfg_element *e) { return cfg_set_blob(context, e, data, size); },
        [&] { return cfg_new_blob(context, data, size); });
}

// ---- Parent links from loaded data ----

extern "C" cfg_link *cfg_load_referenceparent(cfg_element *element, const char *uuid)
{
    if (element == nullptr || uuid == nullptr)
        return nullptr;
    return append_parent(element, uuid, CFG_TYPE_REFERENCE, 0, nullptr);
}

extern "C" cfg_link *cfg_load_mapparent(cfg_element *element, const char *uuid,
                                        const char *key)
{
    if (element == nullptr || uuid == nullptr || key == nullptr)
        return nullptr;
    return append_parent(element, uuid, CFG_TYPE_MAP, 0, key);
}

extern "C" cfg_link *cfg_load_listparent(cfg_element *element, const char *uuid,
                                         unsigned int index)
{
    if (element == nullptr || uuid == nullptr)
        return nullptr;
    return append_parent(element, uuid, CFG_TYPE_LIST, index, nullptr);
}

// ---- The tree ----

extern "C" cfg_element *cfg_get_parent_elem(cfg *context, cfg_element *element)
{
    if (element == nullptr)
        return nullptr;
    if (element->future_parent != nullptr)
        return cfg_get_by_id(context, element->future_parent->uuid);
    for (cfg_link *n = element->parents; n != nullptr; n = n->next)
        if (record_of(n)->type != CFG_TYPE_REFERENCE)
            return cfg_get_by_id(context, record_of(n)->uuid);
    return nullptr;
}

namespace {

// Leaves every container holding elem and deletes the references naming it.
// A reference already marked deleted is not entered again, so reference
// cycles end.
void detach_from_parents(cfg *context, cfg_element *elem)
{
    for (cfg_link *n = elem->parents; n != nullptr; n = n->next) {
        cfg_parent_link *link = record_of(n);
        cfg_element *parent = cfg_get_by_id(context, link->uuid);
        if (parent == nullptr)
            continue;
        if (is_container(parent) && link->type != CFG_TYPE_REFERENCE) {
            remove_member_links(context, parent, elem->uuid);
            parent->flags |= CFG_FLAG_CHANGED;
        } else if (parent->type == CFG_TYPE_REFERENCE && link->type == CFG_TYPE_REFERENCE &&
                   !(parent->flags & CFG_FLAG_DELETED)) {
            cfg_delete_element(context, parent);
        }
    }
}

// Leaves the future members of the list that elem was to join.
void detach_from_future_parent(cfg *context, cfg_element *elem)
{
    if (elem->future_parent == nullptr)
        return;
    cfg_element *future_parent = cfg_get_by_id(context, elem->future_parent->uuid);
    ZR_ASSERT(future_parent != nullptr, "future_parent");
    if (future_parent->type == CFG_TYPE_LIST) {
        remove_future_links(context, future_parent, elem->uuid);
        if (future_parent->value.list.future_members == nullptr)
            future_parent->flags &= ~CFG_FLAG_HAS_FUTURE;
    }
    elem->flags &= ~CFG_FLAG_FUTURE_CHILD;
}

// Deletes the future members of a list being deleted that hold no other place.
void delete_future_children(cfg *context, cfg_element *elem)
{
    for (const std::string &uuid : link_uuids(elem->value.list.future_members)) {
        cfg_element *future_child = cfg_get_by_id(context, uuid.c_str());
        ZR_ASSERT(future_child != nullptr, "future_child");
        ZR_ASSERT(future_child->future_parent != nullptr, "future_child->future_parent");
        ZR_ASSERT(uuidcmp(future_child->future_parent->uuid, elem->uuid) == 0,
                  "uuidcmp(future_child->future_parent->uuid, elem->uuid) == 0");
        if (future_child->parents == nullptr && !(future_child->flags & CFG_FLAG_DELETED))
            cfg_delete_element(context, future_child);
        future_child->flags &= ~CFG_FLAG_FUTURE_CHILD;
    }
}

} // namespace

namespace {

// The part of a deletion that follows leaving the containers: the future
// list, the members and the future members.
void delete_below(cfg *context, cfg_element *elem)
{
    detach_from_future_parent(context, elem);
    if (is_container(elem))
        cfg_delete_members(context, elem);
    if (elem->type == CFG_TYPE_LIST)
        delete_future_children(context, elem);
    elem->flags &= ~CFG_FLAG_HAS_FUTURE;
}

// True when member sits at position in list and nowhere else: its one parent
// link is that position of that list, it is no future member, not deleted,
// and not a reference (which a cascade elsewhere could delete early).
bool held_alone(const cfg_element *member, const cfg_element *list, const char *uuid,
                unsigned int position)
{
    if (member == nullptr || member->parents == nullptr || member->parents->next != nullptr)
        return false;
    const cfg_parent_link *link = record_of(member->parents);
    return link->type == CFG_TYPE_LIST && link->index == position &&
           strcmp(link->uuid, list->uuid) == 0 && strcmp(member->uuid, uuid) == 0 &&
           member->future_parent == nullptr && !(member->flags & CFG_FLAG_DELETED) &&
           member->type != CFG_TYPE_REFERENCE;
}

// The members of a deleted list when each is held by it alone, in order;
// empty when any is not (or the list is not what its uuid finds).
std::vector<cfg_element *> sole_members(cfg *context, cfg_element *list)
{
    std::vector<cfg_element *> members;
    if (!(list->flags & CFG_FLAG_DELETED) || cfg_get_by_id(context, list->uuid) != list)
        return members;
    unsigned int position = 0;
    for (cfg_link *n = list->value.list.members; n != nullptr; n = n->next, position++) {
        cfg_parent_link *link = record_of(n);
        cfg_element *member = zr::list_member(context, list, position);
        if (link->type != CFG_TYPE_LIST || link->index != position ||
            !held_alone(member, list, link->uuid, position)) {
            members.clear();
            return members;
        }
        members.push_back(member);
    }
    return members;
}

// Deletes the members of a list that holds each of them alone. One by one,
// each deletion would take the head link and renumber all the rest; the end
// state is known in advance: every member after the first is changed and its
// link ends at position 0. Getting there in one pass keeps this O(n). The
// cascades cannot reach the other members (each has no other parent and no
// reference names them), so the order of effects seen by them is the same.
void delete_sole_members(cfg *context, cfg_element *list,
                         const std::vector<cfg_element *> &members)
{
    for (size_t i = 0; i < members.size(); i++) {
        cfg_element *member = members[i];
        if (i > 0) {
            record_of(member->parents)->index = 0;
            member->flags |= CFG_FLAG_CHANGED;
        }
        member->flags |= CFG_FLAG_DELETED;
        cfg_link *head = list->value.list.members;
        list->value.list.members = head->next;
        free_link_record(record_of(head));
        free(head);
        list->flags |= CFG_FLAG_CHANGED;
        delete_below(context, member);
    }
    container_of(list).members.reset();
    zr::forget_member_changes(list);
}

} // namespace

extern "C" void cfg_delete_element(cfg *context, cfg_element *elem)
{
    ZR_ASSERT(elem != nullptr, "elem");
    elem->flags |= CFG_FLAG_DELETED;
    detach_from_parents(context, elem);
    delete_below(context, elem);
}

extern "C" void cfg_delete_members(cfg *context, cfg_element *element)
{
    if (!is_container(element))
        return;
    if (element->type == CFG_TYPE_LIST) {
        std::vector<cfg_element *> members = sole_members(context, element);
        if (!members.empty()) {
            delete_sole_members(context, element, members);
            return;
        }
    }
    for (const std::string &uuid : link_uuids(*members_of(element))) {
        cfg_element *member = cfg_get_by_id(context, uuid.c_str());
        if (member != nullptr && !(member->flags & CFG_FLAG_DELETED))
            cfg_delete_element(context, member);
    }
}

// Frees the record and everything it owns. Only the index entry that points
// at this very record is dropped, so releasing an unindexed duplicate leaves
// the indexed element of the same uuid in place.
extern "C" void cfg_free_element(cfg *context, cfg_element *element)
{
    if (element == nullptr)
        return;
    zr::forget_validation(context, element);
    free_links_with_names(element->parents);
    free_link_record(element->future_parent);
    element->parents = nullptr; // climbed no more once gone
    element->future_parent = nullptr;
    switch (element->type) {
    case CFG_TYPE_LIST:
        free_links_with_names(element->value.list.members);
        free_links_with_names(element->value.list.future_members);
        break;
    case CFG_TYPE_MAP:
        free_links_with_names(element->value.map.members);
        break;
    case CFG_TYPE_STRING:
    case CFG_TYPE_REFERENCE:
        free(element->value.string_value);
        break;
    case CFG_TYPE_BLOB:
        free(element->value.blob.data);
        break;
    default:
        break;
    }
    if (cfg_find_by_id(context, element->uuid) == element)
        cfg_delete_elem(context, element);
    release_record(element);
}
