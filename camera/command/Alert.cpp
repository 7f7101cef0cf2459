#include "camera/command/Alert.h"

#include "camera/command/CameraClient.h"

#include <charconv>
#include <cmath>
#include <system_error>

namespace kelto::vcam {

namespace {

struct Point {
    double x = 0;
    double y = 0;
};

bool ReadNumber(const char* begin, const char* end, double& number) {
    const auto [behind, error] = std::from_chars(begin, end, number);
    return error == std::errc{} && behind == end && std::isfinite(number);
}

Point ReadPoint(const Words& words, const std::string& option, const std::string& text) {
    Point point;
    const size_t comma = text.find(',');
    const char* const begin = text.data();
    const char* const end = begin + text.size();
    if (comma == std::string::npos || !ReadNumber(begin, begin + comma, point.x) ||
        !ReadNumber(begin + comma + 1, end, point.y)) {
        words.Refuse(option + " is \"" + text + R"(", which is not two numbers as in "0.5,1")");
    }
    return point;
}

std::vector<Point> TakePoints(Words& words, const std::string& option) {
    std::vector<Point> points;
    for (const std::string& text : words.TakeOptions(option)) {
        points.push_back(ReadPoint(words, option, text));
    }
    return points;
}

void AppendPoints(const BusMessagePtr& call, const std::vector<Point>& points) {
    CameraClient::CheckArgument(sd_bus_message_open_container(call.get(), 'a', "(dd)"));
    for (const Point& point : points) {
        CameraClient::CheckArgument(sd_bus_message_append(call.get(), "(dd)", point.x, point.y));
    }
    CameraClient::CheckArgument(sd_bus_message_close_container(call.get()));
}

}  // namespace

void RaiseAlert(Words& words) {
    const std::string source = words.TakeOption("--source");
    const std::string className = words.TakeOption("--class");
    const std::string type = words.TakeOption("--type");
    const std::string rule = words.TakeOption("--rule");
    const std::string description = words.TakeOption("--description");
    const std::vector<Point> rulePoints = TakePoints(words, "--rule-point");
    const std::vector<Point> boxPoints = TakePoints(words, "--box-point");
    const std::string mediaType = words.TakeOption("--media-type");
    const std::string mediaUrl = words.TakeOption("--media-url");
    words.ExpectNoMore();

    CameraClient camera;
    const BusMessagePtr call = camera.NewCall("RaiseAlert");
    CameraClient::CheckArgument(sd_bus_message_append(call.get(), "sssss", source.c_str(), className.c_str(),
                                                      type.c_str(), rule.c_str(), description.c_str()));
    AppendPoints(call, rulePoints);
    AppendPoints(call, boxPoints);
    CameraClient::CheckArgument(sd_bus_message_append(call.get(), "ss", mediaType.c_str(), mediaUrl.c_str()));
    camera.Send(call);
}

}  // namespace kelto::vcam
