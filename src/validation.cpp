// Validation: the validation context of one walk (elements still to check,
// elements seen; kept as marks beside the records when the context looks
// up through the library's own hooks),
// node validation by type with the walk's cycle guards, full validation of
// the tree, and changed-data validation, which validates only the flagged
// elements and what the trigger tables say depends on them, passing over
// what an earlier successful run found valid and nothing changed since.
#define ZR_SOURCE "src/validation"
#include "internal.h"
#include "common.h"
#include "data.h"
#include "defaults.h"
#include "memo.h"
#include "triggers.h"
#include "walk.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <optional>
#include <pcre.h>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

using zr::schema_walk;
using zr::walk_fault;
using zr::clear_table;
using zr::memo_run;
namespace trig = zr::triggers;
using zr::zalloc;

// ------------------------------------------------------------------------
// Validation context
// ------------------------------------------------------------------------

namespace {

cfg_index_entry *find_entry(cfg_index_entry *map, const cfg_element *element)
{
    cfg_index_entry *entry = nullptr;
    HASH_FIND(hh, map, element->uuid, strlen(element->uuid), entry);
    return entry;
}

// Adds element to map under a copy of its uuid kept right behind the entry,
// so the key stays valid whatever becomes of the element's record. False,
// and map unchanged, when there is no memory for it.
bool add_entry(cfg_index_entry *&map, cfg_element *element)
{
    size_t length = strnlen(element->uuid, CFG_UUID_SIZE - 1);
    auto *entry = static_cast<cfg_index_entry *>(calloc(1, sizeof(cfg_index_entry) + length + 1));
    if (entry == nullptr)
        return false;
    char *key = reinterpret_cast<char *>(entry + 1);
    memcpy(key, element->uuid, length);
    entry->element = element;
    HASH_ADD_KEYPTR(hh, map, key, length, entry);
    if (!zr::hash_added(entry)) {
        free(entry);
        return false;
    }
    return true;
}

// The members of the maps a walk is in, as the first pass over each map
// (adding them as unaccounted for) resolved them, so that checking its keys
// next, and its conditionals, asks the index no second time. For contexts
// that look up through the library's own hooks, where no held member moves
// while the walk runs; a member added since is looked up as before.
class map_members {
  public:
    struct member {
        const char *uuid; // the link record's own id field
        cfg_element *element;
    };

    // Resolves map's members on a new frame; a frame of the same map below
    // (a conditional's pass over it) lends what it resolved.
    const std::vector<member> &enter(cfg *context, cfg_element *map)
    {
        if (depth_ == frames_.size())
            frames_.emplace_back();
        frame &made = frames_[depth_];
        const frame *outer = depth_ > 0 && frames_[depth_ - 1].map == map ? &frames_[depth_ - 1]
                                                                       : nullptr;
        depth_++;
        made.map = map;
        made.members.clear();
        zr::member_ids(map, uuids_);
        for (const char *uuid : uuids_)
            made.members.push_back({uuid, nullptr});
        if (outer != nullptr && lend(*outer, made))
            return made.members;
        answers_.resize(uuids_.size());
        zr::local_answers(context, uuids_.data(), uuids_.size(), answers_.data());
        for (size_t i = 0; i < made.members.size(); i++)
            made.members[i].element = answers_[i] != nullptr
                                          ? answers_[i]
                                          : cfg_get_by_id(context, made.members[i].uuid);
        return made.members;
    }
    void leave() { depth_--; }

    // The element of map's member whose id field is uuid, when the current
    // frame knows it (small maps only: it is searched in order).
    bool find(const cfg_element *map, const char *uuid, cfg_element *&out) const
    {
        if (depth_ == 0 || frames_[depth_ - 1].map != map)
            return false;
        const std::vector<member> &members = frames_[depth_ - 1].members;
        if (members.size() > 32)
            return false;
        for (const member &m : members)
            if (m.uuid == uuid) {
                out = m.element;
                return true;
            }
        return false;
    }

  private:
    struct frame {
        const cfg_element *map = nullptr;
        std::vector<member> members;
    };
    // Copies what outer resolved into made when both hold the same links.
    static bool lend(const frame &outer, frame &made)
    {
        if (outer.members.size() != made.members.size())
            return false;
        for (size_t i = 0; i < made.members.size(); i++)
            if (outer.members[i].uuid != made.members[i].uuid)
                return false;
        made.members = outer.members;
        return true;
    }

    std::vector<frame> frames_; // kept, with their room, as the walk goes up and down
    size_t depth_ = 0;
    std::vector<const char *> uuids_; // room for one batch of lookups
    std::vector<cfg_element *> answers_;
};

// The schema elements that the member and conditional links of map and if
// schema elements name, each resolved the first time a walk meets it. No
// schema changes while a walk runs, and a link belongs to one list of one
// schema element, so the link alone keys what it resolved to.
class schema_links {
  public:
    template <typename Resolve>
    cfg_schema_element *resolve(const void *link, Resolve resolve_now)
    {
        auto [at, fresh] = resolved_.try_emplace(link, nullptr);
        if (fresh)
            at->second = resolve_now();
        return at->second;
    }

  private:
    std::unordered_map<const void *, cfg_schema_element *> resolved_;
};

// The bookkeeping of a walk the library runs itself over a context that
// looks up through the library's own hooks. There, one uuid names one
// record for the whole walk (a fetch adds records, but replaces or frees
// none that is held; see zr::looks_up_locally), so
// the two uuid maps of the validation context can be kept as a mark beside
// each record instead: the walk's serial and the element's state. The maps
// stay empty meanwhile; the elements left unaccounted for are found, in the
// order they were added, through the list kept here. Changed-data
// validation notes in the same mark which elements its work set holds.
class walk_marks {
  public:
    explicit walk_marks(validation_context *vctx)
        : vctx_(vctx), serial_(next_serial++), outer_(active),
          outer_note_(zr::installed_walk_note())
    {
        active = this;
        zr::installed_walk_note() = &walked;
    }
    ~walk_marks()
    {
        active = outer_;
        zr::installed_walk_note() = outer_note_;
    }
    walk_marks(const walk_marks &) = delete;
    walk_marks &operator=(const walk_marks &) = delete;

    // The marks that keep vctx's maps, or nullptr when its maps are used.
    static walk_marks *of(const validation_context *vctx)
    {
        return active != nullptr && active->vctx_ == vctx ? active : nullptr;
    }

