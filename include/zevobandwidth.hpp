/**
 * zevobandwidth.hpp: the C++ layer over zevobandwidth.h, in this header alone; C++11 or later.
 *
 *     std::atomic<unsigned> notices{0};     // the service's SIGHUP handler only adds 1
 *
 *     auto begun = zevobw::Transfer::Begin(uid, ZEVO_BW_PROTOCOL_FTP, ZEVO_BW_TRANSFER_UPLOAD,
 *                                          "photos.tar", &notices);
 *     if (!begun) return Refuse(begun.error().Text());
 *     zevobw::Transfer &transfer = begun.value();
 *     while (more) {
 *         ... move at most transfer.BlockSize(wanted) bytes ...
 *         const zevobw::Outcome paid = transfer.Moved(bytes, progress); // sleeps
 *         if (!paid) return transfer.stopped() ? SayStopped() : Complain(paid.error().Text());
 *     } // the end of the scope removes the transfer from the list, also after an exception
 *
 * Conventions:
 *  - Constants, records, units and the meaning of every code are those of zevobandwidth.h: rates
 *    are KB/s, speeds bytes per second, 0 is unlimited, progress is in ten-thousandths.
 *  - A failure is a value: an Outcome, or a Result that holds a value on success. Only functions
 *    with "OrThrow" in their names throw, and functions that make a std::string. Each call can be
 *    made to throw: Config::Read(uid, protocol).ValueOrThrow().
 *  - A failed Result still holds an empty value. An empty Config limits nobody, and an empty
 *    Transfer lets everything pass: a service that prefers unlimited transfers to none goes on with
 *    them.
 *  - Objects own what they hold. They can be moved and not copied; a moved-from object is empty.
 *  - Threads: an object belongs to one thread at a time; several objects may be used at once. A
 *    signal handler must not call anything here.
 *  - Uploads of one process and user share a section, and so do its downloads. In the status file
 *    of a group even those of different users do. See Transfer.
 *
 * Programs that use this layer are linked with zevobandwidth, and with zevocore for the error slot.
 */
#ifndef ZEVOBANDWIDTH_HPP
#define ZEVOBANDWIDTH_HPP

#include <zevobandwidth.h>
#include <zevocore.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <iterator>
#include <string>
#include <utility>

#if defined(__cpp_exceptions) || defined(__EXCEPTIONS)
#define ZEVO_BW_HAS_EXCEPTIONS 1
#include <stdexcept>
#endif

#if __cplusplus >= 201703L
#define ZEVO_BW_NODISCARD [[nodiscard]]
#else
#define ZEVO_BW_NODISCARD
#endif

namespace zevobw {

// ---- failures ----

/** What failed, and the place in the library's or the platform's sources that found it. It is a
 *  copy of the error slot and stays the same when the slot changes. */
class Error {
public:
    Error() noexcept : code_(0), line_(0), file_() {}

    /** What the calling thread's error slot holds. */
    static Error FromSlot() noexcept
    {
        Error error;
        error.code_ = VLIBCErrGet();
        error.line_ = VLIBCErrorGetLine();
        (void)std::snprintf(error.file_, sizeof(error.file_), "%s", VLIBCErrorGetFile());
        return error;
    }

    /** A ZEVO_BW_ERROR or a code of the platform; 0 when the call recorded none, as for a policy
     *  with an unknown value: then the system log says more. */
    unsigned int code() const noexcept { return code_; }

    /** The source file without its directory, cut to 63 characters; "" with code 0. */
    const char *file() const noexcept { return file_; }
    int line() const noexcept { return line_; }

    /** An administrator has stopped the transfer. That is no fault, but the transfer must end. */
    bool IsStop() const noexcept { return code_ == ZEVO_BW_ERROR_STOPPED; }

