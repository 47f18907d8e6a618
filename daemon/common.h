// What every source of the daemon shares: its log macro, the public C++
// layer's owning handles for Jansson values and malloc'd text, and building
// message objects without a context. The daemon uses only the library's
// public interface and the message and lock numbers of common/codes.h.
#pragma once

#include <zrconfig.h>
#include <zrconfig.hpp>
#include <zrutil.h>

#include "codes.h"

#include <cstdlib>
#include <initializer_list>
#include <memory>
#include <string>
#include <syslog.h>

// Each source defines ZRD_SOURCE ("daemon/store", ...) before including this.
#define ZRD_LOG(priority, ...) \
    zrlog_log_prio_codepos(ZRD_SOURCE, __func__, __LINE__, (priority), __VA_ARGS__)

namespace zrd {

// The public C++ layer's owning handles: one reference to a Jansson value,
// and text that came from malloc or strdup.
using json_ptr = zrconfig::json_ptr;
using cstr_ptr = zrconfig::c_string;

// Message codes the daemon answers with: the library's catalogue numbers.
namespace msg = zr::msg;

// One message object {"code", "args"} with the catalogue's argument names
// for values, in the catalogue's order; null when the code has no row.
json_t *message_json(int code, std::initializer_list<std::string> values = {});

// A failure answer carrying one message.
json_t *failure(int code, std::initializer_list<std::string> values = {});

// A success answer, with data when it is not null (the reference is taken).
json_t *success(json_t *data);

// Chooses the daemon's log sinks; restore_logging puts them back after the
// library's context creation has reset them to its own.
void set_logging(bool use_syslog, bool use_stderr);
void restore_logging();

// A new context whose lookups answer from its own index.
cfg *new_context();
// Frees a context made by new_context and its schema; clears the pointer.
void free_context(cfg *&ctx);

// The member links of a list or map (cfg_parent_link records), else null.
inline cfg_link *members_of(cfg_element *e)
{
    if (e->type == CFG_TYPE_LIST)
        return e->value.list.members;
    if (e->type == CFG_TYPE_MAP)
        return e->value.map.members;
    return nullptr;
}

// Text of a JSON value in the wire's form, or "" when it cannot be written.
std::string dump(json_t *value);

} // namespace zrd
