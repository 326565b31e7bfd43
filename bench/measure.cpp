#include "measure.hpp"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <errno.h>
#include <time.h>
#include <unistd.h>

namespace bench {

namespace {

std::vector<Figure> taken; // of the measurement that is being taken

void ExecChild(const std::vector<std::string> &words, int input, int output)
{
    ::dup2(input, STDIN_FILENO);
    ::dup2(output, STDOUT_FILENO);
    std::vector<char *> argv;
    argv.reserve(words.size() + 1);
    for (const std::string &word : words)
        argv.push_back(const_cast<char *>(word.c_str())); // execvp leaves them as they are
    argv.push_back(nullptr);
    ::execvp(argv[0], argv.data());
    ::_exit(127);
}

std::string Number(const Figure &figure, double value)
{
    char text[64];
    const int digits = std::strcmp(figure.unit, "%") == 0 ? 2 : 3;
    std::snprintf(text, sizeof text, "%.*f", digits, value);
    return *figure.unit == '\0' ? text : std::string(text) + " " + figure.unit;
}

std::string Bound(const Figure &figure)
{
    return (figure.atLeast ? ">= " : "<= ") + Number(figure, figure.bound);
}

// What a host has kept of the processors so far, in seconds; 0 where there is none.
double StolenSeconds()
{
    std::FILE *file = std::fopen("/proc/stat", "re");
    if (file == nullptr) return 0;
    unsigned long long ticks = 0;
    const int got = std::fscanf(file, "cpu %*u %*u %*u %*u %*u %*u %*u %llu", &ticks);
    std::fclose(file);
    return got == 1 ? static_cast<double>(ticks) / static_cast<double>(::sysconf(_SC_CLK_TCK)) : 0;
}

} // namespace

std::int64_t Now()
{
    timespec now = {};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * kSecond + now.tv_nsec / 1'000;
}

void Die(const std::string &what)
{
    std::fprintf(stderr, "%s: %s\n", ::program_invocation_short_name, what.c_str());
    std::exit(2);
}

pid_t Spawn(const std::vector<std::string> &words, int input, int output)
{
    const pid_t pid = ::fork();
    if (pid < 0) Die("fork failed");
    if (pid == 0) ExecChild(words, input, output);
    return pid;
}

void Table::Add(const Figure &figure)
{
    for (Figure &known : figures_) {
        if (known.name != figure.name) continue;
        const bool worse = figure.atLeast ? figure.value < known.value : figure.value > known.value;
        if (worse) known.value = figure.value;
        return;
    }
    figures_.push_back(figure);
}

bool Table::Print(int runs) const
{
    std::size_t longest = 46;
    for (const Figure &figure : figures_)
        longest = std::max(longest, figure.name.size());
    const int width = static_cast<int>(longest);
    std::printf("%-*s %12s %11s\n", width, "figure", "bound", runs == 1 ? "measured" : "worst run");
    bool all = true;
    for (const Figure &figure : figures_) {
        std::printf("%-*s %12s %11s  %s\n", width, figure.name.c_str(), Bound(figure).c_str(),
                    Number(figure, figure.value).c_str(), figure.Holds() ? "holds" : "BROKEN");
        all = all && figure.Holds();
    }
    return all;
}

void Report(const Figure &figure)
{
    taken.push_back(figure);
}

Stolen::Stolen() : seconds_(StolenSeconds()), began_(Now()) {}

double Stolen::Rate() const
{
    const double seconds = static_cast<double>(Now() - began_) / kSecond;
    return (StolenSeconds() - seconds_) / seconds;
}

bool WasDisturbed(double stolenRate)
{
    constexpr double kTooMuch = 0.05;
    std::fprintf(stderr, "  (the host kept %.2f %% of a processor)\n", stolenRate * 100);
    return stolenRate >= kTooMuch;
}

std::vector<Figure> Measurements::Taken()
{
    for (const Figure &figure : taken)
        std::fprintf(stderr, "  %s: %.4g %s\n", figure.name.c_str(), figure.value, figure.unit);
    return std::exchange(taken, {});
}

void Measurements::Keep(const std::vector<Figure> &figures)
{
    for (const Figure &figure : figures)
        table_.Add(figure);
}

void PrintRepeated(int repeated)
{
    if (repeated > 0)
        std::printf("%d measurements were repeated: the host had taken the processor away.\n",
                    repeated);
}

bool Measurements::Print(int runs) const
{
    const bool holds = table_.Print(runs);
    PrintRepeated(repeated_);
    return holds;
}

} // namespace bench