    /** The code in words, static storage. */
    const char *What() const noexcept
    {
        static const struct {
            unsigned int code;
            const char *words;
        } kRows[] = {
            {ZEVO_BW_ERROR_NO_MEMORY, "out of memory"},
            {ZEVO_BW_ERROR_STOPPED, "stopped by an administrator"},
            {ZEVO_BW_ERROR_ADDON_SEARCH, "no add-on by that name or number"},
            {ZEVO_BW_ERROR_OPEN, "a file cannot be opened or created"},
            {ZEVO_BW_ERROR_READ, "a file cannot be read"},
            {ZEVO_BW_ERROR_WRITE, "a file cannot be written"},
            {ZEVO_BW_ERROR_BAD_ARGUMENT, "refused argument"},
            {ZEVO_BW_ERROR_NOT_THERE, "not there"},
            {ZEVO_BW_ERROR_STAT, "a file's attributes cannot be read"},
            {ZEVO_BW_ERROR_RENAME, "a file cannot be renamed"},
            {ZEVO_BW_ERROR_BAD_NUMBER, "malformed number"},
            {ZEVO_BW_ERROR_ADDON_AMBIGUOUS, "several add-ons by that name or number"},
            {ZEVO_BW_ERROR_ADDON_BAD_NAME, "malformed name of an add-on's file"},
            {ZEVO_BW_ERROR_OWNER_TYPE, "a rule's owner is neither user nor group"},
        };
        for (const auto &row : kRows)
            if (row.code == code_) return row.words;
        return "failed, see the system log";
    }

    /** "stopped by an administrator [0x0300 bandwidth_sleep_in_loop.cpp:211]". Throws
     *  std::bad_alloc. */
    std::string Text() const
    {
        char place[kFileSize + 32];
        (void)std::snprintf(place, sizeof(place), " [0x%04X %s:%d]", code_, file_, line_);
        return std::string(What()) + place;
    }

private:
    static constexpr std::size_t kFileSize = 64;

    unsigned int code_;
    int line_;
    char file_[kFileSize];
};

#ifdef ZEVO_BW_HAS_EXCEPTIONS
/** What the functions with "OrThrow" in their names throw; what() is Error::Text(). */
class Failure : public std::runtime_error {
public:
    explicit Failure(const Error &error) : std::runtime_error(error.Text()), error_(error) {}
    const Error &error() const noexcept { return error_; }

private:
    Error error_;
};
#endif

/** Whether a call succeeded, and what failed if not. */
class Outcome {
public:
    /** Success. */
    Outcome() noexcept : ok_(true) {}
    Outcome(const Error &error) noexcept // NOLINT(google-explicit-constructor): returned as it is
        : ok_(false), error_(error)
    {
    }

    bool ok() const noexcept { return ok_; }
    explicit operator bool() const noexcept { return ok_; }

    /** Empty, code 0, after success. */
    const Error &error() const noexcept { return error_; }

#ifdef ZEVO_BW_HAS_EXCEPTIONS
    /** Throws Failure unless the call succeeded. */
    void OrThrow() const
    {
        if (!ok_) throw Failure(error_);
    }
#endif

private:
    bool ok_;
    Error error_;
};

/** An outcome with what the call gives on success, and an empty T on failure. */
template <class T> class Result : public Outcome {
public:
    // NOLINTNEXTLINE(google-explicit-constructor): a function returns one or the other
    Result(T &&value) noexcept : value_(std::move(value)) {}
    // NOLINTNEXTLINE(google-explicit-constructor)
    Result(const Error &error) noexcept : Outcome(error), value_() {}

    T &value() &noexcept { return value_; }
    const T &value() const &noexcept { return value_; }
    /** Of a result that goes away at once: the value itself, which a reference to it keeps alive.
     *  */
    T value() &&noexcept { return std::move(value_); }

#ifdef ZEVO_BW_HAS_EXCEPTIONS
    /** Moves the value out, or throws Failure. */
    T ValueOrThrow()
    {
        OrThrow();
        return std::move(value_);
    }
#endif

private:
    T value_;
};

namespace detail {

/** Runs a call of the C interface and takes its error from the slot. It empties the slot first: not
 *  every failure records a code, and the code of an earlier call must not be taken for it. */
template <class Call> Outcome Try(Call call) noexcept
{
    VLIBCErrSetEx(0, "", 0);
    return call() < 0 ? Outcome(Error::FromSlot()) : Outcome();
}

} // namespace detail

// ---- the rules of a user ----

/** The rules and the policy that apply to one user for one protocol. */
class Config {
public:
    /** Empty. */
    Config() noexcept : record_() {}
    ~Config() { ZEVOBandwidthConfigFree(&record_); }
    Config(Config &&other) noexcept : record_() { std::swap(record_, other.record_); }
    Config &operator=(Config &&other) noexcept
    {
        Config moved(std::move(other));
        std::swap(record_, moved.record_);
        return *this;
    }
    Config(const Config &) = delete;
    Config &operator=(const Config &) = delete;

