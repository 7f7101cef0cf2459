#include "companions/ctl/WiringTexts.h"

#include "companions/ctl/HandlerName.h"
#include "companions/ctl/LocalTime.h"
#include "companions/ctl/Terminal.h"

#include <algorithm>

namespace kelto::halvek::ctl {

namespace {

std::string ShortAndEscaped(const std::string& group) {
    return Terminal::Escape(HandlerName::Short(group));
}

const WiringHandler* FindHandler(const Wiring& wiring, const std::string& group) {
    const auto found = std::find_if(wiring.handlers.begin(), wiring.handlers.end(),
                                    [&](const WiringHandler& handler) { return handler.group == group; });
    return found == wiring.handlers.end() ? nullptr : &*found;
}

std::string MarksText(const Wiring& wiring, const std::string& group) {
    std::string text;
    for (const WiringMark* mark : wiring.MarksOf(group)) {
        const auto colour = mark->severity == "error"     ? Terminal::Colour::Red
                            : mark->severity == "warning" ? Terminal::Colour::Yellow
                                                          : Terminal::Colour::Faint;
        text.append("  ").append(Terminal::Coloured(colour, "[" + Terminal::Escape(mark->id) + "]"));
    }
    return text;
}

std::string SourceLine(const Wiring& wiring, const WiringSource& source) {
    std::string line = ShortAndEscaped(source.group);
    if (!source.type.empty()) {
        line.append("  ").append(Terminal::Escape(source.type));
    }
    if (!source.detail.empty()) {
        line.append("  ").append(Terminal::Escape(source.detail));
    }
    if (source.isLeftOut) {
        line.append("  left out: ").append(Terminal::Escape(source.remark));
    }
    return line + MarksText(wiring, source.group) + "\n";
}

std::string EdgeLine(const Wiring& wiring, const WiringEdge& edge) {
    const WiringHandler* const handler = FindHandler(wiring, edge.to);
    const std::string number = edge.order == 0 ? "lost" : std::to_string(edge.order) + ".";
    std::string line =
        "  " + std::string(number.size() < 4 ? 4 - number.size() : 0, ' ') + number + " " + ShortAndEscaped(edge.to);
    if (handler != nullptr) {
        line.append("  ").append(Terminal::Escape(handler->type));
        line.append(handler->target.empty() ? "" : " -> " + Terminal::Escape(handler->target));
        line.append(handler->isLeftOut ? "  left out" : "");
    }
    return line + "\n";
}

std::string HandlerLines(const Wiring& wiring, const WiringHandler& handler, const WeekStrip& week) {
    std::string lines = ShortAndEscaped(handler.group) + "  " + Terminal::Escape(handler.type);
    lines.append("  ").append(handler.filter.empty() ? "always" : Terminal::Escape(handler.filter));
    lines.append(MarksText(wiring, handler.group)).append("\n");
    if (!handler.remark.empty()) {
        lines.append("  ").append(handler.isLeftOut ? "left out: " : "").append(Terminal::Escape(handler.remark));
        lines.append("\n");
    }
    if (!handler.isLeftOut) {
        lines.append("  ").append(week.Text(handler.open)).append("\n");
    }
    return lines;
}

/** A name or a label. Dot reads labels for the entities of HTML, and copies those of names into its drawing. */
std::string DotQuoted(const std::string& text) {
    std::string quoted = "\"";
    for (const char character : Terminal::Escape(text)) {
        if (character == '"' || character == '\\') {
            quoted.push_back('\\');
        }
        quoted.append(character == '&' ? "&amp;" : std::string(1, character));
    }
    return quoted + "\"";
}

/** Lines of a label; what they hold is escaped, the breaks between them are not. */
std::string DotLabel(const std::string& first, const std::string& second) {
    std::string label = DotQuoted(first);
    if (!second.empty()) {
        label.pop_back();
        label.append("\\n").append(DotQuoted(second).substr(1));
    }
    return label;
}

std::string DotStyle(const Wiring& wiring, const std::string& group, bool isLeftOut) {
    std::string style = isLeftOut ? ", style=dashed" : "";
    return style.append(wiring.SeverityOf(group) == "error" ? ", color=red" : "");
}

std::string Joined(const std::string& one, const std::string& other) {
    return one.empty() || other.empty() ? one + other : one + "  " + other;
}

void AddMarks(const Wiring& wiring, const std::string& group, companion::Json& json) {
    json.Key("findings").BeginArray();
    for (const WiringMark* mark : wiring.MarksOf(group)) {
        json.BeginObject().Key("id").String(mark->id).Key("severity").String(mark->severity);
        json.Key("text").String(mark->text).EndObject();
    }
    json.EndArray();
}

void AddSource(const Wiring& wiring, const WiringSource& source, companion::Json& json) {
    json.BeginObject();
    json.Key("group").String(source.group);
    json.Key("type").String(source.type);
    json.Key("detail").String(source.detail);
    json.Key("posted").Bool(source.isPosted);
    json.Key("left_out").Bool(source.isLeftOut);
    json.Key("remark").String(source.remark);
    AddMarks(wiring, source.group, json);
    json.EndObject();
}

void AddHandler(const Wiring& wiring, const WiringHandler& handler, const WeekStrip& week, companion::Json& json) {
    json.BeginObject();
    json.Key("group").String(handler.group);
    json.Key("type").String(handler.type);
    json.Key("target").String(handler.target);
    json.Key("filter").String(handler.filter);
    json.Key("left_out").Bool(handler.isLeftOut);
    json.Key("configured").Bool(handler.isConfigured);
    json.Key("remark").String(handler.remark);
    json.Key("week").String(week.Text(handler.open));
    AddMarks(wiring, handler.group, json);
    json.EndObject();
}

std::string RuleLine(const WiringRule& rule) {
    std::string line = "rule " + Terminal::Escape(rule.name) + "  " + Terminal::Escape(rule.Text());
    for (const std::string& group : rule.to) {
        line.append(&group == &rule.to.front() ? "  -> " : ", ").append(ShortAndEscaped(group));
    }
    return line + "\n";
}

std::string DotRuleName(const std::string& rule) {
    return DotQuoted("rule " + rule);
}

std::string DotRule(const Wiring& wiring, const WiringRule& rule) {
    std::string text =
        "  " + DotRuleName(rule.name) + " [shape=hexagon, label=" + DotLabel(rule.name, rule.Text()) + "];\n";
    for (const std::string& group : rule.from) {
        text.append("  " + DotQuoted(group) + " -> " + DotRuleName(rule.name) + ";\n");
    }
    for (const std::string& other : rule.fromRules) {
        const bool isShown =
            std::any_of(wiring.rules.begin(), wiring.rules.end(), [&](const auto& one) { return one.name == other; });
        text.append(isShown ? "  " + DotRuleName(other) + " -> " + DotRuleName(rule.name) + ";\n" : "");
    }
    for (const std::string& group : rule.to) {
        text.append("  " + DotRuleName(rule.name) + " -> " + DotQuoted(group) + ";\n");
    }
    return text;
}

void AddList(companion::Json& json, const char* key, const std::vector<std::string>& names) {
    json.Key(key).BeginArray();
    for (const std::string& name : names) {
        json.String(name);
    }
    json.EndArray();
}

void AddRule(const WiringRule& rule, companion::Json& json) {
    json.BeginObject();
    json.Key("name").String(rule.name);
    json.Key("kind").String(rule.kind);
    json.Key("when").String(rule.when);
    json.Key("second");
    rule.second.empty() ? json.Null() : json.String(rule.second);
    json.Key("post").String(rule.post);
    json.Key("file").String(rule.place.file);
    json.Key("line").Number(rule.place.line);
    AddList(json, "from", rule.from);
    AddList(json, "from_rules", rule.fromRules);
    AddList(json, "to", rule.to);
    json.EndObject();
}

void AddEdges(const Wiring& wiring, bool lost, const char* key, companion::Json& json) {
    json.Key(key).BeginArray();
    for (const WiringEdge& edge : wiring.edges) {
        if ((edge.order == 0) == lost) {
            json.BeginObject().Key("from").String(edge.from).Key("to").String(edge.to);
            if (!lost) {
                json.Key("order").Number(edge.order);
            }
            json.EndObject();
        }
    }
    json.EndArray();
}

}  // namespace

std::string WiringTexts::Plain(const Wiring& wiring, const WeekStrip& week) {
    std::string text;
    for (const WiringSource& source : wiring.sources) {
        text.append(SourceLine(wiring, source));
        for (const WiringEdge* edge : wiring.EdgesFrom(source.group)) {
            text.append(EdgeLine(wiring, *edge));
        }
    }
    text.append(wiring.rules.empty() ? "" : "\n");
    for (const WiringRule& rule : wiring.rules) {
        text.append(RuleLine(rule));
    }
    text.append("\n");
    for (const WiringHandler& handler : wiring.handlers) {
        text.append(HandlerLines(wiring, handler, week));
    }
    for (const std::string& type : wiring.alwaysOn) {
        text.append(Terminal::Escape(type)).append("  every event -> pipes in /run/halvek\n");
    }
    return text;
}

std::string WiringTexts::Dot(const Wiring& wiring) {
    std::string text = "digraph halvek {\n  rankdir=LR;\n  node [shape=box, fontname=\"sans-serif\"];\n";
    for (const WiringSource& source : wiring.sources) {
        text.append("  " + DotQuoted(source.group) +
                    " [label=" + DotLabel(HandlerName::Short(source.group), Joined(source.type, source.detail)) +
                    DotStyle(wiring, source.group, source.isLeftOut) + "];\n");
    }
    for (const WiringHandler& handler : wiring.handlers) {
        text.append("  " + DotQuoted(handler.group) +
                    " [label=" + DotLabel(HandlerName::Short(handler.group), Joined(handler.type, handler.filter)) +
                    DotStyle(wiring, handler.group, handler.isLeftOut) + "];\n");
        if (!handler.target.empty()) {
            const std::string target = DotQuoted("target of " + handler.group);
            text.append("  " + target + " [shape=ellipse, label=" + DotQuoted(handler.target) + "];\n");
            text.append("  " + DotQuoted(handler.group) + " -> " + target +
                        (handler.isLeftOut ? " [style=dashed]" : "") + ";\n");
        }
    }
    for (const WiringEdge& edge : wiring.edges) {
        text.append("  " + DotQuoted(edge.from) + " -> " + DotQuoted(edge.to));
        text.append(edge.order == 0 ? " [style=dashed]" : " [label=\"" + std::to_string(edge.order) + "\"]");
        text.append(";\n");
    }
    for (const WiringRule& rule : wiring.rules) {
        text.append(DotRule(wiring, rule));
    }
    return text + "}\n";
}

void WiringTexts::AddJson(const Wiring& wiring, const WeekStrip& week, companion::Json& json) {
    json.Key("sources").BeginArray();
    for (const WiringSource& source : wiring.sources) {
        AddSource(wiring, source, json);
    }
    json.EndArray();
    json.Key("handlers").BeginArray();
    for (const WiringHandler& handler : wiring.handlers) {
        AddHandler(wiring, handler, week, json);
    }
    json.EndArray();
    AddEdges(wiring, false, "edges", json);
    AddEdges(wiring, true, "lost_edges", json);
    AddList(json, "always_on", wiring.alwaysOn);
    json.Key("rules").BeginArray();
    for (const WiringRule& rule : wiring.rules) {
        AddRule(rule, json);
    }
    json.EndArray();
}

}  // namespace kelto::halvek::ctl
