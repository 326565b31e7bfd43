// Replaces files that other processes may read at any moment.
#ifndef ZEVOBW_TOOL_MODEL_WHOLE_FILE_HPP
#define ZEVOBW_TOOL_MODEL_WHOLE_FILE_HPP

#include <memory>
#include <string>

#include "base/write_file.hpp"

namespace tool {

// Replaces the file whole, or leaves it as it was and throws Failure. Readers see the old file or
// the new one, and a full disk loses nothing. Keeps the file's permissions; everybody can read a
// new file.
void WriteWholeFile(const std::string &path, const std::string &text);

// A copy of a file, made before a change of several steps and put back if one of them fails. The
// copy is made beside the file at once. So putting it back is one rename, which works on a full
// disk, too. The object removes a copy that it did not put back.
class FileBackup {
public:
    // Throws Failure when the file is there and cannot be copied.
    explicit FileBackup(const std::string &path);

    // A file that was not there is removed. False when it could not be done (errno tells).
    bool PutBack();

    const std::string &path() const { return path_; }

private:
    const std::string path_;
    zevo::Place place_;
    std::unique_ptr<zevo::TempFile> copy_; // null: the file was not there
};

} // namespace tool

#endif // ZEVOBW_TOOL_MODEL_WHOLE_FILE_HPP
