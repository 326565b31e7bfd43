// Replacing a file that many processes rewrite: whole or not at all.
//
// No lock is needed; writers take turns by an advisory lock that nobody waits for longer than 25 ms.
// A writer locks the open file, reads it, writes a temporary file beside it and renames that over it.
// The next writer gets the lock, sees that the name leads to another file by now, and opens that one.
// The lock goes with its holder, however that ends. A writer that has waited for 25 ms goes on without
// the lock: its holder hangs, or is a stranger. A last look before the rename then tells whether
// another writer was faster; if so, the writer starts over. After kMaxRetries, and in the moment
// between that look and the rename, the later rename wins.
#ifndef BASE_REPLACE_FILE_HPP
#define BASE_REPLACE_FILE_HPP

#include "regular_file.hpp"
#include "write_file.hpp"

namespace zevo {

constexpr int kMaxRetries = 5; // of a writer that is beaten

// How long one writer has waited for all its turns: 25 ms at most.
class TurnWait {
public:
    // Sleeps a little. Returns false, without sleeping, when the 25 ms are used up.
    bool Sleep() noexcept;
    long waitedUs() const noexcept { return waitedUs_; }

private:
    long nextUs_ = 100; // doubled each time
    long waitedUs_ = 0;
};

// A regular file and, if it could be had in time, the turn to change it.
class TurnFile : public RegularFile {
public:
    TurnFile(const Place &place, int flags, TurnWait &wait) noexcept;
    // Unlocks: close() alone would not while a child that is being forked holds the lock, too.
    ~TurnFile();
    TurnFile(const TurnFile &) = delete;
    TurnFile &operator=(const TurnFile &) = delete;

private:
    void TakeTurn(TurnWait &wait) noexcept;
};

// What became of a file: changed, left as it was, or why that failed.
struct [[nodiscard]] Change {
    Fault fault;
    bool isMade = false;
};

// What makes the new text of a file.
class Composer {
public:
    // Puts the new text together, of pieces of the old one and of what outlives the rewrite. Called
    // again when the rewrite starts over. Without a change the file stays as it is.
    virtual Change Compose(std::string_view oldText, Pieces &newText) noexcept = 0;

protected:
    ~Composer() = default;
};

enum class IfBeaten { kWin, kGiveUp };

// Replaces the file by what the composer makes of it, with the same permission bits. When other
// writers were faster each time, the last attempt replaces their file, or gives up and leaves it.
Change ReplaceFile(const char *szPath, Composer &composer, TurnWait &wait,
                   IfBeaten ifBeaten = IfBeaten::kWin) noexcept;

} // namespace zevo

#endif // BASE_REPLACE_FILE_HPP
