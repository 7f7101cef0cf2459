#pragma once

#include "companions/ctl/Svg.h"
#include "companions/ctl/WeekStrip.h"
#include "companions/ctl/Wiring.h"

#include <map>
#include <string>

namespace kelto::halvek::ctl {

/** Draws a wiring in three columns: sources, handlers, targets. */
class WiringDrawing {
public:
    /** Looks at both, which must outlive it. */
    WiringDrawing(const Wiring& drawnWiring, const WeekStrip& shownWeek);

    std::string Text();

private:
    void Place();
    void PlaceSources();
    void AddHead();
    void AddSource(const WiringSource& source);
    void AddHandler(const WiringHandler& handler);
    void AddTarget(const WiringHandler& handler, double y);
    void AddWeek(const WiringHandler& handler, double x, double y);
    void AddEdges();
    void AddEdge(const WiringEdge& edge, size_t place, size_t count);
    void AddRule(const WiringRule& rule, size_t place);
    void AddAlwaysOn();
    void AddLegend();
    void AddMarks(const std::string& group, double right, double y);
    std::string BoxClass(const char* kind, const std::string& group, bool isLeftOut) const;
    std::string HintOf(const std::string& group, const std::string& remark) const;

    const Wiring& wiring;
    const WeekStrip& week;
    Svg svg;
    /** The upper edges of boxes, by group. */
    std::map<std::string, double> sourceTop;
    std::map<std::string, double> handlerTop;
    double bottom = 0;
};

}  // namespace kelto::halvek::ctl
