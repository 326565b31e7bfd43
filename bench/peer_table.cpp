#include "peer_table.hpp"

#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <fstream>

#include <nlohmann/json.hpp>

#include "measure.hpp"

namespace bench {

namespace {

// How much worse than a peer is still as good: what one run differs from the next.
constexpr double kMoreOff = 0.001;       // of the limit
constexpr double kMoreOffShared = 0.005; // a window may cut a block of each process
constexpr double kMoreProcessor = 1.25;  // times
constexpr double kLessFair = 0.01;

constexpr double kShort = 0.05; // of the limit: who stays so far below it has no peaks to compare

constexpr const char *kJudgedCost = "100 MiB/s"; // slower, starting and waking outweigh the bytes

[[gnu::format(printf, 1, 2)]] std::string Text(const char *format, ...)
{
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    return text;
}

std::string Cost(const std::optional<double> &seconds)
{
    return seconds ? Text("%.3f", *seconds) : "-";
}

void PrintRow(const std::string &figures, const std::string &remark)
{
    std::printf("%s%s%s\n", figures.c_str(), remark.empty() ? "" : "  ", remark.c_str());
}

void PrintAlone(const std::vector<AloneRow> &rows)
{
    std::printf("%-21s %-10s %9s %7s %7s %9s\n", "one transfer", "limit", "mean off", "100 ms",
                "1 s", "s/GiB");
    for (const AloneRow &row : rows) {
        const std::string name = Text("%-21s %-10s", row.peer.c_str(), row.limit.c_str());
        if (row.why.empty())
            PrintRow(name + Text(" %+7.2f %% %6.2fx %6.2fx %9s", row.off * 100, row.most100ms,
                                 row.mostSecond, Cost(row.processor).c_str()),
                     row.remark);
        else
            PrintRow(name, row.why);
    }
}

void PrintShared(const std::vector<SharedRow> &rows, const char *limit)
{
    std::printf("%-21s %3s %9s %7s %8s %8s %8s %8s %7s\n",
                (std::string("sharing ") + limit).c_str(), "by", "sum", "Jain's", "settled",
                "still", "100 ms", "1 s", "s/GiB");
    for (const SharedRow &row : rows) {
        const std::string name = Text("%-21s %3d", row.peer.c_str(), row.processes);
        const std::string settled = row.settled ? Text("%.2f s", *row.settled) : "never";
        if (row.why.empty())
            PrintRow(name + Text(" %7.2f %% %7.3f %8s %6.2f s %7.2fx %7.2fx %7s", row.sum * 100,
                                 row.jain, settled.c_str(), row.still, row.burst100ms,
                                 row.burstSecond, Cost(row.processor).c_str()),
                     row.remark);
        else
            PrintRow(name, row.why);
    }
}

nlohmann::ordered_json OrNull(const std::optional<double> &value)
{
    return value ? nlohmann::ordered_json(*value) : nlohmann::ordered_json(nullptr);
}

nlohmann::ordered_json ToJson(const AloneRow &row)
{
    nlohmann::ordered_json json = {{"peer", row.peer}, {"limit", row.limit}};
    if (!row.remark.empty()) json["remark"] = row.remark;
    if (!row.why.empty()) {
        json["why"] = row.why;
        return json;
    }
    json["off"] = row.off;
    json["most_100_ms"] = row.most100ms;
    json["most_second"] = row.mostSecond;
    json["processor_seconds_per_gib"] = OrNull(row.processor);
    return json;
}

nlohmann::ordered_json ToJson(const SharedRow &row)
{
    nlohmann::ordered_json json = {{"peer", row.peer}, {"processes", row.processes}};
    if (!row.remark.empty()) json["remark"] = row.remark;
    if (!row.why.empty()) {
        json["why"] = row.why;
        return json;
    }
    json["sum"] = row.sum;
    json["jain"] = row.jain;
    json["settled"] = OrNull(row.settled);
    json["still"] = row.still;
    json["burst_100_ms"] = row.burst100ms;
    json["burst_second"] = row.burstSecond;
    json["processor_seconds_per_gib"] = OrNull(row.processor);
    return json;
}

template <typename Row> nlohmann::ordered_json ListOf(const std::vector<Row> &rows)
{
    auto list = nlohmann::ordered_json::array();
    for (const Row &row : rows)
        list.push_back(ToJson(row));
    return list;
}

void CompareAlone(const AloneRow &ours, const AloneRow &pv, std::vector<std::string> *pWorse)
{
    const char *const limit = ours.limit.c_str();
    if (std::abs(ours.off) > std::abs(pv.off) + kMoreOff)
        pWorse->push_back(Text("%s: the mean is %+.2f %% off, that of pv %+.2f %%", limit,
                               ours.off * 100, pv.off * 100));
    if (pv.off > -kShort && ours.most100ms > pv.most100ms)
        pWorse->push_back(Text("%s: the busiest 100 ms have %.2f times the limit, those of pv %.2f",
                               limit, ours.most100ms, pv.most100ms));
    const bool hasCost = ours.limit == kJudgedCost && ours.processor && pv.processor;
    if (hasCost && *ours.processor > *pv.processor * kMoreProcessor)
        pWorse->push_back(Text("%s: a GiB takes %.3f processor seconds, with pv %.3f", limit,
                               *ours.processor, *pv.processor));
}

void CompareShared(const SharedRow &ours, const SharedRow &peer, std::vector<std::string> *pWorse)
{
    const std::string what =
        std::to_string(ours.processes) + " processes, beside " + peer.peer + ": ";
    if (std::abs(ours.sum - 1) > std::abs(peer.sum - 1) + kMoreOffShared)
        pWorse->push_back(
            what + Text("the sum is %.2f %%, theirs %.2f %%", ours.sum * 100, peer.sum * 100));
    if (ours.jain < peer.jain - kLessFair)
        pWorse->push_back(what + Text("Jain's index is %.3f, theirs %.3f", ours.jain, peer.jain));
    if (peer.peer != kShaper) return; // the kernel neither stands still nor bursts
    if (ours.still > peer.still)
        pWorse->push_back(what + Text("standing still %.2f s after a join, theirs %.2f s",
                                      ours.still, peer.still));
    if (ours.burst100ms > peer.burst100ms)
        pWorse->push_back(what + Text("%.2f times the limit after a leave, theirs %.2f",
                                      ours.burst100ms, peer.burst100ms));
}

} // namespace

void PeerTable::Print() const
{
    if (!alone.empty()) PrintAlone(alone);
    if (!alone.empty() && !shared.empty()) std::printf("\n");
    if (!shared.empty()) PrintShared(shared, kJudgedCost);
}

void PeerTable::WriteJson(const std::string &path) const
{
    const nlohmann::ordered_json json = {{"alone", ListOf(alone)}, {"shared", ListOf(shared)}};
    std::ofstream file(path);
    file << json.dump(2) << '\n';
    if (!file.flush()) Die("cannot write " + path);
}

std::vector<std::string> PeerTable::Missing() const
{
    std::vector<std::string> missing;
    for (const AloneRow &row : alone)
        if (row.peer == kOurs && !row.why.empty()) missing.push_back(row.limit + ": " + row.why);
    for (const SharedRow &row : shared)
        if (row.peer == kOurs && !row.why.empty())
            missing.push_back(Text("%d processes: %s", row.processes, row.why.c_str()));
    return missing;
}

std::vector<std::string> PeerTable::Worse() const
{
    std::vector<std::string> worse;
    for (const AloneRow &ours : alone)
        for (const AloneRow &peer : alone)
            if (ours.peer == kOurs && peer.peer == kPv && ours.limit == peer.limit &&
                ours.why.empty() && peer.why.empty())
                CompareAlone(ours, peer, &worse);
    for (const SharedRow &ours : shared)
        for (const SharedRow &peer : shared)
            if (ours.peer == kOurs && peer.peer != kOurs && ours.processes == peer.processes &&
                ours.why.empty() && peer.why.empty())
                CompareShared(ours, peer, &worse);
    return worse;
}

} // namespace bench
