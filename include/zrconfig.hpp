// zrconfig.hpp: a header-only C++20 layer over zrconfig.h.
//
// A zrconfig::context owns a libzrconfig context (its own schema, lookups in
// its own index); a zrconfig::session is a context connected to zrconfigd
// (connects in its constructor, disconnects in its destructor). Elements are
// views (context and element id) of records that the library owns: a view
// finds the element's current record on every use, so it stays good across
// writes (which replace a record) and commits (which drop every local one),
// but not beyond its context. Typed reads return std::optional, writes
// return the element now in the place written. Validation and commit return
// an outcome: ok, and every message as a value with the canonical path of
// the element it names. Every C resource sits in an RAII handle and nothing
// here throws (but std::bad_alloc).
#pragma once

#include <zrconfig.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zrconfig {

struct free_deleter {
    void operator()(void *p) const noexcept { std::free(p); }
};
// Text handed out by the library (malloc'd).
using c_string = std::unique_ptr<char, free_deleter>;

struct json_deleter {
    void operator()(json_t *value) const noexcept { json_decref(value); }
};
// One reference to a Jansson value.
using json_ptr = std::unique_ptr<json_t, json_deleter>;

struct condition_deleter {
    void operator()(cfg_condition *c) const noexcept { cfg_free_conditions(c); }
};
// A search condition tree.
using condition_ptr = std::unique_ptr<cfg_condition, condition_deleter>;

// Takes over malloc'd text; "" for null.
inline std::string take_string(char *text)
{
    c_string owned(text);
    return owned ? std::string(owned.get()) : std::string();
}

// One message of the library's stack.
struct message {
    int code = 0;
    int level = 0;
    std::string text;
    std::string path; // canonical path of the element the message names, or ""
};

// What a validation or a commit left: whether it passed, and its messages.
struct outcome {
    bool ok = false;
    std::vector<message> messages;
    explicit operator bool() const noexcept { return ok; }
    // True when a message says the daemon gave no usable answer.
    bool unreachable() const noexcept
    {
        for (const message &m : messages)
            if (m.code == protocol_message_code)
                return true;
        return false;
    }
    static constexpr int protocol_message_code = 4;
};

// A view of one element: its context and its id, looked up on every use.
// The library replaces an element's record on every write and drops every
// local record on a commit; a view by id keeps reading the element as it is
// now (through the daemon's rename of a committed new element too). A view
// must not outlive its context. Empty when nothing was found, or when the
// element is gone.
class element {
  public:
    element() = default;
    element(cfg *ctx, cfg_element *e) : ctx_(ctx), id_(e != nullptr ? e->uuid : "") {}

    explicit operator bool() const noexcept { return get() != nullptr; }
    // The longest text a string element holds.
    static constexpr std::size_t max_text_size = 16777216;
    // Whether the library takes text as a string value whole.
    static bool storable(std::string_view text) noexcept
    {
        return text.size() <= max_text_size && text.find('\0') == std::string_view::npos;
    }
    // The element's current record, or null: valid until the next write to
    // it or the next commit in its context.
    cfg_element *get() const noexcept
    {
        return ctx_ != nullptr && !id_.empty() ? cfg_get_by_id(ctx_, id_.c_str()) : nullptr;
    }
    cfg *context() const noexcept { return ctx_; }
    int type() const noexcept
    {
        cfg_element *e = get();
        return e != nullptr ? static_cast<int>(e->type) : 0;
    }
    bool is_list() const noexcept { return type() == CFG_TYPE_LIST; }
    bool is_map() const noexcept { return type() == CFG_TYPE_MAP; }
    std::string id() const
    {
        cfg_element *e = get();
        return e != nullptr ? e->uuid : "";
    }
    // The canonical path ("network.conns[1].address"), or "".
    std::string path() const
    {
        cfg_element *e = get();
        return e != nullptr ? take_string(cfg_get_canonical_path(ctx_, e, 0, ".")) : "";
    }
    // The schema node describing the element, or null.
    cfg_schema_element *schema() const
    {
        cfg_element *e = get();
        return e != nullptr && e->schema[0] != '\0' ? cfg_get_schema_node(ctx_, e->schema)
                                                    : nullptr;
    }

