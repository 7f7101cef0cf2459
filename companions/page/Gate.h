#pragma once

#include "companions/page/HttpMessage.h"

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace kelto::page {

/**
 * Decides which requests come through.
 *
 * Whatever page a person looks at can have his browser send requests to this machine. Three things keep such a page
 * out: the request's host must be a name of ours, or a name that was made to point here would make the foreign page one
 * of ours; its origin, which no page can forge, must be ours; and what changes something brings the token that only our
 * own page knows. It decides by the request alone. Any thread.
 */
class Gate {
public:
    static constexpr size_t largestBody = 4096;

    /** @param hosts names that are ours, besides localhost, 127.0.0.1 and [::1] */
    Gate(std::vector<std::string> hosts, std::string pageToken);

    /** The refusal; nothing if the request comes through. */
    std::optional<HttpAnswer> Refuse(const HttpRequest& request) const;

private:
    bool IsOurs(const std::string& host) const;

    const std::vector<std::string> names;
    const std::string token;
};

}  // namespace kelto::page
