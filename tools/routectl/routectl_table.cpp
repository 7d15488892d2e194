// routectl_table.cpp - joins the rows of all sources into the table of commands; values by name.
//
// Always: the order of the sources is the order of the help.
#include "card_view/history_view.h"
#include "routectl_commands.h"

const std::vector<const routectl_command *> &routectl_table()
{
    static const std::vector<const routectl_command *> table = [] {
        std::vector<const routectl_command *> rows;
        for (const auto source :
             {routectl_route_commands, routectl_card_commands, routectl_hw_commands, routectl_live_commands,
              routectl_debug_commands, routectl_history_commands, routectl_watch_commands, routectl_doctor_commands})
            for (const routectl_command &row : source())
                rows.push_back(&row);
        return rows;
    }();
    return table;
}

const routectl_value *routectl_given(const routectl_call &call, const std::string &name)
{
    const auto found = call.values.find(name);
    return found == call.values.end() ? nullptr : &found->second;
}

std::uint32_t routectl_number(const routectl_call &call, const std::string &name, std::uint32_t otherwise)
{
    const routectl_value *const value = routectl_given(call, name);
    return value == nullptr ? otherwise : value->number;
}

std::uint64_t routectl_since(const routectl_call &call)
{
    const routectl_value *const age = routectl_given(call, "age");
    return age == nullptr ? 0 : history_time_before(history_age_of(age->text).value_or(0));
}

routectl_answer routectl_error(int status, std::string error)
{
    routectl_answer answer;
    answer.status = status;
    answer.error = std::move(error);
    return answer;
}
