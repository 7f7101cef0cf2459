#pragma once

#include <string>
#include <string_view>

namespace kelto::halvek::ctl {

/**
 * A drawing, to be put into a document: shapes and texts with classes that one style sheet in front explains. No
 * script, nothing from elsewhere, and no text of others but escaped. Lengths are in pixels.
 */
class Svg {
public:
    /** @param drawingTitle what a reader that cannot see is told */
    explicit Svg(std::string_view drawingTitle) : title(drawingTitle) {}

    struct Box {
        double x;
        double y;
        double width;
        double height;
    };

    void AddBox(const Box& box, std::string_view styleClass, double radius = 0);
    void AddText(double x, double y, std::string_view styleClass, std::string_view text);
    /** The text cut to a width, with an ellipsis, and as a whole in what one sees when one points at it. */
    void AddFittedText(double x, double y, double width, std::string_view styleClass, std::string_view text);
    /** The groups of the settings that something leads from and to; "data-from" and "data-to" of the drawing. */
    struct Way {
        std::string_view from;
        std::string_view to;
    };

    /** A curve from left to right that ends in an arrow. */
    void AddEdge(double fromX, double fromY, double toX, double toY, std::string_view styleClass, const Way& way = {});
    void AddLine(double fromX, double fromY, double toX, double toY, std::string_view styleClass);

    /**
     * What follows, until EndGroup, is told together with a text when one points at it.
     *
     * @param about the group of the settings that it stands for, "data-group" of the drawing
     */
    void BeginGroup(std::string_view styleClass, std::string_view hint, std::string_view about = {});
    void EndGroup() { body.append("</g>\n"); }

    /** The whole drawing. */
    std::string Text(double width, double height) const;

    /** Escaped for XML; control characters, which XML does not have, as "\x1b". */
    static std::string Escape(std::string_view text);

    /** The size that a bold text is reckoned with. */
    static constexpr double boldFont = 15.5;

    /** How wide a text becomes, about. @param size of the font */
    static double WidthOf(std::string_view text, double size);

private:
    std::string title;
    std::string body;
};

}  // namespace kelto::halvek::ctl
