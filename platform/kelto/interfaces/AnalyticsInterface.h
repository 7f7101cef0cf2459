#pragma once

#include <string>
#include <utility>
#include <vector>

namespace kelto::msgbus {
struct MsgBusMsg;
}

namespace kelto::interfaces {

/** What analytics programs say on the bus, in the domain "com.zentu.analytics". */
class AnalyticsInterface {
public:
    /** A rule has been broken in the picture. A plain value. */
    struct AnalyticsAlert {
        using Point = std::pair<double, double>;

        /** Decodes the message "AnalyticsAlert". Throws kelto::osa::Exception if its arguments are of other types. */
        explicit AnalyticsAlert(const msgbus::MsgBusMsg& message);

        std::string source;
        std::string className;
        std::string analyticsType;
        /** URL-encoded, as is the description. */
        std::string ruleName;
        std::string ruleDescription;
        std::vector<Point> rulePoints;
        std::vector<Point> boxPoints;
        std::string mediaType;
        std::string mediaUrl;
    };
};

}  // namespace kelto::interfaces
