// What clients see of the password checks of an installed daemon: how long a refusal takes, whatever its
// reason, and what wrong passwords cost everybody else. Needs root: it makes accounts, and removes them.
//
//     PasswordChecks [crowd] [burst] [refusals]     all of them without arguments, some two minutes
//
// Not under real-time priority: clients and checks would wait for each other's time slices.

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <exception>
#include <set>
#include <stdexcept>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include "bench/BenchDaemon.h"
#include "bench/Conversation.h"
#include "bench/Results.h"
#include "tests/system/TestAccount.h"

namespace
{
constexpr int RefusalsOfAKind = 80;
constexpr double RefusalPause = 100; // milliseconds from one request to the next: the daemon is all but idle
constexpr int WrongInFlight = 20;
constexpr int Rounds = 15;
constexpr double Patience = 60000; // milliseconds
constexpr int BurstSize = 1000;
constexpr int Wrong = 0, Right = 1;
constexpr const char* BurstAddress = "127.0.0.2";
constexpr const char* OtherAddress = "127.0.0.1";

double Now()
{
    return NowInMicroseconds() / 1000;
}

/** A request that is under way. */
struct Asked {
    FileDescriptor connection;
    std::string request; // until it is sent, which is when the connection stands
    double begunAt = 0;  // milliseconds
    double answeredAt = 0;
    int kind = 0;
    bool isReset = false;

