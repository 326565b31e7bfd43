// Files that others read at any moment.
#ifndef ZEVOBW_TOOL_MODEL_WHOLE_FILE_HPP
#define ZEVOBW_TOOL_MODEL_WHOLE_FILE_HPP

#include <string>

namespace tool {

// Makes the file hold the text, or leaves it as it was and throws Failure: readers see the old file
// or the new one, and what was there is not lost to a full disk. Keeps the file's permissions; a new
// one is readable by everybody.
void WriteWholeFile(const std::string &path, const std::string &text);

} // namespace tool

#endif // ZEVOBW_TOOL_MODEL_WHOLE_FILE_HPP
