#include "companions/ctl/WiringDrawing.h"

#include "companions/ctl/HandlerName.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace kelto::halvek::ctl {

namespace {

constexpr double margin = 24;
constexpr double headHeight = 40;
constexpr double columnGap = 110;
constexpr double targetGap = 44;

constexpr double sourceLeft = margin;
constexpr double sourceWidth = 230;
constexpr double sourceHeight = 46;
constexpr double sourceSpace = 16;

constexpr double handlerLeft = sourceLeft + sourceWidth + columnGap;
constexpr double handlerWidth = 320;
constexpr double handlerHeight = 66;
constexpr double handlerSpace = 16;

constexpr double targetLeft = handlerLeft + handlerWidth + targetGap;
constexpr double targetWidth = 270;
constexpr double targetHeight = 34;

constexpr double padding = 11;
constexpr double corner = 6;
constexpr double nameGap = 8;
constexpr double badgeWidth = 18;
constexpr double badgeHeight = 15;
constexpr double dayWidth = 40;
constexpr double dayGap = 2.5;
constexpr double barHeight = 8;
constexpr double secondsPerDay = 86400;

std::string NameOf(const std::string& group) {
    return HandlerName::Short(group);
}

}  // namespace

WiringDrawing::WiringDrawing(const Wiring& drawnWiring, const WeekStrip& shownWeek)
    : wiring(drawnWiring), week(shownWeek), svg("What leads from which event to which action") {}

std::string WiringDrawing::Text() {
    Place();
    AddHead();
    AddEdges();
    for (const WiringSource& source : wiring.sources) {
        AddSource(source);
    }
    for (const WiringHandler& handler : wiring.handlers) {
        AddHandler(handler);
    }
    AddAlwaysOn();
    AddLegend();
    return svg.Text(targetLeft + targetWidth + margin, bottom + margin);
}

/** Handlers one below the other; sources as near to the middle of theirs as there is room. */
void WiringDrawing::Place() {
    double y = margin + headHeight;
    for (const WiringHandler& handler : wiring.handlers) {
        handlerTop[handler.group] = y;
        y += handlerHeight + handlerSpace;
    }
    bottom = y;
    PlaceSources();
}

void WiringDrawing::PlaceSources() {
    std::vector<std::pair<double, std::string>> wanted;
    for (const WiringSource& source : wiring.sources) {
        double sum = 0;
        const std::vector<const WiringEdge*> edges = wiring.EdgesFrom(source.group);
        for (const WiringEdge* edge : edges) {
            sum += handlerTop.at(edge->to) + handlerHeight / 2;
        }
        // One that nothing comes of stands below all others.
        wanted.emplace_back(edges.empty() ? bottom * 2 : sum / static_cast<double>(edges.size()), source.group);
    }
    std::stable_sort(wanted.begin(), wanted.end(),
                     [](const auto& one, const auto& other) { return one.first < other.first; });
    const double needed = static_cast<double>(wanted.size()) * (sourceHeight + sourceSpace);
    const double slack = std::max(0.0, bottom - (margin + headHeight) - needed);
    double y = margin + headHeight;
    double left = needed;
    for (const auto& [middle, group] : wanted) {
        // As low as it wants, but so that those behind it still find room above the lowest handler.
        const double latest = margin + headHeight + slack + needed - left;
        y = std::max(y, std::min(middle - sourceHeight / 2, latest));
        sourceTop[group] = y;
        y += sourceHeight + sourceSpace;
        left -= sourceHeight + sourceSpace;
    }
    bottom = std::max(bottom, y);
}

void WiringDrawing::AddHead() {
    const double y = margin + 14;
    svg.AddText(sourceLeft, y, "head", "EVENTS");
    svg.AddText(handlerLeft, y, "head", "HANDLERS");
    svg.AddText(targetLeft, y, "head", "ACTIONS");
}