    void add_unhandled(cfg_element *element)
    {
        if (state(element) != unseen)
            return;
        set_state(element, unhandled);
        order_.push_back(element);
        unhandled_count_++;
    }
    void set_handled(cfg_element *element)
    {
        if (state(element) == unhandled)
            unhandled_count_--;
        set_state(element, handled);
    }
    // The first element still unaccounted for, in the order added; nullptr
    // when there is none.
    cfg_element *first_unhandled()
    {
        if (unhandled_count_ == 0)
            return nullptr;
        while (state(order_[checked_]) != unhandled)
            checked_++;
        return order_[checked_];
    }
    // Notes element as held by the work set (and named by a trigger, when
    // triggered); true the first time.
    bool join_work(cfg_element *element, bool triggered)
    {
        uint64_t now = bits(element);
        set_bits(element, now | in_work | (triggered ? triggered_bit : 0));
        return (now & in_work) == 0;
    }
    bool triggered(cfg_element *element) const { return (bits(element) & triggered_bit) != 0; }

    template <typename Visit> void each_unhandled(Visit visit)
    {
        for (cfg_element *element : order_)
            if (state(element) == unhandled)
                visit(element);
    }

    memo_run *memo = nullptr; // the run's memos, when it keeps any
    map_members members;
    schema_links linked; // what the schema's member and conditional links name
    zr::walk_note walked; // the list walked last, for the validators

  private:
    // A mark is the serial, then four bits: the state (two), in the work
    // set, named by a trigger.
    static constexpr uint64_t unseen = 0, unhandled = 1, handled = 2, state_bits = 3,
                              in_work = 4, triggered_bit = 8, serial_shift = 4;
    uint64_t bits(cfg_element *element) const
    {
        uint64_t mark = zr::walk_mark(element);
        return mark >> serial_shift == serial_ ? mark & 15 : 0;
    }
    void set_bits(cfg_element *element, uint64_t value)
    {
        zr::walk_mark(element) = serial_ << serial_shift | value;
    }
    uint64_t state(cfg_element *element) const { return bits(element) & state_bits; }
    void set_state(cfg_element *element, uint64_t value)
    {
        set_bits(element, (bits(element) & ~state_bits) | value);
    }

    static inline thread_local walk_marks *active = nullptr;
    static inline std::atomic<uint64_t> next_serial{1};
    validation_context *vctx_;
    uint64_t serial_;
    walk_marks *outer_;
    zr::walk_note *outer_note_;
    std::vector<cfg_element *> order_;
    size_t unhandled_count_ = 0;
    size_t checked_ = 0; // order_ before it holds no unhandled element
};

// The memos of the run vctx belongs to, or nullptr when it keeps none.
memo_run *memo_for(const validation_context *vctx)
{
    walk_marks *marks = walk_marks::of(vctx);
    return marks != nullptr ? marks->memo : nullptr;
}

// The schema element that link (a member or conditional link of a schema
// element) names, as resolve_now finds it; a walk on marks resolves each
// link once.
template <typename Resolve>
cfg_schema_element *linked_schema(const validation_context *vctx, const void *link,
                                  Resolve resolve_now)
{
    walk_marks *marks = walk_marks::of(vctx);
    return marks != nullptr ? marks->linked.resolve(link, resolve_now) : resolve_now();
}

// The first element of vctx left unaccounted for, or nullptr.
cfg_element *first_unhandled(validation_context *vctx)
{
    if (walk_marks *marks = walk_marks::of(vctx))
        return marks->first_unhandled();
    return vctx->unhandled != nullptr ? vctx->unhandled->element : nullptr;
}

} // namespace

extern "C" void add_unhandled(validation_context *vctx, cfg_element *element)
{
    if (vctx == nullptr || element == nullptr)
        return;
    if (walk_marks *marks = walk_marks::of(vctx)) {
        marks->add_unhandled(element);
        return;
    }
    if (find_entry(vctx->seen, element) != nullptr)
        return;
    if (add_entry(vctx->unhandled, element))
        add_entry(vctx->seen, element);
}

extern "C" void set_handled(validation_context *vctx, cfg_element *element)
{
    if (vctx == nullptr || element == nullptr)
        return;
    if (walk_marks *marks = walk_marks::of(vctx)) {
        marks->set_handled(element);
        return;
    }
    if (find_entry(vctx->seen, element) == nullptr)
        add_entry(vctx->seen, element);
    cfg_index_entry *entry = find_entry(vctx->unhandled, element);
    if (entry != nullptr) {
        HASH_DEL(vctx->unhandled, entry);
        free(entry);
    }
}

extern "C" void free_context(validation_context *vctx)
{
    if (vctx == nullptr)
        return;
    clear_table(vctx->unhandled, free);
    clear_table(vctx->seen, free);
    free(vctx);
}

// ------------------------------------------------------------------------
// Node validation
// ------------------------------------------------------------------------

// Log lines written by helpers carry the name of the exported function they
// work for.
#define ZR_LOG_FOR(function, priority, ...) \
    zrlog_log_prio_codepos(ZR_SOURCE, function, __LINE__, (priority), __VA_ARGS__)

