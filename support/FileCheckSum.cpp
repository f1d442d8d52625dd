#include "support/FileCheckSum.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>

#include <pthread.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{
constexpr std::size_t BlockSize = 131072; // is still in the processor's cache when it is summed up
constexpr std::size_t StackSize = 1 << 20;
/** More would only wait for memory. */
constexpr std::size_t MostThreads = 4;
/** Less is read before a thread has started. */
constexpr long long LeastPerThread = 1 << 20;
/** Small enough that all threads read near each other, as the system reads ahead in one place of a file. */
constexpr long long LeastPiece = 1 << 19;
constexpr long long MostPieces = 4096;

/** A range in pieces, of which each thread takes the next that nobody has taken. */
class Summation
{
public:
    Summation(int file, long long begin, long long end)
        : file_(file),
          begin_(begin),
          end_(end),
          pieceSize_(((end - begin) / MostPieces / LeastPiece + 1) * LeastPiece),
          pieceCount_((end - begin - 1) / pieceSize_ + 1)
    {
    }

    /** To be called by all threads: returns when there is nothing left to take. */
    void TakePart(const std::function<void(long long done)>& progress);
    /** When all have returned. */
    int Result(CheckSum& sum) const;

private:
    long long BeginOf(long long piece) const
    {
        return piece < pieceCount_ ? begin_ + piece * pieceSize_ : end_;
    }
    int SumUpPiece(long long piece, const std::function<void(long long done)>& progress);

    int file_;
    long long begin_;
    long long end_;
    long long pieceSize_;
    long long pieceCount_;
    std::atomic<long long> next_{0};
    std::atomic<long long> done_{0};
    std::atomic<int> error_{0};
    /** Of each piece; it is written by the thread that has taken it. */
    std::array<CheckSum, MostPieces> sums_;
};

void Summation::TakePart(const std::function<void(long long done)>& progress)
{
    while (error_ == 0) {
        const long long piece = next_++;
        if (piece >= pieceCount_)
            return;
        if (const int error = SumUpPiece(piece, progress))
            error_ = error;
    }
}

int Summation::SumUpPiece(long long piece, const std::function<void(long long done)>& progress)
{
    alignas(4096) char block[BlockSize];
    const long long end = BeginOf(piece + 1);
    for (long long at = BeginOf(piece); at < end;) {
        const auto length = static_cast<std::size_t>(std::min<long long>(end - at, BlockSize));
        const ssize_t count = pread(file_, block, length, at);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return count < 0 ? errno : EIO;
        sums_[static_cast<std::size_t>(piece)].Update(block, static_cast<unsigned>(count));
        at += count;
        const long long done = done_ += count;
        if (progress)
            progress(done);
    }
    return 0;
}

int Summation::Result(CheckSum& sum) const
{
    if (error_ != 0)
        return error_;
    for (long long piece = 0; piece < pieceCount_; ++piece)
        sum.Append(sums_[static_cast<std::size_t>(piece)],
                   static_cast<unsigned long long>(BeginOf(piece + 1) - BeginOf(piece)));
    return 0;
}

void* HelpWith(void* summation)
{
    static_cast<Summation*>(summation)->TakePart({});
    return nullptr;
}

/** Threads that help while this exists. */
class Helpers
{
public:
    Helpers(Summation& summation, std::size_t wanted);
    Helpers(const Helpers&) = delete;
    Helpers& operator=(const Helpers&) = delete;
    ~Helpers();

private:
    std::array<pthread_t, MostThreads> threads_;
    std::size_t count_ = 0;
};

Helpers::Helpers(Summation& summation, std::size_t wanted)
{
    pthread_attr_t attributes;
    if (wanted == 0 || pthread_attr_init(&attributes) != 0)
        return;
    // Whoever is to be told something by a signal is the caller.
    sigset_t all, before;
    sigfillset(&all);
    if (pthread_attr_setstacksize(&attributes, StackSize) == 0 &&
        pthread_sigmask(SIG_SETMASK, &all, &before) == 0) {
        while (count_ < wanted && pthread_create(&threads_[count_], &attributes, HelpWith, &summation) == 0)
            ++count_;
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }
    pthread_attr_destroy(&attributes);
}

Helpers::~Helpers()
{
    for (std::size_t i = 0; i < count_; ++i)
        pthread_join(threads_[i], nullptr);
}

/** How many threads are worth their start, the caller's included. */
std::size_t CountThreads(int file, long long size)
{
    struct stat status;
    cpu_set_t processors;
    const auto worthwhile = static_cast<std::size_t>(size / LeastPerThread);
    if (worthwhile < 2 || fstat(file, &status) != 0 || !S_ISREG(status.st_mode) ||
        sched_getaffinity(0, sizeof processors, &processors) != 0)
        return 1;
    return std::min({worthwhile, MostThreads, static_cast<std::size_t>(CPU_COUNT(&processors))});
}
} // namespace

int SumUpRange(int file, long long begin, long long end, CheckSum& sum,
               const std::function<void(long long done)>& progress)
{
    if (begin >= end)
        return 0;
    Summation summation(file, begin, end);
    {
        const Helpers helpers(summation, CountThreads(file, end - begin) - 1);
        summation.TakePart(progress);
    }
    return summation.Result(sum);
}
