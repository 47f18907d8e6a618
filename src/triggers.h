// Trigger-table bookkeeping shared by the sources that fill and read the
// tables (conditional evaluation, validators, changed-data validation).
// Keys longer than a record's key field are cut to fit, both when stored and
// when looked up, so every lookup agrees with what was stored.
#ifndef ZRCONFIG_TRIGGERS_H
#define ZRCONFIG_TRIGGERS_H

#include "zrconfig.h"

#include <string>

namespace zr::triggers {

// The element's static path with any "{uuid}:" prefix dropped; false when the
// element has no path.
bool static_path(cfg *context, cfg_element *element, std::string &out);

// The record of type R (cfg_uuid_trigger, cfg_path_trigger,
// cfg_pattern_trigger or cfg_reverse_trigger) under key, in the context's
// table for R: find_record gives nullptr when there is none, find_or_add
// adds an empty one then.
template <typename R> R *find_record(cfg *context, const char *key);
template <typename R> R *find_or_add(cfg *context, const char *key);

cfg_trigger_entry entry_for(cfg_uuid_trigger *record);
cfg_trigger_entry entry_for(cfg_path_trigger *record);
cfg_trigger_entry entry_for(cfg_pattern_trigger *record);

// True when uuid is among the dependents of the record that entry names.
bool has_dependent(const cfg_trigger_entry &entry, const char *uuid);
// Appends uuid to the record's dependents and an entry naming the record to
// reverse (the record keyed by that uuid). False, and nothing changes, when
// uuid is a dependent already.
bool add_dependent(cfg_reverse_trigger *reverse, const cfg_trigger_entry &entry, const char *uuid);
// Makes dependent a dependent of the uuid record under key, as find_or_add
// of both records and add_dependent do together. Asked again for the pair
// it registered last, with nothing removed from any table since, it does
// nothing: a map's second conditional on one element costs no lookup.
// Inside a batch_registrations scope of context the registration may wait
// for the next few; every other function here makes the waiting ones first.
void depend_on_uuid(cfg *context, const char *dependent, const char *key);

// While one lives (the outermost per thread counts), depend_on_uuid for
// context gathers registrations and makes them in batches, the lookups of
// a batch overlapping; they are all made when it goes. For walks of a
// context that looks up through the library's own hooks, where no code of
// the caller's reads the tables directly while the walk runs.
class batch_registrations {
  public:
    explicit batch_registrations(cfg *context);
    ~batch_registrations();
    batch_registrations(const batch_registrations &) = delete;
    batch_registrations &operator=(const batch_registrations &) = delete;

  private:
    cfg *context_ = nullptr;
};

// Makes the registrations of context still waiting in a batch, before code
// that reads the tables directly.
void settle_registrations(cfg *context);

// Removes uuid from the record's dependents together with its reverse entry
// (a reverse record left empty is freed). True when the record is now empty;
// the record itself stays in its table.
bool drop_dependent(cfg *context, const cfg_trigger_entry &entry, const char *uuid);
// Takes the record out of its table, drops the reverse entries of all its
// dependents and frees it.
void remove_record(cfg *context, const cfg_trigger_entry &entry);
// Forgets uuid as a dependent: removes it from every record its reverse
// entries name (freeing records left empty) and frees its reverse record.
void forget_dependent(cfg *context, const char *uuid);
// The record's compiled expression, compiled on first use; nullptr when the
// key does not compile.
void *compiled_pattern(cfg_pattern_trigger *record);

} // namespace zr::triggers

#endif // ZRCONFIG_TRIGGERS_H