void WiringDrawing::AddSource(const WiringSource& source) {
    const double y = sourceTop.at(source.group);
    svg.BeginGroup("item", HintOf(source.group, source.remark), source.group);
    svg.AddBox({sourceLeft, y, sourceWidth, sourceHeight}, BoxClass("source", source.group, source.isLeftOut), corner);
    const double inner = sourceWidth - 2 * padding;
    const std::string title = source.type.empty() ? NameOf(source.group) : source.type;
    svg.AddFittedText(sourceLeft + padding, y + 19, inner, "name", title);
    const double nameLeft = padding + std::min(inner, Svg::WidthOf(title, Svg::boldFont)) + nameGap;
    if (title != NameOf(source.group) && !source.group.starts_with("Applications/") && nameLeft < inner) {
        svg.AddFittedText(sourceLeft + nameLeft, y + 19, sourceWidth - padding - nameLeft, "small",
                          NameOf(source.group));
    }
    svg.AddFittedText(sourceLeft + padding, y + 36, inner, "small",
                      source.isLeftOut ? "left out: " + source.remark : source.detail);
    AddMarks(source.group, sourceLeft + sourceWidth - padding, y + 19);
    svg.EndGroup();
}

void WiringDrawing::AddHandler(const WiringHandler& handler) {
    const double y = handlerTop.at(handler.group);
    svg.BeginGroup("item", HintOf(handler.group, handler.remark), handler.group);
    svg.AddBox({handlerLeft, y, handlerWidth, handlerHeight}, BoxClass("handler", handler.group, handler.isLeftOut),
               corner);
    const double inner = handlerWidth - 2 * padding;
    const std::string name = NameOf(handler.group);
    svg.AddFittedText(handlerLeft + padding, y + 19, inner / 2, "name", name);
    const double typeLeft = handlerLeft + padding + std::min(inner / 2, Svg::WidthOf(name, Svg::boldFont)) + nameGap;
    svg.AddFittedText(typeLeft, y + 19, handlerLeft + inner - typeLeft, "plain", handler.type);
    AddMarks(handler.group, handlerLeft + handlerWidth - padding, y + 19);
    if (handler.isLeftOut) {
        svg.AddFittedText(handlerLeft + padding, y + 40, inner, "small", "left out: " + handler.remark);
    } else {
        svg.AddFittedText(handlerLeft + padding, y + 36, inner, "small",
                          handler.filter.empty() ? "always" : handler.filter);
        AddWeek(handler, handlerLeft + padding, y + 46);
    }
    svg.EndGroup();
    AddTarget(handler, y + (handlerHeight - targetHeight) / 2);
}

void WiringDrawing::AddTarget(const WiringHandler& handler, double y) {
    if (handler.target.empty()) {
        return;
    }
    const double middle = y + targetHeight / 2;
    svg.BeginGroup("action", "", handler.group);
    svg.AddEdge(handlerLeft + handlerWidth, middle, targetLeft - 1, middle,
                handler.isLeftOut ? "edge-left-out" : "edge");
    svg.AddBox({targetLeft, y, targetWidth, targetHeight}, handler.isLeftOut ? "target left-out" : "target",
               targetHeight / 2);
    svg.AddFittedText(targetLeft + 16, y + 21, targetWidth - 32, "plain", handler.target);
    svg.EndGroup();
}

/** A bar for each day, with its name below. */
void WiringDrawing::AddWeek(const WiringHandler& handler, double x, double y) {
    for (const LocalDay& day : week.Days()) {
        svg.AddBox({x, y, dayWidth, barHeight}, "track", 1.5);
        for (const OpenSpan& span : day.Cut(handler.open)) {
            const double left = dayWidth * static_cast<double>(span.from - day.From()) / secondsPerDay;
            const double right = dayWidth * static_cast<double>(span.to - day.From()) / secondsPerDay;
            svg.AddBox({x + left, y, std::max(0.6, std::min(right, dayWidth) - left), barHeight}, "open");
        }
        x += dayWidth + dayGap;
    }
}

void WiringDrawing::AddEdges() {
    std::map<std::string, std::vector<const WiringEdge*>> byHandler;
    for (const WiringEdge& edge : wiring.edges) {
        if (sourceTop.count(edge.from) != 0 && handlerTop.count(edge.to) != 0) {
            byHandler[edge.to].push_back(&edge);
        }
    }
    for (auto& [handler, edges] : byHandler) {
        std::stable_sort(edges.begin(), edges.end(), [&](const WiringEdge* one, const WiringEdge* other) {
            return sourceTop.at(one->from) < sourceTop.at(other->from);
        });
        for (size_t place = 0; place < edges.size(); ++place) {
            AddEdge(*edges[place], place, edges.size());
        }
    }
    for (size_t place = 0; place < wiring.rules.size(); ++place) {
        AddRule(wiring.rules[place], place);
    }
}

