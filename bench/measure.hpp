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

// Says how much a host has kept; true where it was more than a twentieth of a processor.
bool WasDisturbed(double stolenRate);

// While the host runs somebody else, nothing here can keep its time: a disturbed measurement says
// nothing about us and is taken again, until it was taken so many times.
template <typename Scenario> auto Undisturbed(int mostAttempts, int *pRepeated, Scenario scenario)
{
    for (int attempt = 1;; ++attempt) {
        const Stolen stolen;
        auto result = scenario();
        if (!WasDisturbed(stolen.Rate()) || attempt == mostAttempts) return result;
        std::fprintf(stderr, "  so it is taken again\n");
        ++*pRepeated;
    }
}

// Notes at the end of a table how many measurements had to be taken again.
void PrintRepeated(int repeated);

// The figures of all scenarios.
class Measurements {
public:
    template <typename Scenario, typename... Arguments>
    void Take(Scenario scenario, const Arguments &...arguments)
    {
        Keep(Undisturbed(kMaxAttempts, &repeated_, [&] {
            scenario(arguments...);
            return Taken();
        }));
    }
    // Prints the table; false when a promise is broken.
    bool Print(int runs) const;

private:
    static constexpr int kMaxAttempts = 4;

    // What was reported since it was last asked for.
    static std::vector<Figure> Taken();
    void Keep(const std::vector<Figure> &figures);

    Table table_;
    int repeated_ = 0;
};

} // namespace bench

#endif // ZEVOBW_BENCH_MEASURE_HPP
