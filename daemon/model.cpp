// The daemon's model: start-up, the read requests, and keeping the model and
// the store equal (persisting what a push changed, or restoring it).
//
// Invariants:
//   1. Outside a push no element of the model carries NEW, CHANGED or
//      DELETED: the flags mark exactly what the push in progress changed,
//      including the defaults its validation created.
//   2. The model holds exactly the stored elements (store.cpp, invariant 1).
//   3. The trigger tables are complete: the model was validated in full
//      after it was loaded or rebuilt.
#define ZRD_SOURCE "daemon/model"
#include "model.h"

#include "plain_data.h"

#include <charconv>
#include <cstring>

namespace zrd {

namespace {

// The id counter stored in the database: decimal digits and nothing else,
// so that a damaged value is refused rather than read in part or wrapped.
bool parse_counter(const std::string &text, unsigned long &out)
{
    const char *end = text.data() + text.size();
    auto [stop, error] = std::from_chars(text.data(), end, out);
    return !text.empty() && error == std::errc() && stop == end;
}

// The canonical path of the element that uuid names, or "".
std::string path_of(cfg *ctx, const char *uuid)
{
    cfg_element *e = uuid != nullptr ? cfg_find_by_id(ctx, uuid) : nullptr;
    cstr_ptr path(e != nullptr ? cfg_get_canonical_path(ctx, e, 0, ".") : nullptr);
    return path ? std::string(path.get()) : std::string();
}

const char *message_uuid(cfg_message *msg)
{
    cfg_message_def *def = cfg_get_message_def(cfg_get_message_code(msg));
    if (def == nullptr)
        return nullptr;
    for (int i = 0; i < cfg_get_message_arg_count(msg); i++) {
        const char *name = cfg_get_message_arg_name(msg, i);
        if (name != nullptr && strcmp(name, "uuid") == 0)
            return cfg_get_message_arg_value(msg, i);
    }
    return nullptr;
}

// Appends element and, for lists and maps, everything beneath it.
void append_subtree(cfg *ctx, json_t *out, cfg_element *top)
{
    std::vector<cfg_element *> pending{top};
    while (!pending.empty()) {
        cfg_element *e = pending.back();
        pending.pop_back();
        json_array_append_new(out, elem_to_json(e));
        for (cfg_link *l = members_of(e); l != nullptr; l = l->next) {
            auto *link = static_cast<cfg_parent_link *>(l->data);
            if (cfg_element *member = cfg_find_by_id(ctx, link->uuid))
                pending.push_back(member);
        }
    }
}

// True when text is a plain SQL identifier.
bool is_identifier(const char *text)
{
    if (text == nullptr || !(isalpha(static_cast<unsigned char>(*text)) || *text == '_'))
        return false;
    for (const char *p = text; *p != '\0'; p++)
        if (!isalnum(static_cast<unsigned char>(*p)) && *p != '_')
            return false;
    return true;
}

// The field names a condition tree compares, or the first one that is not
// allowed (bad set) when one is not a key of the list's map schema.
bool condition_fields(cfg_condition *c, const std::vector<std::string> &keys,
                      std::vector<std::string> &fields, std::string &bad, int depth)
{
    if (depth > 64) {
        bad = "conditions";
        return false;
    }
    for (; c != nullptr; c = c->next) {
        if (c->type != CFG_CONDITION_BASIC) {
            if (!condition_fields(c->children, keys, fields, bad, depth + 1))
                return false;
            continue;
        }
        std::string name = c->fieldname != nullptr ? c->fieldname : "";
        bool known = false;
        for (const std::string &k : keys)
            known = known || k == name;
        if (!known || !is_identifier(c->fieldname)) {
            bad = name;
            return false;
        }
        bool listed = false;
        for (const std::string &f : fields)
            listed = listed || f == name;
        if (!listed)
            fields.push_back(name);
    }
    return true;
}

// The element object of the search results list.
json_t *results_element(const std::vector<std::string> &ids)
{
    json_t *value = json_array();
    for (const std::string &id : ids)
        json_array_append_new(value, json_string(id.c_str()));
    return json_pack("{s:i, s:[], s:i, s:s, s:s, s:o}", "generation", 0, "parents", "type",
                     CFG_TYPE_LIST, "id", "RESULTS", "schema", "", "value", value);
}

} // namespace

std::string describe_messages(cfg *ctx)
{
    std::string out;
    for (int i = 0; i < cfg_message_count(ctx); i++) {
        cfg_message *msg = cfg_get_message_object(ctx, i);
        const char *text = cfg_get_message_string(msg);
        std::string path = path_of(ctx, message_uuid(msg));
        out += "error: " + (path.empty() ? std::string() : path + ": ") +
               (text != nullptr ? text : "(no text)") + "\n";
    }
    return out;
}

model::~model()
{
    free_context(ctx_);
}

size_t model::size() const
{
    return ctx_ != nullptr ? HASH_COUNT(ctx_->elements) : 0;
}

std::string model::report_messages()
{
    std::string report = describe_messages(ctx_);
    cfg_free_message_stack(ctx_);
    return report;
}

json_t *model::messages_json()
{
    json_t *messages = cfg_message_stack_to_json(ctx_);
    cfg_free_message_stack(ctx_);
    return messages;
}

// Applies a schema document {"root", "nodes", "types"}.
static bool apply_schema_document(cfg *ctx, json_t *doc, std::string &report)
{
    json_t *nodes = json_object_get(doc, "nodes"), *types = json_object_get(doc, "types"),
           *root = json_object_get(doc, "root");
    if (!json_is_object(nodes) || !json_is_object(types) || !json_is_string(root)) {
        report = "error: the schema needs \"root\" (a string), \"nodes\" and \"types\" (objects)\n";
        return false;
    }
    cfg_apply_schema(ctx, nodes, types, root);
    if (ctx->schema->root == nullptr) {
        report = "error: the schema root '" + std::string(json_string_value(root)) +
                 "' is not among the nodes\n";
        return false;
    }
    return true;
}

bool model::create(json_t *schema_document, json_t *data, std::string &report)
{
    free_context(ctx_);
    ctx_ = new_context();
    if (ctx_ == nullptr || !apply_schema_document(ctx_, schema_document, report))
        return false;
    cfg_element *root = cfg_new_map_with_id(ctx_, "root-1");
    std::string error;
    if (data != nullptr && !zrplain::build_plain_data(ctx_, root, ctx_->schema->root, data, &next_id_, error)) {
        report = "error: " + error + "\n";
        return false;
    }
    if (!cfg_validate_data(ctx_)) {
        report = report_messages();
        return false;
    }
    cfg_free_message_stack(ctx_);
    std::vector<cfg_element *> all;
    for (cfg_index_entry *e = ctx_->elements; e != nullptr;
         e = static_cast<cfg_index_entry *>(e->hh.next))
        all.push_back(e->element);
    if (!persist(all, true)) {
        report = "error: " + store_.last_error() + "\n";
        return false;
    }
    return true;
}

bool model::load(std::string &report)
{
    return rebuild(report);
}

// Loads schema and data from the store into a fresh context and validates
// in full, storing the defaults that validation adds.
bool model::rebuild(std::string &report)
{
    free_context(ctx_);
    schema_answer_.reset();
    ctx_ = new_context();
    json_ptr doc(store_.schema_document());
    if (ctx_ == nullptr || !apply_schema_document(ctx_, doc.get(), report) ||
        !store_.load_all(ctx_)) {
        if (report.empty())
            report = "error: " + store_.last_error() + "\n";
        return false;
    }
    std::string counter = store_.meta("next_id").value_or("2");
    if (!parse_counter(counter, next_id_)) {
        report = "error: the database is damaged: its id counter (next_id) reads \"" + counter +
                 "\", not a number\n";
        return false;
    }
    std::vector<cfg_element *> added;
    bool valid = cfg_validate_data(ctx_);
    for (cfg_index_entry *e = ctx_->elements; e != nullptr;
         e = static_cast<cfg_index_entry *>(e->hh.next))
        if (e->element->flags & (CFG_FLAG_NEW | CFG_FLAG_CHANGED | CFG_FLAG_DELETED))
            added.push_back(e->element);
    if (!valid) {
        ZRD_LOG(LOG_WARNING, "the stored configuration does not validate:\n%s",
                report_messages().c_str());
        restore(added);
        return true;
    }
    cfg_free_message_stack(ctx_);
    return added.empty() || persist(added, false);
}

// Writes the flagged elements in one transaction (with the schema when it
// changed), then clears their flags, raises their generations and frees
// the deleted ones. On failure nothing is stored and the model is restored.
bool model::persist(const std::vector<cfg_element *> &changed, bool schema_changed)
{
    bool ok = store_.begin();
    for (cfg_element *e : changed) {
        if (!ok)
            break;
        if (e->flags & CFG_FLAG_DELETED)
            ok = (e->flags & CFG_FLAG_NEW) || store_.erase_element(e->uuid);
        else
            ok = store_.write_element(e, e->generation + 1);
    }
    ok = ok && (!schema_changed || store_.write_schema(ctx_)) &&
         store_.set_meta("next_id", std::to_string(next_id_)) && store_.set_meta("format", "1") &&
         store_.commit();
    if (!ok) {
        store_.rollback();
        restore(changed);
        return false;
    }
    for (cfg_element *e : changed) {
        if (e->flags & CFG_FLAG_DELETED) {
            if (e->type == CFG_TYPE_REFERENCE)
                update_reference(ctx_, e, "");
            cfg_free_element(ctx_, e);
            continue;
        }
        e->flags &= ~(CFG_FLAG_NEW | CFG_FLAG_CHANGED | CFG_FLAG_DELETED);
        e->generation++;
    }
    return true;
}

// Puts the model back as the store holds it: elements the store lacks go,
// the others are loaded again from their rows.
void model::restore(const std::vector<cfg_element *> &changed)
{
    std::vector<std::string> stored, created;
    for (cfg_element *e : changed)
        (store_.has_element(e->uuid) ? stored : created).emplace_back(e->uuid);
    for (const std::string &id : created)
        if (cfg_element *e = cfg_find_by_id(ctx_, id.c_str())) {
            if (e->type == CFG_TYPE_REFERENCE)
                update_reference(ctx_, e, "");
            cfg_free_element(ctx_, e);
        }
    if (!store_.reload(ctx_, stored))
        ZRD_LOG(LOG_ERR, "restoring %zu elements from the store failed", stored.size());
}

json_t *model::get_schema()
{
    if (!schema_answer_) {
        json_t *nodes = json_object(), *types = json_object();
        for (cfg_schema_index_entry *e = ctx_->schema->elements; e != nullptr;
             e = static_cast<cfg_schema_index_entry *>(e->hh.next))
            if (!(e->element->flags & CFG_FLAG_DELETED))
                if (json_t *node = schema_elem_to_json(e->element))
                    json_object_set_new(nodes, e->element->uuid, node);
        char **names = nullptr;
        int count = 0;
        cfg_types(ctx_, &names, &count);
        for (int i = 0; i < count; i++) {
            if (const char *uuid = cfg_get_type(ctx_, names[i]))
                json_object_set_new(types, names[i], json_string(uuid));
            free(names[i]);
        }
        free(names);
        cfg_schema_element *root = ctx_->schema->root;
        schema_answer_.reset(json_pack("{s:s, s:o, s:o}", "root", root ? root->uuid : "",
                                       "nodes", nodes, "types", types));
    }
    return success(json_incref(schema_answer_.get()));
}

json_t *model::get_by_ids(json_t *data)
{
    json_t *ids = json_object_get(data, "ids");
    if (ids == nullptr)
        return failure(msg::incomplete_data, {"ids"});
    if (!json_is_array(ids))
        return failure(msg::invalid_parameter, {"ids"});
    json_t *found = json_array(), *messages = json_array();
    size_t i;
    json_t *id;
    json_array_foreach(ids, i, id)
    {
        cfg_element *e = json_is_string(id) ? cfg_find_by_id(ctx_, json_string_value(id)) : nullptr;
        if (e != nullptr)
            json_array_append_new(found, elem_to_json(e));
        else
            json_array_append_new(messages,
                                  message_json(msg::uuid_not_found, {json_is_string(id)
                                                                        ? json_string_value(id)
                                                                        : dump(id)}));
    }
    json_t *answer = success(found);
    if (json_array_size(messages) > 0)
        json_object_set(answer, "messages", messages);
    json_decref(messages);
    return answer;
}

json_t *model::get_list(json_t *data)
{
    json_t *list = json_object_get(data, "list");
    if (list == nullptr)
        return failure(msg::incomplete_data, {"list"});
    const char *id = json_string_value(json_object_get(list, "id"));
    if (id == nullptr)
        return failure(msg::invalid_parameter, {"list"});
    cfg_element *e = cfg_find_by_id(ctx_, id);
    if (e == nullptr)
        return failure(msg::uuid_not_found, {id});
    if (e->type != CFG_TYPE_LIST)
        return failure(msg::invalid_parameter, {"list"});
    json_t *out = json_array();
    for (cfg_link *l = e->value.list.members; l != nullptr; l = l->next)
        if (cfg_element *member =
                cfg_find_by_id(ctx_, static_cast<cfg_parent_link *>(l->data)->uuid))
            append_subtree(ctx_, out, member);
    return success(out);
}

json_t *model::get_by_path(json_t *data)
{
    json_t *path = json_object_get(data, "path");
    if (path == nullptr)
        return failure(msg::incomplete_data, {"path"});
    if (!json_is_string(path))
        return failure(msg::invalid_parameter, {"path"});
    cfg_element *e = cfg_get_by_path(ctx_, json_string_value(path));
    cfg_free_message_stack(ctx_);
    if (e == nullptr)
        return failure(msg::path_not_found, {json_string_value(path)});
    return success(elem_to_json(e));
}

json_t *model::search(json_t *data)
{
    json_t *table = json_object_get(data, "table_name");
    if (table == nullptr)
        return failure(msg::incomplete_data, {"table_name"});
    if (!json_is_string(table))
        return failure(msg::invalid_parameter, {"table_name"});
    cfg_element *list = cfg_get_by_path(ctx_, json_string_value(table));
    cfg_free_message_stack(ctx_);
    if (list == nullptr)
        return failure(msg::path_not_found, {json_string_value(table)});
    cfg_schema_element *item =
        zrplain::list_item_schema(ctx_, cfg_get_schema_node(ctx_, list->schema));
    if (list->type != CFG_TYPE_LIST || item == nullptr || item->type != CFG_TYPE_MAP)
        return failure(msg::invalid_parameter, {"table_name"});

    cfg_condition *condition = nullptr;
    if (json_t *json = json_object_get(data, "conditions")) {
        condition = json_to_condition(json);
        if (condition == nullptr)
            return failure(msg::invalid_query);
    }
    std::unique_ptr<cfg_condition, void (*)(cfg_condition *)> owned(condition,
                                                                    cfg_free_conditions);
    std::vector<std::string> fields;
    std::string bad;
    if (!condition_fields(condition, zrplain::member_keys(ctx_, item), fields, bad, 0))
        return failure(msg::invalid_parameter, {bad});
    cstr_ptr where(condition != nullptr ? condition_to_sql(condition) : nullptr);
    if (condition != nullptr && !where)
        return failure(msg::invalid_query);
    std::vector<std::string> ids;
    if (!store_.search(list->uuid, where ? where.get() : "", condition, fields, ids))
        return failure(msg::invalid_query);
    json_t *out = json_array();
    for (const std::string &id : ids)
        if (cfg_element *e = cfg_find_by_id(ctx_, id.c_str()))
            append_subtree(ctx_, out, e);
    json_array_append_new(out, results_element(ids));
    return success(out);
}

} // namespace zrd