/** From the events that a rule hears to those that it posts, in the margin before them. */
void WiringDrawing::AddRule(const WiringRule& rule, size_t place) {
    const double x = sourceLeft - 6 - static_cast<double>(place % 3) * 5;
    for (const std::string& from : rule.from) {
        for (const std::string& to : rule.to) {
            const double top = sourceTop.at(from) + sourceHeight / 2;
            const double end = sourceTop.at(to) + sourceHeight / 2;
            svg.BeginGroup("item", "rule " + rule.name + ": " + rule.Text(), "rule " + rule.name);
            svg.AddLine(sourceLeft, top, x, top, "edge");
            svg.AddLine(x, top, x, end, "edge");
            svg.AddEdge(x, end, sourceLeft - 1, end, "edge");
            svg.EndGroup();
        }
    }
}

/** Those that end at one handler end below each other, each with its number at its end. */
void WiringDrawing::AddEdge(const WiringEdge& edge, size_t place, size_t count) {
    const double step = std::min(18.0, (handlerHeight - 12) / static_cast<double>(count));
    const double y = handlerTop.at(edge.to) + handlerHeight / 2 +
                     step * (static_cast<double>(place) - static_cast<double>(count - 1) / 2);
    const bool isLost = edge.order == 0;
    svg.AddEdge(sourceLeft + sourceWidth, sourceTop.at(edge.from) + sourceHeight / 2, handlerLeft - 1, y,
                isLost ? "edge-left-out" : "edge", {.from = edge.from, .to = edge.to});
    if (!isLost) {
        const double left = handlerLeft - 34;
        const std::string number = std::to_string(edge.order);
        svg.AddBox({left, y - badgeHeight / 2, badgeWidth, badgeHeight}, "badge", badgeHeight / 2);
        svg.AddText(left + (badgeWidth - Svg::WidthOf(number, 10)) / 2, y + 3.5, "number", number);
    }
}

void WiringDrawing::AddAlwaysOn() {
    for (const std::string& type : wiring.alwaysOn) {
        svg.BeginGroup("action", "", type);
        svg.AddBox({handlerLeft, bottom, handlerWidth, targetHeight}, "handler", corner);
        svg.AddText(handlerLeft + padding, bottom + 21, "name", type);
        svg.AddText(handlerLeft + padding + Svg::WidthOf(type, Svg::boldFont) + nameGap, bottom + 21, "small",
                    "every event");
        svg.AddEdge(handlerLeft + handlerWidth, bottom + targetHeight / 2, targetLeft - 1, bottom + targetHeight / 2,
                    "edge");
        svg.AddBox({targetLeft, bottom, targetWidth, targetHeight}, "target", targetHeight / 2);
        svg.AddText(targetLeft + 16, bottom + 21, "plain", "pipes in /run/halvek");
        svg.EndGroup();
        bottom += targetHeight + handlerSpace;
    }
}

void WiringDrawing::AddLegend() {
    bottom += 10;
    svg.AddLine(margin, bottom - 12, targetLeft + targetWidth, bottom - 12, "grid");
    svg.AddText(
        margin, bottom + 8, "small",
        "Numbers: the order in which a source delivers.  Bars: Monday to Sunday, 0 to 24 o'clock.  Dashed: what "
        "the daemon does without.  Red: an error.");
    bottom += 10;
}

/** As many ids as there is room for, from the right. */
void WiringDrawing::AddMarks(const std::string& group, double right, double y) {
    constexpr size_t mostShown = 2;
    const std::vector<const WiringMark*> marks = wiring.MarksOf(group);
    for (size_t i = 0; i < marks.size() && i < mostShown; ++i) {
        const double width = Svg::WidthOf(marks[i]->id, Svg::boldFont) + 4;
        right -= width;
        svg.AddText(right, y, "mark " + marks[i]->severity + "-text", marks[i]->id);
    }
}

std::string WiringDrawing::BoxClass(const char* kind, const std::string& group, bool isLeftOut) const {
    const std::string severity = wiring.SeverityOf(group);
    return std::string(kind) + (isLeftOut ? " left-out" : "") +
           (severity == "error" || severity == "warning" ? " " + severity : "");
}

std::string WiringDrawing::HintOf(const std::string& group, const std::string& remark) const {
    std::string hint = group + (remark.empty() ? "" : ": " + remark);
    for (const WiringMark* mark : wiring.MarksOf(group)) {
        hint.append("; ").append(mark->id).append(" ").append(mark->text);
    }
    return hint;
}

}  // namespace kelto::halvek::ctl