    /** ZEVOBandwidthConfigGet(): as of now. Reads the rule files and the user database. A missing
     *  file counts as empty, so that in a chroot without it nobody is limited. */
    ZEVO_BW_NODISCARD static Result<Config> Read(std::uint32_t uid, std::int32_t protocol) noexcept
    {
        Config config;
        const Outcome read =
            detail::Try([&] { return ZEVOBandwidthConfigGet(uid, protocol, &config.record_); });
        if (!read) return read.error();
        return config;
    }

    /** ZEVOBandwidthInitConfig(): evaluates states and plans at a moment, in microseconds since the
     *  epoch, 0 for now. Gives true when anything is on a schedule: then call it again in the next
     *  hour. */
    bool Evaluate(std::int64_t timeUs = 0) noexcept
    {
        return ZEVOBandwidthInitConfig(&record_, timeUs) == 1;
    }

    /** The rules that are enabled or on a schedule: the user's own first, then the groups'. */
    const ZEVO_BANDWIDTH_LIMIT *begin() const noexcept { return record_.pLimit; }
    const ZEVO_BANDWIDTH_LIMIT *end() const noexcept { return record_.pLimit + size(); }
    std::size_t size() const noexcept
    {
        return record_.iLimit > 0 ? static_cast<std::size_t>(record_.iLimit) : 0;
    }

    const ZEVO_BANDWIDTH_GLOBAL_CONF &policy() const noexcept { return record_.globalConf; }

    /** The record itself, for calls of the C interface; this object goes on owning it. */
    ZEVO_BANDWIDTH_CONFIG &record() noexcept { return record_; }
    const ZEVO_BANDWIDTH_CONFIG &record() const noexcept { return record_; }

private:
    ZEVO_BANDWIDTH_CONFIG record_;
};

// ---- what runs ----

/**
 * The running transfers of one owner at the time when the object was made:
 *
 *     for (const ZEVO_BANDWIDTH_STATUS &t : zevobw::Transfers(ZEVO_BW_OWNER_USER, uid)) ...
 *
 * The constructor lists the owner's status file, and removes stale sections from it. When the file
 * cannot be read, the range is empty and outcome() says why; an owner without a file has no
 * transfers. The records live as long as the object. Any local user may have written their content.
 */
class Transfers {
public:
    class Iterator {
    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = ZEVO_BANDWIDTH_STATUS;
        using difference_type = std::ptrdiff_t;
        using pointer = const ZEVO_BANDWIDTH_STATUS *;
        using reference = const ZEVO_BANDWIDTH_STATUS &;

        Iterator() noexcept : at_(nullptr) {}
        explicit Iterator(pointer at) noexcept : at_(at) {}
        reference operator*() const noexcept { return *at_; }
        pointer operator->() const noexcept { return at_; }
        Iterator &operator++() noexcept
        {
            at_ = at_->next;
            return *this;
        }
        Iterator operator++(int) noexcept
        {
            const Iterator before = *this;
            ++*this;
            return before;
        }
        friend bool operator==(Iterator a, Iterator b) noexcept { return a.at_ == b.at_; }
        friend bool operator!=(Iterator a, Iterator b) noexcept { return a.at_ != b.at_; }

    private:
        pointer at_;
    };
    using const_iterator = Iterator;
    using value_type = ZEVO_BANDWIDTH_STATUS;

    /** Lists every protocol; numbers of add-ons are not bits, see ZEVOBandwidthIStatusGetAll(). */
    enum : std::int32_t { kEveryProtocol = -1 };

