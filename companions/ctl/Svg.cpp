#include "companions/ctl/Svg.h"

#include "companions/common/Utf8.h"
#include "companions/ctl/Terminal.h"

#include <array>
#include <charconv>

namespace kelto::halvek::ctl {

namespace {

constexpr double smallFont = 11;
constexpr double plainFont = 13;
/** Of the size of the font: what a letter of common fonts takes. */
constexpr double letterWidth = 0.55;

constexpr const char* style =
    "text{font-family:system-ui,'Segoe UI',Roboto,'DejaVu Sans',sans-serif;font-size:13px;fill:#1f2933}"
    ".small{font-size:11px;fill:#52606d}.head{font-size:11px;fill:#7b8794;letter-spacing:.08em}"
    ".title{font-size:15px;font-weight:600}.name{font-weight:600}.number{font-size:10px;font-weight:600;fill:#3e4c59}"
    ".source{fill:#e6f0fa;stroke:#7aa5cf}.handler{fill:#fff;stroke:#9aa5b1}.target{fill:#f3f0fa;stroke:#a897cf}"
    ".left-out{stroke-dasharray:5 4}.error{stroke:#c62828;stroke-width:2}.warning{stroke:#c77700;stroke-width:2}"
    ".mark{font-size:10px;font-weight:600}.error-text{fill:#c62828}.warning-text{fill:#a35f00}.note-text{fill:#52606d}"
    ".edge{fill:none;stroke:#7b8794;stroke-width:1.4}.edge-left-out{fill:none;stroke:#9aa5b1;stroke-dasharray:5 4}"
    ".badge{fill:#fff;stroke:#9aa5b1}.track{fill:#eceff3}.open{fill:#2e9e6b}.grid{stroke:#d3d9e0;stroke-width:1}"
    ".never{fill:#c62828}.paper{fill:#fff}";

/** What a text of a class is reckoned with; a bold one is wider. */
double SizeOf(std::string_view styleClass) {
    if (styleClass == "small") {
        return smallFont;
    }
    return styleClass == "name" || styleClass == "title" ? Svg::boldFont : plainFont;
}

std::string Number(double number) {
    std::array<char, 32> text{};
    const double tenths = static_cast<double>(static_cast<int64_t>(number * 10)) / 10;
    return {text.data(), std::to_chars(text.begin(), text.end(), tenths, std::chars_format::fixed).ptr};
}

std::string Attribute(const char* name, double number) {
    return std::string(" ") + name + "=\"" + Number(number) + "\"";
}

std::string Attribute(const char* name, std::string_view text) {
    return text.empty() ? "" : std::string(" ") + name + "=\"" + Svg::Escape(text) + "\"";
}

std::string Class(std::string_view styleClass) {
    return " class=\"" + Svg::Escape(styleClass) + "\"";
}

}  // namespace

void Svg::AddBox(const Box& box, std::string_view styleClass, double radius) {
    body.append("<rect" + Class(styleClass) + Attribute("x", box.x) + Attribute("y", box.y) +
                Attribute("width", box.width) + Attribute("height", box.height));
    body.append(radius > 0 ? Attribute("rx", radius) : "").append("/>\n");
}

void Svg::AddText(double x, double y, std::string_view styleClass, std::string_view text) {
    body.append("<text" + Class(styleClass) + Attribute("x", x) + Attribute("y", y) + ">" + Escape(text) + "</text>\n");
}

void Svg::AddFittedText(double x, double y, double width, std::string_view styleClass, std::string_view text) {
    const double size = SizeOf(styleClass);
    if (WidthOf(text, size) <= width) {
        AddText(x, y, styleClass, text);
        return;
    }
    std::string cut;
    std::string_view rest = text;
    while (!rest.empty()) {
        const std::string_view next = rest.substr(0, companion::FirstCharacter(rest).length);
        if (WidthOf(cut, size) + WidthOf("...", size) + WidthOf(next, size) > width) {
            break;
        }
        cut.append(next);
        rest.remove_prefix(next.size());
    }
    body.append("<text" + Class(styleClass) + Attribute("x", x) + Attribute("y", y) + "><title>" + Escape(text) +
                "</title>" + Escape(cut) + "\xe2\x80\xa6</text>\n");
}

void Svg::AddEdge(double fromX, double fromY, double toX, double toY, std::string_view styleClass, const Way& way) {
    const double bend = (toX - fromX) / 2;
    body.append("<path" + Class(styleClass) + Attribute("data-from", way.from) + Attribute("data-to", way.to) +
                " marker-end=\"url(#arrow)\" d=\"M" + Number(fromX) + " " + Number(fromY) + " C" +
                Number(fromX + bend) + " " + Number(fromY) + " " + Number(toX - bend) + " " + Number(toY) + " " +
                Number(toX) + " " + Number(toY) + "\"/>\n");
}

void Svg::AddLine(double fromX, double fromY, double toX, double toY, std::string_view styleClass) {
    body.append("<line" + Class(styleClass) + Attribute("x1", fromX) + Attribute("y1", fromY) + Attribute("x2", toX) +
                Attribute("y2", toY) + "/>\n");
}

void Svg::BeginGroup(std::string_view styleClass, std::string_view hint, std::string_view about) {
    body.append("<g" + Class(styleClass) + Attribute("data-group", about) + ">");
    if (!hint.empty()) {
        body.append("<title>" + Escape(hint) + "</title>");
    }
    body.append("\n");
}

std::string Svg::Text(double width, double height) const {
    return "<svg xmlns=\"http://www.w3.org/2000/svg\" role=\"img\"" + Attribute("width", width) +
           Attribute("height", height) + " viewBox=\"0 0 " + Number(width) + " " + Number(height) + "\">\n<title>" +
           Escape(title) + "</title>\n<style>" + style +
           "</style>\n<defs><marker id=\"arrow\" viewBox=\"0 0 8 8\" refX=\"7\" refY=\"4\" "
           "markerUnits=\"userSpaceOnUse\" markerWidth=\"9.8\" markerHeight=\"9.8\" orient=\"auto\">"
           "<path d=\"M0 0.5 L7.5 4 L0 7.5 z\" fill=\"#7b8794\"/></marker></defs>\n"
           "<rect class=\"paper\" width=\"100%\" height=\"100%\"/>\n" +
           body + "</svg>\n";
}

std::string Svg::Escape(std::string_view text) {
    std::string escaped;
    for (const char character : Terminal::Escape(text)) {
        switch (character) {
            case '&':
                escaped.append("&amp;");
                break;
            case '<':
                escaped.append("&lt;");
                break;
            case '>':
                escaped.append("&gt;");
                break;
            case '"':
                escaped.append("&quot;");
                break;
            default:
                escaped.push_back(character);
        }
    }
    return escaped;
}

double Svg::WidthOf(std::string_view text, double size) {
    double letters = 0;
    while (!text.empty()) {
        const companion::Utf8Character character = companion::FirstCharacter(text);
        // What is not Latin is wider.
        letters += character.isValid && character.code >= 0x1100 ? 2 : 1;
        text.remove_prefix(character.length);
    }
    return letters * letterWidth * size;
}

}  // namespace kelto::halvek::ctl
