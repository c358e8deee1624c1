// `fodr add`, `remove`, `list`, `status`: ask a running share.
#include "cli/Commands.h"
#include "cli/Console.h"
#include "host/ControlServer.h"
#include "lib/unicode/ForeignText.h"

#include <algorithm>
#include <filesystem>

namespace fodr::cli {
namespace {

namespace fs = std::filesystem;
using host::ControlReply;
using host::Words;

constexpr int kReplyTimeoutMS = 40000; // an add waits for the other side

// Says what went wrong; the reply's code tells whether anything did.
ControlReply Ask(uint32_t processId, const Words &request)
{
    const auto stream = host::ConnectToHost(processId);
    if (!stream) {
        const std::string which =
            processId == 0 ? "no share is running" : "no share with this process id is running";
        Complain(which + ": start one with fodr share");
        return {EXIT_NOT_RUNNING, "", {}};
    }
    if (!stream->PeerIsThisUser() || !host::SendRequest(stream.get(), request)) {
        Complain("the running share doesn't listen");
        return {EXIT_NOT_RUNNING, "", {}};
    }
    auto reply = host::ReceiveReply(stream.get(), kReplyTimeoutMS);
    if (!reply) {
        Complain("the running share doesn't answer");
        return {EXIT_NOT_RUNNING, "", {}};
    }
    if (!reply->sentence.empty())
        Complain(reply->sentence);
    return *reply;
}

std::string ShareAsJson(const Words &row)
{
    constexpr const char *kNames[] = {"path", "name", "state", "problem", "place"};
    std::string object = "{";
    for (size_t i = 0; i < std::size(kNames) && i < row.size(); ++i)
        object += (i == 0 ? "" : ", ") + QuotedJson(kNames[i]) + ": " + QuotedJson(row[i]);
    return object + "}";
}

std::string SharesAsJson(const std::vector<Words> &rows)
{
    std::string list = "[";
    for (const Words &row : rows)
        list += (list.size() == 1 ? "" : ", ") + ShareAsJson(row);
    return list + "]";
}

// A fact of a status, which comes as text like all words.
std::string FactAsJson(const Words &fact)
{
    constexpr std::string_view kNumbers[] = {"pid", "seconds", "reconnects"};
    const std::string &value = fact.back();
    const bool isNumber =
        std::find(std::begin(kNumbers), std::end(kNumbers), fact.front()) != std::end(kNumbers) &&
        !value.empty() && value.find_first_not_of("0123456789") == std::string::npos;
    return QuotedJson(fact.front()) + ": " + (isNumber ? value : QuotedJson(value));
}

// Share rows have five words, facts two.
constexpr size_t kShareWords = 5;
constexpr size_t kFactWords = 2;

void SayShares(const std::vector<Words> &rows)
{
    for (const Words &row : rows) {
        if (row.size() != kShareWords)
            continue;
        std::string line = Escaped(row[0]);
        if (!row[4].empty())
            line += " at " + Escaped(row[4]);
        line += ", " + row[2] + (row[3].empty() ? "" : ": " + Escaped(row[3]));
        Say(line);
    }
}

struct TrafficRow {
    std::string kind;
    unsigned long long packets = 0;
    unsigned long long bytes = 0;
};

std::vector<TrafficRow> TrafficRows(const std::vector<Words> &rows)
{
    std::vector<TrafficRow> traffic;
    for (const Words &row : rows) {
        if (row.size() == 3)
            traffic.push_back({Escaped(row[0]), std::strtoull(row[1].c_str(), nullptr, 10),
                               std::strtoull(row[2].c_str(), nullptr, 10)});
    }
    return traffic;
}

std::string TrafficAsJson(const std::vector<TrafficRow> &rows)
{
    std::string list = "[";
    for (const TrafficRow &row : rows)
        list += (list.size() == 1 ? "" : ", ") + ("{\"kind\": " + QuotedJson(row.kind)) +
                ", \"packets\": " + std::to_string(row.packets) +
                ", \"bytes\": " + std::to_string(row.bytes) + "}";
    return list + "]";
}

void SayTraffic(const std::vector<TrafficRow> &rows)
{
    TrafficRow all{"total", 0, 0};
    for (const TrafficRow &row : rows) {
        all.packets += row.packets;
        all.bytes += row.bytes;
    }
    const auto say = [&all](const TrafficRow &row) {
        char line[128];
        const double share =
            all.bytes == 0 ? 0 : static_cast<double>(row.bytes) / static_cast<double>(all.bytes) * 100;
        std::snprintf(line, sizeof(line), "%-25s %10llu %15llu %10llu %7.2f", row.kind.c_str(), row.packets,
                      row.bytes, row.packets == 0 ? 0 : row.bytes / row.packets, share);
        Say(line);
    };
    char head[128];
    std::snprintf(head, sizeof(head), "%-25s %10s %15s %10s %7s", "kind", "packets", "bytes", "average",
                  "% bytes");
    Say(head);
    for (const TrafficRow &row : rows)
        say(row);
    say(all);
}

} // namespace

int RunAdd(uint32_t processId, const std::string &folder, const std::string &name)
{
    std::error_code error;
    const fs::path path = fs::canonical(folder, error);
    if (error || !fs::is_directory(path)) {
        Complain("\"" + folder + "\" can't be shared: " + (error ? error.message() : "it is not a folder"));
        return EXIT_FOLDER;
    }
    const std::string shown = name.empty() ? path.filename().string() : name;
    const ControlReply reply = Ask(processId, {"add", path.string(), shown});
    for (const Words &row : reply.rows) {
        if (row.size() == 3)
            Say(Escaped(row[0]) + " is at " + Escaped(row[2]) + ".");
    }
    return reply.code;
}

int RunRemove(uint32_t processId, const std::string &folderOrName)
{
    // A folder that is gone can still be taken back, by the path that it had.
    std::error_code error;
    const fs::path path = fs::canonical(folderOrName, error);
    const bool isPath = !error && fs::is_directory(path, error);
    return Ask(processId, {"remove", isPath ? path.string() : folderOrName}).code;
}

int RunList(uint32_t processId, bool json)
{
    const ControlReply reply = Ask(processId, {"list"});
    if (reply.code == EXIT_DONE && json)
        Say(SharesAsJson(reply.rows));
    else
        SayShares(reply.rows);
    return reply.code;
}

int RunStatus(uint32_t processId, bool json)
{
    ControlReply reply = Ask(processId, {"status"});
    if (reply.code != EXIT_DONE)
        return reply.code;
    const auto shares = std::stable_partition(reply.rows.begin(), reply.rows.end(),
                                              [](const Words &row) { return row.size() == kFactWords; });
    const std::vector<Words> rows(shares, reply.rows.end());
    std::string object = "{";
    for (auto fact = reply.rows.begin(); fact != shares; ++fact) {
        if (json)
            object += FactAsJson(*fact) + ", ";
        else
            Say(fact->front() + ": " + Escaped(fact->back()));
    }
    if (json)
        Say(object + "\"shares\": " + SharesAsJson(rows) + "}");
    else
        SayShares(rows);
    return EXIT_DONE;
}

int RunTraffic(uint32_t processId, bool json)
{
    const ControlReply reply = Ask(processId, {"traffic"});
    if (reply.code != EXIT_DONE)
        return reply.code;
    const std::vector<TrafficRow> rows = TrafficRows(reply.rows);
    if (json)
        Say(TrafficAsJson(rows));
    else
        SayTraffic(rows);
    return EXIT_DONE;
}

} // namespace fodr::cli