    /** @param ownerType  ZEVO_BW_OWNER_USER or ZEVO_BW_OWNER_GROUP
     *  @param id         uid or gid */
    Transfers(std::int32_t ownerType, std::uint32_t id, std::int32_t protocolMask = kEveryProtocol,
              std::uint32_t transferMask = ZEVO_BW_TRANSFER_ALL) noexcept
        : Transfers()
    {
        Take([&] {
            return ZEVOBandwidthStatusGetAll(ownerType, id, protocolMask, transferMask, &head_);
        });
    }

    /** ZEVOBandwidthIStatusGetAll(): the transfers of a status file. DANGER: a path with a "." in
     *  it is taken for a leftover temporary file and may be deleted. With merged there is one
     *  record for each protocol and direction, with the sums of the speeds. */
    static Transfers FromFile(const char *szStatusFile, std::int32_t protocolMask,
                              std::uint32_t transferMask, bool merged) noexcept
    {
        Transfers transfers;
        transfers.Take([&] {
            return ZEVOBandwidthIStatusGetAll(szStatusFile, protocolMask, transferMask,
                                              &transfers.head_, merged ? 1 : 0);
        });
        return transfers;
    }

    ~Transfers() { ZEVOBandwidthStatusListFree(&head_); }
    Transfers(Transfers &&other) noexcept : Transfers() { Swap(other); }
    Transfers &operator=(Transfers &&other) noexcept
    {
        Transfers moved(std::move(other));
        Swap(moved);
        return *this;
    }
    Transfers(const Transfers &) = delete;
    Transfers &operator=(const Transfers &) = delete;

    const Outcome &outcome() const noexcept { return outcome_; }

    Iterator begin() const noexcept { return Iterator(head_); }
    Iterator end() const noexcept { return Iterator(); }
    std::size_t size() const noexcept { return size_; }
    bool empty() const noexcept { return size_ == 0; }

private:
    Transfers() noexcept : head_(nullptr), size_(0) {}

    template <class Call> void Take(Call call) noexcept
    {
        int count = 0;
        outcome_ = detail::Try([&] { return count = call(); });
        size_ = count > 0 ? static_cast<std::size_t>(count) : 0;
    }
    void Swap(Transfers &other) noexcept
    {
        std::swap(head_, other.head_);
        std::swap(size_, other.size_);
        std::swap(outcome_, other.outcome_);
    }

    ZEVO_BANDWIDTH_STATUS *head_;
    std::size_t size_;
    Outcome outcome_;
};

// ---- one transfer ----

/**
 * A transfer of the calling process, from its registration to its end. The destructor removes it
 * from the list, however the scope is left. When the process is killed, or calls _exit() or exit()
 * inside the scope, its sections stay and become stale after 30 seconds.
 *
 * The name of a section has the process and the direction, and nothing else. When one process has
 * two objects for one user and direction, each takes the other's section for its own: each takes
 * the whole speed, and the first to end removes the other from the list until the other's next
 * block. Use one object for all such transfers of a process, and tell it the bytes of all of them.
 * In the status file of a group the same is true of different members: a service that limits groups
 * serves each user from another process. Begin a transfer in the process that moves the data, after
 * any fork().
 *
 * About 4.5 KB large.
 */
class Transfer {
public:
    /** Empty: every block passes at once, nothing is listed. */
    Transfer() noexcept
        : status_(), timeLast_(0), notices_(nullptr), noticesSeen_(0), onSchedule_(false),
          stopped_(false)
    {
    }
    /** Leaves errno and the error slot unchanged. */
    ~Transfer()
    {
        const int hosts = errno;
        const Error slot = Error::FromSlot();
        (void)Remove();
        VLIBCErrSetEx(slot.code(), slot.file(), slot.line());
        errno = hosts;
    }
    Transfer(Transfer &&other) noexcept : Transfer() { Swap(other); }
    /** Ends the transfer that the object held, after the other has begun. When both have the same
     *  user and direction, call End() before. */
    Transfer &operator=(Transfer &&other) noexcept
    {
        Transfer moved(std::move(other));
        Swap(moved);
        return *this;
    }
    Transfer(const Transfer &) = delete;
    Transfer &operator=(const Transfer &) = delete;

