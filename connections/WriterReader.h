#pragma once

#include "support/QORUnicodeString.h"

/**
 * A status board: one short text in shared memory, guarded by a semaphore. A worker writes its progress, the
 * daemon reads it for its listings. Created before the fork so that both sides share it, owned by the
 * connection, removed by the daemon only.
 *
 * Neither side waits long for the other: a lock that is not had within a few milliseconds is given up, and
 * that update or reading is skipped. A worker that dies while it holds the lock gives it back. A worker may
 * use the board under another effective identity than it was made with; therefore anybody on the machine
 * may alter the semaphore, and a reader relies on nothing that the lock promises but the slot's size.
 *
 * The segment disappears by itself with the last process that has it attached. The semaphore does not: beside
 * the one that is the lock its set holds others, whose values tell which daemon made it, so that the next one
 * can tell what a killed one has left.
 */
class WriterReader
{
public:
    /** How long Write(), Read() and Lock() wait for the other side when not told otherwise. */
    static constexpr long long DefaultLockMicroseconds = 10'000;

    /** A board for texts of at most `size` - 1 bytes; GetStatus() tells whether it can be used. */
    explicit WriterReader(const unsigned& size);
    WriterReader(const WriterReader&) = delete;
    WriterReader& operator=(const WriterReader&) = delete;
    ~WriterReader();

    /**
     * Removes the semaphores of boards whose daemon has gone. Only what is beyond doubt: made by this user,
     * marked as a board, by a process of this process' own namespace that lives no more.
     */
    static void RemoveAbandoned();

    /** 0 usable, -1 not. Never changes after construction. */
    const int& GetStatus() const { return status_; }
    /** Number of bytes stored, cut to what the board holds; 0 when nothing was stored. */
    int Write(const QORUnicodeString& text);
    /** Length in bytes of the text read, 0 (and an empty text) when there is none or it cannot be had. */
    int Read(QORUnicodeString& text);
    /**
     * The same, for a caller that reads many boards: waits for at most `limitMicroseconds` in all and takes
     * the time waited off it. With nothing left a board that is free is still read.
     */
    int Read(QORUnicodeString& text, long long& limitMicroseconds);

    /** 0 when the semaphore was taken within the time, else -1. */
    int Lock(const long long& limitMicroseconds = DefaultLockMicroseconds);
    /** 0 when the semaphore was given back, else -1. */
    int Unlock();

private:
    void MakeSemaphore();
    void MakeSegment();

    int status_ = -1;
    int size_ = -1;
    int semaphoreSet_ = -1;
    char* slot_;
};