namespace {

int validate_node_in(validation_context *vctx, cfg *context, cfg_element *element,
                     cfg_schema_element *schema, schema_walk &walk, bool created);
int validate_map_in(validation_context *vctx, cfg *context, cfg_element *map,
                    cfg_schema_element *schema, schema_walk &walk);

// Member kinds of a map or if schema element, in the order they are checked.
constexpr int required_keys = 0;
constexpr int optional_keys = 1;
constexpr int deprecated_keys = 2;
constexpr int key_order[] = {optional_keys, required_keys, deprecated_keys};

struct vctx_deleter {
    void operator()(validation_context *vctx) const { free_context(vctx); }
};
// Owns a validation context for the length of one walk.
using vctx_ptr = std::unique_ptr<validation_context, vctx_deleter>;

vctx_ptr new_vctx()
{
    return vctx_ptr(zalloc<validation_context>());
}

cfg_schema_members *members_of(cfg_schema_element *schema)
{
    if (schema->type == CFG_TYPE_MAP)
        return &schema->u.map;
    if (schema->type == CFG_TYPE_IF)
        return &schema->u.cond.members;
    return nullptr;
}

cfg_link *keys_of_kind(cfg_schema_members *members, int kind)
{
    switch (kind) {
    case required_keys: return members->required;
    case optional_keys: return members->optional;
    default: return members->deprecated;
    }
}

template <typename Equal> bool allowed_contains(cfg_link *allowed, Equal equal)
{
    for (cfg_link *n = allowed; n != nullptr; n = n->next)
        if (equal(static_cast<cfg_schema_allowed *>(n->data)->value))
            return true;
    return false;
}

// The compiled form of pattern from the schema's cache, compiled and cached
// on first use; nullptr when it does not compile (nothing is cached then).
pcre *cached_pattern(cfg_schema *schema, const char *pattern)
{
    size_t length = strlen(pattern);
    cfg_regex_cache_entry *entry = nullptr;
    HASH_FIND(hh, schema->regex_cache, pattern, length, entry);
    if (entry != nullptr)
        return static_cast<pcre *>(entry->compiled);
    const char *error = nullptr;
    int offset = 0;
    pcre *compiled = pcre_compile(pattern, 0, &error, &offset, nullptr);
    if (compiled == nullptr)
        return nullptr;
    // A pattern that cannot be cached for want of memory is treated as one
    // that does not compile.
    entry = zalloc<cfg_regex_cache_entry>();
    if (entry != nullptr && (entry->pattern = strdup(pattern)) != nullptr) {
        entry->compiled = compiled;
        HASH_ADD_KEYPTR(hh, schema->regex_cache, entry->pattern, length, entry);
        if (zr::hash_added(entry))
            return compiled;
        free(entry->pattern);
    }
    free(entry);
    pcre_free(compiled);
    return nullptr;
}

// Whether pattern occurs anywhere in text; a pattern that does not compile
// matches nothing.
bool string_matches(cfg *context, const char *pattern, const char *text, bool &compiled)
{
    pcre *expression = cached_pattern(context->schema, pattern);
    compiled = expression != nullptr;
    if (expression == nullptr)
        return false;
    // Strings are refused above 16 MiB, so the length always fits an int.
    return pcre_exec(expression, nullptr, text, static_cast<int>(strlen(text)), 0, 0, nullptr,
                     0) >= 0;
}

// Copies of the member uuids of one link list: resolving them through the
// lookup hook may load data, and must not pull the list from under us.
std::vector<std::string> member_uuids(cfg_link *head)
{
    std::vector<std::string> uuids;
    for (cfg_link *n = head; n != nullptr; n = n->next)
        uuids.emplace_back(static_cast<cfg_parent_link *>(n->data)->uuid);
    return uuids;
}

// The schema element of the named item type of a list schema, or nullptr.
cfg_schema_element *named_item_schema(cfg *context, cfg_schema_element *schema)
{
    const char *name = schema->u.list.element_type_name;
    const char *type_uuid = name != nullptr ? cfg_get_type(context, name) : nullptr;
    return type_uuid != nullptr ? cfg_get_schema_by_id(context, type_uuid) : nullptr;
}

// Checks one list item: against the named type's schema element when there
// is one, otherwise by its type code alone.
int validate_list_item(validation_context *vctx, cfg *context, cfg_element *list,
                       cfg_element *item, cfg_schema_element *item_schema, int item_type,
                       schema_walk &walk)
{
    if (item == nullptr)
        return 0;
    if (item_schema != nullptr)
        return validate_node_in(vctx, context, item, item_schema, walk, false);
    if (item->type != static_cast<unsigned int>(item_type)) {
        cfg_message_add_list_wrong_type(context, list->uuid);
        return 0;
    }
    set_handled(vctx, item);
    return 1;
}

// One key of a map or if schema element, checked against the map.
int validate_key(validation_context *vctx, cfg *context, cfg_element *map,
                 cfg_schema_element *schema, int kind, const cfg_schema_mapid *mapid,
                 schema_walk &walk)
{
    const char *key = mapid->key;
    ZR_LOG_FOR("cfg_validate_map", LOG_INFO, "Looking for %s", key);
    const char *child_uuid = cfg_get_mapelem(map, key);
    cfg_schema_element *key_schema = linked_schema(vctx, mapid, [&] {
        const char *uuid = cfg_get_schema_mapelem(schema, kind, key);
        return uuid != nullptr ? cfg_get_schema_by_id(context, uuid) : nullptr;
    });
    if (child_uuid != nullptr) {
        cfg_element *child = nullptr;
        walk_marks *marks = walk_marks::of(vctx);
        if (marks == nullptr || !marks->members.find(map, child_uuid, child))
            child = cfg_get_by_id(context, child_uuid);
        if (child == nullptr) {
            if (memo_run *memo = memo_for(vctx))
                memo->taint(); // the member may turn up later
            if (kind != required_keys)
                return 1;
            cfg_message_add_missing_required(context, key, map->uuid);
            return 0;
        }
        if (kind == deprecated_keys || vctx->shallow) {
            set_handled(vctx, child);
            return 1;
        }
        return validate_node_in(vctx, context, child, key_schema, walk, false);
    }
    if (kind != required_keys)
        return 1;
    cfg_element *created = cfg_create_default(context, key_schema, nullptr);
    if (created == nullptr) {
        cfg_message_add_missing_required(context, key, map->uuid);
        return 0;
    }
    cfg_add_mapelem(context, map, key, created);
    return validate_node_in(vctx, context, created, key_schema, walk, true);
}

// Runs the custom validators of schema on element, registering each one's
// trigger paths before it runs.
int run_validators(validation_context *vctx, cfg *context, cfg_element *element,
                   cfg_schema_element *schema)
{
    for (int i = 0; i < schema->validators_count; i++) {
        cfg_schema_validator *validator = schema->validators[i];
        if (validator == nullptr)
            continue;
        memo_run *memo = memo_for(vctx);
        if (memo != nullptr && (validator->paths_count <= 0 || validator->paths == nullptr))
            memo->taint(); // what it reads is not watched
        cfg_create_validator_triggers(context, element, validator);
        const char *name = validator->name != nullptr ? validator->name : "";
        trig::settle_registrations(context); // the validator may read the tables
        cfg_validator_fn function = get_validator(name);
        if (function == nullptr) {
            ZR_LOG_FOR("cfg_validate_node", LOG_ERR, "No validator named '%s'\n", name);
            return 0;
        }
        if (!function(context, element, validator->params, validator->params_count)) {
            ZR_LOG_FOR("cfg_validate_node", LOG_DEBUG, "Custom validator '%s' rejected input\n",
                       name);
            return 0;
        }
    }
    return 1;
}

int validate_list_in(validation_context *vctx, cfg *context, cfg_element *list,
                     cfg_schema_element *schema, schema_walk &walk);

int validate_by_type(validation_context *vctx, cfg *context, cfg_element *element,
                     cfg_schema_element *schema, schema_walk &walk)
{
    switch (element->type) {
    case CFG_TYPE_BOOL: return cfg_validate_bool(vctx, context, element, schema);
    case CFG_TYPE_INT: return cfg_validate_int(vctx, context, element, schema);
    case CFG_TYPE_FLOAT: return cfg_validate_float(vctx, context, element, schema);
    case CFG_TYPE_STRING: return cfg_validate_string(vctx, context, element, schema);
    case CFG_TYPE_BLOB: return cfg_validate_blob(vctx, context, element, schema);
    case CFG_TYPE_LIST: return validate_list_in(vctx, context, element, schema, walk);
    case CFG_TYPE_MAP: return validate_map_in(vctx, context, element, schema, walk);
    case CFG_TYPE_REFERENCE:
        if (memo_run *memo = memo_for(vctx))
            memo->taint(); // its target may go without the reference knowing
        return cfg_validate_reference(vctx, context, element, schema);
    default: return 1;
    }
}

bool usable(validation_context *vctx, cfg *context, cfg_element *element,
            cfg_schema_element *schema)
{
    return vctx != nullptr && context != nullptr && element != nullptr && schema != nullptr;
}

// cfg_validate_node one level down a walk; created when the walk made the
// element as a missing required member.
int validate_node_in(validation_context *vctx, cfg *context, cfg_element *element,
                     cfg_schema_element *schema, schema_walk &walk, bool created)
{
    if (!usable(vctx, context, element, schema))
        return 0;
    if (element->type != static_cast<unsigned int>(schema->type)) {
        cfg_message_add_wrong_type(context, element->uuid);
        return 0;
    }
    memo_run *memo = memo_for(vctx);
    const bool deep = !vctx->shallow;
    if (memo != nullptr && memo->passes_over_clean() && deep && memo->clean(element, schema)) {
        set_handled(vctx, element);
        return 1;
    }
    walk_fault fault = walk.enter_member(element, schema, created);
    if (fault != walk_fault::none) {
        schema_walk::report(context, fault, element);
        return 0;
    }
    zr::bind_schema(element, schema);
    const size_t taints = memo != nullptr ? memo->taints() : 0;
    int valid = validate_by_type(vctx, context, element, schema, walk) &&
                run_validators(vctx, context, element, schema);
    walk.leave();
    if (valid) {
        set_handled(vctx, element);
        if (memo != nullptr && deep && memo->taints() == taints)
            memo->validated(element, schema);
    }
    return valid;
}

} // namespace