    // The element at a path below this one ("conns[2].address", "[0]").
    element at(std::string_view relative) const
    {
        cfg_element *e = get();
        if (e == nullptr)
            return {};
        std::string steps(relative);
        return {ctx_, cfg_get_child_by_path(ctx_, e, steps.c_str())};
    }
    // A map's member under key.
    element operator[](std::string_view key) const
    {
        cfg_element *e = record_of(CFG_TYPE_MAP);
        if (e == nullptr)
            return {};
        std::string k(key);
        return lookup(cfg_get_mapelem(e, k.c_str()));
    }
    // A list's member at index.
    element operator[](std::size_t index) const
    {
        cfg_element *e = record_of(CFG_TYPE_LIST);
        if (e == nullptr || index > static_cast<std::size_t>(INT32_MAX))
            return {};
        return lookup(cfg_get_listelem(e, static_cast<int>(index)));
    }

    // Typed reads: empty when the element is absent or of another type.
    std::optional<std::string> as_string() const
    {
        char *text = nullptr;
        if (!cfg_string_value(get(), &text))
            return std::nullopt;
        return take_string(text);
    }
    std::optional<int> as_int() const { return scalar<int>(cfg_int_value); }
    std::optional<bool> as_bool() const
    {
        std::optional<int> v = scalar<int>(cfg_bool_value);
        return v ? std::optional<bool>(*v != 0) : std::nullopt;
    }
    std::optional<double> as_double() const { return scalar<double>(cfg_float_value); }
    // A blob's bytes (which may hold zero bytes).
    std::optional<std::string> as_blob() const
    {
        cfg_element *e = record_of(CFG_TYPE_BLOB);
        if (e == nullptr)
            return std::nullopt;
        return std::string(reinterpret_cast<const char *>(e->value.blob.data),
                           static_cast<std::size_t>(e->value.blob.size));
    }
    // The element a reference names.
    element target() const
    {
        cfg_element *e = record_of(CFG_TYPE_REFERENCE);
        return e != nullptr ? lookup(e->value.string_value) : element();
    }

    // Typed writes; each returns the element now in this place (this view
    // sees it too), or an empty view when the write failed (messages, if
    // any, on the context's stack). Text the library would refuse (too long,
    // or holding a zero byte it would cut at) is refused up front: a refused
    // write leaves the element as it was.
    element set(std::string_view text) const
    {
        if (!storable(text))
            return {};
        std::string value(text);
        return write([&](cfg_element *e) { return cfg_set_string(ctx_, e, value.c_str()); });
    }
    element set(const char *text) const
    {
        return text != nullptr ? set(std::string_view(text)) : element();
    }
    element set(int value) const
    {
        return write([&](cfg_element *e) { return cfg_set_int(ctx_, e, value); });
    }
    element set(bool value) const
    {
        return write([&](cfg_element *e) { return cfg_set_bool(ctx_, e, value ? 1 : 0); });
    }
    element set(double value) const
    {
        return write([&](cfg_element *e) { return cfg_set_float(ctx_, e, value); });
    }
    // Makes the element a blob holding bytes.
    element set_blob(std::string_view bytes) const
    {
        return write([&](cfg_element *e) {
            return cfg_set_blob(ctx_, e, bytes.data(), bytes.size());
        });
    }
    // Points the element at to, which must be an element of this context.
    element set_reference(const element &to) const
    {
        cfg_element *target = ctx_ != nullptr ? cfg_get_by_id(ctx_, to.id_.c_str()) : nullptr;
        if (target == nullptr || to.id_.empty())
            return {};
        std::string target_id(target->uuid);
        return write(
            [&](cfg_element *e) { return cfg_set_reference(ctx_, e, target_id.c_str()); });
    }

    // A map's members with their keys, in member order (deleted ones left out).
    std::vector<std::pair<std::string, element>> entries() const
    {
        std::vector<std::pair<std::string, element>> out;
        if (cfg_element *e = record_of(CFG_TYPE_MAP))
            for (cfg_link *l = e->value.map.members; l != nullptr; l = l->next) {
                auto *link = static_cast<cfg_parent_link *>(l->data);
                if (element m = live(link->uuid))
                    out.emplace_back(link->name != nullptr ? link->name : "", std::move(m));
            }
        return out;
    }
    // A list's members in order (deleted ones left out).
    std::vector<element> members() const
    {
        std::vector<element> out;
        if (cfg_element *e = record_of(CFG_TYPE_LIST))
            for (cfg_link *l = e->value.list.members; l != nullptr; l = l->next)
                if (element m = live(static_cast<cfg_parent_link *>(l->data)->uuid))
                    out.push_back(std::move(m));
        return out;
    }

