// What the measuring programs share: starting programs, the clock, the table of what is promised and
// what was measured, and whether the machine was ours meanwhile.
#ifndef ZEVOBW_BENCH_MEASURE_HPP
#define ZEVOBW_BENCH_MEASURE_HPP

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include <sys/types.h>

namespace bench {

constexpr std::int64_t kSecond = 1'000'000; // all times are microseconds

std::int64_t Now();

// Ends the program with exit status 2.
[[noreturn]] void Die(const std::string &what);

// Starts a program; the words are its path and its arguments.
pid_t Spawn(const std::vector<std::string> &words, int input, int output);

struct Figure {
    std::string name;
    double value = 0;
    double bound = 0;
    const char *unit = "%";
    bool atLeast = false;

    bool Holds() const { return atLeast ? value >= bound : value <= bound; }
};

// Of a figure that is taken several times the worst value counts.
class Table {
public:
    void Add(const Figure &figure);
    // false when a promise is broken.
    bool Print(int runs) const;

private:
    std::vector<Figure> figures_;
};

// Notes a figure of the measurement that is being taken.
void Report(const Figure &figure);

// How much of the processors a host keeps for somebody else, from the construction on.
class Stolen {
public:
    Stolen();
    // In processors, that is seconds by second.
    double Rate() const;

private:
    double seconds_;
    std::int64_t began_;
};

// The figures of one scenario, once it ran undisturbed.
class Measurements {
public:
    // While the host runs somebody else, nothing here can keep its time: a measurement from which
    // more than a twentieth of a processor was stolen says nothing about us and is taken again,
    // three times at most.
    template <typename Scenario, typename... Arguments>
    void Take(Scenario scenario, const Arguments &...arguments)
    {
        for (int attempt = 1;; ++attempt) {
            const Stolen stolen;
            scenario(arguments...);
            if (IsGood(stolen.Rate(), attempt)) return;
        }
    }
    // Prints the table; false when a promise is broken.
    bool Print(int runs) const;

private:
    bool IsGood(double stolenRate, int attempt);

    Table table_;
    int repeated_ = 0;
};

} // namespace bench

#endif // ZEVOBW_BENCH_MEASURE_HPP