extern "C" int cfg_validate_node(validation_context *vctx, cfg *context, cfg_element *element,
                                 cfg_schema_element *schema)
{
    schema_walk walk;
    return validate_node_in(vctx, context, element, schema, walk, false);
}

extern "C" int cfg_validate_bool(validation_context *, cfg *, cfg_element *element,
                                 cfg_schema_element *)
{
    if (element == nullptr)
        return 0;
    ZR_LOG(LOG_DEBUG, "Validating %s as bool\n", element->uuid);
    return 1;
}

extern "C" int cfg_validate_int(validation_context *, cfg *context, cfg_element *element,
                                cfg_schema_element *schema)
{
    if (context == nullptr || element == nullptr || schema == nullptr)
        return 0;
    ZR_LOG(LOG_DEBUG, "Validating %s as int\n", element->uuid);
    int value = element->value.int_value;
    const auto &part = schema->u.integer;
    if (part.allowed != nullptr &&
        !allowed_contains(part.allowed, [&](const cfg_schema_value &v) { return v.int_value == value; })) {
        cfg_message_add_int_invalid_value(context, element->uuid);
        return 0;
    }
    if (part.has_max && part.has_min) {
        if (value <= part.max && value >= part.min)
            return 1;
        cfg_message_add_int_outside_range(context, part.min, part.max, element->uuid);
        return 0;
    }
    if (part.has_max && value > part.max) {
        cfg_message_add_int_above_max(context, part.max, element->uuid);
        return 0;
    }
    if (part.has_min && value < part.min) {
        cfg_message_add_int_below_min(context, part.min, element->uuid);
        return 0;
    }
    return 1;
}

extern "C" int cfg_validate_float(validation_context *, cfg *context, cfg_element *element,
                                  cfg_schema_element *schema)
{
    if (context == nullptr || element == nullptr || schema == nullptr)
        return 0;
    ZR_LOG(LOG_DEBUG, "Validating %s as float\n", element->uuid);
    double value = element->value.float_value;
    const auto &part = schema->u.real;
    if (part.allowed != nullptr &&
        !allowed_contains(part.allowed, [&](const cfg_schema_value &v) { return v.float_value == value; })) {
        cfg_message_add_float_invalid_value(context, element->uuid);
        return 0;
    }
    if (part.has_max && value > part.max) {
        cfg_message_add_float_above_max(context, part.max, element->uuid);
        return 0;
    }
    if (part.has_min && part.min > value) {
        cfg_message_add_float_below_min(context, part.min, element->uuid);
        return 0;
    }
    return 1;
}

extern "C" int cfg_validate_string(validation_context *, cfg *context, cfg_element *element,
                                   cfg_schema_element *schema)
{
    if (context == nullptr || element == nullptr || schema == nullptr)
        return 0;
    ZR_LOG(LOG_DEBUG, "Validating %s as string\n", element->uuid);
    const char *value = element->value.string_value != nullptr ? element->value.string_value : "";
    const auto &part = schema->u.string;
    if (part.allowed != nullptr && !allowed_contains(part.allowed, [&](const cfg_schema_value &v) {
            return v.string_value != nullptr && strcmp(v.string_value, value) == 0;
        })) {
        cfg_message_add_string_invalid_value(context, element->uuid, value);
        return 0;
    }
    // Lengths are compared as signed 64-bit numbers, as blob sizes are.
    auto length = static_cast<int64_t>(strlen(value));
    if (part.has_max && length > part.max) {
        cfg_message_add_string_above_max(context, part.max, element->uuid);
        return 0;
    }
    if (part.has_min && length < part.min) {
        cfg_message_add_string_below_min(context, part.min, element->uuid);
        return 0;
    }
    if (!part.has_regex || part.regex == nullptr || context->schema == nullptr)
        return 1;
    bool compiled = false;
    if (string_matches(context, part.regex, value, compiled))
        return 1;
    if (compiled)
        cfg_message_add_string_format(context, element->uuid);
    return 0;
}

extern "C" int cfg_validate_blob(validation_context *, cfg *context, cfg_element *element,
                                 cfg_schema_element *schema)
{
    if (context == nullptr || element == nullptr || schema == nullptr)
        return 0;
    ZR_LOG(LOG_DEBUG, "Validating %s as blob\n", element->uuid);
    // Sizes are compared as signed 64-bit numbers, so a negative bound never
    // turns into a huge unsigned one.
    auto size = static_cast<int64_t>(element->value.blob.size);
    const auto &part = schema->u.blob;
    if (part.has_max && size > part.max) {
        cfg_message_add_blob_above_max(context, part.max, element->uuid);
        return 0;
    }
    if (part.has_min && size < part.min) {
        cfg_message_add_blob_below_min(context, part.min, element->uuid);
        return 0;
    }
    return 1;
}

extern "C" int cfg_validate_reference(validation_context *, cfg *context, cfg_element *element,
                                      cfg_schema_element *)
{
    if (context == nullptr || element == nullptr)
        return 0;
    ZR_LOG(LOG_DEBUG, "Validating %s as reference\n", element->uuid);
    const char *target = element->value.string_value;
    if (target != nullptr && cfg_get_by_id(context, target) != nullptr)
        return 1;
    cfg_message_add_invalid_reference(context, element->uuid);
    return 0;
}

