// How everything in base/ fails: with one of the codes that callers hand on to the error slot. errno
// stays as the failing call left it.
#ifndef BASE_FAULT_HPP
#define BASE_FAULT_HPP

namespace zevo {

// Why something failed; false when nothing did: if (const Fault fault = ...) return fault;
struct [[nodiscard]] Fault {
    unsigned code = 0;

    constexpr explicit operator bool() const noexcept { return code != 0; }
};

constexpr Fault kNoFault = {};
constexpr Fault kNoMemory = {0x0200};
constexpr Fault kCannotOpen = {0x0900}; // or make, or it is no regular file
constexpr Fault kCannotRead = {0x0A00};
constexpr Fault kCannotWrite = {0x0B00}; // or sync, or set the mode
constexpr Fault kBadArgument = {0x0D00};
constexpr Fault kNotThere = {0x2000};
constexpr Fault kCannotStat = {0x2700};
constexpr Fault kCannotRename = {0x2800};
constexpr Fault kRecorded = {~0U}; // the error slot holds the code already

} // namespace zevo

#endif // BASE_FAULT_HPP