    /**
     * Reads the user's rules and registers a transfer before its first block. A transfer that
     * nothing limits is not listed; it is listed as soon as a reload brings a limit.
     * @param uid         user; (uint32_t)-1 is refused
     * @param protocol    one protocol or an add-on's number; ZEVO_BW_PROTOCOL_ALL is refused
     * @param direction   ZEVO_BW_TRANSFER_UPLOAD or ZEVO_BW_TRANSFER_DOWNLOAD
     * @param szFileName  what is listed, cut to 4095 characters
     * @param notices     counter of the notices that limits have changed; the host's SIGHUP handler
     *                    adds 1. nullptr when the host calls Reload() itself. It must outlive the
     *                    transfer; several transfers may share it.
     * Errors: as ZEVOBandwidthConfigGet() and ZEVOBandwidthStatusInit(); no section is left then.
     */
    ZEVO_BW_NODISCARD static Result<Transfer>
    Begin(std::uint32_t uid, std::int32_t protocol, std::int32_t direction, const char *szFileName,
          const std::atomic<unsigned> *notices = nullptr) noexcept
    {
        Transfer begun;
        begun.Watch(notices); // before the rules are read, so that no change is missed
        Result<Config> config = Config::Read(uid, protocol);
        if (!config) return config.error();
        begun.config_ = std::move(config.value());
        return Register(begun, direction, szFileName);
    }

    /** The same with a configuration that was read before, for a service that gives up its
     *  privileges or enters a chroot in between. Notices count from now on: a change between the
     *  reading and this call is not noticed. */
    ZEVO_BW_NODISCARD static Result<Transfer>
    Begin(Config &&config, std::int32_t direction, const char *szFileName,
          const std::atomic<unsigned> *notices = nullptr) noexcept
    {
        Transfer begun;
        begun.Watch(notices);
        begun.config_ = std::move(config);
        return Register(begun, direction, szFileName);
    }

    /**
     * How large the next block may be, in bytes: wanted, or what the configured speed or the last
     * allowed speed moves in five seconds when that is less. When it cannot be worked out, it is
     * wanted, too, and Moved() fails.
     */
    std::uint64_t BlockSize(std::uint64_t wanted) noexcept
    {
        std::uint64_t bps = ConfiguredBps().value();
        if (ZEVOBandwidthIsLessThan(AllowedBps(), bps) == 1) bps = AllowedBps();
        if (bps == 0) return wanted;
        const std::uint64_t most = std::min(bps, UINT64_MAX / kMaxSeconds) * kMaxSeconds;
        return std::min(wanted, most);
    }

    /**
     * Sleeps until the block has taken as long as its limit asks for, saves the transfer, and obeys
     * a notice that has come in. Call it after each block, and at least every 10 seconds, with 0
     * bytes when there are none: otherwise the transfer becomes stale.
     * @param bytes     bytes moved since the previous call
     * @param progress  ten-thousandths
     * @return          when it failed: end the transfer if stopped(), else decide yourself; the
     *                  block may have passed at any speed
     * Errors: as ZEVOBandwidthSleepInLoop() and Reload(). A failed reload is tried again with the
     *         next block; the old limits apply until then.
     * Threads: it sleeps; a signal cuts the sleep short.
     */
    ZEVO_BW_NODISCARD Outcome Moved(std::uint64_t bytes, std::uint32_t progress) noexcept
    {
        const std::uint64_t before = timeLast_;
        const Outcome paid = Pay(bytes, progress);
        // Time passes also when nothing limits the transfer: a new limit must not find unused time.
        if (timeLast_ == before) timeLast_ = ZEVOBandwidthCurrTimeGet();
        return paid ? ObeyNotice() : paid;
    }

    /** The same for a host that measures time itself: the block took lengthUs microseconds, 0 or
     *  more, until this call. */
    ZEVO_BW_NODISCARD Outcome Moved(std::uint64_t bytes, std::uint32_t progress,
                                    std::int64_t lengthUs) noexcept
    {
        timeLast_ = ZEVOBandwidthCurrTimeGet() - static_cast<std::uint64_t>(lengthUs);
        return Moved(bytes, progress);
    }