namespace {

// The items of list in a walk with marks. When a changed-data run
// finds that the list knows which members a change reached since it was
// last accounted for, only those and the members then left without a memo
// are validated: every other member holds a memo that still holds, so
// validating it would pass it over. The run notes, for the lists whose
// items all passed, which members it leaves without a memo.
int validate_items_marked(validation_context *vctx, cfg *context, cfg_element *list,
                          cfg_schema_element *item_schema, int item_type, schema_walk &walk,
                          walk_marks &marks)
{
    memo_run *memo = marks.memo;
    std::vector<cfg_element *> again;
    size_t consumed = 0;
    const bool some = memo != nullptr && memo->passes_over_clean() &&
                      zr::changed_members(context, list, memo->epoch(), again, consumed);
    const uint64_t serial = zr::member_changes_of(list).serial;
    const uint64_t shape = zr::member_shape(list);
    if (!some)
        consumed = zr::member_changes_of(list).touched.size();
    std::vector<std::string> untracked;
    auto validate = [&](cfg_element *item) {
        const size_t taints = memo != nullptr ? memo->taints() : 0;
        if (!validate_list_item(vctx, context, list, item, item_schema, item_type, walk))
            return false;
        if (memo != nullptr &&
            (item_schema == nullptr || memo->taints() != taints || zr::shared_member(item)))
            untracked.emplace_back(item->uuid);
        return true;
    };
    if (some) {
        for (cfg_element *item : again)
            if (!validate(item))
                return 0;
    } else {
        // The list remembers what its members resolved to.
        unsigned int count = 0;
        cfg_list_size(list, &count);
        for (unsigned int i = 0; i < count; i++)
            if (!validate(zr::list_member(context, list, i)))
                return 0;
        for (const std::string &uuid : member_uuids(list->value.list.future_members))
            if (!validate(cfg_get_by_id(context, uuid.c_str())))
                return 0;
    }
    if (memo != nullptr)
        memo->walked_list(list, serial, shape, consumed, std::move(untracked));
    marks.walked = {list, some, std::move(again)};
    return 1;
}

int validate_list_in(validation_context *vctx, cfg *context, cfg_element *list,
                     cfg_schema_element *schema, schema_walk &walk)
{
    if (!usable(vctx, context, list, schema))
        return 0;
    ZR_LOG_FOR("cfg_validate_list", LOG_DEBUG, "Validating %s as list\n", list->uuid);
    const auto &part = schema->u.list;
    cfg_schema_element *item_schema = nullptr;
    if (part.element_kind == 2 && (item_schema = named_item_schema(context, schema)) == nullptr)
        return 0;
    if (part.has_min || part.has_max) {
        unsigned int committed = 0, pending = 0;
        cfg_list_size(list, &committed);
        cfg_list_future_size(list, &pending);
        int64_t count = static_cast<int64_t>(committed) + pending;
        if (part.has_min && count < part.min) {
            cfg_message_add_list_below_min(context, part.min, list->uuid);
            return 0;
        }
        if (part.has_max && count > part.max) {
            cfg_message_add_list_above_max(context, part.max, list->uuid);
            return 0;
        }
    }
    if (vctx->shallow)
        return 1;
    if (walk_marks *marks = walk_marks::of(vctx))
        return validate_items_marked(vctx, context, list, item_schema, part.element_type, walk,
                                     *marks);
    if (zr::looks_up_locally(context)) {
        // The list remembers what its members resolved to.
        unsigned int count = 0;
        cfg_list_size(list, &count);
        for (unsigned int i = 0; i < count; i++)
            if (!validate_list_item(vctx, context, list, zr::list_member(context, list, i),
                                    item_schema, part.element_type, walk))
                return 0;
        for (const std::string &uuid : member_uuids(list->value.list.future_members))
            if (!validate_list_item(vctx, context, list, cfg_get_by_id(context, uuid.c_str()),
                                    item_schema, part.element_type, walk))
                return 0;
        return 1;
    }
    for (cfg_link *head : {list->value.list.members, list->value.list.future_members})
        for (const std::string &uuid : member_uuids(head))
            if (!validate_list_item(vctx, context, list, cfg_get_by_id(context, uuid.c_str()),
                                    item_schema, part.element_type, walk))
                return 0;
    return 1;
}

int validate_if_in(validation_context *vctx, cfg *context, cfg_element *map,
                   cfg_schema_element *if_schema, schema_walk &walk);
int validate_map_keys(validation_context *vctx, cfg *context, cfg_element *map,
                      cfg_schema_element *schema, cfg_schema_members *members, schema_walk &walk);

int validate_map_in(validation_context *vctx, cfg *context, cfg_element *map,
                    cfg_schema_element *schema, schema_walk &walk)
{
    if (!usable(vctx, context, map, schema) || map->type != CFG_TYPE_MAP)
        return 0;
    ZR_LOG_FOR("cfg_validate_map", LOG_DEBUG, "Validating %s as map\n", map->uuid);
    cfg_schema_members *members = members_of(schema);
    if (members == nullptr)
        return 0;
    if (walk_marks *marks = walk_marks::of(vctx)) {
        for (const map_members::member &m : marks->members.enter(context, map))
            add_unhandled(vctx, m.element);
        int valid = validate_map_keys(vctx, context, map, schema, members, walk);
        marks->members.leave();
        return valid;
    }
    for (const std::string &uuid : member_uuids(map->value.map.members))
        add_unhandled(vctx, cfg_get_by_id(context, uuid.c_str()));
    return validate_map_keys(vctx, context, map, schema, members, walk);
}

// The keys of every kind of a map or if schema element, then its
// conditionals, checked against map.
int validate_map_keys(validation_context *vctx, cfg *context, cfg_element *map,
                      cfg_schema_element *schema, cfg_schema_members *members, schema_walk &walk)
{
    for (int kind : key_order)
        for (cfg_link *n = keys_of_kind(members, kind); n != nullptr; n = n->next) {
            const auto *mapid = static_cast<const cfg_schema_mapid *>(n->data);
            if (mapid->key != nullptr &&
                !validate_key(vctx, context, map, schema, kind, mapid, walk))
                return 0;
        }
    for (cfg_link *n = members->conditionals; n != nullptr; n = n->next) {
        auto *link = static_cast<cfg_schema_mapconditional *>(n->data);
        cfg_schema_element *conditional =
            linked_schema(vctx, link, [&] { return cfg_get_schema_by_id(context, link->uuid); });
        if (conditional == nullptr || !validate_if_in(vctx, context, map, conditional, walk))
            return 0;
    }
    return 1;
}

int validate_if_in(validation_context *vctx, cfg *context, cfg_element *map,
                   cfg_schema_element *if_schema, schema_walk &walk)
{
    if (!usable(vctx, context, map, if_schema))
        return 0;
    ZR_LOG_FOR("cfg_validate_if", LOG_DEBUG, "Validating %s as if\n", map->uuid);
    const char *tested = if_schema->type == CFG_TYPE_IF ? if_schema->u.cond.path : nullptr;
    memo_run *memo = memo_for(vctx);
    if (memo != nullptr && (tested == nullptr || tested[0] != '.'))
        memo->taint(); // it tests what lies outside the map
    if (!evaluate_if(context, map, if_schema))
        return 1;
    walk_fault fault = walk.enter_conditional(map, if_schema);
    if (fault != walk_fault::none) {
        schema_walk::report(context, fault, map);
        return 0;
    }
    int valid = validate_map_in(vctx, context, map, if_schema, walk);
    walk.leave();
    return valid;
}

} // namespace

