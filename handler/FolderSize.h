#pragma once

#include <cstdint>
#include <string>

namespace kelto::halvek::handler {

/**
 * What a folder and all below it take on the disk, in bytes, as du sees it. Wraps at 4 GiB. The path stands unquoted in
 * a shell command, so one with blanks gives another folder's size or none. Blocks as long as du does.
 *
 * @return 0 for an empty folder where folders take no room, and on any failure. Throws nothing.
 */
uint32_t GetDirectorySize(const std::string& path) noexcept;

/**
 * Removes the least recently modified regular file directly in a folder, as find and ls see it. The path and the files'
 * names stand unquoted in a shell command, so blanks, quotes and line breaks in them may make it fail. Blocks as long
 * as the command does.
 *
 * Whatever the command names, nothing but a regular file directly in the folder is removed.
 *
 * @return whether a file was removed. Throws nothing.
 */
bool DeleteOldestFile(const std::string& path) noexcept;

}  // namespace kelto::halvek::handler
