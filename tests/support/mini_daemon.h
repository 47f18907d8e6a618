// A small configuration daemon for session tests, built on the scripted
// daemon's callback: it accepts hello, serves a fixed schema, answers
// get_data_by_id from a store of element objects, accepts pushes (giving
// every added element the id "new-<old>" and storing it), and answers every
// other method with {"result": true}. It serves up to four connections.
#pragma once

#include "scripted_daemon.h"

#include <map>
#include <mutex>

namespace zrtest {

inline const char *const mini_schema = R"({
 "root": "r",
 "nodes": {
  "r": {"id": "r", "type": 8, "generation": 1, "tags": {}, "required": {"host": "h"},
        "optional": {}, "deprecated": {}, "conditionals": []},
  "h": {"id": "h", "type": 4, "generation": 1, "tags": {}, "min_length": null,
        "max_length": null, "regex": null, "default": null, "allowed": []}},
 "types": {"hostname": "h", "skipped": 5}})";

class mini_daemon {
    // The store and the answers, guarded by mutex_ (the daemon's thread reads
    // them while the test changes them).
    std::mutex mutex_;
    std::map<std::string, json_handle> store_;
    std::string hello_ = R"({"result": true})";
    std::string schema_ = mini_schema;
    std::string push_ = "true";

  public:
    mini_daemon() : daemon(script(4, step::serve([this](json_t *r) { return answer(r); }))) {}

    // Stores an element object (text) under its "id".
    void put(const std::string &element_json)
    {
        json_t *element = json_loads(element_json.c_str(), 0, nullptr);
        std::lock_guard<std::mutex> lock(mutex_);
        store_[json_string_value(json_object_get(element, "id"))] = json_handle(element);
    }
    // The answer to hello and get_schema; push results.
    void set_hello(const std::string &text) { set(hello_, text); }
    void set_schema(const std::string &text) { set(schema_, text); }
    void set_push_result(bool accept) { set(push_, accept ? "true" : "false"); }

    const std::string &socket_path() const { return daemon.socket_path(); }

  private:
    void set(std::string &field, const std::string &text)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        field = text;
    }

    json_t *answer(json_t *request)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        std::string method = json_string_value(json_object_get(request, "method"));
        json_t *data = json_object_get(request, "data");
        if (method == "hello")
            return json_loads(hello_.c_str(), 0, nullptr);
        if (method == "get_schema")
            return json_pack("{s:b, s:o}", "result", 1, "data",
                             json_loads(schema_.c_str(), 0, nullptr));
        if (method == "get_data_by_id")
            return elements_of(json_object_get(data, "ids"));
        if (method == "push")
            return push(data);
        return json_pack("{s:b}", "result", 1);
    }

    json_t *elements_of(json_t *ids)
    {
        json_t *found = json_array();
        size_t i;
        json_t *id;
        json_array_foreach(ids, i, id)
        {
            auto at = store_.find(json_string_value(id));
            if (at != store_.end())
                json_array_append(found, at->second.get());
        }
        return json_pack("{s:b, s:o}", "result", 1, "data", found);
    }

    json_t *push(json_t *update)
    {
        if (push_ != "true")
            return json_pack("{s:b}", "result", 0);
        json_t *uuids = json_array();
        size_t i;
        json_t *added;
        json_array_foreach(json_object_get(update, "added"), i, added)
        {
            std::string old_id = json_string_value(json_object_get(added, "id"));
            std::string new_id = "new-" + old_id;
            json_t *copy = json_deep_copy(added);
            json_object_set_new(copy, "id", json_string(new_id.c_str()));
            store_[new_id] = json_handle(copy);
            json_array_append_new(uuids, json_pack("{s:s, s:s}", "old", old_id.c_str(), "new",
                                                   new_id.c_str()));
        }
        return json_pack("{s:b, s:{s:o}}", "result", 1, "data", "uuids", uuids);
    }

    // Declared last: its thread starts after the state above exists and is
    // joined before that state goes.
  public:
    scripted_daemon daemon;
};

} // namespace zrtest