extern "C" int cfg_validate_list(validation_context *vctx, cfg *context, cfg_element *list,
                                 cfg_schema_element *schema)
{
    schema_walk walk;
    return validate_list_in(vctx, context, list, schema, walk);
}

extern "C" int cfg_validate_map(validation_context *vctx, cfg *context, cfg_element *map,
                                cfg_schema_element *schema)
{
    schema_walk walk;
    return validate_map_in(vctx, context, map, schema, walk);
}

extern "C" int cfg_validate_if(validation_context *vctx, cfg *context, cfg_element *map,
                               cfg_schema_element *if_schema)
{
    schema_walk walk;
    return validate_if_in(vctx, context, map, if_schema, walk);
}

extern "C" int cfg_validate_subtree(cfg *context, cfg_element *element)
{
    if (context == nullptr || element == nullptr)
        return 0;
    vctx_ptr vctx = new_vctx();
    if (vctx == nullptr)
        return 0;
    std::optional<walk_marks> marks;
    if (zr::looks_up_locally(context))
        marks.emplace(vctx.get());
    cfg_schema_element *schema = cfg_get_schema_by_id(context, element->schema);
    return schema != nullptr ? cfg_validate_node(vctx.get(), context, element, schema) : 0;
}

namespace {

// Pushes the no-match message for element, naming its map key; fallback
// stands in for an element that has no key.
void report_unmatched(cfg *context, cfg_element *element, const char *fallback)
{
    char *key = nullptr;
    cfg_get_map_key(context, element, &key);
    zr::cstr_ptr key_copy(key);
    cfg_message_add_no_match(context, element->uuid, key != nullptr ? key : fallback);
}

} // namespace

extern "C" int cfg_validate_data(cfg *context)
{
    if (context == nullptr)
        return 0;
    vctx_ptr vctx = new_vctx();
    if (vctx == nullptr)
        return 0;
    std::optional<walk_marks> marks;
    std::optional<memo_run> memo;
    if (zr::looks_up_locally(context)) {
        marks.emplace(vctx.get());
        marks->memo = &memo.emplace(context, false);
    }
    for (cfg_index_entry *e = context->elements; e != nullptr;
         e = static_cast<cfg_index_entry *>(e->hh.next))
        if (!(e->element->flags & CFG_FLAG_DELETED))
            add_unhandled(vctx.get(), e->element);
    std::optional<trig::batch_registrations> batch;
    if (marks)
        batch.emplace(context);
    if (!cfg_validate_node(vctx.get(), context, cfg_root(context), cfg_schema_root(context)))
        return 0;
    batch.reset();
    if (first_unhandled(vctx.get()) == nullptr) {
        if (memo)
            memo->record();
        return 1;
    }
    auto report = [&](cfg_element *element) { report_unmatched(context, element, "[unknown]"); };
    if (marks)
        marks->each_unhandled(report);
    else
        for (cfg_index_entry *e = vctx->unhandled; e != nullptr;
             e = static_cast<cfg_index_entry *>(e->hh.next))
            report(e->element);
    return 0;
}

// ------------------------------------------------------------------------
// Changed-data validation
// ------------------------------------------------------------------------

namespace {

// How far ahead a pass over many scattered records fetches them.
constexpr size_t fetch_ahead = 8;

// The elements to validate, each once, in the order added, and which of
// them a trigger named. For a context that looks up through the library's
// own hooks (records stay put while the run goes on) they are held as the
// records found, marked as held in the walk's marks; otherwise as copies of
// the ids they were found by, looked up again when needed.
class work_set {
  public:
    explicit work_set(walk_marks *marks) : marks_(marks) {}

    // Adds element, just found by uuid.
    void add(const char *uuid, cfg_element *element, bool triggered = false)
    {
        if (marks_ != nullptr) {
            if (marks_->join_work(element, triggered))
                records_.push_back(element);
            return;
        }
        auto [at, fresh] = positions_.try_emplace(uuid, ids_.size());
        if (fresh)
            ids_.emplace_back(uuid);
        if (triggered)
            triggered_ids_.insert(at->second);
    }
    size_t size() const { return marks_ != nullptr ? records_.size() : ids_.size(); }
    bool triggered(size_t position) const
    {
        return marks_ != nullptr ? marks_->triggered(records_[position])
                                 : triggered_ids_.count(position) != 0;
    }
    // The element at position; a pass over the set reaches every record,
    // and they lie all over the heap, so those a few positions on are
    // fetched meanwhile.
    cfg_element *element(cfg *context, size_t position) const
    {
        if (marks_ == nullptr)
            return cfg_get_by_id(context, ids_[position].c_str());
        if (position + fetch_ahead < records_.size())
            zr::prefetch_record(records_[position + fetch_ahead]);
        return records_[position];
    }

