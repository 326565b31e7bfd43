// Files as they were before a change of several steps, to be put back whole when one of them fails.
#ifndef ZEVOBW_TOOL_MODEL_FILE_BACKUP_HPP
#define ZEVOBW_TOOL_MODEL_FILE_BACKUP_HPP

#include <memory>
#include <string>

#include "base/regular_file.hpp"
#include "base/write_file.hpp"

namespace tool {

// The copy lies beside the file from the beginning, so that putting it back is one rename, which a
// full disk cannot refuse. It goes with the object.
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

#endif // ZEVOBW_TOOL_MODEL_FILE_BACKUP_HPP
