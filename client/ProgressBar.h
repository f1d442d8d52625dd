#pragma once

#include <string>
#include <string_view>

/** How far a transfer is. */
struct Progress {
    /** Of the file, with what had been there before. */
    long long bytesDone = 0;
    /** -1 while nobody knows. */
    long long bytesInAll = -1;
    /** What was there before this attempt: it counts for the bar and not for the rate. */
    long long bytesBefore = 0;
    double seconds = 0;
};

// The texts of a bar; pure.
/** "512 B", "1.5 KiB", "234 MiB": three digits, powers of 1024. */
std::string FormatBytes(long long bytes);
/** "0:07", "12:34", "3:02:01"; hours beyond 99 days are "--:--", as is what is below zero. */
std::string FormatDuration(double seconds);
/** One line of at most so many columns. `name` is printable. */
std::string FormatProgress(std::string_view name, const Progress& progress, int columns);

/**
 * The bar of one transfer, redrawn in place on standard error a few times a second. Where that is no capable
 * terminal nothing is ever written.
 */
class ProgressBar
{
public:
    /** `isWanted` false: nothing is drawn. The name may hold any bytes. */
    ProgressBar(std::string_view name, bool isWanted);
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;
    ~ProgressBar() { Finish(); }

    /** What was there before, and the size in all (-1: unknown). */
    void Start(long long bytesBefore, long long bytesInAll);
    void Update(long long bytesDone);
    /** The bytes have been moved: stops the watch, leaves the last state and ends its line. */
    void Finish();
    /** Seconds from Start to Finish. */
    double Seconds() const;

private:
    void Draw();

    std::string name_;
    bool isDrawn_;
    bool hasLine_ = false;
    bool isFinished_ = false;
    Progress progress_;
    long long startMilliseconds_ = 0;
    long long drawnMilliseconds_ = 0;
};