    // Joins child to a map under key (replacing a member held there).
    bool put(std::string_view key, const element &child) const
    {
        cfg_element *e = record_of(CFG_TYPE_MAP);
        cfg_element *c = child.get();
        std::string k(key);
        return e != nullptr && c != nullptr && cfg_add_mapelem(ctx_, e, k.c_str(), c) != nullptr;
    }
    // Appends child to a list.
    bool append(const element &child) const
    {
        cfg_element *e = record_of(CFG_TYPE_LIST);
        cfg_element *c = child.get();
        return e != nullptr && c != nullptr && cfg_add_listelem(ctx_, e, c) != nullptr;
    }
    // Deletes a map's member under key.
    bool erase(std::string_view key) const
    {
        cfg_element *e = record_of(CFG_TYPE_MAP);
        std::string k(key);
        return e != nullptr && cfg_map_delete_key(ctx_, e, k.c_str()) != 0;
    }
    // Deletes this element (and what it holds) from the tree.
    void remove() const
    {
        if (cfg_element *e = get())
            cfg_delete_element(ctx_, e);
    }

  private:
    // The current record when it is of type wanted, else null.
    cfg_element *record_of(int wanted) const noexcept
    {
        cfg_element *e = get();
        return e != nullptr && static_cast<int>(e->type) == wanted ? e : nullptr;
    }
    element lookup(const char *uuid) const
    {
        return uuid != nullptr ? element(ctx_, cfg_get_by_id(ctx_, uuid)) : element();
    }
    element live(const char *uuid) const
    {
        element m = lookup(uuid);
        cfg_element *e = m.get();
        return e != nullptr && !cfg_element_is_deleted(e) ? m : element();
    }
    // Runs a cfg_set_* call on the current record; the new record's view.
    template <class Setter> element write(Setter set_record) const
    {
        cfg_element *e = get();
        return e != nullptr ? element(ctx_, set_record(e)) : element();
    }
    template <class T, class Reader> std::optional<T> scalar(Reader read) const
    {
        T value{};
        if (!read(get(), &value))
            return std::nullopt;
        return value;
    }

    cfg *ctx_ = nullptr;
    std::string id_; // the element's uuid; "" for an empty view
};

// A libzrconfig context with its own schema; lookups answer from its own
// index (no daemon). Movable, not copyable.
class context {
  public:
    context() : ctx_(cfg_create_new_config(nullptr)), kind_(kind::local)
    {
        if (ctx_ != nullptr)
            ctx_->get_by_id = cfg_find_by_id;
    }
    // A local context over other's schema (shared, not owned): for checking
    // documents against the schema a session loaded.
    static context over_schema_of(const context &other)
    {
        context c(nullptr, kind::borrowed_schema);
        if (other.ctx_ != nullptr && (c.ctx_ = cfg_create_new_config(other.ctx_->schema)))
            c.ctx_->get_by_id = cfg_find_by_id;
        return c;
    }
    ~context() { release(); }
    context(const context &) = delete;
    context &operator=(const context &) = delete;
    context(context &&other) noexcept
        : ctx_(std::exchange(other.ctx_, nullptr)), kind_(other.kind_)
    {
    }
    context &operator=(context &&other) noexcept
    {
        if (this != &other) {
            release();
            ctx_ = std::exchange(other.ctx_, nullptr);
            kind_ = other.kind_;
        }
        return *this;
    }

    explicit operator bool() const noexcept { return ctx_ != nullptr; }
    cfg *get() const noexcept { return ctx_; }

    // The root map; a local context makes it on first use.
    element root() const
    {
        if (ctx_ == nullptr)
            return {};
        cfg_element *r = cfg_root(ctx_);
        if (r == nullptr && kind_ != kind::session)
            r = cfg_new_map_with_id(ctx_, "root-1");
        return {ctx_, r};
    }
    // The element at a path from the root, or an empty view.
    element at(std::string_view path) const
    {
        std::string p(path);
        return {ctx_, ctx_ != nullptr ? cfg_get_by_path(ctx_, p.c_str()) : nullptr};
    }
    element find(std::string_view id) const
    {
        std::string i(id);
        return {ctx_, ctx_ != nullptr ? cfg_get_by_id(ctx_, i.c_str()) : nullptr};
    }