  private:
    walk_marks *marks_;
    std::vector<cfg_element *> records_;
    std::vector<std::string> ids_;
    std::unordered_map<std::string, size_t> positions_;
    std::unordered_set<size_t> triggered_ids_;
};

bool is_deleted(const cfg_element *element)
{
    return (element->flags & CFG_FLAG_DELETED) != 0;
}

// Follows the dependents of one trigger record after a change to changed:
// those still present go into the work set, those gone or deleted are
// dropped from the record. A record left empty is removed.
void follow_dependents(cfg *context, const cfg_trigger_entry &entry, cfg_link *dependents,
                       const char *changed, work_set &work)
{
    std::vector<std::string> uuids;
    for (cfg_link *n = dependents; n != nullptr; n = n->next)
        uuids.emplace_back(static_cast<const char *>(n->data));
    bool emptied = uuids.empty();
    for (const std::string &uuid : uuids) {
        ZR_LOG_FOR("cfg_validate_changed_data", LOG_INFO,
                   "Change in node [%s] triggered validation of node [%s]", changed, uuid.c_str());
        cfg_element *dependent = cfg_get_by_id(context, uuid.c_str());
        if (dependent == nullptr || is_deleted(dependent))
            emptied = trig::drop_dependent(context, entry, uuid.c_str());
        else
            work.add(uuid.c_str(), dependent, true);
    }
    if (emptied)
        trig::remove_record(context, entry);
}

bool pattern_matches(void *compiled, const std::string &path)
{
    return pcre_exec(static_cast<pcre *>(compiled), nullptr, path.c_str(),
                     static_cast<int>(path.size()), 0, 0, nullptr, 0) >= 0;
}

// Every pattern record matching path triggers its dependents; records left
// without dependents are removed whether they matched or not. False when a
// pattern does not compile.
bool follow_patterns(cfg *context, const char *changed, const std::string &path, work_set &work)
{
    trig::settle_registrations(context);
    cfg_pattern_trigger *record, *next;
    for (record = context->pattern_triggers; record != nullptr; record = next) {
        next = static_cast<cfg_pattern_trigger *>(record->hh.next);
        void *compiled = trig::compiled_pattern(record);
        if (compiled == nullptr)
            return false;
        cfg_trigger_entry entry = trig::entry_for(record);
        if (pattern_matches(compiled, path))
            follow_dependents(context, entry, record->dependents, changed, work);
        else if (record->dependents == nullptr)
            trig::remove_record(context, entry);
    }
    return true;
}

// The static paths of the flagged elements of one run, each built from its
// parent's, as zr::triggers::static_path gives them: for a context that
// looks up through the library's own hooks, where the tree stays put while
// they are examined.
// Flagged elements come in index order, where siblings and cousins follow
// each other, so only the chain above the last element is kept: a handful
// of entries searched in order. Every element a climb passed is kept with
// it, so a chain that meets itself is found within one climb.
class static_paths {
  public:
    explicit static_paths(cfg *context) : context_(context) {}

    // The path of element. Only the elements above others are kept: a
    // flagged leaf is written from its parent's path and forgotten.
    bool of(cfg_element *element, std::string &out)
    {
        known leaf;
        const known *found = find(element);
        if (found == nullptr) {
            cfg_element *parent = above(element);
            const known *top = parent != nullptr ? &entry(parent) : nullptr;
            if (find(element) != nullptr)
                return false; // the climb from its parent came back to it
            leaf = render(element, top);
            found = &leaf;
        }
        const known &path = *found;
        if (!path.ok)
            return false;
        if (element->uuid[0] != '{') {
            out = path.path;
            return true;
        }
        std::string full = std::string(element->uuid) + ":" + path.path;
        out = full.substr(full.find(':') + 1);
        return true;
    }

  private:
    struct known {
        const cfg_element *element = nullptr;
        bool ok = false; // false: the path cannot be written (a cycle, a bad component)
        bool list = false;
        std::string path;
    };

    static known unwritable(const cfg_element *element)
    {
        known made;
        made.element = element;
        return made;
    }
    size_t position(const cfg_element *element) const
    {
        for (size_t i = 0; i < chain_.size(); i++)
            if (chain_[i].element == element)
                return i;
        return npos;
    }
    const known *find(const cfg_element *element) const
    {
        size_t at = position(element);
        return at != npos ? &chain_[at] : nullptr;
    }

    // The element above element on its path, or nullptr at the top. Flagged
    // siblings often follow each other, so the last parent found is kept.
    cfg_element *above(cfg_element *element)
    {
        cfg_parent_link *link = cfg_get_most_solid_parent_link(element);
        if (link == nullptr)
            return nullptr;
        cfg_element *parent = last_parent_ != nullptr && strcmp(last_parent_->uuid, link->uuid) == 0
                                  ? last_parent_
                                  : cfg_get_by_id(context_, link->uuid);
        if (parent == nullptr)
            return nullptr;
        last_parent_ = parent;
        return strcmp(parent->uuid, zr::root_uuid) != 0 ? parent : nullptr;
    }

    // The kept path of element, climbing to the first element kept already.
    // The chain keeps what lies above that element and what the climb
    // passed; what hung below it belonged to an earlier chain.
    const known &entry(cfg_element *element)
    {
        climbed_.clear();
        size_t top = npos;
        for (cfg_element *at = element; at != nullptr; at = above(at)) {
            if ((top = position(at)) != npos)
                break;
            if (std::find(climbed_.begin(), climbed_.end(), at) != climbed_.end()) {
                for (cfg_element *e : climbed_)
                    chain_.push_back(unwritable(e));
                return *find(element);
            }
            climbed_.push_back(at);
        }
        chain_.resize(top != npos ? top + 1 : 0);
        for (size_t i = climbed_.size(); i-- > 0;) {
            known made = render(climbed_[i], top != npos ? &chain_[top] : nullptr);
            chain_.push_back(std::move(made));
            top = chain_.size() - 1;
        }
        return chain_[top];
    }

    known render(cfg_element *element, const known *parent)
    {
        known made = unwritable(element);
        made.list = element->type == CFG_TYPE_LIST;
        char component[1024];
        int length = cfg_get_path_basename(context_, element, CFG_PATH_STATIC, component,
                                           sizeof component);
        if (length <= 0 || length > 1023 || (parent != nullptr && !parent->ok))
            return made;
        if (parent != nullptr)
            made.path = parent->path + (parent->list ? "" : ".");
        made.path += component;
        made.ok = true;
        return made;
    }

