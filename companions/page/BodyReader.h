#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace kelto::page {

/** A body that says nothing which could be done; the text is for the person who wrote it. */
class BodyError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/**
 * The body of a request, a JSON object: its fields are taken out one by one, and what is left then is an error, so that
 * no misspelt field is passed over in silence. A plain value.
 */
class BodyReader {
public:
    using Points = std::vector<std::pair<double, double>>;
    using Texts = std::vector<std::pair<std::string, std::string>>;

    /** Throws BodyError unless it is one object. */
    explicit BodyReader(const std::string& body);

    bool Has(const std::string& name) const { return fields.contains(name); }

    // All of these throw BodyError for a field that is missing or of another kind.
    bool TakeBool(const std::string& name);
    int32_t TakeInt(const std::string& name);
    std::string TakeText(const std::string& name);
    /** A text, or a whole number as text. */
    std::string TakeId(const std::string& name);

    /** Empty if it is missing. */
    std::string TakeTextIfThere(const std::string& name);
    /** A list of pairs of numbers; empty if it is missing. */
    Points TakePointsIfThere(const std::string& name);
    /** An object of texts; empty if it is missing. */
    Texts TakeTextsIfThere(const std::string& name);

    /** Throws BodyError if a field is left. */
    void ExpectNoMore() const;

private:
    nlohmann::json Take(const std::string& name);

    nlohmann::json fields;
};

}  // namespace kelto::page