    // New elements, not yet joined to the tree.
    element new_map() const { return {ctx_, cfg_new_map(ctx_)}; }
    element new_list() const { return {ctx_, cfg_new_list(ctx_)}; }
    // Text the library would refuse or cut (see element::storable) makes
    // no element.
    element new_value(std::string_view text) const
    {
        if (!element::storable(text))
            return {};
        std::string value(text);
        return {ctx_, cfg_new_string(ctx_, value.c_str())};
    }
    element new_value(const char *text) const
    {
        return text != nullptr ? new_value(std::string_view(text)) : element();
    }
    element new_value(int value) const { return {ctx_, cfg_new_int(ctx_, value)}; }
    element new_value(bool value) const { return {ctx_, cfg_new_bool(ctx_, value ? 1 : 0)}; }
    element new_value(double value) const { return {ctx_, cfg_new_float(ctx_, value)}; }
    element new_blob(std::string_view bytes) const
    {
        return {ctx_, cfg_new_blob(ctx_, bytes.data(), bytes.size())};
    }

    // Validates the whole tree, or only what changed.
    outcome validate() const { return finish(ctx_ != nullptr && cfg_validate_data(ctx_)); }
    outcome validate_changed() const
    {
        return finish(ctx_ != nullptr && cfg_validate_changed_data(ctx_));
    }

    // Takes the messages off the stack, each with the canonical path of the
    // element its uuid names (resolved after the stack is read, because a
    // lookup may fetch from the daemon and push messages of its own).
    std::vector<message> take_messages() const
    {
        std::vector<message> out;
        std::vector<std::string> ids;
        if (ctx_ == nullptr)
            return out;
        for (int i = 0; i < cfg_message_count(ctx_); i++) {
            cfg_message *m = cfg_get_message_object(ctx_, i);
            const char *text = cfg_get_message_string(m);
            out.push_back({cfg_get_message_code(m), cfg_get_message_level(m),
                           text != nullptr ? text : "", ""});
            ids.push_back(uuid_of(m));
        }
        cfg_free_message_stack(ctx_);
        for (std::size_t i = 0; i < out.size(); i++)
            if (!ids[i].empty())
                out[i].path = find(ids[i]).path();
        cfg_free_message_stack(ctx_);
        return out;
    }

  protected:
    enum class kind { local, borrowed_schema, session };
    context(cfg *ctx, kind k) noexcept : ctx_(ctx), kind_(k) {}
    outcome finish(bool ok) const { return {ok, take_messages()}; }

  private:
    static std::string uuid_of(cfg_message *m)
    {
        for (int i = 0; i < cfg_get_message_arg_count(m); i++) {
            const char *name = cfg_get_message_arg_name(m, i);
            const char *value = cfg_get_message_arg_value(m, i);
            if (name != nullptr && value != nullptr && std::strcmp(name, "uuid") == 0)
                return value;
        }
        return {};
    }
    void release() noexcept
    {
        if (ctx_ == nullptr)
            return;
        if (kind_ == kind::session) {
            cfg_disconnect(&ctx_);
            return;
        }
        cfg_schema *schema = ctx_->schema;
        cfg_free_config(&ctx_);
        if (kind_ == kind::local)
            cfg_free_schema(nullptr, &schema);
    }

  protected:
    cfg *ctx_ = nullptr;
    kind kind_ = kind::local;
};

// A session with zrconfigd: connected by the constructor (check it with
// operator bool), disconnected by the destructor. Elements are fetched on
// demand; changes stay local until commit.
class session : public context {
  public:
    session(const std::string &socket_path, const std::string &client_name)
        : context(cfg_connect(socket_path.c_str(), client_name.c_str()), kind::session)
    {
    }

    // Pushes every change as one update; refused pushes leave messages. A
    // push the daemon never answered leaves none, so it gets a protocol
    // message: the outcome is unreachable(), and whether the change was
    // stored is unknown.
    outcome commit() const
    {
        if (ctx_ == nullptr)
            return {};
        int earlier = cfg_message_count(ctx_);
        bool pushed = cfg_commit(ctx_) != 0;
        if (!pushed && cfg_message_count(ctx_) == earlier)
            cfg_message_add_protocol(ctx_);
        return finish(pushed);
    }

    // The members of the list at list_path that meet condition (null: all).
    std::vector<element> search(std::string_view list_path, cfg_condition *condition) const
    {
        std::string table(list_path);
        element results(ctx_, ctx_ != nullptr ? cfg_search(ctx_, table.c_str(), condition)
                                              : nullptr);
        return results.members();
    }
};

} // namespace zrconfig