    /**
     * Reads the limits anew. When the transfer is limited now, it is saved at once, so that the
     * others go on counting it.
     * Errors: as ZEVOBandwidthHupRecv(), ZEVOBandwidthStatusSave(), or a stop.
     */
    ZEVO_BW_NODISCARD Outcome Reload() noexcept { return Reload(status_.current_speed); }

    /** The same with the speed at which the transfer has been moving; 0 when it is not known. */
    ZEVO_BW_NODISCARD Outcome Reload(std::uint64_t speedBps) noexcept
    {
        if (status_.pid == 0) return Outcome();  // empty
        if (AskStopped()) return Stop();         // before the section that says so is removed
        if (IsSaved()) (void)RemoveFromGroups(); // a copy that cannot be removed becomes stale
        status_.expect_speed = 0;
        const Outcome read = detail::Try(
            [&] { return ZEVOBandwidthHupRecv(&config_.record(), &status_, &timeLast_); });
        if (!read) return read;
        onSchedule_ = config_.Evaluate();
        const Result<std::uint64_t> configured = ConfiguredBps();
        if (!configured) return configured.error();
        return configured.value() == 0 ? Outcome() : SaveAmongOthers(speedBps);
    }

    /** The speed that the rules would give the transfer in this hour if it were alone, in bytes/s;
     *  0 when nothing limits it. Reads no file. */
    ZEVO_BW_NODISCARD Result<std::uint64_t> ConfiguredBps() noexcept
    {
        const std::int32_t state = config_.policy().state;
        if (state == ZEVO_BW_STATE_NOT_EXISTED || state == ZEVO_BW_STATE_DISABLED)
            return std::uint64_t{0};
        if (onSchedule_) onSchedule_ = config_.Evaluate();
        if (config_.policy().currentState == ZEVO_BW_STATE_DISABLED) return std::uint64_t{0};
        std::uint64_t bps = 0;
        const Outcome asked = detail::Try([&] {
            return ZEVOBandwidthExpectSpeedEstimateByPolicy(direction(), &config_.record(), &bps,
                                                            0);
        });
        if (!asked) return asked.error();
        return bps;
    }

    /** The speed that the last call allowed the transfer beside the others, in bytes/s; 0 when it
     *  is unlimited or not known yet. */
    std::uint64_t AllowedBps() const noexcept { return status_.expect_speed; }

    /** true when a call has found that an administrator has stopped the transfer. */
    bool stopped() const noexcept { return stopped_; }

    /** Looks now, between blocks, whether the transfer is stopped. Reads the user's status file. */
    bool AskStopped() const noexcept
    {
        ZEVO_BANDWIDTH_STATUS saved = {};
        saved.active = 1; // a section that lacks its flag, as a torn one may, stops nobody
        return stopped_ ||
               (IsSaved() &&
                ZEVOBandwidthStatusGet(ZEVO_BW_OWNER_USER, status_.id, direction(), &saved) == 0 &&
                saved.active == 0);
    }

    /** Removes the transfer from the list before the end of the scope; the object is empty then. On
     *  failure, sections that could not be removed become stale after 30 seconds. */
    Outcome End() noexcept
    {
        const Outcome removed = Remove();
        status_ = ZEVO_BANDWIDTH_STATUS();
        config_ = Config();
        notices_ = nullptr;
        return removed;
    }

    const Config &config() const noexcept { return config_; }
    const ZEVO_BANDWIDTH_STATUS &status() const noexcept { return status_; }
    std::int32_t direction() const noexcept
    {
        return static_cast<std::int32_t>(status_.transfer_type);
    }

private:
    static constexpr std::uint64_t kMaxSeconds = 5;

