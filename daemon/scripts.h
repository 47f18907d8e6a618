// Subscriptions: their order, which of them a push concerns, and running
// their programs with the push's changeset on standard input.
#pragma once

#include "store.h"

#include <functional>

namespace zrd {

// The subscriptions in run order: lower priority first, ties by name, and
// every "before" and "after" constraint kept. False when they form a cycle.
bool run_order(const std::vector<subscription> &subs, std::vector<const subscription *> &order);

// True when sub watches one of the changed canonical paths: a path equal to
// one of its paths or below it; a subscription without paths watches all.
bool concerns(const subscription &sub, const std::vector<std::string> &changed_paths);

// Runs sub's program with its args, writing input to its standard input,
// for at most timeout_s seconds (then it is killed). tick is called about
// once a second while it runs. Returns the message that reports the run
// (script success, exit code or timeout).
json_t *run_script(const subscription &sub, const std::string &input, int timeout_s,
                   const std::function<void()> &tick);

} // namespace zrd
