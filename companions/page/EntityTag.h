#pragma once

#include <string_view>

namespace kelto::page {

/** Whether the value of an If-None-Match names the tag, which has its quotes. Any thread. */
bool Names(std::string_view ifNoneMatch, std::string_view tag);

}  // namespace kelto::page
