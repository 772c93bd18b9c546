#include "cmdsrv_store.h"

#include <algorithm>

namespace corvaned {

using corvane::applied_change;

namespace {

std::string key_with(const std::string &slot, const std::vector<std::string> &names, const parsed_command &command)
{
    std::string key = slot;
    for (const auto &name : names) {
        const auto *value = command.get(name);
        key += '\t' + (value == nullptr ? std::string() : *value);
    }
    return key;
}

std::string key_of(const parsed_command &command)
{
    const auto &c = *command.command;
    if (c.keep == keep_rule::ONCE)
        return key_with(c.slot, c.per, command);
    if (!c.undo_by_text)
        return key_with(c.slot, c.undo, command);
    return c.slot + '\t' + command.text;
}

applied_change coming(const grammar_command &command)
{
    switch (command.keep) {
    case keep_rule::ONCE:
        return applied_change::REPLACE_KEY;
    case keep_rule::LIST:
        return applied_change::MOVE_TO_END;
    case keep_rule::REPEAT:
        return applied_change::APPEND;
    default:
        return applied_change::NOTHING;
    }
}

bool comes(const parsed_command &command)
{
    const auto kept = command.command->kept;
    return kept == kept_form::BOTH || (kept == kept_form::NO) == command.no;
}

} // namespace

config_store::effect config_store::effect_of(const parsed_command &command)
{
    const auto &c = *command.command;
    effect result;
    if (c.keep == keep_rule::NONE)
        return result;
    result.key = key_of(command);
    if (comes(command)) {
        result.change = coming(c);
        result.line = command.no ? "no " + command.text : command.text;
    } else {
        result.change = c.keep == keep_rule::REPEAT ? applied_change::REMOVE_ONE : applied_change::REMOVE_KEY;
        result.line = command.no ? command.text : "no " + command.text;
    }
    return result;
}

config_store::block *config_store::find_block(const std::string &interface)
{
    if (interface.empty())
        return &global_;
    const auto found = by_name_.find(interface);
    return found == by_name_.end() ? nullptr : &*found->second;
}

config_store::block &config_store::block_of(const std::string &interface)
{
    if (block *known = find_block(interface))
        return *known;
    interfaces_.emplace_back().interface = interface;
    by_name_[interface] = std::prev(interfaces_.end());
    return interfaces_.back();
}

std::uint64_t config_store::put(block &in, std::list<config_line>::iterator before, config_line line)
{
    line.id = ++last_id_;
    line.interface = in.interface;
    const auto at = in.lines.insert(before, std::move(line));
    in.by_key.emplace(at->key, at);
    by_id_[at->id] = {&in, at};
    return at->id;
}

void config_store::erase(block &in, std::list<config_line>::iterator line)
{
    const auto [first, last] = in.by_key.equal_range(line->key);
    const auto found = std::find_if(first, last, [&](const auto &entry) { return entry.second == line; });
    if (found != last)
        in.by_key.erase(found);
    by_id_.erase(line->id);
    in.lines.erase(line);
}

void config_store::drop_empty(const std::string &interface)
{
    const auto found = by_name_.find(interface);
    if (found == by_name_.end() || !found->second->lines.empty())
        return;
    interfaces_.erase(found->second);
    by_name_.erase(found);
}

// A line of the same command keeps its place; one of another command of the slot goes to the end, where it was entered.
std::uint64_t config_store::replace_key(block &in, config_line line)
{
    auto before = in.lines.end();
    for (auto found = in.by_key.find(line.key); found != in.by_key.end(); found = in.by_key.find(line.key)) {
        const auto old = found->second;
        if (old->command == line.command)
            before = std::next(old);
        erase(in, old);
    }
    return put(in, before, std::move(line));
}

void config_store::tell(operation what, const std::string &interface, const std::string &text, line_state state,
                        std::uint32_t source_line) const
{
    if (done)
        done(what, interface, text, state, source_line);
}

std::uint64_t config_store::apply(const std::string &interface, const parsed_command &command, line_state state,
                                  std::uint32_t source_line)
{
    const effect e = effect_of(command);
    if (e.change == applied_change::NOTHING)
        return 0;
    const std::uint64_t id = change(interface, command, e, state, source_line);
    tell(operation::APPLY, interface, (command.no ? "no " : "") + command.text, state, source_line);
    return id;
}

std::uint64_t config_store::change(const std::string &interface, const parsed_command &command, const effect &e,
                                   line_state state, std::uint32_t source_line)
{
    const bool removing = e.change == applied_change::REMOVE_KEY || e.change == applied_change::REMOVE_ONE;
    if (removing && find_block(interface) == nullptr)
        return 0;
    block &in = block_of(interface);
    config_line line{0, command.command, command.no, command.text, e.key, state, source_line, interface};
    if (e.change == applied_change::REPLACE_KEY)
        return replace_key(in, std::move(line));
    if (e.change == applied_change::APPEND)
        return put(in, in.lines.end(), std::move(line));
    std::vector<std::list<config_line>::iterator> matching;
    const auto [first, last] = in.by_key.equal_range(e.key);
    for (auto it = first; it != last; ++it)
        if (e.change != applied_change::MOVE_TO_END || it->second->text == command.text)
            matching.push_back(it->second);
    if (e.change == applied_change::REMOVE_ONE && matching.size() > 1) {
        std::ranges::sort(matching, {}, [](const auto &m) { return m->id; });
        matching.resize(1);
    }
    for (const auto m : matching)
        erase(in, m);
    const std::uint64_t id = removing ? 0 : put(in, in.lines.end(), std::move(line));
    drop_empty(interface);
    return id;
}

void config_store::make_interface(const std::string &interface, const grammar_command *maker, line_state state,
                                  std::uint32_t source_line)
{
    block &in = block_of(interface);
    tell(operation::MAKE, interface, "", state, source_line);
    if (in.maker != 0) {
        by_id_[in.maker].at->state = state;
        return;
    }
    in.maker = put(in, in.lines.begin(),
                   {0, maker, false, "interface " + interface, "interface", state, source_line, interface});
}

void config_store::remove_interface(const std::string &interface)
{
    block *in = find_block(interface);
    if (in == nullptr || interface.empty())
        return;
    tell(operation::REMOVE_INTERFACE, interface, "");
    while (!in->lines.empty())
        erase(*in, std::prev(in->lines.end()));
    drop_empty(interface);
}

void config_store::remove_text(const std::string &interface, const std::string &full)
{
    std::uint64_t id = 0;
    each_of(interface, [&](const config_line &line) {
        if (id == 0 && line.full() == full)
            id = line.id;
    });
    remove(id);
}

void config_store::remove(std::uint64_t id)
{
    const auto found = by_id_.find(id);
    if (found == by_id_.end())
        return;
    const place where = found->second;
    const std::string interface = where.in->interface;
    tell(operation::REMOVE, interface, where.at->full());
    if (where.in->maker == id)
        where.in->maker = 0;
    erase(*where.in, where.at);
    drop_empty(interface);
}

config_line *config_store::find(std::uint64_t id)
{
    const auto found = by_id_.find(id);
    return found == by_id_.end() ? nullptr : &*found->second.at;
}

void config_store::each(const std::function<void(config_line &)> &visit)
{
    for (auto &line : global_.lines)
        if (line.command->place_first)
            visit(line);
    for (auto &in : interfaces_)
        for (auto &line : in.lines)
            visit(line);
    for (auto &line : global_.lines)
        if (!line.command->place_first)
            visit(line);
}

void config_store::each_of(const std::string &interface, const std::function<void(config_line &)> &visit)
{
    if (block *in = find_block(interface))
        for (auto &line : in->lines)
            visit(line);
}

std::vector<std::uint64_t> config_store::in_slots(const std::string &interface, const std::vector<std::string> &slots)
{
    std::vector<std::uint64_t> ids;
    each_of(interface, [&](config_line &line) {
        if (std::ranges::find(slots, line.command->slot) != slots.end())
            ids.insert(ids.begin(), line.id);
    });
    return ids;
}

std::string config_store::text() const
{
    std::string out;
    const auto add = [&](const config_line &line, const char *indent) { out += indent + line.full() + "\n"; };
    for (const auto &line : global_.lines)
        if (line.command->place_first)
            add(line, "");
    for (const auto &in : interfaces_) {
        out += "interface " + quoted(in.interface) + "\n";
        for (const auto &line : in.lines)
            if (line.id != in.maker)
                add(line, "  ");
    }
    for (const auto &line : global_.lines)
        if (!line.command->place_first)
            add(line, "");
    return out;
}

std::vector<std::string> config_store::interfaces() const
{
    std::vector<std::string> names;
    for (const auto &in : interfaces_)
        names.push_back(in.interface);
    return names;
}

namespace {

using line_counts = std::map<std::pair<std::string, std::string>, int>;

line_counts counts_of(config_store &store)
{
    line_counts counts;
    store.each([&](config_line &line) { ++counts[{line.interface, line.full()}]; });
    return counts;
}

// What takes the line back. Where both forms are settings of their own, the `no` form has no opposite.
std::string opposite(const config_line &line)
{
    if (!line.no)
        return "no " + line.text;
    return line.command->kept == kept_form::BOTH ? "" : line.text;
}

bool makes_interface(const config_line &line) { return line.command->enters_interface; }

} // namespace

config_difference difference(config_store &from, config_store &to)
{
    config_difference result;
    line_counts missing = counts_of(to), gone = counts_of(from);
    std::map<std::pair<std::string, std::string>, bool> keys_to, made_to;
    to.each([&](config_line &line) {
        if (line.command->keep == keep_rule::ONCE)
            keys_to[{line.interface, line.key}] = true;
        if (makes_interface(line))
            made_to[{line.interface, ""}] = true;
    });
    std::map<std::string, bool> interface_goes;
    from.each([&](config_line &line) {
        if (makes_interface(line) && !made_to.contains({line.interface, ""}))
            interface_goes[line.interface] = true;
    });
    from.each([&](config_line &line) {
        if (auto &left = missing[{line.interface, line.full()}]; left > 0) {
            --left;                                          // it is in both
            return;
        }
        if (makes_interface(line)) {
            result.back.push_back({"", opposite(line), line.id, line.full()});
            return;
        }
        const bool replaced = line.command->keep == keep_rule::ONCE && keys_to.contains({line.interface, line.key});
        if (replaced)
            result.replaced.push_back({line.interface, "", line.id, line.full()});
        else if (!interface_goes.contains(line.interface))
            result.back.push_back({line.interface, opposite(line), line.id, line.full()});
    });
    std::ranges::reverse(result.back);
    to.each([&](config_line &line) {
        if (auto &left = gone[{line.interface, line.full()}]; left > 0) {
            --left;
            return;
        }
        result.enter.push_back({makes_interface(line) ? "" : line.interface, line.full(), 0, ""});
    });
    return result;
}

} // namespace corvaned