    static constexpr size_t npos = static_cast<size_t>(-1);
    cfg *context_;
    cfg_element *last_parent_ = nullptr;
    std::vector<known> chain_;
    std::vector<cfg_element *> climbed_;
};

// Looks at one flagged element: queues it when new or changed, follows the
// triggers that watch it, and forgets its own registrations when deleted.
// paths, when given, knows the static paths.
bool examine_flagged(cfg *context, cfg_element *element, work_set &work, static_paths *paths)
{
    const std::string uuid = element->uuid;
    if ((element->flags & (CFG_FLAG_NEW | CFG_FLAG_CHANGED)) && !is_deleted(element))
        work.add(uuid.c_str(), element);
    std::string path;
    if (paths != nullptr)
        paths->of(element, path);
    else
        trig::static_path(context, element, path);
    ZR_LOG_FOR("cfg_validate_changed_data", LOG_DEBUG, "Validating %s", path.c_str());
    if (!follow_patterns(context, uuid.c_str(), path, work))
        return false;
    if (element->flags & CFG_FLAG_NEW) {
        if (auto *record = trig::find_record<cfg_path_trigger>(context, path.c_str()))
            follow_dependents(context, trig::entry_for(record), record->dependents, uuid.c_str(),
                              work);
    } else if (auto *record = trig::find_record<cfg_uuid_trigger>(context, uuid.c_str())) {
        follow_dependents(context, trig::entry_for(record), record->dependents, uuid.c_str(),
                          work);
    }
    if (element->flags & CFG_FLAG_DELETED) {
        if (auto *record = trig::find_record<cfg_uuid_trigger>(context, uuid.c_str()))
            trig::remove_record(context, trig::entry_for(record));
        trig::forget_dependent(context, uuid.c_str());
    }
    return true;
}

cfg_index_entry *next_entry(cfg_index_entry *entry)
{
    return static_cast<cfg_index_entry *>(entry->hh.next);
}

// Every flagged element, in insertion order. A plain walk:
// walking the order as many prefetching lanes side by side did not pay
// (validation_bench, changed-data validation of 100000 maps: 38 to 86 ms
// with lanes, 26 to 37 ms with this walk).
std::vector<cfg_element *> flagged_elements(cfg *context)
{
    std::vector<cfg_element *> flagged;
    for (cfg_index_entry *entry = context->elements; entry != nullptr; entry = next_entry(entry))
        if (entry->element->flags != 0)
            flagged.push_back(entry->element);
    return flagged;
}

// The uuids of every element carrying a flag, in index order. Copied, so
// that lookups made while following triggers may load data safely.
std::vector<std::string> flagged_uuids(cfg *context)
{
    std::vector<std::string> uuids;
    for (cfg_element *element : flagged_elements(context))
        uuids.emplace_back(element->uuid);
    return uuids;
}

// The element itself when it is bound to a schema element, else its
// nearest bound ancestor (validated in depth then); nullptr when none is.
// An unbound element among its own ancestors (a parent link naming itself,
// or a loop of them) has none: it is refused as a data cycle, like a tree
// that holds itself, instead of being climbed for ever.
cfg_element *bound_element(validation_context *vctx, cfg *context, cfg_element *element)
{
    std::vector<const cfg_element *> climbed;
    while (element != nullptr && element->schema[0] == '\0') {
        if (climbed.size() >= zr::schema_walk::max_depth ||
            std::find(climbed.begin(), climbed.end(), element) != climbed.end()) {
            cfg_message_add_wrong_type(context, element->uuid);
            return nullptr;
        }
        climbed.push_back(element);
        vctx->shallow = 0;
        element = cfg_get_parent_elem(context, element);
    }
    return element;
}

// Examines every flagged record in index order. The records lie all over
// the heap, so those a few places on, and their first parent links, are
// fetched meanwhile.
bool examine_flagged_records(cfg *context, work_set &work)
{
    static_paths paths(context);
    const std::vector<cfg_element *> flagged = flagged_elements(context);
    for (size_t i = 0; i < flagged.size(); i++) {
        if (i + fetch_ahead < flagged.size())
            zr::prefetch_record(flagged[i + fetch_ahead]);
        const size_t nearer = i + fetch_ahead / 2;
        if (nearer < flagged.size() && flagged[nearer]->parents != nullptr)
            __builtin_prefetch(flagged[nearer]->parents->data);
        if (!examine_flagged(context, flagged[i], work, &paths))
            return false;
    }
    return true;
}

// Forgets the memos of every work element a trigger named or that is not
// clean itself, and so of everything above them: what holds an element to
// be validated again is never passed over.
void forget_unclean_work(cfg *context, const work_set &work, const memo_run &memo)
{
    for (size_t i = 0; i < work.size(); i++) {
        cfg_element *element = work.element(context, i);
        if (element == nullptr)
            continue;
        if (work.triggered(i) ||
            !memo.clean(element, cfg_get_schema_by_id(context, element->schema)))
            zr::forget_validation(context, element);
    }
}

// Validates the work set: the first element shallowly, every later one in
// depth; stops at the first failure or leftover unhandled element.
int validate_work(validation_context *vctx, cfg *context, const work_set &work)
{
    memo_run *memo = memo_for(vctx);
    for (size_t i = 0; i < work.size(); i++) {
        cfg_element *element = work.element(context, i);
        if (element == nullptr || is_deleted(element))
            continue;
        if (memo != nullptr && memo->clean(element, cfg_get_schema_by_id(context, element->schema))) {
            vctx->shallow = 0; // it would have been validated, shallowly if first
            continue;
        }
        element = bound_element(vctx, context, element);
        if (element == nullptr)
            return 0;
        cfg_schema_element *schema = cfg_get_schema_by_id(context, element->schema);
        if (!cfg_validate_node(vctx, context, element, schema))
            return 0;
        if (cfg_element *leftover = first_unhandled(vctx)) {
            char *key = nullptr;
            cfg_get_map_key(context, leftover, &key);
            zr::cstr_ptr key_copy(key);
            cfg_message_add_no_match(context, leftover->uuid, key);
            return 0;
        }
        vctx->shallow = 0;
    }
    return 1;
}

} // namespace

extern "C" int cfg_validate_changed_data(cfg *context)
{
    if (context == nullptr)
        return 0;
    vctx_ptr vctx = new_vctx();
    if (vctx == nullptr)
        return 0;
    std::optional<walk_marks> marks;
    if (zr::looks_up_locally(context))
        marks.emplace(vctx.get());
    vctx->shallow = 1;
    work_set work(marks ? &*marks : nullptr);
    if (marks) {
        // The library's own hooks leave held records where they are, so the
        // flagged records stay put.
        if (!examine_flagged_records(context, work))
            return 0;
    } else {
        for (const std::string &uuid : flagged_uuids(context)) {
            cfg_element *element = cfg_find_by_id(context, uuid.c_str());
            if (element != nullptr && !examine_flagged(context, element, work, nullptr))
                return 0;
        }
    }
    std::optional<memo_run> memo;
    if (marks) {
        marks->memo = &memo.emplace(context, true);
        forget_unclean_work(context, work, *memo);
    }
    const zr::populated_fn populated = [&memo](cfg_element *element, cfg_schema_element *schema) {
        return memo->clean(element, schema);
    };
    for (size_t i = 0; i < work.size(); i++) {
        cfg_element *element = work.element(context, i);
        if (element == nullptr || is_deleted(element) ||
            (element->type != CFG_TYPE_LIST && element->type != CFG_TYPE_MAP))
            continue;
        if (memo)
            zr::populate_defaults_except(context, element, populated, memo->epoch());
        else
            cfg_populate_defaults(context, element, 0);
    }
    std::optional<trig::batch_registrations> batch;
    if (marks)
        batch.emplace(context);
    int valid = validate_work(vctx.get(), context, work);
    batch.reset();
    if (valid && memo)
        memo->record();
    return valid;
}
