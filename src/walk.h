// The path of a walk that descends an element tree together with its schema
// (validation, default population), kept so that a cyclic tree or schema
// ends the walk with a message instead of recursing without end.
//
// Invariants of a walk that enters only through this class:
//  1. No element is entered again below itself through a member link: a map
//     or list that holds itself, directly or further down, is refused.
//  2. No map is checked again against an if element that it is already being
//     checked against: an if element among its own conditionals (or in a
//     loop of them) is refused.
//  3. No element that the walk created is given a schema element that an
//     element created further up already has: a map type that requires a
//     map of its own type would otherwise create members for ever.
//  4. The walk is never deeper than max_depth levels, whatever the shape.
#ifndef ZRCONFIG_WALK_H
#define ZRCONFIG_WALK_H

#include "internal.h"

#include <algorithm>
#include <vector>

namespace zr {

enum class walk_fault { none, data_cycle, schema_cycle, too_deep };

class schema_walk {
  public:
    // Far deeper than any configuration tree; well inside a thread's stack.
    static constexpr size_t max_depth = 256;

    // Enters element, reached through a member link (or as the start), to be
    // checked against schema; created when the walk itself made it.
    walk_fault enter_member(const cfg_element *element, const cfg_schema_element *schema,
                            bool created)
    {
        if (frames_.size() >= max_depth)
            return walk_fault::too_deep;
        if (holds(element))
            return walk_fault::data_cycle;
        if (created && std::any_of(frames_.begin(), frames_.end(), [&](const frame &f) {
                return f.created && f.schema == schema;
            }))
            return walk_fault::schema_cycle;
        frames_.push_back({element, schema, created, false});
        return walk_fault::none;
    }

    // Enters map again, to be checked against one of its conditionals.
    walk_fault enter_conditional(const cfg_element *map, const cfg_schema_element *if_elem)
    {
        if (frames_.size() >= max_depth)
            return walk_fault::too_deep;
        if (std::any_of(frames_.begin(), frames_.end(), [&](const frame &f) {
                return f.conditional && f.element == map && f.schema == if_elem;
            }))
            return walk_fault::schema_cycle;
        frames_.push_back({map, if_elem, false, true});
        return walk_fault::none;
    }

    void leave() { frames_.pop_back(); }

    // Whether element is on the path, entered through a member link.
    bool holds(const cfg_element *element) const
    {
        return std::any_of(frames_.begin(), frames_.end(), [&](const frame &f) {
            return !f.conditional && f.element == element;
        });
    }

    // Pushes the message for fault. A schema cycle is a schema error (31);
    // a tree that holds itself, or nests deeper than any tree can, fits no
    // schema and is reported as an element of the wrong type (22).
    static void report(cfg *context, walk_fault fault, const cfg_element *element)
    {
        if (fault == walk_fault::schema_cycle)
            cfg_message_add_schema(context);
        else if (fault != walk_fault::none)
            cfg_message_add_wrong_type(context, element->uuid);
    }

  private:
    struct frame {
        const cfg_element *element;
        const cfg_schema_element *schema;
        bool created;
        bool conditional;
    };
    std::vector<frame> frames_;
};

} // namespace zr

#endif // ZRCONFIG_WALK_H
