#include "companions/page/BodyReader.h"

#include <limits>

namespace kelto::page {

namespace {

using nlohmann::json;

[[noreturn]] void Refuse(const std::string& name, const char* kind) {
    throw BodyError("\"" + name + "\" is not " + kind);
}

/** Neither the bus nor an event takes a null byte in a text. */
std::string TextOf(const json& value, const std::string& name) {
    if (!value.is_string() || value.get_ref<const std::string&>().find('\0') != std::string::npos) {
        Refuse(name, "a text without null bytes");
    }
    return value;
}

}  // namespace

BodyReader::BodyReader(const std::string& body) : fields(json::parse(body, nullptr, false)) {
    if (!fields.is_object()) {
        throw BodyError("The body is not a JSON object");
    }
}

json BodyReader::Take(const std::string& name) {
    const auto found = fields.find(name);
    if (found == fields.end()) {
        throw BodyError("\"" + name + "\" is missing");
    }
    json value = std::move(*found);
    fields.erase(found);
    return value;
}

bool BodyReader::TakeBool(const std::string& name) {
    const json value = Take(name);
    if (!value.is_boolean()) {
        Refuse(name, "true or false");
    }
    return value;
}

int32_t BodyReader::TakeInt(const std::string& name) {
    using Limits = std::numeric_limits<int32_t>;
    const json value = Take(name);
    const bool fits = value.is_number_unsigned() ? value.get<uint64_t>() <= static_cast<uint64_t>(Limits::max())
                                                 : value.is_number_integer() && value.get<int64_t>() >= Limits::min();
    if (!fits) {
        Refuse(name, "a whole number of 32 bits");
    }
    return value;
}

std::string BodyReader::TakeText(const std::string& name) {
    return TextOf(Take(name), name);
}

std::string BodyReader::TakeId(const std::string& name) {
    const auto found = fields.find(name);
    return found != fields.end() && found->is_number_integer() ? std::to_string(TakeInt(name)) : TakeText(name);
}

std::string BodyReader::TakeTextIfThere(const std::string& name) {
    return Has(name) ? TakeText(name) : std::string();
}

BodyReader::Points BodyReader::TakePointsIfThere(const std::string& name) {
    Points points;
    if (!Has(name)) {
        return points;
    }
    const json list = Take(name);
    const auto isPoint = [](const json& point) {
        return point.is_array() && point.size() == 2 && point[0].is_number() && point[1].is_number();
    };
    if (!list.is_array()) {
        Refuse(name, "a list of points");
    }
    for (const json& point : list) {
        if (!isPoint(point)) {
            Refuse(name, "a list of points, each of which is a list of two numbers");
        }
        points.emplace_back(point[0], point[1]);
    }
    return points;
}

BodyReader::Texts BodyReader::TakeTextsIfThere(const std::string& name) {
    Texts texts;
    if (!Has(name)) {
        return texts;
    }
    const json object = Take(name);
    if (!object.is_object()) {
        Refuse(name, "an object");
    }
    for (const auto& [key, value] : object.items()) {
        texts.emplace_back(key, TextOf(value, key));
    }
    return texts;
}

void BodyReader::ExpectNoMore() const {
    if (!fields.empty()) {
        throw BodyError("There is no field \"" + fields.begin().key() + "\"");
    }
}

}  // namespace kelto::page
