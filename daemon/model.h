// The daemon's model of the configuration: one libzrconfig context holding
// the whole tree and the schema, kept equal to the store between pushes.
// Every method expects the caller to hold mutex() (the context is not safe
// for concurrent use, not even for reads: lookups keep caches).
#pragma once

#include "store.h"

#include <mutex>
#include <string>
#include <vector>

namespace zrd {

// What an accepted or refused push leaves for the caller.
struct push_outcome {
    json_ptr answer;                        // the answer, without script reports
    bool accepted = false;
    std::string changeset;                  // the applied changes, for subscribers
    std::vector<std::string> changed_paths; // canonical paths of what changed
};

class model {
  public:
    explicit model(store &s) : store_(s) {}
    ~model();
    model(const model &) = delete;
    model &operator=(const model &) = delete;

    std::mutex &mutex() { return mutex_; }

    // A new database: loads the schema document and the plain nested data,
    // validates in full and stores everything. On refusal, report holds one
    // line per message.
    bool create(json_t *schema_document, json_t *data, std::string &report);
    // An existing database: loads it and validates in full once.
    bool load(std::string &report);

    json_t *get_schema();
    json_t *get_by_ids(json_t *data);
    json_t *get_list(json_t *data);
    json_t *get_by_path(json_t *data);
    json_t *search(json_t *data);
    push_outcome push(json_t *update);

    // The number of elements the model holds.
    size_t size() const;

  private:
    bool rebuild(std::string &report);
    bool persist(const std::vector<cfg_element *> &changed, bool schema_changed);
    void restore(const std::vector<cfg_element *> &changed);
    std::string report_messages();
    json_t *messages_json();

    store &store_;
    std::mutex mutex_;
    cfg *ctx_ = nullptr;
    unsigned long next_id_ = 2;
    json_ptr schema_answer_;
};

// One line per message: "error: <canonical path>: <text>", the path being
// that of the element the message's uuid names, when ctx holds it.
std::string describe_messages(cfg *ctx);

} // namespace zrd
