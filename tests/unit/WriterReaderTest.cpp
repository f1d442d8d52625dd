#include <csignal>
#include <string>

#include "connections/WriterReader.h"
#include "support/Clock.h"

#include <gtest/gtest.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{
/** Runs `routine` in a child, which then waits for its end. */
template <class Routine>
pid_t Fork(Routine routine)
{
    int ready[2];
    EXPECT_EQ(pipe(ready), 0);
    const pid_t child = fork();
    if (child == 0) {
        routine();
        if (write(ready[1], "", 1) == 1)
            pause();
        _exit(0);
    }
    close(ready[1]);
    char byte;
    EXPECT_EQ(read(ready[0], &byte, 1), 1);
    close(ready[0]);
    return child;
}

void Kill(pid_t child)
{
    kill(child, SIGKILL);
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
}

TEST(WriterReader, RemovesOnlyWhatTheDeadHaveLeft)
{
    // Whose set it is, is known from who set its values.
    const auto setOf = [](pid_t process) {
        seminfo information;
        const int last = semctl(0, 0, SEM_INFO, &information);
        for (int i = 0; i <= last; ++i) {
            semid_ds description;
            const int set = semctl(i, 0, SEM_STAT, &description);
            if (set != -1 && semctl(set, 0, GETPID) == process)
                return set;
        }
        return -1;
    };
    const auto stands = [](int set) { return semctl(set, 0, GETPID) != -1; };
    const pid_t dead = Fork([] { new WriterReader(16); });
    const pid_t living = Fork([] { new WriterReader(16); });
    const pid_t stranger = Fork([] { semctl(semget(IPC_PRIVATE, 9, 0622), 0, SETVAL, 1); });
    const int sets[] = {setOf(dead), setOf(living), setOf(stranger)};
    Kill(stranger);
    WriterReader::RemoveAbandoned();
    EXPECT_TRUE(stands(sets[0]));
    Kill(dead);
    WriterReader::RemoveAbandoned();
    EXPECT_FALSE(stands(sets[0]));
    EXPECT_TRUE(stands(sets[1]));
    EXPECT_TRUE(stands(sets[2]));
    Kill(living);
    WriterReader::RemoveAbandoned();
    EXPECT_FALSE(stands(sets[1]));
    EXPECT_EQ(semctl(sets[2], 0, IPC_RMID), 0);
}

TEST(WriterReader, OutlivesAWriterThatDiesHoldingIt)
{
    WriterReader board(64);
    const pid_t writer = Fork([&] { board.Write("last word"), board.Lock(); });
    QORUnicodeString text;
    EXPECT_EQ(board.Read(text), 0);
    Kill(writer);
    EXPECT_EQ(board.Read(text), 9);
    EXPECT_EQ(text.View(), "last word");
    EXPECT_EQ(board.Write("mine"), 4);
}

TEST(WriterReader, TakesTheTimeWaitedOffTheReadersLimit)
{
    WriterReader held(64);
    WriterReader free(64);
    free.Write("free");
    const pid_t writer = Fork([&] { held.Lock(); });
    QORUnicodeString text;
    long long limit = 2000;
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(held.Read(text, limit), 0);
    EXPECT_LE(limit, 0);
    EXPECT_EQ(free.Read(text, limit), 4);
    Kill(writer);
}

TEST(WriterReader, NeverShowsHalfAText)
{
    WriterReader board(4096);
    const pid_t writer = fork();
    if (writer == 0) {
        for (int i = 0;; ++i)
            board.Write(std::string(static_cast<size_t>(1000 + i % 3000), static_cast<char>('a' + i % 26)));
    }
    int seen = 0;
    const long long deadline = Clock::SteadyMilliseconds() + 20000;
    while (seen < 2000 && Clock::SteadyMilliseconds() < deadline) {
        QORUnicodeString text;
        if (board.Read(text) == 0)
            continue;
        ++seen;
        ASSERT_EQ(text.View().find_first_not_of(text.View()[0]), std::string_view::npos);
    }
    EXPECT_EQ(seen, 2000);
    Kill(writer);
}
} // namespace
