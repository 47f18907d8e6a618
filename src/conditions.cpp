// Search condition trees: construction, release and their SQL WHERE text.
#define ZR_SOURCE "src/conditions"
#include "internal.h"

#include <cstring>
#include <string>

namespace {

// printf renders a null text this way; SQL of empty nodes relies on it.
const char *text_or_null(const char *text)
{
    return text != nullptr ? text : "(null)";
}

cfg_condition *new_node(int type)
{
    cfg_condition *node = zr::zalloc<cfg_condition>();
    if (node != nullptr)
        node->type = type;
    return node;
}

// A basic condition on a copy of fieldname, with its value still unset.
cfg_condition *new_basic(const char *fieldname, int oper, int datatype)
{
    if (fieldname == nullptr)
        return nullptr;
    cfg_condition *condition = new_node(CFG_CONDITION_BASIC);
    if (condition == nullptr)
        return nullptr;
    condition->fieldname = strdup(fieldname);
    if (condition->fieldname == nullptr) {
        free(condition);
        return nullptr;
    }
    condition->oper = oper;
    condition->datatype = datatype;
    return condition;
}

bool is_like(int oper)
{
    return oper >= CFG_OPER_LIKE_FIRST && oper <= CFG_OPER_LIKE_LAST;
}

bool is_equality(int oper)
{
    return oper == CFG_OPER_EQ || oper == CFG_OPER_NE;
}

bool owns_string_value(const cfg_condition *condition)
{
    return condition->datatype == CFG_TYPE_STRING || condition->datatype == CFG_TYPE_REFERENCE;
}

// The SQL operator of a code, or null for a code outside the table.
const char *sql_operator(int oper)
{
    static const char *const operators[] = {
        nullptr, "=", "<>", "<", "<=", ">", ">=", "LIKE", "LIKE", "LIKE", "IS NOT NULL", "IS NULL",
    };
    if (oper < 1 || oper > CFG_OPER_IS_NULL)
        return nullptr;
    return operators[oper];
}

// Gives condition a copy of text as its value; null, with condition freed,
// when there is no memory for the copy.
cfg_condition *with_text_value(cfg_condition *condition, const char *text)
{
    if (condition == nullptr)
        return nullptr;
    condition->value.string_value = strdup(text);
    if (condition->value.string_value != nullptr)
        return condition;
    cfg_free_conditions(condition);
    return nullptr;
}

char *copy_out(const std::string &text)
{
    return strdup(text.c_str());
}

} // namespace

extern "C" cfg_condition *cfg_new_and_condition(void)
{
    return new_node(CFG_CONDITION_AND);
}

extern "C" cfg_condition *cfg_new_or_condition(void)
{
    return new_node(CFG_CONDITION_OR);
}

// Appends child at the end of node's children; node then owns it.
extern "C" void cfg_condition_add_child(cfg_condition *node, cfg_condition *child)
{
    if (node == nullptr || child == nullptr)
        return;
    if (node->type != CFG_CONDITION_AND && node->type != CFG_CONDITION_OR)
        return;
    child->next = nullptr;
    cfg_condition **tail = &node->children;
    while (*tail != nullptr)
        tail = &(*tail)->next;
    *tail = child;
}

extern "C" cfg_condition *cfg_new_int_condition(const char *fieldname, int oper, int value)
{
    if (is_like(oper))
        return nullptr;
    cfg_condition *condition = new_basic(fieldname, oper, CFG_TYPE_INT);
    if (condition != nullptr)
        condition->value.int_value = value;
    return condition;
}

extern "C" cfg_condition *cfg_new_float_condition(const char *fieldname, int oper,
                                                  double value)
{
    if (is_like(oper))
        return nullptr;
    cfg_condition *condition = new_basic(fieldname, oper, CFG_TYPE_FLOAT);
    if (condition != nullptr)
        condition->value.float_value = value;
    return condition;
}

// Every operator code is accepted, also codes that render no SQL.
extern "C" cfg_condition *cfg_new_string_condition(const char *fieldname, int oper,
                                                   const char *value)
{
    if (value == nullptr)
        return nullptr;
    cfg_condition *condition = new_basic(fieldname, oper, CFG_TYPE_STRING);
    return with_text_value(condition, value);
}

extern "C" cfg_condition *cfg_new_reference_condition(const char *fieldname, int oper,
                                                      const char *uuid)
{
    if (uuid == nullptr || !is_equality(oper))
        return nullptr;
    cfg_condition *condition = new_basic(fieldname, oper, CFG_TYPE_REFERENCE);
    return with_text_value(condition, uuid);
}

extern "C" cfg_condition *cfg_new_bool_condition(const char *fieldname, int oper, int value)
{
    if (!is_equality(oper))
        return nullptr;
    cfg_condition *condition = new_basic(fieldname, oper, CFG_TYPE_BOOL);
    if (condition != nullptr)
        condition->value.int_value = value;
    return condition;
}

extern "C" cfg_condition *cfg_new_untyped_condition(const char *fieldname, int oper)
{
    if (oper != CFG_OPER_IS_NOT_NULL && oper != CFG_OPER_IS_NULL)
        return nullptr;
    return new_basic(fieldname, oper, CFG_CONDITION_UNTYPED);
}

// Frees the children first, then the node; siblings of condition stay.
extern "C" void cfg_free_conditions(cfg_condition *condition)
{
    if (condition == nullptr)
        return;
    cfg_condition *child = condition->children;
    while (child != nullptr) {
        cfg_condition *next = child->next;
        cfg_free_conditions(child);
        child = next;
    }
    if (condition->type == CFG_CONDITION_BASIC) {
        free(condition->fieldname);
        if (owns_string_value(condition))
            free(condition->value.string_value);
    }
    free(condition);
}

extern "C" char *condition_to_sql(cfg_condition *condition)
{
    if (condition == nullptr)
        return nullptr;
    switch (condition->type) {
    case CFG_CONDITION_AND:
    case CFG_CONDITION_OR:
        return multi_condition_to_sql(condition);
    case CFG_CONDITION_BASIC:
        return basic_condition_to_sql(condition);
    default:
        return nullptr;
    }
}

// Joins the children's SQL with AND or OR and wraps it in parentheses; a
// child without SQL and a node without children read as "(null)".
extern "C" char *multi_condition_to_sql(cfg_condition *condition)
{
    if (condition == nullptr)
        return nullptr;
    const char *joiner = condition->type == CFG_CONDITION_AND ? " AND " : " OR ";
    std::string accumulator = text_or_null(nullptr);
    for (cfg_condition *child = condition->children; child != nullptr; child = child->next) {
        zr::cstr_ptr text(condition_to_sql(child));
        if (child == condition->children)
            accumulator = text_or_null(text.get());
        else
            accumulator += joiner + std::string(text_or_null(text.get()));
    }
    return copy_out("(" + accumulator + ")");
}

// "(field op ?)" for a comparison, "(field op)" for the null tests.
extern "C" char *basic_condition_to_sql(cfg_condition *condition)
{
    if (condition == nullptr)
        return nullptr;
    const char *op = sql_operator(condition->oper);
    if (op == nullptr)
        return nullptr;
    std::string text = "(" + std::string(text_or_null(condition->fieldname)) + " " + op;
    if (condition->oper < CFG_OPER_IS_NOT_NULL)
        text += " ?";
    return copy_out(text + ")");
}