    double Wait() const { return answeredAt - begunAt; }
};

/** Begins to connect, and waits for nothing. */
Asked Ask(const BenchDaemon& daemon, const std::string& user, const std::string& password, int kind = 0,
          const char* from = OtherAddress)
{
    Asked asked;
    asked.kind = kind;
    asked.request = "RuvelControl V1.9|" + user + "|" + password + "|true|SOCKET|NOWINDOW|0";
    asked.connection = FileDescriptor(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    inet_pton(AF_INET, from, &address.sin_addr);
    const auto* const generic = reinterpret_cast<const sockaddr*>(&address);
    const int on = 1;
    setsockopt(asked.connection.Number(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (bind(asked.connection.Number(), generic, sizeof address) != 0)
        ThrowSystemError("bind");
    inet_pton(AF_INET, OtherAddress, &address.sin_addr);
    address.sin_port = htons(static_cast<in_port_t>(daemon.Port()));
    asked.begunAt = Now();
    if (connect(asked.connection.Number(), generic, sizeof address) != 0 && errno != EINPROGRESS)
        ThrowSystemError("connect");
    return asked;
}

/** Its connection stands, or its answer comes, or it is reset. */
void GoOn(Asked& asked, short events)
{
    asked.isReset = (events & POLLERR) != 0;
    if (asked.request.empty() || asked.isReset) {
        asked.answeredAt = Now();
        return;
    }
    fcntl(asked.connection.Number(), F_SETFL, 0);
    Send(asked.connection, asked.request);
    asked.request.clear();
}

/** Goes on with all until `end` (milliseconds; 0: until all are answered); true when all are. */
bool GoOn(std::vector<Asked>& all, double end = 0)
{
    std::vector<pollfd> polled;
    std::vector<Asked*> waiting;
    for (;;) {
        polled.clear();
        waiting.clear();
        for (Asked& asked : all)
            if (asked.answeredAt == 0) {
                const short awaited = asked.request.empty() ? POLLIN : POLLOUT;
                polled.push_back({asked.connection.Number(), awaited, 0});
                waiting.push_back(&asked);
            }
        const double left = end == 0 ? Patience : end - Now();
        if (polled.empty() || left <= 0)
            return polled.empty();
        const int ready = poll(polled.data(), polled.size(), static_cast<int>(std::ceil(left)));
        if (ready == 0 && end == 0)
            throw std::runtime_error("a request is not answered");
        for (std::size_t i = 0; i < polled.size(); ++i)
            if (polled[i].revents != 0)
                GoOn(*waiting[i], polled[i].revents);
    }
}

void Expect(const Asked& asked, bool isAccepted)
{
    const std::string answer = ReadToEnd(asked.connection);
    if ((answer.find("->ProcessReturnCode = 0\n") != std::string::npos) != isAccepted)
        throw std::runtime_error("not the expected answer: " + answer);
}

void PrintDistribution(const std::string& name, const std::vector<double>& values)
{
    std::printf("%-44s %9.1f %9.1f %9.1f %9.1f\n", name.c_str(), Percentile(values, 0.5),
                Percentile(values, 0.05), Percentile(values, 0.95), Percentile(values, 1));
}

void PrintHead(const std::string& title)
{
    std::printf("\n%s\n%-44s %9s %9s %9s %9s\n", title.c_str(), "milliseconds", "median", "p5", "p95",
                "most");
}

/** How often one of `a` takes longer than one of `b`: 0.5 when nobody can tell them apart. */
double ShareLonger(const std::vector<double>& a, const std::vector<double>& b)
{
    double longer = 0;
    for (const double x : a)
        for (const double y : b)
            longer += x > y ? 1 : x == y ? 0.5 : 0;
    return longer / static_cast<double>(a.size() * b.size());
}

void MeasureRefusals(const BenchDaemon& daemon)
{
    const TestAccount account({}, TestAccount::Check::Usual);
    TestAccount locked({}, TestAccount::Check::Usual);
    TestAccount expired({}, TestAccount::Check::Usual);
    locked.Lock();
    expired.Expire();
    const struct {
        const char* name;
        std::string user, password;
    } kinds[] = {{"wrong password", account.Name(), "wrong"},
                 {"unknown user", "nosuchuser", "wrong"},
                 {"empty password", account.Name(), ""},
                 {"locked account", locked.Name(), locked.Password()},
                 {"expired account", expired.Name(), expired.Password()}};
    constexpr int count = static_cast<int>(std::size(kinds));
    std::vector<Asked> all;
    const double begin = Now();
    for (int i = 0; i < RefusalsOfAKind * count; ++i) {
        // Another order in every round: none always follows the same.
        const int kind = (i + i / count * (1 + i / count % (count - 1))) % count;
        all.push_back(Ask(daemon, kinds[kind].user, kinds[kind].password, kind));
        GoOn(all, begin + (i + 1) * RefusalPause);
    }
    GoOn(all);
    std::vector<double> waits[count];
    for (const Asked& asked : all) {
        Expect(asked, false);
        waits[asked.kind].push_back(asked.Wait());
    }
    PrintHead("Connect to refusal, one request every " + std::to_string(static_cast<int>(RefusalPause)) +
              " ms");
    for (int kind = 0; kind < count; ++kind)
        PrintDistribution(std::string(kinds[kind].name) + ", " + std::to_string(waits[kind].size()),
                          waits[kind]);
    const double n = RefusalsOfAKind;
    std::printf(
        "A refusal takes longer than one of a wrong password, in shares of all pairs (0.5: no telling; "
        "chance alone: 0.5 +- %.2f):\n",
        1.96 * std::sqrt((2 * n + 1) / (12 * n * n)));
    for (int kind = 1; kind < count; ++kind)
        std::printf("%-44s %9.2f   p5 to p95 %s\n", kinds[kind].name, ShareLonger(waits[kind], waits[0]),
                    Percentile(waits[kind], 0.05) <= Percentile(waits[0], 0.95) &&
                            Percentile(waits[0], 0.05) <= Percentile(waits[kind], 0.95)
                        ? "overlap"
                        : "DO NOT OVERLAP");
}

/** One launch with the right password, beside so many wrong ones of `victim`; milliseconds to its answer. */
double TimeLaunch(const BenchDaemon& daemon, const TestAccount& account, const TestAccount& victim, int wrong)
{
    std::vector<Asked> crowd;
    for (int i = 0; i < wrong; ++i)
        crowd.push_back(Ask(daemon, victim.Name(), "wrong"));
    const auto isSent = [](const Asked& asked) { return asked.request.empty(); };
    while (!std::all_of(crowd.begin(), crowd.end(), isSent))
        GoOn(crowd, Now() + 1);
    std::vector<Asked> right;
    right.push_back(Ask(daemon, account.Name(), account.Password()));
    GoOn(right);
    Expect(right.front(), true);
    GoOn(crowd);
    for (const Asked& asked : crowd)
        Expect(asked, false);
    return right.front().Wait();
}

void MeasureCrowd(const BenchDaemon& daemon)
{
    const TestAccount account({}, TestAccount::Check::Usual);
    const TestAccount unrelated({}, TestAccount::Check::Usual);
    std::vector<double> alone, own, others;
    for (int round = 0; round < Rounds; ++round) {
        for (int i = 0; i < 4; ++i)
            alone.push_back(TimeLaunch(daemon, account, account, 0));
        own.push_back(TimeLaunch(daemon, account, account, WrongInFlight));
        others.push_back(TimeLaunch(daemon, unrelated, account, WrongInFlight));
    }
    PrintHead("`true` by a right password, connect to banner, " + std::to_string(Rounds) + " rounds");
    PrintDistribution("alone", alone);
    PrintDistribution("beside 20 wrong ones of the same user", own);
    PrintDistribution("beside 20 wrong ones of another user", others);
    std::printf("delay (medians): %.1f and %.1f ms\n", Percentile(own, 0.5) - Percentile(alone, 0.5),
                Percentile(others, 0.5) - Percentile(alone, 0.5));
}

void MeasureBurst(const BenchDaemon& daemon)
{
    const TestAccount account({}, TestAccount::Check::Usual);
    std::vector<Asked> all;
    const double begin = Now();
    for (int i = 0; i < BurstSize; ++i)
        all.push_back(Ask(daemon, account.Name(), "wrong", Wrong, BurstAddress));
    std::vector<double> waits;
    // The burst goes on while the others, one after the other, wait.
    for (bool done = false; !done;) {
        all.push_back(Ask(daemon, account.Name(), account.Password(), Right));
        while (all.back().answeredAt == 0)
            GoOn(all, Now() + 1);
        waits.push_back(all.back().Wait());
        done = GoOn(all, Now() + 1);
    }
    double last = 0;
    int resets = 0;
    for (const Asked& asked : all) {
        // The system drops some of a burst that its listening queue has no room for.
        resets += asked.isReset;
        if (!asked.isReset)
            Expect(asked, asked.kind == Right);
        if (asked.kind == Wrong)
            last = std::max(last, asked.answeredAt);
    }
    PrintHead(std::to_string(BurstSize) + " wrong passwords at once from " + BurstAddress +
              ", and right ones meanwhile, connect to banner");
    PrintDistribution(std::to_string(waits.size()) + " from " + OtherAddress, waits);
    std::printf(
        "the first of them: %.1f ms; the burst: all checked and refused within %.1f s, %.1f ms each\n",
        waits.front(), (last - begin) / 1000, (last - begin) / BurstSize);
    if (resets > 0)
        std::printf("%d connections were reset\n", resets);
}

constexpr struct {
    const char* name;
    void (*measure)(const BenchDaemon&);
} Subjects[] = {{"crowd", MeasureCrowd}, {"burst", MeasureBurst}, {"refusals", MeasureRefusals}};
} // namespace

int main(int argc, char** argv)
{
    if (geteuid() != 0) {
        std::fprintf(stderr, "PasswordChecks: needs root\n");
        return 1;
    }
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    try {
        const BenchDaemon daemon(BenchDaemon::Mode::Installed);
        const std::set<std::string> chosen(argv + 1, argv + argc);
        for (const auto& [name, measure] : Subjects)
            if (chosen.empty() || chosen.contains(name))
                measure(daemon);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "PasswordChecks: %s\n", failure.what());
        return 1;
    }
    return 0;
}