    static Result<Transfer> Register(Transfer &begun, std::int32_t direction,
                                     const char *szFileName) noexcept
    {
        begun.onSchedule_ = begun.config_.Evaluate();
        begun.timeLast_ = ZEVOBandwidthCurrTimeGet();
        const Outcome registered = detail::Try([&] {
            return ZEVOBandwidthStatusInit(&begun.config_.record(), direction, szFileName,
                                           &begun.timeLast_, &begun.status_);
        });
        if (!registered) return registered.error();
        return std::move(begun);
    }

    void Watch(const std::atomic<unsigned> *notices) noexcept
    {
        notices_ = notices;
        if (notices != nullptr) noticesSeen_ = notices->load();
    }

    Outcome Pay(std::uint64_t bytes, std::uint32_t progress) noexcept
    {
        // The C loop looks at the plans for one transfer of the process only.
        if (onSchedule_) onSchedule_ = config_.Evaluate();
        status_.expect_speed = 0; // the C loop does not set it when nothing limits the transfer
        const Outcome paid = detail::Try([&] {
            return ZEVOBandwidthSleepInLoop(&config_.record(), bytes, progress, &timeLast_,
                                            &status_);
        });
        if (paid.error().IsStop()) stopped_ = true;
        return paid;
    }

    Outcome ObeyNotice() noexcept
    {
        const unsigned seen = notices_ == nullptr ? noticesSeen_ : notices_->load();
        if (seen == noticesSeen_) return Outcome();
        const Outcome reloaded = Reload();
        if (reloaded) noticesSeen_ = seen;
        return reloaded;
    }

    Outcome SaveAmongOthers(std::uint64_t speedBps) noexcept
    {
        const Outcome estimated = detail::Try([&] {
            return ZEVOBandwidthExpectSpeedEstimateByPolicy(direction(), &config_.record(),
                                                            &status_.expect_speed, 1);
        });
        if (!estimated) return estimated;
        status_.timestamp = std::time(nullptr);
        status_.current_speed =
            speedBps == 0 ? status_.expect_speed : std::min(speedBps, status_.expect_speed);
        return detail::Try([&] {
            return ZEVOBandwidthStatusSave(config_.record().uid, &config_.record(), &status_);
        });
    }

    Outcome Stop() noexcept
    {
        stopped_ = true;
        VLIBCErrSetEx(ZEVO_BW_ERROR_STOPPED, "zevobandwidth.hpp", __LINE__);
        return Error::FromSlot();
    }

    /** The record has a time stamp since it was first saved. */
    bool IsSaved() const noexcept { return status_.timestamp != 0; }

    /** Removes the copies from every group whose rule was read, charged or not: an estimate since
     *  the last save may have charged other groups. */
    Outcome RemoveFromGroups() const noexcept
    {
        Outcome all;
        for (const ZEVO_BANDWIDTH_LIMIT &limit : config_) {
            if (limit.conf.ownerType != ZEVO_BW_OWNER_GROUP) continue;
            const Outcome removed = detail::Try([&] {
                return ZEVOBandwidthStatusRemoveByOccGroups(&limit.conf.id, 1,
                                                            status_.transfer_type);
            });
            if (!removed) all = removed;
        }
        return all;
    }

    Outcome Remove() const noexcept
    {
        if (!IsSaved()) return Outcome();
        const Outcome groups = RemoveFromGroups();
        const Outcome user = detail::Try(
            [&] { return ZEVOBandwidthStatusRemove(&config_.record(), status_.transfer_type); });
        return user ? groups : user;
    }

    void Swap(Transfer &other) noexcept
    {
        std::swap(config_, other.config_);
        std::swap(status_, other.status_);
        std::swap(timeLast_, other.timeLast_);
        std::swap(notices_, other.notices_);
        std::swap(noticesSeen_, other.noticesSeen_);
        std::swap(onSchedule_, other.onSchedule_);
        std::swap(stopped_, other.stopped_);
    }

    Config config_;
    ZEVO_BANDWIDTH_STATUS status_;
    std::uint64_t timeLast_; // end of the last block, microseconds since the epoch
    const std::atomic<unsigned> *notices_;
    unsigned noticesSeen_;
    bool onSchedule_;
    bool stopped_;
};

} // namespace zevobw

#endif // ZEVOBANDWIDTH_HPP
